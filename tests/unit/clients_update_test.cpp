#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "clients/table.h"
#include "clients/update.h"
#include "common/text.h"
#include "model/context.h"
#include "recorded_commands.h"

namespace {

using clients::kUpdateCreated;
using clients::kUpdateExisting;
using std::nullopt;

constexpr const char* kStation = "00:11:22:33:44:55";
constexpr const char* kOther = "00:11:22:33:44:66";

class UpdateHandler : public ::testing::Test {
 protected:
  void SetUp() override { clients::init_records(*ctx_); }

  int update(int code, int ifindex, std::string_view mac, std::optional<std::string_view> ip = nullopt,
             std::optional<std::string_view> extra = nullopt) {
    return clients::update_client_table(*ctx_, code, ifindex, mac, ip, extra);
  }
  clients::ClientRecord& rec(int slot) { return ctx_->records[slot]; }

  std::unique_ptr<daemon_core::DaemonContext> ctx_ = std::make_unique<daemon_core::DaemonContext>();
  test_support::RecordedCommands recorded_;
};

TEST_F(UpdateHandler, RefusalsAndCodesThatTakeNoSlot) {
  EXPECT_EQ(update(11, 0, ""), clients::kUpdateRefused);
  EXPECT_EQ(update(10, 0, kStation), clients::kUpdateRefused);  // code 10 without an address
  EXPECT_EQ(update(20, 0, kStation, nullopt, "512 1024"), kUpdateCreated);  // unknown station
  EXPECT_EQ(ctx_->client_count, 0u);
  EXPECT_EQ(rec(0).in_use, 0);
}

TEST_F(UpdateHandler, KnownStationsKeepTheirSlotAndCode23Creates) {
  EXPECT_EQ(update(11, 1, kStation), kUpdateCreated);
  const auto first = rec(0).first_assoc_uptime;
  EXPECT_EQ(update(11, 1, kStation), kUpdateExisting);  // repeated association
  EXPECT_EQ(rec(0).first_assoc_uptime, first);
  rec(0).last_update = 0;
  EXPECT_EQ(update(9, 1, kStation), kUpdateExisting);  // other codes only stamp
  EXPECT_GT(rec(0).last_update, 0);
  EXPECT_EQ(rec(0).assoc_count, 2u);
  EXPECT_EQ(update(23, 0, kOther), kUpdateCreated);
  EXPECT_EQ(rec(1).mac, kOther);
}

TEST_F(UpdateHandler, UnknownInterfaceGoesToLatestAssociation) {
  update(11, 0, kStation);
  update(11, 2, kStation);
  rec(0).assoc_uptime = 100;
  rec(1).assoc_uptime = 200;
  rec(0).disassoc_uptime = rec(1).disassoc_uptime = 0;
  update(10, -1, kStation, "10.1.1.1");
  EXPECT_EQ(rec(1).ip, htonl(0x0a010101u));  // 10.1.1.1, kept in network order
  EXPECT_EQ(rec(0).ip, 0u);
}

TEST_F(UpdateHandler, FreeSlotInsideTheUsedRangeIsReused) {
  update(11, 0, kStation);
  update(11, 0, kOther);
  clients::clear_record(rec(0));
  EXPECT_EQ(update(11, 1, "00:11:22:33:44:77"), kUpdateCreated);
  EXPECT_EQ(rec(0).mac, "00:11:22:33:44:77");
  EXPECT_EQ(ctx_->client_count, 2u);
  EXPECT_EQ(rec(1).current, 1) << "another station's current flag is untouched";
}

TEST_F(UpdateHandler, FullTableEvictsTheOldestWithoutReadingPastIt) {
  for (int i = 0; i < clients::kClientSlots; ++i) {
    rec(i).mac = common::format("02:00:00:00:%02x:%02x", i >> 8, i & 0xff);
    rec(i).in_use = 1;
    rec(i).last_update = 5000 + i;
  }
  rec(77).last_update = 10;
  ctx_->client_count = clients::kClientSlots;
  for (int code : {10, 11, 12, 22}) {
    const std::string mac = "00:aa:00:00:00:" + std::to_string(10 + code);
    EXPECT_EQ(update(code, 0, mac, "10.0.0.1", "20"), kUpdateCreated);
    if (code == 10) {
      EXPECT_EQ(rec(77).mac, mac) << "the oldest update was evicted";
    }
  }
  EXPECT_EQ(ctx_->client_count, static_cast<std::uint32_t>(clients::kClientSlots));
}

}  // namespace

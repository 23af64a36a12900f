#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "clients/table.h"
#include "clients/update.h"
#include "common/clock.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/taglist.h"
#include "daemon/context.h"

namespace {

using clients::update_client_table;

constexpr const char* kStation = "00:11:22:33:44:55";
constexpr const char* kOther = "00:11:22:33:44:66";

class UpdateHandler : public ::testing::Test {
 protected:
  void SetUp() override {
    ctx_ = std::make_unique<daemon_core::DaemonContext>();
    clients::init_records(*ctx_);
    for (auto& rec : ctx_->records) clients::clear_record(rec);
    recorder_.record = [this](const std::string& command) { commands_.push_back(command); };
    recorder_.reply = [](const std::string&) { return std::optional<std::string>(); };
    common::set_command_recorder(&recorder_);
  }
  void TearDown() override { common::set_command_recorder(nullptr); }

  void configure(std::string_view text) {
    ctx_->masterconf = std::shared_ptr<config::taglist>(config::load_taglist_buffer(text, 1).release());
  }
  std::vector<std::string> commands_matching(std::string_view prefix) const {
    std::vector<std::string> out;
    for (const auto& c : commands_)
      if (c.rfind(prefix, 0) == 0) out.push_back(c);
    return out;
  }
  clients::ClientRecord& rec(int slot) { return ctx_->records[slot]; }

  std::unique_ptr<daemon_core::DaemonContext> ctx_;
  common::CommandRecorder recorder_;
  std::vector<std::string> commands_;
};

TEST_F(UpdateHandler, RefusesWithoutMacOrAddress) {
  EXPECT_EQ(update_client_table(*ctx_, 11, 0, "", std::nullopt, std::nullopt), clients::kUpdateRefused);
  EXPECT_EQ(update_client_table(*ctx_, 10, 0, kStation, std::nullopt, std::nullopt),
            clients::kUpdateRefused);
  EXPECT_EQ(ctx_->client_count, 0u);
}

TEST_F(UpdateHandler, AddressChangeMovesThePortalRoute) {
  configure("WLAN1_PORTAL=\"enable\"\nWLAN1_VLANID=\"7\"\n");
  EXPECT_EQ(update_client_table(*ctx_, 10, 0, kStation, "10.0.0.5 ath0", std::nullopt),
            clients::kUpdateCreated);
  EXPECT_EQ(commands_matching("ip ro"),
            (std::vector<std::string>{"ip ro add 10.0.0.5 dev br7 table rt_portal"}));

  commands_.clear();
  EXPECT_EQ(update_client_table(*ctx_, 10, 0, kStation, "10.0.0.5", std::nullopt), clients::kUpdateExisting);
  EXPECT_TRUE(commands_matching("ip ro").empty()) << "the same address changes nothing";

  EXPECT_EQ(update_client_table(*ctx_, 10, 0, kStation, "10.0.0.9", std::nullopt), clients::kUpdateExisting);
  EXPECT_EQ(commands_matching("ip ro"), (std::vector<std::string>{"ip ro del 10.0.0.5 dev br7 table rt_portal",
                                                                   "ip ro add 10.0.0.9 dev br7 table rt_portal"}));
}

TEST_F(UpdateHandler, NoPortalRouteWithoutPortal) {
  update_client_table(*ctx_, 10, 0, kStation, "10.0.0.5", std::nullopt);
  update_client_table(*ctx_, 10, 0, kStation, "10.0.0.6", std::nullopt);
  EXPECT_EQ(commands_matching("ip ro add"), std::vector<std::string>{});
  EXPECT_EQ(commands_matching("ip ro del").size(), 1u) << "the old route is deleted on a change";
}

TEST_F(UpdateHandler, RepeatedAssociationKeepsFirstUptime) {
  EXPECT_EQ(update_client_table(*ctx_, 11, 1, kStation, std::nullopt, std::nullopt), clients::kUpdateCreated);
  const auto first = rec(0).first_assoc_uptime;
  EXPECT_EQ(update_client_table(*ctx_, 11, 1, kStation, std::nullopt, std::nullopt), clients::kUpdateExisting);
  EXPECT_EQ(rec(0).assoc_count, 2u);
  EXPECT_EQ(rec(0).first_assoc_uptime, first);
  EXPECT_EQ(rec(0).current, 1);
  EXPECT_EQ(ctx_->client_count, 1u);
}

TEST_F(UpdateHandler, RateChangeForUnknownStationTakesNoSlot) {
  EXPECT_EQ(update_client_table(*ctx_, 20, 0, kStation, std::nullopt, "512 1024"), clients::kUpdateCreated);
  EXPECT_EQ(ctx_->client_count, 0u);
  EXPECT_EQ(rec(0).in_use, 0);
}

TEST_F(UpdateHandler, RateChangeUsesConfiguredRatesForMinusOne) {
  configure(
      "WLAN1_BANDWIDTH_CONTROL=\"enable\"\nWLAN1_CLIENT_BANDWIDTH_UPSTREAM=\"300\"\n"
      "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM=\"600\"\n");
  update_client_table(*ctx_, 11, 0, kStation, std::nullopt, std::nullopt);
  EXPECT_EQ(rec(0).bandwidth.up_rate, 300);
  update_client_table(*ctx_, 20, 0, kStation, std::nullopt, "512 1024");
  EXPECT_EQ(rec(0).bandwidth.up_rate, 512);
  EXPECT_EQ(rec(0).bandwidth.down_rate, 1024);

  commands_.clear();
  update_client_table(*ctx_, 20, 0, kStation, std::nullopt, "512 1024");
  EXPECT_TRUE(commands_.empty()) << "unchanged rates are not re-applied";

  update_client_table(*ctx_, 20, 0, kStation, std::nullopt, "-1 -1");
  EXPECT_EQ(rec(0).bandwidth.up_rate, 300);
  EXPECT_EQ(rec(0).bandwidth.down_rate, 600);
  EXPECT_FALSE(commands_matching("tc class del").empty());
  EXPECT_FALSE(commands_matching("tc class add").empty());
}

TEST_F(UpdateHandler, OtherCodesOnlyStampKnownStations) {
  update_client_table(*ctx_, 11, 0, kStation, std::nullopt, std::nullopt);
  rec(0).last_update = 0;
  const auto assoc = rec(0).assoc_count;
  EXPECT_EQ(update_client_table(*ctx_, 9, 0, kStation, std::nullopt, std::nullopt), clients::kUpdateExisting);
  EXPECT_GT(rec(0).last_update, 0);
  EXPECT_EQ(rec(0).assoc_count, assoc);
  EXPECT_EQ(update_client_table(*ctx_, 23, 0, kOther, std::nullopt, std::nullopt), clients::kUpdateCreated);
  EXPECT_EQ(rec(1).mac, kOther);
  EXPECT_EQ(rec(1).in_use, 1);
}

TEST_F(UpdateHandler, UnknownInterfaceGoesToLatestAssociation) {
  update_client_table(*ctx_, 11, 0, kStation, std::nullopt, std::nullopt);
  update_client_table(*ctx_, 11, 2, kStation, std::nullopt, std::nullopt);
  rec(0).assoc_uptime = 100;
  rec(1).assoc_uptime = 200;
  rec(0).disassoc_uptime = rec(1).disassoc_uptime = 0;
  rec(0).last_update = rec(1).last_update = 0;
  update_client_table(*ctx_, 10, -1, kStation, "10.1.1.1", std::nullopt);
  EXPECT_EQ(rec(1).ip, 0x0101010au) << "went to the VAP with the latest association";
  EXPECT_EQ(rec(0).ip, 0u);
}

TEST_F(UpdateHandler, FreeSlotInsideTheUsedRangeIsReused) {
  update_client_table(*ctx_, 11, 0, kStation, std::nullopt, std::nullopt);
  update_client_table(*ctx_, 11, 0, kOther, std::nullopt, std::nullopt);
  clients::clear_record(rec(0));
  EXPECT_EQ(update_client_table(*ctx_, 11, 1, "00:11:22:33:44:77", std::nullopt, std::nullopt),
            clients::kUpdateCreated);
  EXPECT_EQ(rec(0).mac, "00:11:22:33:44:77");
  EXPECT_EQ(ctx_->client_count, 2u);
  EXPECT_EQ(rec(1).current, 1) << "another station's current flag is untouched";
}

TEST_F(UpdateHandler, FullTableEvictsTheOldestWithoutReadingPastIt) {
  for (int i = 0; i < clients::kClientSlots; ++i) {
    auto& r = rec(i);
    r.mac = common::format("02:00:00:00:%02x:%02x", i >> 8, i & 0xff);
    r.in_use = 1;
    r.ifindex = 0;
    r.last_update = 5000 + i;
  }
  rec(77).last_update = 10;
  ctx_->client_count = clients::kClientSlots;
  for (int code : {10, 11, 12, 22}) {
    const std::string mac = "00:aa:00:00:00:" + std::to_string(10 + code);
    EXPECT_EQ(update_client_table(*ctx_, code, 0, mac, "10.0.0.1", "20"), clients::kUpdateCreated);
    if (code == 10) {
      EXPECT_EQ(rec(77).mac, mac) << "the record with the oldest update was evicted";
    }
  }
  EXPECT_EQ(ctx_->client_count, static_cast<std::uint32_t>(clients::kClientSlots));
}

}  // namespace

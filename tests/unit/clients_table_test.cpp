#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <memory>
#include <string>
#include <vector>

#include "clients/table.h"
#include "common/clock.h"
#include "common/text.h"
#include "model/context.h"
#include "recorded_commands.h"

namespace {

constexpr const char* kStation = "00:11:22:33:44:55";

std::string station(int n) { return common::format("02:00:00:00:%02x:%02x", n >> 8, n & 0xff); }

// A context whose records point back to it; commands are recorded, never run.
class ClientTableTest : public ::testing::Test {
 protected:
  void SetUp() override { clients::init_records(*ctx); }

  clients::ClientRecord& use(int slot, const std::string& mac, int ifindex,
                             std::int64_t last_update = 1000) {
    auto& r = ctx->records[slot];
    r.mac = mac;
    r.ifindex = ifindex;
    r.in_use = 1;
    r.last_update = last_update;
    ctx->client_count = std::max<std::uint32_t>(ctx->client_count, slot + 1);
    return r;
  }

  std::unique_ptr<daemon_core::DaemonContext> ctx = std::make_unique<daemon_core::DaemonContext>();
  test_support::RecordedCommands recorded;
  std::vector<std::string>& commands = recorded.commands;
};

TEST_F(ClientTableTest, MatchNeedsTheInterfaceOrTheCurrentFlag) {
  use(0, kStation, 1);
  use(1, kStation, 2).current = 1;
  struct Case { int ifindex; bool found; int slot; };
  for (const Case& c : {Case{2, true, 1}, Case{-1, true, 1}, Case{3, false, 2}}) {
    auto got = clients::lookup_record(*ctx, kStation, c.ifindex);
    EXPECT_EQ(got.found, c.found) << c.ifindex;
    EXPECT_EQ(got.found ? got.slot : clients::take_slot(*ctx, got), c.slot) << c.ifindex;
  }
}

TEST_F(ClientTableTest, FreeSlotFirstThenGrowthThenEviction) {
  for (int i = 0; i < 3; ++i) use(i, station(i), 1);
  ctx->records[1].in_use = 0;
  auto slot_for = [&] { return clients::take_slot(*ctx, clients::lookup_record(*ctx, kStation, 1)); };
  EXPECT_EQ(slot_for(), 1);
  EXPECT_EQ(ctx->client_count, 3u);
  ctx->records[1].in_use = 1;
  EXPECT_EQ(slot_for(), 3);
  EXPECT_EQ(ctx->client_count, 4u);

  for (int i = 0; i < clients::kClientSlots; ++i) use(i, station(i), 1, 5000 + i);
  ctx->records[100].last_update = 10;
  ctx->records[200].last_update = 20;
  auto got = clients::lookup_record(*ctx, kStation, 1);
  EXPECT_EQ(clients::take_slot(*ctx, got), 100);
  EXPECT_EQ(got.walk_end, 256u);
  EXPECT_EQ(ctx->client_count, 256u);
}

TEST_F(ClientTableTest, ExpiresOnlyAfterMoreThanHalfAnHour) {
  const long now = common::uptime_now();
  for (int i : {0, 1}) {
    auto& r = use(i, i == 1 ? kStation : station(i), i + 1);
    r.disassoc_uptime = static_cast<std::int32_t>(now - 1800 - i);
    r.assoc_uptime = r.disassoc_uptime - 100;
  }
  use(2, station(2), 1);  // assoc_uptime == disassoc_uptime: never expires
  EXPECT_EQ(clients::check_expired(*ctx), 0);
  EXPECT_EQ(ctx->records[0].in_use + ctx->records[2].in_use, 2);
  EXPECT_EQ(ctx->records[1].in_use, 0);
}

TEST_F(ClientTableTest, ClearDropsTheRouteAndKeepsPortalAndPoolSlot) {
  auto& r = use(4, kStation, 3);
  r.ip = ::inet_addr("10.0.0.5");
  r.vlan_id = 7;
  r.portal = 1;
  r.vlan_pool_slot = 42;
  clients::clear_record(r);
  EXPECT_EQ(commands, std::vector<std::string>{"ip ro del 10.0.0.5 dev br7 table rt_portal"});
  EXPECT_EQ(r.owner, ctx.get());
  EXPECT_EQ(r.ip + r.in_use, 0u);
  EXPECT_EQ(r.portal + r.vlan_pool_slot, 43);
  commands.clear();
  clients::clear_record(r);  // a free record runs nothing
  EXPECT_TRUE(commands.empty());
}

TEST_F(ClientTableTest, EarliestDeadlineOfRecordsInUse) {
  ctx->records[250].in_use = 1;  // beyond client_count, still counted
  ctx->records[250].holdoff_deadline = 400;
  ctx->records[7].holdoff_deadline = 100;  // not in use
  EXPECT_EQ(clients::earliest_deadline(*ctx), 400);
}

}  // namespace

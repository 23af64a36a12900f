#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "model/context.h"
#include "recorded_commands.h"
#include "vlan/pool.h"
#include "vlan/rules.h"

namespace {

using Pool = std::vector<std::uint16_t>;

constexpr const char* kStation = "00:11:22:33:44:55";

Pool range(int first, int last, Pool head = {}) {
  for (int v = first; v <= last; ++v) head.push_back(static_cast<std::uint16_t>(v));
  return head;
}
Pool zero_filled(Pool head) {
  head.resize(32, 0);
  return head;
}

TEST(VlanPoolParse, Table) {
  struct Case { std::string in; Pool want; };
  const Case cases[] = {
      {"10,20-22,30", {10, 20, 21, 22, 30}}, {"5;6 7|8", {5, 6, 7, 8}},
      {"1-40", range(1, 32)},                {"1-3,5-40", range(5, 33, {1, 2, 3})},
      {"abc,,;", {}},                        {"22-20,7", {7}},  // a reversed range adds nothing
      {"20-", {}},                           {"1--5", {5}},
      {"4090-5000", range(4090, 4095)},
      // A value of 4096 or more moves on by one character only: the rest of
      // its digits is read again as a number of its own.
      {"1,9999,2", {1, 999, 2}},
      // Five or more digits read as 0 over and over: the pool fills with 0.
      {"10,20,12345", zero_filled({10, 20})},
      {std::string(100000, '9'), zero_filled({})},
  };
  for (const auto& c : cases) EXPECT_EQ(vlan::parse_vlan_pool(c.in), c.want) << c.in.substr(0, 20);
  std::string singles;
  for (int v = 1; v <= 40; ++v) singles += std::to_string(v) + ",";
  EXPECT_EQ(vlan::parse_vlan_pool(singles), range(1, 32));
}

TEST(VlanPoolPick, MacSumAndIndex) {
  EXPECT_EQ(vlan::pool_mac_sum("AA:BB:CC:DD:EE:FF"), 714u);
  EXPECT_EQ(vlan::pool_mac_sum("00:00:00:zz:0g:"), 0u);
  EXPECT_EQ(vlan::pool_vlan_for_mac(range(100, 103), "00:11:22:00:00:05"), 101);
  EXPECT_EQ(vlan::pool_vlan_for_mac(range(100, 103), "00:11:22:00:00:04"), 100);
  EXPECT_EQ(vlan::pool_vlan_for_mac({}, "00:11:22:00:00:05"), 0);
}

TEST(VlanPoolSettings, DynamicModeAndForwardInterface) {
  const std::pair<const char*, int> modes[] = {{"required", 2}, {"disable", 0}, {"", 1},
                                               {"other", 1},    {"disable,required", 2}};
  for (const auto& [in, want] : modes) EXPECT_EQ(vlan::dynamic_vlan_mode(in), want) << in;
  EXPECT_EQ(vlan::forward_output_interface("br0", 0), "br0");
  EXPECT_EQ(vlan::forward_output_interface("br0", -1), "br0.-1");
  EXPECT_EQ(vlan::forward_output_interface("bridge0", 1234), "bridge0.1");
  EXPECT_EQ(vlan::forward_drop_command("-I", 0, "a$b"),
            "/sbin/ebtables -t filter -I FORWARD -p ! 802_1Q -i ath0 -o 'a$b' -j DROP");
  EXPECT_EQ(vlan::forward_drop_command("-I", 0, "-o"), std::nullopt);
}

TEST(VlanRules, DownstreamTargetAndCut) {
  struct Case { int wlan_vlan, untag; const char* tail; };
  for (const Case& c : {Case{0, 10, "--setvlan 4096 --setvlan-target ACCEPT"},
                        Case{10, 10, "--setvlan 4096 --setvlan-target ACCEPT"},
                        Case{-1, 0, "--setvlan -1 --setvlan-target DROP"}})
    EXPECT_EQ(vlan::sta_vlan_downstream_rule("br0", kStation, c.wlan_vlan, c.untag),
              std::string("-p ! 0x888e -i br0 -d 00:11:22:33:44:55 -j svlan ") + c.tail)
        << c.wlan_vlan << "/" << c.untag;
  for (const std::string& bad : {std::string(200, 'b'), std::string("-x"), std::string("a b")})
    EXPECT_EQ(vlan::sta_vlan_downstream_rule(bad, kStation, 0, 0), std::nullopt) << bad;
  EXPECT_EQ(vlan::sta_vlan_upstream_rule(0, "-h", 5), std::nullopt);
}

TEST(VlanRules, StoreNamesAndReplayedRulesArePlain) {
  test_support::RecordedCommands rec;
  for (const char* bad : {"", "../../etc/passwd", "AA:BB:CC:DD:EE:FF", "00:11:22:33:44:55/x",
                          "00:11:22:33:44:55 ", "00-11-22-33-44-55"}) {
    EXPECT_FALSE(vlan::is_rule_store_name(bad)) << bad;
    EXPECT_EQ(vlan::ebt_rule_store_add(bad, "-p ! 0x888e"), -1) << bad;
    EXPECT_EQ(vlan::ebt_rule_store_flush(bad, 1), -1) << bad;
  }
  EXPECT_TRUE(rec.commands.empty());
  EXPECT_TRUE(vlan::is_rule_store_name(kStation));
  EXPECT_TRUE(vlan::is_replayable_rule(*vlan::sta_vlan_downstream_rule("br$0", kStation, 5, 0)));
  for (const char* bad : {"-i br0; reboot", "-i $(id)", "-i `id`", "-i 'br0", "-i br0\nreboot",
                          "-i br0 > /etc/passwd", "-i \"x\"", "-i br0 & x"})
    EXPECT_FALSE(vlan::is_replayable_rule(bad)) << bad;
}

TEST(VlanRules, UpdateOutsideBridgeModeOrWithUntaggedVlanChangesNothing) {
  test_support::RecordedCommands rec;
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  clients::ClientRecord record;
  record.mac = kStation;
  vlan::handle_sta_vlan_update(*ctx, record, 0, 20);
  ctx->vlan.bridge_mode = 1;
  ctx->vlan.untag_vlan = 20;
  for (int vlan_id : {20, 0, -3}) vlan::handle_sta_vlan_update(*ctx, record, 0, vlan_id);
  EXPECT_TRUE(rec.commands.empty());
}

}  // namespace

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/runner.h"
#include "daemon/context.h"
#include "vlan/pool.h"
#include "vlan/rules.h"

namespace {

using Pool = std::vector<std::uint16_t>;

constexpr const char* kStation = "00:11:22:33:44:55";

struct Recorded {
  std::vector<std::string> commands;
  common::CommandRecorder recorder{[this](const std::string& c) { commands.push_back(c); }, {}};
  Recorded() { common::set_command_recorder(&recorder); }
  ~Recorded() { common::set_command_recorder(nullptr); }
};

Pool range(int first, int last) {
  Pool out;
  for (int v = first; v <= last; ++v) out.push_back(static_cast<std::uint16_t>(v));
  return out;
}

Pool concat(Pool a, const Pool& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(VlanPoolParse, Table) {
  struct Case {
    std::string in;
    Pool want;
  };
  const std::vector<Case> cases = {
      {"10,20-22,30", {10, 20, 21, 22, 30}},
      {"5;6 7|8", {5, 6, 7, 8}},
      {"1-40", range(1, 32)},
      {"1-3,5-40", concat(range(1, 3), range(5, 33))},
      {"", {}},
      {"abc,,;", {}},
      {"22-20", {}},          // reversed range adds nothing
      {"22-20,7", {7}},
      {"20-", {}},            // a range without an end is empty
      {"-5", {5}},
      {"1--5", {5}},
      {"x10y", {10}},
      {"0,4095", {0, 4095}},
      {"4090-5000", range(4090, 4095)},
      // A value of 4096 or more moves on by one character only: the rest of
      // its digits is read again as a number of its own.
      {"4096", {96}},
      {"1,9999,2", {1, 999, 2}},
      // Five or more digits read as 0 over and over: the pool fills with 0.
      {"12345", Pool(32, 0)},
      {"10,20,123456", concat({10, 20}, Pool(30, 0))},
      {"1-12345", Pool(32, 0)},
  };
  for (const auto& c : cases) EXPECT_EQ(vlan::parse_vlan_pool(c.in), c.want) << c.in;
}

TEST(VlanPoolParse, StopsAtThirtyTwoOnLongInput) {
  std::string list;
  for (int v = 1; v <= 3000; ++v) list += std::to_string(v) + ",";
  EXPECT_EQ(vlan::parse_vlan_pool(list), range(1, 32));

  std::string junk(200000, '-');
  for (std::size_t i = 0; i < junk.size(); i += 7) junk[i] = static_cast<char>('0' + i % 10);
  EXPECT_LE(vlan::parse_vlan_pool(junk).size(), 32u);
  EXPECT_EQ(vlan::parse_vlan_pool(std::string(100000, '9')), Pool(32, 0));
}

TEST(VlanPoolPick, MacSumAndIndex) {
  EXPECT_EQ(vlan::pool_mac_sum("00:11:22:00:00:05"), 5u);
  EXPECT_EQ(vlan::pool_mac_sum("00:00:00:10:20:30"), 96u);
  EXPECT_EQ(vlan::pool_mac_sum("aa:bb:cc:dd:ee:ff"), 714u);
  EXPECT_EQ(vlan::pool_mac_sum("AA:BB:CC:DD:EE:FF"), 714u);
  EXPECT_EQ(vlan::pool_mac_sum("00:00:00:zz:0g:"), 0u);
  EXPECT_EQ(vlan::pool_mac_sum(""), 0u);

  const Pool pool = range(100, 103);
  EXPECT_EQ(vlan::pool_vlan_for_mac(pool, "00:11:22:00:00:05"), 101);
  EXPECT_EQ(vlan::pool_vlan_for_mac(pool, "00:11:22:00:00:04"), 100);
  EXPECT_EQ(vlan::pool_vlan_for_mac({}, "00:11:22:00:00:05"), 0);
}

TEST(VlanPoolSettings, DynamicMode) {
  struct Case {
    const char* in;
    int want;
  };
  for (const Case& c : {Case{"required", 2}, Case{"optional", 1}, Case{"disable", 0},
                        Case{"", 1}, Case{"other", 1}, Case{"disable,required", 2}})
    EXPECT_EQ(vlan::dynamic_vlan_mode(c.in), c.want) << c.in;
}

TEST(VlanPoolSettings, ForwardDropRule) {
  EXPECT_EQ(vlan::forward_output_interface("br0", 0), "br0");
  EXPECT_EQ(vlan::forward_output_interface("br0", 100), "br0.100");
  EXPECT_EQ(vlan::forward_output_interface("br0", -1), "br0.-1");
  EXPECT_EQ(vlan::forward_output_interface("bridge0", 1234), "bridge0.1");
  EXPECT_EQ(vlan::forward_drop_command("-D", 2, "br0.100"),
            "/sbin/ebtables -t filter -D FORWARD -p ! 802_1Q -i ath2 -o br0.100 -j DROP");
  EXPECT_EQ(vlan::forward_drop_command("-I", 0, "a b"),
            "/sbin/ebtables -t filter -I FORWARD -p ! 802_1Q -i ath0 -o 'a b' -j DROP");
}

TEST(VlanPoolAssign, StationWithVlanOrDuringReloadIsLeftAlone) {
  Recorded rec;
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  for (auto& pool : ctx->vlan.vlan_pool) pool = range(100, 103);
  clients::ClientRecord record;
  record.mac = kStation;
  record.vlan_pool_slot = 7;
  vlan::process_sta_vlan_pool(*ctx, 0, record);
  EXPECT_EQ(record.vlan_pool_slot, 7);

  record.vlan_pool_slot = 0;
  ctx->fast_poll = 1;
  vlan::process_sta_vlan_pool(*ctx, 0, record);
  EXPECT_EQ(record.vlan_pool_slot, 0);
  EXPECT_TRUE(rec.commands.empty());
}

}  // namespace

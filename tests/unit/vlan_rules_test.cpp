#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/runner.h"
#include "daemon/context.h"
#include "vlan/rules.h"

namespace {

constexpr const char* kStation = "00:11:22:33:44:55";

struct Recorded {
  std::vector<std::string> commands;
  common::CommandRecorder recorder{[this](const std::string& c) { commands.push_back(c); }, {}};
  Recorded() { common::set_command_recorder(&recorder); }
  ~Recorded() { common::set_command_recorder(nullptr); }
};

TEST(VlanRules, RuleTexts) {
  EXPECT_EQ(vlan::sta_vlan_upstream_rule(1, kStation, 100),
            "-p ! 0x888e -i ath1 -s 00:11:22:33:44:55 -j svlan --setvlan 100 "
            "--setvlan-target ACCEPT");
  struct Case {
    int wlan_vlan, untag;
    const char* want;
  };
  for (const Case& c : {
           Case{20, 10,
                "-p ! 0x888e -i br0 -d 00:11:22:33:44:55 -j svlan --setvlan 20 "
                "--setvlan-target DROP"},
           Case{0, 10,
                "-p ! 0x888e -i br0 -d 00:11:22:33:44:55 -j svlan --setvlan 4096 "
                "--setvlan-target ACCEPT"},
           Case{10, 10,
                "-p ! 0x888e -i br0 -d 00:11:22:33:44:55 -j svlan --setvlan 4096 "
                "--setvlan-target ACCEPT"},
           Case{-1, 0,
                "-p ! 0x888e -i br0 -d 00:11:22:33:44:55 -j svlan --setvlan -1 "
                "--setvlan-target DROP"},
       })
    EXPECT_EQ(vlan::sta_vlan_downstream_rule("br0", kStation, c.wlan_vlan, c.untag), c.want)
        << c.wlan_vlan << "/" << c.untag;

  std::string long_bridge(200, 'b');
  EXPECT_EQ(vlan::sta_vlan_downstream_rule(long_bridge, kStation, 0, 0).size(), 127u);
}

TEST(VlanRules, StoreNamesMustBeCanonicalMacs) {
  Recorded rec;
  for (const char* bad : {"", "../../etc/passwd", "AA:BB:CC:DD:EE:FF", "00:11:22:33:44:55/x",
                          "00:11:22:33:44:5", "00:11:22:33:44:55 ", "00-11-22-33-44-55"}) {
    EXPECT_FALSE(vlan::is_rule_store_name(bad)) << bad;
    EXPECT_EQ(vlan::ebt_rule_store_add(bad, "-p ! 0x888e"), -1) << bad;
    EXPECT_EQ(vlan::ebt_rule_store_flush(bad, 1), -1) << bad;
  }
  EXPECT_TRUE(rec.commands.empty());
  EXPECT_TRUE(vlan::is_rule_store_name(kStation));
}

TEST(VlanRules, StoredLinesAsTheFlushReadsThem) {
  EXPECT_EQ(vlan::stored_rule_lines("a b\ncd\n"), (std::vector<std::string>{"a b", "cd"}));
  EXPECT_EQ(vlan::stored_rule_lines(""), std::vector<std::string>{});
  EXPECT_EQ(vlan::stored_rule_lines("abc"), std::vector<std::string>{"ab"});
  const std::string body(126, 'r');
  EXPECT_EQ(vlan::stored_rule_lines(body + "\n"), std::vector<std::string>{body});
  // A longer line comes in 127-character pieces, each losing its last one.
  const std::string longer(130, 'x');
  EXPECT_EQ(vlan::stored_rule_lines(longer + "\n"),
            (std::vector<std::string>{std::string(126, 'x'), "xxx"}));
}

TEST(VlanRules, OnlyPlainWordsAreReplayed) {
  EXPECT_TRUE(vlan::is_replayable_rule(vlan::sta_vlan_upstream_rule(0, kStation, 5)));
  EXPECT_TRUE(vlan::is_replayable_rule(vlan::sta_vlan_downstream_rule("br 0", kStation, 5, 0)));
  for (const char* bad : {"-i br0; reboot", "-i $(id)", "-i `id`", "-i 'br0", "-i br0\nreboot",
                          "-i br0 > /etc/passwd", "-i \"x\"", "-i br0 & x"})
    EXPECT_FALSE(vlan::is_replayable_rule(bad)) << bad;
}

TEST(VlanRules, BackgroundToolText) {
  Recorded rec;
  vlan::run_background_tool("ebtables -t broute -I BROUTING -p ! 0x888e");
  vlan::run_background_tool(std::string(400, 'a'));
  ASSERT_EQ(rec.commands.size(), 2u);
  EXPECT_EQ(rec.commands[0], "/sbin/ebtables -t broute -I BROUTING -p ! 0x888e &");
  EXPECT_EQ(rec.commands[1].size(), 255u);
}

TEST(VlanRules, UpdateOutsideBridgeModeOrWithUntaggedVlanChangesNothing) {
  Recorded rec;
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  clients::ClientRecord record;
  record.mac = kStation;
  vlan::handle_sta_vlan_update(*ctx, record, 0, 20);
  EXPECT_EQ(record.vlan_pool_slot, 0);
  ctx->vlan.bridge_mode = 1;
  ctx->vlan.untag_vlan = 20;
  vlan::handle_sta_vlan_update(*ctx, record, 0, 20);
  vlan::handle_sta_vlan_update(*ctx, record, 0, 0);
  vlan::handle_sta_vlan_update(*ctx, record, 0, -3);
  EXPECT_EQ(record.vlan_pool_slot, 0);
  EXPECT_TRUE(rec.commands.empty());
}

}  // namespace

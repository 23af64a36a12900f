#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bandwidth/shaping.h"
#include "common/runner.h"
#include "config/taglist.h"
#include "daemon/context.h"

namespace {

constexpr const char* kStation = "00:11:22:33:44:55";

// Records every command instead of running it while in scope.
struct Recorded {
  std::vector<std::string> commands;
  common::CommandRecorder recorder{[this](const std::string& c) { commands.push_back(c); }, {}};
  Recorded() { common::set_command_recorder(&recorder); }
  ~Recorded() { common::set_command_recorder(nullptr); }
};

clients::BandwidthBlock block_for(unsigned slot, int wlan, int radio, int up, int down) {
  clients::BandwidthBlock block;
  bandwidth::set_bandwidth_numbers(block, slot, wlan);
  bandwidth::set_bandwidth_radio(block, radio, radio == 1 ? "wifi1" : "wifi0");
  block.up_rate = up;
  block.down_rate = down;
  return block;
}

// Bridge mode: the WAN device is "eth1" without reading any status file.
config::TaglistPtr bridge_conf() { return config::load_taglist_buffer("AP_MODE=\"bridge\"\n", 1); }

TEST(BandwidthNumbering, MarksAndParents) {
  struct Case {
    unsigned slot;
    int wlan;
    unsigned up, down, parent;
  };
  for (const Case& c : {Case{1, 1, 0x20, 0x30, 0x1fe0}, Case{2, 3, 0x42, 0x52, 0x1fe2},
                        Case{0, 1, 0x00, 0x10, 0x1fe0}, Case{254, 16, 0x1fcf, 0x1fdf, 0x1fef}}) {
    clients::BandwidthBlock block;
    bandwidth::set_bandwidth_numbers(block, c.slot, c.wlan);
    EXPECT_EQ(block.bw_slot, c.slot);
    EXPECT_EQ(block.up_mark, c.up) << c.slot << "/" << c.wlan;
    EXPECT_EQ(block.down_mark, c.down) << c.slot << "/" << c.wlan;
    EXPECT_EQ(block.up_parent, c.parent);
    EXPECT_EQ(block.down_parent, c.parent);
  }
}

TEST(BandwidthSlot, SmallestFreeSlotOnTheInterface) {
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  auto put = [&](int i, int in_use, int ifindex, unsigned slot) {
    ctx->records[i].in_use = in_use;
    ctx->records[i].ifindex = ifindex;
    ctx->records[i].bandwidth.bw_slot = slot;
  };
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 0), 1u);
  put(0, 1, 0, 1);
  put(1, 1, 0, 2);
  put(2, 1, 1, 3);   // another interface
  put(3, 0, 0, 3);   // free record keeps its old slot
  put(4, 1, 0, 5);
  put(5, 1, 0, 4);   // beyond client_count
  ctx->client_count = 5;
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 0), 3u);
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 1), 1u);
  ctx->client_count = 6;
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 0), 3u);
}

TEST(BandwidthSlot, ExhaustedInterfaceGivesSlotZero) {
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  for (int i = 0; i < 254; ++i) {
    ctx->records[i].in_use = 1;
    ctx->records[i].ifindex = 2;
    ctx->records[i].bandwidth.bw_slot = static_cast<unsigned>(i + 1);
  }
  ctx->client_count = 254;
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 2), 0u);
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 3), 1u);
  ctx->records[100].in_use = 0;
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 2), 101u);
}

TEST(BandwidthCommands, ExactTexts) {
  EXPECT_EQ(bandwidth::tc_class_command("add", "wifi0", 2, 0x1fe0, 0x20, 512),
            "tc class add dev wifi0 parent 2:1fe0 classid 2:20 htb rate 2kbit ceil 512kbit "
            "burst 15k > /dev/null 2>&1");
  EXPECT_EQ(bandwidth::tc_qdisc_command("del", "wifi1", 3, 0x52),
            "tc qdisc del dev wifi1 parent 3:52 handle 0x6052: sfq perturb 10 > /dev/null 2>&1");
  EXPECT_EQ(bandwidth::tc_filter_command("add", "eth1", 1, 0x30),
            "tc filter add dev eth1 prio 0x30 protocol all parent 1:0 handle 0x30 fw flowid "
            "1:30 > /dev/null 2>&1");
  EXPECT_EQ(bandwidth::mark_rule_command("-A", 0, 3, kStation, 0x22),
            "/sbin/ebtables -A ATH3_BANDWIDTH_UP -s 00:11:22:33:44:55 -j mark --set-mark 0x22 "
            "--mark-target CONTINUE > /dev/null 2>&1");
  EXPECT_EQ(bandwidth::mark_rule_command("-D", 1, 0, kStation, 0x30),
            "/sbin/ebtables -D ATH0_BANDWIDTH_DOWN -d 00:11:22:33:44:55 -j mark --set-mark 0x30 "
            "--mark-target CONTINUE > /dev/null 2>&1");
}

TEST(BandwidthCommands, DeviceNamesAreQuoted) {
  EXPECT_EQ(bandwidth::tc_class_command("add", "wan;reboot", 1, 1, 2, 3),
            "tc class add dev 'wan;reboot' parent 1:1 classid 1:2 htb rate 2kbit ceil 3kbit "
            "burst 15k > /dev/null 2>&1");
  EXPECT_NE(bandwidth::tc_filter_command("add", "$(id)", 1, 2).find("dev '$(id)' "),
            std::string::npos);
}

TEST(BandwidthCommands, AddRunsClassesQueuesFiltersAndDelTheReverse) {
  auto block = block_for(1, 1, 0, 512, 1024);
  auto add = bandwidth::traffic_control_commands("add", block, 0, "eth1");
  const std::vector<std::string> want_add = {
      bandwidth::tc_class_command("add", "eth1", 1, 0x1fe0, 0x20, 512),
      bandwidth::tc_class_command("add", "wifi0", 2, 0x1fe0, 0x20, 512),
      bandwidth::tc_class_command("add", "wifi0", 2, 0x1fe0, 0x30, 1024),
      bandwidth::tc_qdisc_command("add", "eth1", 1, 0x20),
      bandwidth::tc_qdisc_command("add", "wifi0", 2, 0x20),
      bandwidth::tc_qdisc_command("add", "wifi0", 2, 0x30),
      bandwidth::tc_filter_command("add", "eth1", 1, 0x20),
      bandwidth::tc_filter_command("add", "wifi0", 2, 0x20),
      bandwidth::tc_filter_command("add", "wifi0", 2, 0x30),
  };
  EXPECT_EQ(add, want_add);

  auto del = bandwidth::traffic_control_commands("del", block, 0, "eth1");
  const std::vector<std::string> want_del = {
      bandwidth::tc_filter_command("del", "eth1", 1, 0x20),
      bandwidth::tc_filter_command("del", "wifi0", 2, 0x20),
      bandwidth::tc_filter_command("del", "wifi0", 2, 0x30),
      bandwidth::tc_qdisc_command("del", "eth1", 1, 0x20),
      bandwidth::tc_qdisc_command("del", "wifi0", 2, 0x20),
      bandwidth::tc_qdisc_command("del", "wifi0", 2, 0x30),
      bandwidth::tc_class_command("del", "eth1", 1, 0x1fe0, 0x20, 512),
      bandwidth::tc_class_command("del", "wifi0", 2, 0x1fe0, 0x20, 512),
      bandwidth::tc_class_command("del", "wifi0", 2, 0x1fe0, 0x30, 1024),
  };
  EXPECT_EQ(del, want_del);
}

TEST(BandwidthCommands, OneDirectionOnly) {
  auto down_only = block_for(2, 3, 1, 0, 256);
  auto cmds = bandwidth::traffic_control_commands("add", down_only, 0, "eth1");
  ASSERT_EQ(cmds.size(), 3u);
  for (const auto& c : cmds) EXPECT_NE(c.find("dev wifi1 "), std::string::npos) << c;
  EXPECT_EQ(cmds[0], bandwidth::tc_class_command("add", "wifi1", 3, 0x1fe2, 0x52, 256));

  auto up_only = block_for(2, 3, 1, 128, -1);
  EXPECT_EQ(bandwidth::traffic_control_commands("add", up_only, 0, "eth0").size(), 6u);
  EXPECT_EQ(bandwidth::mark_rule_commands("-A", 2, kStation, up_only),
            std::vector<std::string>{bandwidth::mark_rule_command("-A", 0, 2, kStation, 0x42)});
}

TEST(BandwidthCommands, TunnelCarriesTheUpstreamSide) {
  auto block = block_for(1, 1, 0, 512, 0);
  auto cmds = bandwidth::traffic_control_commands("add", block, 4, "eth1");
  ASSERT_EQ(cmds.size(), 6u);
  EXPECT_EQ(cmds[0],
            "tc class add dev bcp54 parent 84:1fe0 classid 84:20 htb rate 2kbit ceil 512kbit "
            "burst 15k > /dev/null 2>&1");
  EXPECT_EQ(cmds[2], bandwidth::tc_qdisc_command("add", "bcp54", 0x84, 0x20));
  EXPECT_NE(cmds[2].find("handle 0x108020:"), std::string::npos);
  for (const auto& c : cmds) EXPECT_EQ(c.find("eth1"), std::string::npos) << c;
}

TEST(BandwidthRun, BothRatesZeroRunsNothing) {
  Recorded rec;
  auto conf = bridge_conf();
  auto block = block_for(1, 1, 0, 0, 0);
  bandwidth::apply_bandwidth(conf.get(), kStation, 0, block);
  bandwidth::remove_bandwidth(conf.get(), kStation, 0, block);
  bandwidth::l2tp_update_client(conf.get(), 0, kStation, 0, block, 4);
  EXPECT_TRUE(rec.commands.empty());
}

TEST(BandwidthRun, RemoveDeletesMarksThenTheSet) {
  Recorded rec;
  auto conf = bridge_conf();
  auto block = block_for(1, 1, 0, 512, 1024);
  bandwidth::remove_bandwidth(conf.get(), kStation, 0, block);
  std::vector<std::string> want = bandwidth::mark_rule_commands("-D", 0, kStation, block);
  auto set = bandwidth::traffic_control_commands("del", block, 0, "eth1");
  want.insert(want.end(), set.begin(), set.end());
  EXPECT_EQ(rec.commands, want);
}

TEST(BandwidthRun, L2tpUpdateMovesTheUpstreamSide) {
  auto conf = bridge_conf();
  auto block = block_for(1, 1, 0, 512, 1024);
  {
    Recorded rec;
    bandwidth::l2tp_remove_client(conf.get(), block, 0);
    EXPECT_EQ(rec.commands, bandwidth::traffic_control_commands("del", block, 0, "eth1"));
  }
  {
    Recorded rec;
    bandwidth::l2tp_update_client(conf.get(), 0, kStation, 0, block, 2);
    EXPECT_EQ(rec.commands, bandwidth::traffic_control_commands("add", block, 2, ""));
    ASSERT_FALSE(rec.commands.empty());
    EXPECT_NE(rec.commands[0].find("dev bcp52 parent 82:"), std::string::npos);
  }
  {
    Recorded rec;
    bandwidth::l2tp_update_client(conf.get(), 1, kStation, 0, block, 2);
    EXPECT_EQ(rec.commands, bandwidth::traffic_control_commands("del", block, 2, ""));
  }
}

}  // namespace

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bandwidth/shaping.h"
#include "config/taglist.h"
#include "model/context.h"
#include "recorded_commands.h"

namespace {

constexpr const char* kStation = "00:11:22:33:44:55";

clients::BandwidthBlock block_for(unsigned slot, int wlan, int radio, int up, int down) {
  clients::BandwidthBlock block;
  bandwidth::set_bandwidth_numbers(block, slot, wlan);
  bandwidth::set_bandwidth_radio(block, radio, radio == 1 ? "wifi1" : "wifi0");
  block.up_rate = up;
  block.down_rate = down;
  return block;
}

TEST(BandwidthNumbering, MarksAndParents) {
  struct Case { unsigned slot; int wlan; unsigned up, down, parent; };
  for (const Case& c : {Case{1, 1, 0x20, 0x30, 0x1fe0}, Case{2, 3, 0x42, 0x52, 0x1fe2},
                        Case{254, 16, 0x1fcf, 0x1fdf, 0x1fef}}) {
    clients::BandwidthBlock block;
    bandwidth::set_bandwidth_numbers(block, c.slot, c.wlan);
    EXPECT_EQ(block.up_mark, c.up) << c.slot << "/" << c.wlan;
    EXPECT_EQ(block.down_mark, c.down) << c.slot << "/" << c.wlan;
    EXPECT_EQ(block.up_parent + block.down_parent, 2 * c.parent) << c.slot << "/" << c.wlan;
  }
}

TEST(BandwidthSlot, SmallestFreeSlotOnTheInterfaceOrZero) {
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  auto put = [&](int i, int in_use, int ifindex, unsigned slot) {
    ctx->records[i].in_use = in_use;
    ctx->records[i].ifindex = ifindex;
    ctx->records[i].bandwidth.bw_slot = slot;
  };
  put(0, 1, 0, 1);
  put(1, 1, 0, 2);
  put(2, 1, 1, 3);  // another interface
  put(3, 0, 0, 3);  // free record keeps its old slot
  put(4, 1, 0, 5);
  put(5, 1, 0, 4);  // beyond client_count
  ctx->client_count = 5;
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 0), 3u);
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 1), 1u);

  for (int i = 0; i < 254; ++i) put(i, 1, 2, static_cast<unsigned>(i + 1));
  ctx->client_count = 254;
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 2), 0u);
  ctx->records[100].in_use = 0;
  EXPECT_EQ(bandwidth::free_bandwidth_slot(*ctx, 2), 101u);
}

TEST(BandwidthCommands, OneDirectionOnlyAndQuotedDevices) {
  auto down_only = block_for(2, 3, 1, 0, 256);
  auto cmds = bandwidth::traffic_control_commands("add", down_only, 0, "eth1");
  ASSERT_EQ(cmds.size(), 3u);
  for (const auto& c : cmds) EXPECT_NE(c.find("dev wifi1 "), std::string::npos) << c;
  EXPECT_EQ(cmds[0], bandwidth::tc_class_command("add", "wifi1", 3, 0x1fe2, 0x52, 256));

  auto up_only = block_for(2, 3, 1, 128, -1);
  EXPECT_EQ(bandwidth::traffic_control_commands("add", up_only, 0, "eth0").size(), 6u);
  EXPECT_EQ(bandwidth::mark_rule_commands("-A", 2, kStation, up_only),
            std::vector<std::string>{*bandwidth::mark_rule_command("-A", 0, 2, kStation, 0x42)});
  EXPECT_NE(bandwidth::tc_filter_command("add", "$(id)", 1, 2)->find("dev '$(id)' "), std::string::npos);
  // A device that would be an option or a station that is no MAC: the whole set is left out.
  EXPECT_TRUE(bandwidth::traffic_control_commands("add", up_only, 0, "-x").empty());
  EXPECT_TRUE(bandwidth::mark_rule_commands("-A", 2, "-h", up_only).empty());
}

TEST(BandwidthCommands, TunnelCarriesTheUpstreamSide) {
  auto cmds = bandwidth::traffic_control_commands("add", block_for(1, 1, 0, 512, 0), 4, "eth1");
  ASSERT_EQ(cmds.size(), 6u);
  EXPECT_EQ(cmds[0],
            "tc class add dev bcp54 parent 84:1fe0 classid 84:20 htb rate 2kbit ceil 512kbit "
            "burst 15k > /dev/null 2>&1");
  EXPECT_NE(cmds[2].find("dev bcp54 parent 84:20 handle 0x108020:"), std::string::npos);
  for (const auto& c : cmds) EXPECT_EQ(c.find("eth1"), std::string::npos) << c;
}

TEST(BandwidthRun, BothRatesZeroRunsNothing) {
  test_support::RecordedCommands recorded;
  auto conf = config::load_taglist_buffer("AP_MODE=\"bridge\"\n", 1);
  auto block = block_for(1, 1, 0, 0, 0);
  bandwidth::apply_bandwidth(conf.get(), kStation, 0, block);
  bandwidth::remove_bandwidth(conf.get(), kStation, 0, block);
  bandwidth::l2tp_update_client(conf.get(), 0, kStation, 0, block, 4);
  EXPECT_TRUE(recorded.commands.empty());
}

}  // namespace

#include <gtest/gtest.h>

#include "clientmgrctl/steer.h"

namespace {

using clientmgrctl::build_steering_line;

constexpr std::string_view kStation = "00:11:22:33:44:55";

TEST(CtlSteering, BuildsTheDaemonsLines) {
  struct Case { std::string_view name; std::vector<std::string_view> args; std::string_view pipe, line; };
  const Case cases[] = {
      {"rate", {"ath2", "00:1A:2b:33:44:55", "512", "1024"}, "/etc/event_pipe",
       "[BANDWIDTH_RATE_UPDATE] ath2 00:1a:2b:33:44:55 bw 512 1024\n"},
      {"rate", {"ath0", kStation, "-1", "0"}, "/etc/event_pipe", "[BANDWIDTH_RATE_UPDATE] ath0 00:11:22:33:44:55 bw -1 0\n"},
      {"vlan", {"ath255", kStation, "4094"}, "/etc/event_pipe", "[STA_VLAN] ath255 00:11:22:33:44:55 vlan 4094\n"},
      {"refresh", {}, "/etc/event_pipe", "[REFRESH_CLIENT_FILE]\n"},
      {"remove-vap", {"0"}, "/etc/event_pipe", "[REMOVE_VAP] 0\n"},
      {"l2tp", {"bcp52", "up"}, "/etc/event_pipe", "[L2TP_IF_UPDATE] bcp52 up\n"},
      {"l2tp", {"l2tp-wan_1.0", "down"}, "/etc/event_pipe", "[L2TP_IF_UPDATE] l2tp-wan_1.0 down\n"},
      {"arp", {"AA:BB:CC:DD:EE:FF", "10.0.0.6", "ath1"}, "/etc/event_pipe",
       "clientmgrctl ath1 Halcyon.Netfilter.ARP aa:bb:cc:dd:ee:ff [10.0.0.6]\n"},
      {"client", {kStation, "255.255.255.255", "ath3"}, "/etc/client_table_pipe",
       "00:11:22:33:44:55 255.255.255.255 ath3\n"},
  };
  for (const Case& c : cases) {
    const auto result = build_steering_line(c.name, c.args);
    ASSERT_TRUE(result.line) << c.name << ": " << result.error;
    EXPECT_EQ(result.line->pipe, c.pipe);
    EXPECT_EQ(result.line->line, c.line);
  }
}

TEST(CtlSteering, RefusesBadArgumentsNamingThem) {
  struct Case { std::string_view name; std::vector<std::string_view> args; std::string_view names; };
  const std::string_view nul("ath0\0x", 6);
  const Case cases[] = {
      {"rate", {"ath0", kStation, "1"}, "usage: clientmgrctl rate athN MAC UP DOWN"},
      {"rate", {"wlan0", kStation, "1", "2"}, "bad VAP 'wlan0'"},
      {"rate", {"ath256", kStation, "1", "2"}, "bad VAP"},
      {"rate", {"ath01", kStation, "1", "2"}, "bad VAP"},
      {"rate", {"ath", kStation, "1", "2"}, "bad VAP"},
      {"rate", {nul, kStation, "1", "2"}, "bad VAP 'ath0\\x00x'"},
      {"rate", {"ath0", "00-11-22-33-44-55", "1", "2"}, "bad MAC"},
      {"rate", {"ath0", "00:11:22:33:44:5g", "1", "2"}, "bad MAC"},
      {"rate", {"ath0", "00:11:22:33:44:55 ", "1", "2"}, "bad MAC"},
      {"rate", {"ath0", kStation, "-2", "2"}, "bad UP"},
      {"rate", {"ath0", kStation, "1", "10000001"}, "bad DOWN"},
      {"rate", {"ath0", kStation, "1", "2\n"}, "bad DOWN '2\\x0a'"},
      {"rate", {"ath0", kStation, "+1", "2"}, "bad UP"},
      {"rate", {"ath0", kStation, "", "2"}, "bad UP ''"},
      {"vlan", {"ath0", kStation, "0"}, "bad VLAN"},
      {"vlan", {"ath0", kStation, "4095"}, "bad VLAN"},
      {"vlan", {"ath0", kStation, "-1"}, "bad VLAN"},
      {"refresh", {"now"}, "usage"},
      {"remove-vap", {"-1"}, "bad N"},
      {"remove-vap", {"ath1"}, "bad N"},
      {"l2tp", {"-bcp52", "up"}, "bad IFNAME"},
      {"l2tp", {"bcp 52", "up"}, "bad IFNAME"},
      {"l2tp", {"abcdefghijklmnop", "up"}, "bad IFNAME"},
      {"l2tp", {"bcp52", "UP"}, "bad state"},
      {"arp", {kStation, "10.0.0.256", "ath0"}, "bad IP"},
      {"arp", {kStation, "10.0.0", "ath0"}, "bad IP"},
      {"arp", {kStation, "10.0.0.1.", "ath0"}, "bad IP"},
      {"client", {kStation, "10.0.0.01", "ath0"}, "bad IP"},
      {"client", {kStation, "10.0.0.1", "br0"}, "bad VAP"},
      {"client", {"00:11:22:33:44", "10.0.0.1", "ath0"}, "bad MAC"},
      {"frobnicate", {}, "unknown command 'frobnicate'"},
  };
  for (const Case& c : cases) {
    const auto result = build_steering_line(c.name, c.args);
    EXPECT_FALSE(result.line) << c.name << " " << result.line->line;
    EXPECT_NE(result.error.find(c.names), std::string::npos) << result.error;
    EXPECT_EQ(result.error.find('\n'), std::string::npos) << result.error;
  }
}

}  // namespace

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "common/iface.h"
#include "config/accessors.h"
#include "daemon/client_pipe.h"

namespace {

using namespace std::string_literals;

TEST(HostileInput, InterfaceNumbersAreRangeChecked) {
  const common::InterfaceTable table{};
  const std::pair<const char*, int> names[] = {{"ath7", 7},           {"ath255", 255},
                                               {"ath-1", -1},         {"ath256", 0},
                                               {"ath2147483647", 0},  {"ath-2147483648", 0},
                                               {"ath99999999999999", 0}, {"eth1", 0}};
  for (const auto& [name, want] : names) EXPECT_EQ(common::interface_index_in(table, name), want) << name;
  EXPECT_EQ(config::get_wlan_id(2147483647), 0);
  std::array<int, 4> out{};
  EXPECT_EQ(config::scan_ath_list("1 99999999999 3", out), 1);
  EXPECT_EQ(out[0], 1);
}

TEST(HostileInput, ClientLineEndsAtItsFirstNul) {
  auto ifindex = [](std::string_view name) { return name.empty() ? -1 : 1; };
  const auto parsed = daemon_core::parse_client_line("00:11:22:33:44:55\0 10.0.0.9 ath1"s, ifindex);
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(std::tie(parsed->ip_field, parsed->ifname, parsed->ifindex),
            std::make_tuple(std::string(), std::string(), -1));
  EXPECT_FALSE(daemon_core::parse_client_line("00:11:22:33\0:44:55 10.0.0.9 ath1"s, ifindex));
}

}  // namespace

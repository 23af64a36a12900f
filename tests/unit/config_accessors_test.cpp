#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"

namespace {

config::TaglistPtr list_of(const std::string& key, const std::string& value) {
  config::TaglistPtr list = config::create_taglist();
  config::insert_taglist(list.get(), config::create_tagitem(key, value));
  return list;
}

TEST(AccessorsMasterconf, DefaultsKeyLimitAndCut) {
  const std::string key63(63, 'K');
  auto list = list_of(key63, "bridge");
  EXPECT_EQ(config::get_config_masterconf(list.get(), 3, "%s", key63.c_str()), "bri");
  EXPECT_EQ(config::get_config_masterconf(list.get(), 128, "%s%d", key63.c_str(), 1), std::nullopt);
  EXPECT_EQ(config::get_config_masterconf(list.get(), 128, "MISSING"), "");
  EXPECT_EQ(config::get_config_masterconf(nullptr, 128, "%s", key63.c_str()), "");
  EXPECT_EQ(config::get_vlan_id(nullptr, 1), -1);
}

TEST(AccessorsWlan, VlanIdAndPortalPrefix) {
  struct Case { const char* name; const char* value; int want; };
  const Case cases[] = {{"VLANID", "12", 12},         {"VLANID", "5x", 5},
                        {"VLANID", "abc", -1},        {"PORTAL", "enabled", 1},
                        {"PORTAL", "Enable", 0},      {"PORTAL", "incontrol-v2", 1},
                        {"PORTAL", "enabl", 0},       {"PORTAL", "enable", 1}};
  for (const Case& c : cases) {
    // The key through the accessors' own numbering, whatever the status file says.
    auto list = list_of(common::format("WLAN%d_%s", config::get_wlan_id(1), c.name), c.value);
    const int got = std::string(c.name) == "VLANID" ? config::get_vlan_id(list.get(), 1)
                                                    : config::is_wlan_portal_enabled(list.get(), 1);
    EXPECT_EQ(got, c.want) << c.name << "=" << c.value;
  }
  EXPECT_EQ(config::get_wlan_id(2147483647), 0);  // an interface number out of range
}

TEST(AccessorsStatus, AthListScanKeepsTheCountBeyondTheArray) {
  struct Case { const char* text; std::size_t size; int want; std::vector<int> filled; };
  const Case cases[] = {{"0 4 8", 2, 3, {0, 4}}, {"1 2 3 4 5 6", 8, 4, {1, 2, 3, 4}}, {"   ", 4, -1, {}},
                        {"1 99999999999 3", 4, 1, {1}}};  // a number out of range ends the list
  for (const Case& c : cases) {
    std::array<int, 8> out;
    out.fill(-9);
    EXPECT_EQ(config::scan_ath_list(c.text, std::span<int>(out.data(), c.size)), c.want) << c.text;
    std::vector<int> want = c.filled;
    want.resize(out.size(), -9);
    EXPECT_EQ(std::vector<int>(out.begin(), out.end()), want) << c.text;
  }
}

}  // namespace

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"

namespace {

config::TaglistPtr list_of(const std::string& key, const std::string& value) {
  config::TaglistPtr list = config::create_taglist();
  config::insert_taglist(list.get(), config::create_tagitem(key, value));
  return list;
}

// The WLAN key of an interface through the accessors' own numbering, whatever
// the machine's status file says.
std::string wlan_key(int ath, const char* name) {
  return common::format("WLAN%d_%s", config::get_wlan_id(ath), name);
}

TEST(AccessorsMasterconf, KeyLimitAndCutValues) {
  const std::string key63(63, 'K');
  auto list = list_of(key63, "bridge");
  EXPECT_EQ(config::get_config_masterconf(list.get(), 128, "%s", key63.c_str()), "bridge");
  EXPECT_EQ(config::get_config_masterconf(list.get(), 3, "%s", key63.c_str()), "bri");
  EXPECT_EQ(config::get_config_masterconf(list.get(), 128, "%s%d", key63.c_str(), 1),
            std::nullopt);
  EXPECT_EQ(config::get_config_masterconf(list.get(), 128, "MISSING"), "");
  EXPECT_EQ(config::get_config_masterconf(nullptr, 128, "%s", key63.c_str()), "");
}

TEST(AccessorsWlan, VlanIdAndPortal) {
  struct Case {
    const char* value;
    int want;
  };
  for (const Case& c : {Case{"12", 12}, Case{" 7", 7}, Case{"5x", 5}, Case{"abc", -1},
                        Case{"", -1}}) {
    auto list = list_of(wlan_key(1, "VLANID"), c.value);
    EXPECT_EQ(config::get_vlan_id(list.get(), 1), c.want) << '"' << c.value << '"';
  }
  EXPECT_EQ(config::get_vlan_id(nullptr, 1), -1);
  for (const Case& c : {Case{"enabled", 1}, Case{"Enable", 0}, Case{"incontrol-v2", 1},
                        Case{"incontro", 0}, Case{"enabl", 0}}) {
    auto list = list_of(wlan_key(0, "PORTAL"), c.value);
    EXPECT_EQ(config::is_wlan_portal_enabled(list.get(), 0), c.want) << '"' << c.value << '"';
  }
}

TEST(AccessorsStatus, AthListScanKeepsTheCountBeyondTheArray) {
  struct Case {
    const char* text;
    std::size_t size;
    int want;
    std::vector<int> filled;
  };
  const Case cases[] = {
      {"0 4 8", 2, 3, {0, 4}},           {"1 2 3 4 5 6", 8, 4, {1, 2, 3, 4}},
      {"3 x 5", 4, 1, {3}},              {"x", 4, 0, {}},
      {"   ", 4, -1, {}},
  };
  for (const Case& c : cases) {
    std::array<int, 8> out;
    out.fill(-9);
    EXPECT_EQ(config::scan_ath_list(c.text, std::span<int>(out.data(), c.size)), c.want) << c.text;
    for (std::size_t i = 0; i < out.size(); ++i)
      EXPECT_EQ(out[i], i < c.filled.size() ? c.filled[i] : -9) << c.text << " @" << i;
  }
}

TEST(AccessorsPortalRoute, CommandTextQuotedAndCut) {
  std::vector<std::string> commands;
  common::CommandRecorder recorder{[&](const std::string& c) { commands.push_back(c); }, {}};
  common::set_command_recorder(&recorder);
  config::add_portal_route("10.0.0.5", 3);
  config::del_portal_route("1.2.3.4; reboot", 12);
  config::del_portal_route(std::string(200, '9'), 1);
  common::set_command_recorder(nullptr);
  EXPECT_EQ(commands, (std::vector<std::string>{
                          "ip ro add 10.0.0.5 dev br3 table rt_portal",
                          "ip ro del '1.2.3.4; reboot' dev br12 table rt_portal",
                          "ip ro del " + std::string(117, '9')}));
}

}  // namespace

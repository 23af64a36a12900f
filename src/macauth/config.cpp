// mac_auth_init: the MAC-auth settings rebuilt from the master configuration.

#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/text.h"
#include "common/numbers.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "macauth/acl_table.h"
#include "macauth/macauth.h"
#include "vlan/rules.h"

namespace macauth {

namespace {

constexpr std::size_t kApNameMax = 63;
constexpr std::size_t kCachePeriodMax = 19;
constexpr std::size_t kHostMax = 19;
constexpr std::size_t kSecretMax = 63;
constexpr std::size_t kSsidMax = 63;
constexpr std::size_t kNumberTextMax = 19;
constexpr std::size_t kSwitchMax = 63;
constexpr std::int32_t kDefaultCachePeriod = 20;
constexpr int kDynamicDisable = 0;

// atoi(), but 0 for a number that is not an int.
int decimal_value(const std::string& text) { return common::scan_int(text).value_or(0); }

// A port number; 0 (never asked) outside 1..65535.
std::uint16_t port_value(const std::string& text) {
  return static_cast<std::uint16_t>(common::scan_int(text, 1, 65535).value_or(0));
}

// A key's value (cut to length) when the key is present, else nullopt.
// get_config_masterconf gives "" for a missing key and for an empty value
// alike; the settings below tell the two apart (a present but empty
// "WLAN<n>_SSID" still lets the WLAN read its servers), so presence is
// asked of the list itself.
std::optional<std::string> read_present(const config::taglist* conf, std::size_t length,
                                        const std::string& key) {
  if (!config::exist_taglist_key(conf, key)) return std::nullopt;
  return config::get_config_masterconf(conf, length, "%s", key.c_str());
}

std::string read_value(const config::taglist* conf, std::size_t length, const std::string& key) {
  return config::get_config_masterconf(conf, length, "%s", key.c_str()).value_or(std::string());
}

// "RADIUS<n>_*": valid when the host is not empty.
RadiusServer default_server(const config::taglist* conf, int n) {
  RadiusServer server;
  server.host = read_value(conf, kHostMax, common::format("RADIUS%d_HOST", n));
  server.valid = server.host.empty() ? 0 : 1;
  server.secret = read_value(conf, kSecretMax, common::format("RADIUS%d_SECRET", n));
  server.auth_port =
      port_value(read_value(conf, kNumberTextMax, common::format("RADIUS%d_AUTHPORT", n)));
  server.acct_port =
      port_value(read_value(conf, kNumberTextMax, common::format("RADIUS%d_ACCTPORT", n)));
  return server;
}

// "WLAN<w>_RADIUS<n>_*": each key is read only when the one before it is
// present (host -> secret -> auth port -> acct port); valid only with a
// non-empty host.
RadiusServer wlan_server(const config::taglist* conf, int w, int n) {
  RadiusServer server;
  auto host = read_present(conf, kHostMax, common::format("WLAN%d_RADIUS%d_HOST", w, n));
  if (!host) return server;
  server.host = *host;
  if (!server.host.empty()) server.valid = 1;
  auto secret = read_present(conf, kSecretMax, common::format("WLAN%d_RADIUS%d_SECRET", w, n));
  if (!secret) return server;
  server.secret = *secret;
  auto auth =
      read_present(conf, kNumberTextMax, common::format("WLAN%d_RADIUS%d_AUTHPORT", w, n));
  if (!auth) return server;
  server.auth_port = port_value(*auth);
  auto acct =
      read_present(conf, kNumberTextMax, common::format("WLAN%d_RADIUS%d_ACCTPORT", w, n));
  if (acct) server.acct_port = port_value(*acct);
  return server;
}

}  // namespace

void mac_auth_init(daemon_core::DaemonContext& ctx) {
  bool need_ebtables = false;
  {
    // Workers read these settings and write the cache and pending tables:
    // the whole rebuild happens under the lock.
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    const config::taglist* conf = ctx.masterconf.get();
    MacAuthState& state = ctx.macauth;

    state.wlan_acl = {};
    // The worker count is left alone: workers started before the reload
    // still run and decrement it when they end, so at most 8 ever run.
    state.acl_cache_period = kDefaultCachePeriod;
    state.ap_name = read_value(conf, kApNameMax, "AP_NAME");
    std::string period = read_value(conf, kCachePeriodMax, "ACL_CACHE_PERIOD");
    // No range check: "0" (never reuse an answer) and negative numbers stand.
    if (!period.empty()) state.acl_cache_period = decimal_value(period);

    const std::array<RadiusServer, 2> defaults = {default_server(conf, 1),
                                                  default_server(conf, 2)};

    // One ACL mode per radio, -1 when the radio sets none. Should this table
    // be missing, every WLAN with any "WLAN<n>_ACL_MODE" is enabled whatever
    // its value; a std::vector either exists or ends the process, so that
    // fallback has no path here.
    int radio_count = config::get_radio_count();
    std::vector<int> radio_modes(static_cast<std::size_t>(radio_count > 0 ? radio_count : 0), -1);
    for (int radio = 0; radio < static_cast<int>(radio_modes.size()); ++radio) {
      std::string prefix = config::get_radio_prefix_by_radio(radio);
      std::string mode =
          config::get_config_masterconf(conf, kNumberTextMax, "%sAP_ACL_MODE", prefix.c_str())
              .value_or(std::string());
      if (!mode.empty()) radio_modes[static_cast<std::size_t>(radio)] = decimal_value(mode);
    }

    for (int w = 1; w <= kWlanCount; ++w) {
      int radio = config::get_radio_id_by_wlan(w);
      WlanAclConfig& wlan = state.wlan_acl[static_cast<std::size_t>(w - 1)];
      wlan = WlanAclConfig{};

      auto wlan_mode = read_present(conf, kNumberTextMax, common::format("WLAN%d_ACL_MODE", w));
      if (!wlan_mode) continue;
      if (!external_acl_enabled(radio_acl_mode(radio_modes, radio), decimal_value(*wlan_mode)))
        continue;

      wlan.enabled = 1;
      auto ssid = read_present(conf, kSsidMax, common::format("WLAN%d_SSID", w));
      if (!ssid) continue;  // enabled, but no server is ever asked
      wlan.ssid = *ssid;

      auto radius = read_present(conf, kSwitchMax, common::format("WLAN%d_RADIUS", w));
      if (!radius) continue;
      if (radius->find("enable") != std::string::npos) {
        wlan.servers = {wlan_server(conf, w, 1), wlan_server(conf, w, 2)};
      } else {
        wlan.servers = defaults;
      }
      if (ctx.vlan.wlan_vlan[static_cast<std::size_t>(w - 1)].dynamic_mode != kDynamicDisable)
        need_ebtables = true;
    }
  }
  // A command runs: never under the lock.
  if (need_ebtables) vlan::insert_ebtables_kernel_module();
}

}  // namespace macauth

#include "config/accessors.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "common/command.h"
#include "common/driver.h"
#include "common/files.h"
#include "common/iface.h"
#include "common/numbers.h"
#include "common/runner.h"
#include "common/text.h"

namespace config {

namespace {

// Status keys are formatted into a 64-byte buffer.
constexpr std::size_t kStatusKeyMax = 63;
constexpr std::size_t kMasterKeyBuffer = 64;
// The per-WLAN readers go through a 128-byte buffer that keeps its
// terminator.
constexpr std::size_t kWlanValueMax = 127;
constexpr std::size_t kRadioPrefixMax = 7;

// "<prefix><number><suffix>", the number as "%d" prints it: the status and
// per-WLAN keys are built so on every lookup, without a printf pass.
std::string numbered_key(std::string_view prefix, int number, std::string_view suffix) {
  std::string key(prefix);
  key += std::to_string(number);
  key += suffix;
  return key;
}

// A status key, cut as the 64-byte buffer it is formatted into would cut it.
std::string status_key(std::string_view prefix, int number, std::string_view suffix) {
  std::string key = numbered_key(prefix, number, suffix);
  if (key.size() > kStatusKeyMax) key.resize(kStatusKeyMax);
  return key;
}

// atoi(): leading blanks, an optional sign, digits; 0 when there are none
// or the number is not an int.
int decimal_value(const std::string& text) { return common::scan_int(text).value_or(0); }

std::optional<int> status_number(const std::string& key) {
  auto value = get_wireless_status(key);
  if (!value) return std::nullopt;
  return decimal_value(*value);
}

std::atomic<int> g_radio_count{-1};

std::mutex g_radio_prefix_mutex;
std::string g_radio_prefix;  // guarded by g_radio_prefix_mutex

// The status file as last loaded: a lookup looks at the file (one stat, once
// per look) and loads it again only when that changed, so an answer reflects
// the file as it was at the look.
std::mutex g_status_mutex;
common::LookedAtFile g_status_file;  // guarded by g_status_mutex
TaglistPtr g_status;                  // guarded by g_status_mutex; null when unreadable

// The value of a key as the 64-byte key buffer holds it: a key that does
// not fit finds nothing.
std::optional<std::string> masterconf_value(const taglist* list, std::size_t length,
                                            std::string_view key) {
  if (key.size() >= kMasterKeyBuffer) return std::nullopt;
  return common::cut(get_taglist_default(list, key, ""), length);
}

std::optional<std::string> masterconf_value(const taglist* list, std::size_t length,
                                            const char* key_pattern, va_list args) {
  char key[kMasterKeyBuffer] = {};
  int needed = std::vsnprintf(key, sizeof key, key_pattern, args);
  if (needed < 0 || static_cast<std::size_t>(needed) >= sizeof key) return std::nullopt;
  return masterconf_value(list, length, std::string_view(key, static_cast<std::size_t>(needed)));
}

std::string wlan_value(const taglist* list, int ath, const char* name) {
  return get_wlan_config_masterconf(list, kWlanValueMax, ath, name).value_or(std::string());
}

int portal_route(common::Template verb, std::string_view destination, int bridge) {
  return common::run_command(common::build_command(
      127, "ip ro {} {} dev br{} table rt_portal",
      {common::constant(verb), common::address(destination), common::number(bridge)}));
}

}  // namespace

// --- wireless status

std::optional<std::string> get_wireless_status(std::string_view key) {
  std::lock_guard<std::mutex> lock(g_status_mutex);
  if (common::must_read(g_status_file, kWirelessStatusPath))
    g_status = load_taglist_ex(kWirelessStatusPath, 1, nullptr);
  const int pos = __search_taglist(g_status.get(), key);
  if (pos < 0) return std::nullopt;
  return g_status->items[static_cast<std::size_t>(pos)]->value;
}

int get_radio_count() {
  int cached = g_radio_count.load();
  if (cached >= 0) return cached;
  int count = status_number("WIFI_COUNT").value_or(0);
  // No device has more radios than kRadioCountMax: a larger count is not one.
  if (count <= 0 || count > kRadioCountMax) count = 1;
  // Racing first callers read the same file and store the same value.
  g_radio_count.store(count);
  return count;
}

int get_wlan_id(int ath) {
  if (ath < -common::kInterfaceNumberMax || ath > common::kInterfaceNumberMax) return 0;
  auto wlan = status_number(status_key("ATH", ath, "_WLANID"));
  if (!wlan) return ath + 1;
  // No WLAN number is negative or above 255: such a value names none (0).
  return *wlan >= 0 && *wlan <= common::kInterfaceNumberMax ? *wlan : 0;
}

int scan_ath_list(std::string_view text, std::span<int> out) {
  // "%d %d %d %d": up to four numbers, stopping at the first that is none;
  // -1 (the scan's end of input) when there is nothing but blanks.
  if (text.find_first_not_of(" \t\n\v\f\r") == std::string_view::npos) return -1;
  int scanned = 0;
  while (scanned < 4) {
    auto number = common::scan_int(text);
    if (!number) break;
    if (static_cast<std::size_t>(scanned) < out.size()) out[static_cast<std::size_t>(scanned)] = *number;
    ++scanned;
    text.remove_prefix(std::min(text.find_first_of("0123456789"), text.size()));
    text.remove_prefix(std::min(text.find_first_not_of("0123456789"), text.size()));
  }
  return scanned;
}

int get_ath_id(int wlan, std::span<int> out) {
  if (out.empty() || get_radio_count() < 1) return 0;
  auto value = get_wireless_status(status_key("WLAN", wlan, "_ATH_LIST"));
  if (!value) return 0;
  return scan_ath_list(*value, out);
}

int get_radio_id(int ath) {
  const int radio = status_number(status_key("ATH", ath, "_RADIO")).value_or(0);
  return radio >= 0 && radio < kRadioCountMax ? radio : 0;
}

int get_radio_id_by_wlan(int wlan) {
  const int radio =
      status_number(status_key("WLAN", wlan, "_RADIO_LIST")).value_or(0);
  return radio >= 0 && radio < kRadioCountMax ? radio : 0;
}

std::string get_radio_dev_name(int radio) {
  return get_wireless_status(status_key("WIFI", radio, "_DEV"))
      .value_or("wifi0");
}

std::string get_radio_prefix_by_radio(int radio) {
  auto value =
      get_wireless_status(status_key("WIFI", radio, "_RADIO_CONF_PREFIX"));
  std::lock_guard<std::mutex> lock(g_radio_prefix_mutex);
  if (value) g_radio_prefix = common::cut(*value, kRadioPrefixMax);
  return g_radio_prefix;
}

std::string get_radio_prefix_by_ath(int ath) { return get_radio_prefix_by_radio(get_radio_id(ath)); }

int get_snmp_trap_radio_band(int radio) {
  auto value = get_wireless_status(status_key("WIFI", radio, "_RADIO_POLICY"));
  if (!value) return 0;
  return (*value == "a" || *value == "na") ? 1 : 0;
}

// --- master configuration

std::optional<std::string> get_config_masterconf(const taglist* list, std::size_t length,
                                                 const char* key_pattern, ...) {
  va_list args;
  va_start(args, key_pattern);
  auto value = masterconf_value(list, length, key_pattern, args);
  va_end(args);
  return value;
}

std::optional<std::string> get_wlan_config_masterconf(const taglist* list, std::size_t length,
                                                      int ath, std::string_view name) {
  // As "WLAN%d_%s" formats it: the name ends at a NUL.
  const std::string key = numbered_key("WLAN", get_wlan_id(ath), "_").append(name.substr(0, name.find('\0')));
  return masterconf_value(list, length, key);
}

std::string get_wlan_ssid(const taglist* list, int ath) { return wlan_value(list, ath, "SSID"); }

int get_vlan_id(const taglist* list, int ath) {
  std::string value = wlan_value(list, ath, "VLANID");
  return common::scan_int(value).value_or(-1);
}

int is_wlan_portal_enabled(const taglist* list, int ath) {
  std::string value = wlan_value(list, ath, "PORTAL");
  return (value.starts_with("enable") || value.starts_with("incontrol")) ? 1 : 0;
}

// --- device

std::string get_bssid(int ath, int socket_fd) {
  auto addr = common::driver_hwaddr(common::get_interface_name_by_idx(ath), socket_fd);
  if (!addr) return std::string();
  const auto& a = *addr;
  return common::format("%02X:%02X:%02X:%02X:%02X:%02X", a[0], a[1], a[2], a[3], a[4], a[5]);
}

// --- captive-portal routes

int add_portal_route(std::string_view destination, int bridge) {
  return portal_route("add", destination, bridge);
}

int del_portal_route(std::string_view destination, int bridge) {
  return portal_route("del", destination, bridge);
}

}  // namespace config

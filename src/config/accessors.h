// Typed configuration accessors: one function per question, each with a
// fixed key pattern, result type and answer for a missing key.
//
// Numbering: an interface number is the n of "ath<n>"; a WLAN number the n
// of "WLAN<n>_..." keys (an interface's WLAN number is get_wlan_id); a radio
// number the n of "wifi<n>" and "WIFI<n>_..." keys.
//
// Wireless-status accessors answer from "/var/run/wireless.status" as it is
// at the call (except the cached radio count): the file is loaded again
// whenever stat() shows it changed, else the list last loaded answers. Master-configuration accessors take
// the loaded master configuration; a null list reads as empty.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "config/taglist.h"

namespace config {

// No device has more radios: a larger "WIFI_COUNT" is taken as none (1).
inline constexpr int kRadioCountMax = 16;

inline constexpr const char* kWirelessStatusPath = "/var/run/wireless.status";
inline constexpr const char* kWanStatusPath = "/etc/net/wan.status";
inline constexpr const char* kMasterConfigPath = "/etc/masterconfig.apply";

// --- wireless status
// A copy of the value ("" for an empty value); nullopt when the key is absent.
std::optional<std::string> get_wireless_status(std::string_view key);
// "WIFI_COUNT", read once per process; 1 when absent or not above 0.
int get_radio_count();
// "ATH%d_WLANID"; interface + 1 when absent.
// A value outside 0..255 (or an interface number outside -255..255) gives 0.
int get_wlan_id(int ath);
// "WLAN%d_ATH_LIST" scanned as up to four numbers; fills out with at most
// out.size() of them and returns the count scanned (0 when absent, -1 for an
// empty value).
int get_ath_id(int wlan, std::span<int> out);
// The scan of a "WLAN%d_ATH_LIST" value with "%d %d %d %d": copies at most
// out.size() of the numbers into out and returns the scan's count (-1 for a
// value without any character but blanks, 0 when it does not begin with a
// number).
int scan_ath_list(std::string_view text, std::span<int> out);
// "ATH%d_RADIO"; 0 when absent.
int get_radio_id(int ath);
// First number of "WLAN%d_RADIO_LIST"; 0 when absent or not 0..15.
int get_radio_id_by_wlan(int wlan);
// "WIFI%d_DEV"; "wifi0" when absent.
std::string get_radio_dev_name(int radio);
// First 7 characters of "WIFI%d_RADIO_CONF_PREFIX" kept in one process-wide
// slot; a missing key leaves the slot as the last call set it. The result is
// a copy of the slot.
std::string get_radio_prefix_by_radio(int radio);
std::string get_radio_prefix_by_ath(int ath);
// "WIFI%d_RADIO_POLICY": 1 for "a" and "na", else 0.
int get_snmp_trap_radio_band(int radio);

// --- master configuration
// The value of the formatted key cut to length characters ("" when missing
// or empty); nullopt when the formatted key has 64 or more characters.
std::optional<std::string> get_config_masterconf(const taglist* list, std::size_t length,
                                                 const char* key_pattern, ...)
    __attribute__((format(printf, 3, 4)));
// "WLAN%d_%s" with get_wlan_id(ath) and the setting name.
std::optional<std::string> get_wlan_config_masterconf(const taglist* list, std::size_t length,
                                                      int ath, std::string_view name);
// "WLAN%d_SSID" of the interface; "" when missing.
std::string get_wlan_ssid(const taglist* list, int ath);
// "WLAN%d_VLANID" of the interface read with %d; -1 when missing or not a number.
int get_vlan_id(const taglist* list, int ath);
// "WLAN%d_PORTAL" begins with "enable" or "incontrol".
int is_wlan_portal_enabled(const taglist* list, int ath);

// --- device
// Upper-case "%02X:..." hardware address of the interface; "" on failure.
// Asked on the given socket (the daemon's own), else on a fresh one.
std::string get_bssid(int ath, int socket_fd = -1);

// --- captive-portal routes: "ip ro add|del <dest> dev br<n> table rt_portal".
// The result is the command's wait status.
int add_portal_route(std::string_view destination, int bridge);
int del_portal_route(std::string_view destination, int bridge);

}  // namespace config

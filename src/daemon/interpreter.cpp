#include "daemon/interpreter.h"

#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>

#include "bandwidth/shaping.h"
#include "clients/files.h"
#include "clients/table.h"
#include "clients/update.h"
#include "common/clock.h"
#include "common/files.h"
#include "common/iface.h"
#include "common/mac.h"
#include "common/numbers.h"
#include "common/text.h"
#include "config/accessors.h"
#include "macauth/macauth.h"
#include "snmp/traps.h"

namespace daemon_core {

namespace {

constexpr std::size_t kWordLimit = 1023;
constexpr std::size_t kMacLength = 17;
constexpr int kWlanCount = 16;

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// The n-th (from 0) whitespace-delimited word of the text; nullopt when the
// text has fewer words.
std::optional<std::string_view> word_at(std::string_view text, int n) {
  std::size_t pos = 0;
  for (int i = 0;; ++i) {
    while (pos < text.size() && is_blank(text[pos])) ++pos;
    if (pos >= text.size()) return std::nullopt;
    std::size_t end = pos;
    while (end < text.size() && !is_blank(text[end])) ++end;
    if (i == n) return text.substr(pos, end - pos);
    pos = end;
  }
}

// The interface index named by the line's second word.
std::optional<int> interface_of_line(std::string_view line) {
  auto name = word_at(line, 1);
  if (!name) return std::nullopt;
  return common::get_interface_idx_by_name(*name);
}

// The MAC that starts `skip` characters after the first `anchor` in the
// line, checked and lower-cased; nullopt when absent or not a MAC.
std::optional<std::string> mac_after(std::string_view line, std::string_view anchor, std::size_t skip) {
  const std::size_t at = line.find(anchor);
  if (at == std::string_view::npos || at + skip > line.size()) return std::nullopt;
  std::string mac(line.substr(at + skip));
  if (common::common_valid_mac(mac) != 1) return std::nullopt;
  return mac;
}

// Refreshes the event configuration and hands back a copy to send with
// when traps are enabled.
std::optional<snmp::EventConfig> enabled_event_config(DaemonContext& ctx) {
  std::lock_guard<std::mutex> lock(ctx.shared_mutex);
  if (!ctx.event_config) return std::nullopt;
  snmp::check_event_config(ctx.event_config.get());
  if (ctx.event_config->enabled != 1) return std::nullopt;
  return *ctx.event_config;
}

bool event_config_enabled(DaemonContext& ctx) {
  std::lock_guard<std::mutex> lock(ctx.shared_mutex);
  return ctx.event_config && ctx.event_config->enabled == 1;
}

void refresh_files_once(DaemonContext& ctx) {
  if (ctx.files_refresh != 0) return;
  ctx.files_refresh = 1;
  clients::check_expired(ctx);
  clients::write_client_files(ctx);
}

// --- neighbour and driver-status events

// One line of "/proc/wifi<n>/neighbor_ap": a BSSID word and ten numbers,
// the SSID between the first '[' and the last ']'.
struct NeighbourLine {
  std::string bssid;
  std::array<long, 10> numbers{};
  std::string ssid;
};

std::optional<NeighbourLine> parse_neighbour_line(const char* line) {
  NeighbourLine out;
  char bssid[128] = {};
  long n[10] = {};
  unsigned long fifth = 0;
  int got = std::sscanf(line, "%127s %ld %ld %ld %ld %lu %ld %ld %ld %ld %ld", bssid, &n[0], &n[1],
                        &n[2], &n[3], &fifth, &n[5], &n[6], &n[7], &n[8], &n[9]);
  if (got < 1) return std::nullopt;
  n[4] = static_cast<long>(fifth);
  out.bssid = bssid;
  for (int i = 0; i < 10; ++i) out.numbers[i] = n[i];
  std::string_view text(line);
  const std::size_t open = text.find('[');
  const std::size_t close = text.rfind(']');
  if (open != std::string_view::npos && close != std::string_view::npos && close > open)
    out.ssid = std::string(text.substr(open + 1, close - open - 1));
  return out;
}

bool same_text_ignoring_case(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

// "%H:%M %m-%d" of the local time the neighbour was seen (hundredths of a
// second ago).
std::string seen_time_text(long hundredths_ago) {
  const std::time_t when = static_cast<std::time_t>(common::wall_now() - hundredths_ago / 100);
  struct tm local {};
  ::localtime_r(&when, &local);
  char buf[256] = {};
  std::strftime(buf, sizeof buf, "%H:%M %m-%d", &local);
  return buf;
}

void report_rogue_ap(DaemonContext& ctx, std::string_view line) {
  const std::string bssid = find_value(line, "address", ":");
  const std::string radio_text = find_value(line, "wifi", "");
  if (radio_text.empty()) return;
  const auto radio_number = common::scan_int(radio_text, 0, config::kRadioCountMax - 1);
  if (!radio_number) return;
  const int radio = *radio_number;
  const std::string path = common::format("/proc/wifi%d/neighbor_ap", radio);
  common::FilePtr file(std::fopen(path.c_str(), "r"));
  if (!file) return;
  char buf[1024];
  while (std::fgets(buf, sizeof buf, file.get())) {
    auto neighbour = parse_neighbour_line(buf);
    if (!neighbour || !same_text_ignoring_case(neighbour->bssid, bssid)) continue;
    const auto& n = neighbour->numbers;
    snmp::RogueApReport report;
    report.bssid = common::cut(bssid, 17);
    report.ssid = common::cut(neighbour->ssid, 33);
    report.time_text = seen_time_text(n[5]);
    const int band = config::get_snmp_trap_radio_band(radio);
    report.numbers = {static_cast<std::int32_t>(n[7]), band, static_cast<std::int32_t>(n[0]),
                      static_cast<std::int32_t>(n[1]), static_cast<std::int32_t>(n[3]),
                      static_cast<std::int32_t>(n[9])};
    // Every matching line is reported; the known-AP list is not consulted.
    if (auto config = enabled_event_config(ctx)) snmp::send_rogueApDetectionTrap(*config, report);
  }
}

void report_acl_discard(DaemonContext& ctx, std::string_view line) {
  // The event does not carry the radio: the first record's radio is used.
  const int radio = ctx.records[0].bandwidth.radio;
  auto prefix = config::get_wireless_status(common::format("WIFI%d_RADIO_CONF_PREFIX", radio));
  if (!prefix) return;
  auto limit_text =
      config::get_config_masterconf(ctx.masterconf.get(), 31, "%sAP_CLIENT_LIMIT", prefix->c_str());
  const int limit = limit_text ? common::scan_int(*limit_text).value_or(0) : 0;
  if (limit <= 0) return;
  const std::string sta = find_value(line, "sta", "=");
  const std::string bssid = find_value(line, "bssid", "=");
  const std::string ssid = find_value(line, "ssid", "=");
  if (sta.empty() || bssid.empty() || ssid.empty()) return;
  snmp::AclMismatchReport report;
  report.sta = common::cut(common::copy_as_own_format(sta), 17);
  report.bssid = common::cut(common::copy_as_own_format(bssid), 17);
  report.ssid = common::cut(common::copy_as_own_format(ssid), 35);
  if (auto config = enabled_event_config(ctx)) snmp::send_aclMismatchTrap(*config, report);
}

void report_stuck_beacon(DaemonContext& ctx, std::string_view line) {
  if (!event_config_enabled(ctx)) return;
  const std::string addr = find_value(line, "addr", "=");
  if (addr.empty()) return;
  if (auto config = enabled_event_config(ctx)) snmp::send_noBeaconTrap(*config, common::cut(addr, 63));
}

// Step A: at most one of the three.
void neighbour_and_driver_events(DaemonContext& ctx, std::string_view line) {
  if (line.find("New Access Point/Cell") != std::string_view::npos)
    report_rogue_ap(ctx, line);
  else if (line.find("ACL-EVENT.discard") != std::string_view::npos)
    report_acl_discard(ctx, line);
  else if (line.find("BEACON-EVENT.stuck") != std::string_view::npos)
    report_stuck_beacon(ctx, line);
}

// Step B: registration and expiry. False when the line holds neither word.
bool client_events(DaemonContext& ctx, std::string_view line) {
  int code = 0;
  if (line.find("Registered") != std::string_view::npos)
    code = clients::kEventAssociated;
  else if (line.find("Expired") != std::string_view::npos)
    code = clients::kEventDisassociated;
  else
    return false;
  auto ath = interface_of_line(line);
  if (!ath) return true;
  // The MAC follows the word "node" and one separator.
  auto mac = mac_after(line, "node", 5);
  if (!mac) return true;
  const std::string ssid = config::get_wlan_ssid(ctx.masterconf.get(), *ath);
  if (code == clients::kEventAssociated)
    ::syslog(LOG_INFO, "__TOVELLOG__Client %s associated to SSID %s", mac->c_str(), ssid.c_str());
  else
    ::syslog(LOG_INFO, "__TOVELLOG__Client %s disassociated from SSID %s", mac->c_str(), ssid.c_str());
  clients::update_client_table(ctx, code, *ath, *mac, std::nullopt, std::nullopt);
  refresh_files_once(ctx);
  return true;
}

// --- control commands

void mac_auth_request(DaemonContext& ctx, std::string_view line) {
  auto ath = interface_of_line(line);
  if (!ath) return;
  auto mac = mac_after(line, "Mgmt.auth", 10);
  if (!mac) return;
  macauth::mac_auth_query_extern_acl(*mac, static_cast<int>(kMacLength), *ath, ctx);
}

void remove_vap(DaemonContext& ctx, std::string_view line, std::size_t at) {
  int vap = -1;
  const std::size_t space = line.find(' ', at);
  if (space != std::string_view::npos) vap = common::scan_int(line.substr(space)).value_or(-1);
  if (vap < 0) return;
  for (int slot = 0; slot < clients::kClientSlots; ++slot) {
    clients::ClientRecord& rec = ctx.records[slot];
    if (rec.in_use != 1 || rec.ifindex != vap) continue;
    std::printf("clear: %d %s\n", slot, rec.mac.c_str());
    std::fflush(stdout);
    // The count is otherwise a high-water mark; it never goes below 0.
    if (ctx.client_count > 0) ctx.client_count -= 1;
    clients::clear_record(rec);
  }
  clients::write_client_files(ctx);
}

// "[BANDWIDTH_RATE_UPDATE] athN MAC bw ..." and "[STA_VLAN] athN MAC vlan ...":
// the interface number after the first "ath", the MAC after the space that
// follows it and up to the blank before the argument word, the argument
// text after that word.
void station_setting(DaemonContext& ctx, std::string_view line, int code, std::string_view word) {
  const std::size_t ath_at = line.find("ath");
  if (ath_at == std::string_view::npos) return;
  const auto ath_number = common::scan_int_after(line.substr(ath_at), "ath",
                                                 -common::kInterfaceNumberMax,
                                                 common::kInterfaceNumberMax);
  if (!ath_number) return;
  const int ath = *ath_number;
  const std::size_t space = line.find(' ', ath_at);
  if (space == std::string_view::npos) return;
  std::string_view rest = line.substr(space + 1);
  std::optional<std::string_view> extra;
  const std::size_t word_at_pos = rest.find(word);
  if (word_at_pos != std::string_view::npos) {
    extra = rest.substr(word_at_pos + word.size());
    if (word_at_pos > 0) rest = rest.substr(0, word_at_pos - 1);
  }
  std::string mac(rest);
  if (common::common_valid_mac(mac) != 1) return;
  clients::update_client_table(ctx, code, ath, mac, std::nullopt, extra);
  refresh_files_once(ctx);
}

// Bus topics: "<time> <ifname> ... <topic> <MAC> [<text>]". The MAC is the
// 17 characters after the topic and a space (publishers send it lower
// case); the text starts two characters after the MAC and runs to "]".
void bus_topic(DaemonContext& ctx, std::string_view line, std::size_t at, std::string_view topic,
               int code) {
  auto ath = interface_of_line(line);
  if (!ath) return;
  const std::size_t mac_at = at + topic.size() + 1;
  const std::string mac(mac_at < line.size() ? line.substr(mac_at, kMacLength) : std::string_view());
  const std::size_t text_at = mac_at + kMacLength + 2;
  std::string_view text = text_at < line.size() ? line.substr(text_at) : std::string_view();
  if (const std::size_t close = text.find(']'); close != std::string_view::npos)
    text = text.substr(0, close);
  if (code == clients::kEventIpLearned) {
    const std::string ip = common::cut(text, 31);
    clients::update_client_table(ctx, code, *ath, mac, ip, std::nullopt);
  } else {
    clients::update_client_table(ctx, code, *ath, mac, std::nullopt, text);
  }
  refresh_files_once(ctx);
}

void l2tp_update(DaemonContext& ctx, std::string_view line) {
  auto ifname = word_at(line, 1);
  auto state = word_at(line, 2);
  if (!ifname || !state) return;
  // "bcp<profile + 50>"; a profile outside 0..kL2tpProfileMax is none (0).
  const int profile =
      common::scan_int_after(*ifname, "bcp", 50, 50 + bandwidth::kL2tpProfileMax).value_or(50) - 50;
  const bool up = *state == "up";
  const config::taglist* conf = ctx.masterconf.get();
  std::array<bool, kWlanCount> marked{};
  for (int i = 0; i < kWlanCount; ++i) {
    auto value = config::get_wlan_config_masterconf(conf, 128, i, "L2TP_PROFILE");
    marked[i] = value && !value->empty() && *value != "0" &&
                common::scan_int(*value).value_or(0) == profile;
  }
  for (int i = 0; i < kWlanCount; ++i) {
    if (!marked[i]) continue;
    for (std::uint32_t slot = 0; slot < ctx.client_count && slot < ctx.records.size(); ++slot) {
      clients::ClientRecord& rec = ctx.records[slot];
      if (rec.in_use != 1 || rec.ifindex != i) continue;
      if (up && (rec.bandwidth.up_rate > 0 || rec.bandwidth.down_rate > 0))
        bandwidth::l2tp_remove_client(conf, rec.bandwidth, i);
      bandwidth::l2tp_update_client(conf, up ? 0 : 1, rec.mac, i, rec.bandwidth, profile);
    }
  }
}

void control_commands(DaemonContext& ctx, std::string_view line) {
  static constexpr std::string_view kMacAuth = "Halcyon.Wlan.Controller.Mgmt.auth";
  static constexpr std::string_view kRemoveVap = "[REMOVE_VAP]";
  static constexpr std::string_view kRefresh = "[REFRESH_CLIENT_FILE]";
  static constexpr std::string_view kBandwidth = "[BANDWIDTH_RATE_UPDATE]";
  static constexpr std::string_view kStaVlan = "[STA_VLAN]";
  static constexpr std::string_view kArp = "Halcyon.Netfilter.ARP";
  static constexpr std::string_view kNodeLeave = "Halcyon.Stats.NodeLeave";
  static constexpr std::string_view kL2tp = "[L2TP_IF_UPDATE]";

  std::size_t at = 0;
  if (line.find(kMacAuth) != std::string_view::npos) {
    mac_auth_request(ctx, line);
  } else if ((at = line.find(kRemoveVap)) != std::string_view::npos) {
    remove_vap(ctx, line, at);
  } else if (line.find(kRefresh) != std::string_view::npos) {
    clients::check_expired(ctx);
    clients::write_client_files(ctx);
  } else if (line.find(kBandwidth) != std::string_view::npos) {
    station_setting(ctx, line, clients::kEventBandwidth, "bw ");
  } else if (line.find(kStaVlan) != std::string_view::npos) {
    station_setting(ctx, line, clients::kEventStaVlan, "vlan ");
  } else if ((at = line.find(kArp)) != std::string_view::npos) {
    bus_topic(ctx, line, at, kArp, clients::kEventIpLearned);
  } else if ((at = line.find(kNodeLeave)) != std::string_view::npos) {
    bus_topic(ctx, line, at, kNodeLeave, clients::kEventNodeLeave);
  } else if (line.find(kL2tp) != std::string_view::npos) {
    l2tp_update(ctx, line);
  }
}

}  // namespace

std::string find_value(std::string_view line, std::string_view key, std::string_view separator) {
  std::string pattern = " ";
  pattern.append(key).append(separator);
  const std::size_t at = line.find(pattern);
  if (at == std::string_view::npos) return std::string();
  auto word = word_at(line.substr(at + pattern.size()), 0);
  return word ? common::cut(*word, kWordLimit) : std::string();
}

void interpret_line(DaemonContext& ctx, std::string_view line) {
  // A line is text: it ends at its first NUL, where a C reader would stop.
  line = line.substr(0, line.find('\0'));
  neighbour_and_driver_events(ctx, line);
  if (!client_events(ctx, line)) control_commands(ctx, line);
}

void interpret_chunk(DaemonContext& ctx, std::string_view chunk) {
  std::size_t newline;
  while ((newline = chunk.find('\n')) != std::string_view::npos) {
    interpret_line(ctx, chunk.substr(0, newline));
    chunk.remove_prefix(newline + 1);
  }
}

void interpret_events(DaemonContext& ctx, int event_fd, int iwevent_fd, const fd_set& ready,
                      PipeCarry& event_carry, PipeCarry& iwevent_carry) {
  int fd = -1;
  PipeCarry* carry = nullptr;
  if (event_fd >= 0 && FD_ISSET(event_fd, &ready)) {
    fd = event_fd;
    carry = &event_carry;
  } else if (iwevent_fd >= 0 && FD_ISSET(iwevent_fd, &ready)) {
    fd = iwevent_fd;
    carry = &iwevent_carry;
  } else {
    return;
  }
  char buf[kPipeReadMax] = {};
  const ssize_t n = ::read(fd, buf, kPipeReadMax);
  if (n <= 0) return;
  for (const std::string& line : take_lines(*carry, std::string_view(buf, static_cast<std::size_t>(n))))
    interpret_line(ctx, line);
}

}  // namespace daemon_core

#include "clients/notifier.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "clients/table.h"
#include "common/clock.h"
#include "common/command.h"
#include "common/files.h"
#include "common/numbers.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "model/context.h"
#include "snmp/traps.h"

namespace clients {

namespace {

constexpr std::uint8_t kAssociated = 11;
constexpr std::uint8_t kDisassociated = 12;
constexpr int kEventAssociation = 21;
constexpr int kEventDisassociation = 22;
constexpr int kEventClientLimit = 23;
// Minimum age since the last report before a code is reported.
constexpr std::int64_t kAssocAge = 60;
constexpr std::int64_t kDisassocAge = 180;

constexpr std::size_t kStatusKeyMax = 63;
constexpr std::size_t kRadioLimitValueMax = 32;
constexpr std::size_t kWlanValueMax = 128;

const config::taglist* master_config(const ClientRecord& record) {
  // Replaced only by the main thread, which is the thread that runs the
  // notifier: reading it needs no lock.
  return record.owner ? record.owner->masterconf.get() : nullptr;
}

// The daemon's own socket for driver requests; -1 (a fresh socket per
// request) for a record without an owner.
int driver_socket(const ClientRecord& record) { return record.owner ? record.owner->udp_socket : -1; }

std::optional<int> scan_int(const std::string& text) { return common::scan_int(text); }

std::optional<int> read_vap_limit(const ClientRecord& record) {
  std::string line =
      common::common_readfile_firstline(common::format("/etc/ath%d_client_limit", record.ifindex));
  // A line that is there but holds no number means no limit.
  if (!line.empty()) return scan_int(line).value_or(0);
  auto value = config::get_wlan_config_masterconf(master_config(record), kWlanValueMax,
                                                  record.ifindex, "CLIENT_LIMIT");
  if (!value) return std::nullopt;
  return scan_int(*value);
}

// The radio-wide limit: when the VAPs of the station's radio together hold
// "<prefix>AP_CLIENT_LIMIT" stations or more, the maximum-station trap goes
// out (when traps are enabled).
void check_radio_limit(const ClientRecord& record) {
  const int radio = record.bandwidth.radio;
  auto prefix = config::get_wireless_status(
      common::format_cut(kStatusKeyMax, "WIFI%d_RADIO_CONF_PREFIX", radio));
  if (!prefix) return;
  auto limit_text = config::get_config_masterconf(master_config(record), kRadioLimitValueMax,
                                                  "%sAP_CLIENT_LIMIT", prefix->c_str());
  const int limit = limit_text ? common::scan_int(*limit_text).value_or(0) : 0;
  if (limit < 1) return;

  auto ath_list =
      config::get_wireless_status(common::format_cut(kStatusKeyMax, "WIFI%d_ATH_LIST", radio));
  std::string_view words = ath_list ? std::string_view(*ath_list) : std::string_view();
  int total = 0;
  while (!words.empty()) {
    std::size_t begin = words.find_first_not_of(' ');
    if (begin == std::string_view::npos) break;
    words.remove_prefix(begin);
    std::size_t end = std::min(words.find(' '), words.size());
    if (auto vap = scan_int(std::string(words.substr(0, end))))
      total += find_cli_num(*vap, driver_socket(record));
    words.remove_prefix(end);
  }
  if (total < limit) return;

  snmp::MaxStationReport report{std::string(record.mac), config::get_snmp_trap_radio_band(radio)};
  if (record.owner == nullptr) return;
  daemon_core::DaemonContext& ctx = *record.owner;
  std::optional<snmp::EventConfig> event_config;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    snmp::check_event_config(ctx.event_config.get());
    if (ctx.event_config) event_config = *ctx.event_config;
  }
  if (event_config && event_config->enabled == 1) snmp::send_maxStationTrap(*event_config, report);
}

// The client limits, checked on every association.
void check_client_limits(ClientRecord& record, const NotifierSources& sources) {
  sources.radio_limit(record);

  const int stations = sources.station_count(record.ifindex);
  const int limit = sources.vap_limit(record).value_or(0);
  if (limit == 0 || stations < limit) return;
  record.pending_flag = static_cast<std::uint8_t>(limit);
  common::run_command(client_limit_alert_command(sources.ssid(record), limit));
}

void print_trace(const std::string& trace) {
  if (trace.empty()) return;
  std::fputs(trace.c_str(), stdout);
  std::fflush(stdout);
}

// The message builder with the device's answers.
std::size_t append_report(std::string& command, const ClientRecord& record,
                          const NotifierSources& sources) {
  if (record.pending_code != kAssociated && record.pending_code != kDisassociated) return 0;
  std::string ssid = sources.ssid(record);
  std::string bssid = sources.bssid(record);
  std::string trace;
  std::size_t length = append_record_report(command, record, ssid, bssid, trace);
  print_trace(trace);
  return length;
}

}  // namespace

std::string strip_colons(std::string_view text, std::size_t n) {
  std::string out;
  if (n == 0) return out;
  for (char c : text) {
    if (out.size() >= n - 1) break;
    if (c != ':') out.push_back(c);
  }
  return out;
}

namespace {
// What "%02X" prints: at least two upper-case hex digits.
void append_hex(std::string& out, unsigned code) {
  char digits[2 * sizeof code];
  std::size_t n = 0;
  do {
    digits[n++] = "0123456789ABCDEF"[code & 15u];
    code >>= 4;
  } while (code != 0);
  if (n < 2) digits[n++] = '0';
  while (n > 0) out.push_back(digits[--n]);
}
}  // namespace

std::string hex_escape(std::string_view text, std::size_t n, std::string& trace) {
  std::string out;
  if (n < 3) return out;
  for (char c : text) {
    // The byte is taken as signed: above 127 it prints sign-extended.
    const unsigned code = static_cast<unsigned>(static_cast<int>(static_cast<signed char>(c)));
    trace.push_back(c);  // "%c %02X"
    trace.push_back(' ');
    append_hex(trace, code);
    append_hex(out, code);
    if (out.size() >= n - 3) break;
  }
  return common::cut(out, n - 1);
}

std::size_t append_notifier_call(std::string& command, int event, std::string_view message,
                                 std::int64_t since) {
  if (message.size() > kNotifierMessageMax) return 0;
  // The limit applies to the command with the message unquoted; what is
  // already there came from earlier calls.
  common::CommandText call;
  common::append(call, "tavo_client  -E {} \"{}\" {}  &",
                 {common::number(event), common::quoted_arg(message), common::number(since)});
  if (!call.ok || command.size() + call.raw_length > kNotifierCommandMax) return 0;
  command += call.text;
  return command.size();
}

std::size_t append_record_report(std::string& command, const ClientRecord& record,
                                 std::string_view ssid, std::string_view bssid,
                                 std::string& trace) {
  int event = 0;
  if (record.pending_code == kAssociated)
    event = kEventAssociation;
  else if (record.pending_code == kDisassociated)
    event = kEventDisassociation;
  else
    return 0;
  std::string message =
      common::format("%s %s [%s]", strip_colons(record.mac, kNotifierFieldSize).c_str(),
                     strip_colons(bssid, kNotifierFieldSize).c_str(),
                     hex_escape(ssid, kNotifierFieldSize, trace).c_str());
  return append_notifier_call(command, event, message, record.pending_since);
}

std::size_t append_limit_report(std::string& command, const ClientRecord& record,
                                std::string_view ssid, std::string_view bssid, std::string& trace) {
  std::string message = common::format("%d %s [%s]", static_cast<int>(record.pending_flag),
                                       strip_colons(bssid, kNotifierFieldSize).c_str(),
                                       hex_escape(ssid, kNotifierFieldSize, trace).c_str());
  return append_notifier_call(command, kEventClientLimit, message, record.pending_since);
}

std::optional<std::string> client_limit_alert_command(std::string_view ssid, int limit) {
  return common::build_command(
      common::kNoLimit, "logger -t ALERT \"[{}] reached maximum ({}) no. of associated clients\"",
      {common::in_quotes(ssid), common::number(limit)});
}

NotifierSources device_sources(int socket_fd) {
  NotifierSources sources;
  sources.ssid = [](const ClientRecord& record) {
    return config::get_wlan_ssid(master_config(record), record.ifindex);
  };
  sources.bssid = [socket_fd](const ClientRecord& record) {
    return config::get_bssid(record.ifindex, socket_fd);
  };
  sources.station_count = [socket_fd](int ifindex) { return find_cli_num(ifindex, socket_fd); };
  sources.vap_limit = read_vap_limit;
  sources.radio_limit = check_radio_limit;
  return sources;
}

void notify_client(ClientRecord& record, const NotifierSources& sources) {
  std::string command;

  // A station that moved: its pending disassociations on other VAPs go first.
  if (record.owner != nullptr) {
    daemon_core::DaemonContext& ctx = *record.owner;
    for (std::uint32_t i = 0; i < ctx.client_count && i < ctx.records.size(); ++i) {
      ClientRecord& other = ctx.records[i];
      if (other.in_use != 1 || other.ifindex == record.ifindex || other.mac != record.mac ||
          other.pending_code != kDisassociated)
        continue;
      if (append_report(command, other, sources) == 0) return;
      stamp_record_state(other, kDisassociated);
      clear_pending_code(other);
    }
  }

  if (record.pending_flag != 0) {
    std::string ssid = sources.ssid(record);
    std::string bssid = sources.bssid(record);
    std::string trace;
    std::size_t length = append_limit_report(command, record, ssid, bssid, trace);
    print_trace(trace);
    if (length == 0) return;
  }

  if (append_report(command, record, sources) == 0) return;

  std::printf("\ncmd: %s\n", command.c_str());
  std::fflush(stdout);
  common::run_command(command);
}

void notify_client(ClientRecord& record) { notify_client(record, device_sources(driver_socket(record))); }

void tavo_event_queue(ClientRecord& record, std::uint8_t code, const NotifierSources& sources) {
  std::printf("%s: state: %u\n", "tavo_event_queue", static_cast<unsigned>(code));
  std::fflush(stdout);

  if (code == record.state) {
    // Nothing new to report: a repeated code only restarts the hold-off.
    if (record.state != 0) stamp_record_state(record, code);
    clear_pending_code(record);
    return;
  }
  if (code == kDisassociated && record.state == 0) {
    // Never reported as associated: its leaving is not reported either.
    clear_pending_code(record);
    return;
  }

  const std::int64_t now = common::wall_now();
  record.pending_code = code;
  record.pending_since = now;
  const std::int64_t age =
      (record.state == 0 || record.state_time > 0) ? now - record.state_time : 0;

  if (code == kAssociated) check_client_limits(record, sources);

  if ((code == kAssociated && age >= kAssocAge) ||
      (code == kDisassociated && age >= kDisassocAge)) {
    notify_client(record, sources);
    stamp_record_state(record, code);
    clear_pending_code(record);
    return;
  }
  // Held until the main loop finds it old enough; the reported state
  // follows the newest code while its time stays.
  if (record.state != 0) record.state = code;
}

void tavo_event_queue(ClientRecord& record, std::uint8_t code) {
  tavo_event_queue(record, code, device_sources(driver_socket(record)));
}

}  // namespace clients

// The notifier queue: each record holds one pending code (11 associated,
// 12 disassociated), a hold-off after each report and the last reported
// state. Reports go to the external "tavo_client" program, run in the
// background through the shell. Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "model/client_record.h"

namespace clients {

// Queues code 11 or 12 for the record: a repeated code only re-stamps the
// hold-off, a disassociation of a never-reported station is dropped, and a
// code whose age since the last report is enough (60 s for 11, 180 s for
// 12) is reported at once; otherwise it waits in pending_code for the main
// loop. Code 11 also checks the radio-wide and per-VAP client limits.
void tavo_event_queue(ClientRecord& record, std::uint8_t code);

// Builds and runs one notifier command for the record: first the pending
// disassociations of the same station on other VAPs, then the client-limit
// event when pending_flag is set, then the record's own pending code. Any
// call that cannot be built abandons the whole command (nothing runs).
// Called by the queue and by the main loop's timed work.
void notify_client(ClientRecord& record);

// --- the pieces, apart from the device

// What the queue and the notifier learn from the device. device_sources()
// reads the master configuration, the status files and the driver (through
// the given socket, the daemon's own; a fresh one per request when below
// 0); tests put their own answers in.
struct NotifierSources {
  // The SSID of the record's VAP ("" when not configured).
  std::function<std::string(const ClientRecord&)> ssid;
  // The upper-case BSSID of the record's VAP; "" when its address cannot
  // be read (a VAP torn down), which is still reported, with an empty field.
  std::function<std::string(const ClientRecord&)> bssid;
  // Stations associated on a VAP (find_cli_num).
  std::function<int(int ifindex)> station_count;
  // The per-VAP client limit: the first line of "/etc/ath<n>_client_limit",
  // else the WLAN's "CLIENT_LIMIT"; nullopt when neither is there.
  std::function<std::optional<int>(const ClientRecord&)> vap_limit;
  // The radio-wide client limit and its maximum-station trap.
  std::function<void(const ClientRecord&)> radio_limit;
};
NotifierSources device_sources(int socket_fd = -1);

void tavo_event_queue(ClientRecord& record, std::uint8_t code, const NotifierSources& sources);
void notify_client(ClientRecord& record, const NotifierSources& sources);

// Sizes of the notifier command.
inline constexpr std::size_t kNotifierCommandMax = 1023;  // a 1024-byte buffer
inline constexpr std::size_t kNotifierMessageMax = 255;   // a 256-byte buffer
inline constexpr std::size_t kNotifierFieldSize = 128;    // the N of the transforms

// The text without its ':' characters, at most n - 1 characters.
std::string strip_colons(std::string_view text, std::size_t n);

// Every character as "%02X" of its signed value (a byte above 127 gives
// eight digits), stopping once n - 3 characters are written; at most n - 1
// characters. trace receives "%c %02X" for every character examined.
std::string hex_escape(std::string_view text, std::size_t n, std::string& trace);

// Appends "tavo_client  -E <event> \"<message>\" <since>  &" to the
// command. The new length, or 0 (command unchanged) when the message has
// 256 or more characters or the call does not fit in 1023 characters.
std::size_t append_notifier_call(std::string& command, int event, std::string_view message,
                                 std::int64_t since);

// Appends the record's own report: event 21 for pending code 11, 22 for 12,
// with "<mac> <bssid> [<hex ssid>]" (colons stripped). The new length, or 0
// (command unchanged) when the code is neither or the call does not fit.
// trace receives the hex escaping's trace.
std::size_t append_record_report(std::string& command, const ClientRecord& record,
                                 std::string_view ssid, std::string_view bssid, std::string& trace);

// Appends the client-limit event 23: "<limit> <bssid> [<hex ssid>]" with
// the record's pending_since. As above.
std::size_t append_limit_report(std::string& command, const ClientRecord& record,
                                std::string_view ssid, std::string_view bssid, std::string& trace);

// The logger alert for a VAP that reached its client limit.
// nullopt (nothing runs) when the SSID holds a NUL.
std::optional<std::string> client_limit_alert_command(std::string_view ssid, int limit);

}  // namespace clients

// The client files other programs read: "/etc/clientip" (every station in
// the table), "/etc/clientip_assoc" (stations associated now) and
// "/etc/client_accu_stat" (accumulated traffic per station), each replaced
// whole, and the accumulation of a station's traffic report. Main thread
// only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "model/client_files.h"
#include "model/client_record.h"

namespace daemon_core {
struct DaemonContext;
}

namespace clients {

inline constexpr const char* kClientListPath = "/etc/clientip";
inline constexpr const char* kClientAssocListPath = "/etc/clientip_assoc";
inline constexpr const char* kClientStatsPath = "/etc/client_accu_stat";

// Every change of a field that the client files show (and of current)
// names the record here, so that its lines are formatted again before the
// next write. A record without an owner is ignored.
void mark_lines_changed(ClientRecord& record);

// One line of the client lists:
// "<ifname>:<mac> <ip> <assoc> <disassoc> <assocs> <disassocs> <first assoc>\n",
// cut to 127 characters. ifname is the name of the record's ifindex.
std::string client_list_line(const ClientRecord& record, std::string_view ifname);

// One line of the statistics file:
// "<ifname>:<mac> <tx bytes> <rx bytes> <tx pkts> <rx pkts> <a> <e> <d> <c> <b>\n",
// cut to 383 characters.
std::string client_stats_line(const ClientRecord& record, std::string_view ifname);

// The whole content of a client list / the statistics file: one line per
// in-use record of slots 0 .. client_count-1 in slot order (the associated
// list only those whose current is 1).
std::string client_list_text(const daemon_core::DaemonContext& ctx, bool associated_only);
std::string client_stats_text(const daemon_core::DaemonContext& ctx);

// Replace the destination whole with the list / statistics (mode 0600).
// Clears ctx.files_refresh either way; 1 when the new file cannot be
// written (the old one stays), else 0.
int write_client_list(daemon_core::DaemonContext& ctx, const std::string& destination,
                      bool associated_only);
int write_client_stats(daemon_core::DaemonContext& ctx, const std::string& destination);

// "/etc/clientip" (all), "/etc/clientip_assoc" (associated only), then
// "/etc/client_accu_stat".
void write_client_files(daemon_core::DaemonContext& ctx);

// A traffic report "RX:<n>bytes,<n>pkts TX:<n>bytes,<n>pkts".
struct TrafficReport {
  std::uint64_t rx_bytes = 0;
  std::uint32_t rx_packets = 0;
  std::uint64_t tx_bytes = 0;
  std::uint32_t tx_packets = 0;
};
// nullopt unless all four values are there.
std::optional<TrafficReport> parse_traffic_report(std::string_view text);

// Adds the report to the record's counters (64-bit byte sums, wrapping
// 32-bit packet counts) and rewrites "/etc/client_accu_stat" for the
// record's owner. 0, or -1 (nothing changed) when the text is missing or
// lacks one of the four values.
int accumulate_traffic_report(ClientRecord& record, std::optional<std::string_view> text);

}  // namespace clients

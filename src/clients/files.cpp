#include "clients/files.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>

#include "common/files.h"
#include "common/iface.h"
#include "common/text.h"
#include "daemon/context.h"

namespace clients {

namespace {

constexpr std::size_t kListLineMax = 127;
constexpr std::size_t kStatsLineMax = 383;

std::string interface_name(const ClientRecord& record) {
  return common::cut(common::get_interface_name_by_idx(record.ifindex), common::kInterfaceNameMax);
}

template <typename LineFn>
std::string table_text(const daemon_core::DaemonContext& ctx, bool associated_only, LineFn line) {
  std::string text;
  const std::uint32_t end = std::min<std::uint32_t>(ctx.client_count, kClientSlots);
  for (std::uint32_t i = 0; i < end; ++i) {
    const ClientRecord& record = ctx.records[i];
    if (associated_only && record.current != 1) continue;
    if (record.in_use != 1) continue;
    text += line(record, interface_name(record));
  }
  return text;
}

// The new file replaces the old one whole. The guard is cleared before the
// move and also when the file cannot be written (a full /etc), so the next
// event tries the rewrite, and the expiry with it, again.
int replace(daemon_core::DaemonContext& ctx, const std::string& destination,
            const std::string& content) {
  ctx.files_refresh = 0;
  return common::replace_file_atomically(destination, content) == 0 ? 0 : 1;
}

}  // namespace

std::string client_list_line(const ClientRecord& record, std::string_view ifname) {
  std::string name(ifname);
  return common::format_cut(kListLineMax, "%s:%s %s %d %d %d %d %d\n", name.c_str(),
                            record.mac.c_str(), common::dotted_ipv4(record.ip).c_str(), record.assoc_uptime,
                            record.disassoc_uptime, static_cast<int>(record.assoc_count),
                            static_cast<int>(record.disassoc_count),
                            static_cast<int>(record.first_assoc_uptime));
}

std::string client_stats_line(const ClientRecord& record, std::string_view ifname) {
  std::string name(ifname);
  return common::format_cut(kStatsLineMax, "%s:%s %llu %llu %u %u %u %u %u %u %u\n", name.c_str(),
                            record.mac.c_str(), static_cast<unsigned long long>(record.tx_bytes),
                            static_cast<unsigned long long>(record.rx_bytes), record.tx_packets,
                            record.rx_packets, record.stat_a, record.stat_e, record.stat_d,
                            record.stat_c, record.stat_b);
}

std::string client_list_text(const daemon_core::DaemonContext& ctx, bool associated_only) {
  return table_text(ctx, associated_only, client_list_line);
}

std::string client_stats_text(const daemon_core::DaemonContext& ctx) {
  return table_text(ctx, false, client_stats_line);
}

int write_client_list(daemon_core::DaemonContext& ctx, const std::string& destination,
                      bool associated_only) {
  return replace(ctx, destination, client_list_text(ctx, associated_only));
}

int write_client_stats(daemon_core::DaemonContext& ctx, const std::string& destination) {
  return replace(ctx, destination, client_stats_text(ctx));
}

void write_client_files(daemon_core::DaemonContext& ctx) {
  write_client_list(ctx, kClientListPath, false);
  write_client_list(ctx, kClientAssocListPath, true);
  write_client_stats(ctx, kClientStatsPath);
}

std::optional<TrafficReport> parse_traffic_report(std::string_view text) {
  std::string copy(text);
  unsigned long long rx_bytes = 0;
  unsigned long long tx_bytes = 0;
  unsigned rx_packets = 0;
  unsigned tx_packets = 0;
  if (std::sscanf(copy.c_str(), "RX:%llubytes,%upkts TX:%llubytes,%upkts", &rx_bytes, &rx_packets,
                  &tx_bytes, &tx_packets) != 4)
    return std::nullopt;
  return TrafficReport{rx_bytes, rx_packets, tx_bytes, tx_packets};
}

int accumulate_traffic_report(ClientRecord& record, std::optional<std::string_view> text) {
  if (!text) return -1;
  auto report = parse_traffic_report(*text);
  if (!report) return -1;
  record.rx_bytes += report->rx_bytes;
  record.tx_bytes += report->tx_bytes;
  record.rx_packets += report->rx_packets;  // 32-bit, wrapping
  record.tx_packets += report->tx_packets;
  if (record.owner) write_client_stats(*record.owner, kClientStatsPath);
  return 0;
}

}  // namespace clients

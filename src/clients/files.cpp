#include "clients/files.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <span>

#include "common/files.h"
#include "common/iface.h"
#include "common/text.h"
#include "model/context.h"

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

// Puts line in place of slot i's line and moves the later offsets.
void splice(std::string& text, std::vector<std::uint32_t>& offset, std::size_t i,
            std::string_view line) {
  const std::uint32_t begin = offset[i];
  const std::uint32_t old_length = offset[i + 1] - begin;
  text.replace(begin, old_length, line);
  const std::uint32_t new_length = static_cast<std::uint32_t>(line.size());
  if (new_length == old_length) return;
  for (std::size_t j = i + 1; j < offset.size(); ++j) offset[j] = offset[j] - old_length + new_length;
}

// Brings the kept lines up to date with the used range of the table.
void refresh_cache(daemon_core::DaemonContext& ctx) {
  ClientFileCache& cache = ctx.client_files;
  const std::size_t end = std::min<std::uint32_t>(ctx.client_count, kClientSlots);
  common::InterfaceTable names = common::current_interface_table();
  if (!cache.valid || names != cache.names) {
    cache.names = std::move(names);
    cache.list_text.clear();
    cache.stats_text.clear();
    cache.list_offset.assign(1, 0);
    cache.stats_offset.assign(1, 0);
    cache.current.clear();  // every slot of the range is formatted below
    cache.assoc_valid = false;
    cache.valid = true;
  }
  const std::size_t kept = cache.current.size();
  if (kept > end) {
    cache.current.resize(end);
    cache.list_offset.resize(end + 1);
    cache.stats_offset.resize(end + 1);
    cache.list_text.resize(cache.list_offset.back());
    cache.stats_text.resize(cache.stats_offset.back());
    cache.assoc_valid = false;
  } else if (kept < end) {
    cache.current.resize(end, 0);
    cache.list_offset.resize(end + 1, cache.list_offset.back());
    cache.stats_offset.resize(end + 1, cache.stats_offset.back());
    for (std::size_t i = kept; i < end; ++i) cache.changed[i] = 1;
    cache.any_changed = true;
  }
  if (!cache.any_changed) return;
  cache.assoc_valid = false;
  for (std::size_t i = 0; i < end; ++i) {
    if (cache.changed[i] == 0) continue;
    cache.changed[i] = 0;
    const ClientRecord& record = ctx.records[i];
    cache.current[i] = record.current == 1 ? 1 : 0;
    if (record.in_use == 1) {
      const std::string name =
          common::cut(common::interface_name_in(cache.names, record.ifindex), common::kInterfaceNameMax);
      splice(cache.list_text, cache.list_offset, i, client_list_line(record, name));
      splice(cache.stats_text, cache.stats_offset, i, client_stats_line(record, name));
    } else {
      splice(cache.list_text, cache.list_offset, i, std::string_view());
      splice(cache.stats_text, cache.stats_offset, i, std::string_view());
    }
  }
  // Slots past the used range are formatted anyway once the range reaches them.
  std::fill(cache.changed.begin() + static_cast<std::ptrdiff_t>(end), cache.changed.end(), 0);
  cache.any_changed = false;
  cache.assoc_valid = false;
}

// The new file replaces the old one whole. The guard is cleared before the
// move and also when the file cannot be written (a full /etc), so the next
// event tries the rewrite, and the expiry with it, again.
int replace(daemon_core::DaemonContext& ctx, const std::string& destination,
            std::span<const std::string_view> pieces) {
  ctx.files_refresh = 0;
  return common::replace_file_atomically(destination, pieces) == 0 ? 0 : 1;
}

int replace(daemon_core::DaemonContext& ctx, const std::string& destination,
            std::string_view content) {
  return replace(ctx, destination, std::span<const std::string_view>(&content, 1));
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
  refresh_cache(ctx);
  ClientFileCache& cache = ctx.client_files;
  if (!associated_only) return replace(ctx, destination, cache.list_text);
  // The associated list is the kept lines of the current slots, handed to
  // the write as runs of adjacent lines rather than copied.
  std::vector<std::string_view>& pieces = cache.assoc_pieces;
  if (!cache.assoc_valid) {
    pieces.clear();
    const std::string_view text = cache.list_text;
    std::size_t run_begin = 0, run_end = 0;
    for (std::size_t i = 0; i < cache.current.size(); ++i) {
      const std::uint32_t begin = cache.list_offset[i], end = cache.list_offset[i + 1];
      if (cache.current[i] != 1 || begin == end) continue;
      if (begin != run_end) {
        if (run_end > run_begin) pieces.push_back(text.substr(run_begin, run_end - run_begin));
        run_begin = begin;
      }
      run_end = end;
    }
    if (run_end > run_begin) pieces.push_back(text.substr(run_begin, run_end - run_begin));
    cache.assoc_valid = true;
  }
  return replace(ctx, destination, pieces);
}

int write_client_stats(daemon_core::DaemonContext& ctx, const std::string& destination) {
  refresh_cache(ctx);
  return replace(ctx, destination, ctx.client_files.stats_text);
}

void mark_lines_changed(ClientRecord& record) {
  daemon_core::DaemonContext* ctx = record.owner;
  if (ctx == nullptr) return;
  const std::ptrdiff_t slot = &record - ctx->records.data();
  if (slot < 0 || slot >= kClientSlots) return;
  ctx->client_files.changed[static_cast<std::size_t>(slot)] = 1;
  ctx->client_files.any_changed = true;
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
  mark_lines_changed(record);
  if (record.owner) write_client_stats(*record.owner, kClientStatsPath);
  return 0;
}

}  // namespace clients

#include "clients/table.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

#include "bandwidth/shaping.h"
#include "clients/files.h"
#include "common/clock.h"
#include "common/command.h"
#include "common/driver.h"
#include "common/iface.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "model/context.h"

namespace clients {

namespace {

constexpr long kExpireAfter = 1801;             // uptime seconds after a disassociation
constexpr std::int64_t kHoldoffAssoc = 180 + 10;  // after reporting an association
constexpr std::int64_t kHoldoffOther = 60 + 10;   // after any other report
constexpr std::size_t kQueryLineMax = 256;

char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// Quick rejection eight characters at a time: setting bit 5 of every byte
// turns upper-case letters into lower-case ones and maps characters that
// compare equal below to equal bytes, so words that still differ hold a
// real difference.
constexpr std::uint64_t kFold = 0x2020202020202020ULL;

bool mac_equal(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  const auto differ = [&](std::size_t i) {
    std::uint64_t x = 0, y = 0;
    std::memcpy(&x, a.data() + i, 8);
    std::memcpy(&y, b.data() + i, 8);
    return (x | kFold) != (y | kFold);
  };
  for (std::size_t i = 0; i + 8 <= a.size(); i += 8)
    if (differ(i)) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
  return true;
}

// One MAC that a table walk looks for. Each record's MAC is first compared
// by length and by its folded last eight characters, where the stations of
// one table mostly differ, with no call; only a record that passes goes
// through mac_equal. The check is inlined into each walk.
struct MacProbe {
  std::string_view mac;
  std::uint64_t tail = 0;
};

MacProbe mac_probe(std::string_view mac) {
  MacProbe probe{mac};
  if (mac.size() >= 8) std::memcpy(&probe.tail, mac.data() + mac.size() - 8, 8);
  probe.tail |= kFold;
  return probe;
}

[[gnu::always_inline]] inline bool matches(const MacProbe& probe, std::string_view mac) {
  if (mac.size() != probe.mac.size()) return false;
  if (mac.size() >= 8) {
    std::uint64_t x = 0;
    std::memcpy(&x, mac.data() + mac.size() - 8, 8);
    if ((x | kFold) != probe.tail) return false;
  }
  return mac_equal(mac, probe.mac);
}

std::uint32_t used_range(const daemon_core::DaemonContext& ctx) {
  return std::min<std::uint32_t>(ctx.client_count, kClientSlots);
}

}  // namespace

std::string interface_from_query_line(std::string_view line) {
  constexpr std::string_view kPrefix = "INTERFACE=\"";
  if (!line.starts_with(kPrefix)) return std::string();
  line.remove_prefix(kPrefix.size());
  auto is_blank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  std::size_t begin = 0;
  while (begin < line.size() && is_blank(line[begin])) ++begin;
  std::size_t end = begin;
  while (end < line.size() && !is_blank(line[end])) ++end;
  return std::string(line.substr(begin, end - begin));
}

void init_records(daemon_core::DaemonContext& ctx) {
  for (auto& record : ctx.records) {
    record.owner = &ctx;
    bandwidth::reset_bandwidth(record.bandwidth);
  }
  ctx.client_files.valid = false;
}

void clear_record(ClientRecord& record) {
  if (record.ip != 0) config::del_portal_route(common::dotted_ipv4(record.ip), record.vlan_id);
  if (!record.mac.empty()) {
    const config::taglist* conf = record.owner ? record.owner->masterconf.get() : nullptr;
    bandwidth::remove_bandwidth(conf, record.mac, record.ifindex, record.bandwidth);
    record.bandwidth.bw_slot = 0;
  }
  // Everything else goes back to its zero state; owner, portal, the
  // bandwidth block and vlan_pool_slot stay: the next station in this slot
  // sets them again.
  ClientRecord cleared;
  cleared.owner = record.owner;
  cleared.portal = record.portal;
  cleared.bandwidth = std::move(record.bandwidth);
  cleared.vlan_pool_slot = record.vlan_pool_slot;
  record = std::move(cleared);
  mark_lines_changed(record);
}

int check_expired(daemon_core::DaemonContext& ctx) {
  if (ctx.client_count == 0) return 0;
  // One uptime for the whole sweep; client_count is read again on every step.
  const long uptime = common::uptime_now();
  for (std::uint32_t i = 0; i < used_range(ctx); ++i) {
    ClientRecord& record = ctx.records[i];
    bool left = record.assoc_uptime < record.disassoc_uptime;
    if (!left || uptime - static_cast<long>(record.disassoc_uptime) < kExpireAfter) continue;
    std::string ifname = common::cut(common::get_interface_name_by_idx(record.ifindex),
                                     common::kInterfaceNameMax);
    std::printf("%s: expired, clear_record(%d) %s:%s\n", "check_expired", static_cast<int>(i),
                ifname.c_str(), record.mac.c_str());
    std::fflush(stdout);
    clear_record(record);
  }
  return 0;
}

Lookup lookup_record(const daemon_core::DaemonContext& ctx, std::string_view mac, int ifindex) {
  auto& records = ctx.records;
  Lookup result;
  result.walk_end = ctx.client_count;
  const std::uint32_t end = used_range(ctx);
  const MacProbe probe = mac_probe(mac);

  // c ends as a free slot of the used range when there is one, else as the
  // record with the oldest last_update.
  std::uint32_t c = 0;
  std::int64_t oldest = records[0].last_update;
  for (std::uint32_t i = 0; i < end; ++i) {
    const ClientRecord& slot = records[i];
    if (records[c].in_use == 1) {
      if (slot.in_use != 0 && slot.last_update < oldest) {
        oldest = slot.last_update;
        c = i;
      } else if (slot.in_use == 0) {
        c = i;
      }
    }
    if (slot.in_use != 0 && matches(probe, slot.mac) &&
        (slot.ifindex == ifindex || (ifindex < 0 && slot.current == 1))) {
      result.found = true;
      result.slot = static_cast<int>(i);
      return result;
    }
  }

  result.slot = static_cast<int>(c);
  return result;
}

int take_slot(daemon_core::DaemonContext& ctx, const Lookup& lookup) {
  if (ctx.client_count == 0) {
    ctx.client_count = 1;
    return 0;
  }
  if (ctx.records[lookup.slot].in_use == 1 && ctx.client_count < kClientSlots)
    return static_cast<int>(ctx.client_count++);
  return lookup.slot;
}

int resolve_station_interface(daemon_core::DaemonContext& ctx, std::string_view mac) {
  const ClientRecord* latest = nullptr;
  const MacProbe probe = mac_probe(mac);
  for (std::uint32_t i = 0; i < used_range(ctx); ++i) {
    const ClientRecord& record = ctx.records[i];
    if (!matches(probe, record.mac) || record.assoc_uptime <= record.disassoc_uptime) continue;
    if (!latest || record.assoc_uptime > latest->assoc_uptime) latest = &record;
  }
  if (latest) return latest->ifindex;

  auto output = common::run_command_read(common::build_command(
      common::kNoLimit, "create_client_table {} | grep INTERFACE", {common::mac(mac)}));
  if (!output || output->empty()) return -1;
  std::string_view line = *output;
  line = line.substr(0, std::min(line.find('\n'), kQueryLineMax));
  return common::get_interface_idx_by_name(interface_from_query_line(line));
}

void stamp_record_state(ClientRecord& record, std::uint8_t code) {
  record.state = code;
  record.state_time = common::wall_now();
  record.holdoff_deadline = common::wall_now() + (code == 11 ? kHoldoffAssoc : kHoldoffOther);
  if (record.owner) record.owner->next_deadline = earliest_deadline(*record.owner);
}

void clear_pending_code(ClientRecord& record) {
  record.pending_code = 0;
  record.pending_flag = 0;
  record.pending_since = 0;
}

std::int64_t earliest_deadline(const daemon_core::DaemonContext& ctx) {
  std::int64_t earliest = 0;
  for (const ClientRecord& record : ctx.records) {
    if (record.in_use != 1 || record.holdoff_deadline <= 0) continue;
    if (earliest == 0 || record.holdoff_deadline < earliest) earliest = record.holdoff_deadline;
  }
  return earliest;
}

void clear_current_elsewhere(daemon_core::DaemonContext& ctx, std::string_view mac, int keep) {
  const MacProbe probe = mac_probe(mac);
  for (int i = 0; i < kClientSlots; ++i) {
    // Clearing a flag that is clear already changes nothing.
    if (i == keep || ctx.records[i].current == 0 || !matches(probe, ctx.records[i].mac)) continue;
    ctx.records[i].current = 0;
    mark_lines_changed(ctx.records[i]);
  }
}

int find_cli_num(int ifindex, int socket_fd) {
  common::StationInfo info =
      common::driver_station_info(common::get_interface_name_by_idx(ifindex), socket_fd);
  switch (info.error) {
    case common::StationInfoError::kSocket:
      std::printf("Error: %s() create socket failed\n", "find_cli_num");
      std::fflush(stdout);
      return 0;
    case common::StationInfoError::kRequest:
      std::printf("Error: %s() get STA info\n", "find_cli_num");
      std::fflush(stdout);
      return 0;
    case common::StationInfoError::kNone:
      break;
  }
  return info.length / common::kStationEntrySize;
}

}  // namespace clients

#include "clients/update.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "bandwidth/shaping.h"
#include "clients/files.h"
#include "clients/notifier.h"
#include "clients/table.h"
#include "common/clock.h"
#include "common/numbers.h"
#include "common/text.h"
#include "config/accessors.h"
#include "model/context.h"
#include "vlan/pool.h"
#include "vlan/rules.h"

namespace clients {

namespace {

constexpr std::size_t kMacLength = 17;

// inet_addr(3) of the text: an address followed by a blank and more text
// reads as the address (the client-table pipe hands "10.0.0.5 ath1").
std::uint32_t parse_address(std::string_view text) {
  std::string copy(text);
  return ::inet_addr(copy.c_str());
}

// "%d %d" of the extra text; nullopt unless both values are there.
std::optional<std::pair<int, int>> scan_rates(std::optional<std::string_view> extra) {
  if (!extra) return std::nullopt;
  // Each number as "%d" reads it, in a checked range.
  std::string_view text = *extra;
  auto up = common::scan_int(text);
  if (!up) return std::nullopt;
  text.remove_prefix(std::min(text.find_first_of("0123456789") , text.size()));
  text.remove_prefix(std::min(text.find_first_not_of("0123456789"), text.size()));
  auto down = common::scan_int(text);
  if (!down) return std::nullopt;
  return std::make_pair(*up, *down);
}

std::optional<int> scan_vlan(std::optional<std::string_view> extra) {
  if (!extra) return std::nullopt;
  return common::scan_int(*extra);
}

void change_rates(daemon_core::DaemonContext& ctx, ClientRecord& rec, int ath,
                  std::optional<std::string_view> extra) {
  const config::taglist* conf = ctx.masterconf.get();
  auto rates = scan_rates(extra);
  if (!rates) return;
  BandwidthBlock& bw = rec.bandwidth;
  // A reload clears the shaping numbers (and a record made by a client line
  // never had them): load them as an association does, so the commands
  // below name the station's real classes, marks and device.
  if (bw.tc_major == 0) bandwidth::load_bandwidth(ctx, bw, ath);
  auto [up, down] = *rates;
  // -1 stands for the rate configured for the interface.
  if (up == -1) up = bandwidth::configured_rate(conf, ath, 0);
  if (down == -1) down = bandwidth::configured_rate(conf, ath, 1);
  const bool up_changes = up >= 0 && up != bw.up_rate;
  const bool down_changes = down >= 0 && down != bw.down_rate;
  if (!up_changes && !down_changes) return;
  bandwidth::remove_bandwidth(conf, rec.mac, ath, bw);
  if (up_changes) {
    std::printf("Changing bandwidth up rate for %s from %d to %d\n", rec.mac.c_str(), bw.up_rate, up);
    bw.up_rate = up;
  }
  if (down_changes) {
    std::printf("Changing bandwidth down rate for %s from %d to %d\n", rec.mac.c_str(), bw.down_rate,
                down);
    bw.down_rate = down;
  }
  std::fflush(stdout);
  bandwidth::apply_bandwidth(conf, rec.mac, ath, bw);
}

void update_existing(daemon_core::DaemonContext& ctx, int slot, int code, int ath,
                     std::optional<std::string_view> ip, std::optional<std::string_view> extra) {
  const config::taglist* conf = ctx.masterconf.get();
  ClientRecord& rec = ctx.records[slot];
  if (rec.ifindex < 0) {
    // Neither the record nor an earlier event knew the interface.
    rec.vlan_id = config::get_vlan_id(conf, ath);
    if (ath >= 0) rec.portal = config::is_wlan_portal_enabled(conf, ath);
    rec.ifindex = ath;
  }
  switch (code) {
    case kEventIpLearned: {
      const std::uint32_t address = parse_address(*ip);
      if (address == rec.ip) break;
      config::del_portal_route(common::dotted_ipv4(rec.ip), rec.vlan_id);
      rec.ip = address;
      if (rec.portal != 0) config::add_portal_route(common::dotted_ipv4(rec.ip), rec.vlan_id);
      break;
    }
    case kEventAssociated: {
      const long uptime = common::uptime_now();
      if (rec.first_assoc_uptime == 0) rec.first_assoc_uptime = static_cast<std::uint32_t>(uptime);
      rec.assoc_uptime = static_cast<std::int32_t>(uptime);
      rec.current = 1;
      rec.assoc_count += 1;
      rec.ip = 0;  // the old portal route stays until the next address or the leave
      vlan::process_sta_vlan_pool(ctx, ath, rec);
      rec.vlan_id = config::get_vlan_id(conf, ath);
      rec.portal = config::is_wlan_portal_enabled(conf, ath);
      clear_current_elsewhere(ctx, rec.mac, slot);
      bandwidth::remove_bandwidth(conf, rec.mac, ath, rec.bandwidth);
      bandwidth::load_bandwidth(ctx, rec.bandwidth, ath);
      bandwidth::apply_bandwidth(conf, rec.mac, ath, rec.bandwidth);
      tavo_event_queue(rec, kEventAssociated);
      break;
    }
    case kEventDisassociated:
      rec.disassoc_uptime = static_cast<std::int32_t>(common::uptime_now());
      bandwidth::remove_bandwidth(conf, rec.mac, rec.ifindex, rec.bandwidth);
      config::del_portal_route(common::dotted_ipv4(rec.ip), rec.vlan_id);
      rec.disassoc_count += 1;
      rec.ip = 0;
      rec.current = 0;
      tavo_event_queue(rec, kEventDisassociated);
      vlan::remove_sta_vlan_pool(ctx, rec);
      break;
    case kEventNodeLeave:
      // Unlike a disassociation, the portal route and the shaping stay.
      rec.ip = 0;
      accumulate_traffic_report(rec, extra);
      rec.current = 0;
      vlan::remove_sta_vlan_pool(ctx, rec);
      break;
    case kEventBandwidth:
      change_rates(ctx, rec, ath, extra);
      break;
    case kEventStaVlan:
      if (auto vlan_id = scan_vlan(extra)) vlan::handle_sta_vlan_update(ctx, rec, ath, *vlan_id);
      break;
    default:
      break;
  }
  rec.last_update = common::wall_now();
}

void create_record(daemon_core::DaemonContext& ctx, int s, std::uint32_t walk_end, int code, int ath,
                   std::string_view mac, std::optional<std::string_view> ip,
                   std::optional<std::string_view> extra) {
  const config::taglist* conf = ctx.masterconf.get();
  // Some steps address the slot at the walk's end rather than the chosen
  // one; the two are the same whenever the table grew. When the full table
  // evicted a record the walk's end names no slot and those steps are
  // skipped.
  const int p = static_cast<int>(walk_end);
  ClientRecord* at_p = p < kClientSlots ? &ctx.records[p] : nullptr;

  std::string mac_text(mac.substr(0, kMacLength));
  std::printf("new record: %s, index: %d, i: %d, interface: %d, client_table_cnt: %d status:%d\n",
              mac_text.c_str(), s, p, ath, static_cast<int>(ctx.client_count), code);
  std::fflush(stdout);

  ClientRecord& rec = ctx.records[s];
  clear_record(rec);
  rec.vlan_id = config::get_vlan_id(conf, ath);
  rec.portal = config::is_wlan_portal_enabled(conf, ath);
  rec.in_use = 1;
  rec.assoc_uptime = 0;
  rec.disassoc_uptime = 0;
  rec.assoc_count = 0;
  rec.disassoc_count = 0;
  rec.ifindex = ath;
  rec.mac = mac_text;
  if (ip) rec.ip = parse_address(*ip);

  switch (code) {
    case kEventIpLearned:
      rec.ip = parse_address(*ip);
      if (at_p && at_p->portal != 0) config::add_portal_route(common::dotted_ipv4(at_p->ip), at_p->vlan_id);
      break;
    case kEventAssociated: {
      const long uptime = common::uptime_now();
      rec.assoc_count += 1;
      rec.current = 1;
      rec.assoc_uptime = static_cast<std::int32_t>(uptime);
      rec.first_assoc_uptime = static_cast<std::uint32_t>(uptime);
      rec.ip = 0;
      vlan::process_sta_vlan_pool(ctx, ath, rec);
      if (at_p) clear_current_elsewhere(ctx, std::string(at_p->mac), p);
      bandwidth::load_bandwidth(ctx, rec.bandwidth, ath);
      bandwidth::apply_bandwidth(conf, rec.mac, ath, rec.bandwidth);
      tavo_event_queue(rec, kEventAssociated);
      break;
    }
    case kEventDisassociated:
      rec.disassoc_uptime = static_cast<std::int32_t>(common::uptime_now());
      rec.disassoc_count += 1;
      rec.ip = 0;
      rec.current = 0;
      tavo_event_queue(rec, kEventDisassociated);
      if (at_p) vlan::remove_sta_vlan_pool(ctx, *at_p);
      break;
    case kEventNodeLeave:
      rec.ip = 0;
      accumulate_traffic_report(rec, extra);
      rec.current = 0;
      if (at_p) vlan::remove_sta_vlan_pool(ctx, *at_p);
      break;
    case kEventStaVlan:
      if (auto vlan_id = scan_vlan(extra); vlan_id && at_p)
        vlan::handle_sta_vlan_update(ctx, *at_p, ath, *vlan_id);
      break;
    default:
      break;
  }
  rec.last_update = common::wall_now();
}

}  // namespace

int update_client_table(daemon_core::DaemonContext& ctx, int code, int ifindex,
                        std::string_view mac, std::optional<std::string_view> ip,
                        std::optional<std::string_view> extra) {
  if (mac.empty()) return kUpdateRefused;
  if (code == kEventIpLearned && !ip) return kUpdateRefused;

  int ath = ifindex;
  if (ath < 0) ath = resolve_station_interface(ctx, mac);

  const Lookup where = lookup_record(ctx, mac, ath);
  if (where.found) {
    update_existing(ctx, where.slot, code, ath, ip, extra);
    mark_lines_changed(ctx.records[where.slot]);
    return kUpdateExisting;
  }
  if (code == kEventBandwidth) return kUpdateCreated;  // a rate change for an unknown station is dropped
  const int slot = take_slot(ctx, where);
  create_record(ctx, slot, where.walk_end, code, ath, mac, ip, extra);
  mark_lines_changed(ctx.records[slot]);
  return kUpdateCreated;
}

}  // namespace clients

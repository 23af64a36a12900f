// The client table: record bookkeeping, lookup and slot choice, expiry, and
// the small helpers the main loop and the notifier use. Main thread only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "model/client_record.h"

namespace daemon_core {
struct DaemonContext;
}

namespace clients {

// Start-up: stores the owner in every slot and resets each bandwidth block.
void init_records(daemon_core::DaemonContext& ctx);

// Empties one record: removes its portal route (ip set) and its shaping
// (mac set), zeroes the station fields. owner, portal, the rest of the
// bandwidth block and vlan_pool_slot are kept; ifindex becomes 0.
void clear_record(ClientRecord& record);

// Clears every record that disassociated 1801 or more uptime seconds ago,
// printing "check_expired: expired, clear_record(<i>) <ifname>:<mac>".
// Always 0.
int check_expired(daemon_core::DaemonContext& ctx);

// The station's record for (mac, ifindex): when found, slot is the record;
// otherwise slot is the candidate for a new one: a free slot inside the used
// range, else the record with the oldest last_update. walk_end is the
// client_count the walk ran to.
struct Lookup {
  bool found = false;
  int slot = 0;
  std::uint32_t walk_end = 0;
};
Lookup lookup_record(const daemon_core::DaemonContext& ctx, std::string_view mac, int ifindex);

// The slot for a station that has no record: a fresh slot past the used
// range while there is room (client_count grows), else the lookup's
// candidate (a free slot, or the oldest record, evicted without telling
// anybody).
int take_slot(daemon_core::DaemonContext& ctx, const Lookup& lookup);

// The interface of a station whose interface is not given: the associated
// record with the latest association, else the "create_client_table" query;
// -1 when neither knows.
int resolve_station_interface(daemon_core::DaemonContext& ctx, std::string_view mac);
// The interface name in a line of the "create_client_table" query, read as
// "INTERFACE=\"%s\"": the line must open with INTERFACE=" and the name runs
// to the next blank (a closing quote stays part of it); "" otherwise.
std::string interface_from_query_line(std::string_view line);

// state := code, state_time := now, holdoff_deadline := now + 190 (code 11)
// or now + 70, and the context's next deadline recomputed.
void stamp_record_state(ClientRecord& record, std::uint8_t code);
void clear_pending_code(ClientRecord& record);
// Smallest holdoff_deadline above 0 among records in use; 0 when none.
std::int64_t earliest_deadline(const daemon_core::DaemonContext& ctx);
// current := 0 on every slot with this MAC except keep.
void clear_current_elsewhere(daemon_core::DaemonContext& ctx, std::string_view mac, int keep);
// Stations associated on the VAP, as the driver reports them; 0 on failure.
// Asked on the given socket (the daemon's own), else on a fresh one.
int find_cli_num(int ifindex, int socket_fd = -1);

}  // namespace clients

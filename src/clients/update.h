// The client-table update handler: every change in what the daemon knows
// about a station goes through here. Main thread only.
#pragma once

#include <optional>
#include <string_view>

namespace daemon_core {
struct DaemonContext;
}

namespace clients {

// Event codes handed to the update handler.
enum EventCode : int {
  kEventIpLearned = 10,
  kEventAssociated = 11,
  kEventDisassociated = 12,
  kEventNodeLeave = 13,
  kEventRemoveVap = 14,
  kEventBandwidth = 20,
  kEventL2tp = 21,
  kEventStaVlan = 22,
  kEventMacAuth = 23,
};

// Results of update_client_table.
inline constexpr int kUpdateExisting = 0;  // an existing record was updated
inline constexpr int kUpdateCreated = 1;   // a record was created, or a rate change for an unknown station
inline constexpr int kUpdateRefused = 2;   // no MAC, or code 10 without an address

// Finds or creates the station's record and drives, in this order, portal
// routes, VLAN assignment, shaping, the notifier queue and client limit and
// the traffic statistics; then stamps last_update. ifindex < 0 means the
// interface is not known. ip is the dotted address (required for code 10),
// extra the code's own text: the traffic report (13), "up down" rates (20),
// the VLAN (22).
int update_client_table(daemon_core::DaemonContext& ctx, int code, int ifindex,
                        std::string_view mac, std::optional<std::string_view> ip,
                        std::optional<std::string_view> extra);

}  // namespace clients

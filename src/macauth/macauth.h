// MAC authentication against RADIUS: the per-WLAN settings, the ACL cache
// of recent positive answers and the workers that ask the servers
// through radclient and answer the driver through iwpriv.
//
// Threads: every entry point below is called on the main thread. The
// workers read and write ctx.macauth (and read ctx.vlan, ctx.event_config,
// ctx.masterconf, ctx.uplink) only under ctx.shared_mutex; the entry points
// take that lock themselves, so callers must not hold it.
#pragma once

#include <string_view>

#include "model/context.h"

namespace macauth {

// Rebuilds ctx.macauth from ctx.masterconf: AP name, cache period, default
// and per-WLAN RADIUS servers, which WLANs use external MAC authentication.
// Drops every cached and pending entry; the count of running workers stays
// (they still run and end). Runs
// after vlan::update_vlan_pool (it reads the dynamic-VLAN modes).
void mac_auth_init(daemon_core::DaemonContext& ctx);

// The driver asks whether the station may associate to the VAP "ath<ath>".
// Answers at once from the cache or starts a worker (at most 8 run
// at once); the answer to the driver is a side effect. -1 when the VAP's
// WLAN number is not 1..16, else 0.
int mac_auth_query_extern_acl(std::string_view mac, int mac_length, int ath,
                              daemon_core::DaemonContext& ctx);

// Joins the workers that have ended and gives their stacks back to the
// system; the main loop calls it on every pass. Main thread only. The
// result is the number of workers on the module's stacks still running.
int reap_workers();

// Whether a RADIUS answer carrying this VLAN (-1 = none) may be accepted on
// the VAP's WLAN: 0 allowed, -1 refused.
int vlan_access_ctrl_policy(daemon_core::DaemonContext& ctx, int ath, int vlan);

// Puts the station into the RADIUS-assigned VLAN (station VLAN rules) when
// the WLAN uses dynamic VLANs in bridge mode.
void handle_sta_mac_auth_vlan(daemon_core::DaemonContext& ctx, std::string_view mac, int ath,
                              int vlan);

}  // namespace macauth

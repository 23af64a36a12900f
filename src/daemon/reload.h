// Configuration reload, polled from the main loop: a larger uptime in
// "/tmp/last_applyconf_uptime" reloads the master configuration (and the
// loop then polls every 2 seconds); a newer "/etc/masterconfig.applied"
// re-initialises the uplink name, the VLAN pools and MAC authentication.
#pragma once

#include <cstdint>

#include "model/context.h"

namespace daemon_core {

inline constexpr const char* kLastApplyUptimePath = "/tmp/last_applyconf_uptime";
inline constexpr const char* kAppliedPath = "/etc/masterconfig.applied";

// The leading number of the uptime file; 0 when it is missing, empty or
// does not begin with a number.
std::int32_t read_last_apply_uptime();

// Reloads the master configuration and the trap settings and resets every
// used record's shaping numbers when the uptime file holds a larger value
// than the last one acted on.
void check_config_apply(DaemonContext& ctx);

// Rebuilds the uplink name, the VLAN pools and MAC authentication when
// "/etc/masterconfig.applied" is newer than the last one acted on.
void check_config_applied(DaemonContext& ctx);

}  // namespace daemon_core

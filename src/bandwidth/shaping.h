// Per-client rate limits: HTB classes, SFQ queues and fw filters per
// station and direction, selected by ebtables marks set by MAC address.
#pragma once

#include <string>
#include <string_view>

#include "clients/record.h"
#include "config/taglist.h"

namespace daemon_core {
struct DaemonContext;
}

namespace bandwidth {

// The configured ceiling of the interface in kbit/s (direction 0 up, 1
// down); 0 when "BANDWIDTH_CONTROL" is not "enable" or no rate is set.
int configured_rate(const config::taglist* conf, int ath, int direction);

// tc_dev cleared; slot, marks, parents, radio, major 0; rates -1.
void reset_bandwidth(clients::BandwidthBlock& block);

// Picks the smallest free slot 1..254 on the interface and fills marks,
// parents, unset rates, radio, major and device.
void load_bandwidth(daemon_core::DaemonContext& ctx, clients::BandwidthBlock& block, int ath);

// Installs (apply) or withdraws (remove) the station's mark rules and
// traffic-control set.
void apply_bandwidth(const config::taglist* conf, std::string_view mac, int ath,
                     const clients::BandwidthBlock& block);
void remove_bandwidth(const config::taglist* conf, std::string_view mac, int ath,
                      const clients::BandwidthBlock& block);

// The uplink interface: "eth1" in bridge mode, else the "interface" of
// "/etc/net/wan.status" when set, else "eth1".
std::string wan_device(const config::taglist* conf);

}  // namespace bandwidth

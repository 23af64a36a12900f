// Per-client rate limits: HTB classes, SFQ queues and fw filters per
// station and direction, selected by ebtables marks set by MAC address.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/command.h"
#include "config/taglist.h"
#include "model/client_record.h"

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

// The station's classes, queues and filters on the upstream device and the
// radio device: "add" runs classes, queues, filters; "del" runs filters,
// queues, classes. Tunnel n != 0 puts the upstream side on "bcp<n+50>" with
// major n + 128, else on the WAN device with major 1.
void traffic_control_set(const config::taglist* conf, common::Template verb,
                         const clients::BandwidthBlock& block, int tunnel);

// L2TP profile numbers are read in 0..65407, so that the tunnel's tc major
// (profile + 128) stays within 16 bits; another number means no tunnel.
inline constexpr int kL2tpProfileMax = 65407;
// Rates are read in 0..10000000 kbit/s; another number means no rate.
inline constexpr int kRateMax = 10000000;

// The L2TP tunnel of the interface: the number of its "L2TP_PROFILE" when
// "AP_L2TP<profile>_TUNNEL" begins with "enable"; 0 when none.
int tunnel_number(const config::taglist* conf, int ath);

// L2TP interface update, per client: the traffic-control set "del" on the
// WAN device (tunnel 0).
void l2tp_remove_client(const config::taglist* conf, const clients::BandwidthBlock& block,
                        int wlan);
// L2TP interface update, per client: the traffic-control set "del" (down = 1)
// or "add" (down = 0) on the tunnel of the profile.
void l2tp_update_client(const config::taglist* conf, int down, std::string_view mac, int wlan,
                        const clients::BandwidthBlock& block, int profile);

// --- command texts (pure; built by common/command.h: nullopt when a device
// name or MAC is not one or the command would not fit in 1023 characters)
// "tc class <verb> dev <dev> parent <major>:<parent> classid <major>:<minor>
//  htb rate 2kbit ceil <ceil>kbit burst 15k > /dev/null 2>&1"
std::optional<std::string> tc_class_command(common::Template verb, std::string_view dev,
                                            unsigned major, unsigned parent, unsigned minor,
                                            int ceil);
// SFQ leaf queue under <major>:<minor>, handle major * 8192 + minor.
std::optional<std::string> tc_qdisc_command(common::Template verb, std::string_view dev,
                                            unsigned major, unsigned minor);
// fw filter: prio, handle and flow minor are all the mark.
std::optional<std::string> tc_filter_command(common::Template verb, std::string_view dev,
                                             unsigned major, unsigned mark);
// ebtables mark rule in ATH<ath>_BANDWIDTH_UP (direction 0, by source MAC)
// or ATH<ath>_BANDWIDTH_DOWN (direction 1, by destination MAC); verb "-A"
// or "-D".
std::optional<std::string> mark_rule_command(common::Template verb, int direction, int ath,
                                             std::string_view mac, unsigned mark);
// The commands of the traffic-control set in the order they run; empty
// (nothing runs) when one of them cannot be built.
std::vector<std::string> traffic_control_commands(common::Template verb,
                                                  const clients::BandwidthBlock& block,
                                                  int tunnel, std::string_view wan_dev);
// The mark rules of the station (upstream when up_rate > 0, downstream when
// down_rate >= 1); empty when one cannot be built.
std::vector<std::string> mark_rule_commands(common::Template verb, int ath, std::string_view mac,
                                            const clients::BandwidthBlock& block);

// --- numbering (pure)
// k * 32 + direction * 16 + (wlan - 1).
unsigned bandwidth_mark(unsigned slot, int direction, int wlan);
// Slot, marks and parents for a WLAN number; radio, major and device for a
// radio number and its device name.
void set_bandwidth_numbers(clients::BandwidthBlock& block, unsigned slot, int wlan);
void set_bandwidth_radio(clients::BandwidthBlock& block, int radio, std::string_view radio_dev);
// The smallest slot 1..254 not taken by a record in use on the interface
// (records below client_count); 0 when all are taken.
unsigned free_bandwidth_slot(const daemon_core::DaemonContext& ctx, int ath);

}  // namespace bandwidth

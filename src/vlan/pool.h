// VLAN pools: the VLAN settings of the master configuration turned into the
// context's VLAN state, and a station's VLAN chosen from its WLAN's pool by
// its MAC address.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/command.h"
#include "model/client_record.h"

namespace daemon_core {
struct DaemonContext;
}

namespace vlan {

// Rebuilds ctx.vlan from the master configuration (bridge mode, untagged
// VLAN, per WLAN its VLAN ID, dynamic mode, RADIUS ACL flag and pool) and
// forbids untagged forwarding from each pooled VAP. The result of the last
// module check, or 0. Main thread; ctx.vlan is written under shared_mutex.
int update_vlan_pool(daemon_core::DaemonContext& ctx);

// Gives a station without a station VLAN one from its WLAN's pool and
// installs its rules. Nothing while ctx.fast_poll is set. Main thread.
void process_sta_vlan_pool(daemon_core::DaemonContext& ctx, int ath,
                           clients::ClientRecord& record);

// The pool list: numbers and ranges ("10,20-22,30") separated by any
// single non-digit character; at most 32 IDs, each below 4096. A number of
// five or more digits fills the rest of the pool with 0.
std::vector<std::uint16_t> parse_vlan_pool(std::string_view text);

// --- pure parts
// Sum of the last three octets of a MAC text, each hex digit counted
// through a table in which '0' and non-hex characters count 0.
unsigned pool_mac_sum(std::string_view mac);
// The pool entry for the MAC; 0 for an empty pool.
int pool_vlan_for_mac(const std::vector<std::uint16_t>& pool, std::string_view mac);
// "WLAN<n>_DYNAMIC_VLAN" value: "required" 2, "optional" 1, "disable" 0,
// else 1.
int dynamic_vlan_mode(std::string_view value);
// The bridge name when vlan_id is 0, else "<bridge>.<vlan_id>" cut to 9
// characters.
std::string forward_output_interface(std::string_view bridge, int vlan_id);
// "/sbin/ebtables -t filter <verb> FORWARD -p ! 802_1Q -i ath<ath> -o <out>
//  -j DROP"; verb "-D" or "-I". nullopt when out is not a device name.
std::optional<std::string> forward_drop_command(common::Template verb, int ath,
                                                std::string_view out_if);

}  // namespace vlan

// Station VLAN rules: ebtables broute rules with the svlan target that put
// one station into a VLAN of its own, and the rule store that remembers
// them (one file of rule bodies per station, "/tmp/ebt_ctm/<mac>").
//
// Threads: install_sta_vlan_rules and the store functions are also called
// by the RADIUS workers; they read the context only under shared_mutex and
// may run concurrently for different stations.
#pragma once

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

inline constexpr const char* kRuleStoreDir = "/tmp/ebt_ctm";
inline constexpr const char* kEbtablesModuleMarker = "/etc/ebt_mod_ok";

// Nothing when "/etc/ebt_mod_ok" can be read (0); else runs "ebtables -V"
// so that the module loads and returns its wait status.
int insert_ebtables_kernel_module();

// Appends the rule body to the station's file and inserts it in the broute
// BROUTING chain (in the background). -1 when the name is not a canonical
// MAC, the rule is nullopt or not made of words only, or the file cannot
// be opened (nothing is inserted); else 0.
int ebt_rule_store_add(std::string_view name, const std::optional<std::string>& rule);

// Deletes the station's stored rules from the chain (when remove is set)
// and deletes the file. -1 when the name is not a canonical MAC or the
// station has no file; else 0.
int ebt_rule_store_flush(std::string_view name, int remove);

// Replaces the station's rules by the upstream tagging rule and the
// downstream rule chosen by wlan_vlan. The result of the last add.
int install_sta_vlan_rules(daemon_core::DaemonContext& ctx, std::string_view mac, int ath,
                           int vlan, int wlan_vlan, std::string_view bridge);

// A station's VLAN became known: in bridge mode, a VLAN above 0 that is not
// the untagged VLAN gets the station's rules (when the VAP has a BSSID) and
// becomes its station VLAN. Main thread.
void handle_sta_vlan_update(daemon_core::DaemonContext& ctx, clients::ClientRecord& record,
                            int ath, int vlan);

// The station left: its rules are flushed and its station VLAN is 0. The
// result of the flush. Main thread.
int remove_sta_vlan_pool(daemon_core::DaemonContext& ctx, clients::ClientRecord& record);

// Runs "/sbin/<command> &" (nothing when longer than 255 characters); the
// wait status of the shell, -1 when not run.
int run_background_tool(const common::CommandText& command);

// --- pure parts
// A store file is named by a canonical (lower-case, 17-character) MAC only.
bool is_rule_store_name(std::string_view name);
// "-p ! 0x888e -i ath<ath> -s <mac> -j svlan --setvlan <vlan>
//  --setvlan-target ACCEPT"; nullopt when the MAC is not one or the rule
//  would not fit in 127 characters.
std::optional<std::string> sta_vlan_upstream_rule(int ath, std::string_view mac, int vlan);
// The DROP rule tagging with wlan_vlan when it is set and not the untagged
// VLAN; else the ACCEPT rule with VLAN 4096. nullopt as above, or when
// the bridge is not a device name.
std::optional<std::string> sta_vlan_downstream_rule(std::string_view bridge, std::string_view mac,
                                                    int wlan_vlan, int untag_vlan);
// The rule bodies of a store file as the flush reads them: pieces of at
// most 127 characters up to and including a line break, each with its last
// character cut.
std::vector<std::string> stored_rule_lines(std::string_view content);
// A stored line is handed back to the shell only when it can hold nothing
// but words: the quoting-safe characters, blanks, '!' and balanced
// single-quoted text (the builder's own quoting).
bool is_replayable_rule(std::string_view line);

}  // namespace vlan

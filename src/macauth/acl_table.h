// The decisions of MAC authentication as pure functions over the state
// types: which WLANs use external ACL, the per-WLAN cache of positive
// answers and table of queries in flight, and the VLAN policy. Nothing here
// locks: callers that share the tables hold ctx.shared_mutex.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "model/macauth_state.h"

namespace macauth {

inline constexpr int kAclModeExternal = 3;  // "…ACL_MODE" value for RADIUS MAC auth

// The radio's "<prefix>AP_ACL_MODE" (-1 when empty). A radio number outside
// the table has no setting of its own (-1).
int radio_acl_mode(std::span<const int> radio_modes, int radio);

// A WLAN that has an ACL mode uses external ACL when its radio's mode, if
// that is set (not -1), is 3 - the radio's mode overrides the WLAN's - or
// else when its own mode is 3.
bool external_acl_enabled(int radio_mode, int wlan_mode);

using AclSlots = std::array<AclCacheSlot, kAclSlots>;

// Slot MAC texts are compared over their first 20 characters.
bool same_acl_mac(std::string_view a, std::string_view b);

// The first cache slot holding this MAC that is still fresh
// (now < stamp + period), or -1.
int find_cached_answer(const AclSlots& cache, std::string_view mac, std::int64_t now,
                       std::int32_t period);

// Where a new answer goes: the first slot whose stamp + period is not 0.
// With a period other than 0 that is always slot 0, so a WLAN keeps only
// its latest answer; with period 0 nothing is stored until a slot holds a
// stamp. -1 when no slot qualifies.
int cache_store_slot(const AclSlots& cache, std::int32_t period);

// Pending table: stamp 1 marks a query in flight for the slot's MAC.
bool is_pending(const AclSlots& pending, std::string_view mac);
// Takes the first free slot; false (not recorded) when all 8 are in use.
bool add_pending(AclSlots& pending, std::string_view mac);
// Clears every slot of this MAC.
void clear_pending(AclSlots& pending, std::string_view mac);

// What the VLAN policy of a WLAN depends on (from the VLAN settings).
struct VlanPolicySettings {
  bool bridge_mode = false;
  int dynamic_mode = 1;       // 0 disable, 1 optional, 2 required
  bool radius_acl = false;    // RADIUS access control with its policy on
  int wlan_vlan_id = 0;       // the WLAN's own VLAN ID
};

// 0 = a RADIUS answer carrying this VLAN (-1 = none) is allowed, -1 =
// refused. Outside bridge mode everything is allowed; "required" refuses an
// answer without a VLAN; "disable" with RADIUS access control refuses a
// VLAN other than the WLAN's own; "optional" allows everything.
int vlan_policy_decision(const VlanPolicySettings& settings, int vlan);

}  // namespace macauth

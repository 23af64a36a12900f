#include "macauth/acl_table.h"

#include "macauth/radius.h"

namespace macauth {

namespace {
constexpr int kDynamicDisable = 0;
constexpr int kDynamicRequired = 2;
}  // namespace

int radio_acl_mode(std::span<const int> radio_modes, int radio) {
  if (radio < 0 || static_cast<std::size_t>(radio) >= radio_modes.size()) return -1;
  return radio_modes[static_cast<std::size_t>(radio)];
}

bool external_acl_enabled(int radio_mode, int wlan_mode) {
  if (radio_mode != -1) return radio_mode == kAclModeExternal;
  return wlan_mode == kAclModeExternal;
}

bool same_acl_mac(std::string_view a, std::string_view b) {
  return a.substr(0, kMacTextMax) == b.substr(0, kMacTextMax);
}

int find_cached_answer(const AclSlots& cache, std::string_view mac, std::int64_t now,
                       std::int32_t period) {
  for (std::size_t i = 0; i < cache.size(); ++i) {
    const AclCacheSlot& slot = cache[i];
    if (now < static_cast<std::int64_t>(slot.stamp) + period && same_acl_mac(slot.mac, mac))
      return static_cast<int>(i);
  }
  return -1;
}

int cache_store_slot(const AclSlots& cache, std::int32_t period) {
  for (std::size_t i = 0; i < cache.size(); ++i)
    if (static_cast<std::int64_t>(cache[i].stamp) + period != 0) return static_cast<int>(i);
  return -1;
}

bool is_pending(const AclSlots& pending, std::string_view mac) {
  for (const AclCacheSlot& slot : pending)
    if (slot.stamp != 0 && same_acl_mac(slot.mac, mac)) return true;
  return false;
}

bool add_pending(AclSlots& pending, std::string_view mac) {
  for (AclCacheSlot& slot : pending) {
    if (slot.stamp != 0) continue;
    slot.stamp = 1;
    slot.mac = mac;  // cut to its 20 characters
    return true;
  }
  return false;
}

void clear_pending(AclSlots& pending, std::string_view mac) {
  for (AclCacheSlot& slot : pending)
    if (same_acl_mac(slot.mac, mac)) slot = AclCacheSlot{};
}

int vlan_policy_decision(const VlanPolicySettings& settings, int vlan) {
  if (!settings.bridge_mode) return 0;
  switch (settings.dynamic_mode) {
    case kDynamicRequired:
      return vlan < 0 ? -1 : 0;
    case kDynamicDisable:
      if (!settings.radius_acl || vlan < 0) return 0;
      return vlan != settings.wlan_vlan_id ? -1 : 0;
    default:  // optional
      return 0;
  }
}

}  // namespace macauth

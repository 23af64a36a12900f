// VLAN settings of the daemon, rebuilt by update_vlan_pool.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace vlan {

inline constexpr int kWlanCount = 16;
inline constexpr int kPoolMax = 32;

struct WlanVlan {
  std::int16_t vlan_id = 0;
  std::uint8_t dynamic_mode = 1;  // 0 disable, 1 optional, 2 required
  std::uint8_t radius_acl = 0;
};

struct VlanState {
  std::int32_t bridge_mode = 0;   // "AP_MODE" is "bridge"
  std::int32_t untag_vlan = 0;    // 1..4095, 0 = none
  std::array<std::vector<std::uint16_t>, kWlanCount> vlan_pool;  // per WLAN, at most 32
  std::array<WlanVlan, kWlanCount> wlan_vlan;
};

}  // namespace vlan

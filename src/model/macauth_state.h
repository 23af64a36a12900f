// MAC-authentication settings, ACL cache and pending queries.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "common/fixed_text.h"

namespace macauth {

inline constexpr int kWlanCount = 16;
inline constexpr int kAclSlots = 8;
inline constexpr int kMaxWorkers = 8;

struct RadiusServer {
  std::uint32_t valid = 0;
  std::string host;      // at most 19 characters
  std::string secret;    // at most 63
  std::uint16_t auth_port = 0;
  std::uint16_t acct_port = 0;  // kept; nothing uses it
};

struct AclCacheSlot {
  std::uint32_t stamp = 0;  // cache: when stored; pending: 1 = in use
  std::int16_t vlan = 0;    // cache: the VLAN answered (-1 = none)
  common::FixedText<20> mac;  // at most 20 characters, as the driver gave it
};

struct WlanAclConfig {
  std::uint32_t enabled = 0;
  std::string ssid;  // at most 63
  std::array<RadiusServer, 2> servers;
  std::array<AclCacheSlot, kAclSlots> cache;
  std::array<AclCacheSlot, kAclSlots> pending;
};

struct MacAuthState {
  std::string ap_name;  // at most 63
  std::int32_t active_workers = 0;
  std::int32_t acl_cache_period = 20;
  std::array<WlanAclConfig, kWlanCount> wlan_acl;
};

}  // namespace macauth

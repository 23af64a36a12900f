// The client record: one station as seen on one VAP.
#pragma once

#include <cstdint>

#include "common/fixed_text.h"

namespace daemon_core {
struct DaemonContext;
}

namespace clients {

// Per-client shaping numbers; the bandwidth module fills, applies and
// removes them.
struct BandwidthBlock {
  std::uint32_t bw_slot = 0;     // shaping slot on the VAP, 1..254; 0 = none
  std::int32_t up_rate = -1;     // kbit/s; -1 = not set
  std::int32_t down_rate = -1;   // kbit/s; -1 = not set
  std::uint32_t up_mark = 0;     // class minor and firewall mark, upstream
  std::uint32_t down_mark = 0;   // class minor and firewall mark, downstream
  std::uint32_t up_parent = 0;
  std::uint32_t down_parent = 0;
  std::int32_t radio = 0;        // radio number of the station's VAP
  std::uint32_t tc_major = 0;    // 3 for radio 1, else 2
  common::FixedText<15> tc_dev;  // radio device carrying the classes; "" = none
};

struct ClientRecord {
  // Widest fields first, so that no padding falls between them.
  daemon_core::DaemonContext* owner = nullptr;  // set once at start, never cleared
  std::int64_t last_update = 0;     // wall seconds; the eviction key
  std::int64_t pending_since = 0;   // wall seconds
  std::int64_t holdoff_deadline = 0;  // wall seconds; 0 = none
  std::int64_t state_time = 0;      // wall seconds
  std::uint64_t rx_bytes = 0;
  std::uint64_t tx_bytes = 0;
  std::uint32_t ip = 0;             // IPv4, network byte order; 0 = none
  std::uint32_t first_assoc_uptime = 0;
  std::int32_t assoc_uptime = 0;
  std::int32_t disassoc_uptime = 0;
  std::uint32_t assoc_count = 0;
  std::uint32_t disassoc_count = 0;
  std::int32_t ifindex = 0;         // VAP interface number; -1 = unknown
  std::int32_t vlan_id = 0;         // VLAN ID of the VAP's WLAN
  std::int32_t portal = 0;          // non-zero: portal routes kept for ip
  std::uint32_t rx_packets = 0;
  std::uint32_t stat_a = 0;
  std::uint32_t tx_packets = 0;
  std::uint32_t stat_b = 0;
  std::uint32_t stat_c = 0;
  std::uint32_t stat_d = 0;
  std::uint32_t stat_e = 0;
  std::int32_t in_use = 0;          // 1 = slot holds a station
  std::int32_t vlan_pool_slot = 0;  // the station's own VLAN (pool, RADIUS or event); 0 = none
  BandwidthBlock bandwidth;
  common::FixedText<17> mac;        // lower-case, at most 17 characters; "" = free
  std::uint8_t current = 0;         // 1 = the station's present association
  std::uint8_t pending_code = 0;    // 11 / 12 waiting for the notifier; 0 = none
  std::uint8_t pending_flag = 0;    // per-VAP client limit reached (8 bits)
  std::uint8_t state = 0;           // last code reported to the notifier
};

inline constexpr int kClientSlots = 256;

}  // namespace clients

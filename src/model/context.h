// The daemon context: the one structure that main owns for the whole run
// and passes to every handler. Every client record points back to it.
//
// Threads: the main thread runs every handler. The RADIUS query workers
// read and write the fields marked [shared]; both sides touch those only
// while holding shared_mutex (the workers never hold it while a command
// runs).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "common/fixed_text.h"
#include "config/taglist.h"
#include "model/client_files.h"
#include "model/client_record.h"
#include "model/event_config.h"
#include "model/macauth_state.h"
#include "model/vlan_state.h"

namespace daemon_core {

inline constexpr int kKnownApSlots = 256;
inline constexpr std::size_t kKnownApLength = 17;

struct DaemonContext {
  std::array<clients::ClientRecord, clients::kClientSlots> records;
  std::array<common::FixedText<kKnownApLength>, kKnownApSlots> known_ap;  // each at most 17 characters
  std::int32_t known_ap_count = 0;
  std::uint32_t client_count = 0;     // high-water mark of used slots
  std::int32_t files_refresh = 0;     // 1 while an expiry + file rewrite is due
  std::int64_t next_deadline = 0;     // earliest hold-off deadline; 0 = none
  std::int32_t last_apply_uptime = 0;
  std::string uplink;                 // [shared] bridge / uplink interface name
  std::int32_t fast_poll = 0;         // 1 from a reload until the apply finished
  std::int64_t applied_mtime = 0;
  std::shared_ptr<config::taglist> masterconf;  // [shared] may be null
  snmp::TrapSettings trap_settings;
  std::unique_ptr<snmp::EventConfig> event_config;  // [shared]
  macauth::MacAuthState macauth;      // [shared]
  vlan::VlanState vlan;               // [shared]
  int udp_socket = -1;                // for interface ioctls and driver requests
  clients::ClientFileCache client_files;  // lines of the client files, kept ready

  std::mutex shared_mutex;
};

}  // namespace daemon_core

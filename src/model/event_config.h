// Trap configuration records.
#pragma once

#include <cstdint>
#include <string>

namespace daemon_core {
struct DaemonContext;
}

namespace snmp {

// What the trap senders use: filled by get_event_config and refreshed by
// check_event_config when "/etc/masterconfig.apply" changed.
struct EventConfig {
  std::int64_t stamp = 0;       // st_ctime of "/etc/masterconfig.apply" at the last fill
  std::string oid_prefix;       // at most 63 characters
  std::string version;          // "2c"
  std::string community;        // "SNMP_COMM1_NAME", default "defcom"; at most 31
  std::string receiver;         // "SNMP_TRAP1_IPADDR"; at most 15
  std::int32_t enabled = 0;     // 1 when a receiver was set at the last load
};

// The trap settings printed at start-up and on reload; the senders do not
// read them.
struct TrapSettings {
  daemon_core::DaemonContext* owner = nullptr;
  std::int32_t trap_enabled = 0;
  std::string trap_community;   // at most 127
  std::string trap_receiver;    // at most 31
  std::int32_t trap_port = 162;
};

}  // namespace snmp

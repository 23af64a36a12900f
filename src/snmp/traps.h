// SNMPv2c traps: the event configuration that says where traps go, the OID
// scheme, the snmptrap command line and one sender per trap.
//
// Every sender builds "<prefix>.<N>.1" as the trap OID and its variables as
// "<prefix>.<N>.2.<k> <type> <value>", then runs /usr/sbin/snmptrap through
// the shell. Text values reach snmptrap as one argument each (quoted when
// they are not plain). The senders read only the EventConfig they are given
// and print nothing, so they may run on any thread; a caller that shares its
// EventConfig with other threads hands them a copy taken under its lock.
// The caller checks `enabled` before sending.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "common/command.h"
#include "model/event_config.h"

namespace daemon_core {
struct DaemonContext;
}

namespace snmp {

inline constexpr const char* kSnmptrapPath = "/usr/sbin/snmptrap";
inline constexpr const char* kHardwareQx417Path = "/etc/hardware_qx417";

// ".1.3.6.1.4.1.9991.100.7.16.17" when "/etc/hardware_qx417" is readable,
// else ".1.3.6.1.4.1.9991.100.7.14.17".
std::string get_oid_prefix();

// st_ctime of the file; 0 when it cannot be stat'ed.
std::int64_t get_file_creation_time(const std::string& path);

// 1 when the stamp equals the present st_ctime of "/etc/masterconfig.apply"
// (nothing changed), else 0.
int is_event_config_update(std::int64_t stamp);

// A new record filled from "/etc/masterconfig.apply"; never null. Without a
// receiver only `enabled` = 0 is set.
std::unique_ptr<EventConfig> get_event_config();

// Refreshes the record in place when the file changed since its stamp.
// Without a receiver `enabled` becomes 0 and the stamp stays, so the file
// is read again at the next check. Always 0 (also for a null record).
int check_event_config(EventConfig* config);

// Runs "/usr/sbin/snmptrap -v <version> -c <community> <receiver> "" <oid>
// <varbinds>", the varbinds built by the builder. Nothing runs when the
// community or OID would be read as an option, the receiver is not
// "<address or host>[:<port>]", or a value holds a NUL. Always 0.
int send_snmptrap_event(const EventConfig& config, std::string_view trap_oid,
                        const common::CommandText& varbinds);

// Trap 1. numbers: the neighbour line's 8th number, the radio band, its 1st,
// 2nd, 4th and 10th numbers. bssid is cut to 17 characters, ssid to 33.
struct RogueApReport {
  std::string bssid;
  std::string ssid;
  std::array<std::int32_t, 6> numbers{};
  std::string time_text;
};
// Trap 2: the station and the radio band of its radio.
struct MaxStationReport {
  std::string mac;
  std::int32_t band = 0;
};
// Trap 3: station and BSSID (each cut to 17 characters) and SSID (cut to 35).
struct AclMismatchReport {
  std::string sta;
  std::string bssid;
  std::string ssid;
};
// Traps 5, 6, 7: mac cut to 17 characters, ssid to 33.
struct VlanFailureTrapInfo {
  std::string mac;
  std::string ssid;
  std::int32_t vlan = -1;
};

// Each sender: always 0.
int send_rogueApDetectionTrap(const EventConfig& config, const RogueApReport& report);
int send_maxStationTrap(const EventConfig& config, const MaxStationReport& report);
int send_aclMismatchTrap(const EventConfig& config, const AclMismatchReport& report);
int send_noBeaconTrap(const EventConfig& config, std::string_view addr);
int send_vlanAccessControlMechnismFailureTrap(const EventConfig& config,
                                              const VlanFailureTrapInfo& info);
int send_trap6(const EventConfig& config, const VlanFailureTrapInfo& info);
int send_trap7(const EventConfig& config, const VlanFailureTrapInfo& info);

// Fills ctx.trap_settings from ctx.masterconf and prints the four
// "== trap ..." lines. Main thread.
void load_trap_settings(daemon_core::DaemonContext& ctx);

}  // namespace snmp

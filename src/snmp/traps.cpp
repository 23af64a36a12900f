#include "snmp/traps.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "common/command.h"
#include "common/numbers.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "model/context.h"

namespace snmp {

namespace {

constexpr const char* kPrefixQx417 = ".1.3.6.1.4.1.9991.100.7.16.17";
constexpr const char* kPrefixDefault = ".1.3.6.1.4.1.9991.100.7.14.17";
constexpr const char* kDefaultCommunity = "defcom";

// Sizes of the record fields (terminator excluded).
constexpr std::size_t kOidPrefixMax = 63;
constexpr std::size_t kCommunityMax = 31;
constexpr std::size_t kReceiverMax = 15;
constexpr std::size_t kMacField = 17;
constexpr std::size_t kSsidField = 33;
constexpr std::size_t kAclSsidField = 35;
constexpr std::size_t kTrapCommunityMax = 127;
constexpr std::size_t kTrapReceiverMax = 31;
// The varbind text is built in a 1024-byte buffer.
constexpr std::size_t kVarbindsMax = 1023;

// The varbind list of one trap: "<prefix><suffix> <type> <value>" items
// joined by blanks. Text values go in as one shell word each.
struct Varbinds {
  const std::string& prefix;
  common::CommandText text;

  void separate() {
    if (!text.text.empty()) common::append(text, " ", {});
  }
  void add_text(common::Template suffix, std::string_view value) {
    separate();
    common::append(text, "{}{} s {}",
                   {common::word(prefix), common::constant(suffix), common::word(value)});
  }
  void add_int(common::Template suffix, std::int32_t value) {
    separate();
    common::append(text, "{}{} i {}",
                   {common::word(prefix), common::constant(suffix), common::number(value)});
  }
  // A text that the command line carries inside double quotes.
  void add_quoted_text(common::Template suffix, std::string_view value) {
    separate();
    common::append(text, "{}{} s \"{}\"",
                   {common::word(prefix), common::constant(suffix), common::quoted_arg(value)});
  }
};

int send_trap(const EventConfig& config, common::Template trap_suffix, const Varbinds& varbinds) {
  std::string oid = config.oid_prefix + trap_suffix.text;
  // The varbind text has a 1024-byte buffer: a longer one is not sent.
  if (!common::finish(varbinds.text, kVarbindsMax)) return 0;
  return send_snmptrap_event(config, oid, varbinds.text);
}

// Shared shape of traps 5, 6 and 7: two texts and an integer.
int send_text_text_int(const EventConfig& config, const VlanFailureTrapInfo& info,
                       common::Template trap, common::Template first, common::Template second,
                       common::Template third) {
  Varbinds v{config.oid_prefix, {}};
  v.add_text(first, common::cut(info.mac, kMacField));
  v.add_text(second, common::cut(info.ssid, kSsidField));
  v.add_int(third, info.vlan);
  return send_trap(config, trap, v);
}

// Fills the record from "/etc/masterconfig.apply". Without a receiver only
// `enabled` changes.
void load_event_config(EventConfig& config) {
  config::TaglistPtr list = config::load_taglist_ex(config::kMasterConfigPath, 1, nullptr);
  std::string_view receiver = config::get_taglist_default(list.get(), "SNMP_TRAP1_IPADDR", "");
  if (receiver.empty()) {
    config.enabled = 0;
    return;
  }
  config.stamp = get_file_creation_time(config::kMasterConfigPath);
  config.oid_prefix = common::cut(get_oid_prefix(), kOidPrefixMax);
  config.version = "2c";
  config.community = common::cut(common::copy_as_own_format(config::get_taglist_default(
                                     list.get(), "SNMP_COMM1_NAME", kDefaultCommunity)),
                                 kCommunityMax);
  config.receiver = common::cut(common::copy_as_own_format(receiver), kReceiverMax);
  config.enabled = 1;
}

// The first blank-separated word of a text.
std::string_view first_word(std::string_view text) {
  std::size_t begin = text.find_first_not_of(" \t\n");
  if (begin == std::string_view::npos) return {};
  text.remove_prefix(begin);
  return text.substr(0, text.find_first_of(" \t\n"));
}

}  // namespace

std::string get_oid_prefix() {
  return ::access(kHardwareQx417Path, R_OK) == 0 ? kPrefixQx417 : kPrefixDefault;
}

std::int64_t get_file_creation_time(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  return static_cast<std::int64_t>(st.st_ctime);
}

int is_event_config_update(std::int64_t stamp) {
  return stamp == get_file_creation_time(config::kMasterConfigPath) ? 1 : 0;
}

std::unique_ptr<EventConfig> get_event_config() {
  auto config = std::make_unique<EventConfig>();
  load_event_config(*config);
  return config;
}

int check_event_config(EventConfig* config) {
  if (config == nullptr) return 0;
  if (is_event_config_update(config->stamp)) return 0;
  load_event_config(*config);
  return 0;
}

int send_snmptrap_event(const EventConfig& config, std::string_view trap_oid,
                        const common::CommandText& varbinds) {
  // The receiver is an address or host name with an optional port; a
  // community or receiver that snmptrap would read as an option refuses
  // the trap.
  common::run_command(common::build_command(
      common::kNoLimit, "{} -v {} -c {} {} \"\" {} {}",
      {common::path(kSnmptrapPath), common::word(config.version), common::word(config.community),
       common::host_port(config.receiver), common::word(trap_oid), common::part(varbinds)}));
  return 0;
}

int send_rogueApDetectionTrap(const EventConfig& config, const RogueApReport& report) {
  Varbinds v{config.oid_prefix, {}};
  v.add_text(".1.2.1", common::cut(report.bssid, kMacField));
  v.add_text(".1.2.2", common::cut(report.ssid, kSsidField));
  v.add_int(".1.2.3", report.numbers[0]);
  v.add_int(".1.2.4", report.numbers[1]);
  v.add_int(".1.2.5", report.numbers[2]);
  v.add_int(".1.2.6", report.numbers[3]);
  v.add_int(".1.2.7", report.numbers[4]);
  v.add_int(".1.2.8", report.numbers[5]);
  v.add_quoted_text(".1.2.9", report.time_text);
  return send_trap(config, ".1.1", v);
}

int send_maxStationTrap(const EventConfig& config, const MaxStationReport& report) {
  Varbinds v{config.oid_prefix, {}};
  v.add_text(".2.2.1", report.mac);
  v.add_int(".2.2.2", report.band);
  return send_trap(config, ".2.1", v);
}

int send_aclMismatchTrap(const EventConfig& config, const AclMismatchReport& report) {
  Varbinds v{config.oid_prefix, {}};
  v.add_text(".3.2.1", common::cut(report.sta, kMacField));
  v.add_text(".3.2.2", common::cut(report.bssid, kMacField));
  // The SSID goes out under the BSSID's suffix again; receivers expect it so.
  v.add_text(".3.2.2", common::cut(report.ssid, kAclSsidField));
  return send_trap(config, ".3.1", v);
}

int send_noBeaconTrap(const EventConfig& config, std::string_view addr) {
  Varbinds v{config.oid_prefix, {}};
  v.add_text(".4.2.1", addr);
  return send_trap(config, ".4.1", v);
}

int send_vlanAccessControlMechnismFailureTrap(const EventConfig& config,
                                              const VlanFailureTrapInfo& info) {
  return send_text_text_int(config, info, ".5.1", ".5.2.1", ".5.2.2", ".5.2.3");
}

int send_trap6(const EventConfig& config, const VlanFailureTrapInfo& info) {
  return send_text_text_int(config, info, ".6.1", ".6.2.1", ".6.2.2", ".6.2.3");
}

int send_trap7(const EventConfig& config, const VlanFailureTrapInfo& info) {
  return send_text_text_int(config, info, ".7.1", ".7.2.1", ".7.2.2", ".7.2.3");
}

void load_trap_settings(daemon_core::DaemonContext& ctx) {
  // The master configuration is replaced only by the main thread, which is
  // the thread that runs this; reading it needs no lock here.
  const config::taglist* conf = ctx.masterconf.get();
  TrapSettings& s = ctx.trap_settings;
  s.owner = &ctx;
  s.trap_enabled =
      first_word(config::get_taglist_default(conf, "SNMP_TRAP1_STATUS", "")) == "enable" ? 1 : 0;
  s.trap_community = common::cut(
      config::get_taglist_default(conf, "SNMP_TRAP1_NAME", kDefaultCommunity), kTrapCommunityMax);
  s.trap_receiver =
      common::cut(config::get_taglist_default(conf, "SNMP_TRAP1_IPADDR", ""), kTrapReceiverMax);
  std::string port(config::get_taglist_default(conf, "SNMP_TRAP1_PORT", ""));
  s.trap_port = common::scan_int(port, 1, 65535).value_or(162);

  std::printf("== trap enable: %d\n", s.trap_enabled);
  std::printf("== trap ip: %s\n", s.trap_receiver.c_str());
  std::printf("== trap port: %d\n", s.trap_port);
  std::printf("== trap community: %s\n", s.trap_community.c_str());
  std::fflush(stdout);
}

}  // namespace snmp

// A fuzzed master configuration, loaded from "/etc/masterconfig.apply" the
// way start-up loads it (trap settings, known APs, event configuration,
// VLAN pools, MAC authentication), then a fixed day of events through the
// interpreter: stations associate on every VAP, learn addresses, change
// rates and VLANs, ask for MAC authentication (the RADIUS worker gets an
// Access-Accept with a VLAN, or what follows a line "--" in the input),
// fill the client limit, leave. Every command
// is checked; every configuration value must stay inside one word.
#include <mutex>
#include <thread>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "clients/table.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "daemon/interpreter.h"
#include "daemon/reload.h"
#include "daemon/startup.h"
#include "fuzz_common.h"
#include "model/context.h"
#include "snmp/traps.h"

namespace {

constexpr const char* kStamp = "12:00:00.000000   ";
constexpr const char* kDay[] = {
    "ath0     Registered node:00:11:22:33:44:55",
    "ath1     Registered node:00:11:22:33:44:66",
    "ath2     Registered node:02:00:00:00:00:03",
    "ath3     Registered node:02:00:00:00:00:04",
    "ath0     Registered node:02:00:00:00:00:05",
    "ath0     Registered node:02:00:00:00:00:06",
    "12:00:01 ath0 Halcyon.Netfilter.ARP 00:11:22:33:44:55 [10.0.0.6]",
    "12:00:01 ath1 Halcyon.Netfilter.ARP 00:11:22:33:44:66 [10.0.0.7]",
    "[BANDWIDTH_RATE_UPDATE] ath0 00:11:22:33:44:55 bw 256 2048",
    "[BANDWIDTH_RATE_UPDATE] ath1 00:11:22:33:44:66 bw -1 -1",
    "[STA_VLAN] ath0 00:11:22:33:44:55 vlan 30",
    "[STA_VLAN] ath2 02:00:00:00:00:03 vlan 7",
    "wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth 02:5a:00:00:00:01",
    "wlan ath1 Halcyon.Wlan.Controller.Mgmt.auth 02:5a:00:00:00:02",
    "[L2TP_IF_UPDATE] bcp52 up",
    "[L2TP_IF_UPDATE] bcp52 down",
    "wifi0    New Access Point/Cell address:02:AA:BB:CC:DD:EE",
    "ath0     Custom: ACL-EVENT.discard sta=02:00:00:00:00:09 bssid=00:11:22:33:44:00 ssid=Air",
    "ath0     Custom driver event:BEACON-EVENT.stuck addr=00:11:22:33:44:00",
    "12:00:02 ath1 Halcyon.Stats.NodeLeave 00:11:22:33:44:66 [RX:100bytes,2pkts TX:300bytes,4pkts]",
    "ath0     Expired node:00:11:22:33:44:55",
    "[REFRESH_CLIENT_FILE]",
    "[REMOVE_VAP] 3",
};

constexpr const char* kAccept =
    "Received Access-Accept Id 9 from 10.0.0.1:1812 to 0.0.0.0:51470 length 20\n"
    "\tTunnel-Type:0 = VLAN\n\tTunnel-Medium-Type:0 = IEEE-802\n"
    "\tTunnel-Private-Group-Id:0 = \"12\"\n";

// The RADIUS workers are detached and may still be letting go of the
// context's lock after they counted themselves out: a context is freed only
// a few inputs later.
std::unique_ptr<daemon_core::DaemonContext> g_ring[4];
unsigned g_next = 0;

void wait_for_workers(daemon_core::DaemonContext& ctx) {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(ctx.shared_mutex);
      if (ctx.macauth.active_workers <= 0) return;
    }
    std::this_thread::yield();
  }
}

// Every value of the configuration, as the handlers may copy it.
std::vector<std::string> config_values(const config::taglist* list) {
  std::vector<std::string> out;
  if (!list) return out;
  for (const auto& item : list->items) out.push_back(item->value);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::require_sandbox();
  fuzz::write_wireless_status();
  fuzz::write_file("/proc/wifi0/neighbor_ap", "02:aa:bb:cc:dd:ee 1 2 3 4 5 6 7 8 9 10 [x]\n");
  fuzz::write_file(daemon_core::kAppliedPath, "");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 16384) return 0;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz::CheckingRecorder recorder;
  recorder.reply = kAccept;
  // A line "--" ends the configuration: what follows is radclient's output.
  if (const std::size_t cut = text.find("\n--\n"); cut != std::string_view::npos) {
    recorder.reply = std::string(text.substr(cut + 4));
    text = text.substr(0, cut + 1);
  }
  fuzz::write_file(config::kMasterConfigPath, text);

  auto& slot = g_ring[g_next++ % std::size(g_ring)];
  slot = std::make_unique<daemon_core::DaemonContext>();
  daemon_core::DaemonContext& ctx = *slot;
  clients::init_records(ctx);
  ctx.masterconf = config::load_taglist_ex(config::kMasterConfigPath, 1, nullptr);
  recorder.values = config_values(ctx.masterconf.get());
  recorder.values.push_back(recorder.reply);
  snmp::load_trap_settings(ctx);
  ctx.known_ap_count = daemon_core::fill_known_ap_list(
      ctx.known_ap, config::get_taglist_default_ex(ctx.masterconf.get(), "", "KNOWN_AP_LIST"));
  ctx.event_config = snmp::get_event_config();
  daemon_core::check_config_applied(ctx);

  for (const char* line : kDay) {
    const std::string_view view(line);
    const bool driver = view.starts_with("ath") || view.starts_with("wifi");
    const std::string text = std::string(driver ? kStamp : "") + line;
    daemon_core::interpret_line(ctx, text);
    wait_for_workers(ctx);
  }
  return 0;
}

// The update handler with fuzzed arguments: a sequence of calls
// update_client_table(code, ifindex, mac, ip, extra) against one context
// with the full master configuration and the command recorder installed.
// Every recorded command is checked; each fuzzed MAC, address and text must
// stay inside one word.
//
// Input: calls separated by 0x1e; each call is a code byte, an interface
// byte and then MAC, IP and extra text separated by 0x1f. A one-byte MAC
// picks one of four well-formed stations (so calls meet earlier records);
// a missing IP or extra text is passed as none.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "clients/table.h"
#include "clients/update.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "fuzz_common.h"
#include "model/context.h"
#include "snmp/traps.h"
#include "vlan/pool.h"

namespace {

constexpr int kCodes[] = {10, 11, 12, 13, 20, 22, 14, 21, 23, 9};
constexpr const char* kStations[] = {"00:11:22:33:44:55", "00:11:22:33:44:66", "02:aa:bb:cc:dd:ee",
                                     "00:11:22:33:44:55 "};

std::shared_ptr<config::taglist> g_masterconf;
vlan::VlanState g_vlan;  // the pools of the master configuration, built once

std::vector<std::string_view> split(std::string_view text, char sep) {
  std::vector<std::string_view> out;
  for (;;) {
    const std::size_t at = text.find(sep);
    out.push_back(text.substr(0, at));
    if (at == std::string_view::npos) return out;
    text.remove_prefix(at + 1);
  }
}

int interface_of(std::uint8_t byte) {
  if (byte == 0xff) return -1;
  return byte % 20;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::require_sandbox();
  fuzz::write_wireless_status();
  fuzz::DefaultConfig config = fuzz::load_default_config();
  g_masterconf = std::move(config.masterconf);
  g_vlan = std::move(config.vlan);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 16384) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (fuzz::skip_for_nul(std::string_view(reinterpret_cast<const char*>(data), size))) return -1;
  fuzz::CheckingRecorder recorder;
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  clients::init_records(*ctx);
  ctx->masterconf = g_masterconf;
  ctx->uplink = "br0";
  ctx->event_config = std::make_unique<snmp::EventConfig>(snmp::EventConfig{
      snmp::get_file_creation_time(config::kMasterConfigPath), snmp::get_oid_prefix(), "2c", "public",
      "10.9.9.9", 1});
  ctx->vlan = g_vlan;

  int calls = 0;
  for (std::string_view call : split(input, '\x1e')) {
    if (call.size() < 2 || ++calls > 64) continue;
    const int code = kCodes[static_cast<std::uint8_t>(call[0]) % std::size(kCodes)];
    const int ifindex = interface_of(static_cast<std::uint8_t>(call[1]));
    const std::vector<std::string_view> fields = split(call.substr(2), '\x1f');
    std::string_view mac = fields[0];
    if (mac.size() == 1) mac = kStations[static_cast<std::uint8_t>(mac[0]) % std::size(kStations)];
    std::optional<std::string_view> ip, extra;
    if (fields.size() > 1) ip = fields[1];
    if (fields.size() > 2) extra = fields[2];
    recorder.values = {std::string(mac)};
    if (ip) recorder.values.emplace_back(*ip);
    if (extra) recorder.values.emplace_back(*extra);
    clients::update_client_table(*ctx, code, ifindex, mac, ip, extra);
    if (calls % 8 == 0) clients::check_expired(*ctx);
  }
  return 0;
}

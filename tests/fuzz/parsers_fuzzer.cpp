// The daemon's small text and byte parsers, one per selector value (the
// first byte of the input); the rest of the input is the text parsed.
// Where a parser's result goes into a command, the command is built from the
// fuzzed text and checked like a recorded one.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "clients/files.h"
#include "clients/notifier.h"
#include "clients/table.h"
#include "common/iface.h"
#include "common/mac.h"
#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "daemon/client_pipe.h"
#include "daemon/interpreter.h"
#include "daemon/netlink.h"
#include "daemon/pipe_lines.h"
#include "daemon/reload.h"
#include "fuzz_common.h"
#include "macauth/radius.h"
#include "vlan/pool.h"
#include "vlan/rules.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
  }
}

// The taglist loader: sorted lists are in strictly ascending key order and
// every key is found again; keys and values hold no NUL and no line break.
void taglist(std::string_view text, bool sorted) {
  config::TaglistPtr list = config::load_taglist_buffer(text, sorted ? 1 : 0);
  check(list != nullptr, "load_taglist_buffer gave null");
  check(list->count == static_cast<std::int32_t>(list->items.size()), "count matches items");
  for (std::int32_t i = 0; i < list->count; ++i) {
    const config::tagitem& item = *list->items[static_cast<std::size_t>(i)];
    check(item.key.find('\0') == std::string::npos && item.value.find('\0') == std::string::npos,
          "no NUL in a loaded key or value");
    check(item.key.find('\n') == std::string::npos, "no line break in a key");
    if (sorted && i > 0) check(list->items[static_cast<std::size_t>(i - 1)]->key < item.key, "sorted order");
    check(config::__search_taglist(list.get(), item.key) >= 0, "every key is found");
  }
  // The dump loads back to the same number of items.
  const std::string dump = config::dump_taglist_string(list.get());
  config::TaglistPtr again = config::load_taglist_buffer(dump, sorted ? 1 : 0);
  (void)again;
  // The accessors that read the master configuration.
  for (int ath = -1; ath < 5; ++ath) {
    (void)config::get_vlan_id(list.get(), ath);
    (void)config::is_wlan_portal_enabled(list.get(), ath);
    (void)config::get_wlan_ssid(list.get(), ath);
    (void)config::get_wlan_config_masterconf(list.get(), 31, ath, "L2TP_PROFILE");
  }
  int aths[4] = {};
  for (std::int32_t i = 0; i < list->count && i < 8; ++i) {
    const std::string& value = list->items[static_cast<std::size_t>(i)]->value;
    (void)config::scan_ath_list(value, aths);
    (void)vlan::parse_vlan_pool(value);
    (void)vlan::dynamic_vlan_mode(value);
  }
  config::free_taglist(std::move(list));
}

void client_line(std::string_view text) {
  auto ifindex_of = [](std::string_view name) {
    static const common::InterfaceTable table = common::parse_interface_table("lan0\nath1\n");
    return common::interface_index_in(table, name);
  };
  // The text arrives in two reads, cut in its middle, as a pipe may give it.
  daemon_core::PipeCarry carry;
  std::vector<std::string> lines = daemon_core::take_lines(carry, text.substr(0, text.size() / 2));
  for (std::string& line : daemon_core::take_lines(carry, text.substr(text.size() / 2)))
    lines.push_back(std::move(line));
  check(carry.piece.size() <= daemon_core::kLineMax, "the carried piece stays within a line");
  for (const std::string& line : lines) {
    check(line.size() <= daemon_core::kLineMax && line.find('\n') == std::string::npos,
          "a pipe line has at most 1023 characters and no newline");
    auto parsed = daemon_core::parse_client_line(line, ifindex_of);
    if (!parsed) continue;
    check(parsed->mac.size() == 17, "a client line MAC has 17 characters");
    check(parsed->ip_field.size() <= 15, "the address field has at most 15 characters");
  }
}

void netlink(std::string_view bytes) {
  auto ifname_of = [](int index) { return index == 3 ? std::string("ath0") : std::string(); };
  const auto lines = daemon_core::walk_netlink(
      std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
      ifname_of);
  (void)lines;
}

void radclient_reply(std::string_view text) {
  const std::string_view section = macauth::radius_reply_section(text);
  check(section.size() <= text.size(), "the reply section lies in the output");
  (void)macauth::parse_result_code(section);
  const int vlan = macauth::parse_tunnel_vlan(section);
  check(vlan >= -1, "a tunnel VLAN is -1 or more");
}

void vlan_pool(std::string_view text) {
  const auto pool = vlan::parse_vlan_pool(text);
  check(pool.size() <= 32, "at most 32 pool entries");
  for (auto id : pool) check(id < 4096, "pool VLANs are below 4096");
  const std::string mac(text.substr(0, 17));
  (void)vlan::pool_vlan_for_mac(pool, mac);
  (void)vlan::pool_mac_sum(text);
}

void traffic_report(std::string_view text) {
  (void)clients::parse_traffic_report(text);
  clients::ClientRecord record;
  (void)clients::accumulate_traffic_report(record, std::nullopt);
}

void interfaces(std::string_view text) {
  const common::InterfaceTable table = common::parse_interface_table(text);
  for (const std::string& name : table) check(name.size() <= common::kInterfaceNameMax, "name length");
  // Every line of the text as a name to look up: athN numbers included.
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t nl = rest.find('\n');
    const std::string_view name = rest.substr(0, nl);
    (void)common::interface_index_in(table, name);
    rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
  }
  for (int i : {-1, 0, 3, 15, 16, 2147483647}) (void)common::interface_name_in(table, i);
  (void)clients::interface_from_query_line(text);
}

// "/var/run/wireless.status", "/etc/dev_lan_if" and the uptime file of a
// configuration apply as the readers see them.
void status_files(std::string_view text) {
  const std::size_t cut = text.find("\n--\n");
  fuzz::write_file(config::kWirelessStatusPath, text.substr(0, cut));
  fuzz::write_file(common::kDevLanIfPath, cut == std::string_view::npos ? "" : text.substr(cut + 4));
  int aths[4] = {};
  for (int i : {-1, 0, 1, 3, 16}) {
    (void)config::get_wlan_id(i);
    (void)config::get_ath_id(i, aths);
    (void)config::get_radio_id(i);
    (void)config::get_radio_id_by_wlan(i);
    (void)config::get_radio_dev_name(i);
    (void)config::get_radio_prefix_by_ath(i);
    (void)config::get_snmp_trap_radio_band(i);
    (void)common::get_interface_name_by_idx(i);
  }
  fuzz::write_file(daemon_core::kLastApplyUptimePath, text.substr(0, 64));
  (void)daemon_core::read_last_apply_uptime();
  (void)common::get_interface_idx_by_name("ath1");
  (void)common::get_interface_idx_by_name(text.substr(0, 24));
}

void line_words(std::string_view text) {
  for (const char* key : {"sta", "bssid", "ssid", "addr", "address", "wifi"}) {
    const std::string value = daemon_core::find_value(text, key, "=");
    check(value.find_first_of(" \t\n") == std::string::npos, "a value is one word");
  }
  std::string mac(text.substr(0, 20));
  if (common::common_valid_mac(mac) == 1) check(mac.size() == 17, "a valid MAC is cut to 17");
  (void)common::canonical_mac(text);
  (void)common::copy_as_own_format(text);
  std::string trace;
  (void)clients::hex_escape(text, 64, trace);
  (void)clients::strip_colons(text, 20);
}

// The ebtables rule store: lines handed back to the shell must be harmless.
void rule_store(std::string_view text) {
  for (const std::string& line : vlan::stored_rule_lines(text))
    if (vlan::is_replayable_rule(line)) fuzz::check_command("ebtables " + line);
}

// A built command text; a builder that refuses its values gives none.
[[maybe_unused]] std::optional<std::string> as_text(const std::string& text) { return text; }
[[maybe_unused]] std::optional<std::string> as_text(const std::optional<std::string>& text) {
  return text;
}

// Command texts built from values that come from configuration or the air.
void command_builders(FuzzedDataProvider& in) {
  const std::string host = in.ConsumeRandomLengthString(40);
  const std::string secret = in.ConsumeRandomLengthString(80);
  const std::string mac = in.ConsumeRandomLengthString(24);
  const std::string out_if = in.ConsumeRandomLengthString(24);
  const int port = in.ConsumeIntegral<int>();
  const int ath = in.ConsumeIntegral<int>();
  const std::vector<std::string> values{host, secret, mac, out_if};
  const std::string file = macauth::request_file_path(macauth::hex_only_mac(mac), ath);
  auto check_built = [&values](const auto& built, std::string_view head = {}) {
    if (const std::optional<std::string> text = as_text(built))
      fuzz::check_command(std::string(head) + *text, values);
  };
  check_built(macauth::radclient_command(host, port, secret, file));
  check_built(macauth::authresp_command(ath, mac, in.ConsumeBool() ? 0 : 13));
  check_built(vlan::forward_drop_command("-I", ath, out_if));
  check_built(vlan::forward_drop_command("-D", ath, vlan::forward_output_interface(out_if, ath)));
  check_built(clients::client_limit_alert_command(secret, port));
  check_built(vlan::sta_vlan_upstream_rule(ath, mac, port), "ebtables ");
  check_built(vlan::sta_vlan_downstream_rule(out_if, mac, port, ath), "ebtables ");
  macauth::RadiusRequest request;
  request.user = macauth::hex_only_mac(mac);
  request.nas_identifier = host;
  request.ssid = secret;
  request.bssid = macauth::dashed_bssid(out_if);
  request.calling_station = macauth::dashed_mac(mac);
  check(macauth::build_radius_request(request).size() <= macauth::kRequestMax, "request size");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::require_sandbox();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 12) {
    case 0: taglist(text, true); break;
    case 1: taglist(text, false); break;
    case 2: client_line(text); break;
    case 3: netlink(text); break;
    case 4: radclient_reply(text); break;
    case 5: vlan_pool(text); break;
    case 6: traffic_report(text); break;
    case 7: interfaces(text); break;
    case 8: status_files(text); break;
    case 9: line_words(text); break;
    case 10: rule_store(text); break;
    case 11: {
      if (fuzz::skip_for_nul(text)) return -1;
      FuzzedDataProvider in(data + 1, size - 1);
      command_builders(in);
      break;
    }
  }
  return 0;
}

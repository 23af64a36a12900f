#include "vlan/pool.h"

#include <array>
#include <cctype>
#include <limits>
#include <mutex>
#include <optional>
#include <utility>

#include "common/files.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "model/context.h"
#include "model/vlan_state.h"
#include "vlan/rules.h"

namespace vlan {

namespace {

constexpr std::size_t kValueMax = 127;
constexpr std::size_t kApModeMax = 32;
constexpr std::size_t kPoolTextMax = 127;
// The output interface of the FORWARD rule lives in a 10-byte buffer.
constexpr std::size_t kOutputInterfaceMax = 9;
constexpr std::size_t kCommandMax = 255;
constexpr int kVlanLimit = 4096;
constexpr int kMaxDigits = 4;
constexpr int kVapsPerWlan = 2;

// A "%d" scan: leading blanks, an optional sign, digits; nullopt without
// digits. Values beyond int are held at its limits.
std::optional<int> scan_decimal(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i]))) return std::nullopt;
  long long value = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > std::numeric_limits<int>::max()) value = std::numeric_limits<int>::max() + 1LL;
  }
  if (negative) value = -value;
  if (value > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (value < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

bool contains(const std::optional<std::string>& value, std::string_view word) {
  return value && value->find(word) != std::string::npos;
}

// A number of the pool text at a position: the run of digits there.
struct PoolNumber {
  enum Kind { kNone, kTooLong, kValue } kind = kNone;
  int value = 0;
  std::size_t digits = 0;
};

PoolNumber read_pool_number(std::string_view text, std::size_t p) {
  PoolNumber n;
  while (p + n.digits < text.size() &&
         std::isdigit(static_cast<unsigned char>(text[p + n.digits])))
    ++n.digits;
  if (n.digits == 0) return n;
  if (n.digits > static_cast<std::size_t>(kMaxDigits)) {
    n.kind = PoolNumber::kTooLong;
    return n;
  }
  n.kind = PoolNumber::kValue;
  for (std::size_t i = 0; i < n.digits; ++i) n.value = n.value * 10 + (text[p + i] - '0');
  return n;
}

int hex_digit_value(char c) {
  if (c >= '1' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 0;
}

// What one VAP of a pooled WLAN needs once the state is published.
struct ForwardRule {
  int ath = 0;
  std::string out_if;
};

}  // namespace

std::vector<std::uint16_t> parse_vlan_pool(std::string_view text) {
  std::vector<std::uint16_t> pool;
  std::size_t p = 0;
  while (p < text.size()) {
    PoolNumber start = read_pool_number(text, p);
    if (start.kind == PoolNumber::kNone) {
      ++p;
      continue;
    }
    if (start.kind == PoolNumber::kTooLong) {
      // Read as the number 0 again and again without moving on: the rest
      // of the pool fills with 0.
      if (pool.size() < static_cast<std::size_t>(kPoolMax)) pool.resize(kPoolMax, 0);
      break;
    }
    if (start.value >= kVlanLimit) {
      ++p;
      continue;
    }
    const std::size_t after = p + start.digits;
    if (after < text.size() && text[after] == '-') {
      PoolNumber end = read_pool_number(text, after + 1);
      int last = 0;
      std::size_t end_length = 0;
      if (end.kind == PoolNumber::kValue) {
        last = end.value;
        end_length = end.digits + 1;
      }
      for (int v = start.value;
           v <= last && v < kVlanLimit && pool.size() < static_cast<std::size_t>(kPoolMax); ++v)
        pool.push_back(static_cast<std::uint16_t>(v));
      p = after + 1 + end_length;
      continue;
    }
    if (pool.size() >= static_cast<std::size_t>(kPoolMax)) break;
    pool.push_back(static_cast<std::uint16_t>(start.value));
    p = after + 1;
  }
  return pool;
}

unsigned pool_mac_sum(std::string_view mac) {
  auto digit = [&](std::size_t i) { return i < mac.size() ? hex_digit_value(mac[i]) : 0; };
  unsigned high = static_cast<unsigned>(digit(9) + digit(12) + digit(15));
  unsigned low = static_cast<unsigned>(digit(10) + digit(13) + digit(16));
  return high * 16 + low;
}

int pool_vlan_for_mac(const std::vector<std::uint16_t>& pool, std::string_view mac) {
  if (pool.empty()) return 0;
  return pool[pool_mac_sum(mac) % pool.size()];
}

int dynamic_vlan_mode(std::string_view value) {
  if (value.find("required") != std::string_view::npos) return 2;
  if (value.find("optional") != std::string_view::npos) return 1;
  if (value.find("disable") != std::string_view::npos) return 0;
  return 1;
}

std::string forward_output_interface(std::string_view bridge, int vlan_id) {
  if (vlan_id == 0) return common::cut(bridge, kOutputInterfaceMax);
  return common::format_cut(kOutputInterfaceMax, "%s.%d", std::string(bridge).c_str(), vlan_id);
}

std::optional<std::string> forward_drop_command(common::Template verb, int ath,
                                                std::string_view out_if) {
  return common::build_command(
      kCommandMax, "/sbin/ebtables -t filter {} FORWARD -p ! 802_1Q -i ath{} -o {} -j DROP",
      {common::constant(verb), common::number(ath), common::device(out_if)});
}

int update_vlan_pool(daemon_core::DaemonContext& ctx) {
  // The rule store must be our own directory (mode 0700): what someone else
  // planted at its name under /tmp is moved out of the way.
  common::claim_private_dir(kRuleStoreDir);

  std::shared_ptr<config::taglist> conf_owner;
  std::string bridge;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    conf_owner = ctx.masterconf;
    bridge = ctx.uplink;
  }
  const config::taglist* conf = conf_owner.get();

  VlanState state;
  state.bridge_mode = config::get_config_masterconf(conf, kApModeMax, "AP_MODE") == "bridge";
  if (config::get_config_masterconf(conf, kValueMax, "AP_VLAN_UNTAG_MODE") == "enable") {
    int untag = scan_decimal(config::get_config_masterconf(conf, kValueMax, "AP_VLAN_UNTAG")
                                 .value_or(std::string()))
                    .value_or(0);
    if (untag >= 1 && untag < kVlanLimit) state.untag_vlan = untag;
  }

  std::vector<ForwardRule> forward_rules;
  for (int w = 1; w <= kWlanCount; ++w) {
    WlanVlan& wlan = state.wlan_vlan[w - 1];
    if (!state.bridge_mode) continue;
    std::array<int, kVapsPerWlan> vaps{};
    int vap_count = std::min(config::get_ath_id(w, vaps), kVapsPerWlan);
    if (vap_count <= 0) continue;

    auto vlan_text = config::get_config_masterconf(conf, kValueMax, "WLAN%d_VLANID", w);
    int vlan_id = scan_decimal(vlan_text.value_or(std::string())).value_or(-1);
    // A VLAN ID outside 0..4094 is none.
    if (vlan_id < 0 || vlan_id >= kVlanLimit) vlan_id = -1;
    wlan.vlan_id = static_cast<std::int16_t>(vlan_id);

    auto dynamic = config::get_config_masterconf(conf, kValueMax, "WLAN%d_%s", w, "DYNAMIC_VLAN");
    wlan.dynamic_mode = static_cast<std::uint8_t>(dynamic_vlan_mode(dynamic.value_or("")));

    wlan.radius_acl =
        contains(config::get_config_masterconf(conf, kValueMax, "WLAN%d_%s", w,
                                               "RADIUS_ACCESS_CONTROL"),
                 "enable") &&
        contains(config::get_config_masterconf(conf, kValueMax, "WLAN%d_%s", w,
                                               "RADIUS_ACCESS_CONTROL_POLICY"),
                 "enable");

    std::string pool_text;
    if (contains(config::get_config_masterconf(conf, kValueMax, "WLAN%d_VLANPOOL", w), "enable"))
      pool_text = config::get_config_masterconf(conf, kPoolTextMax, "WLAN%d_VLANPOOL_LIST", w)
                      .value_or(std::string());
    auto pool = parse_vlan_pool(pool_text);
    if (pool.empty()) continue;
    state.vlan_pool[w - 1] = std::move(pool);
    for (int i = 0; i < vap_count; ++i)
      forward_rules.push_back({vaps[i], forward_output_interface(bridge, vlan_id)});
  }

  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    ctx.vlan = std::move(state);
  }

  // Untagged frames from a pooled VAP may not be forwarded to the WLAN's
  // own interface.
  bool module_needed = false;
  for (const auto& rule : forward_rules) {
    insert_ebtables_kernel_module();
    common::run_command(forward_drop_command("-D", rule.ath, rule.out_if));
    common::run_command(forward_drop_command("-I", rule.ath, rule.out_if));
    module_needed = true;
  }
  return module_needed ? insert_ebtables_kernel_module() : 0;
}

void process_sta_vlan_pool(daemon_core::DaemonContext& ctx, int ath,
                           clients::ClientRecord& record) {
  const int w = config::get_wlan_id(ath) - 1;
  if (w < 0 || w >= kWlanCount || ctx.fast_poll) return;
  if (record.vlan_pool_slot > 0) return;

  std::vector<std::uint16_t> pool;
  std::string bridge;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    pool = ctx.vlan.vlan_pool[w];
    bridge = ctx.uplink;
  }
  if (pool.empty()) {
    record.vlan_pool_slot = 0;
    return;
  }
  const int vlan = pool_vlan_for_mac(pool, record.mac);
  if (vlan > 0 && !config::get_bssid(ath).empty()) {
    install_sta_vlan_rules(ctx, record.mac, ath, vlan, record.vlan_id, bridge);
    record.vlan_pool_slot = vlan;
  } else {
    record.vlan_pool_slot = 0;
  }
}

}  // namespace vlan

#include "bandwidth/shaping.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "common/command.h"
#include "common/numbers.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "model/context.h"

namespace bandwidth {

namespace {

// Command texts are built into 1024-byte buffers on the device.
constexpr std::size_t kCommandMax = 1023;
// Values are read into 128-byte buffers.
constexpr std::size_t kValueMax = 127;
constexpr std::size_t kApModeMax = 32;

constexpr unsigned kSlotMax = 254;
// The parent classes use the upstream form of slot 255.
constexpr unsigned kParentSlot = 255;
constexpr unsigned kHandleMajorStep = 8192;

constexpr int kTunnelDeviceOffset = 50;
constexpr unsigned kTunnelMajorOffset = 128;
constexpr unsigned kWanMajor = 1;

constexpr const char* kBridgeWanDevice = "eth1";
constexpr const char* kWanStatusPath = "/etc/net/wan.status";

void run_all(const std::vector<std::string>& commands) {
  for (const auto& command : commands) common::run_command(command);
}

// The radio's shaping tree is made by the init script the first time a
// station of the interface gets a rate; the script leaves this marker.
bool per_client_tree_exists(int ath) {
  std::string marker = common::format("/etc/wlan/bandwidth_mgnt/per_client_set_%d", ath);
  int fd = ::open(marker.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

}  // namespace

int configured_rate(const config::taglist* conf, int ath, int direction) {
  auto control = config::get_wlan_config_masterconf(conf, kValueMax, ath, "BANDWIDTH_CONTROL");
  if (!control || *control != "enable") return 0;
  auto rate = config::get_wlan_config_masterconf(
      conf, kValueMax, ath,
      direction == 0 ? "CLIENT_BANDWIDTH_UPSTREAM" : "CLIENT_BANDWIDTH_DOWNSTREAM");
  if (!rate || rate->empty()) return 0;
  return common::scan_int(*rate, 0, kRateMax).value_or(0);
}

void reset_bandwidth(clients::BandwidthBlock& block) { block = clients::BandwidthBlock{}; }

unsigned bandwidth_mark(unsigned slot, int direction, int wlan) {
  return slot * 32 + static_cast<unsigned>(direction) * 16 + static_cast<unsigned>(wlan - 1);
}

void set_bandwidth_numbers(clients::BandwidthBlock& block, unsigned slot, int wlan) {
  block.bw_slot = slot;
  block.up_mark = bandwidth_mark(slot, 0, wlan);
  block.down_mark = bandwidth_mark(slot, 1, wlan);
  // Both parents take the upstream form: the downstream tree of the radio
  // hangs its stations under the same parent minor.
  block.up_parent = bandwidth_mark(kParentSlot, 0, wlan);
  block.down_parent = bandwidth_mark(kParentSlot, 0, wlan);
}

void set_bandwidth_radio(clients::BandwidthBlock& block, int radio, std::string_view radio_dev) {
  block.radio = radio;
  block.tc_major = radio == 1 ? 3 : 2;
  // A longer name is no device name: it is kept as none, which the command
  // builder refuses in the same way.
  block.tc_dev = radio_dev.size() <= block.tc_dev.capacity() ? radio_dev : std::string_view();
}

unsigned free_bandwidth_slot(const daemon_core::DaemonContext& ctx, int ath) {
  std::array<bool, kSlotMax + 2> used{};
  const std::uint32_t end = std::min<std::uint32_t>(ctx.client_count, clients::kClientSlots);
  for (std::uint32_t i = 0; i < end; ++i) {
    const auto& record = ctx.records[i];
    if (record.in_use != 1 || record.ifindex != ath) continue;
    if (record.bandwidth.bw_slot < used.size()) used[record.bandwidth.bw_slot] = true;
  }
  for (unsigned k = 1; k <= kSlotMax; ++k)
    if (!used[k]) return k;
  return 0;
}

void load_bandwidth(daemon_core::DaemonContext& ctx, clients::BandwidthBlock& block, int ath) {
  set_bandwidth_numbers(block, free_bandwidth_slot(ctx, ath), config::get_wlan_id(ath));
  const config::taglist* conf = ctx.masterconf.get();
  if (block.up_rate == -1) block.up_rate = configured_rate(conf, ath, 0);
  if (block.down_rate == -1) block.down_rate = configured_rate(conf, ath, 1);
  int radio = config::get_radio_id(ath);
  set_bandwidth_radio(block, radio, config::get_radio_dev_name(radio));
}

std::string wan_device(const config::taglist* conf) {
  auto mode = config::get_config_masterconf(conf, kApModeMax, "AP_MODE");
  if (mode && *mode == "bridge") return kBridgeWanDevice;
  auto status = config::load_taglist_ex(kWanStatusPath, 1, nullptr);
  std::string_view name = config::get_taglist_default(status.get(), "interface", "");
  if (!name.empty()) return std::string(name);
  return kBridgeWanDevice;
}

int tunnel_number(const config::taglist* conf, int ath) {
  auto profile = config::get_wlan_config_masterconf(conf, kValueMax, ath, "L2TP_PROFILE");
  if (!profile || profile->empty()) return 0;
  auto tunnel = config::get_config_masterconf(conf, kValueMax, "AP_L2TP%s_TUNNEL",
                                              profile->c_str());
  if (!tunnel || tunnel->rfind("enable", 0) != 0) return 0;
  return common::scan_int(*profile, 0, kL2tpProfileMax).value_or(0);
}

std::optional<std::string> tc_class_command(common::Template verb, std::string_view dev,
                                            unsigned major, unsigned parent, unsigned minor,
                                            int ceil) {
  return common::build_command(
      kCommandMax,
      "tc class {} dev {} parent {}:{} classid {}:{} htb rate 2kbit ceil {}kbit burst 15k "
      "> /dev/null 2>&1",
      {common::constant(verb), common::device(dev), common::hex(major), common::hex(parent),
       common::hex(major), common::hex(minor), common::number(ceil)});
}

std::optional<std::string> tc_qdisc_command(common::Template verb, std::string_view dev,
                                            unsigned major, unsigned minor) {
  return common::build_command(
      kCommandMax, "tc qdisc {} dev {} parent {}:{} handle 0x{}: sfq perturb 10 > /dev/null 2>&1",
      {common::constant(verb), common::device(dev), common::hex(major), common::hex(minor),
       common::hex(major * kHandleMajorStep + minor)});
}

std::optional<std::string> tc_filter_command(common::Template verb, std::string_view dev,
                                             unsigned major, unsigned mark) {
  return common::build_command(
      kCommandMax,
      "tc filter {} dev {} prio 0x{} protocol all parent {}:0 handle 0x{} fw flowid {}:{} "
      "> /dev/null 2>&1",
      {common::constant(verb), common::device(dev), common::hex(mark), common::hex(major),
       common::hex(mark), common::hex(major), common::hex(mark)});
}

std::optional<std::string> mark_rule_command(common::Template verb, int direction, int ath,
                                             std::string_view mac, unsigned mark) {
  if (direction == 0)
    return common::build_command(kCommandMax,
                                 "/sbin/ebtables {} ATH{}_BANDWIDTH_UP -s {} -j mark --set-mark "
                                 "0x{} --mark-target CONTINUE > /dev/null 2>&1",
                                 {common::constant(verb), common::number(ath), common::mac(mac),
                                  common::hex(mark)});
  return common::build_command(kCommandMax,
                               "/sbin/ebtables {} ATH{}_BANDWIDTH_DOWN -d {} -j mark --set-mark "
                               "0x{} --mark-target CONTINUE > /dev/null 2>&1",
                               {common::constant(verb), common::number(ath), common::mac(mac),
                                common::hex(mark)});
}

namespace {

// Every command of a set, or none when one of them could not be built.
std::vector<std::string> all_or_none(const std::vector<std::optional<std::string>>& commands) {
  std::vector<std::string> out;
  for (const auto& command : commands) {
    if (!command) return {};
    out.push_back(*command);
  }
  return out;
}

}  // namespace

std::vector<std::string> traffic_control_commands(common::Template verb,
                                                  const clients::BandwidthBlock& block,
                                                  int tunnel, std::string_view wan_dev) {
  std::string up_dev;
  unsigned up_major = kWanMajor;
  if (tunnel != 0) {
    up_dev = common::format("bcp%d", tunnel + kTunnelDeviceOffset);
    up_major = static_cast<unsigned>(tunnel) + kTunnelMajorOffset;
  } else {
    up_dev = std::string(wan_dev);
  }
  const bool up = block.up_rate > 0;
  const bool down = block.down_rate > 0;

  std::vector<std::optional<std::string>> classes;
  std::vector<std::optional<std::string>> queues;
  std::vector<std::optional<std::string>> filters;
  if (up) {
    classes.push_back(tc_class_command(verb, up_dev, up_major, block.up_parent, block.up_mark,
                                       block.up_rate));
    classes.push_back(tc_class_command(verb, block.tc_dev, block.tc_major, block.up_parent,
                                       block.up_mark, block.up_rate));
    queues.push_back(tc_qdisc_command(verb, up_dev, up_major, block.up_mark));
    queues.push_back(tc_qdisc_command(verb, block.tc_dev, block.tc_major, block.up_mark));
    filters.push_back(tc_filter_command(verb, up_dev, up_major, block.up_mark));
    filters.push_back(tc_filter_command(verb, block.tc_dev, block.tc_major, block.up_mark));
  }
  if (down) {
    classes.push_back(tc_class_command(verb, block.tc_dev, block.tc_major, block.down_parent,
                                       block.down_mark, block.down_rate));
    queues.push_back(tc_qdisc_command(verb, block.tc_dev, block.tc_major, block.down_mark));
    filters.push_back(tc_filter_command(verb, block.tc_dev, block.tc_major, block.down_mark));
  }

  std::vector<std::optional<std::string>> out;
  const bool adding = std::string_view(verb.text) == "add";
  const auto& first = adding ? classes : filters;
  const auto& last = adding ? filters : classes;
  out.insert(out.end(), first.begin(), first.end());
  out.insert(out.end(), queues.begin(), queues.end());
  out.insert(out.end(), last.begin(), last.end());
  return all_or_none(out);
}

std::vector<std::string> mark_rule_commands(common::Template verb, int ath, std::string_view mac,
                                            const clients::BandwidthBlock& block) {
  std::vector<std::optional<std::string>> out;
  if (block.up_rate > 0) out.push_back(mark_rule_command(verb, 0, ath, mac, block.up_mark));
  if (block.down_rate >= 1) out.push_back(mark_rule_command(verb, 1, ath, mac, block.down_mark));
  return all_or_none(out);
}

void traffic_control_set(const config::taglist* conf, common::Template verb,
                         const clients::BandwidthBlock& block, int tunnel) {
  if (block.up_rate <= 0 && block.down_rate <= 0) return;
  // The WAN device is looked up only when the upstream side needs it.
  std::string wan = (tunnel == 0 && block.up_rate > 0) ? wan_device(conf) : std::string();
  run_all(traffic_control_commands(verb, block, tunnel, wan));
}

void apply_bandwidth(const config::taglist* conf, std::string_view mac, int ath,
                     const clients::BandwidthBlock& block) {
  if ((block.up_rate >= 1 || block.down_rate >= 1) && !per_client_tree_exists(ath)) {
    common::run_command(common::build_command(
        kCommandMax, "/etc/rc.d/init.d/bandwidth_mgnt init_per_client wifi{} {} 1 1",
        {common::number(block.radio), common::number(ath)}));
  }
  run_all(mark_rule_commands("-A", ath, mac, block));
  traffic_control_set(conf, "add", block, tunnel_number(conf, ath));
}

void remove_bandwidth(const config::taglist* conf, std::string_view mac, int ath,
                      const clients::BandwidthBlock& block) {
  run_all(mark_rule_commands("-D", ath, mac, block));
  traffic_control_set(conf, "del", block, tunnel_number(conf, ath));
}

void l2tp_remove_client(const config::taglist* conf, const clients::BandwidthBlock& block,
                        int /*wlan*/) {
  traffic_control_set(conf, "del", block, 0);
}

void l2tp_update_client(const config::taglist* conf, int down, std::string_view /*mac*/,
                        int /*wlan*/, const clients::BandwidthBlock& block, int profile) {
  traffic_control_set(conf, down ? common::Template("del") : common::Template("add"), block,
                      profile);
}

}  // namespace bandwidth

#include "vlan/rules.h"

#include <fcntl.h>
#include <unistd.h>

#include <mutex>
#include <optional>

#include "common/command.h"
#include "common/files.h"
#include "common/mac.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "model/context.h"

namespace vlan {

namespace {

// Rule bodies, store paths and broute commands live in 128-byte buffers on
// the device; background commands in 256-byte ones.
constexpr std::size_t kRuleMax = 127;
constexpr std::size_t kBackgroundMax = 255;
// The downstream rule's VLAN outside the 802.1Q range: frames to the
// station leave untagged.
constexpr int kUntaggedSvlan = 4096;

// The store directory sits under /tmp: it is used only as a directory of our
// own, and whatever someone else planted at its name is moved out of the way
// first (a link, a FIFO, a file, another user's directory).
bool claim_store_dir() { return common::claim_private_dir(kRuleStoreDir); }

std::string store_path(std::string_view name) {
  return common::format_cut(kRuleMax, "%s/%s", kRuleStoreDir, std::string(name).c_str());
}

// The whole store file; nullopt when there is none. Only a regular file is
// read (no link followed, no FIFO waited on); anything else at the name is
// cleared away and counts as no file.
std::optional<std::string> read_store_file(const std::string& path) {
  int fd = common::open_regular_nonblocking(path, O_RDONLY);
  if (fd < 0) {
    common::clear_fixed_name(path);
    return std::nullopt;
  }
  std::string content;
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) break;
    content.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return content;
}

// The station's file opened for appending (created when missing); what
// someone planted at its name is cleared away first. -1 on failure.
int open_store_for_append(const std::string& path) {
  const int flags = O_WRONLY | O_CREAT | O_APPEND;
  int fd = common::open_regular_nonblocking(path, flags);
  if (fd < 0 && common::clear_fixed_name(path)) fd = common::open_regular_nonblocking(path, flags);
  return fd;
}

}  // namespace

int insert_ebtables_kernel_module() {
  int fd = ::open(kEbtablesModuleMarker, O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    ::close(fd);
    return 0;
  }
  return common::run_command("ebtables -V > /dev/null");
}

bool is_rule_store_name(std::string_view name) {
  return !name.empty() && common::canonical_mac(name) == name;
}

std::optional<std::string> sta_vlan_upstream_rule(int ath, std::string_view mac, int vlan) {
  return common::build_command(
      kRuleMax, "-p ! 0x888e -i ath{} -s {} -j svlan --setvlan {} --setvlan-target ACCEPT",
      {common::number(ath), common::mac(mac), common::number(vlan)});
}

std::optional<std::string> sta_vlan_downstream_rule(std::string_view bridge, std::string_view mac,
                                                    int wlan_vlan, int untag_vlan) {
  if (wlan_vlan != 0 && wlan_vlan != untag_vlan)
    return common::build_command(
        kRuleMax, "-p ! 0x888e -i {} -d {} -j svlan --setvlan {} --setvlan-target DROP",
        {common::device(bridge), common::mac(mac), common::number(wlan_vlan)});
  return common::build_command(
      kRuleMax, "-p ! 0x888e -i {} -d {} -j svlan --setvlan {} --setvlan-target ACCEPT",
      {common::device(bridge), common::mac(mac), common::number(kUntaggedSvlan)});
}

std::vector<std::string> stored_rule_lines(std::string_view content) {
  std::vector<std::string> out;
  while (!content.empty()) {
    std::size_t piece = content.find('\n');
    piece = piece == std::string_view::npos ? content.size() : piece + 1;
    if (piece > kRuleMax) piece = kRuleMax;
    // The last character of a piece is its line break; a piece cut by the
    // length limit loses a character of the rule instead.
    std::string_view body = content.substr(0, piece - 1);
    if (!body.empty()) out.emplace_back(body);
    content.remove_prefix(piece);
  }
  return out;
}

bool is_replayable_rule(std::string_view line) {
  return common::rule_words(line).kind != common::ArgKind::kInvalid;
}

int run_background_tool(const common::CommandText& command) {
  common::CommandText background;
  common::append(background, "/sbin/{} &", {common::part(command)});
  return common::run_command(common::finish(background, kBackgroundMax));
}

namespace {

// "ebtables -t broute <verb> BROUTING <rule>" in the background, when the
// rule holds only words and the command fits in 127 characters.
void run_broute_rule(common::Template tmpl, std::string_view rule) {
  common::CommandText command;
  common::append(command, tmpl, {common::rule_words(rule)});
  if (common::finish(command, kRuleMax)) run_background_tool(command);
}

}  // namespace

int ebt_rule_store_add(std::string_view name, const std::optional<std::string>& rule) {
  if (!rule || !is_replayable_rule(*rule)) return -1;
  if (!is_rule_store_name(name) || !claim_store_dir()) return -1;
  int fd = open_store_for_append(store_path(name));
  if (fd < 0) return -1;
  std::string line(*rule);
  line.push_back('\n');
  common::write_all(fd, line);
  ::close(fd);
  run_broute_rule("ebtables -t broute -I BROUTING {}", *rule);
  return 0;
}

int ebt_rule_store_flush(std::string_view name, int remove) {
  if (!is_rule_store_name(name) || !claim_store_dir()) return -1;
  const std::string path = store_path(name);
  auto content = read_store_file(path);
  if (!content) return -1;
  if (remove) {
    for (const auto& body : stored_rule_lines(*content)) {
      // The file sits under /tmp: a line we could not have written is not
      // handed to the shell.
      run_broute_rule("ebtables -t broute -D BROUTING {}", body);
    }
  }
  ::unlink(path.c_str());
  return 0;
}

int install_sta_vlan_rules(daemon_core::DaemonContext& ctx, std::string_view mac, int ath,
                           int vlan, int wlan_vlan, std::string_view bridge) {
  int untag_vlan = 0;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    untag_vlan = ctx.vlan.untag_vlan;
  }
  ebt_rule_store_flush(mac, 1);
  ebt_rule_store_add(mac, sta_vlan_upstream_rule(ath, mac, vlan));
  return ebt_rule_store_add(mac, sta_vlan_downstream_rule(bridge, mac, wlan_vlan, untag_vlan));
}

void handle_sta_vlan_update(daemon_core::DaemonContext& ctx, clients::ClientRecord& record,
                            int ath, int vlan) {
  int bridge_mode = 0;
  int untag_vlan = 0;
  std::string bridge;
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    bridge_mode = ctx.vlan.bridge_mode;
    untag_vlan = ctx.vlan.untag_vlan;
    bridge = ctx.uplink;
  }
  if (!bridge_mode) return;
  if (vlan <= 0 || vlan == untag_vlan) return;
  if (config::get_bssid(ath).empty()) return;
  install_sta_vlan_rules(ctx, record.mac, ath, vlan, record.vlan_id, bridge);
  record.vlan_pool_slot = vlan;
}

int remove_sta_vlan_pool(daemon_core::DaemonContext& /*ctx*/, clients::ClientRecord& record) {
  int result = ebt_rule_store_flush(record.mac, 1);
  record.vlan_pool_slot = 0;
  return result;
}

}  // namespace vlan

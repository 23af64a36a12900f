#include "daemon/reload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

#include "bandwidth/shaping.h"
#include "common/files.h"
#include "config/accessors.h"
#include "macauth/macauth.h"
#include "snmp/traps.h"
#include "vlan/pool.h"

namespace daemon_core {

namespace {

// The first line of the uptime file (at most 1023 characters, up to a NUL).
// The name sits under /tmp: only a regular file is read, never through a
// link and never blocking; anything else planted there is cleared away so
// that the next apply can write the file again.
std::string read_uptime_line() {
  int fd = common::open_regular_nonblocking(kLastApplyUptimePath, O_RDONLY);
  if (fd < 0) {
    common::clear_fixed_name(kLastApplyUptimePath);
    return std::string();
  }
  char buf[1024];
  std::size_t used = 0;
  while (used < sizeof buf - 1) {
    ssize_t n = ::read(fd, buf + used, sizeof buf - 1 - used);
    if (n <= 0) break;
    used += static_cast<std::size_t>(n);
  }
  ::close(fd);
  std::string_view text(buf, used);
  text = text.substr(0, text.find('\0'));
  if (std::size_t eol = text.find('\n'); eol != std::string_view::npos) text = text.substr(0, eol + 1);
  return std::string(text);
}

}  // namespace

std::int32_t read_last_apply_uptime() {
  const std::string line = read_uptime_line();
  int value = 0;
  if (line.empty() || std::sscanf(line.c_str(), "%d", &value) != 1) return 0;
  return value;
}

void check_config_apply(DaemonContext& ctx) {
  const std::int32_t value = read_last_apply_uptime();
  if (!(ctx.last_apply_uptime < value)) return;
  std::shared_ptr<config::taglist> fresh(
      config::load_taglist_ex(config::kMasterConfigPath, 1, nullptr).release());
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    ctx.masterconf = std::move(fresh);
  }
  snmp::load_trap_settings(ctx);
  ctx.last_apply_uptime = value;
  // Every client's shaping is rebuilt from the new configuration.
  for (std::uint32_t i = 0; i < ctx.client_count && i < ctx.records.size(); ++i)
    bandwidth::reset_bandwidth(ctx.records[i].bandwidth);
  ctx.fast_poll = 1;
}

void check_config_applied(DaemonContext& ctx) {
  struct stat st {};
  const std::int64_t mtime = ::stat(kAppliedPath, &st) == 0 ? st.st_mtime : 0;
  if (!(ctx.applied_mtime < mtime)) return;
  std::string uplink = bandwidth::wan_device(ctx.masterconf.get());
  {
    std::lock_guard<std::mutex> lock(ctx.shared_mutex);
    ctx.uplink = std::move(uplink);
  }
  ctx.applied_mtime = mtime;
  vlan::update_vlan_pool(ctx);
  macauth::mac_auth_init(ctx);
  ctx.fast_poll = 0;
}

}  // namespace daemon_core

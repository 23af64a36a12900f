#include "daemon/startup.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "clients/files.h"
#include "clients/table.h"
#include "common/command.h"
#include "common/runner.h"
#include "config/taglist.h"
#include "daemon/client_pipe.h"
#include "daemon/netlink.h"
#include "daemon/reload.h"
#include "snmp/traps.h"

namespace daemon_core {

namespace {

// mkfifo, then the mode set again so that the umask does not narrow it.
int create_fifo(const std::string& path, mode_t mode) {
  if (::mkfifo(path.c_str(), mode) != 0) return errno;
  ::chmod(path.c_str(), mode);
  return 0;
}

int open_pipe_or_exit(const char* path) {
  const int fd = ::open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    std::perror("Cannot open pipe");
    std::exit(1);
  }
  return fd;
}

}  // namespace

int make_fifo(const std::string& path, mode_t mode) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) {
    if (S_ISFIFO(st.st_mode)) {
      errno = 0;
      return 0;
    }
    ::unlink(path.c_str());
    const int failed = create_fifo(path, mode);
    errno = failed != 0 ? failed : EEXIST;
    return errno;
  }
  if (errno != ENOENT) ::unlink(path.c_str());
  const int failed = create_fifo(path, mode);
  errno = failed;
  return failed;
}

int fill_known_ap_list(std::array<common::FixedText<kKnownApLength>, kKnownApSlots>& slots,
                       std::string_view list) {
  int count = 0;
  std::size_t pos = 0;
  while (count < kKnownApSlots) {
    pos = list.find_first_not_of(' ', pos);
    if (pos == std::string_view::npos) break;
    std::size_t end = list.find(' ', pos);
    if (end == std::string_view::npos) end = list.size();
    slots[count++] = list.substr(pos, end - pos);  // cut to its 17 characters
    pos = end;
  }
  return count;
}

LoopSources start_daemon(DaemonContext& ctx) {
  LoopSources sources;

  clients::init_records(ctx);

  ctx.udp_socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (ctx.udp_socket < 0) {
    std::puts("socket(SOCK_DGRAM)");
    std::fflush(stdout);
  }

  make_fifo(kIweventPipePath, kPipeMode);
  make_fifo(kClientTablePipePath, kPipeMode);
  make_fifo(kEventPipePath, kPipeMode);

  ::unlink(clients::kClientListPath);
  ::unlink(clients::kClientAssocListPath);
  ::unlink(clients::kClientStatsPath);

  common::run_command("killall iwevent");
  common::run_command("killall -9 iwevent");
  common::run_command(
      common::build_command(255, "iwevent >> {} 2>&1 &", {common::path(kIweventPipePath)}));

  sources.iwevent_pipe = open_pipe_or_exit(kIweventPipePath);
  sources.event_pipe = open_pipe_or_exit(kEventPipePath);
  sources.client_pipe = open_pipe_or_exit(kClientTablePipePath);

  sources.netlink = open_netlink_socket();
  if (sources.netlink < 0) {
    std::perror("Cannot open wireless event socket");
    std::exit(1);
  }

  ctx.last_apply_uptime = read_last_apply_uptime();

  ctx.masterconf = config::load_taglist_ex(kMasterConfigPath, 1, nullptr);

  snmp::load_trap_settings(ctx);

  for (auto& slot : ctx.known_ap) slot.clear();
  ctx.known_ap_count = fill_known_ap_list(
      ctx.known_ap, config::get_taglist_default_ex(ctx.masterconf.get(), "", "KNOWN_AP_LIST"));

  for (clients::ClientRecord& record : ctx.records) clients::clear_record(record);

  ctx.client_count = 0;
  ctx.event_config = snmp::get_event_config();

  check_config_applied(ctx);
  return sources;
}

}  // namespace daemon_core

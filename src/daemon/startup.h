// Start-up of the daemon: the pipes, the sockets, the configuration and the
// client table, in their fixed order. Main thread only.
#pragma once

#include <sys/types.h>

#include <array>
#include <string>
#include <string_view>

#include "common/fixed_text.h"
#include "model/context.h"

namespace daemon_core {

inline constexpr const char* kIweventPipePath = "/etc/iwevent_pipe";
inline constexpr const char* kEventPipePath = "/etc/event_pipe";
inline constexpr const char* kMasterConfigPath = "/etc/masterconfig.apply";
inline constexpr mode_t kPipeMode = 0777;

// The descriptors the loop waits on.
struct LoopSources {
  int iwevent_pipe = -1;
  int event_pipe = -1;
  int client_pipe = -1;
  int netlink = -1;
};

// Makes path a FIFO with exactly the given mode and returns an errno value
// (errno is left set to it): 0 when it already is a FIFO or was created;
// EEXIST when something else stood there and was replaced by a FIFO;
// otherwise the errno of the failed mkfifo.
int make_fifo(const std::string& path, mode_t mode);

// Fills the known AP slots from the space-separated list: each token cut to
// 17 characters, at most 256 tokens. The number of filled slots.
int fill_known_ap_list(std::array<common::FixedText<kKnownApLength>, kKnownApSlots>& slots,
                       std::string_view list);

// Runs the start-up steps on a fresh context and returns what the loop
// waits on. Exits with status 1 when a pipe or the netlink socket cannot be
// opened.
LoopSources start_daemon(DaemonContext& ctx);

}  // namespace daemon_core

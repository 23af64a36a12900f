// Entry point of the client-manager daemon: one context for the whole run,
// the start-up steps, then the loop, which never returns. The daemon takes
// no arguments: given any, it only prints its usage and version.
#include <cstdio>
#include <memory>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "daemon/loop.h"
#include "daemon/startup.h"
#include "model/context.h"

#ifndef CLIENTMGR_VERSION
#error "CLIENTMGR_VERSION must be defined by the build"
#endif

namespace {

constexpr const char* kUsage =
    "usage: clientmgr\n"
    "clientmgr " CLIENTMGR_VERSION ": the client manager of the access point.\n"
    "It takes no options: started without arguments it restarts iwevent, makes its\n"
    "pipes in /etc and runs until killed; see clientmgr(8).\n";

}  // namespace

int main(int argc, char**) {
  // Any argument: usage only, before any start-up step touches the system.
  if (argc > 1) {
    std::fputs(kUsage, stderr);
    return 2;
  }
#if defined(M_ARENA_MAX)
  // glibc gives every thread that allocates its own malloc arena (64 MiB
  // reserved each, never returned); the RADIUS workers share the main one.
  // Other C libraries have no such knob and need none.
  mallopt(M_ARENA_MAX, 1);
#endif
  // The context holds a mutex and the whole client table: one heap object.
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  const daemon_core::LoopSources sources = daemon_core::start_daemon(*ctx);
  daemon_core::run_loop(*ctx, sources);
}

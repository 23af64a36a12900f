// Entry point of the client-manager daemon: one context for the whole run,
// the start-up steps, then the loop, which never returns.
#include <memory>

#include "daemon/context.h"
#include "daemon/loop.h"
#include "daemon/startup.h"

int main() {
  // The context holds a mutex and the whole client table: one heap object.
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  const daemon_core::LoopSources sources = daemon_core::start_daemon(*ctx);
  daemon_core::run_loop(*ctx, sources);
}

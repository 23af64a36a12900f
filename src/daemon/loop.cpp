#include "daemon/loop.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "clients/notifier.h"
#include "clients/table.h"
#include "common/clock.h"
#include "common/files.h"
#include "daemon/client_pipe.h"
#include "daemon/netlink.h"
#include "daemon/interpreter.h"
#include "daemon/reload.h"
#include "macauth/macauth.h"

namespace daemon_core {

namespace {

constexpr std::uint8_t kCodeRegistered = 11;
constexpr std::uint8_t kCodeExpired = 12;
constexpr std::int64_t kRegisteredMinAge = 60;
constexpr std::int64_t kExpiredMinAge = 180;


}  // namespace

struct timeval next_select_timeout(std::int32_t fast_poll, struct timeval left) {
  struct timeval next = left;
  if (fast_poll != 0) {
    next.tv_sec = kFastPollSeconds;
  } else if (next.tv_sec < 1 || next.tv_sec > kIdleWaitSeconds) {
    next.tv_sec = kIdleWaitSeconds;
  }
  if (next.tv_usec < 0) next.tv_usec = 0;
  return next;
}

bool held_code_due(std::uint8_t code, std::int64_t age) {
  return (code == kCodeRegistered && age >= kRegisteredMinAge) ||
         (code == kCodeExpired && age >= kExpiredMinAge);
}

void run_timed_work(DaemonContext& ctx, struct timeval& timeout) {
  if (ctx.next_deadline <= 0) return;
  const std::int64_t now = common::wall_now();
  if (now >= ctx.next_deadline) {
    const std::uint32_t end =
        std::min<std::uint32_t>(ctx.client_count, clients::kClientSlots);
    for (std::uint32_t i = 0; i < end; ++i) {
      clients::ClientRecord& record = ctx.records[i];
      if (record.in_use != 1) continue;
      const std::uint8_t code = record.pending_code;
      if (!held_code_due(code, now - record.state_time)) continue;
      clients::notify_client(record);
      clients::stamp_record_state(record, code);
      clients::clear_pending_code(record);
    }
    for (clients::ClientRecord& record : ctx.records) {
      if (record.in_use == 1 && record.holdoff_deadline > 0 && record.holdoff_deadline <= now)
        record.holdoff_deadline = 0;
    }
    ctx.next_deadline = clients::earliest_deadline(ctx);
  }
  // With no deadline left this is negative, and the next wait is a full one.
  timeout.tv_sec = static_cast<time_t>(ctx.next_deadline - now);
}

void run_loop(DaemonContext& ctx, const LoopSources& sources) {
  struct timeval timeout {};
  const int last_fd = std::max({sources.iwevent_pipe, sources.client_pipe, sources.event_pipe,
                                sources.netlink});
  // Each pipe keeps its unfinished line until the next read of that pipe.
  PipeCarry iwevent_carry, event_carry, client_carry;
  for (;;) {
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(sources.iwevent_pipe, &ready);
    FD_SET(sources.client_pipe, &ready);
    FD_SET(sources.event_pipe, &ready);
    FD_SET(sources.netlink, &ready);

    timeout = next_select_timeout(ctx.fast_poll, timeout);
    common::end_look();
    const int selected = ::select(last_fd + 1, &ready, nullptr, nullptr, &timeout);
    common::begin_look();
    if (selected == -1) {
      std::perror("Wait on pipe fail");
      std::printf("last_fd = %d next_timeout = %p %ld %ld\n", last_fd,
                  static_cast<void*>(&timeout), static_cast<long>(timeout.tv_sec),
                  static_cast<long>(timeout.tv_usec));
      std::fflush(stdout);
      std::exit(1);
    }

    if (FD_ISSET(sources.netlink, &ready)) {
      serve_netlink(ctx, sources.netlink);
    } else if (FD_ISSET(sources.client_pipe, &ready)) {
      serve_client_pipe(ctx, sources.client_pipe, client_carry);
    } else if (FD_ISSET(sources.event_pipe, &ready) || FD_ISSET(sources.iwevent_pipe, &ready)) {
      interpret_events(ctx, sources.event_pipe, sources.iwevent_pipe, ready, event_carry, iwevent_carry);
    }

    run_timed_work(ctx, timeout);
    macauth::reap_workers();

    check_config_apply(ctx);
    check_config_applied(ctx);
  }
}

}  // namespace daemon_core

// The main loop: wait on the four sources, serve one, run the timed work on
// the client table. Main thread only.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "daemon/startup.h"
#include "model/context.h"

namespace daemon_core {

inline constexpr long kIdleWaitSeconds = 30;
inline constexpr long kFastPollSeconds = 2;

// The time-out of the next wait from what the last one left (select leaves
// the remainder in it): 2 seconds while fast_poll is set; otherwise the
// seconds left are kept when they lie in 1..30 and become 30 else.
// Negative microseconds become 0.
struct timeval next_select_timeout(std::int32_t fast_poll, struct timeval left);

// Whether a held notifier code is due at this age of the record's last
// state change: 11 after 60 seconds, 12 after 180.
bool held_code_due(std::uint8_t code, std::int64_t age);

// The timed work after each pass: once the next deadline has passed,
// deliver the held codes that are due, drop passed hold-off deadlines and
// recompute the next deadline; then (whenever a deadline was set) aim the
// time-out at it.
void run_timed_work(DaemonContext& ctx, struct timeval& timeout);

// The loop; never returns. A failed select ends the process with status 1.
[[noreturn]] void run_loop(DaemonContext& ctx, const LoopSources& sources);

}  // namespace daemon_core

// The daemon's two clocks. Wall time (seconds since the epoch) stamps
// records, deadlines and queue times; uptime (seconds since boot) dates
// associations and expiry. Both go through the C library (time(), sysinfo())
// so that the test sandbox can move them.
#pragma once

#include <cstdint>

namespace common {

// time(nullptr).
std::int64_t wall_now();

// sysinfo().uptime; 0 when sysinfo fails.
long uptime_now();

}  // namespace common

#include "common/clock.h"

#include <sys/sysinfo.h>

#include <ctime>

namespace common {

std::int64_t wall_now() { return static_cast<std::int64_t>(::time(nullptr)); }

long uptime_now() {
  struct sysinfo info {};
  if (::sysinfo(&info) != 0) return 0;
  return info.uptime;
}

}  // namespace common

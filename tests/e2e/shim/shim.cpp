// Preloaded into the daemon by the end-to-end sandbox (tests/e2e/sandbox.py).
//
// Moves the daemon's two clocks and stands in for the wireless driver's
// station-information request. The settings are read from
// $CLIENTMGR_SANDBOX/shim.conf, read again whenever the count at the start
// of $CLIENTMGR_SANDBOX/shim.gen moved, so a test changes them while the
// daemon runs by replacing that file (write a new one, then rename) and then
// counting one up:
//
//   time_offset N        seconds added to time(), gettimeofday() and
//                        clock_gettime(CLOCK_REALTIME, CLOCK_REALTIME_COARSE)
//   uptime_offset N      seconds added to the uptime that sysinfo() reports
//   stations IFNAME N    ioctl SIOCDEVPRIVATE + 6 on IFNAME answers N
//                        stations (data length N * 520); N < 0 makes the
//                        request fail with EOPNOTSUPP
//
// Missing variable, file or line: offset 0, 0 stations. Every other ioctl
// goes to the C library. errno is kept across the file reads. Child
// processes (shells, stubs, real tools) inherit the preload and see the
// same clocks. Monotonic clocks are left alone, so relative waits still
// take real time.
#include <dlfcn.h>
#include <fcntl.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/stat.h>
// after net/if.h, which keeps linux/if.h from redefining struct ifreq
#include <linux/sockios.h>
#include <linux/wireless.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr unsigned long kStationInfoRequest = SIOCDEVPRIVATE + 6;
constexpr long kStationEntrySize = 520;

// The C library's own function behind one of ours, looked up on first use.
// The shim is plain C at run time (no C++ runtime, so it adds no library to
// the daemon), hence the atomic builtins instead of a guarded static.
template <typename Fn>
Fn next_symbol(Fn& slot, const char* name) {
  Fn fn = __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
  if (fn == nullptr) {
    fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    __atomic_store_n(&slot, fn, __ATOMIC_RELEASE);
  }
  return fn;
}

// The settings as last read. The harness counts its replacements of
// shim.conf in shim.gen (32 bits at its start), mapped here once: a call
// reads shim.conf again only when that count moved, and makes no system call
// otherwise. Without shim.gen, a stat of shim.conf tells whether it changed.
pthread_mutex_t g_settings_mutex = PTHREAD_MUTEX_INITIALIZER;
char g_settings[4096];                         // guarded by g_settings_mutex
bool g_settings_read = false;                  // guarded by g_settings_mutex
struct stat g_settings_stat;                   // guarded by g_settings_mutex
bool g_generation_tried = false;               // guarded by g_settings_mutex
const uint32_t* g_generation = nullptr;        // guarded by g_settings_mutex
uint32_t g_settings_generation = 0;            // guarded by g_settings_mutex

bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Maps dir/shim.gen the first time; null when there is none.
const uint32_t* generation(const char* dir) {
  if (!g_generation_tried) {
    g_generation_tried = true;
    char path[4096];
    int len = snprintf(path, sizeof path, "%s/shim.gen", dir);
    int fd = len > 0 && static_cast<size_t>(len) < sizeof path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd >= 0) {
      void* map = mmap(nullptr, sizeof(uint32_t), PROT_READ, MAP_SHARED, fd, 0);
      close(fd);
      if (map != MAP_FAILED) g_generation = static_cast<const uint32_t*>(map);
    }
  }
  return g_generation;
}

// Reads dir/shim.conf into g_settings; false when there is none.
bool load_settings(const char* dir) {
  char path[4096];
  int len = snprintf(path, sizeof path, "%s/shim.conf", dir);
  if (len < 0 || static_cast<size_t>(len) >= sizeof path) return false;
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ssize_t n = read(fd, g_settings, sizeof g_settings - 1);
  close(fd);
  if (n < 0) return false;
  g_settings[n] = '\0';
  return true;
}

// The number on the line "key N" of text, or on "key ifname N" when ifname
// is given; 0 when there is none. text is taken apart.
long parse_setting(char* text, const char* key, const char* ifname) {
  char* save = nullptr;
  for (char* line = strtok_r(text, "\n", &save); line; line = strtok_r(nullptr, "\n", &save)) {
    char name[32];
    char word[IFNAMSIZ + 1];
    long value = 0;
    bool match = ifname == nullptr
                     ? sscanf(line, "%31s %ld", name, &value) == 2 && strcmp(name, key) == 0
                     : sscanf(line, "%31s %16s %ld", name, word, &value) == 3 &&
                           strcmp(name, key) == 0 && strcmp(word, ifname) == 0;
    if (match) return value;
  }
  return 0;
}

long g_time_offset = 0;    // guarded by g_settings_mutex; parsed when read
long g_uptime_offset = 0;  // guarded by g_settings_mutex; parsed when read

// Reads the settings again when they changed (the caller holds the mutex);
// false when there are none.
bool refresh_settings() {
  const char* dir = getenv("CLIENTMGR_SANDBOX");
  if (dir == nullptr) return false;
  bool changed = false;
  if (const uint32_t* count = generation(dir)) {
    const uint32_t now = __atomic_load_n(count, __ATOMIC_ACQUIRE);
    if (!g_settings_read || now != g_settings_generation) {
      g_settings_generation = now;
      g_settings_read = load_settings(dir);
      changed = true;
    }
  } else {
    char path[4096];
    int len = snprintf(path, sizeof path, "%s/shim.conf", dir);
    struct stat now;
    if (len < 0 || static_cast<size_t>(len) >= sizeof path || stat(path, &now) != 0) {
      g_settings_read = false;
    } else if (!g_settings_read || !same_file(now, g_settings_stat)) {
      g_settings_read = load_settings(dir);
      g_settings_stat = now;
      changed = true;
    }
  }
  if (changed && g_settings_read) {
    char copy[sizeof g_settings];
    memcpy(copy, g_settings, sizeof copy);
    g_time_offset = parse_setting(copy, "time_offset", nullptr);
    memcpy(copy, g_settings, sizeof copy);
    g_uptime_offset = parse_setting(copy, "uptime_offset", nullptr);
  }
  return g_settings_read;
}

// One of the clock offsets above, parsed once per change of the settings.
long clock_offset(const long& offset) {
  int saved_errno = errno;
  pthread_mutex_lock(&g_settings_mutex);
  const long value = refresh_settings() ? offset : 0;
  pthread_mutex_unlock(&g_settings_mutex);
  errno = saved_errno;
  return value;
}

// The station count set for ifname (the line "stations ifname N").
long stations(const char* ifname) {
  int saved_errno = errno;
  char copy[sizeof g_settings];
  pthread_mutex_lock(&g_settings_mutex);
  const bool ok = refresh_settings();
  if (ok) memcpy(copy, g_settings, sizeof copy);
  pthread_mutex_unlock(&g_settings_mutex);
  const long count = ok ? parse_setting(copy, "stations", ifname) : 0;
  errno = saved_errno;
  return count;
}

// Under qemu-user (CLIENTMGR_SHIM_GUEST set) this is the target's shim in
// the guest: stdout is line-buffered here, as stdbuf does on the host, and
// LD_PRELOAD is taken out of the environment, so that the host programs the
// daemon starts do not try to load it.
__attribute__((constructor)) void guest_setup() {
  if (getenv("CLIENTMGR_SHIM_GUEST") == nullptr) return;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  unsetenv("LD_PRELOAD");
}

}  // namespace

extern "C" {

time_t time(time_t* out) noexcept {
  using Fn = time_t (*)(time_t*);
  static Fn slot = nullptr;  // constant-initialised: no guard
  auto real = next_symbol(slot, "time");
  time_t now = real(nullptr) + clock_offset(g_time_offset);
  if (out != nullptr) *out = now;
  return now;
}

int gettimeofday(struct timeval* tv, void* tz) noexcept {
  using Fn = int (*)(struct timeval*, void*);
  static Fn slot = nullptr;  // constant-initialised: no guard
  auto real = next_symbol(slot, "gettimeofday");
  int rc = real(tv, tz);
  if (rc == 0) tv->tv_sec += clock_offset(g_time_offset);
  return rc;
}

int clock_gettime(clockid_t clock, struct timespec* ts) noexcept {
  using Fn = int (*)(clockid_t, struct timespec*);
  static Fn slot = nullptr;  // constant-initialised: no guard
  auto real = next_symbol(slot, "clock_gettime");
  int rc = real(clock, ts);
  if (rc == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
    ts->tv_sec += clock_offset(g_time_offset);
  return rc;
}

int sysinfo(struct sysinfo* info) noexcept {
  using Fn = int (*)(struct sysinfo*);
  static Fn slot = nullptr;  // constant-initialised: no guard
  auto real = next_symbol(slot, "sysinfo");
  int rc = real(info);
  if (rc == 0) info->uptime += clock_offset(g_uptime_offset);
  return rc;
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void* arg = va_arg(args, void*);
  va_end(args);
  if (request == kStationInfoRequest && arg != nullptr) {
    auto* req = static_cast<struct iwreq*>(arg);
    char name[IFNAMSIZ + 1] = {};
    memcpy(name, req->ifr_name, IFNAMSIZ);
    long count = stations(name);
    if (count < 0) {
      errno = EOPNOTSUPP;
      return -1;
    }
    req->u.data.length = static_cast<uint16_t>(count * kStationEntrySize);
    return 0;
  }
  using Fn = int (*)(int, unsigned long, void*);
  static Fn slot = nullptr;  // constant-initialised: no guard
  auto real = next_symbol(slot, "ioctl");
  return real(fd, request, arg);
}

}  // extern "C"

// clientmgrctl: lists and follows the stations clientmgr publishes in its
// client files, and steers the daemon through its pipes. The parsing and
// formatting live in clients.cpp and steer.cpp; this file does the I/O.
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "clientmgrctl/clients.h"
#include "clientmgrctl/steer.h"

namespace {

using namespace clientmgrctl;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr std::string_view kToolHelp =
    "usage: clientmgrctl COMMAND [ARGUMENTS]\n"
    "\n"
    "Ask and steer the clientmgr daemon.\n"
    "\n"
    "  list [--json] [--vap athN] [--associated]  the stations of the client table\n"
    "  watch [--json]                   follow joins, roams, addresses, leaves\n"
    "  rate athN MAC UP DOWN            a station's rates (kbit/s, -1 = configured)\n"
    "  vlan athN MAC VLAN               put a station on a VLAN\n"
    "  refresh                          expire old records, rewrite the client files\n"
    "  remove-vap N                     drop every station of VAP athN\n"
    "  l2tp IFNAME up|down              an L2TP interface went up or down\n"
    "  arp MAC IP athN                  a station's address, as ARP learned it\n"
    "  client MAC IP athN               a station's address, as a client-table line\n"
    "\n"
    "clientmgrctl COMMAND --help describes a command. Exit status: 0 done, 1 failed\n"
    "(no daemon reading the pipe, unreadable files), 2 bad command or argument.\n";

struct CommandHelp {
  std::string_view name;
  std::string_view text;
};

constexpr std::array<CommandHelp, 9> kCommandHelp{{
    {"list",
     "usage: clientmgrctl list [--json] [--vap athN] [--associated]\n"
     "One row per station of /etc/clientip, joined with /etc/clientip_assoc and\n"
     "/etc/client_accu_stat. ON: associated now; JOINED, LEFT: time since the last\n"
     "association and departure; JOIN/LEFT: their counts; TX, RX: bytes.\n"
     "--json prints one JSON document (fields in clientmgrctl(8)); --vap keeps one\n"
     "VAP; --associated keeps the stations associated now.\n"},
    {"watch",
     "usage: clientmgrctl watch [--json]\n"
     "Follows the client files and prints one line per change: joined, roamed\n"
     "(with the VAP it came from), address, left, removed. --json prints one JSON\n"
     "object per line. Runs until interrupted.\n"},
    {"rate",
     "usage: clientmgrctl rate athN MAC UP DOWN\n"
     "Sets the upstream and downstream rate of a station in kbit/s (0 .. 10000000;\n"
     "-1 = the rate configured for the VAP). Writes to /etc/event_pipe.\n"},
    {"vlan",
     "usage: clientmgrctl vlan athN MAC VLAN\n"
     "Puts a station on VLAN 1 .. 4094 (bridge mode). Writes to /etc/event_pipe.\n"},
    {"refresh",
     "usage: clientmgrctl refresh\n"
     "Has the daemon expire old records and rewrite the client files.\n"},
    {"remove-vap",
     "usage: clientmgrctl remove-vap N\n"
     "Drops every station of VAP athN (N = 0 .. 255) and rewrites the client files.\n"},
    {"l2tp",
     "usage: clientmgrctl l2tp IFNAME up|down\n"
     "Tells the daemon that the L2TP interface IFNAME (bcpN: profile N-50) went up\n"
     "or down, so that the shaping of the stations behind it is redone.\n"},
    {"arp",
     "usage: clientmgrctl arp MAC IP athN\n"
     "Hands the daemon a station's IPv4 address as the ARP watcher publishes it.\n"},
    {"client",
     "usage: clientmgrctl client MAC IP athN\n"
     "Writes a client-table line \"MAC IP athN\" to /etc/client_table_pipe.\n"},
}};

bool wants_help(std::string_view word) { return word == "--help" || word == "-h"; }

int say(int status, std::string_view message) {
  std::fprintf(stderr, "clientmgrctl: %.*s\n", static_cast<int>(message.size()), message.data());
  return status;
}

int print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
    return say(kExitFailure, std::string("cannot write the output: ") + std::strerror(errno));
  return kExitOk;
}

std::int64_t uptime_now() {
  struct sysinfo info {};
  if (::sysinfo(&info) != 0) return 0;
  return info.uptime;
}

// ----- reading the client files

struct FileReading {
  bool present = false;
  std::string text;
  dev_t dev = 0;
  ino_t ino = 0;
  std::int64_t mtime = 0;
};

std::int64_t nanoseconds(const struct timespec& t) {
  return static_cast<std::int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// Reads a file whole from one descriptor. A missing file is "not present";
// anything but a regular file is an error.
bool read_file(std::string_view path, FileReading& out, std::string& error) {
  out = FileReading{};
  const std::string name(path);
  const int fd = ::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    if (errno == ENOENT) return true;
    error = name + ": " + std::strerror(errno);
    return false;
  }
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (!ok) error = name + ": not a regular file";
  char buffer[8192];
  while (ok) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = name + ": " + std::strerror(errno);
      ok = false;
    }
    if (n <= 0) break;
    out.text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  if (!ok) return false;
  out.present = true;
  out.dev = st.st_dev;
  out.ino = st.st_ino;
  out.mtime = nanoseconds(st.st_mtim);
  return true;
}

// Whether the path still names the file that was read (or still names
// nothing). A file replaced by rename gets a new inode.
bool still_current(std::string_view path, const FileReading& reading) {
  struct stat st {};
  const std::string name(path);
  if (::stat(name.c_str(), &st) != 0) return !reading.present && errno == ENOENT;
  return reading.present && st.st_dev == reading.dev && st.st_ino == reading.ino &&
         static_cast<std::uint64_t>(st.st_size) == reading.text.size();
}

std::optional<std::int64_t> mtime_of(const FileReading& reading) {
  if (!reading.present) return std::nullopt;
  return reading.mtime;
}

// The three files as one consistent reading: every file read whole and all
// three in place at one moment (else read again, for up to about a second),
// and, when the daemon's rewrite order allows telling, no rewrite half done
// (else read again for up to about half a second: a daemon that left a file as it
// was still gives a reading).
std::optional<std::vector<Station>> read_stations(std::string& error) {
  constexpr std::array<std::string_view, 3> kPaths{kClientListPath, kClientAssocListPath, kClientStatsPath};
  constexpr int kAttempts = 500;
  constexpr int kOrderAttempts = 250;
  std::array<FileReading, 3> files;
  int unordered = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (attempt > 0) {
      const struct timespec pause {0, 2000000};
      ::nanosleep(&pause, nullptr);
    }
    for (std::size_t i = 0; i < files.size(); ++i)
      if (!read_file(kPaths[i], files[i], error)) return std::nullopt;
    bool current = true;
    for (std::size_t i = 0; i < files.size(); ++i) current = current && still_current(kPaths[i], files[i]);
    if (!current) continue;
    const bool whole = rewrite_finished(mtime_of(files[0]), mtime_of(files[1]), mtime_of(files[2])) &&
                       files_agree(files[0].text, files[1].text, files[2].text);
    if (!whole && ++unordered < kOrderAttempts)
      continue;
    return join_clients(files[0].text, files[1].text, files[2].text);
  }
  error = "the client files keep changing; try again";
  return std::nullopt;
}

// ----- commands

int command_list(const std::vector<std::string_view>& args) {
  bool json = false;
  bool associated = false;
  std::string vap;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--json") {
      json = true;
    } else if (args[i] == "--associated") {
      associated = true;
    } else if (args[i] == "--vap") {
      if (i + 1 == args.size()) return say(kExitUsage, "list: --vap needs a VAP name athN");
      if (!parse_vap(args[i + 1])) return say(kExitUsage, "list: bad VAP '" + std::string(args[i + 1]) + "': a VAP name ath0 .. ath255");
      vap = std::string(args[++i]);
    } else {
      return say(kExitUsage, "list: unknown option '" + std::string(args[i]) + "' (see clientmgrctl list --help)");
    }
  }
  std::string error;
  auto stations = read_stations(error);
  if (!stations) return say(kExitFailure, error);
  const std::int64_t uptime = uptime_now();
  auto shown = filter_stations(std::move(*stations), vap, associated);
  return print(json ? format_json(shown, uptime) : format_table(shown, uptime));
}

bool is_client_file(std::string_view name) {
  return kClientListPath.substr(5) == name || kClientAssocListPath.substr(5) == name ||
         kClientStatsPath.substr(5) == name;
}

int command_watch(const std::vector<std::string_view>& args) {
  bool json = false;
  for (std::string_view arg : args) {
    if (arg != "--json") return say(kExitUsage, "watch: unknown option '" + std::string(arg) + "' (see clientmgrctl watch --help)");
    json = true;
  }
  const int fd = ::inotify_init1(IN_CLOEXEC);
  if (fd < 0) return say(kExitFailure, std::string("inotify: ") + std::strerror(errno));
  // The daemon replaces a file by renaming a new one over it; it removes them at start.
  if (::inotify_add_watch(fd, "/etc", IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE) < 0)
    return say(kExitFailure, std::string("inotify on /etc: ") + std::strerror(errno));
  std::string error;
  auto before = read_stations(error);
  if (!before) return say(kExitFailure, error);
  alignas(struct inotify_event) char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return say(kExitFailure, std::string("inotify: ") + std::strerror(errno));
    bool relevant = false;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + at);
      if (event->mask & IN_Q_OVERFLOW) relevant = true;
      if (event->len > 0 && is_client_file(event->name)) relevant = true;
      at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
    }
    if (!relevant) continue;
    auto after = read_stations(error);
    if (!after) return say(kExitFailure, error);
    std::string text;
    for (const Change& change : diff_stations(*before, *after)) text += format_change(change, json);
    if (!text.empty() && print(text) != kExitOk) return kExitFailure;
    before = std::move(after);
  }
}

// Writes the line in one write() without ever blocking: no reader means
// no daemon, and a full pipe is waited on for at most two seconds.
int write_pipe(const PipeLine& line) {
  const std::string path(line.pipe);
  std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away is reported, not fatal
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    return say(kExitFailure, path + ": " + std::strerror(errno) + " (is clientmgr running?)");
  if (!S_ISFIFO(st.st_mode)) return say(kExitFailure, path + ": not a FIFO; nothing written");
  const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0 && errno == ENXIO) return say(kExitFailure, "no daemon is reading " + path + " (is clientmgr running?)");
  if (fd < 0) return say(kExitFailure, path + ": " + std::strerror(errno));
  if (::fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    ::close(fd);
    return say(kExitFailure, path + ": not a FIFO; nothing written");
  }
  ssize_t n = -1;
  for (int waited = 0; waited <= 20; ++waited) {
    n = ::write(fd, line.line.data(), line.line.size());
    if (n >= 0 || (errno != EAGAIN && errno != EINTR)) break;
    struct pollfd p {fd, POLLOUT, 0};
    ::poll(&p, 1, 100);
  }
  const int saved = errno;
  ::close(fd);
  if (n == static_cast<ssize_t>(line.line.size())) return kExitOk;
  if (n < 0 && saved == EAGAIN) return say(kExitFailure, path + ": the pipe stays full; nothing written");
  if (n < 0 && saved == EPIPE) return say(kExitFailure, "no daemon is reading " + path + " (is clientmgr running?)");
  return say(kExitFailure, path + ": write failed: " + std::strerror(saved));
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string_view> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::fputs(kToolHelp.data(), stderr);
    return kExitUsage;
  }
  if (wants_help(args[0])) return print(kToolHelp);
  const std::string_view command = args[0];
  args.erase(args.begin());
  for (std::string_view arg : args) {
    if (!wants_help(arg)) continue;
    for (const CommandHelp& help : kCommandHelp)
      if (help.name == command) return print(help.text);
  }
  if (command == "list") return command_list(args);
  if (command == "watch") return command_watch(args);
  const SteerResult result = build_steering_line(command, args);
  if (!result.line && !is_steering_command(command)) return say(kExitUsage, result.error + " (see clientmgrctl --help)");
  if (!result.line) return say(kExitUsage, result.error);
  return write_pipe(*result.line);
}

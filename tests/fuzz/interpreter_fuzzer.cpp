// The pipes end to end: the input is written into a pipe and read by the
// daemon's own handlers, as the loop would call them (the event
// interpreter for "/etc/iwevent_pipe" and "/etc/event_pipe", or the
// client-table pipe handler), against a context with the full master
// configuration, SNMP traps enabled and the command recorder installed:
// nothing runs, and every command the handlers would run is checked.
//
// Input: the first byte picks the pipe (bit 0: client-table pipe). When the
// rest holds a line "--", the text before it is the content of
// "/proc/wifi0/neighbor_ap" and "/proc/wifi1/neighbor_ap" (what a rogue AP
// event reads) and the text after it goes into the pipe.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "clients/table.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "daemon/client_pipe.h"
#include "daemon/interpreter.h"
#include "fuzz_common.h"
#include "model/context.h"
#include "snmp/traps.h"
#include "vlan/pool.h"

namespace {

constexpr std::string_view kDefaultNeighbours =
    "00:11:22:33:44:66 6 -60 1 2 3 4 5 6 7 8 [Cafe]\n"
    "02:00:00:00:00:01 11 -70 1 2 3 4 5 6 7 8 [Shop]\n";

int g_pipe[2] = {-1, -1};
std::shared_ptr<config::taglist> g_masterconf;
vlan::VlanState g_vlan;  // the pools of the master configuration, built once

// Every blank-separated word and every line of the text, and the texts
// between '[' and ']' (neighbour SSIDs): what the handlers may copy.
std::vector<std::string> fuzzed_values(std::string_view text) {
  std::vector<std::string> out;
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t nl = text.find('\n', pos);
    const std::string_view line = text.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos);
    out.emplace_back(line);
    std::size_t w = 0;
    while (w < line.size()) {
      while (w < line.size() && (line[w] == ' ' || line[w] == '\t')) ++w;
      std::size_t e = w;
      while (e < line.size() && line[e] != ' ' && line[e] != '\t') ++e;
      if (e > w) out.emplace_back(line.substr(w, e - w));
      w = e;
    }
    const std::size_t open = line.find('['), close = line.rfind(']');
    if (open != std::string_view::npos && close != std::string_view::npos && close > open)
      out.emplace_back(line.substr(open + 1, close - open - 1));
    if (nl == std::string_view::npos) break;
    pos = nl + 1;
  }
  return out;
}

void drain(int fd) {
  char buf[4096];
  while (::read(fd, buf, sizeof buf) > 0) {
  }
}

std::size_t pending_bytes(int fd) {
  int n = 0;
  if (::ioctl(fd, FIONREAD, &n) != 0) return 0;
  return n > 0 ? static_cast<std::size_t>(n) : 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::require_sandbox();
  fuzz::write_wireless_status();
  fuzz::write_file("/proc/wifi0/neighbor_ap", kDefaultNeighbours);
  fuzz::write_file("/proc/wifi1/neighbor_ap", kDefaultNeighbours);
  if (::pipe2(g_pipe, O_NONBLOCK | O_CLOEXEC) != 0) std::abort();
  ::fcntl(g_pipe[1], F_SETPIPE_SZ, 1 << 20);
  fuzz::DefaultConfig config = fuzz::load_default_config();
  g_masterconf = std::move(config.masterconf);
  g_vlan = std::move(config.vlan);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size > 65536) return 0;
  const bool client_pipe = (data[0] & 1) != 0;
  std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (fuzz::skip_for_nul(text)) return -1;

  fuzz::CheckingRecorder recorder;
  if (const std::size_t cut = text.find("\n--\n"); cut != std::string_view::npos) {
    fuzz::write_file("/proc/wifi0/neighbor_ap", text.substr(0, cut + 1));
    fuzz::write_file("/proc/wifi1/neighbor_ap", text.substr(0, cut + 1));
    recorder.values = fuzzed_values(text.substr(0, cut));
    text.remove_prefix(cut + 4);
  }
  for (auto& v : fuzzed_values(text)) recorder.values.push_back(std::move(v));

  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  clients::init_records(*ctx);
  ctx->masterconf = g_masterconf;
  ctx->uplink = "br0";
  ctx->event_config = std::make_unique<snmp::EventConfig>(snmp::EventConfig{
      snmp::get_file_creation_time(config::kMasterConfigPath), snmp::get_oid_prefix(), "2c", "public",
      "10.9.9.9", 1});
  ctx->vlan = g_vlan;

  drain(g_pipe[0]);
  const ssize_t put = ::write(g_pipe[1], text.data(), text.size());
  if (put != static_cast<ssize_t>(text.size())) std::abort();
  // One handler call reads at most one chunk, as in the loop; the pipe's
  // unfinished line is carried from one read to the next.
  daemon_core::PipeCarry carry, unused;
  while (pending_bytes(g_pipe[0]) > 0) {
    if (client_pipe) {
      daemon_core::serve_client_pipe(*ctx, g_pipe[0], carry);
    } else {
      fd_set ready;
      FD_ZERO(&ready);
      FD_SET(g_pipe[0], &ready);
      daemon_core::interpret_events(*ctx, -1, g_pipe[0], ready, unused, carry);
    }
  }
  return 0;
}

// The client-table pipe: lines "<mac> <ipv4> <ifname>\n" written by other
// programs of the firmware into "/etc/client_table_pipe". Main thread only.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "daemon/pipe_lines.h"

namespace daemon_core {

struct DaemonContext;

inline constexpr const char* kClientTablePipePath = "/etc/client_table_pipe";

// What one client line says.
struct ClientLine {
  std::string mac;       // 17 characters, lower case
  // The 15 characters from offset 18 (a 16-byte field): for a short address
  // the separating space and the start of the interface name follow it, as
  // the consumer reads the address only up to the first space.
  std::string ip_field;
  std::string ifname;    // the second word after the MAC; "" when missing
  int ifindex = 0;       // the interface number of ifname
};

using IfindexOf = int (*)(std::string_view name);

// nullopt when the line does not begin with a MAC address. The interface
// number comes from ifindex_of (the "/etc/dev_lan_if" lookup by default).
// Prints nothing.
std::optional<ClientLine> parse_client_line(std::string_view line, IfindexOf ifindex_of);
std::optional<ClientLine> parse_client_line(std::string_view line);

// One ready event on the pipe: reads at most 1023 bytes and acts on every
// line they complete (joined with what carry kept from the last read).
// Prints "event from client_pipe" and, per bad line, "no mac!!! ###<line>###".
void serve_client_pipe(DaemonContext& ctx, int pipe_fd, PipeCarry& carry);

}  // namespace daemon_core

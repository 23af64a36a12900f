// The routing netlink socket: link messages carrying wireless-extension
// events. They are only reported (the same events arrive as text through the
// iwevent pipe). Main thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace daemon_core {

struct DaemonContext;

inline constexpr std::size_t kNetlinkBufferSize = 8192;

// The interface name of an interface index; "" when unknown.
using IfnameOf = std::function<std::string(int ifindex)>;

// Walks the netlink messages of one receive and returns the diagnostic
// lines (without their line breaks): "IWEVCUSTOM", "addr: <AA:BB:..>",
// "name: <ifname>", "IWEVMICHAELMICFAILURE", "dellink" and, for a message
// whose length is below 16 or beyond the bytes left, "malformed message"
// (which ends the walk). Bytes past the end of the span read as zero, as
// in a cleared receive buffer; nothing outside the span is touched.
std::vector<std::string> walk_netlink(std::span<const std::uint8_t> bytes,
                                      const IfnameOf& ifname_of);

// socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE) bound to the link group with
// our pid (the bind result is not looked at); -1 when the socket fails.
int open_netlink_socket();

// One ready event: receives at most 8192 bytes and prints the walk's
// lines, or "error" when the receive fails.
void serve_netlink(const DaemonContext& ctx, int netlink_fd);

}  // namespace daemon_core

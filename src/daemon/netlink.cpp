#include "daemon/netlink.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "common/driver.h"
#include "common/text.h"
#include "model/context.h"

namespace daemon_core {

namespace {

constexpr std::size_t kMessageHeaderSize = 16;  // struct nlmsghdr
constexpr std::size_t kIfinfoIndexOffset = 4;   // in struct ifinfomsg
constexpr std::size_t kIfinfoSize = 16;
constexpr std::uint16_t kNewLink = 16;          // RTM_NEWLINK
constexpr std::uint16_t kDelLink = 17;          // RTM_DELLINK
constexpr std::uint16_t kWirelessAttribute = 11;  // IFLA_WIRELESS
constexpr std::uint16_t kCustomEvent = 0x8C02;    // IWEVCUSTOM
constexpr std::uint16_t kMicFailureEvent = 0x8C06;  // IWEVMICHAELMICFAILURE
constexpr std::size_t kEventAddrOffset = 6;
constexpr std::size_t kEventTextOffset = 8;
constexpr std::uint32_t kLinkGroup = 1;         // RTMGRP_LINK

std::size_t align4(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

// Host-order reads that give 0 for bytes past the end of the data.
struct Bytes {
  std::span<const std::uint8_t> data;

  std::uint8_t u8(std::size_t at) const { return at < data.size() ? data[at] : 0; }
  std::uint16_t u16(std::size_t at) const {
    std::array<std::uint8_t, 2> raw{u8(at), u8(at + 1)};
    std::uint16_t value;
    std::memcpy(&value, raw.data(), sizeof value);
    return value;
  }
  std::uint32_t u32(std::size_t at) const {
    std::array<std::uint8_t, 4> raw{u8(at), u8(at + 1), u8(at + 2), u8(at + 3)};
    std::uint32_t value;
    std::memcpy(&value, raw.data(), sizeof value);
    return value;
  }
};

// The wireless events inside one attribute [start, end).
void walk_wireless_events(const Bytes& bytes, std::size_t start, std::size_t end, int ifindex,
                          const IfnameOf& ifname_of, std::vector<std::string>& out) {
  for (std::size_t event = start; event + 4 <= end;) {
    const std::uint16_t length = bytes.u16(event);
    if (length < 5) break;
    const std::uint16_t command = bytes.u16(event + 2);
    if (command == kCustomEvent) {
      out.emplace_back("IWEVCUSTOM");
      const std::size_t a = event + kEventAddrOffset;
      out.push_back(common::format("addr: %02X:%02X:%02X:%02X:%02X:%02X", bytes.u8(a),
                                   bytes.u8(a + 1), bytes.u8(a + 2), bytes.u8(a + 3),
                                   bytes.u8(a + 4), bytes.u8(a + 5)));
      out.push_back("name: " + common::cut(ifname_of(ifindex), 16));
      // The custom text runs to the attribute's end; it is not reported.
      if (event + kEventTextOffset > end) break;
    } else if (command == kMicFailureEvent) {
      out.emplace_back("IWEVMICHAELMICFAILURE");
    }
    event += length;
  }
}

// The route attributes of one new-link message starting at message.
void walk_new_link(const Bytes& bytes, std::size_t message, std::uint32_t message_length,
                   const IfnameOf& ifname_of, std::vector<std::string>& out) {
  const auto ifindex =
      static_cast<std::int32_t>(bytes.u32(message + kMessageHeaderSize + kIfinfoIndexOffset));
  std::size_t attribute = message + kMessageHeaderSize + kIfinfoSize;
  // The count starts at the length after the message header only: the
  // interface header is not taken off, so the walk may look up to 16 bytes
  // past the message.
  std::int64_t remaining = static_cast<std::int64_t>(message_length) - kMessageHeaderSize;
  while (remaining >= 4) {
    const std::uint16_t length = bytes.u16(attribute);
    if (length < 4 || length > remaining) break;
    if (bytes.u16(attribute + 2) == kWirelessAttribute)
      walk_wireless_events(bytes, attribute + 4, attribute + length, ifindex, ifname_of, out);
    remaining -= static_cast<std::int64_t>(align4(length));
    attribute += align4(length);
  }
}

}  // namespace

std::vector<std::string> walk_netlink(std::span<const std::uint8_t> data,
                                      const IfnameOf& ifname_of) {
  std::vector<std::string> out;
  const Bytes bytes{data};
  std::size_t message = 0;
  std::size_t left = data.size();
  while (left >= kMessageHeaderSize) {
    const std::uint32_t length = bytes.u32(message);
    if (length > left || length < kMessageHeaderSize) {
      out.emplace_back("malformed message");
      break;
    }
    const std::uint16_t type = bytes.u16(message + 4);
    if (type == kNewLink) {
      walk_new_link(bytes, message, length, ifname_of, out);
    } else if (type == kDelLink) {
      out.emplace_back("dellink");
    }
    const std::size_t step = align4(length);
    if (step >= left) break;
    message += step;
    left -= step;
  }
  return out;
}

int open_netlink_socket() {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) return -1;
  struct sockaddr_nl local {};
  local.nl_family = AF_NETLINK;
  local.nl_pid = static_cast<std::uint32_t>(::getpid());
  local.nl_groups = kLinkGroup;
  (void)::bind(fd, reinterpret_cast<const struct sockaddr*>(&local), sizeof local);
  return fd;
}

void serve_netlink(const DaemonContext& ctx, int netlink_fd) {
  std::array<std::uint8_t, kNetlinkBufferSize> buffer{};
  struct sockaddr_nl source {};
  socklen_t source_length = sizeof source;
  const ssize_t got = ::recvfrom(netlink_fd, buffer.data(), buffer.size(), MSG_WAITALL,
                                 reinterpret_cast<struct sockaddr*>(&source), &source_length);
  if (got < 0) {
    std::puts("error");
    std::fflush(stdout);
    return;
  }
  const int udp_socket = ctx.udp_socket;
  const auto lines =
      walk_netlink(std::span<const std::uint8_t>(buffer.data(), static_cast<std::size_t>(got)),
                   [udp_socket](int ifindex) { return common::driver_ifname(udp_socket, ifindex); });
  for (const std::string& line : lines) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }
}

}  // namespace daemon_core

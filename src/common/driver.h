// Interface ioctls, all in one place: the hardware address of an interface,
// the name of an interface index, and the wireless driver's private
// station-information request.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace common {

using HwAddr = std::array<std::uint8_t, 6>;

// SIOCGIFHWADDR on the given IPv4 datagram socket (the daemon's own; a
// fresh one when socket_fd is below 0); nullopt on any failure. The name is
// cut to 15 characters.
std::optional<HwAddr> driver_hwaddr(const std::string& ifname, int socket_fd = -1);

// SIOCGIFNAME on the given socket; "" when the request fails.
std::string driver_ifname(int socket_fd, int ifindex);

// The station-information request (SIOCDEVPRIVATE + 6) on the given socket
// (a fresh one when socket_fd is below 0) with the one 65535-byte result
// buffer of the module; the byte length the driver returned.
enum class StationInfoError { kNone, kSocket, kRequest };
struct StationInfo {
  StationInfoError error = StationInfoError::kNone;
  int length = 0;
};
StationInfo driver_station_info(const std::string& ifname, int socket_fd = -1);

// Size of one station entry in the driver's table.
inline constexpr int kStationEntrySize = 520;

}  // namespace common

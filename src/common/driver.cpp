#include "common/driver.h"

#include <net/if.h>
// after net/if.h, which keeps linux/if.h from redefining struct ifreq
#include <linux/sockios.h>
#include <linux/wireless.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <mutex>

namespace common {

namespace {

constexpr unsigned long kStationInfoRequest = SIOCDEVPRIVATE + 6;
constexpr std::size_t kStationBufferSize = 65535;

// The caller's socket, or a fresh one that lives as long as this object.
class Socket {
 public:
  explicit Socket(int given)
      : fd_(given >= 0 ? given : ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), owned_(given < 0) {}
  ~Socket() {
    if (owned_ && fd_ >= 0) ::close(fd_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
  bool owned_;
};

// The driver writes the station table here; allocated once (its pages are
// touched only as far as a driver fills them).
std::mutex g_station_mutex;
std::array<std::uint8_t, kStationBufferSize> g_station_buffer;  // guarded by g_station_mutex

// Fills a kernel interface-name field, cutting the name to fit.
void copy_ifname(char (&dest)[IFNAMSIZ], const std::string& name) {
  std::memset(dest, 0, sizeof dest);
  std::memcpy(dest, name.data(), std::min(name.size(), sizeof dest - 1));
}

}  // namespace

std::optional<HwAddr> driver_hwaddr(const std::string& ifname, int socket_fd) {
  Socket sock(socket_fd);
  if (sock.fd() < 0) return std::nullopt;
  struct ifreq req {};
  copy_ifname(req.ifr_name, ifname);
  req.ifr_hwaddr.sa_family = AF_INET;
  if (::ioctl(sock.fd(), SIOCGIFHWADDR, &req) != 0) return std::nullopt;
  HwAddr addr{};
  std::memcpy(addr.data(), req.ifr_hwaddr.sa_data, addr.size());
  return addr;
}

std::string driver_ifname(int socket_fd, int ifindex) {
  struct ifreq req {};
  req.ifr_ifindex = ifindex;
  if (socket_fd < 0 || ::ioctl(socket_fd, SIOCGIFNAME, &req) != 0) return std::string();
  return std::string(req.ifr_name, ::strnlen(req.ifr_name, IFNAMSIZ));
}

StationInfo driver_station_info(const std::string& ifname, int socket_fd) {
  Socket sock(socket_fd);
  if (sock.fd() < 0) return {StationInfoError::kSocket, 0};
  std::lock_guard<std::mutex> lock(g_station_mutex);
  struct iwreq req {};
  copy_ifname(req.ifr_name, ifname);
  req.u.data.pointer = g_station_buffer.data();
  req.u.data.length = static_cast<std::uint16_t>(kStationBufferSize);
  if (::ioctl(sock.fd(), kStationInfoRequest, &req) < 0) return {StationInfoError::kRequest, 0};
  return {StationInfoError::kNone, req.u.data.length};
}

}  // namespace common

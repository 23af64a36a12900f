#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/client_pipe.h"
#include "daemon/loop.h"
#include "daemon/netlink.h"
#include "daemon/startup.h"

namespace {

TEST(SpineTimeout, Rule) {
  struct Case { std::int32_t fast_poll; timeval left, want; };
  const Case cases[] = {
      {1, {17, 5}, {2, 5}},                              // fast poll whatever is left
      {0, {1, 10}, {1, 10}}, {0, {30, 0}, {30, 0}},    // a remainder of 1..30 is kept
      {0, {0, 400}, {30, 400}}, {0, {-5, 0}, {30, 0}}, // nothing left or passed deadline: a full wait
      {0, {31, 7}, {30, 7}},                             // far deadline
      {0, {10, -1}, {10, 0}},                            // negative microseconds
  };
  for (const Case& c : cases) {
    const timeval got = daemon_core::next_select_timeout(c.fast_poll, c.left);
    EXPECT_EQ(got.tv_sec, c.want.tv_sec) << c.fast_poll << " " << c.left.tv_sec;
    EXPECT_EQ(got.tv_usec, c.want.tv_usec) << c.fast_poll << " " << c.left.tv_usec;
  }
}

TEST(SpineClientLine, FieldsAndLinesWithoutMac) {
  using namespace std::string_view_literals;
  constexpr std::string_view kMac = "00:11:22:33:44:55";
  struct Case { std::string_view line, mac, ip_field, ifname; int ifindex; };
  const Case cases[] = {
      // A short address is followed in the 16-byte field by the space and the interface.
      {"00:11:22:33:44:55 10.0.0.5 ath1", kMac, "10.0.0.5 ath1", "ath1", 1},
      {"00:11:22:33:44:55 192.168.100.200 ath1", kMac, "192.168.100.200", "ath1", 1},
      {"00:1A:2B:3C:4D:5E 10.1.2.3 guest\r", "00:1a:2b:3c:4d:5e", "10.1.2.3 guest\r", "guest", 5},
      {"00:11:22:33:44:55\0 10.0.0.9 ath1"sv, kMac, "", "", -7},  // the line ends at its first NUL
  };
  auto ifindex = [](std::string_view name) { return name == "ath1" ? 1 : name == "guest" ? 5 : -7; };
  for (const Case& c : cases) {
    const auto parsed = daemon_core::parse_client_line(c.line, ifindex);
    ASSERT_TRUE(parsed.has_value()) << c.line;
    EXPECT_EQ(std::tie(parsed->mac, parsed->ip_field, parsed->ifname, parsed->ifindex),
              std::tie(c.mac, c.ip_field, c.ifname, c.ifindex)) << c.line;
  }
  for (const std::string_view bad : {"00:11:22:33:4g:55 1.2.3.4 ath1"sv, "00:11:22:33\0:44:55 10.0.0.9 ath1"sv})
    EXPECT_FALSE(daemon_core::parse_client_line(bad, ifindex).has_value()) << bad;
}

TEST(SpineKnownAp, KeepsTheFirst256AndCutsTokensTo17) {
  std::string list;
  for (int i = 0; i < 300; ++i) list += "00:11:22:33:" + std::to_string(100 + i) + " ";
  std::array<common::FixedText<daemon_core::kKnownApLength>, daemon_core::kKnownApSlots> slots;
  EXPECT_EQ(daemon_core::fill_known_ap_list(slots, list), 256);
  EXPECT_EQ(slots[255], "00:11:22:33:355");
  EXPECT_EQ(daemon_core::fill_known_ap_list(slots, "  AA:BB:CC:DD:EE:FF   aa:bb:cc:dd:ee:ff:00:11 x "), 3);
  EXPECT_EQ(slots[1], "aa:bb:cc:dd:ee:ff");
  EXPECT_EQ(slots[2], "x");
  EXPECT_EQ(daemon_core::fill_known_ap_list(slots, "   "), 0);
}

// --- netlink walk on hand-built messages, in this machine's byte order as
// the kernel sends them (the big-endian targets run the same cases)

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;
template <typename T>
void put(Bytes& b, T v) {
  std::uint8_t raw[sizeof v];
  std::memcpy(raw, &v, sizeof v);
  b.insert(b.end(), raw, raw + sizeof v);
}
void put_event(Bytes& b, std::uint16_t length, std::uint16_t command) {
  put<std::uint16_t>(b, length);
  put<std::uint16_t>(b, command);
}
// A link message of the type for interface 7, with a wireless attribute
// when it holds events: a short one (4 bytes), a custom one, a MIC failure.
Bytes link_message(std::uint16_t type, bool short_event = false, bool custom = false, bool mic = false) {
  Bytes events;
  if (short_event) put_event(events, 4, 0x8C06);
  if (custom) {
    put_event(events, 20, 0x8C02);
    put<std::uint16_t>(events, 0);  // iw_point padding before the address
    events.insert(events.end(), {0xde, 0xad, 0xbe, 0xef, 0x00, 0x0a, 'h', 'e', 'l', 'l', 'o', '!', '!', '!'});
  }
  if (mic) {
    put_event(events, 8, 0x8C06);
    put<std::uint32_t>(events, 0);
  }
  const std::size_t attribute = events.empty() ? 0 : 4 + events.size();
  Bytes b;
  put<std::uint32_t>(b, static_cast<std::uint32_t>(32 + ((attribute + 3) & ~std::size_t{3})));
  put<std::uint16_t>(b, type);
  put<std::uint16_t>(b, 0);  // flags
  put<std::uint32_t>(b, 0);  // sequence
  put<std::uint32_t>(b, 0);  // port
  put<std::uint16_t>(b, 0);  // family, padding
  put<std::uint16_t>(b, 1);  // device type
  put<std::int32_t>(b, 7);   // interface index
  put<std::uint64_t>(b, 0);  // flags, change mask
  if (attribute) {
    put_event(b, static_cast<std::uint16_t>(attribute), 11);
    b.insert(b.end(), events.begin(), events.end());
    b.resize((b.size() + 3) & ~std::size_t{3});
  }
  return b;
}
Lines walk(const Bytes& bytes) {
  return daemon_core::walk_netlink(bytes, [](int ifindex) { return ifindex == 7 ? "ath0" : ""; });
}

TEST(SpineNetlink, EventsMalformedAndTruncatedReceives) {
  const Bytes first = link_message(16, false, true, true);
  const Lines first_lines = {"IWEVCUSTOM", "addr: DE:AD:BE:EF:00:0A", "name: ath0", "IWEVMICHAELMICFAILURE"};
  EXPECT_EQ(walk(first), first_lines);
  EXPECT_EQ(walk(link_message(16, true, false, true)), Lines{});  // a short event stops the attribute
  Bytes tiny = link_message(17);
  const std::uint32_t below_header = 8;
  std::memcpy(tiny.data(), &below_header, sizeof below_header);
  EXPECT_EQ(walk(tiny), Lines{"malformed message"});
  // Every cut of a good buffer: the messages that arrived whole are handled,
  // a cut one with at least a header is malformed (in the sanitizer build this
  // also checks that no byte past the cut is read).
  Bytes full = first;
  const Bytes tail = link_message(17);
  full.insert(full.end(), tail.begin(), tail.end());
  for (std::size_t n = 0; n <= full.size(); ++n) {
    Lines want = n >= first.size() ? first_lines : Lines{};
    const std::size_t rest = n >= first.size() ? n - first.size() : n;
    if (rest >= 16) want.push_back(n == full.size() ? "dellink" : "malformed message");
    EXPECT_EQ(walk(Bytes(full.begin(), full.begin() + n)), want) << n;
  }
}

}  // namespace

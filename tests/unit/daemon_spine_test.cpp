#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/client_pipe.h"
#include "daemon/loop.h"
#include "daemon/netlink.h"
#include "daemon/startup.h"

namespace {

using daemon_core::next_select_timeout;

// --- time-out rule

TEST(SpineTimeout, Rule) {
  struct Case {
    std::int32_t fast_poll;
    timeval left;
    timeval want;
  };
  const Case cases[] = {
      {1, {17, 5}, {2, 5}},         // fast poll whatever is left
      {1, {0, -3}, {2, 0}},
      {0, {1, 10}, {1, 10}},        // a remainder of 1..30 is kept
      {0, {30, 0}, {30, 0}},
      {0, {12, 999999}, {12, 999999}},
      {0, {0, 400}, {30, 400}},     // nothing left: a full wait
      {0, {-5, 0}, {30, 0}},        // a passed deadline
      {0, {31, 7}, {30, 7}},        // a far deadline
      {0, {10, -1}, {10, 0}},       // negative microseconds
  };
  for (const Case& c : cases) {
    const timeval got = next_select_timeout(c.fast_poll, c.left);
    EXPECT_EQ(got.tv_sec, c.want.tv_sec) << c.fast_poll << " " << c.left.tv_sec;
    EXPECT_EQ(got.tv_usec, c.want.tv_usec) << c.fast_poll << " " << c.left.tv_usec;
  }
}

TEST(SpineTimedWork, HeldCodeAges) {
  struct Case {
    std::uint8_t code;
    std::int64_t age;
    bool due;
  };
  const Case cases[] = {{11, 59, false}, {11, 60, true},   {12, 179, false},
                        {12, 180, true}, {0, 1000, false}, {21, 1000, false}};
  for (const Case& c : cases)
    EXPECT_EQ(daemon_core::held_code_due(c.code, c.age), c.due) << int(c.code) << " " << c.age;
}

TEST(SpineTimedWork, NoDeadlineLeavesTheRemainder) {
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  timeval timeout{17, 3};
  daemon_core::run_timed_work(*ctx, timeout);
  EXPECT_EQ(timeout.tv_sec, 17);
  EXPECT_EQ(timeout.tv_usec, 3);
}

// --- client-table lines

constexpr std::string_view kStation = "00:11:22:33:44:55";

int fake_ifindex(std::string_view name) {
  if (name == "ath1") return 1;
  if (name == "guest") return 5;
  return -7;
}

std::vector<std::string> lines_of(std::string_view chunk) {
  std::vector<std::string> out;
  for (auto line = daemon_core::next_line(chunk); line;
       chunk = daemon_core::skip_line(chunk), line = daemon_core::next_line(chunk))
    out.emplace_back(*line);
  return out;
}

TEST(SpineClientLine, Splitting) {
  EXPECT_EQ(lines_of("a\nb\n"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(lines_of("a\nb"), (std::vector<std::string>{"a"}));  // a trailing piece is lost
  EXPECT_EQ(lines_of("\nx\n"), (std::vector<std::string>{"", "x"}));
  EXPECT_TRUE(lines_of("").empty());
  EXPECT_TRUE(lines_of("no newline").empty());
  EXPECT_EQ(daemon_core::skip_line("abc"), "abc");
}

TEST(SpineClientLine, Fields) {
  struct Case {
    std::string_view line;
    std::string_view mac, ip_field, ifname;
    int ifindex;
  };
  const Case cases[] = {
      // A short address is followed in the 16-byte field by the space and the interface.
      {"00:11:22:33:44:55 10.0.0.5 ath1", kStation, "10.0.0.5 ath1", "ath1", 1},
      {"00:11:22:33:44:55 192.168.100.200 ath1", kStation, "192.168.100.200", "ath1", 1},
      {"00:1A:2B:3C:4D:5E 10.1.2.3 guest\r", "00:1a:2b:3c:4d:5e", "10.1.2.3 guest\r", "guest", 5},
      {"00:11:22:33:44:55  10.0.0.5   ath1 trailing", kStation, " 10.0.0.5   ath", "ath1", 1},
      {"00:11:22:33:44:55 10.0.0.5", kStation, "10.0.0.5", "", -7},
      {"00:11:22:33:44:55", kStation, "", "", -7},
  };
  for (const Case& c : cases) {
    const auto parsed = daemon_core::parse_client_line(c.line, fake_ifindex);
    ASSERT_TRUE(parsed.has_value()) << c.line;
    EXPECT_EQ(parsed->mac, c.mac) << c.line;
    EXPECT_EQ(parsed->ip_field, c.ip_field) << c.line;
    EXPECT_EQ(parsed->ifname, c.ifname) << c.line;
    EXPECT_EQ(parsed->ifindex, c.ifindex) << c.line;
  }
}

TEST(SpineClientLine, NoMac) {
  for (std::string_view line : {"", "hello world", "00-11-22-33-44-55 10.0.0.5 ath1",
                                "00:11:22:33:44:5 10.0.0.5 ath1", "00:11:22:33:4g:55 1.2.3.4 ath0"})
    EXPECT_FALSE(daemon_core::parse_client_line(line, fake_ifindex).has_value()) << line;
}

// --- known AP list

std::string mac_of(int i) {
  char text[18];
  std::snprintf(text, sizeof text, "00:11:22:33:%02x:%02x", (i >> 8) & 0xff, i & 0xff);
  return text;
}

TEST(SpineKnownAp, KeepsTheFirst256) {
  std::string list;
  for (int i = 0; i < 300; ++i) list += mac_of(i) + " ";
  std::array<std::string, daemon_core::kKnownApSlots> slots;
  EXPECT_EQ(daemon_core::fill_known_ap_list(slots, list), 256);
  EXPECT_EQ(slots[0], mac_of(0));
  EXPECT_EQ(slots[255], mac_of(255));
}

TEST(SpineKnownAp, TokensAreCutTo17) {
  std::array<std::string, daemon_core::kKnownApSlots> slots;
  EXPECT_EQ(daemon_core::fill_known_ap_list(
                slots, "  AA:BB:CC:DD:EE:FF   aa:bb:cc:dd:ee:ff:00:11 short "),
            3);
  EXPECT_EQ(slots[0], "AA:BB:CC:DD:EE:FF");
  EXPECT_EQ(slots[1], "aa:bb:cc:dd:ee:ff");
  EXPECT_EQ(slots[2], "short");
  EXPECT_EQ(daemon_core::fill_known_ap_list(slots, ""), 0);
  EXPECT_EQ(daemon_core::fill_known_ap_list(slots, "   "), 0);
}

// --- netlink walk on hand-built messages

struct Builder {
  std::vector<std::uint8_t> bytes;

  void put(const void* data, std::size_t n) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), p, p + n);
  }
  void u16(std::uint16_t v) { put(&v, 2); }
  void u32(std::uint32_t v) { put(&v, 4); }
  void pad4() {
    while (bytes.size() % 4) bytes.push_back(0);
  }
  void header(std::uint32_t length, std::uint16_t type) {
    u32(length);
    u16(type);
    u16(0);
    u32(0);
    u32(0);
  }
  void ifinfo(std::int32_t index) {
    bytes.push_back(0);
    bytes.push_back(0);
    u16(1);
    u32(static_cast<std::uint32_t>(index));
    u32(0);
    u32(0);
  }
};

// A new-link message for interface 7 with one wireless attribute holding the
// given events (each: command, 8+ bytes of payload).
std::vector<std::uint8_t> new_link(const std::vector<std::vector<std::uint8_t>>& events) {
  std::size_t events_size = 0;
  for (const auto& e : events) events_size += e.size();
  Builder b;
  const std::uint32_t attribute_length = static_cast<std::uint32_t>(4 + events_size);
  const std::uint32_t length = 16 + 16 + ((attribute_length + 3) & ~3u);
  b.header(length, 16);
  b.ifinfo(7);
  b.u16(static_cast<std::uint16_t>(attribute_length));
  b.u16(11);
  for (const auto& e : events) b.put(e.data(), e.size());
  b.pad4();
  return b.bytes;
}

std::vector<std::uint8_t> custom_event() {
  Builder b;
  b.u16(20);
  b.u16(0x8C02);
  b.u16(0);  // iw_point padding before the address bytes 6..11
  for (std::uint8_t v : {0xde, 0xad, 0xbe, 0xef, 0x00, 0x0a}) b.bytes.push_back(v);
  b.put("hello!!!", 8);
  return b.bytes;
}

std::vector<std::uint8_t> mic_event() {
  Builder b;
  b.u16(8);
  b.u16(0x8C06);
  b.u32(0);
  return b.bytes;
}

std::vector<std::uint8_t> del_link() {
  Builder b;
  b.header(32, 17);
  b.ifinfo(3);
  return b.bytes;
}

std::vector<std::string> walk(const std::vector<std::uint8_t>& bytes) {
  return daemon_core::walk_netlink(bytes, [](int ifindex) {
    return ifindex == 7 ? std::string("ath0") : std::string();
  });
}

using Lines = std::vector<std::string>;

TEST(SpineNetlink, DelLink) { EXPECT_EQ(walk(del_link()), Lines{"dellink"}); }

TEST(SpineNetlink, CustomAndMicEvents) {
  EXPECT_EQ(walk(new_link({custom_event(), mic_event()})),
            (Lines{"IWEVCUSTOM", "addr: DE:AD:BE:EF:00:0A", "name: ath0", "IWEVMICHAELMICFAILURE"}));
}

TEST(SpineNetlink, ShortEventStopsTheAttribute) {
  Builder stop;
  stop.u16(4);
  stop.u16(0x8C06);
  EXPECT_EQ(walk(new_link({stop.bytes, mic_event()})), Lines{});
}

TEST(SpineNetlink, ClaimingMoreThanReceivedIsMalformed) {
  std::vector<std::uint8_t> bytes = new_link({mic_event()});
  const std::vector<std::uint8_t> second = del_link();
  bytes.insert(bytes.end(), second.begin(), second.end());
  const std::uint32_t claimed = 32 + 20;
  std::memcpy(bytes.data() + bytes.size() - second.size(), &claimed, 4);
  EXPECT_EQ(walk(bytes), (Lines{"IWEVMICHAELMICFAILURE", "malformed message"}));
}

TEST(SpineNetlink, LengthBelowHeaderIsMalformed) {
  std::vector<std::uint8_t> bytes = del_link();
  const std::uint32_t tiny = 8;
  std::memcpy(bytes.data(), &tiny, 4);
  EXPECT_EQ(walk(bytes), Lines{"malformed message"});
}

TEST(SpineNetlink, TruncatedReceives) {
  // Every cut of a good buffer: the messages that arrived whole are handled,
  // a cut one with at least a header is malformed (run in the sanitizer
  // build, this also checks that no byte past the cut is read).
  const std::vector<std::uint8_t> first = new_link({custom_event(), mic_event()});
  const Lines first_lines = walk(first);
  ASSERT_EQ(first_lines.size(), 4u);
  std::vector<std::uint8_t> full = first;
  const auto tail = del_link();
  full.insert(full.end(), tail.begin(), tail.end());
  for (std::size_t n = 0; n <= full.size(); ++n) {
    const std::vector<std::uint8_t> prefix(full.begin(), full.begin() + n);
    Lines want;
    if (n >= first.size()) want = first_lines;
    const std::size_t rest = n >= first.size() ? n - first.size() : n;
    if (rest >= 16) want.push_back(n == full.size() ? "dellink" : "malformed message");
    EXPECT_EQ(walk(prefix), want) << n;
  }
}

}  // namespace

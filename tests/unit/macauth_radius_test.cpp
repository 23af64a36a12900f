#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <tuple>
#include <string>

#include "macauth/acl_table.h"
#include "macauth/radius.h"

namespace {

using namespace macauth;

constexpr const char* kStation = "00:1a:2b:3c:4d:5e";

TEST(MacAuthText, RequestAndRadclientCommand) {
  RadiusRequest request{"001a2b3c4d5e", "192.168.1.2", "ap-1", "00-AA-BB-CC-DD-EE", "guest",
                        "00-1A-2B-3C-4D-5E"};
  EXPECT_EQ(build_radius_request(request),
            "User-Name = \"001a2b3c4d5e\"\n"
            "User-Password = \"001a2b3c4d5e\"\n"
            "NAS-IP-Address = 192.168.1.2\n"
            "NAS-Identifier = \"ap-1\"\n"
            "Called-Station-Id = \"00-AA-BB-CC-DD-EE:guest\"\n"
            "Calling-Station-Id =\"00-1A-2B-3C-4D-5E\"\n"
            "NAS-Port-Type = Wireless-802.11\n"
            "Connect-Info = \"CONNECT 11Mbps 802.11b\"\n"
            "Message-Authenticator = 0x00\n");
  // No address, or no dotted IPv4 address: the line is left out.
  for (std::optional<std::string> ip : {std::optional<std::string>(), std::optional<std::string>("fe80::1"),
                                        std::optional<std::string>("1.2.3.4\nFramed-IP-Address = 1.1.1.1"),
                                        std::optional<std::string>("256.1.1.1")}) {
    request.nas_ip = ip;
    EXPECT_EQ(build_radius_request(request).find("NAS-IP"), std::string::npos);
  }
  // Every text value is one quoted, escaped attribute value.
  request.nas_identifier = "x\", Framed-IP-Address = \"10.9.9.9";
  request.ssid = std::string("Joe's \"Cafe\"\\\n\x01\x7f\0tail", 20);
  const std::string text = build_radius_request(request);
  EXPECT_NE(text.find("NAS-Identifier = \"x\\\", Framed-IP-Address = \\\"10.9.9.9\"\n"), std::string::npos);
  EXPECT_NE(text.find("Called-Station-Id = \"00-AA-BB-CC-DD-EE:Joe's \\\"Cafe\\\"\\\\\\n\\001\\177\"\n"),
            std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 8);
  // A request that does not fit is not written at all rather than cut.
  request.ssid = std::string(2000, 's');
  EXPECT_EQ(build_radius_request(request), "");
  EXPECT_EQ(radclient_command("10.0.0.2", 1812, "a b'c", "/tmp/f"),
            "radclient -x -r 1 10.0.0.2:1812 auth 'a b'\\''c' -f /tmp/f");
  // Options, bad hosts and ports, and a command that would not fit are refused, never cut.
  for (const auto& [host, port, secret] :
       {std::tuple{"h;x", 1812, "s"}, std::tuple{"-h", 1812, "s"}, std::tuple{"h", 0, "s"},
        std::tuple{"h", 1812, "-x"}})
    EXPECT_EQ(radclient_command(host, port, secret, "/tmp/f"), std::nullopt) << host << secret;
  const std::size_t fits = kRadclientMax - std::string("radclient -x -r 1 h:1 auth  -f /tmp/f").size();
  EXPECT_TRUE(radclient_command("h", 1, std::string(fits - 1, ' ') + "'", "/tmp/f").has_value());
  EXPECT_EQ(radclient_command("h", 1, std::string(fits + 1, 'k'), "/tmp/f"), std::nullopt);
}

// What FreeRADIUS 3's radclient -x prints: the request first, then the answer.
constexpr const char* kFr3Accept =
    "Sent Access-Request Id 9 from 0.0.0.0:51470 to 127.0.0.1:1812 length 155\n"
    "\tUser-Name = \"001a2b3c4d5e\"\n"
    "\tCalled-Station-Id = \"00-AA-BB-CC-DD-EE:Tunnel-Private-Group-Id code 7\"\n"
    "Received Access-Accept Id 9 from 127.0.0.1:1812 to 127.0.0.1:51470 length 36\n"
    "\tTunnel-Type:0 = VLAN\n"
    "\tTunnel-Medium-Type:0 = IEEE-802\n"
    "\tTunnel-Private-Group-Id:0 = \"12\"\n"
    "\tReply-Message = \"code 5\"\n";

TEST(MacAuthReply, ResultCode) {
  const std::pair<std::string, int> cases[] = {
      {"Received response ID 36, code 3, length = 20\n", 3},
      {kFr3Accept, 2},  // neither the echoed request nor a Reply-Message counts
      {"Sent Access-Request Id 7\nReceived Access-Reject Id 7 from 127.0.0.1:1812\n", 3},
      {"Expected Access-Accept got Access-Reject\n", 0},
      {"Sent Access-Request Id 51 from 0.0.0.0:37998 to 127.0.0.1:1999 length 155\n", 0},
  };
  for (const auto& [output, want] : cases)
    EXPECT_EQ(parse_result_code(radius_reply_section(output)), want) << output;
}

TEST(MacAuthReply, TunnelVlan) {
  const std::string type = "Tunnel-Type:0 = VLAN\n";
  const std::string medium = "Tunnel-Medium-Type:0 = IEEE-802\n";
  const std::string group = "Tunnel-Private-Group-Id:0 = \"12\"\n";
  const std::pair<std::string, int> cases[] = {
      {type + medium + group, 12},
      {group + medium + type, 12},  // found anywhere, not line by line
      {type + group, -1},           // no Tunnel-Medium-Type
      {type + medium, 0},           // both met, no group id
      {type + medium + "Tunnel-Private-Group-Id:0 = 12\n", 0},  // unquoted
      {"Tunnel-Type = VLAN\nTunnel-Medium-Type = IEEE-802\nTunnel-Private-Group-Id = \"300\"\n", 300},
  };
  for (const auto& [reply, want] : cases) EXPECT_EQ(parse_tunnel_vlan(reply), want) << reply;
  // The request echo names the group id first; only the answer counts.
  EXPECT_EQ(parse_tunnel_vlan(radius_reply_section(kFr3Accept)), 12);
}

TEST(MacAuthDecision, RadioModeOverridesWlanMode) {
  struct Case { int radio_mode, wlan_mode; bool want; };
  for (const Case& c : {Case{-1, 3, true}, Case{-1, 0, false}, Case{3, 0, true}, Case{1, 3, false}})
    EXPECT_EQ(external_acl_enabled(c.radio_mode, c.wlan_mode), c.want) << c.radio_mode << " " << c.wlan_mode;
  const int modes[] = {3, -1};
  EXPECT_EQ(radio_acl_mode(modes, 0), 3);
  EXPECT_EQ(radio_acl_mode(modes, 2), -1);
}

TEST(MacAuthDecision, VlanPolicy) {
  struct Case { VlanPolicySettings settings; int vlan, want; };
  const Case cases[] = {
      {{false, 2, true, 5}, -1, 0},  // not bridge mode: always allowed
      {{true, 2, false, 0}, -1, -1}, {{true, 2, false, 0}, 0, 0},
      {{true, 1, true, 5}, 9, 0},    {{true, 0, false, 5}, 9, 0},
      {{true, 0, true, 5}, 9, -1},   {{true, 0, true, 5}, 5, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(vlan_policy_decision(c.settings, c.vlan), c.want) << c.vlan;
}

TEST(MacAuthTables, CacheAndPending) {
  AclSlots cache{};
  cache[2] = {1000, 7, kStation};
  EXPECT_EQ(find_cached_answer(cache, kStation, 1019, 20), 2);
  EXPECT_EQ(find_cached_answer(cache, kStation, 1020, 20), -1);
  EXPECT_EQ(cache_store_slot(cache, 20), 0);
  EXPECT_EQ(cache_store_slot(cache, 0), 2);

  AclSlots pending{};
  for (int i = 0; i < kAclSlots; ++i) EXPECT_TRUE(add_pending(pending, std::string(kStation) + char('a' + i)));
  EXPECT_FALSE(add_pending(pending, kStation));
  clear_pending(pending, std::string(kStation) + 'c');
  EXPECT_TRUE(add_pending(pending, kStation));
  EXPECT_EQ(pending[2].mac, kStation);
}

}  // namespace

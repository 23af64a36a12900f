// The texts of a RADIUS MAC-auth query: the station's MAC in the forms the
// request uses, the radclient request file, the radclient and iwpriv
// command lines, and the reading of radclient's output. Pure functions:
// nothing here runs, reads or prints; any thread may call them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace macauth {

inline constexpr std::size_t kMacTextMax = 20;      // a MAC text as the driver gives it
inline constexpr std::size_t kRequestMax = 1023;    // the request file text
inline constexpr std::size_t kRequestMin = 21;      // shorter texts are not sent
inline constexpr std::size_t kReplyMax = 1023;      // radclient output kept
inline constexpr std::size_t kRadclientMax = 255;   // radclient command line
inline constexpr std::size_t kAuthrespMax = 127;    // iwpriv command line
inline constexpr int kAuthAccept = 0;               // driver answer codes
inline constexpr int kAuthReject = 13;
inline constexpr int kCodeAccessAccept = 2;         // RADIUS packet codes
inline constexpr int kCodeAccessReject = 3;

// User name and password: the characters 0-9 and a-f of the text, all
// others dropped (upper-case hex letters too: the driver writes lower case).
std::string hex_only_mac(std::string_view mac);

// Calling-Station-Id: the first 20 characters with ':' made '-', the first
// 17 of them upper-cased ("00-11-22-AA-BB-CC").
std::string dashed_mac(std::string_view mac);

// The VAP's BSSID in the same form: upper-cased first, then dashed.
std::string dashed_bssid(std::string_view bssid);

// What the worker puts into the request file.
struct RadiusRequest {
  std::string user;                    // hex-only MAC
  std::optional<std::string> nas_ip;   // WAN "ipaddr"; nullopt when there is none
  std::string nas_identifier;          // AP name
  std::string bssid;                   // dashed BSSID
  std::string ssid;
  std::string calling_station;         // dashed MAC
};

// A value in radclient's attribute syntax: a double-quoted string, the text
// up to its first NUL, with '"' and '\\' escaped by a backslash, line break,
// carriage return and tab as \n, \r, \t and every other control character
// as a three-digit octal escape, so that no value can end its quotes or
// start another attribute line.
std::string radius_string(std::string_view value);

// Four decimal numbers 0..255 separated by dots ("192.168.1.2").
bool is_dotted_ipv4(std::string_view text);

// The attribute lines in radclient's input syntax, every text value written
// with radius_string. NAS-IP-Address is written (unquoted) only when the
// address is a dotted IPv4 address; otherwise the line is left out. Note
// "Calling-Station-Id =\"...\"" has no blank behind '=': radclient reads it
// either way. "" when the text would be longer than 1023 characters (the
// request is then not sent rather than cut inside a value).
std::string build_radius_request(const RadiusRequest& request);

// "/tmp/radc-<hex-only MAC>-<ath>".
std::string request_file_path(std::string_view hex_mac, int ath);

// Unit tests only: the directory of the request files instead of "/tmp"
// (empty: "/tmp" again), so that test runs share no fixed name. Set it while
// no worker runs.
void set_request_dir_for_tests(std::string_view dir);

// "radclient -x -r 1 <host>:<port> auth <secret> -f <file>"; nullopt (no
// query) when the host is not an address or host name, the port not
// 1..65535, the secret would be read as an option, or the command with
// its values unquoted exceeds 255 characters.
std::optional<std::string> radclient_command(std::string_view host, int port,
                                             std::string_view secret,
                                             std::string_view request_file);

// "iwpriv ath<ath> oem_priv wr:authresp=<mac>,<code>"; nullopt when the MAC
// is not one or the command exceeds 127 characters.
std::optional<std::string> authresp_command(int ath, std::string_view mac, int code);

// The part of radclient's output that describes the answer: from the first
// line that begins with "Received " on (radclient -x echoes the request,
// whose texts come from the configuration, before it); the whole output
// when there is no such line.
std::string_view radius_reply_section(std::string_view output);

// The RADIUS code of the answer. When the text has a line that begins with
// "Received ", only that line is read: the number behind "code " (older
// radclient: "Received response ID 36, code 2, length = 20"), else 2 for
// "Received Access-Accept" and 3 for "Received Access-Reject" (FreeRADIUS
// 3). Without such a line, the number behind the first "code ". 0 when
// there is none (no answer).
int parse_result_code(std::string_view reply);

// The VLAN of an Access-Accept from its tunnel attributes:
//   Tunnel-Type:0 = VLAN, Tunnel-Medium-Type:0 = IEEE-802,
//   Tunnel-Private-Group-Id:0 = "12"  -> 12.
// The names are looked for anywhere in the text, in this order; the scan
// stops at the first one missing. -1 unless both Tunnel-Type and
// Tunnel-Medium-Type hold their expected values; 0 when they do and no
// group id (or no number in it) follows.
int parse_tunnel_vlan(std::string_view reply);

}  // namespace macauth

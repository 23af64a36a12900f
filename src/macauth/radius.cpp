#include "macauth/radius.h"

#include <arpa/inet.h>

#include <cstdlib>

#include "common/mac.h"
#include "common/numbers.h"
#include "common/command.h"
#include "common/runner.h"
#include "common/text.h"

namespace macauth {

namespace {

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Reads a text the way sscanf's "%s", " ", literal characters and "%d" do.
struct Scanner {
  std::string_view text;
  std::size_t pos = 0;

  void skip_blanks() {
    while (pos < text.size() && is_blank(text[pos])) ++pos;
  }
  // "%s": blanks skipped, then at least one non-blank character.
  std::optional<std::string_view> word() {
    skip_blanks();
    std::size_t start = pos;
    while (pos < text.size() && !is_blank(text[pos])) ++pos;
    if (pos == start) return std::nullopt;
    return text.substr(start, pos - start);
  }
  bool literal(char c) {
    if (pos >= text.size() || text[pos] != c) return false;
    ++pos;
    return true;
  }
  // "%d": blanks skipped, an optional sign, at least one digit.
  std::optional<int> number() {
    skip_blanks();
    std::size_t start = pos;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) ++pos;
    std::size_t digits = pos;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos;
    if (pos == digits) return std::nullopt;
    return common::scan_int(text.substr(start, pos - start));
  }
};

// "%s = %s": the value behind "<name> =", when both words are there.
std::optional<std::string_view> scan_name_value(std::string_view text) {
  Scanner scan{text};
  if (!scan.word()) return std::nullopt;
  scan.skip_blanks();
  if (!scan.literal('=')) return std::nullopt;
  return scan.word();
}

// "%s = \"%d\"": the number behind "<name> = \"".
std::optional<int> scan_name_quoted_number(std::string_view text) {
  Scanner scan{text};
  if (!scan.word()) return std::nullopt;
  scan.skip_blanks();
  if (!scan.literal('=')) return std::nullopt;
  scan.skip_blanks();
  if (!scan.literal('"')) return std::nullopt;
  return scan.number();
}

// The position of a line that begins with the prefix, or npos.
std::size_t find_line_start(std::string_view text, std::string_view prefix) {
  if (text.starts_with(prefix)) return 0;
  std::string needle = "\n" + std::string(prefix);
  std::size_t at = text.find(needle);
  return at == std::string_view::npos ? at : at + 1;
}

}  // namespace

std::string hex_only_mac(std::string_view mac) {
  std::string out;
  for (char c : mac)
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')) out.push_back(c);
  return out;
}

std::string dashed_mac(std::string_view mac) {
  std::string out(mac.substr(0, kMacTextMax));
  for (char& c : out)
    if (c == ':') c = '-';
  common::common_mac_toupper(out);
  return out;
}

std::string dashed_bssid(std::string_view bssid) {
  std::string upper(bssid);
  common::common_mac_toupper(upper);
  std::string out = upper.substr(0, kMacTextMax);
  for (char& c : out)
    if (c == ':') c = '-';
  return out;
}

std::string radius_string(std::string_view value) {
  value = value.substr(0, value.find('\0'));
  std::string out = "\"";
  for (char c : value) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (byte < 0x20 || byte == 0x7f) {
          const char octal[] = {'\\', static_cast<char>('0' + (byte >> 6)),
                                static_cast<char>('0' + ((byte >> 3) & 7)),
                                static_cast<char>('0' + (byte & 7))};
          out.append(octal, sizeof octal);
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
  return out;
}

bool is_dotted_ipv4(std::string_view text) {
  if (text.empty() || text.size() > 15) return false;
  in_addr address{};
  return ::inet_pton(AF_INET, std::string(text).c_str(), &address) == 1;
}

std::string build_radius_request(const RadiusRequest& request) {
  const std::string user = radius_string(request.user);
  std::string text = "User-Name = " + user + "\nUser-Password = " + user + "\n";
  if (request.nas_ip && is_dotted_ipv4(*request.nas_ip))
    text += "NAS-IP-Address = " + *request.nas_ip + "\n";
  text += "NAS-Identifier = " + radius_string(request.nas_identifier) + "\n";
  text += "Called-Station-Id = " + radius_string(request.bssid + ":" + request.ssid) + "\n";
  text += "Calling-Station-Id =" + radius_string(request.calling_station) + "\n";
  text +=
      "NAS-Port-Type = Wireless-802.11\n"
      "Connect-Info = \"CONNECT 11Mbps 802.11b\"\n"
      "Message-Authenticator = 0x00\n";
  // A cut would end a quoted value early: a request that does not fit is
  // not sent at all.
  if (text.size() > kRequestMax) return std::string();
  return text;
}

namespace {
std::string g_request_dir = "/tmp";  // changed by unit tests only
}  // namespace

void set_request_dir_for_tests(std::string_view dir) { g_request_dir = dir.empty() ? "/tmp" : std::string(dir); }

std::string request_file_path(std::string_view hex_mac, int ath) {
  std::string hex(hex_mac);
  return common::format("%s/radc-%s-%d", g_request_dir.c_str(), hex.c_str(), ath);
}

std::optional<std::string> radclient_command(std::string_view host, int port,
                                             std::string_view secret,
                                             std::string_view request_file) {
  // -x: FreeRADIUS 3's radclient prints the reply's attributes (and with
  // them the tunnel attributes that carry the VLAN) only in this mode.
  return common::build_command(kRadclientMax, "radclient -x -r 1 {}:{} auth {} -f {}",
                               {common::host(host), common::port(port), common::word(secret),
                                common::path(request_file)});
}

std::optional<std::string> authresp_command(int ath, std::string_view mac, int code) {
  return common::build_command(kAuthrespMax, "iwpriv ath{} oem_priv wr:authresp={},{}",
                               {common::number(ath), common::mac(mac), common::number(code)});
}

std::string_view radius_reply_section(std::string_view output) {
  std::size_t at = find_line_start(output, "Received ");
  return at == std::string_view::npos ? output : output.substr(at);
}

int parse_result_code(std::string_view reply) {
  // Only the answer line counts when there is one: attribute texts below it
  // (a Reply-Message, say) must not be taken for the code.
  std::string_view scope = reply;
  if (std::size_t at = find_line_start(reply, "Received "); at != std::string_view::npos) {
    scope = reply.substr(at);
    scope = scope.substr(0, scope.find('\n'));
  }
  if (std::size_t at = scope.find("code "); at != std::string_view::npos) {
    Scanner scan{scope, at + 5};
    return scan.number().value_or(0);
  }
  if (scope.starts_with("Received Access-Accept")) return kCodeAccessAccept;
  if (scope.starts_with("Received Access-Reject")) return kCodeAccessReject;
  return 0;
}

int parse_tunnel_vlan(std::string_view reply) {
  struct Row {
    std::string_view name;
    std::string_view expected;
  };
  static constexpr Row kRows[] = {{"Tunnel-Type", "VLAN"}, {"Tunnel-Medium-Type", "IEEE-802"}};

  bool met[2] = {false, false};
  for (int row = 0; row < 2; ++row) {
    std::size_t at = reply.find(kRows[row].name);
    if (at == std::string_view::npos) return -1;  // the scan stops; a row is not met
    auto value = scan_name_value(reply.substr(at));
    met[row] = value && value->find(kRows[row].expected) != std::string_view::npos;
  }
  int vlan = 0;
  if (std::size_t at = reply.find("Tunnel-Private-Group-Id"); at != std::string_view::npos)
    vlan = scan_name_quoted_number(reply.substr(at)).value_or(0);
  return met[0] && met[1] ? vlan : -1;
}

}  // namespace macauth

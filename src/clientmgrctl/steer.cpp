#include "clientmgrctl/steer.h"

#include <array>
#include <charconv>

namespace clientmgrctl {

namespace {

bool is_hex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// How an argument is shown in a message: printable ASCII as it is, anything
// else as \xNN, so a newline or NUL in an argument is visible.
std::string shown(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char c : text.substr(0, 64)) {
    const auto u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u < 0x7f) {
      out.push_back(c);
    } else {
      out += "\\x";
      out.push_back(kHex[u >> 4]);
      out.push_back(kHex[u & 15]);
    }
  }
  if (text.size() > 64) out += "...";
  return out;
}

SteerResult refuse(std::string_view command, std::string_view argument, std::string_view value,
                   std::string_view want) {
  SteerResult result;
  result.error.append(command).append(": bad ").append(argument).append(" '").append(shown(value));
  result.error.append("': ").append(want);
  return result;
}

SteerResult usage(std::string_view command, std::string_view synopsis) {
  SteerResult result;
  result.error.append(command).append(": usage: clientmgrctl ").append(synopsis);
  return result;
}

SteerResult built(std::string_view pipe, std::string line) {
  SteerResult result;
  line.push_back('\n');
  result.line = PipeLine{pipe, std::move(line)};
  return result;
}

struct Synopsis {
  std::string_view name;
  std::size_t argc;
  std::string_view text;
};

constexpr std::array<Synopsis, 7> kSynopses{{
    {"rate", 4, "rate athN MAC UP DOWN"},
    {"vlan", 3, "vlan athN MAC VLAN"},
    {"refresh", 0, "refresh"},
    {"remove-vap", 1, "remove-vap N"},
    {"l2tp", 2, "l2tp IFNAME up|down"},
    {"arp", 3, "arp MAC IP athN"},
    {"client", 3, "client MAC IP athN"},
}};

constexpr std::string_view kWantVap = "a VAP name ath0 .. ath255";
constexpr std::string_view kWantMac = "six two-digit hexadecimal groups joined by ':'";
constexpr std::string_view kWantIp = "a dotted IPv4 address";

}  // namespace

std::optional<long long> parse_number(std::string_view text, long long min, long long max) {
  std::string_view digits = text;
  if (!digits.empty() && digits.front() == '-' && min < 0) digits.remove_prefix(1);
  if (digits.empty() || digits.size() > 18) return std::nullopt;
  for (const char c : digits)
    if (c < '0' || c > '9') return std::nullopt;
  if (digits.size() > 1 && digits.front() == '0') return std::nullopt;
  long long value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (digits.size() != text.size()) value = -value;
  if (value < min || value > max) return std::nullopt;
  return value;
}

std::optional<std::string> parse_mac(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  std::string mac(text);
  for (std::size_t i = 0; i < mac.size(); ++i) {
    if (i % 3 == 2) {
      if (mac[i] != ':') return std::nullopt;
    } else {
      if (!is_hex(mac[i])) return std::nullopt;
      if (mac[i] >= 'A' && mac[i] <= 'F') mac[i] = static_cast<char>(mac[i] - 'A' + 'a');
    }
  }
  return mac;
}

std::optional<int> parse_vap(std::string_view text) {
  if (text.substr(0, 3) != "ath") return std::nullopt;
  auto number = parse_number(text.substr(3), 0, kVapMax);
  if (!number) return std::nullopt;
  return static_cast<int>(*number);
}

bool valid_ipv4(std::string_view text) {
  for (int part = 0; part < 4; ++part) {
    const std::size_t dot = part < 3 ? text.find('.') : text.size();
    if (dot == std::string_view::npos) return false;
    if (!parse_number(text.substr(0, dot), 0, 255)) return false;
    text.remove_prefix(part < 3 ? dot + 1 : dot);
  }
  return text.empty();
}

bool valid_ifname(std::string_view text) {
  if (text.empty() || text.size() > kIfNameMax || text.front() == '-') return false;
  for (const char c : text) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

bool is_steering_command(std::string_view name) {
  for (const Synopsis& s : kSynopses)
    if (s.name == name) return true;
  return false;
}

SteerResult build_steering_line(std::string_view name, const std::vector<std::string_view>& args) {
  const Synopsis* synopsis = nullptr;
  for (const Synopsis& s : kSynopses)
    if (s.name == name) synopsis = &s;
  if (!synopsis) {
    SteerResult result;
    result.error = "unknown command '" + shown(name) + "'";
    return result;
  }
  if (args.size() != synopsis->argc) return usage(name, synopsis->text);

  if (name == "rate" || name == "vlan") {
    const auto vap = parse_vap(args[0]);
    if (!vap) return refuse(name, "VAP", args[0], kWantVap);
    const auto mac = parse_mac(args[1]);
    if (!mac) return refuse(name, "MAC", args[1], kWantMac);
    if (name == "vlan") {
      const auto vlan = parse_number(args[2], kVlanMin, kVlanMax);
      if (!vlan) return refuse(name, "VLAN", args[2], "a number 1 .. 4094");
      return built(kEventPipe, "[STA_VLAN] ath" + std::to_string(*vap) + " " + *mac + " vlan " +
                                   std::to_string(*vlan));
    }
    const std::string_view want_rate = "-1 (the configured rate) or a number 0 .. 10000000 (kbit/s)";
    const auto up = parse_number(args[2], -1, kRateMax);
    if (!up) return refuse(name, "UP", args[2], want_rate);
    const auto down = parse_number(args[3], -1, kRateMax);
    if (!down) return refuse(name, "DOWN", args[3], want_rate);
    return built(kEventPipe, "[BANDWIDTH_RATE_UPDATE] ath" + std::to_string(*vap) + " " + *mac + " bw " +
                                 std::to_string(*up) + " " + std::to_string(*down));
  }
  if (name == "refresh") return built(kEventPipe, "[REFRESH_CLIENT_FILE]");
  if (name == "remove-vap") {
    const auto vap = parse_number(args[0], 0, kVapMax);
    if (!vap) return refuse(name, "N", args[0], "a VAP number 0 .. 255");
    return built(kEventPipe, "[REMOVE_VAP] " + std::to_string(*vap));
  }
  if (name == "l2tp") {
    if (!valid_ifname(args[0]))
      return refuse(name, "IFNAME", args[0], "1 .. 15 characters of A-Z a-z 0-9 . _ -, not starting with '-'");
    if (args[1] != "up" && args[1] != "down") return refuse(name, "state", args[1], "up or down");
    return built(kEventPipe, "[L2TP_IF_UPDATE] " + std::string(args[0]) + " " + std::string(args[1]));
  }
  // arp and client: MAC IP athN.
  const auto mac = parse_mac(args[0]);
  if (!mac) return refuse(name, "MAC", args[0], kWantMac);
  if (!valid_ipv4(args[1])) return refuse(name, "IP", args[1], kWantIp);
  const auto vap = parse_vap(args[2]);
  if (!vap) return refuse(name, "VAP", args[2], kWantVap);
  const std::string ath = "ath" + std::to_string(*vap);
  if (name == "arp")
    return built(kEventPipe, "clientmgrctl " + ath + " Halcyon.Netfilter.ARP " + *mac + " [" +
                                 std::string(args[1]) + "]");
  return built(kClientTablePipe, *mac + " " + std::string(args[1]) + " " + ath);
}

}  // namespace clientmgrctl

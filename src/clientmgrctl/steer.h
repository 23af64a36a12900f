// The steering commands of clientmgrctl: each checks its arguments and
// builds the one line it writes into one of the daemon's pipes. Pure
// functions; nothing here opens or writes anything.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace clientmgrctl {

inline constexpr std::string_view kEventPipe = "/etc/event_pipe";
inline constexpr std::string_view kClientTablePipe = "/etc/client_table_pipe";

// Limits of the values the daemon acts on.
inline constexpr long long kVapMax = 255;         // athN
inline constexpr long long kRateMax = 10000000;   // kbit/s; -1 = the rate configured for the VAP
inline constexpr long long kVlanMin = 1;
inline constexpr long long kVlanMax = 4094;
inline constexpr std::size_t kIfNameMax = 15;     // IFNAMSIZ - 1

// What a steering command writes: one line, ending in a newline, into pipe.
struct PipeLine {
  std::string_view pipe;
  std::string line;
};

// A built line, or the message that says which argument is wrong and why.
struct SteerResult {
  std::optional<PipeLine> line;
  std::string error;
};

// A decimal integer without sign or leading zeros (except "-" when min < 0),
// within [min, max]; nullopt otherwise.
std::optional<long long> parse_number(std::string_view text, long long min, long long max);

// The MAC in lower case when the text is exactly six two-digit hexadecimal
// groups joined by ':' (either case).
std::optional<std::string> parse_mac(std::string_view text);

// The number N of a VAP name "athN" (0..kVapMax, no leading zeros).
std::optional<int> parse_vap(std::string_view text);

// True when the text is a dotted IPv4 address of four decimal numbers 0..255.
bool valid_ipv4(std::string_view text);

// True for an interface name: 1..15 characters of A-Za-z0-9 . _ - not
// starting with '-'.
bool valid_ifname(std::string_view text);

// True when name is one of the steering commands.
bool is_steering_command(std::string_view name);

// Checks the arguments of steering command name (args without the command
// word) and builds its line. An unknown command or a wrong number of
// arguments is an error too.
SteerResult build_steering_line(std::string_view name, const std::vector<std::string_view>& args);

}  // namespace clientmgrctl

// The one command builder. A command is a literal template of the program,
// with "{}" where a value goes, and typed values. The builder is the only
// place that quotes: a value made only of A-Za-z0-9._:/@%+=,- is inserted
// as it is (ordinary command lines stay byte-identical); anything else is
// quoted for its place. A value is refused when it holds a NUL, fails the
// check of its type, or (standing where a tool reads its arguments) begins
// with '-'. A length limit applies to the text with the values inserted
// unquoted; a command that would not fit is refused, never cut. A refused
// command is nullopt: the caller runs nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace common {

// A command text written in the program. Only a string literal (a constant
// expression) converts to it, so no data can become a template.
struct Template {
  consteval Template(const char* literal) : text(literal) {}  // NOLINT: implicit on purpose
  const char* text;
};

enum class ArgKind : std::uint8_t {
  kInvalid,   // failed its check: the whole command is refused
  kConstant,  // a word of the program itself (a verb, an option)
  kWord,      // a positional word: host name, community, secret, ...
  kInQuotes,  // text inside the template's double quotes, after other text
  kQuotedArg, // text that is a whole argument inside the template's double quotes
  kNumber,    // a decimal or hexadecimal number the builder formatted
  kMac,       // xx:xx:xx:xx:xx:xx
  kAddress,   // dotted IPv4 address
  kHost,      // IPv4 address or host name
  kHostPort,  // host[:port]
  kDevice,    // network device name
  kPath,      // absolute path
  kRuleWords, // blank-separated words this builder made before (stored ebtables rules)
  kPart,      // a piece made by the builder (already quoted)
};

struct CommandArg {
  ArgKind kind = ArgKind::kInvalid;
  std::string text;             // the value; for kPart the quoted piece
  std::size_t raw_length = 0;   // for kPart: its length with values unquoted
};

// A piece of a command made by the builder, to be appended to or inserted
// into another. ok turns false for good once a value is refused.
struct CommandText {
  std::string text;             // quoted
  std::size_t raw_length = 0;   // the same with every value unquoted
  bool ok = true;
};

inline constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

// --- typed values

CommandArg constant(Template word);
CommandArg word(std::string_view value);
CommandArg in_quotes(std::string_view value);
CommandArg quoted_arg(std::string_view value);
CommandArg number(long long value);
CommandArg hex(unsigned long long value);
// A port 1..65535.
CommandArg port(long long value);
CommandArg mac(std::string_view value);
CommandArg address(std::string_view value);
CommandArg host(std::string_view value);
CommandArg host_port(std::string_view value);
CommandArg device(std::string_view value);
CommandArg path(std::string_view value);
CommandArg rule_words(std::string_view value);
CommandArg part(const CommandText& piece);

// --- building

// Appends the template with its "{}" replaced by the values in order.
void append(CommandText& command, Template tmpl, std::initializer_list<CommandArg> args);

// The command text; nullopt when a value was refused or the text with the
// values unquoted is longer than limit.
std::optional<std::string> finish(const CommandText& command, std::size_t limit);

// append + finish of one template.
std::optional<std::string> build_command(std::size_t limit, Template tmpl,
                                         std::initializer_list<CommandArg> args);

// --- checks, also used by parsers

// Only A-Za-z0-9._:/@%+=,- (and not empty).
bool is_plain_word(std::string_view value);
bool is_ipv4_address(std::string_view value);
// An IPv4 address or a host name (letters, digits, '.', '-', '_'; not
// beginning with '-').
bool is_host(std::string_view value);
// A network device name: 1..15 characters, no '/', ':', blank or NUL, not
// "." or "..", not beginning with '-'.
bool is_device_name(std::string_view value);

}  // namespace common

#include "common/command.h"

#include <arpa/inet.h>

#include <charconv>

#include "common/mac.h"
#include "common/numbers.h"

namespace common {

namespace {

bool is_plain_char(char c) {
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '.': case '_': case ':': case '/': case '@': case '%':
    case '+': case '=': case ',': case '-':
      return true;
    default:
      return false;
  }
}

bool has_nul(std::string_view value) { return value.find('\0') != std::string_view::npos; }

bool leading_dash(std::string_view value) { return !value.empty() && value.front() == '-'; }

CommandArg make(ArgKind kind, std::string_view value, bool valid) {
  CommandArg arg;
  arg.kind = valid && !has_nul(value) ? kind : ArgKind::kInvalid;
  arg.text = std::string(value);
  arg.raw_length = value.size();
  return arg;
}

// A bare word for the shell: as it is when plain, else single-quoted.
void append_single_quoted(std::string& out, std::string_view value) {
  if (is_plain_word(value)) {
    out.append(value);
    return;
  }
  out.push_back('\'');
  for (char c : value) {
    if (c == '\'')
      out.append("'\\''");
    else
      out.push_back(c);
  }
  out.push_back('\'');
}

// Text the template already puts inside double quotes.
void append_double_quoted(std::string& out, std::string_view value) {
  for (char c : value) {
    if (c == '\\' || c == '"' || c == '$' || c == '`') out.push_back('\\');
    out.push_back(c);
  }
}

// Words, blanks, '!' and balanced single-quoted pieces: what the builder
// itself writes into an ebtables rule body.
bool is_rule_words(std::string_view value) {
  bool quoted = false;
  for (char c : value) {
    if (c == '\'') {
      quoted = !quoted;
    } else if (!quoted && !is_plain_char(c) && c != ' ' && c != '!') {
      return false;
    }
  }
  return !quoted && !value.empty();
}

bool is_host_name(std::string_view value) {
  if (value.empty() || value.size() > 253 || leading_dash(value)) return false;
  for (char c : value) {
    const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '-' || c == '_';
    if (!ok) return false;
  }
  return true;
}

}  // namespace

bool is_plain_word(std::string_view value) {
  if (value.empty()) return false;
  for (char c : value)
    if (!is_plain_char(c)) return false;
  return true;
}

bool is_ipv4_address(std::string_view value) {
  if (value.empty() || value.size() > 15 || has_nul(value)) return false;
  const std::string copy(value);
  struct in_addr out {};
  return ::inet_pton(AF_INET, copy.c_str(), &out) == 1;
}

bool is_host(std::string_view value) { return is_ipv4_address(value) || is_host_name(value); }

bool is_device_name(std::string_view value) {
  if (value.empty() || value.size() > 15 || value == "." || value == ".." || leading_dash(value))
    return false;
  for (char c : value) {
    if (c == '/' || c == ':' || c == '\0' || c == ' ' || (c >= '\t' && c <= '\r')) return false;
  }
  return true;
}

CommandArg constant(Template word) { return make(ArgKind::kConstant, word.text, true); }

CommandArg word(std::string_view value) { return make(ArgKind::kWord, value, !leading_dash(value)); }

CommandArg in_quotes(std::string_view value) { return make(ArgKind::kInQuotes, value, true); }

CommandArg quoted_arg(std::string_view value) {
  return make(ArgKind::kQuotedArg, value, !leading_dash(value));
}

CommandArg number(long long value) {
  char buf[24];
  auto result = std::to_chars(buf, buf + sizeof buf, value);
  return make(ArgKind::kNumber, std::string_view(buf, static_cast<std::size_t>(result.ptr - buf)),
              true);
}

CommandArg hex(unsigned long long value) {
  char buf[24];
  auto result = std::to_chars(buf, buf + sizeof buf, value, 16);
  return make(ArgKind::kNumber, std::string_view(buf, static_cast<std::size_t>(result.ptr - buf)),
              true);
}

CommandArg port(long long value) {
  CommandArg arg = number(value);
  if (value < 1 || value > 65535) arg.kind = ArgKind::kInvalid;
  return arg;
}

CommandArg mac(std::string_view value) {
  return make(ArgKind::kMac, value, value.size() == 17 && !canonical_mac(value).empty());
}

CommandArg address(std::string_view value) {
  return make(ArgKind::kAddress, value, is_ipv4_address(value));
}

CommandArg host(std::string_view value) { return make(ArgKind::kHost, value, is_host(value)); }

CommandArg host_port(std::string_view value) {
  const std::size_t colon = value.rfind(':');
  bool ok = false;
  if (colon == std::string_view::npos)
    ok = is_host(value);
  else
    ok = is_host(value.substr(0, colon)) &&
         parse_int(value.substr(colon + 1), 1, 65535).has_value();
  return make(ArgKind::kHostPort, value, ok);
}

CommandArg device(std::string_view value) {
  return make(ArgKind::kDevice, value, is_device_name(value));
}

CommandArg path(std::string_view value) {
  return make(ArgKind::kPath, value, !value.empty() && value.front() == '/');
}

CommandArg rule_words(std::string_view value) {
  return make(ArgKind::kRuleWords, value, is_rule_words(value));
}

CommandArg part(const CommandText& piece) {
  CommandArg arg;
  arg.kind = piece.ok ? ArgKind::kPart : ArgKind::kInvalid;
  arg.text = piece.text;
  arg.raw_length = piece.raw_length;
  return arg;
}

void append(CommandText& command, Template tmpl, std::initializer_list<CommandArg> args) {
  std::string_view rest(tmpl.text);
  const CommandArg* next = args.begin();
  for (;;) {
    const std::size_t at = rest.find("{}");
    const std::string_view literal = rest.substr(0, at);
    command.text.append(literal);
    command.raw_length += literal.size();
    if (at == std::string_view::npos) break;
    rest.remove_prefix(at + 2);
    if (next == args.end()) {  // more places than values: a fault of the caller
      command.ok = false;
      return;
    }
    const CommandArg& arg = *next++;
    switch (arg.kind) {
      case ArgKind::kInvalid:
        command.ok = false;
        return;
      case ArgKind::kConstant:
      case ArgKind::kNumber:
      case ArgKind::kRuleWords:
      case ArgKind::kPart:
        command.text.append(arg.text);
        break;
      case ArgKind::kInQuotes:
      case ArgKind::kQuotedArg:
        append_double_quoted(command.text, arg.text);
        break;
      case ArgKind::kWord:
      case ArgKind::kMac:
      case ArgKind::kAddress:
      case ArgKind::kHost:
      case ArgKind::kHostPort:
      case ArgKind::kDevice:
      case ArgKind::kPath:
        append_single_quoted(command.text, arg.text);
        break;
    }
    command.raw_length += arg.raw_length;
  }
  if (next != args.end()) command.ok = false;  // more values than places
}

std::optional<std::string> finish(const CommandText& command, std::size_t limit) {
  if (!command.ok || command.raw_length > limit) return std::nullopt;
  return command.text;
}

std::optional<std::string> build_command(std::size_t limit, Template tmpl,
                                         std::initializer_list<CommandArg> args) {
  CommandText command;
  append(command, tmpl, args);
  return finish(command, limit);
}

}  // namespace common

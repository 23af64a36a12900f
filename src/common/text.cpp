#include "common/text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdarg>
#include <cstdio>

namespace common {

namespace {
std::string vformat(const char* fmt, va_list args) {
  // Most texts fit a small buffer and are formatted once; a longer one is
  // formatted again straight into the string.
  char small[256];
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (needed <= 0) return std::string();
  const auto length = static_cast<std::size_t>(needed);
  if (length < sizeof small) return std::string(small, length);
  std::string out(length, '\0');
  std::vsnprintf(out.data(), length + 1, fmt, args);  // the terminator goes on out[length]
  return out;
}
}  // namespace

std::string format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string out = vformat(fmt, args);
  va_end(args);
  return out;
}

std::string format_cut(std::size_t limit, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string out = vformat(fmt, args);
  va_end(args);
  if (out.size() > limit) out.resize(limit);
  return out;
}

std::string copy_as_own_format(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    out.push_back(text[i]);
    if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%') ++i;
  }
  return out;
}

std::string dotted_ipv4(std::uint32_t address) {
  struct in_addr in {};
  in.s_addr = address;
  char buf[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &in, buf, sizeof buf);
  return buf;
}

}  // namespace common

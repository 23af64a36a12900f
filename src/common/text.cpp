#include "common/text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace common {

namespace {
std::string vformat(const char* fmt, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int needed = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (needed <= 0) return std::string();
  std::vector<char> buf(static_cast<std::size_t>(needed) + 1);
  std::vsnprintf(buf.data(), buf.size(), fmt, args);
  return std::string(buf.data(), static_cast<std::size_t>(needed));
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

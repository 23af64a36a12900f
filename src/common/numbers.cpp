#include "common/numbers.h"

#include <charconv>

namespace common {

namespace {

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::optional<int> in_range(long long value, int min, int max) {
  if (value < min || value > max) return std::nullopt;
  return static_cast<int>(value);
}

}  // namespace

std::optional<int> parse_int(std::string_view text, int min, int max) {
  long long value = 0;
  const char* end = text.data() + text.size();
  auto result = std::from_chars(text.data(), end, value);
  if (text.empty() || result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return in_range(value, min, max);
}

std::optional<int> scan_int(std::string_view text, int min, int max) {
  std::size_t pos = 0;
  while (pos < text.size() && is_blank(text[pos])) ++pos;
  bool negative = false;
  if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) negative = text[pos++] == '-';
  const std::size_t digits = pos;
  long long value = 0;
  bool too_big = false;
  for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
    if (value > (1LL << 40)) too_big = true;  // far outside any int; keep reading the digits
    else value = value * 10 + (text[pos] - '0');
  }
  if (pos == digits || too_big) return std::nullopt;
  return in_range(negative ? -value : value, min, max);
}

std::optional<int> scan_int_after(std::string_view text, std::string_view prefix, int min,
                                  int max) {
  if (!text.starts_with(prefix)) return std::nullopt;
  return scan_int(text.substr(prefix.size()), min, max);
}

}  // namespace common

// Text building without format-string hazards: formats are always literals
// (checked by the compiler); data is only ever an argument.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace common {

// printf into a new string of any length.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// printf, then cut to at most limit characters: the documented buffer size
// minus its terminator (a 128-byte buffer gives limit 127).
std::string format_cut(std::size_t limit, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

// What formatting a text with itself as the format gives when it carries no
// conversions: a copy in which "%%" reads "%". Used where a value used to be
// its own format.
std::string copy_as_own_format(std::string_view text);

// Dotted text of an IPv4 address held in network byte order.
std::string dotted_ipv4(std::uint32_t address);

// At most n characters of the text.
inline std::string cut(std::string_view text, std::size_t n) {
  return std::string(text.substr(0, n));
}

}  // namespace common

// A short text held in place, for the data model's fields whose format sets
// a small limit (a MAC text, an interface name): no heap block per record.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace common {

// At most N characters, always followed by a NUL (c_str() is the text). As
// with a C buffer of N + 1 bytes, the text ends at its first NUL and a longer
// text keeps its first N characters; callers that must refuse a longer text
// check its size first. Made from, assigned from and compared with anything
// that reads as a std::string_view.
template <std::size_t N>
struct FixedText {
  static_assert(N > 0 && N < 256, "the length is kept in one byte");

  char text[N + 1] = {};
  std::uint8_t length = 0;

  FixedText() = default;
  template <class Text>
    requires std::convertible_to<const Text&, std::string_view>
  FixedText(const Text& value) {
    assign(value);
  }

  void assign(std::string_view value) {
    value = value.substr(0, value.find('\0')).substr(0, N);
    for (std::size_t i = 0; i < value.size(); ++i) text[i] = value[i];
    text[value.size()] = '\0';
    length = static_cast<std::uint8_t>(value.size());
  }
  void clear() { assign(std::string_view()); }

  static constexpr std::size_t capacity() { return N; }
  const char* c_str() const { return text; }
  const char* data() const { return text; }
  std::size_t size() const { return length; }
  bool empty() const { return length == 0; }
  operator std::string_view() const { return std::string_view(text, length); }

  template <class Text>
    requires std::convertible_to<const Text&, std::string_view>
  friend bool operator==(const FixedText& a, const Text& b) {
    return std::string_view(a) == std::string_view(b);
  }
};

}  // namespace common

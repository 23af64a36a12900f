#include "common/mac.h"

#include <cctype>

namespace common {

namespace {
constexpr std::size_t kMacLength = 17;

bool is_separator_position(std::size_t i) { return i % 3 == 2; }
}  // namespace

int common_mac_tolower(std::string& mac) {
  for (std::size_t i = 0; i < mac.size() && i < kMacLength; ++i)
    mac[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(mac[i])));
  return 0;
}

int common_mac_toupper(std::string& mac) {
  for (std::size_t i = 0; i < mac.size() && i < kMacLength; ++i)
    mac[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(mac[i])));
  return 0;
}

int common_valid_mac(std::string& text) {
  if (text.size() < kMacLength) return 0;
  for (std::size_t i = 2; i < kMacLength; i += 3)
    if (text[i] != ':') return 0;
  for (std::size_t i = 0; i < kMacLength; ++i) {
    if (is_separator_position(i)) continue;
    char& c = text[i];
    if (c >= 'A' && c <= 'F') {
      c = static_cast<char>(c - 'A' + 'a');
    } else if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
      return 0;
    }
  }
  text.resize(kMacLength);
  return 1;
}

std::string canonical_mac(std::string_view text) {
  std::string copy(text.substr(0, kMacLength));
  return common_valid_mac(copy) ? copy : std::string();
}

}  // namespace common

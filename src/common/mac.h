// MAC-address text helpers. A station MAC is 17 characters: six two-digit
// hexadecimal groups joined by ':'; the canonical form is lower case.
#pragma once

#include <string>

namespace common {

// Lower-cases the first 17 characters in place (fewer when the text is
// shorter). Always 0.
int common_mac_tolower(std::string& mac);

// Upper-cases the first 17 characters in place. Always 0.
int common_mac_toupper(std::string& mac);

// 1 when the first 17 characters are a MAC address. Upper-case hex digits
// are lowered in place as they are checked (also on failure, up to the bad
// character); on success the text is cut after its 17th character.
int common_valid_mac(std::string& text);

// The same check on a copy: the MAC in canonical form, or "" when the text
// does not begin with one. For callers that must not change their text.
std::string canonical_mac(std::string_view text);

}  // namespace common

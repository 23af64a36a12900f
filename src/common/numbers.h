// Checked number parsing: every number from input or configuration is read
// into a range by these, never by atoi/sscanf (which overflow silently).
#pragma once

#include <climits>
#include <optional>
#include <string_view>

namespace common {

// The whole text as a decimal number within [min, max]; nullopt when it is
// not one (a leading '+' or blanks are not accepted) or out of range.
std::optional<int> parse_int(std::string_view text, int min = INT_MIN, int max = INT_MAX);

// The number at the start of the text as "%d" would read it: blanks
// skipped, an optional sign, then digits up to the first other character.
// nullopt when there are no digits or the number is outside [min, max].
std::optional<int> scan_int(std::string_view text, int min = INT_MIN, int max = INT_MAX);

// The number after a fixed prefix ("ath", "bcp") read by scan_int; nullopt
// when the text does not begin with the prefix.
std::optional<int> scan_int_after(std::string_view text, std::string_view prefix,
                                  int min = INT_MIN, int max = INT_MAX);

}  // namespace common

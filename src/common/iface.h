// Interface numbers and names. "/etc/dev_lan_if" lists the LAN-side
// wireless interfaces, one a line; the line number is the interface number.
// Without a listed name an interface number n is called "ath<n>".
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace common {

// Interface numbers of "athN" names are read in -255..255 (16 radios of 16
// VAPs); a larger number counts as none.
inline constexpr int kInterfaceNumberMax = 255;

inline constexpr const char* kDevLanIfPath = "/etc/dev_lan_if";
inline constexpr std::size_t kInterfaceSlots = 16;
// Names longer than this are cut to it (the table holds 20-byte entries).
inline constexpr std::size_t kInterfaceNameMax = 19;

using InterfaceTable = std::array<std::string, kInterfaceSlots>;

// The table from the text of an interface file: at most 16 lines, each
// taken up to its first CR or LF and cut to 19 characters.
InterfaceTable parse_interface_table(std::string_view text);
// Lookups in a given table (the file-reading ones below use these).
int interface_index_in(const InterfaceTable& table, std::string_view name);
std::string interface_name_in(const InterfaceTable& table, int index);

// Clears the table and fills it from "/etc/dev_lan_if" (at most 16 lines,
// each up to its first CR or LF). A missing file leaves the table empty.
void read_interface_from_file(InterfaceTable& table);

// The lookups below see the file as it is at the call: it is read again
// whenever stat() shows it changed (device, inode, size, modification or
// change time), and otherwise answered from the table last read.

// The table as the file holds it now.
InterfaceTable current_interface_table();

// The number of the first entry equal to the name (so "" finds the first
// entry past the file's last line, or an empty line); else the number in
// "ath%d"; else 0.
int get_interface_idx_by_name(std::string_view name);

// The listed name of the number, or "ath<number>".
std::string get_interface_name_by_idx(int index);

}  // namespace common

#include "common/iface.h"

#include "common/files.h"
#include "common/numbers.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

namespace common {

namespace {

// The table as last read from the file: a lookup looks at the file again
// (one stat, once per look) and reads it only when that changed, so an edit
// counts from the next look on.
std::mutex g_table_mutex;
LookedAtFile g_table_file;  // guarded by g_table_mutex
InterfaceTable g_table;     // guarded by g_table_mutex

const InterfaceTable& fresh_table() {
  if (must_read(g_table_file, kDevLanIfPath)) read_interface_from_file(g_table);
  return g_table;
}

}  // namespace

InterfaceTable parse_interface_table(std::string_view text) {
  InterfaceTable table;
  for (std::size_t i = 0; i < kInterfaceSlots && !text.empty(); ++i) {
    const std::size_t end = text.find_first_of("\r\n");
    table[i] = std::string(text.substr(0, std::min({end, text.size(), kInterfaceNameMax})));
    const std::size_t next = text.find('\n');
    if (next == std::string_view::npos) break;
    text.remove_prefix(next + 1);
  }
  return table;
}

void read_interface_from_file(InterfaceTable& table) {
  for (auto& entry : table) entry.clear();
  FilePtr f(std::fopen(kDevLanIfPath, "r"));
  if (!f) return;
  std::string text;
  char line[50];
  // Lines are read in pieces of at most 49 characters, as the device does;
  // a longer line's rest counts as a line of its own.
  for (std::size_t i = 0; i < kInterfaceSlots && std::fgets(line, sizeof line, f.get()); ++i) {
    std::string_view piece(line);
    if (piece.empty() || piece.back() != '\n') text.append(piece).push_back('\n');
    else text.append(piece);
  }
  table = parse_interface_table(text);
}

int interface_index_in(const InterfaceTable& table, std::string_view name) {
  for (std::size_t i = 0; i < kInterfaceSlots; ++i)
    if (table[i] == name) return static_cast<int>(i);  // "" finds the first empty entry
  return scan_int_after(name, "ath", -kInterfaceNumberMax, kInterfaceNumberMax).value_or(0);
}

std::string interface_name_in(const InterfaceTable& table, int index) {
  if (index >= 0 && index < static_cast<int>(kInterfaceSlots) && !table[index].empty())
    return table[index];
  return "ath" + std::to_string(index);
}

InterfaceTable current_interface_table() {
  std::lock_guard<std::mutex> lock(g_table_mutex);
  return fresh_table();
}

int get_interface_idx_by_name(std::string_view name) {
  std::lock_guard<std::mutex> lock(g_table_mutex);
  return interface_index_in(fresh_table(), name);
}

std::string get_interface_name_by_idx(int index) {
  std::lock_guard<std::mutex> lock(g_table_mutex);
  return interface_name_in(fresh_table(), index);
}

}  // namespace common

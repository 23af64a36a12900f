#include "common/iface.h"

#include "common/files.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace common {

void read_interface_from_file(InterfaceTable& table) {
  for (auto& entry : table) entry.clear();
  FilePtr f(std::fopen(kDevLanIfPath, "r"));
  if (!f) return;
  char line[50];
  for (std::size_t i = 0; i < kInterfaceSlots; ++i) {
    line[0] = '\0';
    if (!std::fgets(line, sizeof line, f.get())) break;
    std::size_t len = std::strcspn(line, "\r\n");
    table[i].assign(line, std::min(len, kInterfaceNameMax));
  }
}

int get_interface_idx_by_name(std::string_view name) {
  InterfaceTable table;
  read_interface_from_file(table);
  for (std::size_t i = 0; i < kInterfaceSlots; ++i)
    if (!table[i].empty() && table[i] == name) return static_cast<int>(i);
  std::string copy(name);
  int number = 0;
  if (std::sscanf(copy.c_str(), "ath%d", &number) == 1) return number;
  return 0;
}

std::string get_interface_name_by_idx(int index) {
  InterfaceTable table;
  read_interface_from_file(table);
  if (index >= 0 && index < static_cast<int>(kInterfaceSlots) && !table[index].empty())
    return table[index];
  return "ath" + std::to_string(index);
}

}  // namespace common

// The client files' kept lines: the part of the data model that the client
// files module fills (see clients/files.h).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/iface.h"
#include "model/client_record.h"

namespace clients {

// The client files' lines kept ready: a slot's lines are formatted again
// only after mark_lines_changed() named its record (or when the interface
// names changed), so a rewrite costs about the bytes it writes. Main thread
// only.
struct ClientFileCache {
  bool valid = false;                 // false: every line is formatted again
  common::InterfaceTable names;       // the names the lines were made with
  std::array<std::uint8_t, kClientSlots> changed{};  // 1: the slot's lines are out of date
  bool any_changed = false;
  // The lines of the in-use slots of the used range in slot order; slot i's
  // line is [offset[i], offset[i + 1]) (empty for a slot not in use).
  std::string list_text, stats_text;
  std::vector<std::uint32_t> list_offset, stats_offset;
  std::vector<std::uint8_t> current;  // per slot: listed in the associated list
  // The associated list: runs of adjacent current lines in list_text, made
  // again only after list_text changed.
  std::vector<std::string_view> assoc_pieces;
  bool assoc_valid = false;
};

}  // namespace clients

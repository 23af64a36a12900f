#include "daemon/pipe_lines.h"

namespace daemon_core {

namespace {

// Adds text to the unfinished line, or marks it too long.
void carry_on(PipeCarry& carry, std::string_view text) {
  if (!carry.overlong && carry.piece.size() + text.size() <= kLineMax) {
    carry.piece.append(text);
    return;
  }
  carry.piece.clear();
  carry.overlong = true;
}

}  // namespace

std::vector<std::string> take_lines(PipeCarry& carry, std::string_view chunk) {
  std::vector<std::string> lines;
  for (std::size_t newline; (newline = chunk.find('\n')) != std::string_view::npos;
       chunk.remove_prefix(newline + 1)) {
    carry_on(carry, chunk.substr(0, newline));
    if (!carry.overlong) lines.push_back(std::move(carry.piece));
    carry = PipeCarry{};
  }
  carry_on(carry, chunk);
  return lines;
}

}  // namespace daemon_core

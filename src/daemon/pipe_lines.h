// Lines from a pipe that is read in pieces: the text after the last newline
// of one read is kept and joined with the next read of the same pipe, so a
// line written in parts, or cut by the 1023-byte read, still arrives whole.
// Pure: no I/O.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace daemon_core {

// One read takes at most this many bytes, and a line (without its newline)
// may hold at most this many characters; a longer one is dropped whole.
inline constexpr std::size_t kPipeReadMax = 1023;
inline constexpr std::size_t kLineMax = 1023;

// What one pipe keeps between reads.
struct PipeCarry {
  std::string piece;      // the unfinished line so far, at most kLineMax characters
  bool overlong = false;  // the unfinished line is already too long: dropped when it ends
};

// The lines that the chunk completes, in order, without their newlines: the
// carried piece joined with the chunk's first line, then the chunk's other
// lines. A line longer than kLineMax is left out whole (neither its head nor
// its tail is a line). The text after the chunk's last newline is carried.
std::vector<std::string> take_lines(PipeCarry& carry, std::string_view chunk);

}  // namespace daemon_core

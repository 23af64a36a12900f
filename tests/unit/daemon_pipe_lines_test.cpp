#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/pipe_lines.h"

namespace {

using Lines = std::vector<std::string>;

// Each case feeds its reads to one carry in turn; the lines of all reads.
TEST(PipeLines, PiecesAreJoinedAcrossReadsAndOverlongLinesDroppedWhole) {
  const std::string max(daemon_core::kLineMax, 'm');
  const struct Case {
    std::vector<std::string> reads;
    Lines lines;
  } cases[] = {
      {{"a\nb\n"}, {"a", "b"}},
      {{"a\n\nb"}, {"a", ""}},
      {{"ab", "c\nd", "\n"}, {"abc", "d"}},
      {{"a", "b", "c", "\n"}, {"abc"}},
      {{max.substr(0, 1000), max.substr(1000) + "\nx\n"}, {max, "x"}},
      // One character too many: neither the head nor the tail is a line.
      {{max, "m\nx\n"}, {"x"}},
      {{max + "m", "", "more", "\nx\n"}, {"x"}},
      {{max + "m\nx"}, {}},
      {{std::string(3000, 'm') + "\n", "y\n"}, {"y"}},
  };
  for (const Case& c : cases) {
    daemon_core::PipeCarry carry;
    Lines got;
    for (const std::string& read : c.reads)
      for (std::string& line : daemon_core::take_lines(carry, read)) got.push_back(std::move(line));
    EXPECT_EQ(got, c.lines) << c.reads.front().substr(0, 20);
  }
}

TEST(PipeLines, EveryCutOfAStreamGivesTheSameLines) {
  const std::string stream = "00:11:22:33:44:55 10.0.0.5 ath0\n\nsecond line\nthird\n";
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    daemon_core::PipeCarry carry;
    Lines got = daemon_core::take_lines(carry, std::string_view(stream).substr(0, cut));
    for (std::string& line : daemon_core::take_lines(carry, std::string_view(stream).substr(cut)))
      got.push_back(std::move(line));
    EXPECT_EQ(got, (Lines{"00:11:22:33:44:55 10.0.0.5 ath0", "", "second line", "third"})) << cut;
    EXPECT_TRUE(carry.piece.empty() && !carry.overlong);
  }
}

}  // namespace

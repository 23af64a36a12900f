#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "common/files.h"
#include "common/fixed_text.h"
#include "common/mac.h"
#include "common/runner.h"
#include "common/text.h"
#include "test_dir.h"

namespace {

TEST(ValidMac, CanonicalisesOrRejects) {
  struct Case { const char* in; int ok; const char* after; };
  const Case cases[] = {
      {"00:1A:2b:3C:4d:5E\n", 1, "00:1a:2b:3c:4d:5e"},  // lowered, tail cut
      {"AA:BB:CG:DD:EE:FF", 0, "aa:bb:cG:DD:EE:FF"},    // lowered up to the bad character
      {"00-1a-2b-3c-4d-5e", 0, nullptr}, {"00:1a:2b:3c:4d:5", 0, nullptr},
      {"", 0, nullptr},                  {"001a:2b:3c:4d:5e:f", 0, nullptr},
  };
  for (const Case& c : cases) {
    std::string text = c.in;
    EXPECT_EQ(common::common_valid_mac(text), c.ok) << c.in;
    if (c.after) {
      EXPECT_EQ(text, c.after);
    }
  }
}

TEST(FixedText, CutsAtNulThenAtCapacity) {
  using namespace std::string_view_literals;
  struct Case { std::string_view in; std::string_view want; };
  const Case cases[] = {
      {"00:11:22:33:44:55", "00:11:22:33:44:55"},
      {"00:11:22:33:44:55:66", "00:11:22:33:44:55"},
      {"00:11\0:22"sv, "00:11"},
      {"", ""},
  };
  common::FixedText<17> text = "aa:bb:cc:dd:ee:ff:00";  // each case goes over the one before
  for (const Case& c : cases) {
    text = c.in;
    EXPECT_EQ(std::string_view(text), c.want) << c.in;
    EXPECT_EQ(std::string_view(text.c_str()), c.want) << "a NUL follows the text";
  }
  text = "00:11:22:33:44:55";
  EXPECT_TRUE(text == "00:11:22:33:44:55");
  EXPECT_FALSE(text == "00:11:22:33:44:55:66") << "the other side is not cut";
  EXPECT_FALSE(text == "00:11:22:33:44:5");
  EXPECT_TRUE(text != common::FixedText<17>("00:11:22:33:44:56"));
}

TEST(Runner, WaitStatusCutOutputAndOwnFormat) {
  EXPECT_EQ(common::run_command("exit 3"), 3 << 8);
  EXPECT_EQ(common::run_command_read("echo one; echo two", 6), "one\ntw");
  EXPECT_EQ(common::copy_as_own_format("100%% of %s"), "100% of %s");
}

// Cached small files are looked at again in each look; a command run during
// a look starts a new one, but must not revive a look the loop has ended.
TEST(Files, LooksRenewOnlyWhileInProgress) {
  EXPECT_EQ(common::current_look(), 0u);
  common::begin_look();
  const auto first = common::current_look();
  EXPECT_NE(first, 0u);
  EXPECT_EQ(common::run_command("true"), 0);
  EXPECT_NE(common::current_look(), first);
  EXPECT_NE(common::current_look(), 0u);
  common::end_look();
  common::renew_look();
  EXPECT_EQ(common::current_look(), 0u);
}

TEST(Files, WriteFirstLineAndAtomicReplace) {
  const std::string path = test_support::own_temp_dir() + "/common_files.txt";
  ASSERT_EQ(common::common_write_file(path, "abc\ndef\n"), 0);
  ASSERT_EQ(common::replace_file_atomically(path, "two\nthree\n"), 0);
  EXPECT_EQ(common::common_readfile_firstline(path), "two\n");
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(common::common_readfile_firstline(path + ".missing"), "");
  EXPECT_EQ(common::common_write_file("/nonexistent-dir/x", "a"), -1);
  EXPECT_EQ(common::replace_file_atomically("/nonexistent-dir/x", "a"), -1);
}

TEST(Files, ReplaceNeverWritesThroughWhatHoldsItsTemporaryName) {
  const std::string dir = test_support::own_temp_dir();
  const std::string path = dir + "/common_taken.txt", victim = dir + "/common_victim.txt";
  const std::string own = dir + "/.common_taken.txt." + std::to_string(::getpid());
  ASSERT_EQ(common::common_write_file(victim, "victim\n"), 0);
  ASSERT_EQ(::symlink(victim.c_str(), own.c_str()), 0);
  ASSERT_EQ(common::replace_file_atomically(path, "new\n"), 0);
  EXPECT_EQ(common::common_readfile_firstline(path), "new\n");
  EXPECT_EQ(common::common_readfile_firstline(victim), "victim\n");
  struct stat st {};
  EXPECT_EQ(::lstat(own.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ::unlink(own.c_str());
}

TEST(Files, PiecesAreWrittenInOrderAcrossWritevBatches) {
  const std::string path = test_support::own_temp_dir() + "/common_pieces.txt";
  std::vector<std::string> lines;
  std::vector<std::string_view> pieces;
  std::string whole;
  for (int i = 0; i < 200; ++i) lines.push_back(i % 3 == 0 ? "" : "line " + std::to_string(i) + "\n");
  for (const std::string& line : lines) {
    pieces.push_back(line);
    whole += line;
  }
  ASSERT_EQ(common::replace_file_atomically(path, pieces), 0);
  std::ifstream in(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), whole);
  ASSERT_EQ(common::replace_file_atomically(path, std::span<const std::string_view>()), 0);
  std::ifstream empty(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(empty), {}), "");
}

}  // namespace

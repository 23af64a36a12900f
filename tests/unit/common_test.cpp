#include <gtest/gtest.h>

#include <fstream>

#include "common/files.h"
#include "common/mac.h"
#include "common/runner.h"
#include "common/text.h"

namespace {

TEST(ValidMac, CanonicalisesAndCutsTail) {
  std::string text = "00:1A:2b:3C:4d:5E\n";
  EXPECT_EQ(common::common_valid_mac(text), 1);
  EXPECT_EQ(text, "00:1a:2b:3c:4d:5e");
}

TEST(ValidMac, Rejects) {
  for (const char* in : {"00-1a-2b-3c-4d-5e", "00:1a:2b:3c:4d:5", "00:1g:2b:3c:4d:5e", "",
                         "001a:2b:3c:4d:5e:f"}) {
    std::string text = in;
    EXPECT_EQ(common::common_valid_mac(text), 0) << in;
  }
}

TEST(ValidMac, LowersUpToTheBadCharacter) {
  std::string text = "AA:BB:CG:DD:EE:FF";
  EXPECT_EQ(common::common_valid_mac(text), 0);
  EXPECT_EQ(text, "aa:bb:cG:DD:EE:FF");
}

TEST(MacCase, ConvertsOnlySeventeenCharacters) {
  std::string text = "aa:bb:cc:dd:ee:ffxyz";
  common::common_mac_toupper(text);
  EXPECT_EQ(text, "AA:BB:CC:DD:EE:FFxyz");
  common::common_mac_tolower(text);
  EXPECT_EQ(text, "aa:bb:cc:dd:ee:ffxyz");
  std::string short_text = "AB";
  common::common_mac_tolower(short_text);
  EXPECT_EQ(short_text, "ab");
}

TEST(ShellQuoting, SafeValuesStayAsTheyAre) {
  EXPECT_EQ(common::shell_word("00:11:22:33:44:55"), "00:11:22:33:44:55");
  EXPECT_EQ(common::shell_word("a.b_c/d@e%f+g=h,i-j"), "a.b_c/d@e%f+g=h,i-j");
  EXPECT_EQ(common::shell_dq("Office-5G"), "Office-5G");
}

TEST(ShellQuoting, OtherValuesAreQuotedForTheirPlace) {
  EXPECT_EQ(common::shell_word("my net"), "'my net'");
  EXPECT_EQ(common::shell_word("it's"), "'it'\\''s'");
  EXPECT_EQ(common::shell_word(""), "''");
  EXPECT_EQ(common::shell_dq("a \"b\" $(c) `d` \\e"), "a \\\"b\\\" \\$(c) \\`d\\` \\\\e");
}

TEST(ShellQuoting, QuotedValuesReachTheShellIntact) {
  const std::string nasty = "x'; touch /nonexistent/pwned; echo '$(id)`id`\"\\";
  auto out = common::run_command_read("printf '%s' " + common::shell_word(nasty));
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(*out, nasty);
  out = common::run_command_read("printf '%s' \"" + common::shell_dq(nasty) + "\"");
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(*out, nasty);
}

TEST(Runner, ReturnsWaitStatusAndOutput) {
  EXPECT_EQ(common::run_command("exit 3"), 3 << 8);
  auto out = common::run_command_read("echo one; echo two", 6);
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(*out, "one\ntw");
}

TEST(Runner, RecorderReplacesExecution) {
  std::vector<std::string> seen;
  common::CommandRecorder recorder{[&](const std::string& c) { seen.push_back(c); },
                                   [](const std::string&) { return std::optional<std::string>("reply"); }};
  common::set_command_recorder(&recorder);
  EXPECT_EQ(common::run_command("false"), 0);
  EXPECT_EQ(common::run_command_read("anything"), std::optional<std::string>("reply"));
  common::set_command_recorder(nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"false", "anything"}));
}

TEST(Text, FormatsWithoutLimitsAndCuts) {
  EXPECT_EQ(common::format("%s-%d", "ath", 3), "ath-3");
  EXPECT_EQ(common::format_cut(5, "%s", "abcdefgh"), "abcde");
  EXPECT_EQ(common::copy_as_own_format("100%% of %s"), "100% of %s");
}

TEST(Files, WriteAndFirstLine) {
  const std::string path = ::testing::TempDir() + "/firstline.txt";
  ASSERT_EQ(common::common_write_file(path, "abc\ndef\n"), 0);
  EXPECT_EQ(common::common_readfile_firstline(path), "abc\n");
  EXPECT_EQ(common::common_readfile_firstline(path + ".missing"), "");
  EXPECT_EQ(common::common_write_file("/nonexistent-dir/x", "a"), -1);
}

TEST(Files, AtomicReplaceLeavesNoTemporary) {
  const std::string path = ::testing::TempDir() + "/replace.txt";
  ASSERT_EQ(common::replace_file_atomically(path, "one\n"), 0);
  ASSERT_EQ(common::replace_file_atomically(path, "two\n"), 0);
  std::ifstream in(path);
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(all, "two\n");
  EXPECT_EQ(common::replace_file_atomically("/nonexistent-dir/x", "a"), -1);
}

}  // namespace

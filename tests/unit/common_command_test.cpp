#include <gtest/gtest.h>

#include <string>

#include "common/command.h"
#include "common/numbers.h"
#include "common/runner.h"

namespace {

using common::build_command;

const std::string kNul("a\0b", 3);

TEST(CommandBuilder, PlainValuesAsTheyAreOthersQuotedForTheirPlace) {
  struct Case {
    std::optional<std::string> got;
    const char* want;
  };
  const Case cases[] = {
      {build_command(127, "x {} y", {common::word("a.b_c/d@e%f+g=h,i-j:k")}), "x a.b_c/d@e%f+g=h,i-j:k y"},
      {build_command(127, "x {}", {common::word("my net")}), "x 'my net'"},
      {build_command(127, "x {}", {common::word("it's")}), "x 'it'\\''s'"},
      {build_command(127, "x {}", {common::word("")}), "x ''"},
      {build_command(127, "x \"[{}]\"", {common::in_quotes("-a \"b\" $(c) `d` \\e")}),
       "x \"[-a \\\"b\\\" \\$(c) \\`d\\` \\\\e]\""},
      {build_command(127, "x \"{}\"", {common::quoted_arg("12:00 01-02")}), "x \"12:00 01-02\""},
      {build_command(127, "tc {} {}:{} {}", {common::constant("add"), common::hex(0x1fe), common::hex(0),
                                              common::number(-5)}), "tc add 1fe:0 -5"},
      {build_command(127, "r {}:{}", {common::host("radius.example"), common::port(1812)}),
       "r radius.example:1812"},
      {build_command(127, "s {}", {common::host_port("10.0.0.9:1162")}), "s 10.0.0.9:1162"},
      {build_command(127, "m {}", {common::mac("00:1A:2b:3c:4d:5e")}), "m 00:1A:2b:3c:4d:5e"},
      {build_command(127, "d {}", {common::device("br$x")}), "d 'br$x'"},
      {build_command(127, "e {}", {common::rule_words("-i 'br 0' -p ! 0x888e")}), "e -i 'br 0' -p ! 0x888e"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, std::optional<std::string>(c.want)) << c.want;
}

TEST(CommandBuilder, RefusesNulOptionsAndValuesThatAreNotWhatTheyClaim) {
  const common::CommandArg refused[] = {
      common::word(kNul), common::in_quotes(kNul), common::word("-Lf/etc/pwn"),
      common::quoted_arg("-x"), common::host("-h"), common::host("a b"), common::host(""),
      common::host_port("-Lf/x"), common::host_port("10.0.0.1:0"), common::host_port("10.0.0.1:70000"),
      common::host_port("h:-1"), common::port(0), common::port(65536), common::mac("-h"),
      common::mac("00:11:22:33:44:5g"), common::mac("00:11:22:33:44:55x"), common::address("1.2.3"),
      common::address("-1.2.3.4"), common::device("-x"), common::device("a b"), common::device(""),
      common::device("0123456789abcdef"), common::device("a/b"), common::path("-f"),
      common::path("tmp/x"), common::rule_words("-i br0; reboot"), common::rule_words("-i 'br0"),
      common::rule_words("-i $(id)"), common::rule_words(std::string("-i 'a\0b'", 9))};
  for (const auto& arg : refused) {
    EXPECT_EQ(build_command(common::kNoLimit, "x {}", {arg}), std::nullopt) << arg.text;
  }
  // A refused piece refuses the command it goes into.
  common::CommandText piece;
  common::append(piece, "{} ", {common::word("ok")});
  common::append(piece, "{}", {common::word(kNul)});
  EXPECT_EQ(build_command(common::kNoLimit, "x {}", {common::part(piece)}), std::nullopt);
  // Places and values must match.
  EXPECT_EQ(build_command(common::kNoLimit, "x {} {}", {common::word("a")}), std::nullopt);
  EXPECT_EQ(build_command(common::kNoLimit, "x", {common::word("a")}), std::nullopt);
}

TEST(CommandBuilder, LimitCountsTheTextBeforeQuoting) {
  // "x " + 10 characters = 12: fits in 12 though the quoted text is longer.
  EXPECT_EQ(build_command(12, "x {}", {common::word("a b c d ef")}), "x 'a b c d ef'");
  EXPECT_EQ(build_command(11, "x {}", {common::word("a b c d ef")}), std::nullopt);
  EXPECT_EQ(build_command(11, "x {}", {common::word("abcdefghi")}), "x abcdefghi");
  common::CommandText piece;
  common::append(piece, "{}", {common::word("a'b")});
  EXPECT_EQ(piece.raw_length, 3u);
  EXPECT_EQ(build_command(5, "x {}", {common::part(piece)}), "x 'a'\\''b'");
  EXPECT_EQ(build_command(4, "x {}", {common::part(piece)}), std::nullopt);
}

TEST(CommandBuilder, HostileTextReachesTheToolAsOneArgument) {
  const std::string nasty = "x'; touch /nonexistent/pwned; echo '$(id)`id`\"\\";
  EXPECT_EQ(common::run_command_read(build_command(common::kNoLimit, "printf '%s' {}", {common::word(nasty)})),
            nasty);
  EXPECT_EQ(common::run_command_read(
                build_command(common::kNoLimit, "printf '%s' \"{}\"", {common::quoted_arg(nasty)})),
            nasty);
  EXPECT_EQ(common::run_command(std::optional<std::string>()), -1);
}

TEST(Numbers, CheckedRanges) {
  EXPECT_EQ(common::parse_int("42"), 42);
  EXPECT_EQ(common::parse_int("-7", -10, 10), -7);
  for (const char* bad : {"", " 1", "1 ", "+1", "2147483648", "99999999999999999999", "0x10", "1a"})
    EXPECT_EQ(common::parse_int(bad), std::nullopt) << bad;
  EXPECT_EQ(common::parse_int("17", 0, 16), std::nullopt);
  EXPECT_EQ(common::scan_int("  12abc"), 12);
  EXPECT_EQ(common::scan_int("-2147483648"), -2147483647 - 1);
  for (const char* bad : {"", "x1", "-", "2147483648", "-2147483649", "99999999999999999999999"})
    EXPECT_EQ(common::scan_int(bad), std::nullopt) << bad;
  EXPECT_EQ(common::scan_int_after("ath2147483647", "ath", 0, 255), std::nullopt);
  EXPECT_EQ(common::scan_int_after("ath3 x", "ath", 0, 255), 3);
  EXPECT_EQ(common::scan_int_after("bcp-2147483648", "bcp"), -2147483647 - 1);
  EXPECT_EQ(common::scan_int_after("eth1", "ath"), std::nullopt);
}

}  // namespace

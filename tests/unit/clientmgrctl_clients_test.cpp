#include <gtest/gtest.h>

#include "clientmgrctl/clients.h"

namespace {

using namespace clientmgrctl;

constexpr const char* kA = "00:11:22:33:44:55";
constexpr const char* kB = "00:11:22:33:44:66";

std::string list_line(const std::string& vap, const std::string& mac, const std::string& rest) {
  return vap + ":" + mac + " " + rest + "\n";
}

TEST(CtlClientFiles, ParsesWholeWellFormedLinesOnly) {
  const std::string text = list_line("ath0", kA, "10.0.0.6 5000 0 1 0 5000") +
                           list_line("ath1", kB, "0.0.0.0 -5 2147483647 3 2 7") +
                           "ath1:" + kB + " 0.0.0.0 1 2 3 4\n" +            // a field short
                           "ath1-001122334466 0.0.0.0 1 2 3 4 5\n" +         // no ':'
                           "ath1:" + kB + " 0.0.0.0 1 2 3 4 2147483648\n" +  // beyond 32 bits
                           "ath2:" + kA + " 0.0.0.0 1 2 3 4 5";              // no newline yet
  const auto rows = parse_client_list(text);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].vap, "ath0");
  EXPECT_EQ(rows[0].mac, kA);
  EXPECT_EQ(rows[0].ip, "10.0.0.6");
  EXPECT_EQ(rows[0].assoc_uptime, 5000);
  EXPECT_EQ(rows[1].assoc_uptime, -5);
  EXPECT_EQ(rows[1].disassoc_uptime, 2147483647);
  EXPECT_EQ(rows[1].first_assoc_uptime, 7);

  // A MAC field of a bus line is taken as it came, blanks included.
  const auto odd = parse_client_list("ath0:00:11 22:33:44:5 0.0.0.0 0 0 0 0 0\n");
  ASSERT_EQ(odd.size(), 1u);
  EXPECT_EQ(odd[0].mac, "00:11 22:33:44:5");

  const auto stats = parse_client_stats(std::string("ath1:") + kA + " 5000000300 101 10 3 0 0 0 0 0\n" +
                                        "ath1:" + kA + " 1 2 4294967296 0 0 0 0 0 0\n");
  ASSERT_EQ(stats.size(), 1u);
  EXPECT_EQ(stats[0].tx_bytes, 5000000300u);
  EXPECT_EQ(stats[0].rx_bytes, 101u);
  EXPECT_EQ(stats[0].tx_packets, 10u);
  EXPECT_EQ(stats[0].rx_packets, 3u);
}

TEST(CtlClientFiles, JoinsByVapAndMac) {
  const std::string list = list_line("ath0", kA, "10.0.0.6 5000 0 1 0 5000") +
                           list_line("ath1", kA, "0.0.0.0 5002 0 1 0 5002") + list_line("ath1", kB, "0.0.0.0 0 0 0 0 0");
  const std::string assoc = list_line("ath1", kA, "0.0.0.0 5002 0 1 0 5002");
  const std::string stats = std::string("ath1:") + kA + " 7 8 9 10 0 0 0 0 0\nath0:" + kA + " 1 2 3 4 0 0 0 0 0\n";
  const auto rows = join_clients(list, assoc, stats);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_FALSE(rows[0].associated);
  EXPECT_EQ(rows[0].stats->tx_bytes, 1u);
  EXPECT_TRUE(rows[1].associated);
  EXPECT_EQ(rows[1].stats->rx_packets, 10u);
  EXPECT_FALSE(rows[2].associated);
  EXPECT_FALSE(rows[2].stats);

  EXPECT_EQ(filter_stations(rows, "ath1", false).size(), 2u);
  EXPECT_EQ(filter_stations(rows, "", true).size(), 1u);
  EXPECT_EQ(filter_stations(rows, "ath0", true).size(), 0u);
}

TEST(CtlFormat, AgesAndAmountsStayShort) {
  const std::pair<std::int64_t, const char*> ages[] = {
      {0, "0s"}, {59, "59s"}, {60, "1m00s"}, {3599, "59m59s"}, {3600, "1h00m"}, {86399, "23h59m"},
      {86400, "1d00h"}, {100 * 86400 - 1, "99d23h"}, {100 * 86400, "100d"}, {-1, "-"}, {INT64_MAX, ">999kd"}};
  for (const auto& [seconds, text] : ages) EXPECT_EQ(format_age(seconds), text) << seconds;
  const std::pair<std::uint64_t, const char*> amounts[] = {
      {0, "0"}, {1023, "1023"}, {1024, "1.0K"}, {10239, "9.9K"}, {10240, "10K"}, {1023999, "999K"},
      {1024000, "0.9M"}, {5000000300ULL, "4.6G"}, {UINT64_MAX, "15E"}};
  for (const auto& [value, text] : amounts) EXPECT_EQ(format_amount(value), text) << value;
}

TEST(CtlFormat, TableIsAlignedAndFitsEightyColumns) {
  Station widest;
  widest.entry = {"ath255", "aa:bb:cc:dd:ee:ff", "255.255.255.255", 1, 2, 4294967295LL, 4294967295LL, 1};
  widest.associated = true;
  widest.stats = StatsEntry{"ath255", "aa:bb:cc:dd:ee:ff", UINT64_MAX, UINT64_MAX, 1, 1};
  Station fresh;
  fresh.entry = {"ath0", kA, "0.0.0.0", 0, 0, 0, 0, 0};
  const std::string table = format_table({widest, fresh}, 2000000000);
  std::vector<std::string> lines;
  for (std::size_t at = 0, nl; (nl = table.find('\n', at)) != std::string::npos; at = nl + 1)
    lines.push_back(table.substr(at, nl - at));
  ASSERT_EQ(lines.size(), 3u);
  for (const std::string& line : lines) EXPECT_LE(line.size(), 80u) << line;
  EXPECT_EQ(lines[0].find("MAC"), lines[1].find("aa:bb"));
  EXPECT_EQ(lines[0].find("JOINED"), lines[1].find("23148d"));
  EXPECT_EQ(lines[2], "ath0   00:11:22:33:44:55 0.0.0.0         no  -      -      0/0       -   -");
}

TEST(CtlJson, EscapesEveryByteThatNeedsIt) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"ath0", "\"ath0\""}, {"a\"b\\c", "\"a\\\"b\\\\c\""}, {std::string_view("a\0b\n\x7f", 5), "\"a\\u0000b\\u000a\\u007f\""},
      {"\xc3\xa9", "\"\\u00c3\\u00a9\""}};
  for (const auto& [in, want] : cases) EXPECT_EQ(json_string(in), want);

  Station s;
  s.entry = {"ath0", kA, "10.0.0.6", 5000, 0, 1, 0, 5000};
  s.associated = true;
  EXPECT_EQ(format_json({s}, 5060),
            "{\"uptime\": 5060, \"stations\": [\n  {\"vap\": \"ath0\", \"mac\": \"00:11:22:33:44:55\", \"ip\": "
            "\"10.0.0.6\", \"associated\": true, \"assoc_uptime\": 5000, \"assoc_age\": 60, \"disassoc_uptime\": 0, "
            "\"disassoc_age\": null, \"first_assoc_uptime\": 5000, \"assoc_count\": 1, \"disassoc_count\": 0, "
            "\"tx_bytes\": null, \"rx_bytes\": null, \"tx_packets\": null, \"rx_packets\": null}\n]}\n");
  EXPECT_EQ(format_json({}, 1), "{\"uptime\": 1, \"stations\": []}\n");
}

TEST(CtlWatch, ReportsJoinRoamAddressLeaveAndRemovalOnce) {
  auto rows = [](const std::string& list, const std::string& assoc) { return join_clients(list, assoc, ""); };
  const std::string a0 = list_line("ath0", kA, "0.0.0.0 100 0 1 0 100");
  const std::string a0_ip = list_line("ath0", kA, "10.0.0.5 100 0 1 0 100");
  const std::string a1 = list_line("ath1", kA, "0.0.0.0 102 0 1 0 102");
  const std::string a1_left = list_line("ath1", kA, "0.0.0.0 102 150 1 1 102");
  const std::string a0_again = list_line("ath0", kA, "0.0.0.0 200 0 2 0 100");
  auto text = [](const std::vector<Change>& changes) {
    std::string out;
    for (const Change& c : changes) out += format_change(c, false);
    return out;
  };
  struct Case { std::vector<Station> before, after; std::string want; };
  const Case cases[] = {
      {{}, rows(a0, a0), "joined ath0 00:11:22:33:44:55\n"},
      {rows(a0, a0), rows(a0_ip, a0_ip), "address ath0 00:11:22:33:44:55 10.0.0.5\n"},
      {rows(a0_ip, a0_ip), rows(a0_ip + a1, a1), "roamed ath1 00:11:22:33:44:55 from ath0\n"},
      {rows(a0_ip + a1, a1), rows(a0_ip + a1_left, ""), "left ath1 00:11:22:33:44:55\n"},
      {rows(a0, a0), rows(a0_again, a0_again), "joined ath0 00:11:22:33:44:55\n"},  // a leave was missed
      {rows(a0_ip + a1_left, ""), rows(a1_left, ""), "removed ath0 00:11:22:33:44:55\n"},
      {rows(a0_ip, a0_ip), rows(a0_ip, a0_ip), ""},
  };
  for (const Case& c : cases) EXPECT_EQ(text(diff_stations(c.before, c.after)), c.want);
  EXPECT_EQ(format_change({ChangeKind::kRoamed, "ath1", kA, "", "ath0"}, true),
            "{\"event\": \"roamed\", \"vap\": \"ath1\", \"mac\": \"00:11:22:33:44:55\", \"from\": \"ath0\"}\n");
}

TEST(CtlRead, RewriteFinishedOnlyWhenLaterFilesAreNotOlder) {
  struct Case { std::optional<std::int64_t> list, assoc, stats; bool finished; };
  const Case cases[] = {{std::nullopt, std::nullopt, std::nullopt, true}, {1, 1, 1, true}, {1, 2, 3, true},
                        {2, 1, 3, false}, {1, 2, 1, false}, {1, std::nullopt, std::nullopt, false},
                        {1, 1, std::nullopt, false}, {std::nullopt, std::nullopt, 5, true}};
  for (const Case& c : cases) EXPECT_EQ(rewrite_finished(c.list, c.assoc, c.stats), c.finished);

  const std::string_view a = "ath0:00:11:22:33:44:55 10.0.0.5 1 0 1 0 1\n";
  const std::string_view b = "ath1:00:11:22:33:44:66 0.0.0.0 2 0 1 0 2\n";
  const std::string both = std::string(a) + std::string(b);
  EXPECT_TRUE(files_agree(both, b, "ath0:00:11:22:33:44:55 0 0 0 0\nath1:00:11:22:33:44:66 0 0 0 0\n"));
  EXPECT_TRUE(files_agree("", "", ""));
  EXPECT_FALSE(files_agree(both, b, "ath0:00:11:22:33:44:55 0 0 0 0\n"));  // stats not yet rewritten
  EXPECT_FALSE(files_agree(a, b, "ath0:00:11:22:33:44:55 0 0 0 0\n"));     // assoc ahead of the list
}

}  // namespace

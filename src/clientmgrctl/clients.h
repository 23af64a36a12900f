// The client files as clientmgrctl reads them: parsing, the join of the
// three files into one row per station, the table and JSON forms, and the
// changes between two readings. Pure functions; nothing here reads files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace clientmgrctl {

inline constexpr std::string_view kClientListPath = "/etc/clientip";
inline constexpr std::string_view kClientAssocListPath = "/etc/clientip_assoc";
inline constexpr std::string_view kClientStatsPath = "/etc/client_accu_stat";

// One line of /etc/clientip or /etc/clientip_assoc:
// "VAP:MAC IP assoc_uptime disassoc_uptime assoc_count disassoc_count first_assoc_uptime".
struct ListEntry {
  std::string vap;
  std::string mac;
  std::string ip;
  std::int64_t assoc_uptime = 0;
  std::int64_t disassoc_uptime = 0;
  std::int64_t assoc_count = 0;
  std::int64_t disassoc_count = 0;
  std::int64_t first_assoc_uptime = 0;
};

// One line of /etc/client_accu_stat: "VAP:MAC tx_bytes rx_bytes tx_packets
// rx_packets" and five further counters that are not shown.
struct StatsEntry {
  std::string vap;
  std::string mac;
  std::uint64_t tx_bytes = 0;
  std::uint64_t rx_bytes = 0;
  std::uint64_t tx_packets = 0;
  std::uint64_t rx_packets = 0;
};

// One station of the table: a line of /etc/clientip, whether the same VAP
// and MAC are in /etc/clientip_assoc, and its counters when it has a line
// in /etc/client_accu_stat.
struct Station {
  ListEntry entry;
  bool associated = false;
  std::optional<StatsEntry> stats;
};

// The whole lines of a file that parse; a malformed line or an unfinished
// last line is skipped.
std::vector<ListEntry> parse_client_list(std::string_view text);
std::vector<StatsEntry> parse_client_stats(std::string_view text);

// The rows of clientip in its order, joined by VAP and MAC.
std::vector<Station> join_clients(std::string_view clientip, std::string_view clientip_assoc,
                                  std::string_view client_accu_stat);

// The rows that pass the filters (vap empty: every VAP).
std::vector<Station> filter_stations(std::vector<Station> stations, std::string_view vap,
                                     bool associated_only);

// "45s", "12m05s", "3h04m", "12d03h", "123d": at most 6 characters; "-"
// for a negative age.
std::string format_age(std::int64_t seconds);

// At most 4 characters: "1023", "9.9K", "999K", "1.0M" ... up to "E".
std::string format_amount(std::uint64_t value);

// The aligned table with a header line, every line at most 80 columns;
// ages from uptime (seconds), "-" where a time or a counter is unknown.
std::string format_table(const std::vector<Station>& stations, std::int64_t uptime);

// A JSON string literal (quotes included): '"' '\\' and control characters
// escaped, bytes above 0x7f written as \u00XX.
std::string json_string(std::string_view text);

// One JSON document: {"uptime": N, "stations": [{...}, ...]} with the field
// names of the manual page, and a newline.
std::string format_json(const std::vector<Station>& stations, std::int64_t uptime);

// A change between two readings of the table, for watch.
enum class ChangeKind { kJoined, kRoamed, kAddress, kLeft, kRemoved };

struct Change {
  ChangeKind kind = ChangeKind::kJoined;
  std::string vap;
  std::string mac;
  std::string ip;        // kAddress: the new address
  std::string from_vap;  // kRoamed: the VAP it was associated with before
};

// The changes from before to after, in the order of after's rows; removed
// records last. A station that becomes associated on one VAP while it was
// associated on another before is reported once, as roamed.
std::vector<Change> diff_stations(const std::vector<Station>& before, const std::vector<Station>& after);

// "joined ath0 00:11:22:33:44:55" ... or one JSON object; with a newline.
std::string format_change(const Change& change, bool json);

// Whether three readings taken together show a finished rewrite: the daemon
// writes /etc/clientip, then /etc/clientip_assoc, then /etc/client_accu_stat,
// so while it is between two of them an earlier file is newer than a later
// one. Times are modification times in nanoseconds; a missing file (nullopt)
// does not count.
bool rewrite_finished(std::optional<std::int64_t> list_mtime, std::optional<std::int64_t> assoc_mtime,
                      std::optional<std::int64_t> stats_mtime);

// Whether three file texts belong to one rewrite: /etc/clientip and
// /etc/client_accu_stat name the same "athN:MAC" records, and every record
// of /etc/clientip_assoc is in /etc/clientip. Modification times alone
// cannot tell two rewrites apart within one tick of the file system clock.
bool files_agree(std::string_view list, std::string_view assoc, std::string_view stats);

}  // namespace clientmgrctl

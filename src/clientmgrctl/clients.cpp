#include "clientmgrctl/clients.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <map>
#include <set>
#include <utility>

namespace clientmgrctl {

namespace {

constexpr std::size_t kVapColumnMax = 8;

std::optional<std::int64_t> to_int(std::string_view text, std::int64_t min, std::int64_t max) {
  if (text.empty()) return std::nullopt;
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || value < min || value > max) return std::nullopt;
  return value;
}

std::optional<std::uint64_t> to_uint(std::string_view text) {
  if (text.empty() || text.front() == '-') return std::nullopt;
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end) return std::nullopt;
  return value;
}

// A line split from the right: `count` space-separated words at its end,
// and the head before them ("VAP:MAC", which may hold anything a MAC field
// of the daemon may hold).
struct Split {
  std::string_view head;
  std::vector<std::string_view> words;
};

std::optional<Split> split_right(std::string_view line, std::size_t count) {
  Split split;
  split.words.resize(count);
  for (std::size_t i = count; i-- > 0;) {
    const std::size_t space = line.rfind(' ');
    if (space == std::string_view::npos) return std::nullopt;
    split.words[i] = line.substr(space + 1);
    line = line.substr(0, space);
  }
  split.head = line;
  return split;
}

// "VAP:MAC": the MAC is the last 17 characters after a ':'; a shorter one
// (a bus line's MAC is taken as it came) ends the VAP at the first ':'.
bool split_head(std::string_view head, std::string& vap, std::string& mac) {
  constexpr std::size_t kMacLength = 17;
  std::size_t colon = head.size() > kMacLength ? head.size() - kMacLength - 1 : std::string_view::npos;
  if (colon == std::string_view::npos || head[colon] != ':') colon = head.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  vap = std::string(head.substr(0, colon));
  mac = std::string(head.substr(colon + 1));
  return true;
}

template <typename Entry, typename ParseFn>
std::vector<Entry> parse_lines(std::string_view text, ParseFn parse) {
  std::vector<Entry> entries;
  std::size_t newline;
  while ((newline = text.find('\n')) != std::string_view::npos) {
    if (auto entry = parse(text.substr(0, newline))) entries.push_back(std::move(*entry));
    text.remove_prefix(newline + 1);
  }
  return entries;
}

std::optional<ListEntry> parse_list_line(std::string_view line) {
  constexpr std::int64_t kMin = INT32_MIN;
  constexpr std::int64_t kMax = INT32_MAX;
  auto split = split_right(line, 6);
  if (!split) return std::nullopt;
  ListEntry e;
  if (!split_head(split->head, e.vap, e.mac)) return std::nullopt;
  e.ip = std::string(split->words[0]);
  std::array<std::int64_t*, 5> fields{&e.assoc_uptime, &e.disassoc_uptime, &e.assoc_count,
                                      &e.disassoc_count, &e.first_assoc_uptime};
  for (std::size_t i = 0; i < fields.size(); ++i) {
    auto value = to_int(split->words[i + 1], kMin, kMax);
    if (!value) return std::nullopt;
    *fields[i] = *value;
  }
  if (e.ip.empty()) return std::nullopt;
  return e;
}

std::optional<StatsEntry> parse_stats_line(std::string_view line) {
  auto split = split_right(line, 9);
  if (!split) return std::nullopt;
  StatsEntry e;
  if (!split_head(split->head, e.vap, e.mac)) return std::nullopt;
  std::array<std::uint64_t, 9> values{};
  for (std::size_t i = 0; i < values.size(); ++i) {
    auto value = to_uint(split->words[i]);
    if (!value || (i >= 2 && *value > UINT32_MAX)) return std::nullopt;
    values[i] = *value;
  }
  e.tx_bytes = values[0];
  e.rx_bytes = values[1];
  e.tx_packets = values[2];
  e.rx_packets = values[3];
  return e;
}

std::string pad(std::string_view text, std::size_t width) {
  std::string out(text);
  if (out.size() < width) out.append(width - out.size(), ' ');
  return out;
}

std::string uptime_age(std::int64_t stamp, std::int64_t uptime) {
  if (stamp <= 0) return "-";
  return format_age(std::max<std::int64_t>(0, uptime - stamp));
}

std::string count_text(std::int64_t count) {
  return count < 0 ? std::to_string(count) : format_amount(static_cast<std::uint64_t>(count));
}

const char* change_word(ChangeKind kind) {
  switch (kind) {
    case ChangeKind::kJoined: return "joined";
    case ChangeKind::kRoamed: return "roamed";
    case ChangeKind::kAddress: return "address";
    case ChangeKind::kLeft: return "left";
    case ChangeKind::kRemoved: return "removed";
  }
  return "";
}

}  // namespace

std::vector<ListEntry> parse_client_list(std::string_view text) {
  return parse_lines<ListEntry>(text, parse_list_line);
}

std::vector<StatsEntry> parse_client_stats(std::string_view text) {
  return parse_lines<StatsEntry>(text, parse_stats_line);
}

std::vector<Station> join_clients(std::string_view clientip, std::string_view clientip_assoc,
                                  std::string_view client_accu_stat) {
  using Key = std::pair<std::string, std::string>;
  std::map<Key, bool> associated;
  for (ListEntry& e : parse_client_list(clientip_assoc)) associated[{std::move(e.vap), std::move(e.mac)}] = true;
  std::map<Key, StatsEntry> stats;
  for (StatsEntry& e : parse_client_stats(client_accu_stat)) stats.emplace(Key{e.vap, e.mac}, e);

  std::vector<Station> stations;
  for (ListEntry& e : parse_client_list(clientip)) {
    Station s;
    const Key key{e.vap, e.mac};
    s.associated = associated.count(key) != 0;
    if (auto it = stats.find(key); it != stats.end()) s.stats = it->second;
    s.entry = std::move(e);
    stations.push_back(std::move(s));
  }
  return stations;
}

std::vector<Station> filter_stations(std::vector<Station> stations, std::string_view vap, bool associated_only) {
  std::erase_if(stations, [&](const Station& s) {
    return (!vap.empty() && s.entry.vap != vap) || (associated_only && !s.associated);
  });
  return stations;
}

std::string format_age(std::int64_t seconds) {
  if (seconds < 0) return "-";
  char text[32];
  const long long s = seconds;
  if (s < 60)
    std::snprintf(text, sizeof text, "%llds", s);
  else if (s < 3600)
    std::snprintf(text, sizeof text, "%lldm%02llds", s / 60, s % 60);
  else if (s < 86400)
    std::snprintf(text, sizeof text, "%lldh%02lldm", s / 3600, s % 3600 / 60);
  else if (s < 100 * 86400)
    std::snprintf(text, sizeof text, "%lldd%02lldh", s / 86400, s % 86400 / 3600);
  else if (s < 1000000LL * 86400)
    std::snprintf(text, sizeof text, "%lldd", s / 86400);
  else
    std::snprintf(text, sizeof text, ">999kd");
  return text;
}

std::string format_amount(std::uint64_t value) {
  if (value < 1024) return std::to_string(value);
  static constexpr char kUnits[] = "KMGTPE";
  // Tenths of the unit, rounded down, so a value never shows as more than it is.
  for (int unit = 0;; ++unit) {
    const unsigned shift = 10U * static_cast<unsigned>(unit + 1);
    const std::uint64_t whole = value >> shift;
    if (whole < 1000 || unit == 5) {
      char text[32];
      if (whole < 10) {
        const std::uint64_t tenths = ((value - (whole << shift)) * 10) >> shift;
        std::snprintf(text, sizeof text, "%llu.%llu%c", static_cast<unsigned long long>(whole),
                      static_cast<unsigned long long>(tenths), kUnits[unit]);
      } else {
        std::snprintf(text, sizeof text, "%llu%c", static_cast<unsigned long long>(whole), kUnits[unit]);
      }
      return text;
    }
  }
}

std::string format_table(const std::vector<Station>& stations, std::int64_t uptime) {
  using Row = std::array<std::string, 9>;
  std::vector<Row> rows;
  rows.push_back({"VAP", "MAC", "IP", "ON", "JOINED", "LEFT", "JOIN/LEFT", "TX", "RX"});
  for (const Station& s : stations) {
    const ListEntry& e = s.entry;
    Row row;
    row[0] = e.vap.substr(0, kVapColumnMax);
    row[1] = e.mac;
    row[2] = e.ip;
    row[3] = s.associated ? "yes" : "no";
    row[4] = uptime_age(e.assoc_uptime, uptime);
    row[5] = uptime_age(e.disassoc_uptime, uptime);
    row[6] = count_text(e.assoc_count) + "/" + count_text(e.disassoc_count);
    row[7] = s.stats ? format_amount(s.stats->tx_bytes) : "-";
    row[8] = s.stats ? format_amount(s.stats->rx_bytes) : "-";
    rows.push_back(std::move(row));
  }
  std::array<std::size_t, 9> width{};
  for (const Row& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i) width[i] = std::max(width[i], row[i].size());
  std::string text;
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (i > 0) line.push_back(' ');
      line += pad(row[i], width[i]);
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    text += line + "\n";
  }
  return text;
}

std::string json_string(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(c);
    } else if (u < 0x20 || u >= 0x7f) {
      out += "\\u00";
      out.push_back(kHex[u >> 4]);
      out.push_back(kHex[u & 15]);
    } else {
      out.push_back(c);
    }
  }
  out.push_back('"');
  return out;
}

std::string format_json(const std::vector<Station>& stations, std::int64_t uptime) {
  auto number_or_null = [](bool known, auto value) { return known ? std::to_string(value) : std::string("null"); };
  std::string out = "{\"uptime\": " + std::to_string(uptime) + ", \"stations\": [";
  for (std::size_t i = 0; i < stations.size(); ++i) {
    const ListEntry& e = stations[i].entry;
    const auto& stats = stations[i].stats;
    out += i == 0 ? "\n" : ",\n";
    out += "  {\"vap\": " + json_string(e.vap) + ", \"mac\": " + json_string(e.mac) + ", \"ip\": " +
           json_string(e.ip) + ", \"associated\": " + (stations[i].associated ? "true" : "false");
    out += ", \"assoc_uptime\": " + std::to_string(e.assoc_uptime) +
           ", \"assoc_age\": " + number_or_null(e.assoc_uptime > 0, uptime - e.assoc_uptime) +
           ", \"disassoc_uptime\": " + std::to_string(e.disassoc_uptime) +
           ", \"disassoc_age\": " + number_or_null(e.disassoc_uptime > 0, uptime - e.disassoc_uptime) +
           ", \"first_assoc_uptime\": " + std::to_string(e.first_assoc_uptime) +
           ", \"assoc_count\": " + std::to_string(e.assoc_count) +
           ", \"disassoc_count\": " + std::to_string(e.disassoc_count);
    out += ", \"tx_bytes\": " + number_or_null(stats.has_value(), stats ? stats->tx_bytes : 0) +
           ", \"rx_bytes\": " + number_or_null(stats.has_value(), stats ? stats->rx_bytes : 0) +
           ", \"tx_packets\": " + number_or_null(stats.has_value(), stats ? stats->tx_packets : 0) +
           ", \"rx_packets\": " + number_or_null(stats.has_value(), stats ? stats->rx_packets : 0) + "}";
  }
  out += stations.empty() ? "]}\n" : "\n]}\n";
  return out;
}

std::vector<Change> diff_stations(const std::vector<Station>& before, const std::vector<Station>& after) {
  auto find = [](const std::vector<Station>& rows, const std::string& vap, const std::string& mac) -> const Station* {
    for (const Station& s : rows)
      if (s.entry.vap == vap && s.entry.mac == mac) return &s;
    return nullptr;
  };
  // The VAP a MAC was associated with in `rows`, other than `except`.
  auto associated_elsewhere = [](const std::vector<Station>& rows, const std::string& mac,
                                 const std::string& except) -> const Station* {
    for (const Station& s : rows)
      if (s.associated && s.entry.mac == mac && s.entry.vap != except) return &s;
    return nullptr;
  };

  std::vector<Change> changes;
  for (const Station& now : after) {
    const ListEntry& e = now.entry;
    const Station* was = find(before, e.vap, e.mac);
    const bool was_associated = was && was->associated;
    const bool rejoined = was_associated && now.associated && was->entry.assoc_uptime != e.assoc_uptime;
    if (now.associated && (!was_associated || rejoined)) {
      const Station* from = associated_elsewhere(before, e.mac, e.vap);
      if (from && !associated_elsewhere(after, e.mac, e.vap))
        changes.push_back({ChangeKind::kRoamed, e.vap, e.mac, "", from->entry.vap});
      else
        changes.push_back({ChangeKind::kJoined, e.vap, e.mac, "", ""});
    }
    if (e.ip != "0.0.0.0" && (!was || was->entry.ip != e.ip))
      changes.push_back({ChangeKind::kAddress, e.vap, e.mac, e.ip, ""});
    // A station that left this VAP for another one was reported as roamed there.
    if (was_associated && !now.associated) {
      const Station* to = associated_elsewhere(after, e.mac, e.vap);
      const Station* to_before = to ? find(before, to->entry.vap, e.mac) : nullptr;
      const bool roamed = to && (!to_before || !to_before->associated ||
                                 to_before->entry.assoc_uptime != to->entry.assoc_uptime);
      if (!roamed) changes.push_back({ChangeKind::kLeft, e.vap, e.mac, "", ""});
    }
  }
  for (const Station& old : before)
    if (!find(after, old.entry.vap, old.entry.mac))
      changes.push_back({ChangeKind::kRemoved, old.entry.vap, old.entry.mac, "", ""});
  return changes;
}

std::string format_change(const Change& change, bool json) {
  const std::string word = change_word(change.kind);
  if (json) {
    std::string out = "{\"event\": " + json_string(word) + ", \"vap\": " + json_string(change.vap) +
                      ", \"mac\": " + json_string(change.mac);
    if (change.kind == ChangeKind::kAddress) out += ", \"ip\": " + json_string(change.ip);
    if (change.kind == ChangeKind::kRoamed) out += ", \"from\": " + json_string(change.from_vap);
    return out + "}\n";
  }
  std::string out = word + " " + change.vap + " " + change.mac;
  if (change.kind == ChangeKind::kAddress) out += " " + change.ip;
  if (change.kind == ChangeKind::kRoamed) out += " from " + change.from_vap;
  return out + "\n";
}

bool rewrite_finished(std::optional<std::int64_t> list_mtime, std::optional<std::int64_t> assoc_mtime,
                      std::optional<std::int64_t> stats_mtime) {
  if (list_mtime && (!assoc_mtime || *assoc_mtime < *list_mtime)) return false;
  if (assoc_mtime && (!stats_mtime || *stats_mtime < *assoc_mtime)) return false;
  return true;
}

namespace {
// The first word of every non-empty line.
std::set<std::string_view> record_keys(std::string_view text) {
  std::set<std::string_view> keys;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    if (!line.empty()) keys.insert(line.substr(0, line.find(' ')));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return keys;
}
}  // namespace

bool files_agree(std::string_view list, std::string_view assoc, std::string_view stats) {
  const std::set<std::string_view> listed = record_keys(list);
  if (record_keys(stats) != listed) return false;
  const std::set<std::string_view> associated = record_keys(assoc);
  return std::includes(listed.begin(), listed.end(), associated.begin(), associated.end());
}

}  // namespace clientmgrctl

#include "fuzz_common.h"

#include "vlan/pool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <optional>

// The daemon code allocates and frees much per input: a smaller
// quarantine and no fill of fresh blocks keep the targets fast.
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=32:max_malloc_fill_size=0";
}

namespace fuzz {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

bool is_operator(char c) { return c == '|' || c == '&' || c == '<' || c == '>'; }

bool starts_with(std::string_view text, std::size_t at, std::string_view what) {
  return text.substr(at, what.size()) == what;
}

// Length of the template-owned operator form at `at` (an unquoted operator
// character, or the "2" of "2>&1"), 0 when the text there is none of them.
std::size_t template_operator(std::string_view c, std::size_t at) {
  if (starts_with(c, at, "2>&1")) return 4;
  if (starts_with(c, at, ">> /dev/null")) return 12;
  if (starts_with(c, at, "> /dev/null")) return 11;
  if (starts_with(c, at, ">/dev/null")) return 10;
  // A "&" that ends the command runs it in the background.
  if (c[at] == '&') {
    std::size_t end = at + 1;
    while (end < c.size() && is_blank(c[end])) ++end;
    if (end == c.size()) return end - at;
    // The notifier puts several backgrounded calls into one command.
    if (starts_with(c, at + 1, "tavo_client  -E ")) return 1;
  }
  // A pipe into grep with plain words only, to the end.
  if (starts_with(c, at, "| grep ")) {
    for (std::size_t i = at + 7; i < c.size(); ++i) {
      const unsigned char ch = static_cast<unsigned char>(c[i]);
      if (!(std::isalnum(ch) || ch == ' ' || ch == '_' || ch == '-')) return 0;
    }
    return c.size() - at;
  }
  return 0;
}

// string_view::find compares through memcmp, which libFuzzer watches: the
// fuzzer would learn the command texts and copy them into its values, and
// a value that copies template text around a quote cannot be told from one
// that breaks out of it. This search stays out of its sight.
std::size_t find_quietly(std::string_view text, std::string_view what, std::size_t from) {
  if (what.empty() || what.size() > text.size()) return std::string_view::npos;
  for (std::size_t at = from; at + what.size() <= text.size(); ++at) {
    std::size_t k = 0;
    while (k < what.size() && text[at + k] == what[k]) ++k;
    if (k == what.size()) return at;
  }
  return std::string_view::npos;
}

}  // namespace

SplitCommand split_command(std::string_view c) {
  SplitCommand out;
  out.word_of.assign(c.size(), -1);
  out.template_owned.assign(c.size(), false);
  auto fail = [&](std::size_t at, const char* why) {
    if (out.problem.empty()) out.problem = std::string(why) + " at offset " + std::to_string(at);
  };
  if (c.find('\0') != std::string_view::npos) fail(c.find('\0'), "NUL byte");

  bool in_word = false;
  std::string word;
  auto end_word = [&] {
    if (in_word) out.words.push_back(word);
    in_word = false;
    word.clear();
  };
  auto start_word = [&] {
    if (!in_word) {
      in_word = true;
      word.clear();
    }
  };
  std::size_t i = 0;
  while (i < c.size()) {
    const char ch = c[i];
    // Operators, and the templates' own redirections ("2>&1" as a word).
    if (is_operator(ch) || (ch == '2' && !in_word && starts_with(c, i, "2>&1"))) {
      const std::size_t n = template_operator(c, i);
      if (n == 0) {
        fail(i, "unquoted operator");
        ++i;
        continue;
      }
      end_word();
      for (std::size_t k = i; k < i + n; ++k) out.template_owned[k] = true;
      i += n;
      continue;
    }
    if (is_blank(ch)) {
      end_word();
      ++i;
      continue;
    }
    const int index = static_cast<int>(out.words.size());
    switch (ch) {
      case '\n': case ';': case '(': case ')': case '$': case '`':
        fail(i, "unquoted shell syntax");
        ++i;
        continue;
      case '*': case '?': case '[': case ']':
        fail(i, "unquoted glob character");
        ++i;
        continue;
      case '#': case '~':
        if (!in_word) fail(i, "unquoted comment or tilde at a word start");
        break;
      default:
        break;
    }
    start_word();
    if (ch == '\\') {
      out.word_of[i] = index;
      if (i + 1 >= c.size()) {
        fail(i, "backslash at the end");
        ++i;
        continue;
      }
      out.word_of[i + 1] = index;
      word.push_back(c[i + 1]);
      i += 2;
      continue;
    }
    if (ch == '\'') {
      const std::size_t close = c.find('\'', i + 1);
      if (close == std::string_view::npos) {
        fail(i, "unterminated single quote");
        for (std::size_t k = i; k < c.size(); ++k) out.word_of[k] = index;
        i = c.size();
        continue;
      }
      for (std::size_t k = i; k <= close; ++k) out.word_of[k] = index;
      word.append(c.substr(i + 1, close - i - 1));
      i = close + 1;
      continue;
    }
    if (ch == '"') {
      const std::size_t open = i;
      std::size_t k = i + 1;
      bool closed = false;
      while (k < c.size()) {
        const char d = c[k];
        if (d == '"') {
          closed = true;
          break;
        }
        if (d == '\\' && k + 1 < c.size() &&
            (c[k + 1] == '$' || c[k + 1] == '`' || c[k + 1] == '"' || c[k + 1] == '\\' ||
             c[k + 1] == '\n')) {
          word.push_back(c[k + 1]);
          k += 2;
          continue;
        }
        if (d == '$' || d == '`') fail(k, "expansion inside double quotes");
        word.push_back(d);
        ++k;
      }
      if (!closed) fail(open, "unterminated double quote");
      const std::size_t end = closed ? k + 1 : c.size();
      for (std::size_t m = open; m < end; ++m) out.word_of[m] = index;
      // A whole empty "" word (snmptrap's uptime argument) is the template's.
      if (closed && k == open + 1 && word.empty() && (open == 0 || is_blank(c[open - 1])) &&
          (end == c.size() || is_blank(c[end])))
        for (std::size_t m = open; m < end; ++m) out.template_owned[m] = true;
      i = end;
      continue;
    }
    out.word_of[i] = index;
    word.push_back(ch);
    ++i;
  }
  end_word();
  // The notifier's call up to its message's opening quote is the template's
  // with the daemon's own event code: a value that copies "21 \"" copies it.
  constexpr std::string_view kNotifierCall = "tavo_client  -E ";
  for (std::size_t at = c.find(kNotifierCall); at != std::string_view::npos;
       at = c.find(kNotifierCall, at + 1)) {
    std::size_t k = at + kNotifierCall.size();
    while (k < c.size() && c[k] >= '0' && c[k] <= '9') ++k;
    if (c.substr(k, 2) == " \"")
      for (std::size_t m = at; m < k + 2; ++m) out.template_owned[m] = true;
  }
  return out;
}

void check_command(std::string_view command, const std::vector<std::string>& values) {
  const SplitCommand split = split_command(command);
  std::string problem = split.problem;
  // A value that holds shell syntax must sit inside one word wherever it
  // appears as it is (a quoted value appears only inside its quotes).
  for (std::string_view value : values) {
    if (!problem.empty()) break;
    // Blanks around a value may meet the template's own separators.
    while (!value.empty() && is_blank(value.front())) value.remove_prefix(1);
    while (!value.empty() && is_blank(value.back())) value.remove_suffix(1);
    // Only values with shell syntax in them: a value of words and blanks
    // alone cannot be told from the template text the fuzzer copies.
    if (value.size() < 2 || value.find_first_of("$`;|&<>()'\"\n\\") == std::string_view::npos) continue;
    // Inserted as one word somewhere: a raw occurrence elsewhere is the
    // template's own text that the value happens to copy.
    bool in_one_word = false;
    for (const std::string& word : split.words)
      in_one_word = in_one_word || find_quietly(word, value, 0) != std::string_view::npos;
    if (in_one_word) continue;
    for (std::size_t at = find_quietly(command, value, 0); at != std::string_view::npos;
         at = find_quietly(command, value, at + 1)) {
      bool owned = false;
      for (std::size_t k = at; k < at + value.size(); ++k) owned = owned || split.template_owned[k];
      if (owned) continue;
      const int first = split.word_of[at];
      for (std::size_t k = at; k < at + value.size(); ++k) {
        if (first < 0 || split.word_of[k] != first) {
          problem = "a fuzzed value spans words at offset " + std::to_string(at) + ": ";
          for (unsigned char ch : value) {
            char hex[8];
            std::snprintf(hex, sizeof hex, ch >= 0x20 && ch < 0x7f ? "%c" : "\\x%02x", ch);
            problem += hex;
          }
          break;
        }
      }
      if (!problem.empty()) break;
    }
  }
  if (problem.empty()) return;
  std::fprintf(stderr, "\n==== command would run injected text: %s\n---- command (%zu bytes):\n",
               problem.c_str(), command.size());
  std::fwrite(command.data(), 1, command.size(), stderr);
  std::fprintf(stderr, "\n---- escaped: ");
  for (unsigned char ch : command) {
    if (ch >= 0x20 && ch < 0x7f)
      std::fputc(ch, stderr);
    else
      std::fprintf(stderr, "\\x%02x", ch);
  }
  std::fprintf(stderr, "\n");
  std::abort();
}

CheckingRecorder::CheckingRecorder() {
  recorder.record = [this](const std::string& command) {
    commands.push_back(command);
    check_command(command, values);
  };
  recorder.reply = [this](const std::string&) -> std::optional<std::string> {
    if (reply.empty()) return std::nullopt;
    return reply;
  };
  common::set_command_recorder(&recorder);
}

CheckingRecorder::~CheckingRecorder() { common::set_command_recorder(nullptr); }

void require_sandbox() {
  // sandbox.sh leaves this mark on the sandbox's own /tmp.
  struct stat st {};
  if (::stat("/tmp/.clientmgr-fuzz-sandbox", &st) == 0) return;
  std::fprintf(stderr,
               "this fuzz target writes the daemon's fixed paths (/etc, /run, /tmp, /proc/wifiN);\n"
               "run it inside the sandbox: tests/fuzz/sandbox.sh %s ...\n",
               "<target>");
  std::exit(2);
}

bool skip_for_nul(std::string_view text) {
  static const bool skip = [] {
    const char* value = std::getenv("CLIENTMGR_FUZZ_SKIP_NUL");
    return value && std::strcmp(value, "1") == 0;
  }();
  return skip && text.find('\0') != std::string_view::npos;
}

void write_file(const std::string& path, std::string_view text) {
  std::FILE* f = std::fopen(path.c_str(), "w");
  if (!f) {
    std::perror(path.c_str());
    std::abort();
  }
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);
}

void write_wireless_status() {
  write_file("/var/run/wireless.status",
             "WIFI_COUNT=\"2\"\n"
             "WIFI0_DEV=\"wifi0\"\nWIFI1_DEV=\"wifi1\"\n"
             "WIFI0_RADIO_CONF_PREFIX=\"R0_\"\nWIFI1_RADIO_CONF_PREFIX=\"R1_\"\n"
             "WIFI0_RADIO_POLICY=\"ng\"\nWIFI1_RADIO_POLICY=\"na\"\n"
             "WIFI0_ATH_LIST=\"0 1\"\nWIFI1_ATH_LIST=\"2 3\"\n"
             "ATH0_WLANID=\"1\"\nATH1_WLANID=\"2\"\nATH2_WLANID=\"3\"\nATH3_WLANID=\"4\"\n"
             "ATH0_RADIO=\"0\"\nATH1_RADIO=\"0\"\nATH2_RADIO=\"1\"\nATH3_RADIO=\"1\"\n"
             "WLAN1_ATH_LIST=\"0\"\nWLAN2_ATH_LIST=\"1\"\nWLAN3_ATH_LIST=\"2\"\nWLAN4_ATH_LIST=\"3\"\n"
             "WLAN1_RADIO_LIST=\"0\"\nWLAN2_RADIO_LIST=\"0\"\nWLAN3_RADIO_LIST=\"1\"\n"
             "WLAN4_RADIO_LIST=\"1\"\n");
}

const char* const kMasterConfig =
    "AP_MODE=\"bridge\"\n"
    "AP_NAME=\"fuzz-ap\"\n"
    "ACL_CACHE_PERIOD=\"20\"\n"
    "AP_VLAN_UNTAG_MODE=\"enable\"\n"
    "AP_VLAN_UNTAG=\"1\"\n"
    "AP_L2TP2_TUNNEL=\"enable\"\n"
    "R0_AP_CLIENT_LIMIT=\"3\"\n"
    "R1_AP_CLIENT_LIMIT=\"2\"\n"
    "SNMP_TRAP1_STATUS=\"enable\"\n"
    "SNMP_TRAP1_IPADDR=\"10.9.9.9\"\n"
    "SNMP_COMM1_NAME=\"public\"\n"
    "RADIUS1_HOST=\"10.0.0.1\"\n"
    "RADIUS1_SECRET=\"s3cret\"\n"
    "RADIUS1_AUTHPORT=\"1812\"\n"
    "WLAN1_SSID=\"Office\"\n"
    "WLAN1_VLANID=\"10\"\n"
    "WLAN1_PORTAL=\"enable\"\n"
    "WLAN1_CLIENT_LIMIT=\"2\"\n"
    "WLAN1_BANDWIDTH_CONTROL=\"enable\"\n"
    "WLAN1_CLIENT_BANDWIDTH_UPSTREAM=\"512\"\n"
    "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM=\"1024\"\n"
    "WLAN1_L2TP_PROFILE=\"2\"\n"
    "WLAN1_VLANPOOL=\"enable\"\n"
    "WLAN1_VLANPOOL_LIST=\"100-103,200\"\n"
    "WLAN1_DYNAMIC_VLAN=\"optional\"\n"
    "WLAN2_SSID=\"Joe's \"Cafe\" $(x)\"\n"
    "WLAN2_VLANID=\"20\"\n"
    "WLAN2_PORTAL=\"incontrol\"\n"
    "WLAN2_BANDWIDTH_CONTROL=\"enable\"\n"
    "WLAN2_CLIENT_BANDWIDTH_UPSTREAM=\"64\"\n"
    "WLAN2_CLIENT_BANDWIDTH_DOWNSTREAM=\"128\"\n"
    "WLAN2_DYNAMIC_VLAN=\"required\"\n"
    "WLAN3_SSID=\"Guest\"\n"
    "WLAN3_VLANPOOL=\"enable\"\n"
    "WLAN3_VLANPOOL_LIST=\"5,7-9\"\n"
    "WLAN4_SSID=\"Lab\"\n"
    "WLAN4_L2TP_PROFILE=\"2\"\n";

DefaultConfig load_default_config() {
  DefaultConfig out;
  out.masterconf = config::load_taglist_buffer(kMasterConfig, 1);
  CheckingRecorder recorder;
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  ctx->masterconf = out.masterconf;
  vlan::update_vlan_pool(*ctx);
  out.vlan = ctx->vlan;
  return out;
}

}  // namespace fuzz

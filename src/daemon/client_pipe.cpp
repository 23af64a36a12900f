#include "daemon/client_pipe.h"

#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdio>

#include "clients/files.h"
#include "clients/table.h"
#include "clients/update.h"
#include "common/iface.h"
#include "common/mac.h"
#include "daemon/reload.h"
#include "model/context.h"

namespace daemon_core {

namespace {

constexpr std::size_t kMacLength = 17;
constexpr std::size_t kIpFieldOffset = 18;
constexpr std::size_t kIpFieldLength = 15;  // a 16-byte field

bool is_blank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// The next whitespace-separated word of text from pos, as sscanf's "%s"
// reads it; pos is left after the word.
std::string_view next_word(std::string_view text, std::size_t& pos) {
  while (pos < text.size() && is_blank(text[pos])) ++pos;
  const std::size_t start = pos;
  while (pos < text.size() && !is_blank(text[pos])) ++pos;
  return text.substr(start, pos - start);
}

int ifindex_from_dev_lan_if(std::string_view name) {
  return common::get_interface_idx_by_name(name);
}

}  // namespace

std::optional<ClientLine> parse_client_line(std::string_view line, IfindexOf ifindex_of) {
  // A line is text: it ends at its first NUL.
  line = line.substr(0, line.find('\0'));
  // The check lowers and cuts its text, so it runs on a copy: the address
  // and the interface are read from the line as it came.
  std::string mac(line);
  if (common::common_valid_mac(mac) != 1) return std::nullopt;

  ClientLine parsed;
  parsed.mac = std::move(mac);
  if (line.size() > kIpFieldOffset) parsed.ip_field = line.substr(kIpFieldOffset, kIpFieldLength);

  // "%*s %s" from the character after the MAC: skip one word, take the next.
  std::size_t pos = kMacLength;
  if (!next_word(line, pos).empty()) parsed.ifname = std::string(next_word(line, pos));
  parsed.ifindex = ifindex_of(parsed.ifname);
  return parsed;
}

std::optional<ClientLine> parse_client_line(std::string_view line) {
  return parse_client_line(line, ifindex_from_dev_lan_if);
}

void serve_client_pipe(DaemonContext& ctx, int pipe_fd, PipeCarry& carry) {
  check_config_apply(ctx);
  std::puts("event from client_pipe");
  std::fflush(stdout);

  std::array<char, kPipeReadMax> buffer{};
  const ssize_t got = ::read(pipe_fd, buffer.data(), kPipeReadMax);
  if (got <= 0) return;

  for (const std::string& whole : take_lines(carry, {buffer.data(), static_cast<std::size_t>(got)})) {
    // A line is text: it ends at its first zero byte, as a C string would.
    const std::string_view line = std::string_view(whole).substr(0, whole.find('\0'));
    const std::optional<ClientLine> parsed = parse_client_line(line);
    if (!parsed) {
      const std::string text(line);
      std::printf("no mac!!! ###%s###\n", text.c_str());
      std::fflush(stdout);
      continue;
    }
    clients::update_client_table(ctx, clients::kEventIpLearned, parsed->ifindex, parsed->mac, parsed->ip_field,
                                 std::nullopt);
    if (ctx.files_refresh == 0) {
      ctx.files_refresh = 1;
      clients::check_expired(ctx);
      clients::write_client_files(ctx);
    }
  }
}

}  // namespace daemon_core

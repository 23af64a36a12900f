#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include "clients/files.h"
#include "daemon/context.h"

namespace {

TEST(ClientFilesLines, FormatsAndCuts) {
  clients::ClientRecord r;
  r.mac = "00:11:22:33:44:55";
  r.ip = ::inet_addr("192.168.100.200");
  r.assoc_uptime = 100;
  r.disassoc_uptime = 50;
  r.assoc_count = 2;
  r.first_assoc_uptime = 90;
  r.rx_bytes = 5'000'000'000ull;
  r.stat_a = 1, r.stat_e = 5;
  EXPECT_EQ(clients::client_list_line(r, "ath1"),
            "ath1:00:11:22:33:44:55 192.168.100.200 100 50 2 0 90\n");
  EXPECT_EQ(clients::client_stats_line(r, "ath1"),
            "ath1:00:11:22:33:44:55 0 5000000000 0 0 1 5 0 0 0\n");
  const std::string long_name(400, 'n');
  EXPECT_EQ(clients::client_list_line(r, long_name), std::string(127, 'n'));
  EXPECT_EQ(clients::client_stats_line(r, long_name), std::string(383, 'n'));
}

TEST(ClientFilesReport, AddsWithCarryOrChangesNothing) {
  clients::ClientRecord r;  // no owner: no file is written
  r.rx_bytes = 0xFFFFFFFFull;
  r.rx_packets = 0xFFFFFFFFu;
  EXPECT_EQ(clients::accumulate_traffic_report(r, "RX:100bytes,2pkts TX:8000000000bytes,4pkts"), 0);
  EXPECT_EQ(r.rx_bytes, 0xFFFFFFFFull + 100);
  EXPECT_EQ(r.tx_bytes, 8'000'000'000ull);
  EXPECT_EQ(r.rx_packets, 1u);  // packet counters wrap at 32 bits
  for (auto text : {std::optional<std::string_view>(), std::optional<std::string_view>(""),
                    std::optional<std::string_view>("RX:100bytes,2pkts TX:300bytes"),
                    std::optional<std::string_view>("TX:300bytes,4pkts RX:100bytes,2pkts")}) {
    clients::ClientRecord fresh;
    EXPECT_EQ(clients::accumulate_traffic_report(fresh, text), -1) << text.value_or("(none)");
    EXPECT_EQ(fresh.rx_bytes + fresh.tx_bytes + fresh.rx_packets + fresh.tx_packets, 0u);
  }
}

TEST(ClientFiles, SlotOrderFilterAndTheRefreshGuard) {
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  const std::pair<const char*, int> stations[] = {
      {"00:00:00:00:00:01", 1}, {"00:00:00:00:00:02", 0}, {"00:00:00:00:00:03", 1}, {"00:00:00:00:00:04", 1}};
  for (int i = 0; i < 4; ++i) {
    ctx->records[i].mac = stations[i].first;
    ctx->records[i].in_use = i != 2;
    ctx->records[i].current = static_cast<std::uint8_t>(stations[i].second);
  }
  ctx->client_count = 4;
  ctx->records[10] = ctx->records[3];  // beyond client_count
  auto last_bytes = [](const std::string& text) {
    std::string out;
    for (std::size_t at = 0; (at = text.find(' ', at)) != std::string::npos; at = text.find('\n', at))
      out += text.substr(at - 2, 2) + " ";
    return out;
  };
  EXPECT_EQ(last_bytes(clients::client_list_text(*ctx, false)), "01 02 04 ");
  EXPECT_EQ(last_bytes(clients::client_list_text(*ctx, true)), "01 04 ");
  EXPECT_EQ(last_bytes(clients::client_stats_text(*ctx)), "01 02 04 ");

  char tmpl[] = "/tmp/clients_files_test.XXXXXX";
  ASSERT_NE(::mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl, list = dir + "/list";
  std::ofstream(list) << "stale\n";
  ctx->files_refresh = 1;
  EXPECT_EQ(clients::write_client_stats(*ctx, list), 0);
  std::ifstream in(list);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), clients::client_stats_text(*ctx));
  EXPECT_EQ(ctx->files_refresh, 0);
  ctx->files_refresh = 1;
  EXPECT_EQ(clients::write_client_list(*ctx, dir + "/missing/list", true), 1);
  EXPECT_EQ(ctx->files_refresh, 1) << "the guard stays when no file was written";
  ::unlink(list.c_str());
  ::rmdir(dir.c_str());
}

}  // namespace

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include "clients/files.h"
#include "model/context.h"

namespace {

TEST(ClientFilesReport, SixtyFourBitBytesWithCarryOrNothingChanged) {
  clients::ClientRecord r;  // no owner: no file is written
  r.mac = "00:11:22:33:44:55";
  r.rx_bytes = 0xFFFFFFFFull;
  r.rx_packets = 0xFFFFFFFFu;
  EXPECT_EQ(clients::accumulate_traffic_report(r, "RX:100bytes,2pkts TX:8000000000bytes,4pkts"), 0);
  EXPECT_EQ(r.rx_bytes, 0xFFFFFFFFull + 100);
  EXPECT_EQ(r.rx_packets, 1u);  // packet counters wrap at 32 bits
  EXPECT_EQ(clients::client_stats_line(r, "ath1"),
            "ath1:00:11:22:33:44:55 8000000000 4294967395 4 1 0 0 0 0 0\n");
  EXPECT_EQ(clients::client_stats_line(r, std::string(400, 'n')), std::string(383, 'n'));
  EXPECT_EQ(clients::client_list_line(r, std::string(400, 'n')), std::string(127, 'n'));
  for (auto text : {std::optional<std::string_view>(), std::optional<std::string_view>(""),
                    std::optional<std::string_view>("RX:100bytes,2pkts TX:300bytes"),
                    std::optional<std::string_view>("TX:300bytes,4pkts RX:100bytes,2pkts")}) {
    clients::ClientRecord fresh;
    EXPECT_EQ(clients::accumulate_traffic_report(fresh, text), -1) << text.value_or("(none)");
    EXPECT_EQ(fresh.rx_bytes + fresh.tx_bytes + fresh.rx_packets + fresh.tx_packets, 0u);
  }
}

TEST(ClientFiles, WritersReplaceTheFileAndClearTheRefreshGuard) {
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  ctx->records[0].mac = "00:11:22:33:44:55";
  ctx->records[0].in_use = 1;
  ctx->client_count = 1;
  char dir[] = "/tmp/clients_files_test.XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  const std::string list = std::string(dir) + "/list";
  std::ofstream(list) << "stale\n";
  ctx->files_refresh = 1;
  EXPECT_EQ(clients::write_client_stats(*ctx, list), 0);
  std::ifstream in(list);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), clients::client_stats_text(*ctx));
  EXPECT_EQ(ctx->files_refresh, 0);
  ctx->files_refresh = 1;
  EXPECT_EQ(clients::write_client_list(*ctx, std::string(dir) + "/missing/list", true), 1);
  EXPECT_EQ(ctx->files_refresh, 0) << "a failed rewrite is tried again at the next event";
  ::unlink(list.c_str());
  ::rmdir(dir);
}

}  // namespace

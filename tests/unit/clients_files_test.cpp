#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "clients/files.h"
#include "daemon/context.h"

namespace {

constexpr const char* kStation = "00:11:22:33:44:55";

TEST(ClientFilesLines, Formats) {
  clients::ClientRecord r;
  r.mac = kStation;
  r.ip = ::inet_addr("192.168.100.200");
  r.assoc_uptime = 100;
  r.disassoc_uptime = 50;
  r.assoc_count = 2;
  r.disassoc_count = 1;
  r.first_assoc_uptime = 90;
  r.tx_bytes = 300;
  r.rx_bytes = 5'000'000'000ull;
  r.tx_packets = 4;
  r.rx_packets = 2;
  r.stat_a = 1, r.stat_b = 2, r.stat_c = 3, r.stat_d = 4, r.stat_e = 5;
  EXPECT_EQ(clients::client_list_line(r, "ath1"),
            "ath1:00:11:22:33:44:55 192.168.100.200 100 50 2 1 90\n");
  EXPECT_EQ(clients::client_stats_line(r, "ath1"),
            "ath1:00:11:22:33:44:55 300 5000000000 4 2 1 5 4 3 2\n");
  r.ip = 0;
  EXPECT_EQ(clients::client_list_line(r, "ath0"), "ath0:00:11:22:33:44:55 0.0.0.0 100 50 2 1 90\n");
  const std::string long_name(400, 'n');
  EXPECT_EQ(clients::client_list_line(r, long_name), std::string(127, 'n'));
  EXPECT_EQ(clients::client_stats_line(r, long_name), std::string(383, 'n'));
}

TEST(ClientFilesReport, AddsWithCarryAndWrap) {
  clients::ClientRecord r;  // no owner: no file is written
  r.rx_bytes = 0xFFFFFFFFull;
  r.rx_packets = 0xFFFFFFFFu;
  EXPECT_EQ(clients::accumulate_traffic_report(r, "RX:100bytes,2pkts TX:8000000000bytes,4pkts"), 0);
  EXPECT_EQ(r.rx_bytes, 0xFFFFFFFFull + 100);
  EXPECT_EQ(r.tx_bytes, 8'000'000'000ull);
  EXPECT_EQ(r.rx_packets, 1u);
  EXPECT_EQ(r.tx_packets, 4u);
}

TEST(ClientFilesReport, IncompleteReportChangesNothing) {
  for (auto text : {std::optional<std::string_view>(), std::optional<std::string_view>(""),
                    std::optional<std::string_view>("RX:100bytes,2pkts TX:300bytes"),
                    std::optional<std::string_view>("TX:300bytes,4pkts RX:100bytes,2pkts")}) {
    clients::ClientRecord r;
    EXPECT_EQ(clients::accumulate_traffic_report(r, text), -1) << text.value_or("(none)");
    EXPECT_EQ(r.rx_bytes + r.tx_bytes + r.rx_packets + r.tx_packets, 0u);
  }
}

class ClientFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/clients_files_test.XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir = tmpl;
  }
  void TearDown() override {
    ::unlink((dir + "/list").c_str());
    ::rmdir(dir.c_str());
  }
  void use(int slot, const char* mac, int current) {
    auto& r = ctx->records[slot];
    r.mac = mac;
    r.in_use = 1;
    r.current = static_cast<std::uint8_t>(current);
    ctx->client_count = std::max<std::uint32_t>(ctx->client_count, slot + 1);
  }

  std::unique_ptr<daemon_core::DaemonContext> ctx = std::make_unique<daemon_core::DaemonContext>();
  std::string dir;
};

TEST_F(ClientFilesTest, SlotOrderAndTheAssociatedFilter) {
  use(0, "00:00:00:00:00:01", 1);
  use(1, "00:00:00:00:00:02", 0);
  use(2, "00:00:00:00:00:03", 1);
  ctx->records[2].in_use = 0;
  use(3, "00:00:00:00:00:04", 1);
  ctx->records[10] = ctx->records[3];  // beyond client_count
  auto last_bytes = [](const std::string& text) {
    std::string out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out += line.substr(line.find(' ') - 2, 2) + " ";
    return out;
  };
  EXPECT_EQ(last_bytes(clients::client_list_text(*ctx, false)), "01 02 04 ");
  EXPECT_EQ(last_bytes(clients::client_list_text(*ctx, true)), "01 04 ");
  EXPECT_EQ(last_bytes(clients::client_stats_text(*ctx)), "01 02 04 ");
}

TEST_F(ClientFilesTest, WritersReplaceTheFileAndClearTheGuard) {
  const std::string list = dir + "/list";
  std::ofstream(list) << "stale\n";
  auto content = [&] {
    std::ifstream in(list);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  ctx->files_refresh = 1;
  EXPECT_EQ(clients::write_client_list(*ctx, list, false), 0);
  EXPECT_EQ(content(), "");
  EXPECT_EQ(ctx->files_refresh, 0);

  use(0, kStation, 1);
  ctx->files_refresh = 1;
  EXPECT_EQ(clients::write_client_stats(*ctx, list), 0);
  EXPECT_EQ(content(), clients::client_stats_text(*ctx));
  EXPECT_EQ(ctx->files_refresh, 0);

  ctx->files_refresh = 1;
  EXPECT_EQ(clients::write_client_list(*ctx, dir + "/missing/list", true), 1);
  EXPECT_EQ(ctx->files_refresh, 1) << "the guard stays when no file was written";
}

}  // namespace

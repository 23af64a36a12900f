#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/clock.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "daemon/context.h"
#include "macauth/acl_table.h"
#include "macauth/macauth.h"
#include "macauth/radius.h"
#include "snmp/traps.h"

namespace {

using daemon_core::DaemonContext;
using Reply = std::function<std::optional<std::string>(const std::string&)>;

constexpr int kAth = 3;
constexpr const char* kStation = "02:5a:00:00:00:01";
constexpr const char* kFr3Reject =
    "Sent Access-Request Id 7 from 0.0.0.0:39780 to 10.0.0.2:1812 length 155\n"
    "Received Access-Reject Id 7 from 10.0.0.2:1812 to 0.0.0.0:39780 length 20\n";

// Owns the context and the command recorder. While hold_ is set radclient
// does not return, so that workers stay in flight.
class MacAuthWorker : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(w_ >= 0 && w_ < macauth::kWlanCount);
    common::set_command_recorder(&recorder_);
  }
  void TearDown() override {
    hold_ = false;
    wait_idle();
    common::set_command_recorder(nullptr);
  }

  macauth::WlanAclConfig& wlan() { return ctx_->macauth.wlan_acl[static_cast<std::size_t>(w_)]; }
  void enable_with_servers(bool first, bool second, Reply reply = {}) {
    wlan().enabled = 1;
    wlan().ssid = "guest";
    wlan().servers[0] = {first ? 1u : 0u, "10.0.0.1", "s1", 1812, 1813};
    wlan().servers[1] = {second ? 1u : 0u, "10.0.0.2", "s2", 1812, 1813};
    std::lock_guard<std::mutex> lock(m_);
    reply_ = std::move(reply);
  }
  int active_workers() {
    std::lock_guard<std::mutex> lock(ctx_->shared_mutex);
    return ctx_->macauth.active_workers;
  }
  bool wait_until(const std::function<bool()>& done) {
    for (int i = 0; i < 1000 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
  }
  // Detached workers: the context may go only when all have ended.
  void wait_idle() { ASSERT_TRUE(wait_until([this] { return active_workers() <= 0; })); }
  // The commands run so far that contain part.
  std::vector<std::string> commands(std::string_view part = "") {
    std::lock_guard<std::mutex> lock(m_);
    std::vector<std::string> out;
    for (const auto& c : commands_)
      if (c.find(part) != std::string::npos) out.push_back(c);
    return out;
  }
  int query(const std::string& mac) {
    return macauth::mac_auth_query_extern_acl(mac, static_cast<int>(mac.size()), kAth, *ctx_);
  }
  std::string authresp(int code) { return macauth::authresp_command(kAth, kStation, code); }

  std::unique_ptr<DaemonContext> ctx_ = std::make_unique<DaemonContext>();
  int w_ = config::get_wlan_id(kAth) - 1;
  std::mutex m_;
  std::atomic<bool> hold_{false};
  Reply reply_;
  std::vector<std::string> commands_;
  common::CommandRecorder recorder_{
      [this](const std::string& c) {
        std::lock_guard<std::mutex> lock(m_);
        commands_.push_back(c);
      },
      [this](const std::string& c) -> std::optional<std::string> {
        while (hold_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::lock_guard<std::mutex> lock(m_);
        return reply_ ? reply_(c) : std::nullopt;
      }};
};

TEST_F(MacAuthWorker, SilentFirstServerThenRejectGivesOneAnswer) {
  enable_with_servers(true, true, [](const std::string& c) -> std::optional<std::string> {
    if (c.find(" 10.0.0.1:") != std::string::npos) return std::nullopt;  // silent
    return kFr3Reject;
  });
  EXPECT_EQ(query(kStation), 0);
  wait_idle();
  EXPECT_EQ(commands(), (std::vector<std::string>{
                            "radclient -x -r 1 10.0.0.1:1812 auth s1 -f /tmp/radc-025a00000001-3",
                            "radclient -x -r 1 10.0.0.2:1812 auth s2 -f /tmp/radc-025a00000001-3",
                            authresp(13)}));
  EXPECT_NE(access("/tmp/radc-025a00000001-3", F_OK), 0);  // deleted at the end
  EXPECT_EQ(wlan().cache[0].stamp, 0u);  // a reject is not cached
}

TEST_F(MacAuthWorker, AcceptIsCachedForThePeriodOnly) {
  enable_with_servers(true, false, [](const std::string&) {
    return "Received response ID 36, code 2, length = 44\n\tTunnel-Type:0 = VLAN\n"
           "\tTunnel-Medium-Type:0 = IEEE-802\n\tTunnel-Private-Group-Id:0 = \"12\"\n";
  });
  query(kStation);
  wait_idle();
  EXPECT_EQ(wlan().cache[0].mac, kStation);
  EXPECT_EQ(wlan().cache[0].vlan, 12);
  // Within the period: answered at once, no radclient.
  wlan().cache[0].stamp = static_cast<std::uint32_t>(common::wall_now() - 5);
  EXPECT_EQ(query(kStation), 0);
  EXPECT_EQ(active_workers(), 0);
  EXPECT_EQ(commands("radclient").size(), 1u);
  EXPECT_EQ(commands(authresp(0)).size(), 2u);
  // After the period: asked again.
  wlan().cache[0].stamp =
      static_cast<std::uint32_t>(common::wall_now() - ctx_->macauth.acl_cache_period - 1);
  query(kStation);
  wait_idle();
  EXPECT_EQ(commands("radclient").size(), 2u);
}

TEST_F(MacAuthWorker, PendingDuplicateRunsNoSecondQuery) {
  enable_with_servers(true, false, [](const std::string&) { return kFr3Reject; });
  hold_ = true;
  query(kStation);
  ASSERT_TRUE(wait_until([this] { return commands("radclient").size() == 1; }));
  EXPECT_EQ(query(kStation), 0);
  EXPECT_EQ(active_workers(), 1);
  hold_ = false;
  wait_idle();
  EXPECT_EQ(commands("radclient").size(), 1u);
  EXPECT_EQ(commands("authresp").size(), 1u);
}

TEST_F(MacAuthWorker, BurstNeverRunsMoreThanEightWorkers) {
  enable_with_servers(true, false);
  hold_ = true;
  for (int i = 0; i < 100; ++i) EXPECT_EQ(query(common::format("02:00:00:00:00:%02x", i)), 0);
  EXPECT_EQ(active_workers(), macauth::kMaxWorkers);
  hold_ = false;
  wait_idle();
  EXPECT_EQ(commands("radclient").size(), static_cast<std::size_t>(macauth::kMaxWorkers));
  EXPECT_EQ(commands("authresp").size(), 0u);  // silent server: no answer
}

TEST_F(MacAuthWorker, RequiredVlanRefusesAcceptWithoutTunnelAndSendsTrap5) {
  enable_with_servers(true, false, [](const std::string&) {
    return "Received Access-Accept Id 9 from 10.0.0.1:1812 to 0.0.0.0:51470 length 20\n";
  });
  ctx_->vlan.bridge_mode = 1;
  ctx_->vlan.wlan_vlan[static_cast<std::size_t>(w_)].dynamic_mode = 2;
  // Stamped as loaded from the present file, so the check keeps the record.
  ctx_->event_config = std::make_unique<snmp::EventConfig>(
      snmp::EventConfig{snmp::get_file_creation_time(config::kMasterConfigPath),
                        ".1.3.6.1.4.1.9991.100.7.14.17", "2c", "public", "10.9.9.9", 1});
  query(kStation);
  wait_idle();
  EXPECT_EQ(commands("authresp").size(), 0u);
  EXPECT_EQ(commands("snmptrap").size(), 1u);
  EXPECT_EQ(commands(".5.2.1 s 02:5a:00:00:00:01 ").size(), 1u);
  EXPECT_EQ(wlan().cache[0].stamp, 0u);
}

TEST(MacAuthInit, WlanSettingsAndServers) {
  std::vector<std::string> commands;
  common::CommandRecorder recorder{[&](const std::string& c) { commands.push_back(c); }, {}};
  auto ctx = std::make_unique<DaemonContext>();
  ctx->macauth.active_workers = 5;
  ctx->macauth.wlan_acl[0].cache[0] = {123, 4, kStation};
  for (auto& v : ctx->vlan.wlan_vlan) v.dynamic_mode = 0;  // no ebtables module needed
  ctx->masterconf = config::load_taglist_buffer(
      "ACL_CACHE_PERIOD=\"\"\n"
      "RADIUS1_HOST=\"10.1.1.1\"\nRADIUS1_SECRET=\"def1\"\nRADIUS1_AUTHPORT=\"1812\"\n"
      "RADIUS2_HOST=\"\"\nRADIUS2_SECRET=\"def2\"\n"
      "WLAN1_ACL_MODE=\"3\"\nWLAN1_SSID=\"one\"\nWLAN1_RADIUS=\"disable\"\n"
      "WLAN2_ACL_MODE=\"3\"\nWLAN2_SSID=\"\"\nWLAN2_RADIUS=\"enable\"\n"
      "WLAN2_RADIUS1_SECRET=\"s\"\nWLAN2_RADIUS1_AUTHPORT=\"1\"\n"
      "WLAN2_RADIUS2_HOST=\"10.2.2.2\"\nWLAN2_RADIUS2_AUTHPORT=\"1999\"\n"
      "WLAN3_ACL_MODE=\"3\"\nWLAN3_RADIUS=\"disable\"\n", 1);
  common::set_command_recorder(&recorder);
  macauth::mac_auth_init(*ctx);
  common::set_command_recorder(nullptr);
  const macauth::MacAuthState& st = ctx->macauth;
  EXPECT_EQ(st.acl_cache_period, 20);
  EXPECT_EQ(st.active_workers + st.wlan_acl[0].cache[0].stamp, 0u);
  EXPECT_TRUE(commands.empty());
  const auto& defaults = st.wlan_acl[0].servers;  // the default servers
  EXPECT_EQ(defaults[0].valid + defaults[1].valid, 1u);
  EXPECT_EQ(defaults[0].host + " " + defaults[0].secret + " " + defaults[1].secret, "10.1.1.1 def1 def2");
  const auto& own = st.wlan_acl[1].servers;  // no host, no server; a secret-less one keeps port 0
  EXPECT_EQ(own[0].valid + own[1].valid, 1u);
  EXPECT_EQ(own[1].host + " " + std::to_string(own[1].auth_port), "10.2.2.2 0");
  // No SSID: enabled, never asks a server. No mode: disabled.
  EXPECT_EQ(st.wlan_acl[2].enabled + st.wlan_acl[2].servers[0].valid + st.wlan_acl[2].servers[1].valid, 1u);
  EXPECT_EQ(st.wlan_acl[3].enabled, 0u);
}

}  // namespace

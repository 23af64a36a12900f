#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
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
#include "macauth/acl_table.h"
#include "macauth/macauth.h"
#include "macauth/radius.h"
#include "model/context.h"
#include "snmp/traps.h"
#include "test_dir.h"

namespace {

using daemon_core::DaemonContext;
using Reply = std::function<std::optional<std::string>(const std::string&)>;

constexpr int kAth = 3;
constexpr const char* kStation = "02:5a:00:00:00:01";
// The request file lies in the process's own directory, not in /tmp.
const std::string kRequestFile = test_support::own_temp_dir() + "/radc-025a00000001-3";
const std::string kAsk = "radclient -x -r 1 10.0.0.1:1812 auth s1 -f " + kRequestFile;

// Owns the context and the command recorder: radclient answers with reply_
// (set before the first query), and not while hold_ is set, so that workers
// stay in flight.
class MacAuthWorker : public ::testing::Test {
 protected:
  void SetUp() override {
    common::set_command_recorder(&recorder_);
    macauth::set_request_dir_for_tests(test_support::own_temp_dir());
  }
  void TearDown() override {
    hold_ = false;
    wait_idle();  // the context may go only when all workers have ended
    EXPECT_TRUE(wait_until([] { return macauth::reap_workers() == 0; }));  // and are joined
    common::set_command_recorder(nullptr);
    macauth::set_request_dir_for_tests("");
  }

  macauth::WlanAclConfig& wlan() { return ctx_->macauth.wlan_acl.at(static_cast<std::size_t>(w_)); }
  void enable(Reply reply, bool second_server = false) {
    wlan().enabled = 1;
    wlan().ssid = "guest";
    wlan().servers = {{{1, "10.0.0.1", "s1", 1812, 1813}, {second_server, "10.0.0.2", "s2", 1812, 1813}}};
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
  void wait_idle() { ASSERT_TRUE(wait_until([this] { return active_workers() <= 0; })); }
  std::vector<std::string> commands() {
    std::lock_guard<std::mutex> lock(m_);
    return commands_;
  }
  int query(const std::string& mac) {
    return macauth::mac_auth_query_extern_acl(mac, static_cast<int>(mac.size()), kAth, *ctx_);
  }
  std::string authresp(int code) { return *macauth::authresp_command(kAth, kStation, code); }

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
        return reply_ ? reply_(c) : std::nullopt;
      }};
};

TEST_F(MacAuthWorker, SilentFirstServerThenAcceptIsCachedForThePeriodOnly) {
  enable([](const std::string& c) -> std::optional<std::string> {
    if (c.find(" 10.0.0.1:") != std::string::npos) return std::nullopt;  // silent
    return "Received response ID 36, code 2, length = 44\n\tTunnel-Type:0 = VLAN\n"
           "\tTunnel-Medium-Type:0 = IEEE-802\n\tTunnel-Private-Group-Id:0 = \"12\"\n";
  }, true);
  ctx_->macauth.acl_cache_period = 30;
  EXPECT_EQ(query(kStation), 0);
  wait_idle();
  EXPECT_EQ(std::string(wlan().cache[0].mac) + " " + std::to_string(wlan().cache[0].vlan), std::string(kStation) + " 12");
  // Within the period: answered at once, no worker; after it: asked again.
  for (const std::int64_t age : {25, 31}) {
    wlan().cache[0].stamp = static_cast<std::uint32_t>(common::wall_now() - age);
    EXPECT_EQ(query(kStation), 0);
    wait_idle();
  }
  const std::string ask2 = "radclient -x -r 1 10.0.0.2:1812 auth s2 -f " + kRequestFile;
  EXPECT_EQ(commands(), (std::vector<std::string>{kAsk, ask2, authresp(0), authresp(0), kAsk, ask2, authresp(0)}));
}

TEST_F(MacAuthWorker, PendingDuplicateAndBurstStartAtMostEightWorkers) {
  enable([](const std::string& c) -> std::optional<std::string> {
    if (c.find("025a00000001") == std::string::npos) return std::nullopt;  // silent for the burst
    return "Received Access-Reject Id 7 from 10.0.0.1:1812 to 0.0.0.0:39780 length 20\n";
  });
  hold_ = true;
  query(kStation);
  ASSERT_TRUE(wait_until([this] { return commands().size() == 1; }));  // its radclient waits
  EXPECT_EQ(query(kStation), 0);
  EXPECT_EQ(active_workers(), 1);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(query(common::format("02:00:00:00:01:%02x", i)), 0);
  EXPECT_EQ(active_workers(), 8);
  hold_ = false;
  wait_idle();
  const std::vector<std::string> all = commands();
  EXPECT_EQ(all.size(), 9u);  // 8 radclients and the reject: silent servers get no answer
  EXPECT_EQ(std::count(all.begin(), all.end(), authresp(13)), 1);
  EXPECT_NE(access(kRequestFile.c_str(), F_OK), 0);  // deleted at the end
  EXPECT_EQ(wlan().cache[0].stamp, 0u);  // a reject is not cached
}

TEST_F(MacAuthWorker, RequiredVlanRefusesAcceptWithoutTunnelAndSendsTrap5) {
  enable([](const std::string&) {
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
  ASSERT_EQ(commands().size(), 2u);  // radclient, snmptrap: no answer to the driver
  EXPECT_NE(commands()[1].find("snmptrap -v 2c -c public 10.9.9.9 \"\" .1.3.6.1.4.1.9991.100.7.14.17.5.1 "
                               ".1.3.6.1.4.1.9991.100.7.14.17.5.2.1 s 02:5a:00:00:00:01 "), std::string::npos);
  EXPECT_EQ(wlan().cache[0].stamp, 0u);
}

TEST(MacAuthInit, WlanSettingsAndServers) {
  common::CommandRecorder recorder{[](const std::string& c) { ADD_FAILURE() << c; }, {}};  // none runs
  auto ctx = std::make_unique<DaemonContext>();
  ctx->macauth.active_workers = 5;
  ctx->macauth.acl_cache_period = 7;
  ctx->macauth.wlan_acl[0].cache[0] = {123, 4, kStation};
  for (auto& v : ctx->vlan.wlan_vlan) v.dynamic_mode = 0;  // no ebtables module needed
  ctx->masterconf = config::load_taglist_buffer(
      "ACL_CACHE_PERIOD=\"\"\nRADIUS1_HOST=\"10.1.1.1\"\nRADIUS1_SECRET=\"def1\"\nRADIUS1_AUTHPORT=\"1812\"\n"
      "RADIUS2_HOST=\"\"\nRADIUS2_SECRET=\"def2\"\nWLAN1_ACL_MODE=\"3\"\nWLAN1_SSID=\"one\"\nWLAN1_RADIUS=\"disable\"\n"
      "WLAN2_ACL_MODE=\"3\"\nWLAN2_SSID=\"\"\nWLAN2_RADIUS=\"enable\"\nWLAN2_RADIUS1_SECRET=\"s\"\n"
      "WLAN2_RADIUS1_AUTHPORT=\"1\"\nWLAN2_RADIUS2_HOST=\"10.2.2.2\"\nWLAN2_RADIUS2_AUTHPORT=\"1999\"\n"
      "WLAN3_ACL_MODE=\"3\"\nWLAN3_RADIUS=\"disable\"\n", 1);
  common::set_command_recorder(&recorder);
  macauth::mac_auth_init(*ctx);
  common::set_command_recorder(nullptr);
  const macauth::MacAuthState& st = ctx->macauth;
  EXPECT_EQ(st.acl_cache_period, 20);
  // The cache is dropped; the count of running workers survives the reload.
  EXPECT_EQ(st.wlan_acl[0].cache[0].stamp, 0u);
  EXPECT_EQ(st.active_workers, 5);
  // Each WLAN as "enabled: valid host secret port, ...".
  auto described = [&st](int w) {
    std::string out = std::to_string(st.wlan_acl[w].enabled) + ":";
    for (const macauth::RadiusServer& s : st.wlan_acl[w].servers)
      out += common::format(" %u %s %s %d,", s.valid, s.host.c_str(), s.secret.c_str(), s.auth_port);
    return out;
  };
  EXPECT_EQ(described(0), "1: 1 10.1.1.1 def1 1812, 0  def2 0,");  // the default servers, valid with a host
  // Own servers: none without a host; without a secret the port is not read.
  EXPECT_EQ(described(1), "1: 0   0, 1 10.2.2.2  0,");
  EXPECT_EQ(described(2), "1: 0   0, 0   0,");  // no SSID: enabled, never asks a server
  EXPECT_EQ(described(3), "0: 0   0, 0   0,");  // no mode: disabled
}

}  // namespace

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/clock.h"
#include "common/files.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/accessors.h"
#include "config/taglist.h"
#include "daemon/context.h"
#include "macauth/acl_table.h"
#include "macauth/macauth.h"
#include "macauth/radius.h"
#include "snmp/traps.h"
#include "vlan/rules.h"

namespace {

using daemon_core::DaemonContext;

constexpr int kAth = 3;
constexpr const char* kStation = "02:5a:00:00:00:01";
constexpr const char* kFr3Reject =
    "Sent Access-Request Id 7 from 0.0.0.0:39780 to 10.0.0.2:1812 length 155\n"
    "Received Access-Reject Id 7 from 10.0.0.2:1812 to 0.0.0.0:39780 length 20\n";
constexpr const char* kFr3AcceptPlain =
    "Sent Access-Request Id 9 from 0.0.0.0:51470 to 10.0.0.1:1812 length 155\n"
    "Received Access-Accept Id 9 from 10.0.0.1:1812 to 0.0.0.0:51470 length 20\n";
constexpr const char* kOldAcceptVlan12 =
    "Received response ID 36, code 2, length = 44\n"
    "\tTunnel-Type:0 = VLAN\n\tTunnel-Medium-Type:0 = IEEE-802\n"
    "\tTunnel-Private-Group-Id:0 = \"12\"\n";

std::size_t count_containing(const std::vector<std::string>& commands, std::string_view part) {
  std::size_t n = 0;
  for (const auto& c : commands)
    if (c.find(part) != std::string::npos) ++n;
  return n;
}

// Owns the context and the command recorder. A radclient reply can be held
// back until release() so that workers stay in flight.
class MacAuthWorker : public ::testing::Test {
 protected:
  void SetUp() override {
    ctx_ = std::make_unique<DaemonContext>();
    w_ = config::get_wlan_id(kAth) - 1;
    ASSERT_TRUE(w_ >= 0 && w_ < macauth::kWlanCount);
    recorder_.record = [this](const std::string& c) {
      std::lock_guard<std::mutex> lock(m_);
      commands_.push_back(c);
    };
    recorder_.reply = [this](const std::string& c) -> std::optional<std::string> {
      std::unique_lock<std::mutex> lock(m_);
      cv_.wait(lock, [this] { return !hold_; });
      return reply_ ? reply_(c) : std::nullopt;
    };
    common::set_command_recorder(&recorder_);
  }
  void TearDown() override {
    release();
    wait_idle();
    common::set_command_recorder(nullptr);
  }

  macauth::WlanAclConfig& wlan() { return ctx_->macauth.wlan_acl[static_cast<std::size_t>(w_)]; }
  void enable_with_servers(bool first, bool second) {
    wlan().enabled = 1;
    wlan().ssid = "guest";
    wlan().servers[0] = {first ? 1u : 0u, "10.0.0.1", "s1", 1812, 1813};
    wlan().servers[1] = {second ? 1u : 0u, "10.0.0.2", "s2", 1812, 1813};
  }
  void set_reply(std::function<std::optional<std::string>(const std::string&)> reply) {
    std::lock_guard<std::mutex> lock(m_);
    reply_ = std::move(reply);
  }
  void hold() {
    std::lock_guard<std::mutex> lock(m_);
    hold_ = true;
  }
  void release() {
    {
      std::lock_guard<std::mutex> lock(m_);
      hold_ = false;
    }
    cv_.notify_all();
  }
  int active_workers() {
    std::lock_guard<std::mutex> lock(ctx_->shared_mutex);
    return ctx_->macauth.active_workers;
  }
  bool wait_until(const std::function<bool()>& done) {
    for (int i = 0; i < 1000; ++i) {
      if (done()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  // Detached workers: the context may go only when all have ended.
  void wait_idle() { ASSERT_TRUE(wait_until([this] { return active_workers() <= 0; })); }
  std::vector<std::string> commands() {
    std::lock_guard<std::mutex> lock(m_);
    return commands_;
  }
  int query(const std::string& mac) {
    return macauth::mac_auth_query_extern_acl(mac, static_cast<int>(mac.size()), kAth, *ctx_);
  }
  std::string authresp(int code, const std::string& mac = kStation) {
    return macauth::authresp_command(kAth, mac, code);
  }

  std::unique_ptr<DaemonContext> ctx_;
  int w_ = 0;
  common::CommandRecorder recorder_;
  std::mutex m_;
  std::condition_variable cv_;
  bool hold_ = false;
  std::function<std::optional<std::string>(const std::string&)> reply_;
  std::vector<std::string> commands_;
};

TEST_F(MacAuthWorker, SilentFirstServerThenRejectGivesOneAnswer) {
  enable_with_servers(true, true);
  std::string request_seen;
  set_reply([&](const std::string& c) -> std::optional<std::string> {
    if (c.find(" 10.0.0.1:") != std::string::npos) {
      request_seen = common::common_readfile_firstline("/tmp/radc-025a00000001-3");
      return std::nullopt;  // silent
    }
    return kFr3Reject;
  });
  EXPECT_EQ(query(kStation), 0);
  wait_idle();
  auto cmds = commands();
  ASSERT_EQ(cmds.size(), 3u);
  EXPECT_EQ(cmds[0], "radclient -x -r 1 10.0.0.1:1812 auth s1 -f /tmp/radc-025a00000001-3");
  EXPECT_EQ(cmds[1], "radclient -x -r 1 10.0.0.2:1812 auth s2 -f /tmp/radc-025a00000001-3");
  EXPECT_EQ(cmds[2], authresp(13));
  EXPECT_EQ(request_seen, "User-Name = \"025a00000001\"\n");
  EXPECT_NE(access("/tmp/radc-025a00000001-3", F_OK), 0);  // deleted at the end
  std::lock_guard<std::mutex> lock(ctx_->shared_mutex);
  EXPECT_FALSE(macauth::is_pending(wlan().pending, kStation));
  EXPECT_EQ(wlan().cache[0].stamp, 0u);  // a reject is not cached
}

TEST_F(MacAuthWorker, AcceptIsCachedForThePeriodOnly) {
  enable_with_servers(true, false);
  set_reply([](const std::string&) { return std::optional<std::string>(kOldAcceptVlan12); });
  const std::int64_t before = common::wall_now();
  query(kStation);
  wait_idle();
  {
    std::lock_guard<std::mutex> lock(ctx_->shared_mutex);
    EXPECT_EQ(wlan().cache[0].mac, kStation);
    EXPECT_EQ(wlan().cache[0].vlan, 12);
    EXPECT_GE(static_cast<std::int64_t>(wlan().cache[0].stamp), before);
  }
  EXPECT_EQ(count_containing(commands(), "radclient"), 1u);
  EXPECT_EQ(commands().back(), authresp(0));

  // Within the period: answered at once, no radclient.
  wlan().cache[0].stamp = static_cast<std::uint32_t>(common::wall_now() - 5);
  EXPECT_EQ(query(kStation), 0);
  EXPECT_EQ(active_workers(), 0);
  EXPECT_EQ(count_containing(commands(), "radclient"), 1u);
  EXPECT_EQ(count_containing(commands(), authresp(0)), 2u);

  // After the period: asked again.
  wlan().cache[0].stamp =
      static_cast<std::uint32_t>(common::wall_now() - ctx_->macauth.acl_cache_period - 1);
  query(kStation);
  wait_idle();
  EXPECT_EQ(count_containing(commands(), "radclient"), 2u);
}

TEST_F(MacAuthWorker, PendingDuplicateRunsNoSecondQuery) {
  enable_with_servers(true, false);
  set_reply([](const std::string&) { return std::optional<std::string>(kFr3Reject); });
  hold();
  query(kStation);
  ASSERT_TRUE(wait_until([this] { return count_containing(commands(), "radclient") == 1; }));
  EXPECT_EQ(query(kStation), 0);
  EXPECT_EQ(active_workers(), 1);
  release();
  wait_idle();
  EXPECT_EQ(count_containing(commands(), "radclient"), 1u);
  EXPECT_EQ(count_containing(commands(), "authresp"), 1u);
}

TEST_F(MacAuthWorker, BurstNeverRunsMoreThanEightWorkers) {
  enable_with_servers(true, false);
  hold();
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(query(common::format("02:00:00:00:00:%02x", i)), 0);
  EXPECT_EQ(active_workers(), macauth::kMaxWorkers);
  release();
  wait_idle();
  EXPECT_EQ(count_containing(commands(), "radclient"), static_cast<std::size_t>(macauth::kMaxWorkers));
  EXPECT_EQ(count_containing(commands(), "authresp"), 0u);  // silent server: no answer
}

TEST_F(MacAuthWorker, RefusedQueriesStartNothing) {
  enable_with_servers(true, true);
  for (const char* bad : {"00:11:22:33:44:5g", "00-11-22-33-44-55", "';reboot;'00:11:22:33:44",
                          ""})
    EXPECT_EQ(query(bad), 0) << bad;
  EXPECT_EQ(macauth::mac_auth_query_extern_acl(kStation, 16, kAth, *ctx_), 0);  // cut short
  wlan().enabled = 0;
  EXPECT_EQ(query(kStation), 0);
  if (int ath = 16; config::get_wlan_id(ath) > macauth::kWlanCount) {
    EXPECT_EQ(macauth::mac_auth_query_extern_acl(kStation, 17, ath, *ctx_), -1);
  }
  EXPECT_EQ(active_workers(), 0);
  EXPECT_TRUE(commands().empty());

  // Enabled without any valid server: the file comes and goes, no answer.
  enable_with_servers(false, false);
  query(kStation);
  wait_idle();
  EXPECT_TRUE(commands().empty());
  EXPECT_NE(access("/tmp/radc-025a00000001-3", F_OK), 0);
}

TEST_F(MacAuthWorker, RequiredVlanRefusesAcceptWithoutTunnel) {
  enable_with_servers(true, false);
  ctx_->vlan.bridge_mode = 1;
  ctx_->vlan.wlan_vlan[static_cast<std::size_t>(w_)].dynamic_mode = 2;
  set_reply([](const std::string&) { return std::optional<std::string>(kFr3AcceptPlain); });
  auto events = std::make_unique<snmp::EventConfig>();
  // Stamped as loaded from the present file, so the check keeps the record.
  events->stamp = snmp::get_file_creation_time(config::kMasterConfigPath);
  events->oid_prefix = ".1.3.6.1.4.1.9991.100.7.14.17";
  events->version = "2c";
  events->community = "public";
  ctx_->event_config = std::move(events);

  for (int enabled : {0, 1}) {
    ctx_->event_config->enabled = enabled;
    ctx_->event_config->receiver = enabled ? "10.9.9.9" : "";
    query(kStation);
    wait_idle();
    auto cmds = commands();
    EXPECT_EQ(count_containing(cmds, "authresp"), 0u);
    EXPECT_EQ(count_containing(cmds, "snmptrap"), static_cast<std::size_t>(enabled));
    if (enabled) {
      EXPECT_EQ(count_containing(cmds, ".5.2.1"), 1u);
      EXPECT_EQ(count_containing(cmds, kStation), 1u);
    }
    std::lock_guard<std::mutex> lock(ctx_->shared_mutex);
    EXPECT_EQ(wlan().cache[0].stamp, 0u);
  }
}

TEST_F(MacAuthWorker, AssignedVlanReachesTheStationRules) {
  constexpr const char* kMac = "02:5a:00:00:00:02";
  enable_with_servers(true, false);
  ctx_->vlan.bridge_mode = 1;
  ctx_->vlan.untag_vlan = 0;
  ctx_->vlan.wlan_vlan[static_cast<std::size_t>(w_)] = {7, 1, 0};
  ctx_->uplink = "br0";
  set_reply([](const std::string&) { return std::optional<std::string>(kOldAcceptVlan12); });
  mkdir(vlan::kRuleStoreDir, 0755);
  query(kMac);
  wait_idle();
  auto cmds = commands();
  EXPECT_EQ(count_containing(cmds, authresp(0, kMac)), 1u);
  EXPECT_EQ(count_containing(cmds, "-i ath3 -s 02:5a:00:00:00:02 -j svlan --setvlan 12 "), 1u);
  EXPECT_EQ(count_containing(cmds, "-i br0 -d 02:5a:00:00:00:02 -j svlan --setvlan 7 "), 1u);
  vlan::ebt_rule_store_flush(kMac, 0);
}

// --- mac_auth_init

class MacAuthInit : public ::testing::Test {
 protected:
  void SetUp() override {
    ctx_ = std::make_unique<DaemonContext>();
    recorder_.record = [this](const std::string& c) { commands_.push_back(c); };
    common::set_command_recorder(&recorder_);
  }
  void TearDown() override { common::set_command_recorder(nullptr); }
  void init(const std::string& conf) {
    ctx_->masterconf = config::load_taglist_buffer(conf, 1);
    macauth::mac_auth_init(*ctx_);
  }
  const macauth::WlanAclConfig& wlan(int number) { return ctx_->macauth.wlan_acl[number - 1]; }

  std::unique_ptr<DaemonContext> ctx_;
  common::CommandRecorder recorder_;
  std::vector<std::string> commands_;
};

TEST_F(MacAuthInit, WlanSettingsAndServers) {
  ctx_->macauth.active_workers = 5;
  ctx_->macauth.wlan_acl[0].cache[0] = {123, 4, kStation};
  init(
      "AP_NAME=\"ap-7\"\nACL_CACHE_PERIOD=\"0\"\n"
      "RADIUS1_HOST=\"10.1.1.1\"\nRADIUS1_SECRET=\"def1\"\nRADIUS1_AUTHPORT=\"1812\"\n"
      "RADIUS1_ACCTPORT=\"1813\"\nRADIUS2_HOST=\"\"\nRADIUS2_SECRET=\"def2\"\n"
      "WLAN1_ACL_MODE=\"3\"\nWLAN1_SSID=\"one\"\nWLAN1_RADIUS=\"disable\"\n"
      "WLAN2_ACL_MODE=\"3\"\nWLAN2_SSID=\"\"\nWLAN2_RADIUS=\"enable\"\n"
      "WLAN2_RADIUS1_SECRET=\"s\"\nWLAN2_RADIUS1_AUTHPORT=\"1\"\n"
      "WLAN2_RADIUS2_HOST=\"10.2.2.2\"\nWLAN2_RADIUS2_AUTHPORT=\"1999\"\n"
      "WLAN3_ACL_MODE=\"1\"\nWLAN3_SSID=\"x\"\n"
      "WLAN4_ACL_MODE=\"3\"\nWLAN4_RADIUS=\"disable\"\n"
      "WLAN5_SSID=\"five\"\n"
      "WLAN6_ACL_MODE=\"3\"\nWLAN6_SSID=\"six\"\n");
  const macauth::MacAuthState& st = ctx_->macauth;
  EXPECT_EQ(st.ap_name, "ap-7");
  EXPECT_EQ(st.acl_cache_period, 0);
  EXPECT_EQ(st.active_workers, 0);
  EXPECT_EQ(st.wlan_acl[0].cache[0].stamp, 0u);

  EXPECT_EQ(wlan(1).enabled, 1u);
  EXPECT_EQ(wlan(1).ssid, "one");
  EXPECT_EQ(wlan(1).servers[0].valid, 1u);
  EXPECT_EQ(wlan(1).servers[0].host, "10.1.1.1");
  EXPECT_EQ(wlan(1).servers[0].secret, "def1");
  EXPECT_EQ(wlan(1).servers[0].auth_port, 1812);
  EXPECT_EQ(wlan(1).servers[0].acct_port, 1813);
  EXPECT_EQ(wlan(1).servers[1].valid, 0u);  // empty default host
  EXPECT_EQ(wlan(1).servers[1].secret, "def2");

  // Per-WLAN chain: nothing without a host; a secret-less server keeps port 0.
  EXPECT_EQ(wlan(2).enabled, 1u);
  EXPECT_EQ(wlan(2).servers[0].valid, 0u);
  EXPECT_EQ(wlan(2).servers[0].secret, "");
  EXPECT_EQ(wlan(2).servers[1].valid, 1u);
  EXPECT_EQ(wlan(2).servers[1].host, "10.2.2.2");
  EXPECT_EQ(wlan(2).servers[1].auth_port, 0);

  EXPECT_EQ(wlan(3).enabled, 0u);
  EXPECT_EQ(wlan(4).enabled, 1u);  // no SSID: enabled, never asks a server
  EXPECT_EQ(wlan(4).servers[0].valid, 0u);
  EXPECT_EQ(wlan(5).enabled, 0u);
  EXPECT_EQ(wlan(6).enabled, 1u);
  EXPECT_EQ(wlan(6).servers[0].valid, 0u);

  // Dynamic VLANs (mode "optional" by default) need the ebtables module.
  const bool module_marked = access(vlan::kEbtablesModuleMarker, R_OK) == 0;
  EXPECT_EQ(count_containing(commands_, "ebtables -V"), module_marked ? 0u : 1u);
}

TEST_F(MacAuthInit, DefaultsWithoutKeysAndNoModuleWhenDynamicVlanIsOff) {
  for (auto& v : ctx_->vlan.wlan_vlan) v.dynamic_mode = 0;
  init("ACL_CACHE_PERIOD=\"\"\nWLAN1_ACL_MODE=\"3\"\nWLAN1_SSID=\"a\"\nWLAN1_RADIUS=\"x\"\n");
  EXPECT_EQ(ctx_->macauth.acl_cache_period, 20);
  EXPECT_EQ(ctx_->macauth.ap_name, "");
  EXPECT_EQ(wlan(1).enabled, 1u);
  EXPECT_TRUE(commands_.empty());
}

}  // namespace

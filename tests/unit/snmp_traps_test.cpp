#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/runner.h"
#include "config/taglist.h"
#include "daemon/context.h"
#include "snmp/traps.h"

namespace {

constexpr const char* kPrefix = ".1.3.6.1.4.1.9991.100.7.14.17";

snmp::EventConfig test_config() {
  snmp::EventConfig config;
  config.oid_prefix = kPrefix;
  config.version = "2c";
  config.community = "public";
  config.receiver = "10.0.0.9";
  config.enabled = 1;
  return config;
}

std::string head(const std::string& trap) {
  return std::string("/usr/sbin/snmptrap -v 2c -c public 10.0.0.9 \"\" ") + kPrefix + trap;
}

// Installs the command recorder for the lifetime of the fixture.
class SnmpTraps : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder_.record = [this](const std::string& command) { commands_.push_back(command); };
    common::set_command_recorder(&recorder_);
  }
  void TearDown() override { common::set_command_recorder(nullptr); }

  // The one command a sender ran.
  std::string only_command() {
    EXPECT_EQ(commands_.size(), 1u);
    return commands_.empty() ? std::string() : commands_.back();
  }

  // The arguments the shell hands to snmptrap for the recorded command:
  // the command is run with printf standing in for snmptrap.
  std::vector<std::string> shell_arguments() {
    std::string command = only_command();
    const std::string tool = "/usr/sbin/snmptrap";
    EXPECT_EQ(command.rfind(tool, 0), 0u);
    command.replace(0, tool.size(), "printf '%s\\n'");
    common::set_command_recorder(nullptr);
    auto out = common::run_command_read(command);
    common::set_command_recorder(&recorder_);
    std::vector<std::string> args;
    if (!out) return args;
    std::size_t start = 0;
    for (std::size_t nl; (nl = out->find('\n', start)) != std::string::npos; start = nl + 1)
      args.push_back(out->substr(start, nl - start));
    return args;
  }

  common::CommandRecorder recorder_;
  std::vector<std::string> commands_;
};

TEST_F(SnmpTraps, SendersBuildTheirOidsTypesAndValues) {
  const snmp::EventConfig config = test_config();
  const std::string p = kPrefix;

  snmp::RogueApReport rogue{"00:AA:BB:CC:DD:EE", "office", {6, 1, -60, 11, 3, 42}, "12:30 01-02"};
  snmp::send_rogueApDetectionTrap(config, rogue);
  EXPECT_EQ(only_command(), head(".1.1") + " " + p + ".1.2.1 s 00:AA:BB:CC:DD:EE " + p +
                                ".1.2.2 s office " + p + ".1.2.3 i 6 " + p + ".1.2.4 i 1 " + p +
                                ".1.2.5 i -60 " + p + ".1.2.6 i 11 " + p + ".1.2.7 i 3 " + p +
                                ".1.2.8 i 42 " + p + ".1.2.9 s \"12:30 01-02\"");
  commands_.clear();

  snmp::send_maxStationTrap(config, {"00:11:22:33:44:55", 1});
  EXPECT_EQ(only_command(),
            head(".2.1") + " " + p + ".2.2.1 s 00:11:22:33:44:55 " + p + ".2.2.2 i 1");
  commands_.clear();

  // The SSID goes out under .3.2.2 a second time.
  snmp::send_aclMismatchTrap(config, {"00:11:22:33:44:55", "00:AA:BB:CC:DD:EE", "guest"});
  EXPECT_EQ(only_command(), head(".3.1") + " " + p + ".3.2.1 s 00:11:22:33:44:55 " + p +
                                ".3.2.2 s 00:AA:BB:CC:DD:EE " + p + ".3.2.2 s guest");
  commands_.clear();

  snmp::send_noBeaconTrap(config, "00:AA:BB:CC:DD:EE");
  EXPECT_EQ(only_command(), head(".4.1") + " " + p + ".4.2.1 s 00:AA:BB:CC:DD:EE");
  commands_.clear();

  const snmp::VlanFailureTrapInfo info{"00:11:22:33:44:55", "staff", 42};
  snmp::send_vlanAccessControlMechnismFailureTrap(config, info);
  snmp::send_trap6(config, info);
  snmp::send_trap7(config, info);
  ASSERT_EQ(commands_.size(), 3u);
  for (int n = 5; n <= 7; ++n) {
    const std::string t = "." + std::to_string(n);
    EXPECT_EQ(commands_[n - 5], head(t + ".1") + " " + p + t + ".2.1 s 00:11:22:33:44:55 " + p + t +
                                    ".2.2 s staff " + p + t + ".2.3 i 42");
  }
}

TEST_F(SnmpTraps, TextValuesReachSnmptrapAsOneArgumentIntact) {
  const snmp::EventConfig config = test_config();
  const std::string p = kPrefix;
  struct Case {
    std::string ssid;
  };
  const Case cases[] = {{"my net"}, {"$(touch /tmp/x)"}, {"it's \"ours\""}, {"a;b|c&d`e`"}, {""}};
  for (const Case& c : cases) {
    commands_.clear();
    snmp::send_vlanAccessControlMechnismFailureTrap(config, {"00:11:22:33:44:55", c.ssid, 7});
    std::vector<std::string> args = shell_arguments();
    const std::vector<std::string> want = {
        "-v",         "2c",       "-c",         "public",     "10.0.0.9",
        "",           p + ".5.1", p + ".5.2.1", "s",          "00:11:22:33:44:55",
        p + ".5.2.2", "s",        c.ssid,       p + ".5.2.3", "i",
        "7"};
    EXPECT_EQ(args, want) << c.ssid;
  }
}

TEST_F(SnmpTraps, RogueApTimeAndCommunityStayOneArgument) {
  snmp::EventConfig config = test_config();
  config.community = "my community";
  snmp::RogueApReport rogue{"00:AA:BB:CC:DD:EE", "x y", {}, "\"$(id)\" `id` \\"};
  snmp::send_rogueApDetectionTrap(config, rogue);
  std::vector<std::string> args = shell_arguments();
  ASSERT_EQ(args.size(), 34u);
  EXPECT_EQ(args[3], "my community");
  EXPECT_EQ(args[12], "x y");
  EXPECT_EQ(args.back(), rogue.time_text);
}

TEST_F(SnmpTraps, RecordTextsAndVarbindsAreCut) {
  const snmp::EventConfig config = test_config();
  const std::string p = kPrefix;
  const std::string long_mac = "00:11:22:33:44:55:66";
  const std::string ssid40(40, 's');

  snmp::send_trap6(config, {long_mac, ssid40, 1});
  EXPECT_EQ(only_command(), head(".6.1") + " " + p + ".6.2.1 s 00:11:22:33:44:55 " + p +
                                ".6.2.2 s " + std::string(33, 's') + " " + p + ".6.2.3 i 1");
  commands_.clear();

  snmp::send_aclMismatchTrap(config, {long_mac, long_mac, ssid40});
  EXPECT_EQ(only_command(), head(".3.1") + " " + p + ".3.2.1 s 00:11:22:33:44:55 " + p +
                                ".3.2.2 s 00:11:22:33:44:55 " + p + ".3.2.2 s " +
                                std::string(35, 's'));
  commands_.clear();

  // The varbind text ends at 1023 characters.
  snmp::send_noBeaconTrap(config, std::string(2000, 'a'));
  const std::string varbinds = p + ".4.2.1 s " + std::string(2000, 'a');
  EXPECT_EQ(only_command(), head(".4.1") + " " + varbinds.substr(0, 1023));
}

struct SettingsCase {
  const char* conf;
  int enabled;
  const char* receiver;
  int port;
  const char* community;
};

TEST(SnmpTrapSettings, LoadsFromTheMasterConfiguration) {
  const SettingsCase cases[] = {
      {"SNMP_TRAP1_STATUS=\"enable\"\nSNMP_TRAP1_NAME=\"pub\"\nSNMP_TRAP1_IPADDR=\"10.1.1.1\"\n"
       "SNMP_TRAP1_PORT=\"1162\"\n",
       1, "10.1.1.1", 1162, "pub"},
      {"SNMP_TRAP1_STATUS=\"enable now\"\n", 1, "", 162, "defcom"},
      {"SNMP_TRAP1_STATUS=\"enabled\"\nSNMP_TRAP1_PORT=\"abc\"\n", 0, "", 162, "defcom"},
      {"SNMP_TRAP1_STATUS=\"disable\"\nSNMP_TRAP1_NAME=\"\"\n", 0, "", 162, "defcom"},
      {"", 0, "", 162, "defcom"},
  };
  for (const SettingsCase& c : cases) {
    auto ctx = std::make_unique<daemon_core::DaemonContext>();
    ctx->masterconf = std::shared_ptr<config::taglist>(config::load_taglist_buffer(c.conf, 1));
    snmp::load_trap_settings(*ctx);
    const snmp::TrapSettings& s = ctx->trap_settings;
    EXPECT_EQ(s.owner, ctx.get());
    EXPECT_EQ(s.trap_enabled, c.enabled) << c.conf;
    EXPECT_EQ(s.trap_receiver, c.receiver) << c.conf;
    EXPECT_EQ(s.trap_port, c.port) << c.conf;
    EXPECT_EQ(s.trap_community, c.community) << c.conf;
  }
}

}  // namespace

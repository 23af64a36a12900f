#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/runner.h"
#include "config/taglist.h"
#include "model/context.h"
#include "recorded_commands.h"
#include "snmp/traps.h"

namespace {

constexpr const char* kPrefix = ".1.3.6.1.4.1.9991.100.7.14.17";

// Records the commands for the lifetime of the fixture.
class SnmpTraps : public ::testing::Test {
 protected:
  // The arguments the shell hands to snmptrap for the one recorded command:
  // the command is run with printf standing in for snmptrap.
  std::vector<std::string> shell_arguments() {
    EXPECT_EQ(commands_.size(), 1u);
    std::string command = commands_.empty() ? std::string() : commands_.back();
    commands_.clear();
    const std::string tool = "/usr/sbin/snmptrap";
    EXPECT_EQ(command.rfind(tool, 0), 0u);
    command.replace(0, tool.size(), "printf '%s\\n'");
    common::set_command_recorder(nullptr);
    std::istringstream out(common::run_command_read(command).value_or(""));
    common::set_command_recorder(&recorded_.recorder);
    std::vector<std::string> args;
    for (std::string line; std::getline(out, line);) args.push_back(line);
    return args;
  }

  snmp::EventConfig config_{0, kPrefix, "2c", "my community", "10.0.0.9", 1};
  test_support::RecordedCommands recorded_;
  std::vector<std::string>& commands_ = recorded_.commands;
};

TEST_F(SnmpTraps, VlanTrapsCarryHostileSsidsAsOneArgument) {
  const std::string p = kPrefix;
  using Sender = int (*)(const snmp::EventConfig&, const snmp::VlanFailureTrapInfo&);
  const Sender senders[] = {snmp::send_vlanAccessControlMechnismFailureTrap, snmp::send_trap6,
                            snmp::send_trap7};
  const std::string ssids[] = {"my net", "$(touch /tmp/x)", "it's \"ours\"", "a;b|c&d`e`", "",
                               std::string(40, 's')};
  for (int n = 5; n <= 7; ++n) {
    for (const std::string& ssid : ssids) {
      senders[n - 5](config_, {"00:11:22:33:44:55:66", ssid, 7});
      const std::string t = p + "." + std::to_string(n);
      const std::vector<std::string> want = {
          "-v", "2c", "-c", "my community", "10.0.0.9", "", t + ".1",
          t + ".2.1", "s", "00:11:22:33:44:55", t + ".2.2", "s", ssid.substr(0, 33),
          t + ".2.3", "i", "7"};
      EXPECT_EQ(shell_arguments(), want) << n << " " << ssid;
    }
  }
}

TEST(SnmpTrapSettings, StatusPrefixAndAPortThatIsNoNumber) {
  for (const auto& [conf, enabled] : {std::pair{"SNMP_TRAP1_STATUS=\"enable now\"\n", 1},
                                      std::pair{"SNMP_TRAP1_STATUS=\"enabled\"\nSNMP_TRAP1_PORT=\"abc\"\n", 0}}) {
    auto ctx = std::make_unique<daemon_core::DaemonContext>();
    ctx->masterconf = std::shared_ptr<config::taglist>(config::load_taglist_buffer(conf, 1));
    snmp::load_trap_settings(*ctx);
    EXPECT_EQ(ctx->trap_settings.trap_enabled, enabled) << conf;
    EXPECT_EQ(ctx->trap_settings.trap_port, 162) << conf;
  }
}

}  // namespace

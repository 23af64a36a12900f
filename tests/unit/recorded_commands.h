#pragma once
// Every command the code under test runs is recorded instead, while an
// object of this type lives; a command whose output is read gets none.

#include <string>
#include <vector>

#include "common/runner.h"

namespace test_support {

struct RecordedCommands {
  std::vector<std::string> commands;
  common::CommandRecorder recorder{[this](const std::string& c) { commands.push_back(c); }, {}};
  RecordedCommands() { common::set_command_recorder(&recorder); }
  ~RecordedCommands() { common::set_command_recorder(nullptr); }
  RecordedCommands(const RecordedCommands&) = delete;
};

}  // namespace test_support

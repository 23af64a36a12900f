// The one way the daemon runs external commands. A command text is run by
// /bin/sh -c, exactly like system(3) and popen(3) would, so that templates
// with redirections and a trailing "&" behave as on the device.
//
// Command texts with values are made only by the builder in
// common/command.h; a command it refused (nullopt) is not run.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace common {

// Runs the command and waits for the shell; the result is the wait status
// that system(3) returns (-1 when the shell cannot be started). Thread-safe.
int run_command(const std::string& command);

// Runs the command and returns everything it printed on standard output
// (at most max_bytes), or nullopt when the shell cannot be started.
// Thread-safe.
std::optional<std::string> run_command_read(const std::string& command,
                                            std::size_t max_bytes = 65536);

// A fixed command text of the program.
inline int run_command(const char* literal) { return run_command(std::string(literal)); }
inline std::optional<std::string> run_command_read(const char* literal,
                                                   std::size_t max_bytes = 65536) {
  return run_command_read(std::string(literal), max_bytes);
}

// The same for a built command: a refused one (nullopt) runs nothing and
// gives -1 / nullopt.
int run_command(const std::optional<std::string>& command);
std::optional<std::string> run_command_read(const std::optional<std::string>& command,
                                            std::size_t max_bytes = 65536);

// Unit tests only: while a recorder is installed, commands are recorded
// instead of run. run_command returns 0; run_command_read returns what
// reply() gives (nullopt when reply is empty). The production binary never
// installs one.
struct CommandRecorder {
  std::function<void(const std::string&)> record;
  std::function<std::optional<std::string>(const std::string&)> reply;
};
void set_command_recorder(const CommandRecorder* recorder);

}  // namespace common

// The one way the daemon runs external commands. A command text is run by
// /bin/sh -c, exactly like system(3) and popen(3) would, so that templates
// with redirections and a trailing "&" behave as on the device.
//
// Every value inserted into a command text goes through shell_word() or
// shell_dq() first: nothing from input, configuration or the air reaches the
// shell unquoted.
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

// A value made only of A-Za-z0-9._:/@%+=,- comes back as it is; anything
// else comes back single-quoted for a bare word ('' for an empty value).
std::string shell_word(std::string_view value);

// For a value that the template already puts inside double quotes: the
// same safe set as it is; otherwise \ " $ ` are backslash-escaped.
std::string shell_dq(std::string_view value);

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

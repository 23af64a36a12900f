// Shared pieces of the fuzz targets: the command check (a small POSIX-shell
// word splitter that tells whether a recorded command would run anything
// but its own template), the recorder that applies it to every command, and
// the fixed files the daemon reads, written into the sandbox the targets run
// in (tests/fuzz/sandbox.sh).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <memory>

#include "common/runner.h"
#include "config/taglist.h"
#include "model/context.h"

namespace fuzz {

// What the splitter makes of a command text.
struct SplitCommand {
  std::vector<std::string> words;  // after quote removal
  // word_of[i]: the index of the word raw character i belongs to; -1 for a
  // separating blank or an operator.
  std::vector<int> word_of;
  // template_owned[i]: part of an operator form the templates use themselves
  // ("> /dev/null", "2>&1", a final "&", "| grep ...") or of an empty "" word.
  std::vector<bool> template_owned;
  std::string problem;  // "" when the command is harmless
};

// Splits the command as /bin/sh would split a simple command and names the
// first thing in it that would run or redirect anything the templates do not
// ask for: an unquoted $ ` ; ( ) newline, a glob or comment character, an
// operator other than the templates' own, an unterminated quote, a NUL.
SplitCommand split_command(std::string_view command);

// Aborts (printing the command and why) when the command is not harmless, or
// when one of the values, which came from the fuzzer and hold shell syntax,
// lies across more than one word of it.
void check_command(std::string_view command, const std::vector<std::string>& values = {});

// While alive: every command run is recorded and checked against the
// current values; run_command_read answers with `reply`.
struct CheckingRecorder {
  CheckingRecorder();
  ~CheckingRecorder();
  CheckingRecorder(const CheckingRecorder&) = delete;
  CheckingRecorder& operator=(const CheckingRecorder&) = delete;

  std::vector<std::string> values;    // fuzz-controlled texts of this input
  std::vector<std::string> commands;  // every command of this input
  std::string reply;                  // what run_command_read gives back
  common::CommandRecorder recorder;
};

// Aborts unless the process runs in the fuzz sandbox: a private mount
// namespace in which /etc, /run, /tmp and /proc are the sandbox's own
// (see sandbox.sh), so that nothing the daemon code writes reaches the host.
void require_sandbox();

// True when CLIENTMGR_FUZZ_SKIP_NUL=1 is set and the text holds a NUL byte:
// the targets then pass over such inputs, to look for faults other than
// a NUL cutting a command short.
bool skip_for_nul(std::string_view text);

// Writes a file (replacing it); aborts when it cannot.
void write_file(const std::string& path, std::string_view text);

// The fixed device state the targets run against: two radios, four VAPs
// ath0..ath3 on WLANs 1..4, "/var/run/wireless.status" accordingly.
void write_wireless_status();

// A master configuration with every feature the handlers look at switched
// on (client limit, SNMP traps, bandwidth control, portal, VLANs, L2TP).
extern const char* const kMasterConfig;

// kMasterConfig loaded, and the VLAN pools it gives, built once at start.
struct DefaultConfig {
  std::shared_ptr<config::taglist> masterconf;
  vlan::VlanState vlan;
};
DefaultConfig load_default_config();

}  // namespace fuzz

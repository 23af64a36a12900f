// The event interpreter: driver events from "/etc/iwevent_pipe" and
// control commands / bus topics from "/etc/event_pipe", one chunk per call,
// each line run through one fixed chain of keyword tests. Main thread only.
#pragma once

#include <sys/select.h>

#include <string>
#include <string_view>

#include "daemon/pipe_lines.h"
#include "model/context.h"

namespace daemon_core {

// The first whitespace-delimited word (at most 1023 characters) after the
// first " <key><separator>" in the line; "" when the line lacks it.
std::string find_value(std::string_view line, std::string_view key, std::string_view separator);

// Reads one chunk (at most 1023 bytes) from the event pipe when it is in the
// ready set, else from the iwevent pipe, and interprets the lines it
// completes (joined with what that pipe's carry kept from its last read).
void interpret_events(DaemonContext& ctx, int event_fd, int iwevent_fd, const fd_set& ready,
                      PipeCarry& event_carry, PipeCarry& iwevent_carry);

// Interprets every newline-terminated line of a chunk; a final piece
// without a newline is not seen.
void interpret_chunk(DaemonContext& ctx, std::string_view chunk);

// One line through the chain: the neighbour / driver-status events, then
// registration and expiry, then (when neither of those two) the control
// commands in their order.
void interpret_line(DaemonContext& ctx, std::string_view line);

}  // namespace daemon_core

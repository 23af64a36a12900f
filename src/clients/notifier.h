// The notifier queue: each record holds one pending code (11 associated,
// 12 disassociated), a hold-off after each report and the last reported
// state. Reports go to the external "tavo_client" program, run in the
// background through the shell. Main thread only.
#pragma once

#include <cstdint>

#include "clients/record.h"

namespace clients {

// Queues code 11 or 12 for the record: a repeated code only re-stamps the
// hold-off, a disassociation of a never-reported station is dropped, and a
// code whose age since the last report is enough (60 s for 11, 180 s for
// 12) is reported at once; otherwise it waits in pending_code for the main
// loop. Code 11 also checks the radio-wide and per-VAP client limits.
void tavo_event_queue(ClientRecord& record, std::uint8_t code);

// Builds and runs one notifier command for the record: first the pending
// disassociations of the same station on other VAPs, then the client-limit
// event when pending_flag is set, then the record's own pending code. Any
// call that cannot be built abandons the whole command (nothing runs).
// Called by the queue and by the main loop's timed work.
void notify_client(ClientRecord& record);

}  // namespace clients

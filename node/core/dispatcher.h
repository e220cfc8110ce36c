// Internal side of the APPC dispatcher (appc_c_version, appc_c_async_version).
#pragma once

#include "core/verb_backend.h"

namespace snanode {

// Routes verbs to `backend` instead of the engine (null: back to the engine).
// The test interface uses it while tests script verbs.  Caller holds the
// process lock.
void set_test_backend(VerbBackend *backend);

// Whether the verb was submitted with a completion routine, and whether its
// entry point must complete it before returning (appc_c_version).
bool ticket_has_routine(const VerbTicket *ticket);
bool ticket_submitted_synchronously(const VerbTicket *ticket);

// complete_verb(), then waits (with the process lock released) until the
// blocked caller has taken its result or the completion routine has run.  On
// the completion thread it cannot wait for a routine and returns at once.
void complete_verb_and_wait(VerbTicket *ticket);

// Ends the path at every backend: each completes its outstanding verbs with an
// error.  Caller holds the process lock.
void end_path_at_backends();

// Threads waiting inside a node call for a verb's result.
unsigned threads_waiting_for_verbs();

}  // namespace snanode

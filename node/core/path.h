// The path between this process and its node, and the users registered on it.
#pragma once

#include <cstdint>

namespace snanode {

// Ends the path as a lost node does: every outstanding verb completes with an
// error, the completion routines already due run, the threads waiting inside
// node calls return, and then each registered path routine runs with
// VPM_PATH_ENDED on the completion thread, holding the process lock.  The
// registrations end with it; the next vpm_init_path_user connects afresh.
//
// Returns once the path routines have run, except on the completion thread
// itself (a routine ending the path), where it only starts the sequence.
// Concurrent calls share one path end.
void end_path();

// True from the start of end_path until its path routines have run; verbs
// submitted meanwhile fail at once with AP_COMM_SUBSYSTEM_ABENDED.
bool path_is_ending();

uint32_t path_user_count();

// Connects the process to its node (embedded engine or daemon) when the first
// path user registers; false refuses the registration.  Runs under the process
// lock.  Without a connector every registration succeeds.
using PathConnector = bool (*)();
void set_path_connector(PathConnector connector);

}  // namespace snanode

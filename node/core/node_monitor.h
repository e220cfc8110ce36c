// Node-wide state changes that threads wait for under the process lock.
//
// Whoever changes such state (a verb completed, a routine ran, the path ended)
// does so holding the process lock and then calls notify_node_state_changed();
// whoever waits uses wait_releasing_process_lock(node_state_cv(), ...) with a
// predicate over that state.  One broadcast condition keeps the protocol
// simple: every waiter rechecks its own predicate.
#pragma once

#include <condition_variable>

namespace snanode {

std::condition_variable_any &node_state_cv();
void notify_node_state_changed();

// Whether the calling thread holds the process lock, and how deeply.
bool process_lock_held();
unsigned process_lock_depth();

}  // namespace snanode

// Parts of the test interface that live in other modules (the NOF scripting)
// register here what snt_reset must clear of theirs.
#pragma once

namespace snanode::testing {

// Adds `hook` once (adding the same hook again has no effect); snt_reset runs
// every hook, in the order added, under the process lock.
void add_reset_hook(void (*hook)());

void run_reset_hooks();

}  // namespace snanode::testing

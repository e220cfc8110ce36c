// Puts the node configuration into effect when a process first connects to
// its node: the log directory, the trace flag bytes and the trace file.
#pragma once

namespace snanode::config {

// Loads the configuration (current_config) and applies its log and trace
// settings; the environment still wins where it says something.  A file that
// cannot be used is reported once, on standard error and in the problem log,
// and the function returns false: the node refuses to start rather than guess.
bool apply_node_configuration();

}  // namespace snanode::config

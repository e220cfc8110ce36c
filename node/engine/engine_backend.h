// The engine's place in the node library.
#pragma once

namespace snanode {

// Connects this process's engine to the node daemon, as the configuration
// asks: when one answers at the daemon socket (auto), always (required), or
// never (off).  False when the process cannot use the node: the
// configuration is unusable, or a required daemon does not answer.  Called
// when the first path user registers.
bool connect_engine_to_node();

}  // namespace snanode

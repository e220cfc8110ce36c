// Where the node daemon listens, as both the daemon and its clients find it.
#pragma once

#include <string>

#include "config/node_config.h"

namespace snanode::client {

// The configured socket_path; else $SNANODE_SOCKET; else
// $XDG_RUNTIME_DIR/snanode.sock; else /tmp/snanode-<uid>.sock.
std::string daemon_socket_path(const config::NodeConfig &config);

}  // namespace snanode::client

// The node daemon as the engine sees it.
//
// With a daemon, TPs of other processes are within reach: the engine hands it
// every allocation no TP of this process serves, and tells it which TP names
// this process accepts under and which receive-allocates wait.  The daemon's
// answers (allocation results, attaches) come back through the engine's
// remote_allocated() and remote_attached(), each with this process's end of
// the conversation's socket.  Every call runs under the node's lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/daemon_protocol.h"

namespace snanode::engine {

class RemoteNode {
 public:
  virtual ~RemoteNode() = default;
  virtual void tp_name_added(const std::string &tp_name) = 0;
  virtual void tp_name_removed(const std::string &tp_name) = 0;
  virtual void accept_waiting(uint32_t accept_id, const std::vector<std::string> &tp_names) = 0;
  virtual void accept_ended(uint32_t accept_id) = 0;
  // Sends an allocation; its request id, or 0 when the daemon is gone.
  virtual uint32_t allocate(const client::AllocateRequest &request) = 0;
};

}  // namespace snanode::engine

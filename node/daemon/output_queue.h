// What the daemon has yet to send one client.  Sends never block the
// daemon's thread: a message goes out as far as the socket takes it at once,
// and the rest waits here for the socket to have room.  The queue is bounded,
// so a client that stops reading is cut off instead of growing it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "client/daemon_protocol.h"
#include "client/unique_fd.h"

namespace snanode::daemon {

class OutputQueue {
 public:
  OutputQueue(size_t byte_limit, size_t descriptor_limit);

  enum class Push { kQueued, kFull, kNoDescriptor };
  // Queues a message, with a duplicate of `descriptor` when >= 0.  kFull when
  // it would pass either limit, kNoDescriptor when the daemon has no
  // descriptor left for the duplicate; nothing is queued then.
  Push push(const client::Message &message, int descriptor);

  enum class Flush { kDone, kPending, kBroken };
  // Writes what `socket` takes without waiting: kDone when the queue is
  // empty, kPending when the socket is full, kBroken when the peer is gone.
  Flush flush(int socket);

  bool empty() const { return entries_.empty(); }

 private:
  struct Entry {
    std::vector<uint8_t> bytes;
    client::UniqueFd descriptor;  // sent with the first byte
    size_t sent = 0;
  };
  size_t byte_limit_;
  size_t descriptor_limit_;
  size_t bytes_ = 0;
  size_t descriptors_ = 0;
  std::deque<Entry> entries_;
};

}  // namespace snanode::daemon

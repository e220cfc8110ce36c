// A link over a connected stream socket, for conversation sides in two
// processes (the node daemon hands each side one end of a socketpair, so data
// flows between the processes directly).
//
// Frames are encoded as frame.h describes.  A writer thread sends queued
// frames, so send() never blocks the caller under the node's lock; a reader
// thread decodes arriving frames and hands them to the sink with the lock
// taken through `run_locked`.  End of stream, a read error or undecodable
// bytes count as the peer lost.
#pragma once

#include <functional>
#include <memory>

#include "engine/link.h"

namespace snanode::engine {

using RunLocked = std::function<void(const std::function<void()> &work)>;

// Takes ownership of `fd`.
std::unique_ptr<Link> make_socket_link(int fd, RunLocked run_locked);

}  // namespace snanode::engine

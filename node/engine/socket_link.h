// A Link over a connected stream socket: one conversation half in this
// process, its partner in another (or, in tests, in this one).
//
// Frames travel in the encoding of frame.h.  send() writes a frame at once
// when the socket takes it without blocking, so it is on its way when the verb
// returns (a TP may exit right after its last verb); what the socket cannot
// take yet goes to a writer thread, so send() never blocks on the socket while
// the caller holds the node's lock.  A reader thread decodes inbound frames
// and hands them to the sink under that lock.  The node's lock is the process
// lock unless the link is given another way to take it (`run_locked`, as a
// test of the engine alone does).  Under the process lock, send() also applies
// back-pressure: when the writer's queue passes a limit it waits, with the
// lock released, until the writer catches up.
//
// An orderly close ends the stream with a four-byte zero length, which no
// frame can have; end-of-stream without it (the partner process died, its
// socket broke, it closed abnormally) is reported to the sink as link_lost(),
// once.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "engine/link.h"

namespace snanode::engine {

// Encoded bytes a link may hold unsent before send() waits for the writer.
inline constexpr size_t kSocketLinkQueueLimit = 4u << 20;

// Runs `work` holding the node's lock.
using RunLocked = std::function<void(const std::function<void()> &work)>;

// Takes ownership of `fd`, a connected stream socket.  Without `run_locked`
// the node's lock is the process lock.
std::unique_ptr<Link> make_socket_link(int fd, RunLocked run_locked = nullptr);

// Writes one frame and the orderly end to a socket end that never gets a
// link (an attach the node refused after the allocating side got its end).
// False when the far end is gone.
bool send_final_frame(int fd, const Frame &frame);

}  // namespace snanode::engine

// A Link over a connected stream socket: one conversation half in this
// process, its partner in another (or, in tests, in this one).
//
// Frames travel in the encoding of frame.h.  send() writes a frame at once
// when the socket takes it without blocking; what the socket cannot take yet
// waits in the link's queue for the reactor thread (link_reactor.h), so
// send() never blocks on the socket while the caller holds the node's lock.
// Under the process lock, a sender whose queue passes a limit waits, with the
// lock released, until it is written down (pacing).  The node's lock is the
// process lock unless the link is given another way to take it (`run_locked`,
// as a test of the engine alone does).
//
// Queued output dies with the process, so a link whose conversation has
// ended is written out before the process may go: by the ending verb's thread
// (LinkReader::finish_writing), or, for whatever is left, at exit (atexit).
// Either gives up on a peer that takes nothing for kSocketLinkStallLimit, and
// cuts its stream, so the peer learns the conversation failed.

// An orderly close ends the stream with a four-byte zero length, which no
// frame can have; end-of-stream without it (the partner process died, its
// socket broke, it closed abnormally) is reported to the sink as link_lost(),
// once.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "engine/link.h"

namespace snanode::engine {

// Encoded bytes a link may hold unsent before send() waits for the writer.
inline constexpr size_t kSocketLinkQueueLimit = 4u << 20;

// How long a link whose conversation has ended waits for a peer that takes
// nothing before it gives up writing its output out (see
// LinkReader::finish_writing, and the writing at process exit).
inline constexpr std::chrono::seconds kSocketLinkStallLimit{30};
// Changes that limit for the process (tests).
void set_socket_link_stall_limit(std::chrono::milliseconds limit);

// Runs `work` holding the node's lock.
using RunLocked = std::function<void(const std::function<void()> &work)>;

// Who holds the other end of the socket: the partner's process, or the node
// daemon carrying the conversation to a partner on another node.
//
// A thread asleep in recv(2) on a Unix stream socket is woken, to find
// nothing, each time the other end reads what this end sent (the kernel wakes
// the socket's sleepers for room to write).  Where the other end is the
// daemon, that is every request a TP sends and then waits to hear answered,
// and the daemon, often on the same CPU, is preempted by the TP it woke for
// nothing: on such an end a reader that waits after sending polls for input
// alone before it reads (one that only receives, a stream, goes straight to
// recv(2): the poll would cost a system call per record).  Where the
// partner's process holds the other end, the early wake-up of a TP on an idle
// CPU has measured as a gain (it is up and running when its answer comes), so
// the reader sleeps in recv(2) there.
enum class SocketPeer : uint8_t { kPartner, kNode };

// Takes ownership of `fd`, a connected stream socket.  Without `run_locked`
// the node's lock is the process lock.
std::unique_ptr<Link> make_socket_link(int fd, RunLocked run_locked = nullptr,
                                       SocketPeer peer = SocketPeer::kPartner);

// Writes one frame and the orderly end to a socket end that never gets a
// link (an attach the node refused after the allocating side got its end).
// False when the far end is gone.
bool send_final_frame(int fd, const Frame &frame);

}  // namespace snanode::engine

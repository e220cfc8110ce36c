// The I/O thread of the process's socket links.
//
// One thread waits, with epoll, on the socket of every link of the process
// and tells a link when its socket has become readable or writable.  The
// notification is edge-triggered: a link reads until the socket is empty and
// writes until it is full, and hears again only when that changes.  A link
// asks only for what it needs (input while nobody else reads it, output while
// it has output the socket could not take), so the thread does not wake for
// sockets nobody waits on.  While it is registered, a link is kept alive by
// the reactor, so an event never reaches a link that has gone.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace snanode::engine {

class ReactorEndpoint {
 public:
  virtual ~ReactorEndpoint() = default;
  // `events` holds epoll's EPOLLIN, EPOLLOUT, EPOLLRDHUP, EPOLLHUP and
  // EPOLLERR bits.  Runs on the reactor thread, holding no lock.
  virtual void on_events(uint32_t events) = 0;
};

// Registers `fd`, watched for nothing yet (a hang-up or an error is always
// reported); returns the registration's key, or 0 when it cannot be watched.
uint64_t reactor_register(int fd, std::shared_ptr<ReactorEndpoint> endpoint);

// Sets what the endpoint hears of.  Starting to watch reports a condition
// that already holds (input waiting, room to write), so nothing that happened
// meanwhile goes unnoticed.  The caller serialises the calls for one fd.
void reactor_watch(uint64_t key, int fd, bool input, bool output);

// Stops watching and lets go of the endpoint.  Any thread may call it, the
// reactor thread (inside on_events) included; an event already under way may
// still reach the endpoint once.
void reactor_unregister(uint64_t key, int fd);

// The endpoints registered now, for a last look at process exit.  None in a
// forked child until it registers its own: it never acts on its parent's.
std::vector<std::shared_ptr<ReactorEndpoint>> reactor_endpoints();

}  // namespace snanode::engine

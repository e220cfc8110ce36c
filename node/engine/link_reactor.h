// The I/O thread of the process's socket links.
//
// One thread waits, with epoll, on the socket of every link of the process
// and tells a link when its socket has become readable or writable.  The
// notification is edge-triggered: a link reads until the socket is empty and
// writes until it is full, and hears again only when that changes.  While it
// is registered, a link is kept alive by the reactor, so an event never
// reaches a link that has gone.
#pragma once

#include <cstdint>
#include <memory>

namespace snanode::engine {

class ReactorEndpoint {
 public:
  virtual ~ReactorEndpoint() = default;
  // `events` holds epoll's EPOLLIN, EPOLLOUT, EPOLLRDHUP, EPOLLHUP and
  // EPOLLERR bits.  Runs on the reactor thread, holding no lock.
  virtual void on_events(uint32_t events) = 0;
};

// Watches `fd` for output (and for input too once reactor_watch_input says
// so); returns the registration's key, or 0 when the socket cannot be watched.
uint64_t reactor_register(int fd, std::shared_ptr<ReactorEndpoint> endpoint);

// Starts or stops telling the endpoint about input.  Starting reports input
// that is already waiting, so nothing that came meanwhile goes unnoticed.
void reactor_watch_input(uint64_t key, int fd, bool watch);

// Stops watching and lets go of the endpoint.  Any thread may call it, the
// reactor thread (inside on_events) included; an event already under way may
// still reach the endpoint once.
void reactor_unregister(uint64_t key, int fd);

}  // namespace snanode::engine

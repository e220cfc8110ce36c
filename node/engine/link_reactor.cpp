#include "engine/link_reactor.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace snanode::engine {
namespace {

constexpr int kEventsPerWait = 64;

struct Reactor {
  int epoll_fd = -1;
  std::mutex mutex;
  uint64_t next_key = 1;
  std::unordered_map<uint64_t, std::shared_ptr<ReactorEndpoint>> endpoints;
};

// Never destroyed: links may be closed while static destructors run.  A
// forked child has no reactor thread, so it makes a reactor of its own.
std::atomic<Reactor *> g_reactor{nullptr};

void run(Reactor *reactor) {
  epoll_event events[kEventsPerWait];
  for (;;) {
    const int count = ::epoll_wait(reactor->epoll_fd, events, kEventsPerWait, -1);
    if (count < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (int i = 0; i < count; ++i) {
      std::shared_ptr<ReactorEndpoint> endpoint;
      {
        std::lock_guard<std::mutex> hold(reactor->mutex);
        auto found = reactor->endpoints.find(events[i].data.u64);
        if (found == reactor->endpoints.end()) continue;
        endpoint = found->second;
      }
      endpoint->on_events(events[i].events);
    }
  }
}

Reactor *the_reactor() {
  if (Reactor *reactor = g_reactor.load(std::memory_order_acquire)) return reactor;
  static std::once_flag fork_handler;
  std::call_once(fork_handler,
                 [] { ::pthread_atfork(nullptr, nullptr, [] { g_reactor.store(nullptr); }); });
  auto *made = new Reactor;
  made->epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
  Reactor *expected = nullptr;
  if (made->epoll_fd < 0 || !g_reactor.compare_exchange_strong(expected, made)) {
    if (made->epoll_fd >= 0) ::close(made->epoll_fd);
    delete made;
    return expected;  // another thread made it first, or nothing can be watched
  }
  std::thread(run, made).detach();
  return made;
}

epoll_event watched(uint64_t key, bool input, bool output) {
  epoll_event event{};
  event.events = EPOLLET | (input ? EPOLLIN | EPOLLRDHUP : 0u) | (output ? EPOLLOUT : 0u);
  event.data.u64 = key;
  return event;
}

}  // namespace

uint64_t reactor_register(int fd, std::shared_ptr<ReactorEndpoint> endpoint) {
  Reactor *reactor = the_reactor();
  if (reactor == nullptr) return 0;
  std::lock_guard<std::mutex> hold(reactor->mutex);
  const uint64_t key = reactor->next_key++;
  epoll_event event = watched(key, false, false);
  if (::epoll_ctl(reactor->epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) return 0;
  reactor->endpoints.emplace(key, std::move(endpoint));
  return key;
}

void reactor_watch(uint64_t key, int fd, bool input, bool output) {
  Reactor *reactor = the_reactor();
  if (reactor == nullptr || key == 0) return;
  // Modifying the registration makes epoll look at the socket again, which is
  // what reports a condition that came about while it was not watched.
  epoll_event event = watched(key, input, output);
  ::epoll_ctl(reactor->epoll_fd, EPOLL_CTL_MOD, fd, &event);
}

void reactor_unregister(uint64_t key, int fd) {
  Reactor *reactor = the_reactor();
  if (reactor == nullptr || key == 0) return;
  std::shared_ptr<ReactorEndpoint> released;  // let go of outside the mutex
  std::lock_guard<std::mutex> hold(reactor->mutex);
  auto found = reactor->endpoints.find(key);
  if (found == reactor->endpoints.end()) return;
  ::epoll_ctl(reactor->epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
  released = std::move(found->second);
  reactor->endpoints.erase(found);
}

std::vector<std::shared_ptr<ReactorEndpoint>> reactor_endpoints() {
  std::vector<std::shared_ptr<ReactorEndpoint>> endpoints;
  Reactor *reactor = g_reactor.load(std::memory_order_acquire);  // never made here
  if (reactor == nullptr) return endpoints;
  std::lock_guard<std::mutex> hold(reactor->mutex);
  for (const auto &[key, endpoint] : reactor->endpoints) endpoints.push_back(endpoint);
  return endpoints;
}

}  // namespace snanode::engine

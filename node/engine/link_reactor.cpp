#include "engine/link_reactor.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace snanode::engine {
namespace {

constexpr int kEventsPerWait = 64;

struct Reactor {
  int epoll_fd = -1;
  pid_t pid = 0;  // the process that made it: a forked child needs its own
  std::mutex mutex;
  uint64_t next_key = 1;
  std::unordered_map<uint64_t, std::shared_ptr<ReactorEndpoint>> endpoints;
};

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

// Never destroyed: links may be closed while static destructors run.
Reactor *the_reactor() {
  static std::mutex making;
  static Reactor *reactor = nullptr;
  std::lock_guard<std::mutex> hold(making);
  if (reactor == nullptr || reactor->pid != ::getpid()) {
    auto *made = new Reactor;
    made->epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
    made->pid = ::getpid();
    if (made->epoll_fd < 0) {
      delete made;
      return nullptr;
    }
    std::thread(run, made).detach();
    reactor = made;
  }
  return reactor;
}

epoll_event watched(uint64_t key, bool input) {
  epoll_event event{};
  event.events = EPOLLOUT | EPOLLET | (input ? EPOLLIN | EPOLLRDHUP : 0u);
  event.data.u64 = key;
  return event;
}

}  // namespace

uint64_t reactor_register(int fd, std::shared_ptr<ReactorEndpoint> endpoint) {
  Reactor *reactor = the_reactor();
  if (reactor == nullptr) return 0;
  std::lock_guard<std::mutex> hold(reactor->mutex);
  const uint64_t key = reactor->next_key++;
  epoll_event event = watched(key, false);
  if (::epoll_ctl(reactor->epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) return 0;
  reactor->endpoints.emplace(key, std::move(endpoint));
  return key;
}

void reactor_watch_input(uint64_t key, int fd, bool watch) {
  Reactor *reactor = the_reactor();
  if (reactor == nullptr || key == 0) return;
  // Modifying the registration makes epoll look at the socket again, which is
  // what reports input that came while it was not watched.
  epoll_event event = watched(key, watch);
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

}  // namespace snanode::engine

#include "engine/deadline_timer.h"

namespace snanode::engine {

DeadlineTimer::DeadlineTimer(std::function<void()> on_due)
    : on_due_(std::move(on_due)), thread_([this] { run(); }) {}

DeadlineTimer::~DeadlineTimer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void DeadlineTimer::schedule(Clock::time_point when) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    due_.insert(when);
  }
  changed_.notify_all();
}

void DeadlineTimer::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    if (due_.empty()) {
      changed_.wait(lock);
      continue;
    }
    const auto next = *due_.begin();
    if (Clock::now() < next) {
      changed_.wait_until(lock, next);
      continue;
    }
    // Everything due now is handled by one callback.
    due_.erase(due_.begin(), due_.upper_bound(Clock::now()));
    lock.unlock();
    on_due_();
    lock.lock();
  }
}

}  // namespace snanode::engine

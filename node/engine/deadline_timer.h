// A thread that calls back when a scheduled time has come.
//
// The engine uses it for attaches queued for a TP that has not asked for
// them.  The callback runs on the timer's own thread with no lock held, so it
// must take the node's lock itself; never destroy the timer while holding the
// lock its callback takes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

namespace snanode::engine {

class DeadlineTimer {
 public:
  using Clock = std::chrono::steady_clock;

  explicit DeadlineTimer(std::function<void()> on_due);
  ~DeadlineTimer();
  DeadlineTimer(const DeadlineTimer &) = delete;
  DeadlineTimer &operator=(const DeadlineTimer &) = delete;

  void schedule(Clock::time_point when);

 private:
  void run();

  std::function<void()> on_due_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::multiset<Clock::time_point> due_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace snanode::engine

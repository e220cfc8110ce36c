// A frame sink that records what a link delivers, for the tests of links
// and of what arrives over them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "engine/link.h"

namespace engine_test {

// Records what a link delivers; the test thread waits on it without the
// process lock.
class RecordingSink : public snanode::engine::FrameSink {
 public:
  void on_frame(snanode::engine::Frame &&frame) override {
    std::lock_guard<std::mutex> hold(mutex_);
    frames_.push_back(std::move(frame));
    changed_.notify_all();
  }
  void link_lost() override {
    std::lock_guard<std::mutex> hold(mutex_);
    ++lost_;
    changed_.notify_all();
  }
  // True when `count` frames arrived within the limit.
  bool wait_for_frames(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    std::unique_lock<std::mutex> hold(mutex_);
    return changed_.wait_for(hold, limit, [&] { return frames_.size() >= count; });
  }
  bool wait_for_lost(std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    std::unique_lock<std::mutex> hold(mutex_);
    return changed_.wait_for(hold, limit, [&] { return lost_ > 0; });
  }
  std::vector<snanode::engine::Frame> frames() {
    std::lock_guard<std::mutex> hold(mutex_);
    return frames_;
  }
  int lost() {
    std::lock_guard<std::mutex> hold(mutex_);
    return lost_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<snanode::engine::Frame> frames_;
  int lost_ = 0;
};

}  // namespace engine_test

// Helpers shared by the node core tests.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "snanode/snanode_test.h"

namespace core_test {

// Polls `condition` for up to two seconds; true once it holds.
inline bool eventually(const std::function<bool()> &condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return condition();
}

// True when `condition` stays false for `ms` milliseconds (something that
// must not happen while a thread is held).
inline bool stays_false(const std::function<bool()> &condition, int ms = 100) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return !condition();
}

}  // namespace core_test

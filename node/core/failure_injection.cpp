#include "core/failure_injection.h"

#include <array>
#include <atomic>
#include <cstddef>

namespace snanode {
namespace {

std::array<std::atomic<uint32_t>, static_cast<size_t>(InjectedFailure::kCount)> g_remaining{};

std::atomic<uint32_t> &remaining(InjectedFailure kind) {
  return g_remaining[static_cast<size_t>(kind)];
}

}  // namespace

void inject_failures(InjectedFailure kind, uint32_t n) {
  remaining(kind).store(n);
}

bool take_injected_failure(InjectedFailure kind) {
  std::atomic<uint32_t> &left = remaining(kind);
  uint32_t current = left.load();
  while (current != 0) {
    if (left.compare_exchange_weak(current, current - 1)) return true;
  }
  return false;
}

void clear_injected_failures() {
  for (auto &left : g_remaining) left.store(0);
}

}  // namespace snanode

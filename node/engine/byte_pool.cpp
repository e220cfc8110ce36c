#include "engine/byte_pool.h"

#include <mutex>

namespace snanode::engine {
namespace {

constexpr size_t kMaxPooled = 32;
constexpr size_t kMaxPooledCapacity = 128 * 1024;  // larger ones are rare: freed

struct Pool {
  std::mutex mutex;
  std::vector<std::vector<uint8_t>> buffers;
};

// Never destroyed: frames may still be freed while static destructors run.
Pool &pool() {
  static Pool *instance = new Pool;
  return *instance;
}

}  // namespace

std::vector<uint8_t> take_buffer(size_t size) {
  std::vector<uint8_t> buffer;
  if (size >= kPooledBufferSize) {
    Pool &p = pool();
    std::lock_guard<std::mutex> hold(p.mutex);
    if (!p.buffers.empty() && p.buffers.back().capacity() >= size) {
      buffer = std::move(p.buffers.back());
      p.buffers.pop_back();
    }
  }
  buffer.resize(size);
  return buffer;
}

void give_back_buffer(std::vector<uint8_t> &&buffer) {
  if (buffer.capacity() < kPooledBufferSize || buffer.capacity() > kMaxPooledCapacity) return;
  std::vector<uint8_t> kept = std::move(buffer);
  kept.clear();
  Pool &p = pool();
  std::lock_guard<std::mutex> hold(p.mutex);
  if (p.buffers.size() < kMaxPooled) p.buffers.push_back(std::move(kept));
}

}  // namespace snanode::engine

#include "engine/byte_pool.h"

#include <map>
#include <mutex>

namespace snanode::engine {
namespace {

// Enough for the queue of a link streaming large records (socket_link.h), but
// bounded: a burst of buffers beyond it goes back to the allocator.
constexpr size_t kMaxPooledBytes = 8u << 20;
constexpr size_t kMaxPooledCapacity = 128 * 1024;  // larger ones are rare: freed

struct Pool {
  std::mutex mutex;
  std::multimap<size_t, std::vector<uint8_t>> buffers;  // by capacity
  size_t bytes = 0;                                     // capacity of the buffers held
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
    // The smallest that is large enough.
    if (auto found = p.buffers.lower_bound(size); found != p.buffers.end()) {
      buffer = std::move(found->second);
      p.buffers.erase(found);
      p.bytes -= buffer.capacity();
    }
  }
  buffer.resize(size);
  return buffer;
}

void give_back_buffer(std::vector<uint8_t> &&buffer) {
  if (buffer.capacity() < kPooledBufferSize || buffer.capacity() > kMaxPooledCapacity) return;
  // Kept at its size: a later take of no more bytes only shrinks it, where
  // a cleared vector would be zero-filled again.
  std::vector<uint8_t> kept = std::move(buffer);
  Pool &p = pool();
  std::lock_guard<std::mutex> hold(p.mutex);
  if (p.bytes + kept.capacity() > kMaxPooledBytes) return;
  p.bytes += kept.capacity();
  const size_t capacity = kept.capacity();
  p.buffers.emplace(capacity, std::move(kept));
}

}  // namespace snanode::engine

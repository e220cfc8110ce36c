#include "net/formats/shared_bytes.h"

namespace snanode::net {
namespace {

// Enough for a window of large messages in flight; buffers of more than a
// large BIU's room are not kept, so that the pool never holds much.
constexpr size_t kPooledBuffers = 128;
constexpr size_t kLargestPooled = 128 * 1024;
// Smaller ones are left to the allocator, which keeps them cheaply: in the
// pool they would be handed out for large messages and grown (a fresh
// allocation and a copy each time).
constexpr size_t kSmallestPooled = 4096;
// How many of the latest buffers a request looks through for one that fits.
constexpr size_t kLookedAt = 8;

struct Pool {
  std::vector<Bytes> buffers;
  ~Pool() { gone = true; }
  static thread_local bool gone;  // the thread is ending: free, do not keep
};
thread_local bool Pool::gone = false;

Pool &pool() {
  thread_local Pool instance;
  return instance;
}

}  // namespace

Bytes pooled_buffer(size_t at_least) {
  Bytes buffer;
  if (!Pool::gone) {
    std::vector<Bytes> &buffers = pool().buffers;
    for (size_t i = buffers.size(); i > 0 && i + kLookedAt > buffers.size(); --i) {
      if (buffers[i - 1].capacity() < at_least) continue;
      std::swap(buffers[i - 1], buffers.back());
      buffer = std::move(buffers.back());
      buffers.pop_back();
      break;
    }
  }
  buffer.reserve(at_least);
  return buffer;
}

void recycle_buffer(Bytes &&buffer) {
  if (Pool::gone || buffer.capacity() < kSmallestPooled || buffer.capacity() > kLargestPooled) {
    return;
  }
  std::vector<Bytes> &buffers = pool().buffers;
  if (buffers.size() >= kPooledBuffers) return;
  buffer.clear();
  buffers.push_back(std::move(buffer));
}

Bytes pooled_copy(ByteSpan bytes) {
  Bytes copy = pooled_buffer(bytes.size());
  copy.assign(bytes.begin(), bytes.end());
  return copy;
}

SharedBuffer share_buffer(Bytes &&bytes) {
  return SharedBuffer(new Bytes(std::move(bytes)), [](const Bytes *shared) {
    recycle_buffer(std::move(*const_cast<Bytes *>(shared)));
    delete shared;
  });
}

}  // namespace snanode::net

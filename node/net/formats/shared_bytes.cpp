#include "net/formats/shared_bytes.h"

namespace snanode::net {
namespace {

// Enough for a window of large messages in flight; buffers of more than a
// large BIU's room are not kept, so that the pool never holds much.
constexpr size_t kPooledBuffers = 128;
constexpr size_t kLargestPooled = 128 * 1024;

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

Bytes pooled_buffer() {
  if (Pool::gone) return {};
  std::vector<Bytes> &buffers = pool().buffers;
  if (buffers.empty()) return {};
  Bytes buffer = std::move(buffers.back());
  buffers.pop_back();
  return buffer;
}

void recycle_buffer(Bytes &&buffer) {
  if (Pool::gone || buffer.capacity() == 0 || buffer.capacity() > kLargestPooled) return;
  std::vector<Bytes> &buffers = pool().buffers;
  if (buffers.size() >= kPooledBuffers) return;
  buffer.clear();
  buffers.push_back(std::move(buffer));
}

Bytes pooled_copy(ByteSpan bytes) {
  Bytes copy = pooled_buffer();
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

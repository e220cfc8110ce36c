// Bytes handed down to be sent later without being copied: a span of a buffer
// that no one changes any more, together with a share of its ownership, so
// that the span stays valid for as long as anyone still holds it (a datagram
// queued for the next flush, held back by the impairer, ...) even when the
// layer that made it has let go of it meanwhile.
//
// A buffer whose last share goes returns to its thread's pool for the next
// message: a stream would otherwise allocate a fresh buffer per message, and
// the allocator, handing memory back to the system as the window of
// unacknowledged messages drains, would fault it in again page by page.
#pragma once

#include <memory>

#include "net/formats/byte_io.h"

namespace snanode::net {

using SharedBuffer = std::shared_ptr<const Bytes>;

// An empty buffer with room for `at_least` bytes: one used before when the
// pool has one that large among its latest.
Bytes pooled_buffer(size_t at_least = 0);
// Returns a buffer's room to the pool (or frees it when the pool is full).
void recycle_buffer(Bytes &&buffer);
// A copy of `bytes` in a pooled buffer.
Bytes pooled_copy(ByteSpan bytes);
// `bytes`, shared; its room returns to the pool with the last share.
SharedBuffer share_buffer(Bytes &&bytes);

struct SharedSpan {
  SharedBuffer owner;  // null: empty
  size_t offset = 0;
  size_t size = 0;

  SharedSpan() = default;
  SharedSpan(SharedBuffer buffer, size_t at, size_t count)
      : owner(std::move(buffer)), offset(at), size(count) {}
  explicit SharedSpan(SharedBuffer buffer) : owner(std::move(buffer)) {
    size = owner ? owner->size() : 0;
  }

  ByteSpan bytes() const { return owner ? ByteSpan(*owner).subspan(offset, size) : ByteSpan{}; }
  bool empty() const { return size == 0; }
};

}  // namespace snanode::net

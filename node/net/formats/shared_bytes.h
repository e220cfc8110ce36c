// Bytes handed down to be sent later without being copied: a span of a buffer
// that no one changes any more, together with a share of its ownership, so
// that the span stays valid for as long as anyone still holds it (a datagram
// queued for the next flush, held back by the impairer, ...) even when the
// layer that made it has let go of it meanwhile.
#pragma once

#include <memory>

#include "net/formats/byte_io.h"

namespace snanode::net {

using SharedBuffer = std::shared_ptr<const Bytes>;

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

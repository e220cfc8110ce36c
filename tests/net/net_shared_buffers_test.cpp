// Shared buffers: a span stays valid while any share of its buffer is held,
// and the room of the last share comes back for the next message (a large
// one, or a small one, does not stay with the pool).
#include <gtest/gtest.h>

#include "net/formats/shared_bytes.h"

namespace snanode::net {
namespace {

TEST(NetSharedBuffers, TheLastShareReturnsTheRoomToThePool) {
  while (pooled_buffer().capacity() != 0) {
  }
  Bytes message(32 * 1024, 0x5A);
  const uint8_t *room = message.data();
  SharedBuffer first = share_buffer(std::move(message));
  SharedSpan tail(first, 100, 50);
  first.reset();
  EXPECT_EQ(pooled_buffer().capacity(), 0u);  // the span still holds it
  EXPECT_EQ(tail.bytes().size(), 50u);
  EXPECT_EQ(tail.bytes()[49], 0x5A);
  tail = {};
  Bytes reused = pooled_buffer();
  EXPECT_TRUE(reused.empty());
  EXPECT_EQ(reused.data(), room);
  EXPECT_GE(reused.capacity(), 32u * 1024);

  // A copy made in the pooled room; a buffer too large to keep is freed.
  const Bytes small = {1, 2, 3};
  recycle_buffer(std::move(reused));
  const Bytes copy = pooled_copy(small);
  EXPECT_EQ(copy, small);
  EXPECT_EQ(copy.data(), room);
  share_buffer(Bytes(1024 * 1024)).reset();
  EXPECT_EQ(pooled_buffer().capacity(), 0u);

  // Nor is a small one; a request takes the latest that is large enough,
  // however recently a smaller one came back.
  recycle_buffer(Bytes(1024));
  EXPECT_EQ(pooled_buffer().capacity(), 0u);
  Bytes large(32 * 1024);
  const uint8_t *large_room = large.data();
  recycle_buffer(std::move(large));
  recycle_buffer(Bytes(8 * 1024));
  const Bytes fits = pooled_buffer(20000);
  EXPECT_EQ(fits.data(), large_room);
  EXPECT_EQ(pooled_buffer().capacity(), 8u * 1024);
  EXPECT_GE(pooled_buffer(5000).capacity(), 5000u);  // none left: a new one
}

}  // namespace
}  // namespace snanode::net

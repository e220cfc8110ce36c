// Memory blocks and their accounting per class.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "snanode/snanode.h"
#include "snanode/snanode_test.h"

namespace {

TEST(Memory, BlocksAndBytesAreCountedPerClassUntilFreed) {
  snt_reset();
  const uint32_t blocks_before = snt_blocks_in_use(0);
  const uint64_t bytes_before = snt_bytes_in_use(0);

  void *a = nba_mm_alloc(100, 0x302, nba_blank_name, 0, 0);
  void *b = nba_mm_alloc(28, 0x302, nba_blank_name, 0, 0);
  void *c = nba_mm_alloc(208, 0x202, nba_blank_name, 0, 0);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 16, 0u);
  std::memset(a, 0xAB, 100);  // the whole size is usable
  std::memset(c, 0xCD, 208);

  EXPECT_EQ(snt_blocks_in_use(0x302), 2u);
  EXPECT_EQ(snt_bytes_in_use(0x302), 128u);
  EXPECT_EQ(snt_blocks_in_use(0x202), 1u);
  EXPECT_EQ(snt_bytes_in_use(0x202), 208u);
  EXPECT_EQ(snt_blocks_in_use(0), blocks_before + 3);
  EXPECT_EQ(snt_bytes_in_use(0), bytes_before + 336);

  nba_mm_free(a, 0);
  EXPECT_EQ(snt_blocks_in_use(0x302), 1u);
  EXPECT_EQ(snt_bytes_in_use(0x302), 28u);
  nba_mm_free(b, 0);
  nba_mm_free(c, 0);
  nba_mm_free(nullptr, 0);
  EXPECT_EQ(snt_blocks_in_use(0x302), 0u);
  EXPECT_EQ(snt_blocks_in_use(0x202), 0u);
  EXPECT_EQ(snt_bytes_in_use(0), bytes_before);
  EXPECT_EQ(snt_blocks_in_use(0x999), 0u);
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST(Memory, InjectedFailuresCountDownAndAreNotAccounted) {
  snt_reset();
  snt_fail_allocations(2);
  EXPECT_EQ(nba_mm_alloc(8, 7, nba_blank_name, 0, 0), nullptr);
  EXPECT_EQ(nba_mm_alloc(8, 7, nba_blank_name, 0, 0), nullptr);
  EXPECT_EQ(snt_blocks_in_use(7), 0u);
  void *block = nba_mm_alloc(8, 7, nba_blank_name, 0, 0);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(snt_blocks_in_use(7), 1u);
  nba_mm_free(block, 0);

  snt_fail_allocations(5);
  snt_reset();  // clears the injection
  block = nba_mm_alloc(8, 7, nba_blank_name, 0, 0);
  EXPECT_NE(block, nullptr);
  nba_mm_free(block, 0);
}

TEST(Memory, ForeignBlockIsReportedNotFreed) {
  snt_reset();
  alignas(16) unsigned char storage[64] = {};
  nba_mm_free(storage + 16, 0);
  EXPECT_EQ(snt_assert_count(), 1u);
}

}  // namespace

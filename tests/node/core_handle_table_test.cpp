// Handle tables: handles, order, walks across releases, stale handles.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "core/handle_table.h"
#include "core/rising_id.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"

namespace {

int g_items[8];

std::vector<uint32_t> walk(VTM_TABLE table) {
  std::vector<uint32_t> handles;
  void *pointer = nullptr;
  for (uint32_t h = vtm_get_next_used(table, 0, &pointer); h != 0;
       h = vtm_get_next_used(table, h, &pointer)) {
    handles.push_back(h);
  }
  return handles;
}

TEST(HandleTable, HandlesAreNonzeroMapToTheirPointersAndWalkInOrder) {
  snt_reset();
  VTM_TABLE table = nullptr;
  vtm_table_init(&table, 0);
  ASSERT_NE(table, nullptr);
  std::vector<uint32_t> handles;
  for (int &item : g_items) {
    const uint32_t h = vtm_get_free_entry(table, &item);
    ASSERT_NE(h, 0u);
    handles.push_back(h);
  }
  for (size_t i = 0; i < handles.size(); ++i) {
    EXPECT_EQ(vtm_get_pointer(table, handles[i]), &g_items[i]);
  }
  std::vector<uint32_t> sorted = handles;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(walk(table), sorted);
  EXPECT_EQ(vtm_get_pointer(table, 0), nullptr);
  EXPECT_EQ(vtm_get_pointer(table, sorted.back() + 1), nullptr);
  vtm_table_terminate(&table);
  EXPECT_EQ(table, nullptr);
}

TEST(HandleTable, WalkContinuesFromAHandleJustReleased) {
  snt_reset();
  VTM_TABLE table = nullptr;
  vtm_table_init(&table, 0);
  for (int &item : g_items) vtm_get_free_entry(table, &item);
  // Release every entry while walking, as emptying a table does.
  std::vector<void *> seen;
  void *pointer = nullptr;
  uint32_t h = vtm_get_next_used(table, 0, &pointer);
  while (h != 0) {
    seen.push_back(pointer);
    vtm_release_entry(table, h);
    h = vtm_get_next_used(table, h, &pointer);
  }
  EXPECT_EQ(seen.size(), 8u);
  EXPECT_EQ(pointer, nullptr);
  EXPECT_TRUE(walk(table).empty());
  vtm_table_terminate(&table);
}

TEST(HandleTable, ReleasedHandlesAreNotReusedSoon) {
  snt_reset();
  VTM_TABLE table = nullptr;
  vtm_table_init(&table, 0);
  std::set<uint32_t> issued;
  for (int round = 0; round < 1000; ++round) {
    const uint32_t h = vtm_get_free_entry(table, &g_items[0]);
    ASSERT_TRUE(issued.insert(h).second) << "handle " << h << " reused";
    vtm_release_entry(table, h);
    EXPECT_EQ(vtm_get_pointer(table, h), nullptr);
  }
  vtm_table_terminate(&table);
}

TEST(HandleTable, IdentifiersWrapPastTheTopSkippingZeroAndThoseInUse) {
  const std::set<uint32_t> in_use = {1, 3};
  auto used = [&in_use](uint32_t id) { return in_use.count(id) != 0; };
  uint32_t last = 0xFFFFFFFEu;
  EXPECT_EQ(snanode::next_rising_id(last, used), 0xFFFFFFFFu);
  EXPECT_EQ(snanode::next_rising_id(last, used), 2u);
  EXPECT_EQ(snanode::next_rising_id(last, used), 4u);
}

TEST(HandleTable, FullTableRefusesAndReleasedHandlesWait) {
  snanode::HandleTable table(3);
  uint32_t h = 0;
  for (uint32_t i = 0; i < 3; ++i) h = table.insert(&g_items[i]);
  EXPECT_EQ(h, 3u);
  table.release(2);
  EXPECT_EQ(table.insert(&g_items[3]), 4u);  // 2 is not taken back at once
  EXPECT_EQ(table.insert(&g_items[4]), 0u);  // capacity 3 reached
  EXPECT_EQ(table.size(), 3u);
  void *pointer = nullptr;
  EXPECT_EQ(table.next_used(1, &pointer), 3u);
  EXPECT_EQ(pointer, &g_items[2]);
}

TEST(HandleTable, CapacityAndInjectedFailures) {
  snt_reset();
  VTM_TABLE table = nullptr;
  vtm_table_init(&table, 2);  // a nonzero second argument is the capacity
  EXPECT_NE(vtm_get_free_entry(table, &g_items[0]), 0u);
  const uint32_t second = vtm_get_free_entry(table, &g_items[1]);
  EXPECT_NE(second, 0u);
  EXPECT_EQ(vtm_get_free_entry(table, &g_items[2]), 0u);
  vtm_release_entry(table, second);
  snt_fail_table_inserts(1);
  EXPECT_EQ(vtm_get_free_entry(table, &g_items[2]), 0u);
  EXPECT_NE(vtm_get_free_entry(table, &g_items[2]), 0u);
  vtm_table_terminate(&table);

  snt_fail_table_inits(1);
  VTM_TABLE failed = reinterpret_cast<VTM_TABLE>(1);
  vtm_table_init(&failed, 0);
  EXPECT_EQ(failed, nullptr);
  vtm_table_init(&failed, 0);
  EXPECT_NE(failed, nullptr);
  vtm_table_terminate(&failed);
}

TEST(HandleTable, TerminatedAndNullTablesFailSafely) {
  snt_reset();
  VTM_TABLE table = nullptr;
  vtm_table_init(&table, 0);
  const uint32_t h = vtm_get_free_entry(table, &g_items[0]);
  VTM_TABLE stale = table;
  vtm_table_terminate(&table);

  for (VTM_TABLE gone : {stale, static_cast<VTM_TABLE>(nullptr)}) {
    EXPECT_EQ(vtm_get_free_entry(gone, &g_items[1]), 0u);
    EXPECT_EQ(vtm_get_pointer(gone, h), nullptr);
    vtm_release_entry(gone, h);
    void *pointer = &g_items[0];
    EXPECT_EQ(vtm_get_next_used(gone, 0, &pointer), 0u);
    EXPECT_EQ(pointer, nullptr);
  }
  vtm_table_terminate(&stale);  // terminating twice is harmless
  vtm_table_terminate(nullptr);

  // A new table never answers to the old handle value.
  VTM_TABLE fresh = nullptr;
  vtm_table_init(&fresh, 0);
  EXPECT_NE(fresh, stale);
  vtm_table_terminate(&fresh);
}

}  // namespace

// The process services: the process lock, wait objects, many threads meeting
// in both, handle tables and memory blocks.
#include <algorithm>
#include <atomic>
#include <set>

#include "core/node_monitor.h"
#include "core/rising_id.h"
#include "node/core_test_support.h"

namespace {

// Another thread gets the lock only when the outermost unlock or a sleep
// releases the whole depth, which the sleeper gets back.
TEST(ProcessLock, NestsAndOnlyTheOutermostUnlockOrASleepLetsOthersIn) {
  snt_reset();
  void *object = vpm_allocate_wait_object();
  for (uint16_t depth : {1, 2, 3}) EXPECT_EQ(vpm_lock(), depth);
  std::atomic<bool> other_in{false};
  std::thread other([&] {
    const uint16_t token = vpm_lock();
    other_in = true;
    vpm_wakeup(object);
    vpm_unlock(token);
  });
  vpm_unlock(3);
  EXPECT_FALSE(core_test::eventually([&] { return other_in.load(); }, 100));
  EXPECT_EQ(vpm_sleep(object, VPM_SLEEP_FOREVER), 0u);
  EXPECT_EQ(snanode::process_lock_depth(), 2u);
  other.join();
  EXPECT_EQ(vpm_sleep(object, 20), 1u);  // a time-out gives the depth back too
  EXPECT_EQ(snanode::process_lock_depth(), 2u);
  vpm_unlock(2);
  vpm_unlock(1);
  std::thread([] { vpm_unlock(vpm_lock()); }).join();
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST(ProcessLock, MisuseIsReportedAndNeverReleasesAnotherThreadsLock) {
  snt_reset();
  const uint16_t first = vpm_lock();
  vpm_lock();
  vpm_unlock(first);  // out of order: reported, one level still released
  EXPECT_EQ(snt_assert_count(), 1u);
  EXPECT_EQ(snanode::process_lock_depth(), 1u);
  std::thread([] { vpm_unlock(1); }).join();  // not the holder: reported, ignored
  EXPECT_EQ(snt_assert_count(), 2u);
  EXPECT_EQ(snanode::process_lock_depth(), 1u);
  vpm_unlock(1);
  EXPECT_FALSE(snanode::process_lock_held());
}

// vpm_sleep answers 0 when woken, 1 on time-out, 2 without a (live) object.
TEST(WaitObject, WakeupsBeforeSleepAreCountedPerObjectNotLost) {
  snt_reset();
  snt_refuse_wait_objects(1);
  EXPECT_EQ(vpm_allocate_wait_object(), nullptr);
  void *object = vpm_allocate_wait_object();
  void *other = vpm_allocate_wait_object();
  ASSERT_TRUE(object && other);
  vpm_wakeup(object);
  vpm_wakeup(object);
  EXPECT_EQ((std::tuple{vpm_sleep(other, 0), vpm_sleep(object, 0), vpm_sleep(object, 0)}),
            std::tuple(1u, 0u, 0u));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(vpm_sleep(object, 40), 1u);  // both wake-ups used up
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
}

TEST(WaitObject, ReleaseWakesSleepersAndStaleHandlesFailSafely) {
  snt_reset();
  void *object = vpm_allocate_wait_object();
  std::atomic<int> result{-1};
  std::thread sleeper([&] { result = static_cast<int>(vpm_sleep(object, VPM_SLEEP_FOREVER)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));  // inside vpm_sleep by now
  vpm_release_wait_object(object);
  sleeper.join();
  EXPECT_EQ(result.load(), 2);
  vpm_wakeup(object);  // stale: ignored
  EXPECT_EQ(vpm_sleep(object, VPM_SLEEP_FOREVER), 2u);
  vpm_release_wait_object(object);
  vpm_release_wait_object(nullptr);
  EXPECT_EQ(vpm_sleep(nullptr, VPM_SLEEP_FOREVER), 2u);
}

constexpr int kThreads = 4;
constexpr int kVerbs = 40;  // per thread
struct Slot {
  alignas(8) uint8_t vcb[NAP_VCB_SIZE] = {};
  int runs = 0;  // written under the process lock
} g_slots[kThreads][kVerbs];
void *g_wait_object = nullptr;
int g_inside = 0;  // holders of the process lock doing "work"; must stay <= 1
std::atomic<int> g_overlaps{0};

// Plays the library's part: touches shared state that only the lock protects.
void exclusive_work() {
  if (++g_inside != 1) ++g_overlaps;
  std::this_thread::yield();
  --g_inside;
}

void counting_routine(void *, uint32_t, uint32_t, uintptr_t slot) {
  exclusive_work();
  ++reinterpret_cast<Slot *>(slot)->runs;
  vpm_wakeup(g_wait_object);
}

// Every other verb completes later, on the completion thread; the rest at
// once.  No completion may be lost, run twice or run beside another holder of
// the lock, and each thread collects its own the way CMWAIT does.
TEST(Concurrency, EveryCompletionRunsOnceAndWakesItsWaiter) {
  snt_reset();
  snt_script_verbs(1);
  g_wait_object = vpm_allocate_wait_object();
  std::atomic<int> collected{0};
  std::vector<std::thread> submitters;
  for (Slot(&mine)[kVerbs] : g_slots) {
    submitters.emplace_back([&mine, &collected] {
      for (int i = 0; i < kVerbs; ++i) {
        const uint16_t token = vpm_lock();
        exclusive_work();
        if (i % 2 == 0) core_test::push_script(NAP_FLUSH, AP_OK, 0, 1);
        const uint16_t opcode = i % 2 == 0 ? NAP_FLUSH : NAP_GET_STATE;
        std::memcpy(mine[i].vcb, &opcode, 2);
        const auto slot = reinterpret_cast<uintptr_t>(&mine[i]);
        if (appc_c_async_version(2, mine[i].vcb, counting_routine, slot) == AP_ASYNC_COMPLETED)
          ++mine[i].runs;  // the caller runs it itself
        exclusive_work();
        vpm_unlock(token);
      }
      const uint16_t token = vpm_lock();
      while (!std::all_of(mine, mine + kVerbs, [](const Slot &slot) { return slot.runs != 0; }))
        vpm_sleep(g_wait_object, 50);
      vpm_unlock(token);
      ++collected;
    });
  }
  std::thread completer([&collected] {
    while (collected.load() < kThreads) {
      if (snt_pending_count() == 0 || snt_complete_pending(0) == 0) std::this_thread::yield();
    }
  });
  for (auto &s : submitters) s.join();
  completer.join();
  for (const auto &mine : g_slots) {
    for (const Slot &slot : mine) ASSERT_EQ(slot.runs, 1) << &slot - &g_slots[0][0];
  }
  EXPECT_EQ(g_overlaps.load(), 0);
  EXPECT_EQ(snt_submitted_count(), static_cast<uint32_t>(kThreads * kVerbs));
}

int g_items[8];

TEST(HandleTable, HandlesMapAndWalkInOrderWhileReleasedAndAreNotReusedSoon) {
  snt_reset();
  VTM_TABLE table = nullptr;
  vtm_table_init(&table, 0);
  uint32_t last = 0;
  for (int &item : g_items) {
    const uint32_t h = vtm_get_free_entry(table, &item);
    EXPECT_GT(h, last);
    EXPECT_EQ(vtm_get_pointer(table, h), &item);
    last = h;
  }
  EXPECT_EQ(vtm_get_pointer(table, 0), nullptr);
  EXPECT_EQ(vtm_get_pointer(table, last + 1), nullptr);
  size_t used = 0;  // a plain walk sees each entry once
  for (uint32_t h = vtm_get_next_used(table, 0, nullptr); h != 0 && used <= 8;
       h = vtm_get_next_used(table, h, nullptr))
    ++used;
  EXPECT_EQ(used, 8u);
  // Release every entry while walking, as emptying a table does: the walk
  // continues from a handle just released.
  size_t seen = 0;
  void *pointer = nullptr;
  for (uint32_t h = vtm_get_next_used(table, 0, &pointer); h != 0;
       h = vtm_get_next_used(table, h, &pointer)) {
    EXPECT_EQ(pointer, &g_items[seen++]);
    vtm_release_entry(table, h);
  }
  EXPECT_EQ(seen, 8u);
  EXPECT_EQ(vtm_get_next_used(table, 0, &pointer), 0u);
  std::set<uint32_t> issued;
  for (int round = 0; round < 1000; ++round) {
    const uint32_t h = vtm_get_free_entry(table, &g_items[0]);
    ASSERT_TRUE(issued.insert(h).second) << "handle " << h << " reused";
    vtm_release_entry(table, h);
    EXPECT_EQ(vtm_get_pointer(table, h), nullptr);
  }
  vtm_table_terminate(&table);
  // Past the top the counter wraps, never to 0 nor to an identifier in use.
  uint32_t top = 0xFFFFFFFEu;
  auto in_use = [](uint32_t id) { return id == 1 || id == 3; };
  EXPECT_EQ(snanode::next_rising_id(top, in_use), 0xFFFFFFFFu);
  EXPECT_EQ(snanode::next_rising_id(top, in_use), 2u);
  EXPECT_EQ(snanode::next_rising_id(top, in_use), 4u);
}

TEST(HandleTable, CapacityAndTerminatedTables) {
  snt_reset();
  VTM_TABLE table = nullptr;
  vtm_table_init(&table, 2);  // a nonzero second argument is the capacity
  EXPECT_NE(vtm_get_free_entry(table, &g_items[0]), 0u);
  const uint32_t h = vtm_get_free_entry(table, &g_items[1]);
  EXPECT_NE(h, 0u);
  EXPECT_EQ(vtm_get_free_entry(table, &g_items[2]), 0u);
  vtm_release_entry(table, h);
  EXPECT_NE(vtm_get_free_entry(table, &g_items[2]), 0u);
  // Terminated (also twice) and null tables fail safely; a new table never
  // answers to an old handle value.
  VTM_TABLE stale = table, twice = table, fresh = nullptr;
  vtm_table_terminate(&table);
  vtm_table_terminate(&twice);
  EXPECT_EQ(table, nullptr);
  vtm_table_init(&fresh, 0);
  EXPECT_NE(fresh, stale);
  for (VTM_TABLE gone : {stale, VTM_TABLE{}}) {
    EXPECT_EQ(vtm_get_free_entry(gone, &g_items[1]), 0u);
    EXPECT_EQ(vtm_get_pointer(gone, h), nullptr);
    vtm_release_entry(gone, h);
    void *pointer = &g_items[0];
    EXPECT_EQ(vtm_get_next_used(gone, 0, &pointer), 0u);
    EXPECT_EQ(pointer, nullptr);
  }
  vtm_table_terminate(&fresh);
}

// Blocks are counted per class until freed; a block the node did not hand
// out is reported and left alone; injected failures count down.
TEST(Memory, BlocksAreCountedPerClassAndForeignOnesAreRefused) {
  snt_reset();
  void *a = nba_mm_alloc(100, 0x302, nba_blank_name, 0, 0),
       *b = nba_mm_alloc(28, 0x302, nba_blank_name, 0, 0);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 16, 0u);
  std::memset(a, 0xAB, 100);  // the whole size is usable
  EXPECT_EQ(snt_blocks_in_use(0x302), 2u);
  nba_mm_free(a, 0);
  EXPECT_EQ(snt_blocks_in_use(0x302), 1u);
  nba_mm_free(b, 0);
  nba_mm_free(nullptr, 0);
  EXPECT_EQ(snt_blocks_in_use(0x302), 0u);
  EXPECT_EQ(snt_assert_count(), 0u);
  alignas(16) unsigned char storage[64] = {};
  nba_mm_free(storage + 16, 0);
  EXPECT_EQ(snt_assert_count(), 1u);
  snt_fail_allocations(1);
  EXPECT_EQ(nba_mm_alloc(8, 7, nba_blank_name, 0, 0), nullptr);
  void *block = nba_mm_alloc(8, 7, nba_blank_name, 0, 0);
  EXPECT_EQ(snt_blocks_in_use(7), 1u);
  nba_mm_free(block, 0);
}

}  // namespace

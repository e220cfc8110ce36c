// Many threads at once through the dispatcher and wait objects, the way
// several application threads and the completion thread meet in a process:
// no completion is lost, run twice or run beside another holder of the lock.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "core/process_lock.h"
#include "node/core_test_support.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"
#include "snanode/verbs.h"

namespace {

using core_test::eventually;

constexpr int kThreads = 4;
constexpr int kVerbsPerThread = 40;

struct Slot {
  alignas(8) uint8_t vcb[NAP_VCB_SIZE] = {};
  int runs = 0;  // written by the routine under the process lock
};

std::vector<Slot> g_slots(kThreads *kVerbsPerThread);
void *g_wait_object = nullptr;
int g_inside = 0;  // holders of the process lock doing "work"; must stay <= 1
std::atomic<int> g_overlaps{0};

// Plays the library's part: touches shared state that only the lock protects.
void exclusive_work() {
  if (++g_inside != 1) ++g_overlaps;
  std::this_thread::yield();
  --g_inside;
}

void counting_routine(void *, uint32_t, uint32_t, uintptr_t correlator) {
  exclusive_work();
  ++g_slots[correlator].runs;
  vpm_wakeup(g_wait_object);
}

TEST(Concurrency, EveryCompletionRunsOnceAndWakesItsWaiter) {
  snt_reset();
  snt_script_verbs(1);
  g_wait_object = vpm_allocate_wait_object();
  ASSERT_NE(g_wait_object, nullptr);

  std::atomic<int> collected{0};
  std::vector<std::thread> submitters;
  for (int t = 0; t < kThreads; ++t) {
    submitters.emplace_back([t, &collected] {
      for (int i = 0; i < kVerbsPerThread; ++i) {
        const size_t n = static_cast<size_t>(t * kVerbsPerThread + i);
        const uint16_t token = vpm_lock();
        exclusive_work();
        // Every other verb completes later; the rest at once, or blocking.
        const SNT_VERB_SCRIPT later = {NAP_FLUSH, AP_OK, 0, 1, nullptr, nullptr};
        if (i % 2 == 0) snt_push_verb_script(&later);
        const uint16_t opcode = i % 2 == 0 ? NAP_FLUSH : NAP_GET_STATE;
        std::memcpy(g_slots[n].vcb, &opcode, 2);
        const uint32_t answer = appc_c_async_version(2, g_slots[n].vcb, counting_routine, n);
        if (answer == AP_ASYNC_COMPLETED) ++g_slots[n].runs;  // the caller runs it itself
        exclusive_work();
        vpm_unlock(token);
      }
      // Collect this thread's completions the way CMWAIT does.
      const uint16_t token = vpm_lock();
      for (;;) {
        int done = 0;
        for (int i = 0; i < kVerbsPerThread; ++i) done += g_slots[t * kVerbsPerThread + i].runs;
        if (done == kVerbsPerThread) break;
        vpm_sleep(g_wait_object, 50);
      }
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

  for (size_t n = 0; n < g_slots.size(); ++n) ASSERT_EQ(g_slots[n].runs, 1) << n;
  EXPECT_EQ(g_overlaps.load(), 0);
  EXPECT_EQ(snt_pending_count(), 0u);
  EXPECT_EQ(snt_submitted_count(), static_cast<uint32_t>(kThreads * kVerbsPerThread));
  vpm_release_wait_object(g_wait_object);
}

}  // namespace

// The process lock as a re-entrant monitor.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/node_monitor.h"
#include "core/process_lock.h"
#include "node/core_test_support.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"

namespace {

using core_test::eventually;
using core_test::stays_false;

TEST(ProcessLock, SameThreadNestsAndOtherThreadsWaitForTheOutermostUnlock) {
  snt_reset();
  const uint16_t outer = vpm_lock();
  const uint16_t inner = vpm_lock();
  EXPECT_EQ(outer, 1);
  EXPECT_EQ(inner, 2);
  EXPECT_EQ(snanode::process_lock_depth(), 2u);

  std::atomic<bool> other_has_lock{false};
  std::thread other([&] {
    const uint16_t token = vpm_lock();
    other_has_lock = true;
    vpm_unlock(token);
  });
  EXPECT_TRUE(stays_false([&] { return other_has_lock.load(); }));
  vpm_unlock(inner);
  EXPECT_TRUE(stays_false([&] { return other_has_lock.load(); }));
  vpm_unlock(outer);
  EXPECT_TRUE(eventually([&] { return other_has_lock.load(); }));
  other.join();
  EXPECT_FALSE(snanode::process_lock_held());
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST(ProcessLock, MisuseIsReportedAndDoesNotReleaseAnotherThreadsLock) {
  snt_reset();
  vpm_unlock(1);  // never locked
  EXPECT_EQ(snt_assert_count(), 1u);

  const uint16_t first = vpm_lock();
  const uint16_t second = vpm_lock();
  vpm_unlock(first);  // out of order: reported, one level still released
  EXPECT_EQ(snt_assert_count(), 2u);
  EXPECT_EQ(snanode::process_lock_depth(), 1u);
  EXPECT_EQ(second, 2);
  vpm_unlock(1);
  EXPECT_FALSE(snanode::process_lock_held());
}

TEST(ProcessLock, WaitReleasesTheWholeDepthAndRestoresIt) {
  snt_reset();
  bool ready = false;  // guarded by the process lock
  std::atomic<bool> other_ran{false};
  const uint16_t outer = vpm_lock();
  const uint16_t inner = vpm_lock();
  std::thread other([&] {
    snanode::ProcessLockGuard guard;  // only possible while the waiter has released
    other_ran = true;
    ready = true;
    snanode::notify_node_state_changed();
  });
  const bool satisfied = snanode::wait_releasing_process_lock(
      snanode::node_state_cv(), std::chrono::milliseconds(-1), [&] { return ready; });
  EXPECT_TRUE(satisfied);
  EXPECT_TRUE(other_ran);
  EXPECT_EQ(snanode::process_lock_depth(), 2u);
  vpm_unlock(inner);
  vpm_unlock(outer);
  other.join();
}

TEST(ProcessLock, WaitTimesOutWithTheLockRetaken) {
  snt_reset();
  snanode::ProcessLockGuard guard;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(snanode::wait_releasing_process_lock(
      snanode::node_state_cv(), std::chrono::milliseconds(30), [] { return false; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  EXPECT_EQ(snanode::process_lock_depth(), 1u);
}

}  // namespace

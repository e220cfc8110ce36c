// Wait objects: counted wake-ups, time-outs, release while in use.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/node_monitor.h"
#include "node/core_test_support.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"

namespace {

using core_test::eventually;

TEST(WaitObject, WakeupsBeforeSleepAreCountedNotLost) {
  snt_reset();
  void *object = vpm_allocate_wait_object();
  ASSERT_NE(object, nullptr);
  vpm_wakeup(object);
  vpm_wakeup(object);
  EXPECT_EQ(vpm_sleep(object, 0), 0u);
  EXPECT_EQ(vpm_sleep(object, 0), 0u);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_NE(vpm_sleep(object, 40), 0u);  // both wake-ups used up
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
  vpm_release_wait_object(object);
}

TEST(WaitObject, SleeperHoldingTheLockLetsTheWakerIn) {
  snt_reset();
  void *object = vpm_allocate_wait_object();
  const uint16_t token = vpm_lock();
  std::thread waker([object] {
    const uint16_t t = vpm_lock();  // the sleeper must have released the lock
    vpm_wakeup(object);
    vpm_unlock(t);
  });
  EXPECT_EQ(vpm_sleep(object, VPM_SLEEP_FOREVER), 0u);
  EXPECT_TRUE(snanode::process_lock_held());
  vpm_unlock(token);
  waker.join();
  vpm_release_wait_object(object);
}

TEST(WaitObject, ReleaseWakesSleepersAndStaleHandlesFailSafely) {
  snt_reset();
  void *object = vpm_allocate_wait_object();
  std::atomic<int> result{-1};
  std::thread sleeper([&] { result = static_cast<int>(vpm_sleep(object, VPM_SLEEP_FOREVER)); });
  // Released while the sleeper is inside vpm_sleep: it returns, unwoken.
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  vpm_release_wait_object(object);
  EXPECT_TRUE(eventually([&] { return result.load() != -1; }));
  sleeper.join();
  EXPECT_NE(result.load(), 0);

  vpm_wakeup(object);  // stale: ignored
  EXPECT_NE(vpm_sleep(object, VPM_SLEEP_FOREVER), 0u);
  vpm_release_wait_object(object);
  vpm_release_wait_object(nullptr);
  EXPECT_NE(vpm_sleep(nullptr, VPM_SLEEP_FOREVER), 0u);
}

TEST(WaitObject, RefusalsAreInjectedOneAtATime) {
  snt_reset();
  snt_refuse_wait_objects(2);
  EXPECT_EQ(vpm_allocate_wait_object(), nullptr);
  EXPECT_EQ(vpm_allocate_wait_object(), nullptr);
  void *a = vpm_allocate_wait_object();
  void *b = vpm_allocate_wait_object();
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  vpm_wakeup(a);  // objects are independent
  EXPECT_NE(vpm_sleep(b, 0), 0u);
  EXPECT_EQ(vpm_sleep(a, 0), 0u);
  vpm_release_wait_object(a);
  vpm_release_wait_object(b);
}

}  // namespace

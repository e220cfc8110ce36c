// Path users and the order of a path end.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/node_monitor.h"
#include "core/path.h"
#include "node/core_test_support.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"
#include "snanode/verbs.h"

namespace {

using core_test::eventually;

std::mutex g_events_mutex;
std::vector<std::string> g_events;

void note(const std::string &event) {
  std::lock_guard<std::mutex> hold(g_events_mutex);
  g_events.push_back(event);
}

std::vector<std::string> events() {
  std::lock_guard<std::mutex> hold(g_events_mutex);
  return g_events;
}

class PathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    snt_reset();
    snt_script_verbs(1);
    std::lock_guard<std::mutex> hold(g_events_mutex);
    g_events.clear();
  }
};

int noting_path_routine(void *context, VPM_PATH_EVENT *event) {
  note("path type=" + std::to_string(event->type) +
       " context=" + std::to_string(reinterpret_cast<uintptr_t>(context)) +
       " locked=" + std::to_string(snanode::process_lock_held()) +
       " pending=" + std::to_string(snt_pending_count()));
  event->result = 0;
  return 0;
}

TEST_F(PathTest, RegistrationsGetDistinctNonzeroIdsAndCanBeRefused) {
  uint32_t a = 0;
  uint32_t b = 0;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &a);
  vpm_init_path_user(0, 0, noting_path_routine, 0, &b);
  EXPECT_NE(a, 0u);
  EXPECT_NE(b, 0u);
  EXPECT_NE(a, b);
  EXPECT_EQ(snt_path_users(), 2u);
  vpm_terminate_path_user(a);
  vpm_terminate_path_user(a);  // twice: no effect
  EXPECT_EQ(snt_path_users(), 1u);

  snt_fail_path_registrations(1);
  uint32_t refused = 99;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &refused);
  EXPECT_EQ(refused, 0u);
  EXPECT_EQ(snt_path_users(), 1u);
  uint32_t again = 0;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &again);
  EXPECT_NE(again, 0u);
  EXPECT_NE(again, a);  // not handed out again at once
  vpm_init_path_user(0, 0, noting_path_routine, 0, nullptr);
  EXPECT_EQ(snt_path_users(), 2u);
}

int g_connects = 0;
bool g_connect_answer = false;

bool counting_connector() {
  ++g_connects;
  return g_connect_answer;
}

TEST_F(PathTest, FirstRegistrationConnectsToTheNodeAgainAfterEachPathEnd) {
  snanode::set_path_connector(counting_connector);
  uint32_t a = 0;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &a);  // node refuses
  EXPECT_EQ(a, 0u);
  g_connect_answer = true;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &a);
  uint32_t b = 0;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &b);  // already connected
  EXPECT_NE(a, 0u);
  EXPECT_NE(b, 0u);
  EXPECT_EQ(g_connects, 2);
  snt_end_path();
  uint32_t c = 0;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &c);
  EXPECT_NE(c, 0u);
  EXPECT_EQ(g_connects, 3);
  snanode::set_path_connector(nullptr);
}

void verb_routine(void *vcb, uint32_t, uint32_t, uintptr_t) {
  note("routine primary=" + std::to_string(static_cast<NAP_HDR *>(vcb)->primary_rc));
}

TEST_F(PathTest, OutstandingVerbsFailAndCallersReturnBeforePathRoutinesRun) {
  uint32_t id = 0;
  vpm_init_path_user(0, 0, noting_path_routine, 5, &id);
  const SNT_VERB_SCRIPT later = {0, AP_OK, 0, 1, nullptr, nullptr};
  snt_push_verb_script(&later);
  snt_push_verb_script(&later);

  NAP_HDR async_vcb[9] = {};  // 216 bytes: a whole verb record
  async_vcb[0].opcode = NAP_RECEIVE_AND_WAIT;
  ASSERT_EQ(appc_c_async_version(2, async_vcb, verb_routine, 1), AP_ASYNC_IN_PROGRESS);

  NAP_HDR blocking_vcb[9] = {};
  blocking_vcb[0].opcode = NAP_CONFIRM;
  std::thread caller([&] {
    const uint16_t token = vpm_lock();  // a library call in progress
    appc_c_async_version(2, blocking_vcb, nullptr, 0);
    note("caller primary=" + std::to_string(blocking_vcb[0].primary_rc));
    // Still inside its call: the path routine must wait for the unlock.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    note("caller unlocks");
    vpm_unlock(token);
  });
  ASSERT_TRUE(eventually([] { return snt_pending_count() == 2; }));

  snt_end_path();
  caller.join();

  const auto seen = events();
  ASSERT_EQ(seen.size(), 4u);
  const std::string path_line = "path type=32769 context=5 locked=1 pending=0";
  EXPECT_EQ(seen.back(), path_line);
  EXPECT_NE(std::find(seen.begin(), seen.end(), "routine primary=" + std::to_string(0x04F0)),
            seen.end());
  EXPECT_NE(std::find(seen.begin(), seen.end(), "caller primary=" + std::to_string(0x04F0)),
            seen.end());
  // The path routine is last: after the failed verb's routine and after the
  // caller has left its call (the two may come in either order).
  EXPECT_NE(std::find(seen.begin(), seen.end(), "caller unlocks"), seen.end());
  EXPECT_EQ(snt_path_users(), 0u);  // registrations end with the path

  // The node is usable again once the path has ended.
  NAP_HDR after[9] = {};
  after[0].opcode = NAP_FLUSH;
  appc_c_version(2, after);
  EXPECT_EQ(after[0].primary_rc, AP_OK);
}

std::atomic<uint16_t> g_primary_during_end{0};
uint32_t g_reregistered = 0;

int resubmitting_path_routine(void *, VPM_PATH_EVENT *event) {
  NAP_HDR vcb[9] = {};
  vcb[0].opcode = NAP_FLUSH;
  appc_c_version(2, vcb);
  g_primary_during_end = vcb[0].primary_rc;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &g_reregistered);
  event->result = 0;
  return 0;
}

TEST_F(PathTest, VerbsDuringThePathEndFailAndNewRegistrationsSurviveIt) {
  uint32_t id = 0;
  vpm_init_path_user(0, 0, resubmitting_path_routine, 0, &id);
  snt_end_path();
  EXPECT_EQ(g_primary_during_end.load(), AP_COMM_SUBSYSTEM_ABENDED);
  EXPECT_NE(g_reregistered, 0u);
  EXPECT_EQ(snt_path_users(), 1u);
  snt_end_path();  // the new registration sees the next path end
  EXPECT_EQ(events().size(), 1u);
}

void *g_library_wait_object = nullptr;

int releasing_path_routine(void *, VPM_PATH_EVENT *) {
  vpm_release_wait_object(g_library_wait_object);  // as the library takes itself down
  note("released");
  return 0;
}

TEST_F(PathTest, WaitObjectReleasedByThePathRoutineIsSafeForItsSleeper) {
  g_library_wait_object = vpm_allocate_wait_object();
  uint32_t id = 0;
  vpm_init_path_user(0, 0, releasing_path_routine, 0, &id);
  std::atomic<int> slept{-1};
  std::thread waiter([&] {
    const uint16_t token = vpm_lock();
    slept = static_cast<int>(vpm_sleep(g_library_wait_object, VPM_SLEEP_FOREVER));
    vpm_unlock(token);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  snt_end_path();
  EXPECT_TRUE(eventually([&] { return slept.load() != -1; }));
  waiter.join();
  EXPECT_NE(slept.load(), 0);
  EXPECT_EQ(events(), std::vector<std::string>{"released"});
}

void path_ending_routine(void *, uint32_t, uint32_t, uintptr_t) {
  snt_end_path();  // cannot wait here: the path routines run on this thread
  note("routine returned");
}

TEST_F(PathTest, PathEndedFromACompletionRoutineRunsAfterIt) {
  uint32_t id = 0;
  vpm_init_path_user(0, 0, noting_path_routine, 0, &id);
  const SNT_VERB_SCRIPT later = {0, AP_OK, 0, 1, nullptr, nullptr};
  snt_push_verb_script(&later);
  NAP_HDR vcb[9] = {};
  vcb[0].opcode = NAP_FLUSH;
  ASSERT_EQ(appc_c_async_version(2, vcb, path_ending_routine, 1), AP_ASYNC_IN_PROGRESS);
  EXPECT_EQ(snt_complete_pending(0), 1);
  ASSERT_TRUE(eventually([] { return events().size() == 2; }));
  EXPECT_EQ(events()[0], "routine returned");
  EXPECT_EQ(events()[1].rfind("path type=32769", 0), 0u);
}

}  // namespace

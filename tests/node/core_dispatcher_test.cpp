// The APPC dispatcher with the scripted node (immediate and later
// completions, blocking waits, the completion thread, scripts and defaults)
// and the path end that takes all of it down.
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "core/path.h"
#include "core/node_monitor.h"
#include "core/process_lock.h"
#include "node/core_test_support.h"

namespace {

using core_test::eventually;
using core_test::push_script;
using core_test::Vcb;
using std::to_string;

// What completion and path routines saw, noted from any thread.
std::mutex g_mutex;
std::vector<std::string> g_events;
const std::thread::id g_test_thread = std::this_thread::get_id();

void note(const std::string &event) {
  std::lock_guard<std::mutex> hold(g_mutex);
  g_events.push_back(event);
}
std::vector<std::string> events() {
  std::lock_guard<std::mutex> hold(g_mutex);
  return g_events;
}

void record_routine(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  const NAP_HDR *hdr = static_cast<NAP_HDR *>(vcb);
  note("routine " + to_string(correlator) + " conv=" + to_string(hdr->conv_id) + " primary=" +
       to_string(hdr->primary_rc) + " locked=" + to_string(snanode::process_lock_held()) +
       (std::this_thread::get_id() == g_test_thread ? " on the test thread" : ""));
}

bool nothing_noted() {
  return !eventually([] { return !events().empty(); }, 50);
}

class Dispatcher : public ::testing::Test {
 protected:
  void SetUp() override {
    snt_reset();
    snt_script_verbs(1);
  }
};

void fill_conv_id(void *vcb, void *context) {
  static_cast<NAP_HDR *>(vcb)->conv_id = *static_cast<uint32_t *>(context);
}

// An answer given at once carries the verb's script (or success), written
// over whatever the record held, and never runs the routine.
TEST_F(Dispatcher, ImmediateAnswersCarryTheScriptAndSkipTheRoutine) {
  uint32_t conv_id = 0xABCD;
  push_script(NAP_FLUSH, AP_STATE_CHECK, 3);
  push_script(NAP_B_ALLOCATE, AP_OK, 0, 0, fill_conv_id, &conv_id);
  Vcb send(NAP_SEND_DATA), flush(NAP_FLUSH), alloc(NAP_B_ALLOCATE);
  send.hdr()->primary_rc = 0x7777;  // stale value from an earlier verb
  for (Vcb *v : {&send, &flush, &alloc}) {
    EXPECT_EQ(appc_c_async_version(2, v->bytes, record_routine, 1), AP_ASYNC_COMPLETED);
  }
  // The fill runs after the defaults.
  EXPECT_EQ(std::tuple(send.hdr()->primary_rc, flush.hdr()->primary_rc, flush.hdr()->secondary_rc,
                       alloc.hdr()->conv_id),
            std::tuple(AP_OK, AP_STATE_CHECK, 3u, 0xABCDu));
  // appc_c_version never leaves a verb pending, whatever the script says.
  push_script(NAP_CONFIRM, AP_DEALLOC_NORMAL, 0, 1);
  Vcb confirm(NAP_CONFIRM);
  appc_c_version(2, confirm.bytes);
  EXPECT_EQ(confirm.hdr()->primary_rc, AP_DEALLOC_NORMAL);
  EXPECT_EQ(snt_pending_count(), 0u);
  appc_c_version(1, confirm.bytes);  // only version 2 is served
  EXPECT_EQ(confirm.hdr()->primary_rc, AP_COMM_SUBSYSTEM_NOT_LOADED);
  EXPECT_TRUE(nothing_noted());
}

TEST_F(Dispatcher, LaterCompletionRunsTheRoutineOnTheCompletionThreadUnderTheLock) {
  push_script(NAP_FLUSH, AP_CONV_FAILURE_NO_RETRY, 0, 1);
  Vcb flush(NAP_FLUSH);
  flush.hdr()->conv_id = 7;
  EXPECT_EQ(appc_c_async_version(2, flush.bytes, record_routine, 99), AP_ASYNC_IN_PROGRESS);
  EXPECT_EQ(flush.hdr()->primary_rc, AP_OK);  // nothing written before completion
  EXPECT_TRUE(nothing_noted());
  // Completing while this thread holds the lock: the wait for the routine
  // must release it, or the routine could never run.
  const uint16_t token = vpm_lock();
  EXPECT_EQ(snt_complete_pending(0), 1);
  EXPECT_EQ(snanode::process_lock_depth(), 1u);
  vpm_unlock(token);
  const std::string expected = "routine 99 conv=7 primary=" + to_string(AP_CONV_FAILURE_NO_RETRY);
  EXPECT_EQ(events(), std::vector<std::string>{expected + " locked=1"});  // already run
  EXPECT_EQ(snt_complete_pending(0), 0);
  // A reset ends a verb still pending: its routine runs, it is not left hanging.
  push_script(NAP_FLUSH, AP_OK, 0, 1);
  ASSERT_EQ(appc_c_async_version(2, flush.bytes, record_routine, 98), AP_ASYNC_IN_PROGRESS);
  snt_reset();
  const std::string ended = "routine 98 conv=7 primary=" + to_string(AP_COMM_SUBSYSTEM_ABENDED);
  EXPECT_TRUE(
      eventually([&] { return events().size() == 2 && events()[1] == ended + " locked=1"; }));
}

TEST_F(Dispatcher, BlockingCallerWaitsWithTheLockReleased) {
  push_script(NAP_RECEIVE_AND_WAIT, AP_DEALLOC_NORMAL, 0, 1);
  Vcb receive(NAP_RECEIVE_AND_WAIT);
  std::atomic<uint32_t> answer{0};
  std::atomic<unsigned> depth_after{0};
  std::thread caller([&] {
    const uint16_t token = vpm_lock();  // as a library call holds it
    answer = appc_c_async_version(2, receive.bytes, nullptr, 0);
    depth_after = snanode::process_lock_depth();
    vpm_unlock(token);
  });
  ASSERT_TRUE(eventually([] { return snt_pending_count() == 1; }));
  { snanode::ProcessLockGuard guard; }  // free while the caller waits
  EXPECT_EQ(answer.load(), 0u);
  EXPECT_EQ(snt_complete_pending(0), 1);
  caller.join();
  EXPECT_EQ(std::tuple(answer.load(), depth_after.load(), receive.hdr()->primary_rc),
            std::tuple(uint32_t{AP_ASYNC_COMPLETED}, 1u, AP_DEALLOC_NORMAL));
}

// A completion routine that submits verbs of its own: one synchronous, one
// blocking that the test completes later, one with a routine.
Vcb g_nested_sync(NAP_GET_STATE);
Vcb g_nested_blocking(NAP_CONFIRMED);
Vcb g_nested_async(NAP_FLUSH);
std::atomic<uint32_t> g_nested_answer{0};

void submitting_routine(void *vcb, uint32_t a, uint32_t b, uintptr_t correlator) {
  record_routine(vcb, a, b, correlator);
  appc_c_version(2, g_nested_sync.bytes);
  appc_c_async_version(2, g_nested_blocking.bytes, nullptr, 0);
  g_nested_answer = appc_c_async_version(2, g_nested_async.bytes, record_routine, 2);
}

TEST_F(Dispatcher, RoutineMaySubmitVerbsWithoutDeadlock) {
  push_script(NAP_SEND_DATA, AP_OK, 0, 1);
  push_script(NAP_CONFIRMED, AP_OK, 0, 1);
  push_script(NAP_FLUSH, AP_OK, 0, 1);
  Vcb send(NAP_SEND_DATA);
  ASSERT_EQ(appc_c_async_version(2, send.bytes, submitting_routine, 1), AP_ASYNC_IN_PROGRESS);
  std::thread completer([] { snt_complete_pending(0); });  // waits for the routine
  // The routine now blocks in its CONFIRMED on the completion thread.
  ASSERT_TRUE(eventually([] { return snt_pending_count() == 1 && events().size() == 1; }));
  EXPECT_EQ(g_nested_sync.bytes[24], AP_STATE_SEND);  // the synchronous one completed
  EXPECT_EQ(snt_complete_pending(0), 1);              // releases the routine
  completer.join();
  EXPECT_EQ(g_nested_answer.load(), AP_ASYNC_IN_PROGRESS);
  EXPECT_EQ(snt_complete_pending(0), 1);
  ASSERT_EQ(events().size(), 2u);
  EXPECT_EQ(events()[1].rfind("routine 2 ", 0), 0u);
}

void slow_routine(void *vcb, uint32_t a, uint32_t b, uintptr_t correlator) {
  record_routine(vcb, a, b, correlator);
  std::this_thread::sleep_for(std::chrono::milliseconds(80));
  note("finished");
}

TEST_F(Dispatcher, EventFdCallLetsQueuedRoutinesFinish) {
  push_script(0, AP_OK, 0, 1);
  Vcb flush(NAP_FLUSH);
  ASSERT_EQ(appc_c_async_version(2, flush.bytes, slow_routine, 1), AP_ASYNC_IN_PROGRESS);
  std::thread completer([] { snt_complete_pending(0); });
  ASSERT_TRUE(eventually([] { return !events().empty(); }));
  const int fd = vpm_asm_event_fd();
  EXPECT_EQ(events().size(), 2u);
  completer.join();
  ASSERT_GE(fd, 0);
  pollfd readable = {fd, POLLIN, 0};
  EXPECT_TRUE(eventually([&] { return poll(&readable, 1, 0) == 0; }));  // nothing queued
}

// Path ends.

void *g_library_wait_object = nullptr;

int noting_path_routine(void *context, VPM_PATH_EVENT *event) {
  vpm_release_wait_object(g_library_wait_object);  // as the library takes itself down
  note("path " + to_string(event->type) +
       " context=" + to_string(reinterpret_cast<uintptr_t>(context)) + " locked=" +
       to_string(snanode::process_lock_held()) + " pending=" + to_string(snt_pending_count()));
  return 0;
}

uint32_t register_user(VPM_PATH_ROUTINE routine = noting_path_routine, uint32_t context = 0) {
  uint32_t id = 0;
  vpm_init_path_user(0, 0, routine, context, &id);
  return id;
}

int g_connects = 0;
bool g_connect_answer = false;

bool counting_connector() {
  ++g_connects;
  return g_connect_answer;
}

using Path = Dispatcher;

// The first registration connects to the node, which may refuse; so does the
// first one after a path end.
TEST_F(Path, RegistrationsConnectToTheNodeAndGetDistinctIds) {
  snanode::set_path_connector(counting_connector);
  EXPECT_EQ(register_user(), 0u);
  g_connect_answer = true;
  const uint32_t a = register_user(), b = register_user();
  EXPECT_TRUE(a != 0 && b != 0 && a != b) << a << " " << b;
  EXPECT_EQ(g_connects, 2);
  vpm_terminate_path_user(a);
  vpm_terminate_path_user(a);  // twice: no effect
  EXPECT_EQ(snt_path_users(), 1u);
  const uint32_t again = register_user();
  EXPECT_TRUE(again != 0 && again != a) << again;  // not handed out again at once
  EXPECT_EQ(snt_path_users(), 2u);
  snt_end_path();
  EXPECT_NE(register_user(), 0u);
  EXPECT_EQ(g_connects, 3);
  snanode::set_path_connector(nullptr);
}

// A path end fails the outstanding verbs, lets their routines run and their
// callers return, and only then runs the path routines.  A wait object the
// path routine releases stays safe for the thread sleeping on it.
TEST_F(Path, OutstandingVerbsFailAndCallersReturnBeforePathRoutinesRun) {
  register_user(noting_path_routine, 5);
  g_library_wait_object = vpm_allocate_wait_object();
  std::atomic<int> slept{-1};
  std::thread sleeper(
      [&] { slept = static_cast<int>(vpm_sleep(g_library_wait_object, VPM_SLEEP_FOREVER)); });
  push_script(0, AP_OK, 0, 1);
  push_script(0, AP_OK, 0, 1);
  Vcb async_vcb(NAP_RECEIVE_AND_WAIT);
  ASSERT_EQ(appc_c_async_version(2, async_vcb.bytes, record_routine, 1), AP_ASYNC_IN_PROGRESS);
  Vcb blocking_vcb(NAP_CONFIRM);
  std::thread caller([&] {
    const uint16_t token = vpm_lock();  // a library call in progress
    appc_c_async_version(2, blocking_vcb.bytes, nullptr, 0);
    note("caller primary=" + to_string(blocking_vcb.hdr()->primary_rc));
    // Still inside its call: the path routine must wait for the unlock.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    note("caller unlocks");
    vpm_unlock(token);
  });
  ASSERT_TRUE(eventually([] { return snt_pending_count() == 2; }));
  snt_end_path();
  caller.join();
  sleeper.join();
  EXPECT_EQ(slept.load(), 2);
  // The failed verb's routine and the caller may come in either order; the
  // path routine comes last, under the lock, with nothing pending.
  auto seen = events();
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen.back(), "path 32769 context=5 locked=1 pending=0");
  std::sort(seen.begin(), seen.end() - 1);
  const std::string failed = to_string(AP_COMM_SUBSYSTEM_ABENDED);
  EXPECT_EQ(std::vector(seen.begin(), seen.end() - 1),
            (std::vector<std::string>{"caller primary=" + failed, "caller unlocks",
                                      "routine 1 conv=0 primary=" + failed + " locked=1"}));
  EXPECT_EQ(snt_path_users(), 0u);  // registrations end with the path
  Vcb after(NAP_FLUSH);             // and the node is usable again
  appc_c_version(2, after.bytes);
  EXPECT_EQ(after.hdr()->primary_rc, AP_OK);
}

int resubmitting_path_routine(void *, VPM_PATH_EVENT *) {
  Vcb vcb(NAP_FLUSH);
  appc_c_version(2, vcb.bytes);
  note("path primary=" + to_string(vcb.hdr()->primary_rc));
  register_user();
  return 0;
}

void path_ending_routine(void *, uint32_t, uint32_t, uintptr_t) {
  snt_end_path();  // cannot wait here: the path routines run on this thread
  note("routine returned");
}

// Ended from a completion routine, the path end runs after it; verbs submitted
// meanwhile fail, and registrations made meanwhile see the next path end.
TEST_F(Path, PathEndFromACompletionRoutineRefusesVerbsAndKeepsNewRegistrations) {
  register_user(resubmitting_path_routine);
  push_script(0, AP_OK, 0, 1);
  Vcb vcb(NAP_FLUSH);
  ASSERT_EQ(appc_c_async_version(2, vcb.bytes, path_ending_routine, 1), AP_ASYNC_IN_PROGRESS);
  EXPECT_EQ(snt_complete_pending(0), 1);
  ASSERT_TRUE(eventually([] {
    snanode::ProcessLockGuard hold;
    return !snanode::path_is_ending();
  }));
  EXPECT_EQ(events(),
            (std::vector<std::string>{"routine returned",
                                      "path primary=" + to_string(AP_COMM_SUBSYSTEM_ABENDED)}));
  EXPECT_EQ(snt_path_users(), 1u);
  snt_end_path();
  EXPECT_EQ(events().size(), 3u);
}

}  // namespace

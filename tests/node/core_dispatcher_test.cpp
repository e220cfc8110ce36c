// The APPC dispatcher with the scripted node: immediate and later
// completions, blocking waits, the completion thread, scripts and defaults.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "core/node_monitor.h"
#include "core/process_lock.h"
#include "node/core_test_support.h"
#include "snanode/snanode.h"
#include "snanode/snanode_test.h"
#include "snanode/verbs.h"

namespace {

using core_test::eventually;
using core_test::stays_false;

struct RoutineRun {
  void *vcb;
  uintptr_t correlator;
  std::thread::id thread;
  bool lock_held;
  uint16_t primary;
};

std::mutex g_runs_mutex;
std::vector<RoutineRun> g_runs;

void record_routine(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  std::lock_guard<std::mutex> hold(g_runs_mutex);
  g_runs.push_back({vcb, correlator, std::this_thread::get_id(), snanode::process_lock_held(),
                    static_cast<NAP_HDR *>(vcb)->primary_rc});
}

size_t runs() {
  std::lock_guard<std::mutex> hold(g_runs_mutex);
  return g_runs.size();
}

RoutineRun run(size_t n) {
  std::lock_guard<std::mutex> hold(g_runs_mutex);
  return g_runs.at(n);
}

SNT_VERB_SCRIPT script(uint16_t opcode, uint16_t primary, uint32_t secondary, int later = 0,
                       SNT_FILL fill = nullptr, void *context = nullptr) {
  return SNT_VERB_SCRIPT{opcode, primary, secondary, later, fill, context};
}

// Verb records are 208 bytes; tests submit whole records.
struct Vcb {
  explicit Vcb(uint16_t opcode) { std::memcpy(bytes, &opcode, 2); }
  NAP_HDR *hdr() { return reinterpret_cast<NAP_HDR *>(bytes); }
  alignas(8) uint8_t bytes[NAP_VCB_SIZE] = {};
};

class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    snt_reset();
    snt_script_verbs(1);
    std::lock_guard<std::mutex> hold(g_runs_mutex);
    g_runs.clear();
  }
};

TEST_F(DispatcherTest, ImmediateAnswersCarryTheScriptAndSkipTheRoutine) {
  const SNT_VERB_SCRIPT failing = script(NAP_SEND_DATA, AP_ALLOCATION_ERROR, 0x05000000);
  snt_push_verb_script(&failing);
  Vcb send(NAP_SEND_DATA);
  EXPECT_EQ(appc_c_async_version(2, send.bytes, record_routine, 1), AP_ASYNC_COMPLETED);
  EXPECT_EQ(send.hdr()->primary_rc, AP_ALLOCATION_ERROR);
  EXPECT_EQ(send.hdr()->secondary_rc, 0x05000000u);

  Vcb flush(NAP_FLUSH);
  flush.hdr()->primary_rc = 0x7777;  // stale value from an earlier verb
  EXPECT_EQ(appc_c_async_version(2, flush.bytes, record_routine, 1), AP_ASYNC_COMPLETED);
  EXPECT_EQ(flush.hdr()->primary_rc, AP_OK);

  // appc_c_version never leaves a verb pending, whatever the script says.
  const SNT_VERB_SCRIPT later = script(NAP_CONFIRM, AP_DEALLOC_NORMAL, 0, 1);
  snt_push_verb_script(&later);
  Vcb confirm(NAP_CONFIRM);
  appc_c_version(2, confirm.bytes);
  EXPECT_EQ(confirm.hdr()->primary_rc, AP_DEALLOC_NORMAL);
  EXPECT_EQ(snt_pending_count(), 0u);
  EXPECT_TRUE(stays_false([] { return runs() != 0; }, 50));
}

TEST_F(DispatcherTest, LaterCompletionRunsTheRoutineOnTheCompletionThreadUnderTheLock) {
  const SNT_VERB_SCRIPT later = script(NAP_FLUSH, AP_CONV_FAILURE_NO_RETRY, 0, 1);
  snt_push_verb_script(&later);
  Vcb flush(NAP_FLUSH);
  EXPECT_EQ(appc_c_async_version(2, flush.bytes, record_routine, 0xC0FFEE), AP_ASYNC_IN_PROGRESS);
  EXPECT_EQ(snt_pending_count(), 1u);
  EXPECT_EQ(flush.hdr()->primary_rc, AP_OK);  // nothing written before completion
  EXPECT_TRUE(stays_false([] { return runs() != 0; }, 50));

  // Completing while this thread holds the lock: the wait must release it,
  // or the routine could never run.
  const uint16_t token = vpm_lock();
  EXPECT_EQ(snt_complete_pending(0), 1);
  EXPECT_EQ(snanode::process_lock_depth(), 1u);
  vpm_unlock(token);

  ASSERT_EQ(runs(), 1u);  // snt_complete_pending waited for the routine
  const RoutineRun r = run(0);
  EXPECT_EQ(r.vcb, flush.bytes);
  EXPECT_EQ(r.correlator, 0xC0FFEEu);
  EXPECT_NE(r.thread, std::this_thread::get_id());
  EXPECT_TRUE(r.lock_held);
  EXPECT_EQ(r.primary, AP_CONV_FAILURE_NO_RETRY);
  EXPECT_EQ(snt_pending_count(), 0u);
  EXPECT_EQ(snt_complete_pending(0), 0);
}

TEST_F(DispatcherTest, BlockingCallerWaitsWithTheLockReleased) {
  const SNT_VERB_SCRIPT later = script(NAP_RECEIVE_AND_WAIT, AP_DEALLOC_NORMAL, 0, 1);
  snt_push_verb_script(&later);
  Vcb receive(NAP_RECEIVE_AND_WAIT);
  std::atomic<bool> returned{false};
  std::atomic<uint32_t> answer{0};
  std::atomic<unsigned> depth_after{0};
  std::thread caller([&] {
    const uint16_t token = vpm_lock();  // as a library call holds it
    answer = appc_c_async_version(2, receive.bytes, nullptr, 0);
    depth_after = snanode::process_lock_depth();
    returned = true;
    vpm_unlock(token);
  });
  ASSERT_TRUE(eventually([] { return snt_pending_count() == 1; }));
  EXPECT_TRUE(stays_false([&] { return returned.load(); }, 50));
  {
    snanode::ProcessLockGuard guard;  // free while the caller waits
    EXPECT_FALSE(returned.load());
  }
  EXPECT_EQ(snt_complete_pending(0), 1);
  EXPECT_TRUE(eventually([&] { return returned.load(); }));
  caller.join();
  EXPECT_EQ(answer.load(), AP_ASYNC_COMPLETED);
  EXPECT_EQ(depth_after.load(), 1u);
  EXPECT_EQ(receive.hdr()->primary_rc, AP_DEALLOC_NORMAL);
  EXPECT_EQ(snt_submitted_with_routine(0), 0);
  EXPECT_EQ(runs(), 0u);
}

// A completion routine that submits verbs of its own: one synchronous, one
// blocking that the test completes later, one with a routine.
Vcb g_nested_sync(NAP_GET_STATE);
Vcb g_nested_blocking(NAP_CONFIRMED);
Vcb g_nested_async(NAP_FLUSH);
std::atomic<uint32_t> g_nested_answer{0};
std::atomic<bool> g_submitter_done{false};

void submitting_routine(void *vcb, uint32_t a, uint32_t b, uintptr_t correlator) {
  record_routine(vcb, a, b, correlator);
  appc_c_version(2, g_nested_sync.bytes);
  appc_c_async_version(2, g_nested_blocking.bytes, nullptr, 0);
  g_nested_answer = appc_c_async_version(2, g_nested_async.bytes, record_routine, 2);
  g_submitter_done = true;
}

TEST_F(DispatcherTest, RoutineMaySubmitVerbsWithoutDeadlock) {
  const SNT_VERB_SCRIPT first = script(NAP_SEND_DATA, AP_OK, 0, 1);
  const SNT_VERB_SCRIPT blocking = script(NAP_CONFIRMED, AP_OK, 0, 1);
  const SNT_VERB_SCRIPT nested = script(NAP_FLUSH, AP_OK, 0, 1);
  snt_push_verb_script(&first);
  snt_push_verb_script(&blocking);
  snt_push_verb_script(&nested);
  Vcb send(NAP_SEND_DATA);
  ASSERT_EQ(appc_c_async_version(2, send.bytes, submitting_routine, 1), AP_ASYNC_IN_PROGRESS);

  std::thread completer([] { snt_complete_pending(0); });  // waits for the routine
  // The routine now blocks in its CONFIRMED on the completion thread.
  ASSERT_TRUE(eventually([] { return snt_pending_count() == 1 && runs() == 1; }));
  EXPECT_EQ(snt_submitted_opcode(2), NAP_CONFIRMED);
  EXPECT_EQ(g_nested_sync.bytes[24], AP_STATE_SEND);  // the synchronous one completed
  EXPECT_EQ(snt_complete_pending(0), 1);              // releases the routine
  completer.join();
  EXPECT_TRUE(g_submitter_done);
  EXPECT_EQ(g_nested_answer.load(), AP_ASYNC_IN_PROGRESS);
  ASSERT_EQ(snt_pending_count(), 1u);
  EXPECT_EQ(snt_complete_pending(0), 1);
  ASSERT_EQ(runs(), 2u);
  EXPECT_EQ(run(1).vcb, g_nested_async.bytes);
  EXPECT_EQ(run(1).correlator, 2u);
  EXPECT_EQ(snt_submitted_count(), 4u);
}

TEST_F(DispatcherTest, UnscriptedVerbsGetFreshIdentifiersAndDefaults) {
  NAP_START_TP_VCB start_a{};
  start_a.opcode = NAP_START_TP;
  NAP_START_TP_VCB start_b{};
  start_b.opcode = NAP_START_TP;
  std::memcpy(start_b.local_lu_name, "LU1     ", 8);
  appc_c_version(2, &start_a);
  appc_c_version(2, &start_b);
  const uint8_t zero[8] = {};
  EXPECT_NE(std::memcmp(start_a.tp_id, zero, 8), 0);
  EXPECT_NE(std::memcmp(start_a.tp_id, start_b.tp_id, 8), 0);
  EXPECT_EQ(std::memcmp(start_a.local_lu_name, "LOCAL   ", 8), 0);
  EXPECT_EQ(std::memcmp(start_b.local_lu_name, "LU1     ", 8), 0);

  NAP_ALLOCATE alloc_a{};
  alloc_a.hdr.opcode = NAP_B_ALLOCATE;
  NAP_ALLOCATE alloc_b = alloc_a;
  appc_c_version(2, &alloc_a);
  appc_c_version(2, &alloc_b);
  EXPECT_NE(alloc_a.hdr.conv_id, 0u);
  EXPECT_NE(alloc_a.hdr.conv_id, alloc_b.hdr.conv_id);

  uint8_t names[2][64];
  std::memset(names, 0x40, sizeof names);
  std::memcpy(names[0], "\xD7\xC1\xE8", 3);  // PAY
  std::memcpy(names[1], "\xE7", 1);
  NAP_RECEIVE_ALLOCATE accept{};
  accept.opcode = NAP_RECEIVE_ALLOCATE_CPIC;
  accept.format = 1;
  accept.conv_id = 0x1234;  // the library's handle goes in, the node's id comes out
  accept.tp_name_count = 2;
  accept.tp_name_list = &names[0][0];
  appc_c_version(2, &accept);
  EXPECT_EQ(accept.primary_rc, AP_OK);
  EXPECT_EQ(std::memcmp(accept.rcv_tp_name, names[0], 64), 0);
  EXPECT_NE(std::memcmp(accept.tp_id, zero, 8), 0);
  EXPECT_NE(accept.conv_id, 0x1234u);
  EXPECT_NE(accept.conv_id, alloc_b.hdr.conv_id);
  EXPECT_EQ(accept.rcv_sync_level, 0);
  EXPECT_EQ(accept.rcv_conv_type, 1);
  EXPECT_EQ(std::memcmp(accept.rcv_user_id, "\x40\x40\x40\x40\x40\x40\x40\x40\x40\x40", 10), 0);
  EXPECT_EQ(std::memcmp(accept.rcv_lu_alias, "LOCAL   ", 8), 0);
  EXPECT_EQ(std::memcmp(accept.rcv_mode_name, "\x7B\xC9\xD5\xE3\xC5\xD9\x40\x40", 8), 0);
  EXPECT_EQ(std::memcmp(accept.rcv_partner_lu_name,
                        "\xC1\xD7\xD7\xD5\x4B\xD3\xD6\xC3\xC1\xD3\x40\x40\x40\x40\x40\x40\x40", 17),
            0);

  Vcb state(NAP_GET_STATE);
  appc_c_version(2, state.bytes);
  EXPECT_EQ(state.bytes[24], AP_STATE_SEND);

  // A failing script leaves the out-fields alone.
  const SNT_VERB_SCRIPT refused = script(NAP_START_TP, AP_PARAMETER_CHECK, AP_BAD_TP_ID);
  snt_push_verb_script(&refused);
  NAP_START_TP_VCB start_c{};
  start_c.opcode = NAP_START_TP;
  appc_c_version(2, &start_c);
  EXPECT_EQ(start_c.primary_rc, AP_PARAMETER_CHECK);
  EXPECT_EQ(start_c.secondary_rc, AP_BAD_TP_ID);
  EXPECT_EQ(std::memcmp(start_c.tp_id, zero, 8), 0);
}

void fill_conv_id(void *vcb, void *context) {
  static_cast<NAP_HDR *>(vcb)->conv_id = *static_cast<uint32_t *>(context);
}

TEST_F(DispatcherTest, ScriptsAreTakenInOrderByOpcodeAndFillRunsLast) {
  uint32_t conv_id = 0xABCD;
  const SNT_VERB_SCRIPT scripts[] = {
      script(NAP_SEND_DATA, 0x0C00, 1),
      script(0, 0x0D00, 2),
      script(NAP_FLUSH, 0x0E00, 3),
      script(NAP_B_ALLOCATE, AP_OK, 0, 0, fill_conv_id, &conv_id),
  };
  for (const auto &s : scripts) snt_push_verb_script(&s);
  struct Expect {
    uint16_t opcode;
    uint16_t primary;
    uint32_t secondary;
  };
  const Expect expected[] = {
      {NAP_FLUSH, 0x0D00, 2},  // the "any" script comes before the FLUSH one
      {NAP_FLUSH, 0x0E00, 3},
      {NAP_SEND_DATA, 0x0C00, 1},
      {NAP_SEND_DATA, AP_OK, 0},  // queue has nothing left for it
  };
  for (const auto &e : expected) {
    Vcb v(e.opcode);
    appc_c_version(2, v.bytes);
    EXPECT_EQ(v.hdr()->primary_rc, e.primary) << e.opcode;
    EXPECT_EQ(v.hdr()->secondary_rc, e.secondary) << e.opcode;
  }
  Vcb alloc(NAP_B_ALLOCATE);
  appc_c_version(2, alloc.bytes);
  EXPECT_EQ(alloc.hdr()->conv_id, 0xABCDu);  // fill overrides the default identifier
}

TEST_F(DispatcherTest, SubmittedVerbsAreLoggedAsSubmitted) {
  Vcb send(NAP_SEND_DATA);
  send.hdr()->conv_id = 77;
  send.bytes[40] = AP_SEND_FLUSH;
  const SNT_VERB_SCRIPT failing = script(NAP_SEND_DATA, AP_STATE_CHECK, 9);
  snt_push_verb_script(&failing);
  appc_c_async_version(2, send.bytes, record_routine, 1);
  // A local-TP record is only 76 bytes long: the log must not read past it.
  auto *local = new NAP_LOCAL_TP_VCB{};
  local->opcode = NAP_DEFINE_LOCAL_TP;
  std::memset(local->tp_name, 0x40, sizeof local->tp_name);
  appc_c_version(2, local);

  ASSERT_EQ(snt_submitted_count(), 2u);
  uint8_t copy[NAP_VCB_SIZE];
  ASSERT_EQ(snt_submitted_vcb(0, copy, sizeof copy), 1);
  const auto *logged = reinterpret_cast<const NAP_SEND_DATA_VCB *>(copy);
  EXPECT_EQ(logged->hdr.primary_rc, 0);  // before the node answered
  EXPECT_EQ(logged->hdr.conv_id, 77u);
  EXPECT_EQ(logged->send_data_type, AP_SEND_FLUSH);
  EXPECT_EQ(send.hdr()->primary_rc, AP_STATE_CHECK);
  EXPECT_EQ(snt_submitted_opcode(0), NAP_SEND_DATA);
  EXPECT_EQ(snt_submitted_with_routine(0), 1);
  EXPECT_EQ(snt_submitted_opcode(1), NAP_DEFINE_LOCAL_TP);
  EXPECT_EQ(snt_submitted_with_routine(1), 0);
  std::memset(copy, 0xEE, sizeof copy);
  ASSERT_EQ(snt_submitted_vcb(1, copy, sizeof copy), 1);
  EXPECT_EQ(copy[12], 0x40);
  EXPECT_EQ(copy[76], 0xEE);  // only the record's own bytes are copied
  EXPECT_EQ(snt_submitted_vcb(2, copy, sizeof copy), 0);
  delete local;

  snt_reset();
  EXPECT_EQ(snt_submitted_count(), 0u);
}

TEST_F(DispatcherTest, WithoutScriptingTheEngineAnswersAndOtherVersionsAreRefused) {
  snt_script_verbs(0);
  // The engine knows no conversation 0: it answers at once, and nothing is
  // logged as submitted to the scripted node.
  Vcb flush(NAP_FLUSH);
  EXPECT_EQ(appc_c_async_version(2, flush.bytes, record_routine, 1), AP_ASYNC_COMPLETED);
  EXPECT_EQ(flush.hdr()->primary_rc, AP_PARAMETER_CHECK);
  EXPECT_EQ(flush.hdr()->secondary_rc, AP_BAD_CONV_ID);
  EXPECT_EQ(snt_submitted_count(), 0u);

  snt_script_verbs(1);
  Vcb old_interface(NAP_FLUSH);
  appc_c_version(1, old_interface.bytes);
  EXPECT_EQ(old_interface.hdr()->primary_rc, AP_COMM_SUBSYSTEM_NOT_LOADED);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_TRUE(stays_false([] { return runs() != 0; }, 30));
}

std::atomic<bool> g_slow_started{false};
std::atomic<bool> g_slow_finished{false};

void slow_routine(void *, uint32_t, uint32_t, uintptr_t) {
  g_slow_started = true;
  std::this_thread::sleep_for(std::chrono::milliseconds(80));
  g_slow_finished = true;
}

TEST_F(DispatcherTest, EventFdCallLetsQueuedRoutinesFinish) {
  const SNT_VERB_SCRIPT later = script(0, AP_OK, 0, 1);
  snt_push_verb_script(&later);
  Vcb flush(NAP_FLUSH);
  ASSERT_EQ(appc_c_async_version(2, flush.bytes, slow_routine, 1), AP_ASYNC_IN_PROGRESS);
  std::thread completer([] { snt_complete_pending(0); });
  ASSERT_TRUE(eventually([] { return g_slow_started.load(); }));
  const int fd = vpm_asm_event_fd();
  EXPECT_TRUE(g_slow_finished.load());
  completer.join();
  ASSERT_GE(fd, 0);
  pollfd readable = {fd, POLLIN, 0};
  EXPECT_TRUE(eventually([&] { return poll(&readable, 1, 0) == 0; }));  // nothing queued
}

TEST_F(DispatcherTest, ResetDropsScriptsEndsPendingVerbsAndStopsScripting) {
  const SNT_VERB_SCRIPT later = script(NAP_FLUSH, AP_OK, 0, 1);
  const SNT_VERB_SCRIPT unused = script(NAP_CONFIRM, AP_STATE_CHECK, 0);
  snt_push_verb_script(&later);
  snt_push_verb_script(&unused);
  Vcb flush(NAP_FLUSH);
  ASSERT_EQ(appc_c_async_version(2, flush.bytes, record_routine, 3), AP_ASYNC_IN_PROGRESS);

  snt_reset();
  EXPECT_EQ(snt_pending_count(), 0u);
  ASSERT_TRUE(eventually([] { return runs() == 1; }));  // not left hanging
  EXPECT_EQ(run(0).primary, AP_COMM_SUBSYSTEM_ABENDED);

  Vcb off(NAP_CONFIRM);
  appc_c_version(2, off.bytes);
  EXPECT_EQ(off.hdr()->primary_rc, AP_PARAMETER_CHECK);  // scripting is off: the engine answers
  EXPECT_EQ(snt_submitted_count(), 0u);
  snt_script_verbs(1);
  Vcb confirm(NAP_CONFIRM);
  appc_c_version(2, confirm.bytes);
  EXPECT_EQ(confirm.hdr()->primary_rc, AP_OK);  // the CONFIRM script went with the reset
}

}  // namespace

// Submission and completion of conversation verbs, and collecting their
// results with CMWAIT and CMCHCK.
#include <chrono>
#include <thread>

#include "library/core_support.h"

namespace {

using core_test::Conversation;
using core_test::CoreTest;
using core_test::g_last_correlator;
using core_test::g_routine_calls;
using core_test::Locked;
using core_test::problem;
using core_test::push_script;

struct WaitResult {
  unsigned char id[8] = {};
  CM_RETURN_CODE conversation_rc = -1;
  CM_RETURN_CODE rc = -1;
};

WaitResult wait_once() {
  WaitResult r;
  CMWAIT(r.id, &r.conversation_rc, &r.rc);
  return r;
}

class SubmitTest : public CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    start();
  }
  static void expect_gcb_counters(uint32_t outstanding, uint32_t waiting) {
    EXPECT_EQ(pGCB->NumVerbsOutstanding, outstanding);
    EXPECT_EQ(pGCB->NumVerbsWaiting, waiting);
  }
  static Conversation non_blocking() {
    Conversation c = make_conversation();
    c.cccb->usProcessingMode = CM_NON_BLOCKING;
    c.cccb->ulAppcConvId = 42;
    return c;
  }
};

TEST_F(SubmitTest, BlockingVerbCompletesInsideTheCallAndMovesNoCounter) {
  Conversation c = make_conversation();
  c.cccb->ulAppcConvId = 42;
  c.cccb->TpId[0] = 7;
  c.cccb->ulConversationType = CM_BASIC_CONVERSATION;
  push_script(NAP_FLUSH, 0x0C00);
  EXPECT_EQ(submit(c, NAP_FLUSH), CM_PROGRAM_ERROR_NO_TRUNC);
  EXPECT_EQ(g_routine_calls, 1);
  EXPECT_EQ(g_last_correlator, 0u);
  expect_gcb_counters(0u, 0u);
  EXPECT_EQ(c.cccb->usVerbsOutstanding, 0);
  EXPECT_EQ(c.cccb->fCompletionWaiting, 0);

  ASSERT_EQ(snt_submitted_count(), 1u);
  EXPECT_EQ(snt_submitted_with_routine(0), 0);
  NAP_HDR hdr{};
  ASSERT_EQ(snt_submitted_vcb(0, &hdr, sizeof hdr), 1);
  EXPECT_EQ(hdr.opcode, NAP_FLUSH);
  EXPECT_EQ(hdr.opext, 0);
  EXPECT_EQ(hdr.tp_id[0], 7);
  EXPECT_EQ(hdr.conv_id, 42u);
  EXPECT_EQ(std::memcmp(c.cccb->pTraceConvId, c.id, 8), 0);

  // A blocking result that ends the conversation frees it at once.
  push_script(NAP_FLUSH, 0x0900);
  EXPECT_EQ(submit(c, NAP_FLUSH), CM_DEALLOCATED_NORMAL);
  EXPECT_FALSE(known(c.id));
  expect_gcb_counters(0u, 0u);
}

TEST_F(SubmitTest, NonBlockingVerbIsCollectedOnceByCmwait) {
  Conversation c = non_blocking();
  push_script(NAP_FLUSH, 0, 0, true);
  EXPECT_EQ(submit(c, NAP_FLUSH), CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(snt_submitted_with_routine(0), 1);
  EXPECT_EQ(pGCB->NumVerbsOutstanding, 1u);
  EXPECT_EQ(c.cccb->usVerbsOutstanding, 1);
  EXPECT_EQ(g_routine_calls, 0);

  ASSERT_EQ(snt_complete_pending(0), 1);
  EXPECT_EQ(g_routine_calls, 1);
  EXPECT_EQ(g_last_correlator, 1u);
  expect_gcb_counters(0u, 1u);
  EXPECT_EQ(c.cccb->fCompletionWaiting, 1);
  EXPECT_EQ(c.cccb->usVerbsOutstanding, 0);

  WaitResult first = wait_once();
  EXPECT_EQ(first.rc, CM_OK);
  EXPECT_EQ(first.conversation_rc, CM_OK);
  EXPECT_EQ(std::memcmp(first.id, c.id, 8), 0);
  EXPECT_EQ(pGCB->NumVerbsWaiting, 0u);
  EXPECT_EQ(c.cccb->fCompletionWaiting, 0);
  EXPECT_TRUE(known(c.id));

  WaitResult second = wait_once();
  EXPECT_EQ(second.rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(second.conversation_rc, -1);  // untouched on failure
}

TEST_F(SubmitTest, CmwaitSleepsUntilTheOutstandingVerbCompletes) {
  Conversation c = non_blocking();
  push_script(NAP_FLUSH, 0x0E00, 0, true);
  ASSERT_EQ(submit(c, NAP_FLUSH), CM_OPERATION_INCOMPLETE);
  std::thread node([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    snt_complete_pending(0);
  });
  WaitResult r = wait_once();
  node.join();
  EXPECT_EQ(r.rc, CM_OK);
  EXPECT_EQ(r.conversation_rc, CM_PROGRAM_ERROR_PURGING);
  EXPECT_EQ(std::memcmp(r.id, c.id, 8), 0);
}

TEST_F(SubmitTest, CmwaitAndCmchckPickByTablePositionNotCompletionOrder) {
  Conversation a = non_blocking();
  Conversation b = non_blocking();
  // Which of the two the table walk meets first is the node's choice.
  void *first_object = nullptr;
  vtm_get_next_used(pGCB->CCCBTable, 0, &first_object);
  Conversation &early = first_object == a.cccb ? a : b;
  Conversation &late = first_object == a.cccb ? b : a;

  push_script(NAP_FLUSH, 0, 0, true);
  ASSERT_EQ(submit(early, NAP_FLUSH), CM_OPERATION_INCOMPLETE);
  push_script(NAP_FLUSH, 0x1400, 0, true);
  ASSERT_EQ(submit(late, NAP_FLUSH), CM_OPERATION_INCOMPLETE);

  // Nothing completed yet: CMCHCK says so without blocking.
  unsigned char id[8] = {};
  CM_RETURN_CODE rc = -1;
  CMCHCK(id, &rc);
  EXPECT_EQ(rc, CM_UNSUCCESSFUL);

  ASSERT_EQ(snt_complete_pending(1), 1);  // the later-placed one completes first
  CMCHCK(id, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(std::memcmp(id, late.id, 8), 0);
  ASSERT_EQ(snt_complete_pending(0), 1);

  // CMCHCK only peeks: it names the earlier-placed conversation, and leaves
  // both completions for CMWAIT.
  CMCHCK(id, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(std::memcmp(id, early.id, 8), 0);
  EXPECT_EQ(pGCB->NumVerbsWaiting, 2u);

  WaitResult r1 = wait_once();
  WaitResult r2 = wait_once();
  EXPECT_EQ(std::memcmp(r1.id, early.id, 8), 0);
  EXPECT_EQ(r1.conversation_rc, CM_OK);
  EXPECT_EQ(std::memcmp(r2.id, late.id, 8), 0);
  EXPECT_EQ(r2.conversation_rc, CM_UNSUCCESSFUL);
  CMCHCK(id, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
}

TEST_F(SubmitTest, NextVerbDropsAnUncollectedCompletion) {
  Conversation c = non_blocking();
  push_script(NAP_FLUSH, 0x0C00, 0, true);
  ASSERT_EQ(submit(c, NAP_FLUSH), CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  ASSERT_EQ(pGCB->NumVerbsWaiting, 1u);

  push_script(NAP_REQUEST_TO_SEND, 0, 0, true);
  ASSERT_EQ(submit(c, NAP_REQUEST_TO_SEND, 14), CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(pGCB->NumVerbsWaiting, 0u);
  EXPECT_EQ(c.cccb->fCompletionWaiting, 0);
  ASSERT_EQ(snt_complete_pending(0), 1);

  // Only the second verb's result is reported.
  WaitResult r = wait_once();
  EXPECT_EQ(r.conversation_rc, CM_OK);
  EXPECT_EQ(wait_once().rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(snt_assert_count(), 0u);

  // A flag the counter does not know of is reported when it is dropped.
  c.cccb->fCompletionWaiting = 1;
  ASSERT_EQ(submit(c, NAP_FLUSH), CM_OK);  // completes at once
  ASSERT_EQ(snt_assert_count(), 1u);
  EXPECT_EQ(core_test::assertion(0), "(pGCB)->NumVerbsWaiting > 0");
  pGCB->NumVerbsWaiting = 0;
}

TEST_F(SubmitTest, EndedConversationLivesUntilCmwaitReportsIt) {
  Conversation c = non_blocking();
  push_script(NAP_FLUSH, 0x0500, 0, true);
  ASSERT_EQ(submit(c, NAP_FLUSH), CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  EXPECT_TRUE(known(c.id));
  EXPECT_EQ(c.cccb->fConversationEnded, 1);

  WaitResult r = wait_once();
  EXPECT_EQ(r.rc, CM_OK);
  EXPECT_EQ(r.conversation_rc, CM_DEALLOCATED_ABEND);
  EXPECT_EQ(std::memcmp(r.id, c.id, 8), 0);
  EXPECT_FALSE(known(c.id));

  snt_reset();
  CM_RETURN_CODE rc = -1;
  cmcanc(c.id, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  ASSERT_EQ(snt_problem_count(), 1u);
  const SNT_RECORD record = problem(0);
  EXPECT_EQ(record.code, 0x20030005u);
  EXPECT_EQ(record.probe, 2u);
  EXPECT_EQ(std::memcmp(record.bytes[0], c.id, 8), 0);
}

TEST_F(SubmitTest, CmwaitWithACounterButNoFlaggedConversationFails) {
  Conversation c = non_blocking();
  pGCB->NumVerbsWaiting = 1;  // an inconsistency no conversation explains
  WaitResult r = wait_once();
  EXPECT_EQ(r.rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(r.conversation_rc, -1);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(r.id), 8), std::string(8, '\0'));
  ASSERT_EQ(snt_assert_count(), 1u);
  EXPECT_EQ(core_test::assertion(0), "tm_handle != NB_NULL_HANDLE");
  // Repaired: the next CMWAIT sees nothing to wait for, and the
  // conversation it could not name is left alone.
  EXPECT_EQ(wait_once().rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_TRUE(known(c.id));
  EXPECT_EQ(c.cccb->fCompletionWaiting, 0);
}

}  // namespace

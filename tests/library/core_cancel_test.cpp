// CMCANC in each situation of a conversation: allocated, accept waiting,
// TP start or allocate in the verb area, never submitted, and a verb in
// progress before the conversation exists; plus the cancel that the node
// completes later, a refused wait object and a refused cancel.
#include <chrono>
#include <thread>

#include "library/core_interpose.h"
#include "library/core_support.h"

namespace {

using core_test::Conversation;
using core_test::CoreTest;
using core_test::g_books;
using core_test::Locked;
using core_test::problem;
using core_test::push_script;

const unsigned char kTp[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};

class CancelTest : public CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    start();
    wait_objects_before_ = g_books.live_wait_objects.size();
  }
  static CM_RETURN_CODE cancel(const Conversation &c) {
    unsigned char id[8];
    std::memcpy(id, c.id, 8);
    CM_RETURN_CODE rc = -1;
    CMCANC(id, &rc);
    return rc;
  }
  static NAP_HDR submitted_cancel(uint32_t n) {
    NAP_HDR hdr{};
    EXPECT_EQ(snt_submitted_opcode(n), NAP_CANCEL);
    EXPECT_EQ(snt_submitted_vcb(n, &hdr, sizeof hdr), 1);
    return hdr;
  }
  size_t wait_objects_before_ = 0;
};

uint32_t handle_of(const Conversation &c) {
  uint32_t handle;
  std::memcpy(&handle, c.id, 4);
  return handle;
}

struct TargetCase {
  const char *name;
  uint32_t appc_conv_id;
  uint16_t initialize_state;
  uint16_t verbs_outstanding;
  uint16_t opcode_in_vcb;
  bool expect_tp_id;
  bool expect_own_handle;
};

TEST_F(CancelTest, CancelVerbNamesWhatTheNodeKnows) {
  const TargetCase cases[] = {
      {"allocated", 42, 1, 0, NAP_SEND_DATA, true, false},
      {"accept waiting", 0, 0, 1, NAP_RECEIVE_ALLOCATE_CPIC, false, true},
      {"TP start in the verb area", 0, 1, 0, NAP_START_TP, false, false},
      {"allocate in the verb area", 0, 1, 0, NAP_B_ALLOCATE, true, false},
  };
  unsigned char tp[8];
  std::memcpy(tp, kTp, 8);
  for (const TargetCase &c : cases) {
    SCOPED_TRACE(c.name);
    ++tp[7];  // a context of its own, so earlier cases do not share it
    snt_reset();
    snt_script_verbs(1);
    Conversation conv = make_conversation();
    conv.cccb->ulAppcConvId = c.appc_conv_id;
    conv.cccb->fInitializeState = c.initialize_state;
    conv.cccb->usVerbsOutstanding = c.verbs_outstanding;
    conv.cccb->vcb.hdr.opcode = c.opcode_in_vcb;
    conv.cccb->ulConversationType = CM_BASIC_CONVERSATION;
    std::memcpy(conv.cccb->TpId, tp, 8);

    EXPECT_EQ(cancel(conv), CM_OK);
    // A conversation freed by the cancel was the last of its context, which
    // therefore ends too.
    const bool freed = c.verbs_outstanding == 0;
    ASSERT_EQ(snt_submitted_count(), freed ? 2u : 1u);
    if (freed) {
      EXPECT_EQ(snt_submitted_opcode(1), NAP_TP_ENDED);
    }
    const NAP_HDR hdr = submitted_cancel(0);
    EXPECT_EQ(hdr.opext, NAP_OPEXT_BASIC);
    const unsigned char zero[8] = {};
    EXPECT_EQ(std::memcmp(hdr.tp_id, c.expect_tp_id ? tp : zero, 8), 0);
    const uint32_t expected_conv = c.expect_own_handle ? handle_of(conv) : c.appc_conv_id;
    EXPECT_EQ(hdr.conv_id, expected_conv);
    EXPECT_EQ(snt_assert_count(), 0u);
    if (freed) {
      EXPECT_FALSE(known(conv.id));
    } else {
      // The accept in progress still owns the conversation; it is ended and
      // goes when that verb completes.
      ASSERT_TRUE(known(conv.id));
      EXPECT_EQ(conv.cccb->usVerbsOutstanding, 1);
      EXPECT_EQ(conv.cccb->fConversationEnded, 1);
      // The cancel had a VCB of its own: the accept's is untouched.
      EXPECT_EQ(conv.cccb->vcb.hdr.opcode, NAP_RECEIVE_ALLOCATE_CPIC);
    }
    EXPECT_EQ(g_books.live_wait_objects.size(), wait_objects_before_);
  }
}

TEST_F(CancelTest, ConversationNeverSubmittedIsFreedWithoutAVerb) {
  Conversation c = make_conversation();
  c.cccb->fInitializeState = 1;
  EXPECT_EQ(cancel(c), CM_OK);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_FALSE(known(c.id));
  EXPECT_EQ(cancel(c), CM_PROGRAM_PARAMETER_CHECK);
}

TEST_F(CancelTest, VerbBeforeTheConversationExistsLeavesACancelPending) {
  Conversation c = make_conversation();
  c.cccb->fInitializeState = 1;
  c.cccb->usVerbsOutstanding = 1;
  c.cccb->vcb.hdr.opcode = NAP_FLUSH;  // anything but TP start or allocate
  EXPECT_EQ(cancel(c), CM_OK);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_EQ(c.cccb->fCancelPending, 1);
  EXPECT_TRUE(known(c.id));
  ASSERT_EQ(snt_assert_count(), 1u);
  EXPECT_EQ(core_test::assertion(0), "cccb_ptr->vcb.alloc.opcode == NAP_B_ALLOCATE");
}

TEST_F(CancelTest, AcceptWithAnUnexpectedVerbIsReported) {
  Conversation c = make_conversation();
  c.cccb->usVerbsOutstanding = 1;
  c.cccb->vcb.hdr.opcode = NAP_FLUSH;
  EXPECT_EQ(cancel(c), CM_OK);
  ASSERT_EQ(snt_assert_count(), 1u);
  EXPECT_EQ(core_test::assertion(0),
            "cccb_ptr->vcb.rcvallcp.rcv_alloc.opcode == NAP_RECEIVE_ALLOCATE_CPIC");
  EXPECT_EQ(submitted_cancel(0).conv_id, handle_of(c));
}

TEST_F(CancelTest, CancelWaitsForTheNodeInEveryMode) {
  for (uint16_t mode : {uint16_t{0}, uint16_t{CM_NON_BLOCKING}}) {
    SCOPED_TRACE(mode);
    snt_reset();
    snt_script_verbs(1);
    Conversation c = make_conversation();
    c.cccb->ulAppcConvId = 5;
    c.cccb->usProcessingMode = mode;
    push_script(NAP_CANCEL, 0, 0, true);
    std::thread node([] {
      while (snt_pending_count() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
      snt_complete_pending(0);
    });
    EXPECT_EQ(cancel(c), CM_OK);
    node.join();
    EXPECT_EQ(snt_pending_count(), 0u);
    EXPECT_FALSE(known(c.id));
    EXPECT_EQ(pGCB->NumVerbsOutstanding, 0u);
    EXPECT_EQ(g_books.live_wait_objects.size(), wait_objects_before_);
  }
}

TEST_F(CancelTest, CancelBesideAnOutstandingVerbLeavesTheFreeToItsCompletion) {
  Conversation c = make_conversation();
  c.cccb->ulAppcConvId = 5;
  c.cccb->usProcessingMode = CM_NON_BLOCKING;
  push_script(NAP_RECEIVE_AND_WAIT, 0x2100, 0, true);
  {
    Locked lock;
    SCC_vcb_init(c.cccb, NAP_RECEIVE_AND_WAIT);
    SCC_set_completion_info(c.cccb, kVerbCMRCV, c.id);
    ASSERT_EQ(SCC_submit_conversation_verb(c.cccb, core_test::test_completion),
              CM_OPERATION_INCOMPLETE);
  }
  EXPECT_EQ(cancel(c), CM_OK);
  EXPECT_TRUE(known(c.id));
  EXPECT_EQ(c.cccb->usVerbsOutstanding, 1);

  ASSERT_EQ(snt_complete_pending(0), 1);
  EXPECT_TRUE(known(c.id));  // its result waits for CMWAIT
  unsigned char id[8] = {};
  CM_RETURN_CODE conversation_rc = -1, rc = -1;
  CMWAIT(id, &conversation_rc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(conversation_rc, CM_PRODUCT_SPECIFIC_ERROR);  // 0x2100 has no CPI-C code
  EXPECT_FALSE(known(c.id));
}

TEST_F(CancelTest, RefusedWaitObjectAndRefusedCancel) {
  Conversation c = make_conversation();
  c.cccb->ulAppcConvId = 5;
  snt_refuse_wait_objects(1);
  EXPECT_EQ(cancel(c), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_EQ(c.cccb->usVerbsOutstanding, 0);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, 0x2003000Bu);
  EXPECT_EQ(problem(0).probe, 18u);

  snt_reset();
  snt_script_verbs(1);
  push_script(NAP_CANCEL, 0x0200, 0);
  EXPECT_EQ(cancel(c), CM_PROGRAM_STATE_CHECK);
  EXPECT_FALSE(known(c.id));
  EXPECT_EQ(g_books.live_wait_objects.size(), wait_objects_before_);
}

}  // namespace

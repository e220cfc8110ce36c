// Blocking and non-blocking completion of every conversation verb: one CMWAIT
// completion with the verb's result, 37 for a second verb meanwhile, and the
// record's end after a conversation-ending result.
#include "verbs_calls.h"

namespace verbs_test {
namespace {

class VerbCompletion : public VerbsTest {};

// Every verb call plus deallocate, each run non-blocking.
std::vector<Call> all_submitting_calls() {
  std::vector<Call> calls = verb_calls();
  calls.push_back(deallocate_call());
  return calls;
}

TEST_F(VerbCompletion, NonBlockingVerbCompletesThroughOneWait) {
  for (const Call &call : all_submitting_calls()) {
    // A non-ending failure keeps the conversation; an ending one frees it once
    // the completion is collected.
    for (uint16_t primary : {AP_PROG_ERROR_NO_TRUNC, AP_DEALLOC_NORMAL}) {
      restart_node();
      ConvId id{};
      CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION, 1);
      const std::string what = call.name + " primary " + std::to_string(primary);
      push(script(0, primary, 0, 1));
      ASSERT_EQ(call.run(id), CM_OPERATION_INCOMPLETE) << what;
      EXPECT_EQ(snt_submitted_with_routine(0), 1) << what;
      EXPECT_EQ(pGCB->NumVerbsOutstanding, 1u) << what;

      Vcb area{};
      std::memcpy(area.data(), cccb->vcb.bytes, area.size());
      for (const Call &second : all_submitting_calls()) {
        EXPECT_EQ(second.run(id), CM_OPERATION_NOT_ACCEPTED) << what << " then " << second.name;
      }
      EXPECT_EQ(std::memcmp(area.data(), cccb->vcb.bytes, area.size()), 0) << what;
      EXPECT_EQ(snt_submitted_count(), 1u) << what;

      ASSERT_EQ(snt_complete_pending(0), 1) << what;
      EXPECT_EQ(pGCB->NumVerbsOutstanding, 0u) << what;
      EXPECT_EQ(pGCB->NumVerbsWaiting, 1u) << what;
      ASSERT_EQ(cccb_of(id), cccb) << what << ": kept until collected";

      expect_completion(
          id, primary == AP_DEALLOC_NORMAL ? CM_DEALLOCATED_NORMAL : CM_PROGRAM_ERROR_NO_TRUNC,
          what);
      EXPECT_EQ(cccb_of(id) == nullptr, primary == AP_DEALLOC_NORMAL) << what;
      EXPECT_EQ(wait_one().rc, CM_PROGRAM_STATE_CHECK) << what << ": one completion only";
    }
  }
}

TEST_F(VerbCompletion, BlockingVerbLeavesProcessCountersAlone) {
  for (const Call &call : all_submitting_calls()) {
    ConvId id{};
    active_conversation(id, CM_BASIC_CONVERSATION, 0);
    push(script(0, AP_OK));
    const uint32_t before = snt_submitted_count();
    EXPECT_EQ(call.run(id), CM_OK) << call.name;
    EXPECT_EQ(snt_submitted_with_routine(before), 0) << call.name;
    EXPECT_EQ(pGCB->NumVerbsOutstanding, 0u) << call.name;
    EXPECT_EQ(pGCB->NumVerbsWaiting, 0u) << call.name;
  }
}

TEST_F(VerbCompletion, UncollectedCompletionIsDroppedByTheNextVerb) {
  ConvId id{};
  active_conversation(id, CM_BASIC_CONVERSATION, 1);
  push(script(NAP_FLUSH, AP_PROG_ERROR_NO_TRUNC, 0, 1));
  CM_RETURN_CODE rc = -1;
  cmflus(id.data(), &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  ASSERT_EQ(pGCB->NumVerbsWaiting, 1u);

  push(script(NAP_REQUEST_TO_SEND, AP_OK, 0, 1));
  cmrts(id.data(), &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(pGCB->NumVerbsWaiting, 0u);
  ASSERT_EQ(snt_complete_pending(0), 1);
  const Waited w = wait_one();
  EXPECT_EQ(w.conversation_rc, CM_OK) << "the flush result is gone";
  EXPECT_EQ(snt_assert_count(), 0u);
}

}  // namespace
}  // namespace verbs_test

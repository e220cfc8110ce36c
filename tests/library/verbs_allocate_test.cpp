// Allocate: the TP it allocates under, the ALLOCATE record built from the
// side information, its results, and the TP's end when the call goes nowhere.
#include "verbs_calls.h"

namespace verbs_test {
namespace {

class AllocateVerb : public VerbsTest {};

const unsigned char kLocalLu[8] = {'L', 'O', 'C', 'A', 'L', 'L', 'U', ' '};

// An initialised conversation with side information as CMINIT would fill it.
CCCB *ready_to_allocate(ConvId &id, bool qualified, uint32_t security) {
  CCCB *cccb = initialized_conversation(id);
  SCD_ENTRY &side = cccb->SideInfo;
  if (qualified) {
    // NETA.PARTNER in EBCDIC, X'40' padded to 17.
    const uint8_t name[17] = {0xD5, 0xC5, 0xE3, 0xC1, 0x4B, 0xD7, 0xC1, 0xD9, 0xE3,
                              0xD5, 0xC5, 0xD9, 0x40, 0x40, 0x40, 0x40, 0x40};
    std::memcpy(side.partner_LU_name, name, 17);
    side.usPartnerLUQualified = 1;
  } else {
    std::memcpy(side.partner_LU_name, "PARTNER1", 8);
  }
  std::memset(side.mode_name, 0x40, 8);
  std::memset(side.mode_name, 0xD4, 3);
  std::memset(side.TP_name, 0x40, 64);
  std::memset(side.TP_name, 0xE3, 5);
  side.conversation_security_type = security;
  std::memset(side.security_user_ID, 0xE4, 10);
  std::memset(side.security_password, 0xD7, 10);
  std::memcpy(cccb->LocalLUName, kLocalLu, 8);
  cccb->ulConversationType = CM_MAPPED_CONVERSATION;
  cccb->ulSyncLevel = CM_CONFIRM;
  cccb->ulReturnControl = 1;
  return cccb;
}

CM_RETURN_CODE allocate(ConvId &id) {
  CM_RETURN_CODE rc = -1;
  cmallc(id.data(), &rc);
  return rc;
}

TEST_F(AllocateVerb, RecordsFollowSideInformation) {
  struct Row {
    bool qualified;
    uint32_t security;
  };
  for (const Row row : {Row{false, CM_SECURITY_SAME}, Row{true, CM_SECURITY_PROGRAM},
                        Row{false, CM_SECURITY_NONE}}) {
    restart_node();
    ConvId id{};
    CCCB *cccb = ready_to_allocate(id, row.qualified, row.security);
    const std::string what = std::string(row.qualified ? "qualified" : "alias") + ", security " +
                             std::to_string(row.security);
    ASSERT_EQ(allocate(id), CM_OK) << what;
    ASSERT_EQ(snt_submitted_count(), 2u) << what;

    expect_record(submitted(0),
                  {{0, u16(NAP_START_TP)}, {12, raw(kLocalLu, 8)}, {28, raw(pGCB->TpName, 64)}},
                  "start TP, " + what);

    std::vector<Field> fields = {{0, u16(NAP_B_ALLOCATE)},
                                 {2, u8(1)},
                                 {3, u8(1)},
                                 {12, raw(cccb->TpId, 8)},
                                 {25, u8(CM_CONFIRM)},
                                 {28, u8(1)},
                                 {48, raw(cccb->SideInfo.mode_name, 8)},
                                 {56, raw(cccb->SideInfo.TP_name, 64)},
                                 {120, u8(static_cast<uint8_t>(row.security))},
                                 {142, raw(cccb->SideInfo.security_user_ID, 10)}};
    if (row.security != CM_SECURITY_SAME) {
      fields.push_back({132, raw(cccb->SideInfo.security_password, 10)});
    }
    if (row.qualified) {
      fields.push_back({169, raw(cccb->SideInfo.partner_LU_name, 17)});
    } else {
      fields.push_back({40, raw("PARTNER1", 8)});
    }
    expect_record(submitted(1), fields, "allocate, " + what);
    EXPECT_NE(cccb->ulAppcConvId, 0u) << what;
    EXPECT_EQ(cccb->fNewContext, 0) << what;
  }
}

TEST_F(AllocateVerb, EachAllocateWithoutContextStartsItsOwnTp) {
  ConvId first{}, second{};
  CCCB *a = ready_to_allocate(first, false, CM_SECURITY_NONE);
  CCCB *b = ready_to_allocate(second, false, CM_SECURITY_NONE);
  ASSERT_EQ(allocate(first), CM_OK);
  ASSERT_EQ(allocate(second), CM_OK);
  EXPECT_NE(std::memcmp(a->TpId, b->TpId, 8), 0);
  EXPECT_EQ(std::count_if(std::begin(pGCB->CurrentContext), std::end(pGCB->CurrentContext),
                          [](unsigned char c) { return c != 0; }),
            0)
      << "no context becomes current";
  // TP started, allocated, for each conversation.
  ASSERT_EQ(snt_audit_count(), 4u);
  EXPECT_EQ(audit(0).code, kAuditTpStarted);
  EXPECT_EQ(std::memcmp(audit(0).bytes[0], a->TpId, 8), 0);
  EXPECT_EQ(audit(1).code, kAuditAllocated);
  EXPECT_EQ(std::string(audit(1).arg_types), "ba ca");
  EXPECT_EQ(std::memcmp(audit(1).bytes[0], first.data(), 8), 0);
  EXPECT_EQ(audit(2).code, kAuditTpStarted);
  EXPECT_EQ(std::memcmp(audit(2).bytes[0], b->TpId, 8), 0);
  EXPECT_EQ(audit(3).code, kAuditAllocated);
}

TEST_F(AllocateVerb, AuditRecordsCanBeSuppressed) {
  suppress_audit_records();
  ConvId id{};
  ready_to_allocate(id, false, CM_SECURITY_NONE);
  ASSERT_EQ(allocate(id), CM_OK);
  EXPECT_EQ(snt_audit_count(), 0u);
}

TEST_F(AllocateVerb, CurrentContextOfTheSameLuIsReused) {
  ConvId id{};
  CCCB *cccb = ready_to_allocate(id, false, CM_SECURITY_NONE);
  const unsigned char context[8] = {9, 9, 9, 9, 1, 2, 3, 4};
  std::memcpy(pGCB->CurrentContext, context, 8);
  std::memcpy(pGCB->CurrentContextLU, kLocalLu, 8);
  ASSERT_EQ(allocate(id), CM_OK);
  ASSERT_EQ(snt_submitted_count(), 1u) << "no TP started";
  EXPECT_EQ(snt_submitted_opcode(0), NAP_B_ALLOCATE);
  EXPECT_EQ(std::memcmp(cccb->TpId, context, 8), 0);

  // Another LU's context is not used.
  ConvId other{};
  ready_to_allocate(other, false, CM_SECURITY_NONE);
  std::memcpy(cccb_of(other)->LocalLUName, "OTHERLU ", 8);
  ASSERT_EQ(allocate(other), CM_OK);
  EXPECT_EQ(snt_submitted_opcode(1), NAP_START_TP);
}

TEST_F(AllocateVerb, RefusedCallEndsItsTpAndLeavesTheRecordAlone) {
  // Already allocated (25), and busy with a non-blocking verb (37).
  for (bool busy : {false, true}) {
    restart_node();
    ConvId id{};
    CCCB *cccb = active_conversation(id, CM_MAPPED_CONVERSATION, busy ? 1 : 0);
    if (busy) {
      push(script(NAP_FLUSH, AP_OK, 0, 1));
      CM_RETURN_CODE rc = -1;
      cmflus(id.data(), &rc);
      ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
    }
    const std::string what = busy ? "busy" : "allocated";
    std::memcpy(cccb->LocalLUName, kLocalLu, 8);
    Vcb area{};
    std::memcpy(area.data(), cccb->vcb.bytes, area.size());
    const uint32_t before = snt_submitted_count();

    EXPECT_EQ(allocate(id), busy ? CM_OPERATION_NOT_ACCEPTED : CM_PROGRAM_STATE_CHECK) << what;

    ASSERT_EQ(snt_submitted_count(), before + 2) << what;
    EXPECT_EQ(snt_submitted_opcode(before), NAP_START_TP) << what;
    EXPECT_EQ(snt_submitted_opcode(before + 1), NAP_TP_ENDED) << what;
    const Vcb ended = submitted(before + 1);
    EXPECT_EQ(ended[20], 1) << what << ": ended hard";
    EXPECT_EQ(std::memcmp(cccb->vcb.bytes, area.data(), area.size()), 0) << what;
    EXPECT_EQ(std::memcmp(cccb->TpId, kTpId, 8), 0) << what;
    EXPECT_EQ(std::memcmp(cccb->LocalLUName, kLocalLu, 8), 0) << what;
    EXPECT_EQ(cccb->usVerbsOutstanding, busy ? 1 : 0) << what;
  }
}

TEST_F(AllocateVerb, RefusedTpStartFreesTheConversation) {
  ConvId id{};
  ready_to_allocate(id, false, CM_SECURITY_NONE);
  push(script(NAP_START_TP, AP_PARAMETER_CHECK, AP_UNKNOWN_PARTNER_LU));
  EXPECT_EQ(allocate(id), CM_PARAMETER_ERROR);
  EXPECT_EQ(snt_submitted_count(), 1u);
  EXPECT_EQ(cccb_of(id), nullptr);
  EXPECT_EQ(snt_audit_count(), 0u);
}

TEST_F(AllocateVerb, FailuresThatEndTheTpOrTheConversation) {
  struct Row {
    uint16_t primary;
    uint32_t secondary;
    CM_RETURN_CODE rc;
    bool tp_ended_here;
    bool conversation_ends;
  };
  const std::vector<Row> rows = {
      {AP_PARAMETER_CHECK, AP_BAD_MODE_NAME, CM_PARAMETER_ERROR, true, false},
      {AP_PARAMETER_CHECK, AP_BAD_FIELD, CM_PROGRAM_PARAMETER_CHECK, true, false},
      {AP_UNSUCCESSFUL, 0, CM_UNSUCCESSFUL, true, false},
      {AP_STATE_CHECK, 0, CM_PROGRAM_STATE_CHECK, false, false},
      {AP_ALLOCATION_ERROR, AP_ALLOCATION_FAILURE_RETRY, CM_ALLOCATE_FAILURE_RETRY, false, true},
  };
  for (const Row &row : rows) {
    restart_node();
    ConvId id{};
    CCCB *cccb = ready_to_allocate(id, false, CM_SECURITY_NONE);
    push(script(NAP_B_ALLOCATE, row.primary, row.secondary));
    const std::string what = "primary " + std::to_string(row.primary);
    EXPECT_EQ(allocate(id), row.rc) << what;
    EXPECT_EQ(snt_submitted_count() > 2 && snt_submitted_opcode(2) == NAP_TP_ENDED,
              row.tp_ended_here || row.conversation_ends)
        << what;
    EXPECT_EQ(cccb_of(id) == nullptr, row.conversation_ends) << what;
    if (!row.conversation_ends) {
      EXPECT_EQ(cccb->ulAppcConvId, 0u) << what << ": still in Initialize state";
      EXPECT_EQ(cccb->fNewContext, 0) << what;
    }
  }
}

// A non-blocking allocate the node answers later.
CCCB *allocate_in_progress(ConvId &id) {
  CCCB *cccb = ready_to_allocate(id, false, CM_SECURITY_NONE);
  cccb->usProcessingMode = 1;
  push(script(NAP_B_ALLOCATE, AP_OK, 0, 1));
  EXPECT_EQ(allocate(id), CM_OPERATION_INCOMPLETE);
  return cccb;
}

TEST_F(AllocateVerb, NonBlockingAllocateCompletesThroughWait) {
  ConvId id{};
  CCCB *cccb = allocate_in_progress(id);
  EXPECT_EQ(snt_submitted_with_routine(0), 0) << "the TP start is synchronous";
  EXPECT_EQ(snt_submitted_with_routine(1), 1);
  EXPECT_EQ(cccb->ulAppcConvId, 0u);
  ASSERT_EQ(snt_complete_pending(0), 1);
  EXPECT_NE(cccb->ulAppcConvId, 0u);
  expect_completion(id, CM_OK);
}

TEST_F(AllocateVerb, CancelPendingWhenAllocateSucceedsCancelsAtTheNode) {
  ConvId id{};
  CCCB *cccb = allocate_in_progress(id);
  cccb->fCancelPending = 1;  // as CMCANC leaves it while the ALLOCATE is out
  ASSERT_EQ(snt_complete_pending(0), 1);
  ASSERT_EQ(snt_submitted_count(), 3u);
  EXPECT_EQ(snt_submitted_opcode(2), NAP_CANCEL);
  const Vcb cancel = submitted(2);
  EXPECT_EQ(cancel[2], 1) << "opext of a mapped conversation";
  EXPECT_EQ(std::memcmp(&cancel[12], cccb->TpId, 8), 0);
  EXPECT_NE(cancel[20] | cancel[21] | cancel[22] | cancel[23], 0) << "the new conversation";
  EXPECT_EQ(cccb->ulAppcConvId, 0u);
  EXPECT_EQ(cccb->fCancelPending, 0);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemCancelPending);
  ConvId done{};
  CM_RETURN_CODE conversation_rc = -1;
  CM_RETURN_CODE rc = -1;
  cmwait(done.data(), &conversation_rc, &rc);
  EXPECT_EQ(conversation_rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(cccb_of(id), nullptr);
}

}  // namespace
}  // namespace verbs_test

// Deallocate: the dealloc_type table, log data on basic abends, the local end
// of a conversation the node never saw, and when the record goes away.
#include "verbs_calls.h"

namespace verbs_test {
namespace {

class DeallocateVerb : public VerbsTest {};

CM_RETURN_CODE deallocate(ConvId &id) {
  CM_RETURN_CODE rc = -1;
  cmdeal(id.data(), &rc);
  return rc;
}

unsigned char *library_block(uint32_t size) {
  return static_cast<unsigned char *>(nba_mm_alloc(size, kMemKept, nba_blank_name, 0, 0));
}

TEST_F(DeallocateVerb, RecordFollowsDeallocateAndConversationType) {
  struct Row {
    uint32_t deallocate_type, conversation_type;
    uint8_t dealloc_type;
    bool log_data;
  };
  const std::vector<Row> rows = {
      {CM_DEALLOCATE_SYNC_LEVEL, CM_BASIC_CONVERSATION, 0, false},
      {CM_DEALLOCATE_SYNC_LEVEL, CM_MAPPED_CONVERSATION, 0, false},
      {CM_DEALLOCATE_FLUSH, CM_BASIC_CONVERSATION, 1, false},
      {CM_DEALLOCATE_FLUSH, CM_MAPPED_CONVERSATION, 1, false},
      {CM_DEALLOCATE_CONFIRM, CM_BASIC_CONVERSATION, 0, false},
      {CM_DEALLOCATE_CONFIRM, CM_MAPPED_CONVERSATION, 0, false},
      {CM_DEALLOCATE_ABEND, CM_BASIC_CONVERSATION, 2, true},
      {CM_DEALLOCATE_ABEND, CM_MAPPED_CONVERSATION, 5, false},
  };
  for (const Row &row : rows) {
    ConvId id{};
    CCCB *cccb = active_conversation(id, row.conversation_type);
    cccb->ulDeallocateType = row.deallocate_type;
    // Log data is set on every conversation; only a basic abend sends it.
    cccb->pLogData = library_block(20);
    cccb->usLogDataLength = 20;
    const void *log_data = cccb->pLogData;
    const uint32_t before = snt_submitted_count();
    EXPECT_EQ(deallocate(id), CM_OK);
    std::vector<Field> body{{25, u8(row.dealloc_type)}};
    if (row.log_data) body = body + std::vector<Field>{{26, u16(20)}, {32, ptr(log_data)}};
    expect_record(submitted(before),
                  header(NAP_DEALLOCATE, static_cast<uint8_t>(row.conversation_type)) + body,
                  "deallocate type " + std::to_string(row.deallocate_type) + " conversation " +
                      std::to_string(row.conversation_type));
    EXPECT_EQ(cccb_of(id), nullptr) << "a successful deallocate ends the conversation";
  }
}

TEST_F(DeallocateVerb, BasicAbendWithoutLogDataCopyIsRefused) {
  ConvId id{};
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION);
  cccb->ulDeallocateType = CM_DEALLOCATE_ABEND;
  cccb->usLogDataLength = 8;
  EXPECT_EQ(deallocate(id), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(snt_submitted_count(), 0u);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemLogData);
  EXPECT_EQ(problem(0).probe, 1u);
  EXPECT_EQ(cccb_of(id), cccb);
}

TEST_F(DeallocateVerb, ConversationNeverAllocatedEndsOnlyByAbend) {
  ConvId flush{};
  CCCB *cccb = initialized_conversation(flush);
  cccb->ulDeallocateType = CM_DEALLOCATE_FLUSH;
  EXPECT_EQ(deallocate(flush), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(cccb_of(flush), cccb) << "still usable";

  cccb->ulDeallocateType = CM_DEALLOCATE_ABEND;
  EXPECT_EQ(deallocate(flush), CM_OK);
  EXPECT_EQ(snt_submitted_count(), 0u) << "purely local";
  EXPECT_EQ(cccb_of(flush), nullptr);
  EXPECT_EQ(deallocate(flush), CM_PROGRAM_PARAMETER_CHECK);

  ConvId incoming{};
  cccb = incoming_conversation(incoming);
  cccb->ulDeallocateType = CM_DEALLOCATE_ABEND;
  EXPECT_EQ(deallocate(incoming), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(cccb_of(incoming), cccb);
}

TEST_F(DeallocateVerb, StateCheckLeavesConversationUsable) {
  ConvId id{};
  CCCB *cccb = active_conversation(id);
  push(script(NAP_DEALLOCATE, AP_STATE_CHECK));
  EXPECT_EQ(deallocate(id), CM_PROGRAM_STATE_CHECK);
  ASSERT_EQ(cccb_of(id), cccb);
  EXPECT_EQ(cccb->fConversationEnded, 0);
  EXPECT_EQ(deallocate(id), CM_OK);
  EXPECT_EQ(cccb_of(id), nullptr);
}

TEST_F(DeallocateVerb, AuditRecordFollowsTheTraceFlag) {
  for (bool suppressed : {false, true}) {
    if (suppressed) suppress_audit_records();
    const uint32_t before = snt_audit_count();
    ConvId id{};
    CCCB *cccb = active_conversation(id);
    std::memcpy(cccb->SideInfo.local_LU_alias, "LUALIAS1", 8);
    ASSERT_EQ(deallocate(id), CM_OK);
    if (suppressed) {
      EXPECT_EQ(snt_audit_count(), before);
      continue;
    }
    ASSERT_EQ(snt_audit_count(), before + 1);
    const SNT_RECORD record = audit(before);
    EXPECT_EQ(record.code, kAuditDeallocated);
    EXPECT_EQ(std::string(record.arg_types), "ba ca");
    EXPECT_EQ(record.args[0], 8u);
    EXPECT_EQ(std::memcmp(record.bytes[0], id.data(), 8), 0);
    EXPECT_EQ(std::memcmp(record.bytes[1], "LUALIAS1", 8), 0);
  }
}

TEST_F(DeallocateVerb, NonBlockingKeepsTheIdUntilCollected) {
  ConvId id{};
  active_conversation(id, CM_MAPPED_CONVERSATION, 1);
  push(script(NAP_DEALLOCATE, AP_OK, 0, 1));
  EXPECT_EQ(deallocate(id), CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  EXPECT_NE(cccb_of(id), nullptr) << "kept until CMWAIT reports it";
  expect_completion(id, CM_OK);
  EXPECT_EQ(cccb_of(id), nullptr);
}

}  // namespace
}  // namespace verbs_test

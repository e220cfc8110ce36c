// Receive and Test_Request_To_Send_Received: the receive record, the two-step
// decoding of what_received with the confirmation flags it sets, the length
// limit and the synchronous request-to-send test.
#include "verbs_calls.h"

namespace verbs_test {
namespace {

class ReceiveVerbs : public VerbsTest {};

struct Received {
  CM_INT32 data = -1;
  CM_INT32 length = -1;
  CM_INT32 status = -1;
  CM_INT32 rts = -1;
  CM_RETURN_CODE rc = -1;
};

Received receive(ConvId &id, unsigned char *buffer, CM_INT32 requested) {
  Received r;
  cmrcv(id.data(), buffer, &requested, &r.data, &r.length, &r.status, &r.rts, &r.rc);
  return r;
}

struct ReceiveAnswer {
  uint16_t what_received;
  uint16_t data_length;
  uint8_t rts;
};

void answer_receive(void *vcb, void *context) {
  auto &verb = *static_cast<NAP_RECEIVE_VCB *>(vcb);
  const auto &answer = *static_cast<const ReceiveAnswer *>(context);
  verb.what_received = answer.what_received;
  verb.data_length = answer.data_length;
  verb.rts_received = answer.rts;
}

TEST_F(ReceiveVerbs, RecordFollowsReceiveTypeAndFill) {
  static unsigned char buffer[100];
  struct Row {
    uint32_t receive_type, fill, conversation_type;
    uint16_t opcode;
    uint8_t fill_byte;
  };
  const std::vector<Row> rows = {
      {CM_RECEIVE_AND_WAIT, CM_FILL_LL, CM_MAPPED_CONVERSATION, NAP_RECEIVE_AND_WAIT, 1},
      {CM_RECEIVE_AND_WAIT, CM_FILL_BUFFER, CM_BASIC_CONVERSATION, NAP_RECEIVE_AND_WAIT, 0},
      {CM_RECEIVE_IMMEDIATE, CM_FILL_LL, CM_BASIC_CONVERSATION, NAP_RECEIVE_IMMEDIATE, 1},
      {CM_RECEIVE_IMMEDIATE, CM_FILL_BUFFER, CM_MAPPED_CONVERSATION, NAP_RECEIVE_IMMEDIATE, 0},
  };
  for (const Row &row : rows) {
    ConvId id{};
    CCCB *cccb = active_conversation(id, row.conversation_type);
    cccb->ulReceiveType = row.receive_type;
    cccb->ulFill = row.fill;
    EXPECT_EQ(receive(id, buffer, 100).rc, CM_OK);
    expect_record(
        last_submitted(),
        header(row.opcode, static_cast<uint8_t>(row.conversation_type)) +
            std::vector<Field>{
                {26, u8(1)}, {27, u8(row.fill_byte)}, {30, u16(100)}, {40, ptr(buffer)}},
        "receive type " + std::to_string(row.receive_type) + " fill " + std::to_string(row.fill));
  }
}

TEST_F(ReceiveVerbs, WhatReceivedIsSplitIntoDataAndStatus) {
  struct Row {
    uint16_t what;
    CM_INT32 data, status;
    uint16_t confirm_requested, confirm_dealloc;
    uint32_t assertions;
  };
  const std::vector<Row> rows = {
      {0x0000, 0, 0, 0, 0, 0}, {0x0001, 0, 1, 0, 0, 0}, {0x0002, 0, 2, 1, 0, 0},
      {0x0003, 0, 3, 1, 0, 0}, {0x0004, 0, 4, 1, 1, 0}, {0x0100, 1, 0, 0, 0, 0},
      {0x0101, 1, 1, 0, 0, 0}, {0x0102, 1, 2, 1, 0, 0}, {0x0103, 1, 3, 1, 0, 0},
      {0x0104, 1, 4, 1, 1, 0}, {0x0200, 2, 0, 0, 0, 0}, {0x0202, 2, 2, 1, 0, 0},
      {0x0204, 2, 4, 1, 1, 0}, {0x0400, 3, 0, 0, 0, 0}, {0x0105, 0, 0, 0, 0, 2},
      {0x0401, 0, 0, 0, 0, 2}, {0x0300, 0, 0, 0, 0, 2}, {0xFFFF, 0, 0, 0, 0, 2},
  };
  static unsigned char buffer[50];
  for (const Row &row : rows) {
    restart_node();
    ConvId id{};
    CCCB *cccb = active_conversation(id);
    ReceiveAnswer answer{row.what, 42, 1};
    push(script(0, AP_OK, 0, 0, answer_receive, &answer));
    const Received r = receive(id, buffer, 50);
    const std::string what = "what_received " + std::to_string(row.what);
    EXPECT_EQ(r.rc, CM_OK) << what;
    EXPECT_EQ(r.data, row.data) << what;
    EXPECT_EQ(r.status, row.status) << what;
    EXPECT_EQ(r.length, 42) << what;
    EXPECT_EQ(r.rts, 1) << what;
    EXPECT_EQ(cccb->fConfirmRequested, row.confirm_requested) << what;
    EXPECT_EQ(cccb->fConfirmDeallocReceived, row.confirm_dealloc) << what;
    ASSERT_EQ(snt_assert_count(), row.assertions) << what;
    for (uint32_t n = 0; n < row.assertions; ++n) {
      EXPECT_EQ(assertion(n), "vcpic/cpiccal3: FALSE") << what;
    }
  }
}

TEST_F(ReceiveVerbs, OutputsAreWrittenAfterAFailureToo) {
  ConvId id{};
  active_conversation(id);
  static unsigned char buffer[10];
  ReceiveAnswer answer{0x0100, 7, 0};
  push(script(0, AP_PROG_ERROR_PURGING, 0, 0, answer_receive, &answer));
  const Received r = receive(id, buffer, 10);
  EXPECT_EQ(r.rc, CM_PROGRAM_ERROR_PURGING);
  EXPECT_EQ(r.data, CM_DATA_RECEIVED);
  EXPECT_EQ(r.length, 7);
  EXPECT_EQ(r.rts, 0);
  EXPECT_NE(cccb_of(id), nullptr) << "a purged record does not end the conversation";
}

TEST_F(ReceiveVerbs, RequestedLengthAboveLimitIsRefused) {
  static unsigned char buffer[1];
  const std::vector<std::pair<CM_INT32, bool>> cases = {
      {0, true}, {32767, true}, {32768, false}, {-1, false}};
  for (const auto &[length, accepted] : cases) {
    restart_node();
    ConvId id{};
    active_conversation(id);
    const Received r = receive(id, buffer, length);
    EXPECT_EQ(r.length, 0) << length;
    EXPECT_EQ(r.data, accepted ? 0 : -1) << "untouched when refused: " << length;
    EXPECT_EQ(r.rc, accepted ? CM_OK : CM_PROGRAM_PARAMETER_CHECK) << length;
    EXPECT_EQ(snt_submitted_count(), accepted ? 1u : 0u) << length;
    if (!accepted) {
      ASSERT_EQ(snt_problem_count(), 1u);
      EXPECT_EQ(problem(0).code, kProblemBadLength);
      EXPECT_EQ(problem(0).probe, 0u);
    }
  }
}

TEST_F(ReceiveVerbs, ReceivedLengthIsClearedBeforeAnyCheck) {
  ConvId unknown{0xEE, 0xEE};
  static unsigned char buffer[1];
  EXPECT_EQ(receive(unknown, buffer, 1).length, 0);
  ConvId initialized{};
  initialized_conversation(initialized);
  const Received r = receive(initialized, buffer, 1);
  EXPECT_EQ(r.rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(r.length, 0);
}

TEST_F(ReceiveVerbs, NonBlockingReceiveWritesOutputsAtCompletion) {
  ConvId id{};
  active_conversation(id, CM_MAPPED_CONVERSATION, 1);
  static Received r;
  static unsigned char buffer[20];
  CM_INT32 requested = 20;
  static ReceiveAnswer answer{0x0203, 12, 1};
  push(script(0, AP_OK, 0, 1, answer_receive, &answer));
  cmrcv(id.data(), buffer, &requested, &r.data, &r.length, &r.status, &r.rts, &r.rc);
  ASSERT_EQ(r.rc, CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(r.length, 0);
  EXPECT_EQ(snt_submitted_with_routine(0), 1);
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK);
  EXPECT_EQ(r.length, 12);
  EXPECT_EQ(r.data, CM_COMPLETE_DATA_RECEIVED);
  EXPECT_EQ(r.status, CM_CONFIRM_SEND_RECEIVED);
  EXPECT_EQ(r.rts, 1);
}

TEST_F(ReceiveVerbs, TestRequestToSendAnswersFromThePrimaryCode) {
  struct Row {
    uint16_t primary;
    CM_RETURN_CODE rc;
    CM_INT32 rts;  // -1: left as it was
    bool ends;
  };
  const std::vector<Row> rows = {
      {AP_OK, CM_OK, CM_REQ_TO_SEND_RECEIVED, false},
      {AP_UNSUCCESSFUL, CM_OK, CM_REQ_TO_SEND_NOT_RECEIVED, false},
      {AP_STATE_CHECK, CM_PROGRAM_STATE_CHECK, -1, false},
      {AP_DEALLOC_ABEND, CM_DEALLOCATED_ABEND, -1, true},
  };
  for (const Row &row : rows) {
    ConvId id{};
    active_conversation(id, CM_BASIC_CONVERSATION, 1);  // non-blocking: still synchronous
    push(script(NAP_TEST_RTS, row.primary));
    CM_INT32 rts = -1;
    CM_RETURN_CODE rc = -1;
    const uint32_t before = snt_submitted_count();
    cmtrts(id.data(), &rts, &rc);
    EXPECT_EQ(rc, row.rc) << row.primary;
    EXPECT_EQ(rts, row.rts) << row.primary;
    EXPECT_EQ(cccb_of(id) == nullptr, row.ends) << row.primary;
    EXPECT_EQ(snt_submitted_with_routine(before), 0);
    expect_record(submitted(before), header(NAP_TEST_RTS, 0), "test rts");
    EXPECT_EQ(pGCB->NumVerbsWaiting, 0u);
    EXPECT_EQ(pGCB->NumVerbsOutstanding, 0u);
  }
}

TEST_F(ReceiveVerbs, TestRequestToSendIsRefusedWhileConfirmationPending) {
  ConvId id{};
  CCCB *cccb = active_conversation(id);
  static unsigned char buffer[4];
  static ReceiveAnswer answer{0x0102, 4, 0};
  push(script(0, AP_OK, 0, 0, answer_receive, &answer));
  const Received r = receive(id, buffer, 4);
  ASSERT_EQ(r.status, CM_CONFIRM_RECEIVED);
  CM_INT32 rts = -1;
  CM_RETURN_CODE rc = -1;
  cmtrts(id.data(), &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(snt_submitted_count(), 1u);
  EXPECT_EQ(cccb->fConfirmRequested, 1) << "a later receive does not clear it either";
}

}  // namespace
}  // namespace verbs_test

// Send_Data and the control verbs: their verb records, the send length
// limit, the send-and-deallocate follow-on, log data and the flags the
// completions keep.
#include "verbs_calls.h"

namespace verbs_test {
namespace {

class SendVerbs : public VerbsTest {};

unsigned char *library_log_data(const std::vector<uint8_t> &data) {
  auto *block = static_cast<unsigned char *>(
      nba_mm_alloc(static_cast<uint32_t>(data.size()), kMemKept, nba_blank_name, 0, 0));
  std::memcpy(block, data.data(), data.size());
  return block;
}

TEST_F(SendVerbs, EachCallSubmitsItsRecord) {
  static unsigned char buffer[] = "hello";
  struct Row {
    std::string what;
    uint32_t conversation_type;
    std::function<void(CCCB &)> set;
    std::function<void(unsigned char *, CM_RETURN_CODE *)> call;
    std::vector<Field> fields;  // besides the header
    uint16_t opcode;
  };
  CM_INT32 rts = 0;
  CM_INT32 five = 5;
  auto send = [&](unsigned char *id, CM_RETURN_CODE *rc) { cmsend(id, buffer, &five, &rts, rc); };
  auto send_fields = [&](uint8_t type) {
    return std::vector<Field>{{26, u16(5)}, {32, ptr(buffer)}, {40, u8(type)}};
  };
  auto send_type = [](uint32_t st, uint32_t ptr_or_dealloc) {
    return [st, ptr_or_dealloc](CCCB &c) {
      c.ulSendType = st;
      c.ulPrepareToReceiveType = ptr_or_dealloc;
      c.ulDeallocateType = ptr_or_dealloc;
    };
  };
  auto nothing = [](CCCB &) {};
  const std::vector<Row> rows = {
      {"confirm",
       CM_MAPPED_CONVERSATION,
       nothing,
       [&](unsigned char *id, CM_RETURN_CODE *rc) { cmcfm(id, &rts, rc); },
       {},
       NAP_CONFIRM},
      {"confirmed", CM_MAPPED_CONVERSATION, nothing, cmcfmd, {}, NAP_CONFIRMED},
      {"flush", CM_BASIC_CONVERSATION, nothing, cmflus, {}, NAP_FLUSH},
      {"request to send", CM_MAPPED_CONVERSATION, nothing, cmrts, {}, NAP_REQUEST_TO_SEND},
      {"prepare to receive sync level",
       CM_MAPPED_CONVERSATION,
       [](CCCB &c) { c.ulPrepareToReceiveType = 0; },
       cmptr,
       {},
       NAP_PREPARE_TO_RECEIVE},
      {"prepare to receive flush",
       CM_MAPPED_CONVERSATION,
       [](CCCB &c) { c.ulPrepareToReceiveType = 1; },
       cmptr,
       {{24, u8(1)}},
       NAP_PREPARE_TO_RECEIVE},
      {"prepare to receive confirm",
       CM_MAPPED_CONVERSATION,
       [](CCCB &c) { c.ulPrepareToReceiveType = 2; },
       cmptr,
       {},
       NAP_PREPARE_TO_RECEIVE},
      {"send buffer", CM_MAPPED_CONVERSATION, send_type(0, 0), send, send_fields(0), NAP_SEND_DATA},
      {"send and flush", CM_MAPPED_CONVERSATION, send_type(1, 0), send, send_fields(1),
       NAP_SEND_DATA},
      {"send and confirm", CM_MAPPED_CONVERSATION, send_type(2, 0), send, send_fields(2),
       NAP_SEND_DATA},
      {"send and prepare to receive flush", CM_MAPPED_CONVERSATION, send_type(3, 1), send,
       send_fields(3), NAP_SEND_DATA},
      {"send and prepare to receive sync level", CM_MAPPED_CONVERSATION, send_type(3, 0), send,
       send_fields(4), NAP_SEND_DATA},
      {"send and prepare to receive confirm", CM_MAPPED_CONVERSATION, send_type(3, 2), send,
       send_fields(4), NAP_SEND_DATA},
      {"send and deallocate flush", CM_MAPPED_CONVERSATION, send_type(4, 1), send, send_fields(5),
       NAP_SEND_DATA},
      {"send and deallocate sync level", CM_MAPPED_CONVERSATION, send_type(4, 0), send,
       send_fields(6), NAP_SEND_DATA},
      {"send and deallocate confirm", CM_MAPPED_CONVERSATION, send_type(4, 2), send, send_fields(6),
       NAP_SEND_DATA},
      {"send and deallocate abend", CM_BASIC_CONVERSATION, send_type(4, 3), send, send_fields(7),
       NAP_SEND_DATA},
      {"send error, mapped, send direction",
       CM_MAPPED_CONVERSATION,
       [](CCCB &c) { c.ulErrorDirection = CM_SEND_ERROR; },
       [&](unsigned char *id, CM_RETURN_CODE *rc) { cmserr(id, &rts, rc); },
       {{26, u8(1)}},
       NAP_SEND_ERROR},
      {"send error, basic, receive direction, no log data",
       CM_BASIC_CONVERSATION,
       nothing,
       [&](unsigned char *id, CM_RETURN_CODE *rc) { cmserr(id, &rts, rc); },
       {},
       NAP_SEND_ERROR},
  };
  for (const Row &row : rows) {
    ConvId id{};
    CCCB *cccb = active_conversation(id, row.conversation_type);
    row.set(*cccb);
    CM_RETURN_CODE rc = -1;
    const uint32_t before = snt_submitted_count();
    row.call(id.data(), &rc);
    EXPECT_EQ(rc, CM_OK) << row.what;
    ASSERT_EQ(snt_submitted_count(), before + 1) << row.what;
    expect_record(last_submitted(),
                  header(row.opcode, static_cast<uint8_t>(row.conversation_type)) + row.fields,
                  row.what);
  }
}

TEST_F(SendVerbs, SendErrorOnBasicCarriesLogDataOnce) {
  ConvId id{};
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION);
  cccb->ulErrorDirection = CM_SEND_ERROR;
  cccb->pLogData = library_log_data({1, 2, 3, 4});
  cccb->usLogDataLength = 4;
  const void *log_data = cccb->pLogData;
  CM_INT32 rts = -1;
  CM_RETURN_CODE rc = -1;
  cmserr(id.data(), &rts, &rc);
  ASSERT_EQ(rc, CM_OK);
  expect_record(last_submitted(),
                header(NAP_SEND_ERROR, 0) +
                    std::vector<Field>{{26, u8(1)}, {28, u16(4)}, {32, ptr(log_data)}},
                "first send error");
  EXPECT_EQ(cccb->pLogData, nullptr);
  EXPECT_EQ(cccb->usLogDataLength, 0);

  cmserr(id.data(), &rts, &rc);
  ASSERT_EQ(rc, CM_OK);
  expect_record(last_submitted(), header(NAP_SEND_ERROR, 0) + std::vector<Field>{{26, u8(1)}},
                "second send error");
}

TEST_F(SendVerbs, MissingLogDataIsRefusedWithoutSubmitting) {
  ConvId id{};
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION);
  cccb->usLogDataLength = 3;  // length set but no copy: an inconsistent record
  CM_INT32 rts = -1;
  CM_RETURN_CODE rc = -1;
  cmserr(id.data(), &rts, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(snt_submitted_count(), 0u);
  ASSERT_EQ(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemLogData);
  EXPECT_EQ(problem(0).probe, 2u);
  EXPECT_EQ(cccb->usVerbsOutstanding, 0);

  // Send-and-deallocate with abend needs the same log data for its copy.
  cccb->ulSendType = CM_SEND_AND_DEALLOCATE;
  cccb->ulDeallocateType = CM_DEALLOCATE_ABEND;
  unsigned char data[1] = {};
  CM_INT32 length = 1;
  cmsend(id.data(), data, &length, &rts, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(snt_submitted_count(), 0u);
  ASSERT_EQ(snt_problem_count(), 2u);
  EXPECT_EQ(problem(1).code, kProblemNoResource);
  EXPECT_EQ(problem(1).probe, 16u);
  EXPECT_EQ(std::string(problem(1).arg_types), "x x x x");
  EXPECT_EQ(cccb->DeallcLogData, nullptr);
}

TEST_F(SendVerbs, SendLengthAboveLimitIsRefused) {
  const std::vector<std::pair<CM_INT32, bool>> cases = {
      {0, true}, {1, true}, {32767, true}, {32768, false}, {65535, false}, {-1, false}};
  static unsigned char buffer[1] = {};
  for (const auto &[length, accepted] : cases) {
    restart_node();
    ConvId id{};
    active_conversation(id);
    CM_INT32 send_length = length;
    CM_INT32 rts = -1;
    CM_RETURN_CODE rc = -1;
    cmsend(id.data(), buffer, &send_length, &rts, &rc);
    if (accepted) {
      EXPECT_EQ(rc, CM_OK) << length;
      ASSERT_EQ(snt_submitted_count(), 1u) << length;
      EXPECT_EQ(last_submitted()[26] | (last_submitted()[27] << 8), length);
    } else {
      EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK) << length;
      EXPECT_EQ(snt_submitted_count(), 0u) << length;
      ASSERT_EQ(snt_problem_count(), 1u) << length;
      EXPECT_EQ(problem(0).code, kProblemBadLength);
      EXPECT_EQ(problem(0).probe, 1u);
      EXPECT_EQ(static_cast<uint32_t>(problem(0).args[0]), static_cast<uint32_t>(length));
    }
  }
}

// Copies the log data the completing DEALLOCATE points at.
void capture_log_data(void *vcb, void *context) {
  const auto &verb = *static_cast<NAP_DEALLOCATE_VCB *>(vcb);
  auto *copy = static_cast<std::vector<uint8_t> *>(context);
  copy->assign(verb.log_data_pointer, verb.log_data_pointer + verb.log_data_length);
}

// Sends `data` on `id`; the data must outlive a non-blocking call.
CM_RETURN_CODE send(ConvId &id, unsigned char *data, CM_INT32 length, CM_INT32 *rts = nullptr) {
  static CM_INT32 rts_out = -1;
  static CM_INT32 send_length = 0;
  send_length = length;
  CM_RETURN_CODE rc = -1;
  cmsend(id.data(), data, &send_length, rts != nullptr ? rts : &rts_out, &rc);
  return rc;
}

CCCB *abend_with_log_data(ConvId &id, uint16_t processing_mode) {
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION, processing_mode);
  cccb->ulSendType = CM_SEND_AND_DEALLOCATE;
  cccb->ulDeallocateType = CM_DEALLOCATE_ABEND;
  cccb->pLogData = library_log_data({9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
  cccb->usLogDataLength = 10;
  return cccb;
}

TEST_F(SendVerbs, SendAndDeallocateAbendWithLogDataSendsDataThenDeallocate) {
  ConvId id{};
  CCCB *cccb = abend_with_log_data(id, 0);
  const void *library_copy = cccb->pLogData;
  const uint32_t kept_before = snt_blocks_in_use(kMemKept);
  std::vector<uint8_t> sent_log_data;
  push(script(NAP_DEALLOCATE, AP_OK, 0, 0, capture_log_data, &sent_log_data));
  static unsigned char data[3] = {'a', 'b', 'c'};
  CM_INT32 rts = -1;
  const CM_RETURN_CODE rc = send(id, data, 3, &rts);

  EXPECT_EQ(rc, CM_OK);
  // Then the TP ends with its last conversation.
  ASSERT_EQ(snt_submitted_count(), 3u);
  EXPECT_EQ(snt_submitted_opcode(2), NAP_TP_ENDED);
  expect_record(
      submitted(0),
      header(NAP_SEND_DATA, 0) + std::vector<Field>{{26, u16(3)}, {32, ptr(data)}, {40, u8(0)}},
      "data first");
  const Vcb deallocate = submitted(1);
  void *pointer = nullptr;
  std::memcpy(&pointer, &deallocate[32], sizeof pointer);
  EXPECT_NE(pointer, library_copy) << "the DEALLOCATE must carry its own copy";
  expect_record(deallocate,
                header(NAP_DEALLOCATE, 0) +
                    std::vector<Field>{{25, u8(2)}, {26, u16(10)}, {32, ptr(pointer)}},
                "then the deallocate");
  EXPECT_EQ(sent_log_data, (std::vector<uint8_t>{9, 8, 7, 6, 5, 4, 3, 2, 1, 0}));
  EXPECT_EQ(rts, 0);
  EXPECT_EQ(cccb_of(id), nullptr) << "the conversation has ended";
  // The record, its log data and the copy are all given back.
  EXPECT_EQ(snt_blocks_in_use(kMemKept), kept_before - 2);
}

TEST_F(SendVerbs, FailedFollowOnDeallocateIsReportedAndStillEnds) {
  ConvId id{};
  abend_with_log_data(id, 0);
  push(script(NAP_DEALLOCATE, AP_STATE_CHECK));
  static unsigned char data[1] = {};
  CM_INT32 rts = -1;
  const CM_RETURN_CODE rc = send(id, data, 1, &rts);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(cccb_of(id), nullptr);
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST_F(SendVerbs, FailedDataKeepsConversationAndDropsLogDataCopy) {
  ConvId id{};
  CCCB *cccb = abend_with_log_data(id, 0);
  push(script(NAP_SEND_DATA, AP_STATE_CHECK));
  static unsigned char data[1] = {};
  CM_INT32 rts = -1;
  const CM_RETURN_CODE rc = send(id, data, 1, &rts);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(snt_submitted_count(), 1u);
  ASSERT_EQ(cccb_of(id), cccb);
  EXPECT_EQ(cccb->DeallcLogData, nullptr);
  EXPECT_EQ(cccb->usDeallcLogDataLength, 0);
  EXPECT_NE(cccb->pLogData, nullptr) << "the program's log data stays set";
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST_F(SendVerbs, NonBlockingFollowOnReportsOneCompletion) {
  ConvId id{};
  abend_with_log_data(id, 1);
  push(script(NAP_SEND_DATA, AP_OK, 0, 1));
  push(script(NAP_DEALLOCATE, AP_OK, 0, 1));
  static unsigned char data[1] = {};
  CM_INT32 rts = -1;
  const CM_RETURN_CODE rc = send(id, data, 1, &rts);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);

  ASSERT_EQ(snt_complete_pending(0), 1);  // the data: the DEALLOCATE follows
  EXPECT_EQ(pGCB->NumVerbsWaiting, 0u) << "nothing to collect before the DEALLOCATE completes";
  EXPECT_EQ(pGCB->NumVerbsOutstanding, 1u);
  ASSERT_EQ(snt_submitted_count(), 2u);
  EXPECT_EQ(snt_submitted_opcode(1), NAP_DEALLOCATE);
  EXPECT_EQ(snt_submitted_with_routine(1), 1);

  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK);
  EXPECT_EQ(cccb_of(id), nullptr);
  EXPECT_EQ(wait_one().rc, CM_PROGRAM_STATE_CHECK) << "exactly one completion";
}

TEST_F(SendVerbs, RequestToSendComesFromTheNodeEvenOnFailure) {
  static unsigned char data[1] = {};
  CM_INT32 length = 1;
  struct Row {
    std::string what;
    std::function<void(unsigned char *, CM_INT32 *, CM_RETURN_CODE *)> call;
    uint16_t opcode;
  };
  const std::vector<Row> rows = {
      {"confirm", [](unsigned char *id, CM_INT32 *r, CM_RETURN_CODE *rc) { cmcfm(id, r, rc); },
       NAP_CONFIRM},
      {"send error", [](unsigned char *id, CM_INT32 *r, CM_RETURN_CODE *rc) { cmserr(id, r, rc); },
       NAP_SEND_ERROR},
      {"send",
       [&](unsigned char *id, CM_INT32 *r, CM_RETURN_CODE *rc) {
         cmsend(id, data, &length, r, rc);
       },
       NAP_SEND_DATA},
  };
  for (const Row &row : rows) {
    for (uint16_t primary : {AP_OK, AP_STATE_CHECK}) {
      ConvId id{};
      active_conversation(id);
      push(script(row.opcode, primary, 0, 0, fill_byte, byte_at(24, 1)));
      CM_INT32 rts = -1;
      CM_RETURN_CODE rc = -1;
      row.call(id.data(), &rts, &rc);
      EXPECT_EQ(rc, primary == AP_OK ? CM_OK : CM_PROGRAM_STATE_CHECK) << row.what;
      EXPECT_EQ(rts, CM_REQ_TO_SEND_RECEIVED) << row.what << " primary " << primary;
    }
  }
}

TEST_F(SendVerbs, ConfirmedClearsConfirmationAndEndsAfterConfirmDeallocate) {
  ConvId plain{};
  CCCB *cccb = active_conversation(plain);
  cccb->fConfirmRequested = 1;
  CM_RETURN_CODE rc = -1;
  cmcfmd(plain.data(), &rc);
  EXPECT_EQ(rc, CM_OK);
  ASSERT_EQ(cccb_of(plain), cccb);
  EXPECT_EQ(cccb->fConfirmRequested, 0);

  ConvId refused{};
  cccb = active_conversation(refused);
  cccb->fConfirmRequested = 1;
  cccb->fConfirmDeallocReceived = 1;
  push(script(NAP_CONFIRMED, AP_STATE_CHECK));
  cmcfmd(refused.data(), &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  ASSERT_EQ(cccb_of(refused), cccb) << "a refused Confirmed ends nothing";
  EXPECT_EQ(cccb->fConfirmRequested, 1);

  cmcfmd(refused.data(), &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(cccb_of(refused), nullptr) << "confirming a deallocation ends the conversation";
}

TEST_F(SendVerbs, SendErrorClearsBothConfirmationFlags) {
  ConvId id{};
  CCCB *cccb = active_conversation(id);
  cccb->fConfirmRequested = 1;
  cccb->fConfirmDeallocReceived = 1;
  CM_INT32 rts = -1;
  CM_RETURN_CODE rc = -1;
  cmserr(id.data(), &rts, &rc);
  EXPECT_EQ(rc, CM_OK);
  ASSERT_EQ(cccb_of(id), cccb);
  EXPECT_EQ(cccb->fConfirmRequested, 0);
  EXPECT_EQ(cccb->fConfirmDeallocReceived, 0);
}

TEST_F(SendVerbs, EndingResultFreesConversationInBlockingMode) {
  for (const Call &call : verb_calls()) {
    for (uint16_t primary : {AP_DEALLOC_NORMAL, AP_CONV_FAILURE_RETRY, AP_STATE_CHECK}) {
      restart_node();
      ConvId id{};
      active_conversation(id);
      push(script(0, primary));
      EXPECT_NE(call.run(id), CM_OK) << call.name;
      const bool ends = primary != AP_STATE_CHECK;
      EXPECT_EQ(cccb_of(id) == nullptr, ends) << call.name << " primary " << primary;
      EXPECT_EQ(call.run(id), ends ? CM_PROGRAM_PARAMETER_CHECK : CM_OK) << call.name;
      if (ends) {
        ASSERT_EQ(snt_problem_count(), 1u) << call.name;
        EXPECT_EQ(problem(0).code, kProblemUnknownConversation) << call.name;
        EXPECT_EQ(problem(0).probe, call.unknown_id_probe) << call.name;
        EXPECT_EQ(problem(0).args[0], 8u) << call.name;
      }
    }
  }
}

}  // namespace
}  // namespace verbs_test

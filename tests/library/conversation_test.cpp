// The conversation calls against the scripted node: the verb record each call
// family builds, the state rules, the results and completions of the verbs,
// Send, Receive and Deallocate.
#include "library/conversation_support.h"

namespace {

using namespace conversation_test;

// ---- verb records ----

void with(CCCB &c, uint32_t send_type, uint32_t prepare_or_deallocate) {
  c.ulSendType = send_type;
  c.ulPrepareToReceiveType = c.ulDeallocateType = prepare_or_deallocate;
}

// One call per row on an active conversation, after `set`: the verb it hands
// the node, byte for byte, submitted without completion routine.
TEST_F(Conversations, EachCallSubmitsItsRecord) {
  const void *buffer = g_out.buffer;
  auto send = [&](uint8_t type) {
    return std::vector<Field>{{26, u16(16)}, {32, ptr(buffer)}, {40, u8(type)}};
  };
  auto receive = [&](uint8_t fill) {
    return std::vector<Field>{{26, u8(1)}, {27, u8(fill)}, {30, u16(16)}, {40, ptr(buffer)}};
  };
  const uint32_t B = CM_BASIC_CONVERSATION, M = CM_MAPPED_CONVERSATION;
  using Set = std::function<void(CCCB &)>;
  auto st = [](uint32_t send_type, uint32_t other) -> Set {
    return [=](CCCB &c) { with(c, send_type, other); };
  };
  auto rt = [](uint32_t receive_type, uint32_t fill) -> Set {
    return [=](CCCB &c) { c.ulReceiveType = receive_type, c.ulFill = fill; };
  };
  const Set none = [](CCCB &) {}, send_error = [](CCCB &c) { c.ulErrorDirection = 1; };
  // clang-format off
  const struct {
    const char *call;
    uint32_t type;
    Set set;
    uint16_t opcode;
    std::vector<Field> fields;  // besides the header
  } rows[] = {
      {"CMCFM", M, none, NAP_CONFIRM, {}},
      {"CMCFMD", M, none, NAP_CONFIRMED, {}},
      {"CMFLUS", B, none, NAP_FLUSH, {}},
      {"CMRTS", M, none, NAP_REQUEST_TO_SEND, {}},
      {"CMPTR", M, st(0, 0), NAP_PREPARE_TO_RECEIVE, {}},
      {"CMPTR", M, st(0, 1), NAP_PREPARE_TO_RECEIVE, {{24, u8(1)}}},
      {"CMPTR", M, st(0, 2), NAP_PREPARE_TO_RECEIVE, {}},
      {"CMSEND", M, st(0, 0), NAP_SEND_DATA, send(0)},  // buffer data
      {"CMSEND", M, st(1, 0), NAP_SEND_DATA, send(1)},  // and flush
      {"CMSEND", M, st(2, 0), NAP_SEND_DATA, send(2)},  // and confirm
      {"CMSEND", M, st(3, 1), NAP_SEND_DATA, send(3)},  // and prepare to receive, flush
      {"CMSEND", M, st(3, 0), NAP_SEND_DATA, send(4)},  // ... sync level
      {"CMSEND", M, st(3, 2), NAP_SEND_DATA, send(4)},  // ... confirm
      {"CMSEND", M, st(4, 1), NAP_SEND_DATA, send(5)},  // and deallocate, flush
      {"CMSEND", M, st(4, 0), NAP_SEND_DATA, send(6)},  // ... sync level
      {"CMSEND", M, st(4, 2), NAP_SEND_DATA, send(6)},  // ... confirm
      {"CMSEND", B, st(4, 3), NAP_SEND_DATA, send(7)},  // ... abend
      {"CMSERR", M, send_error, NAP_SEND_ERROR, {{26, u8(1)}}},
      {"CMSERR", B, none, NAP_SEND_ERROR, {}},
      {"CMRCV", M, rt(0, 0), NAP_RECEIVE_AND_WAIT, receive(1)},
      {"CMRCV", B, rt(0, 1), NAP_RECEIVE_AND_WAIT, receive(0)},
      {"CMRCV", B, rt(1, 0), NAP_RECEIVE_IMMEDIATE, receive(1)},
      {"CMRCV", M, rt(1, 1), NAP_RECEIVE_IMMEDIATE, receive(0)},
      {"CMDEAL", B, st(0, 0), NAP_DEALLOCATE, {{25, u8(0)}}},
      {"CMDEAL", M, st(0, 1), NAP_DEALLOCATE, {{25, u8(1)}}},
      {"CMDEAL", B, st(0, 2), NAP_DEALLOCATE, {{25, u8(0)}}},
      {"CMDEAL", M, st(0, 3), NAP_DEALLOCATE, {{25, u8(5)}}},
      {"CMDEAL", B, st(0, 3), NAP_DEALLOCATE, {{25, u8(2)}}},  // log data follows
      {"CMTRTS", B, none, NAP_TEST_RTS, {}},
      {"CMECS", M, none, NAP_GET_STATE, {}},
  };
  // clang-format on
  for (const auto &row : rows) {
    SCOPED_TRACE(std::string(row.call) + " " + std::to_string(row.fields.size()));
    restart_node();
    ConvId id{};
    CCCB *cccb = active_conversation(id, row.type);
    row.set(*cccb);
    // A basic conversation deallocated by abend sends its log data.
    std::vector<Field> log_fields;
    if (row.type == B && row.opcode == NAP_DEALLOCATE &&
        cccb->ulDeallocateType == CM_DEALLOCATE_ABEND) {
      cccb->pLogData = kept_block(20);
      cccb->usLogDataLength = 20;
      log_fields = {{26, u16(20)}, {32, ptr(cccb->pLogData)}};
    }
    EXPECT_EQ(run(row.call, id), CM_OK);
    ASSERT_GE(snt_submitted_count(), 1u);
    EXPECT_EQ(snt_submitted_with_routine(0), 0);
    EXPECT_EQ(pGCB->NumVerbsOutstanding + pGCB->NumVerbsWaiting, 0u);
    expect_record(submitted(0),
                  header(row.opcode, static_cast<uint8_t>(row.type)) + row.fields + log_fields, "");
  }
}

// ---- results, completions and the state rules ----

// Each call: a result that ends the conversation (or a deallocate's success)
// frees it once a non-blocking call's completion is collected; another keeps it.
TEST_F(Conversations, EveryVerbsResultEndsOrKeepsTheConversation) {
  for (const Call &call : kVerbCalls) {
    for (uint16_t mode : {0, CM_NON_BLOCKING}) {
      for (uint16_t primary : {AP_OK, AP_DEALLOC_NORMAL, AP_PROG_ERROR_NO_TRUNC}) {
        SCOPED_TRACE(call.name + " mode " + std::to_string(mode) + " primary " +
                     std::to_string(primary));
        restart_node();
        ConvId id{};
        CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION, mode);
        push(0, primary, 0, mode);
        CM_RETURN_CODE result = call.run(id);
        const bool ends =
            primary == AP_DEALLOC_NORMAL || (primary == AP_OK && call.name == "CMDEAL");
        if (mode == CM_NON_BLOCKING) {
          ASSERT_EQ(result, CM_OPERATION_INCOMPLETE);
          EXPECT_EQ(std::pair(snt_submitted_with_routine(0), pGCB->NumVerbsOutstanding),
                    std::pair(1, 1u));
          ASSERT_EQ(snt_complete_pending(0), 1);
          EXPECT_EQ(std::pair(pGCB->NumVerbsOutstanding, pGCB->NumVerbsWaiting), std::pair(0u, 1u));
          EXPECT_EQ(cccb_of(id), cccb) << "kept until collected";
          const Waited w = wait_one();
          EXPECT_EQ(w.id, id);
          result = w.conversation_rc;
          EXPECT_EQ(wait_one().rc, CM_PROGRAM_STATE_CHECK) << "one completion only";
        }
        EXPECT_EQ(result == CM_OK, primary == AP_OK);
        EXPECT_EQ(known(id), !ends);
        if (!ends) continue;
        EXPECT_EQ(call.run(id), CM_PROGRAM_PARAMETER_CHECK);
        EXPECT_EQ(problems(), (Probes{{kProblemUnknownConversation, call.probe}}));
      }
    }
  }
}

// The library states a conversation record can be in, as the calls test them.
enum State { kReset, kInitialize, kIncoming, kActive, kBusy, kConfirmPending };

void enter(State state, ConvId &id) {
  if (state == kReset) {
    start_library();
    id = ConvId{0x55, 0x66, 0x77, 0x01};
  } else if (state == kInitialize) {
    initialized_conversation(id);
  } else if (state == kIncoming) {
    incoming_conversation(id);
  } else if (state == kBusy) {  // a non-blocking flush in progress
    active_conversation(id, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
    push(NAP_FLUSH, AP_OK, 0, 1);
    ASSERT_EQ(rc_of(cmflus)(id), CM_OPERATION_INCOMPLETE);
  } else {
    active_conversation(id)->fConfirmRequested = state == kConfirmPending;
  }
}

// Each call in each state: a return code before the node is asked, or kNode
// when the verb goes to the node (whose default answer is success).
TEST_F(Conversations, StateRulesOfEveryCall) {
  constexpr CM_RETURN_CODE kNode = 1000;
  const std::array<CM_RETURN_CODE, 6> verb = {24, 25, 25, kNode, 37, kNode};
  const std::map<std::string, std::array<CM_RETURN_CODE, 6>> special = {
      {"CMTRTS", {24, 25, 25, kNode, 37, 25}},
      {"CMECS", {24, 0, 0, kNode, 37, kNode}},
      {"CMACCI", {24, 25, kNode, 25, 37, 25}},
      {"CMALLC", {24, kNode, 25, 25, 37, 25}}};
  for (const Call &call : kCalls) {
    const auto outcomes = special.count(call.name) ? special.at(call.name) : verb;
    for (int s = kReset; s <= kConfirmPending; ++s) {
      SCOPED_TRACE(call.name + " in state " + std::to_string(s));
      restart_node();
      ConvId id{};
      enter(static_cast<State>(s), id);
      CCCB *cccb = cccb_of(id);
      Vcb area_before{};
      if (cccb != nullptr) std::memcpy(area_before.data(), cccb->vcb.bytes, area_before.size());
      const uint32_t submitted_before = snt_submitted_count();
      const CM_RETURN_CODE rc = call.run(id);
      if (outcomes[s] == kNode) {
        EXPECT_EQ(rc, CM_OK);
        EXPECT_GT(snt_submitted_count(), submitted_before);
        continue;
      }
      EXPECT_EQ(rc, outcomes[s]);
      // A refused allocate still starts a TP and ends it again (hard).
      const bool tp_round_trip = call.name == "CMALLC" && s != kReset;
      const std::vector<uint16_t> none, round_trip = {NAP_START_TP, NAP_TP_ENDED};
      EXPECT_EQ(submitted_opcodes(submitted_before), tp_round_trip ? round_trip : none);
      if (tp_round_trip) {
        EXPECT_EQ(submitted(submitted_before + 1)[20], 1);
      }
      if (cccb != nullptr) {
        EXPECT_EQ(std::memcmp(area_before.data(), cccb->vcb.bytes, area_before.size()), 0)
            << "a refused call leaves the verb area alone";
      }
      if (s == kReset && call.name != "CMECS") {
        EXPECT_EQ(problems(), (Probes{{kProblemUnknownConversation, call.probe}}));
      } else if (s == kReset) {
        EXPECT_EQ(problems(), Probes{});
      }
      if (call.name == "CMECS" && rc == CM_OK) {
        EXPECT_EQ(g_out.state,
                  s == kInitialize ? CM_INITIALIZE_STATE : CM_INITIALIZE_INCOMING_STATE);
      }
    }
  }
}

// The next verb drops a completion nobody collected.
TEST_F(Conversations, TheNextVerbDropsAnUncollectedCompletion) {
  ConvId id{};
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION, CM_NON_BLOCKING);
  push(NAP_FLUSH, AP_PROG_ERROR_NO_TRUNC, 0, 1);
  ASSERT_EQ(rc_of(cmflus)(id), CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  ASSERT_EQ(pGCB->NumVerbsWaiting, 1u);
  push(NAP_REQUEST_TO_SEND, AP_OK, 0, 1);
  ASSERT_EQ(rc_of(cmrts)(id), CM_OPERATION_INCOMPLETE);
  EXPECT_TRUE(pGCB->NumVerbsWaiting == 0 && cccb->fCompletionWaiting == 0);
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK, "the flush result is gone");
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST_F(Conversations, NodeStatesAreTranslated) {
  // clang-format off
  const std::pair<uint8_t, CM_CONVERSATION_STATE> rows[] = {
      {0, CM_INITIALIZE_STATE}, {1, CM_SEND_STATE}, {2, CM_RECEIVE_STATE}, {3, CM_CONFIRM_STATE},
      {4, CM_CONFIRM_SEND_STATE}, {5, CM_CONFIRM_DEALLOCATE_STATE}, {9, CM_SEND_PENDING_STATE},
      {6, -1}, {8, -1}, {10, -1}};
  // clang-format on
  auto answer = [](void *vcb, void *state) {
    static_cast<NAP_GET_STATE_VCB *>(vcb)->conv_state = *static_cast<uint8_t *>(state);
  };
  for (auto [node_state, expected] : rows) {
    SCOPED_TRACE(int{node_state});
    restart_node();
    ConvId id{};
    // Non-blocking conversations get their state synchronously too.
    active_conversation(id, CM_BASIC_CONVERSATION, CM_NON_BLOCKING);
    push(NAP_GET_STATE, AP_OK, 0, 0, answer, &node_state);
    g_out.state = -1;
    EXPECT_EQ(run("CMECS", id), expected >= 0 ? CM_OK : CM_PRODUCT_SPECIFIC_ERROR);
    EXPECT_EQ(snt_submitted_with_routine(0), 0);
    EXPECT_EQ(g_out.state, expected);
    EXPECT_EQ(problems(), (expected >= 0 ? Probes{} : Probes{{kProblemBadState, 0}}));
    EXPECT_EQ(cccb_of(id)->usProcessingMode, 1) << "the processing mode is left as it was";
  }
  // A refused GET_STATE is a product error and ends nothing.
  restart_node();
  ConvId id{};
  active_conversation(id);
  push(NAP_GET_STATE, AP_DEALLOC_NORMAL);
  EXPECT_EQ(run("CMECS", id), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(problem(0).code, kProblemGetStateFailed);
  EXPECT_TRUE(known(id));
}

// ---- Send_Data, Send_Error and Confirmed ----

unsigned char *library_log_data(const std::vector<uint8_t> &data) {
  unsigned char *block = kept_block(data.size());
  std::memcpy(block, data.data(), data.size());
  return block;
}

struct Received {
  CM_INT32 data = -1, length = -1, status = -1, rts = -1;
  CM_RETURN_CODE rc = -1;
};
Received receive(ConvId &id, CM_INT32 requested) {
  Received r;
  cmrcv(id.data(), g_out.buffer, &requested, &r.data, &r.length, &r.status, &r.rts, &r.rc);
  return r;
}
CM_RETURN_CODE send(ConvId &id, CM_INT32 length) {
  g_out.length = length;
  return run("CMSEND", id);
}

TEST_F(Conversations, LengthsAboveTheLimitAreRefusedBeforeTheNodeIsAsked) {
  const std::pair<CM_INT32, bool> cases[] = {{0, true}, {32767, true}, {32768, false}, {-1, false}};
  for (bool sending : {true, false}) {
    for (const auto &[length, accepted] : cases) {
      SCOPED_TRACE(testing::Message() << (sending ? "send " : "receive ") << length);
      restart_node();
      ConvId id{};
      active_conversation(id);
      const Received r = sending ? Received{.rc = send(id, length)} : receive(id, length);
      EXPECT_EQ(r.rc, accepted ? CM_OK : CM_PROGRAM_PARAMETER_CHECK);
      ASSERT_EQ(snt_submitted_count(), accepted ? 1u : 0u);
      if (accepted) {
        const Vcb vcb = submitted(0);
        EXPECT_EQ(vcb[sending ? 26 : 30] | (vcb[sending ? 27 : 31] << 8), length);
      } else {
        EXPECT_EQ(problems(), (Probes{{kProblemBadLength, sending ? 1u : 0u}}));
        EXPECT_EQ(static_cast<uint32_t>(problem(0).args[0]), static_cast<uint32_t>(length));
      }
      if (!sending) {
        EXPECT_EQ(r.length, 0) << "cleared before any check";
        EXPECT_EQ(r.data, accepted ? 0 : -1) << "untouched when refused";
      }
    }
  }
  g_out.length = 16;
}

TEST_F(Conversations, LogDataGoesOnceAndIsNeededWhereItIsSent) {
  ConvId id{};
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION);
  cccb->ulErrorDirection = CM_SEND_ERROR;
  cccb->pLogData = library_log_data({1, 2, 3, 4});
  cccb->usLogDataLength = 4;
  const void *log_data = cccb->pLogData;
  EXPECT_EQ(run("CMSERR", id), CM_OK);
  expect_record(submitted(0),
                header(NAP_SEND_ERROR, 0) +
                    std::vector<Field>{{26, u8(1)}, {28, u16(4)}, {32, ptr(log_data)}},
                "first send error");
  EXPECT_TRUE(cccb->pLogData == nullptr && cccb->usLogDataLength == 0);
  EXPECT_EQ(run("CMSERR", id), CM_OK);
  expect_record(submitted(1), header(NAP_SEND_ERROR, 0) + std::vector<Field>{{26, u8(1)}},
                "second send error");

  // A length without a copy is refused without submitting: by Send_Error, by
  // Deallocate, and by Send_Data for its follow-on.
  fresh_node();
  cccb->usLogDataLength = 3;
  EXPECT_EQ(run("CMSERR", id), CM_PRODUCT_SPECIFIC_ERROR);
  with(*cccb, CM_BUFFER_DATA, CM_DEALLOCATE_ABEND);
  EXPECT_EQ(run("CMDEAL", id), CM_PRODUCT_SPECIFIC_ERROR);
  with(*cccb, CM_SEND_AND_DEALLOCATE, CM_DEALLOCATE_ABEND);
  EXPECT_EQ(send(id, 1), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_EQ(problems(),
            (Probes{{kProblemLogData, 2}, {kProblemLogData, 1}, {kProblemNoResource, 16}}));
  EXPECT_EQ(cccb->usVerbsOutstanding, 0);
  EXPECT_EQ(cccb->DeallcLogData, nullptr);
  EXPECT_TRUE(known(id));
}

CCCB *abend_with_log_data(ConvId &id, uint16_t processing_mode = 0) {
  CCCB *cccb = active_conversation(id, CM_BASIC_CONVERSATION, processing_mode);
  with(*cccb, CM_SEND_AND_DEALLOCATE, CM_DEALLOCATE_ABEND);
  cccb->pLogData = library_log_data({9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
  cccb->usLogDataLength = 10;
  return cccb;
}

TEST_F(Conversations, SendAndDeallocateAbendSendsDataThenDeallocate) {
  ConvId id{};
  abend_with_log_data(id);
  const uint32_t kept_before = snt_blocks_in_use(kMemKept);
  const void *library_copy = cccb_of(id)->pLogData;
  static std::vector<uint8_t> sent;
  push(NAP_DEALLOCATE, AP_OK, 0, 0, [](void *vcb, void *) {
    const auto &verb = *static_cast<NAP_DEALLOCATE_VCB *>(vcb);
    sent.assign(verb.log_data_pointer, verb.log_data_pointer + verb.log_data_length);
  });
  EXPECT_EQ(send(id, 3), CM_OK);
  EXPECT_EQ(submitted_opcodes(),
            (std::vector<uint16_t>{NAP_SEND_DATA, NAP_DEALLOCATE, NAP_TP_ENDED}));
  expect_record(submitted(0),
                header(NAP_SEND_DATA, 0) +
                    std::vector<Field>{{26, u16(3)}, {32, ptr(g_out.buffer)}, {40, u8(0)}},
                "the data first");
  // The DEALLOCATE carries the log data in a copy of its own.
  const Vcb deallocate = submitted(1);
  void *copy = nullptr;
  std::memcpy(&copy, &deallocate[32], sizeof copy);
  EXPECT_NE(copy, library_copy);
  expect_record(
      deallocate,
      header(NAP_DEALLOCATE, 0) + std::vector<Field>{{25, u8(2)}, {26, u16(10)}, {32, ptr(copy)}},
      "then the deallocate");
  EXPECT_EQ(sent, (std::vector<uint8_t>{9, 8, 7, 6, 5, 4, 3, 2, 1, 0}));
  EXPECT_FALSE(known(id));
  // The record, its log data and the copy are all given back.
  EXPECT_EQ(snt_blocks_in_use(kMemKept), kept_before - 2);

  // A failed follow-on still ends the conversation; failed data keeps it and
  // drops only the copy.
  for (uint16_t failing : {NAP_DEALLOCATE, NAP_SEND_DATA}) {
    restart_node();
    ConvId other{};
    CCCB *cccb = abend_with_log_data(other);
    push(failing, AP_STATE_CHECK);
    EXPECT_EQ(send(other, 1), CM_PROGRAM_STATE_CHECK);
    EXPECT_EQ(known(other), failing == NAP_SEND_DATA);
    if (failing == NAP_SEND_DATA) {
      EXPECT_EQ(snt_submitted_count(), 1u);
      EXPECT_TRUE(cccb->DeallcLogData == nullptr && cccb->usDeallcLogDataLength == 0);
      EXPECT_NE(cccb->pLogData, nullptr) << "the program's log data stays set";
    }
    EXPECT_EQ(snt_assert_count(), 0u);
  }

  // Non-blocking, the two verbs make one completion.
  restart_node();
  abend_with_log_data(id, CM_NON_BLOCKING);
  push(NAP_SEND_DATA, AP_OK, 0, 1);
  push(NAP_DEALLOCATE, AP_OK, 0, 1);
  ASSERT_EQ(send(id, 1), CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  EXPECT_EQ(std::pair(pGCB->NumVerbsWaiting, pGCB->NumVerbsOutstanding), std::pair(0u, 1u))
      << "nothing to collect before the DEALLOCATE completes";
  EXPECT_EQ(submitted_opcodes(), (std::vector<uint16_t>{NAP_SEND_DATA, NAP_DEALLOCATE}));
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK);
  EXPECT_FALSE(known(id));
  EXPECT_EQ(wait_one().rc, CM_PROGRAM_STATE_CHECK) << "exactly one completion";
}

TEST_F(Conversations, RequestToSendComesFromTheNodeEvenOnFailure) {
  for (const char *name : {"CMSEND", "CMCFM", "CMSERR"}) {
    for (uint16_t primary : {AP_OK, AP_STATE_CHECK}) {
      ConvId id{};
      active_conversation(id);
      push(0, primary, 0, 0, [](void *vcb, void *) { static_cast<uint8_t *>(vcb)[24] = 1; });
      g_out.rts = -1;
      EXPECT_EQ(run(name, id), primary == AP_OK ? CM_OK : CM_PROGRAM_STATE_CHECK) << name;
      EXPECT_EQ(g_out.rts, CM_REQ_TO_SEND_RECEIVED) << name << " primary " << primary;
    }
  }
}

TEST_F(Conversations, ConfirmationFlagsAreClearedAndAConfirmedDeallocationEnds) {
  ConvId plain{}, dealloc{}, error{};
  CCCB *cccb = active_conversation(plain);
  cccb->fConfirmRequested = 1;
  EXPECT_EQ(run("CMCFMD", plain), CM_OK);
  EXPECT_EQ(cccb->fConfirmRequested, 0);
  EXPECT_TRUE(known(plain));

  cccb = active_conversation(dealloc);
  cccb->fConfirmRequested = cccb->fConfirmDeallocReceived = 1;
  push(NAP_CONFIRMED, AP_STATE_CHECK);
  EXPECT_EQ(run("CMCFMD", dealloc), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(cccb->fConfirmRequested, 1) << "a refused Confirmed ends nothing";
  EXPECT_EQ(run("CMCFMD", dealloc), CM_OK);
  EXPECT_FALSE(known(dealloc)) << "confirming a deallocation ends the conversation";

  cccb = active_conversation(error);
  cccb->fConfirmRequested = cccb->fConfirmDeallocReceived = 1;
  EXPECT_EQ(run("CMSERR", error), CM_OK);
  EXPECT_EQ(cccb->fConfirmRequested + cccb->fConfirmDeallocReceived, 0);
}

// ---- Receive and Test_Request_To_Send_Received ----

struct ReceiveAnswer {
  uint16_t what_received, data_length;
  uint8_t rts;
};
void answer_receive(void *vcb, void *context) {
  auto &verb = *static_cast<NAP_RECEIVE_VCB *>(vcb);
  const auto &answer = *static_cast<const ReceiveAnswer *>(context);
  verb.what_received = answer.what_received;
  verb.data_length = answer.data_length;
  verb.rts_received = answer.rts;
}

TEST_F(Conversations, WhatReceivedIsSplitIntoDataAndStatus) {
  // clang-format off
  const struct {
    uint16_t what;
    CM_INT32 data, status;
    uint16_t confirm_requested, confirm_dealloc;
    uint32_t assertions;
  } rows[] = {
      {0x0000, 0, 0, 0, 0, 0}, {0x0001, 0, 1, 0, 0, 0}, {0x0002, 0, 2, 1, 0, 0},
      {0x0003, 0, 3, 1, 0, 0}, {0x0004, 0, 4, 1, 1, 0}, {0x0100, 1, 0, 0, 0, 0},
      {0x0103, 1, 3, 1, 0, 0}, {0x0104, 1, 4, 1, 1, 0}, {0x0200, 2, 0, 0, 0, 0},
      {0x0202, 2, 2, 1, 0, 0}, {0x0400, 3, 0, 0, 0, 0}, {0x0105, 0, 0, 0, 0, 2},
      {0x0401, 0, 0, 0, 0, 2}, {0x0300, 0, 0, 0, 0, 2}, {0xFFFF, 0, 0, 0, 0, 2},
  };
  // clang-format on
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    restart_node();
    ConvId id{};
    CCCB *cccb = active_conversation(id);
    ReceiveAnswer answer{row.what, 42, 1};
    push(0, AP_OK, 0, 0, answer_receive, &answer);
    const Received r = receive(id, 50);
    EXPECT_EQ(r.rc, CM_OK);
    EXPECT_EQ(std::vector<CM_INT32>({r.data, r.status, r.length, r.rts}),
              std::vector<CM_INT32>({row.data, row.status, 42, 1}));
    EXPECT_EQ(std::pair(cccb->fConfirmRequested, cccb->fConfirmDeallocReceived),
              std::pair(row.confirm_requested, row.confirm_dealloc));
    EXPECT_EQ(assertions(), std::vector<std::string>(row.assertions, "vcpic/cpiccal3: FALSE"));
  }
  // The outputs are written after a failure too; a purged record does not
  // end the conversation.
  ConvId id{};
  active_conversation(id);
  ReceiveAnswer answer{0x0100, 7, 0};
  push(0, AP_PROG_ERROR_PURGING, 0, 0, answer_receive, &answer);
  const Received r = receive(id, 10);
  EXPECT_EQ(r.rc, CM_PROGRAM_ERROR_PURGING);
  EXPECT_EQ(std::vector<CM_INT32>({r.data, r.length, r.rts}),
            std::vector<CM_INT32>({CM_DATA_RECEIVED, 7, 0}));
  EXPECT_TRUE(known(id));
}

TEST_F(Conversations, NonBlockingReceiveWritesOutputsAtCompletion) {
  ConvId id{};
  active_conversation(id, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
  static ReceiveAnswer answer{0x0203, 12, 1};
  push(0, AP_OK, 0, 1, answer_receive, &answer);
  g_out.received = -1;
  ASSERT_EQ(run("CMRCV", id), CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(g_out.received, 0);
  ASSERT_EQ(snt_complete_pending(0), 1);
  expect_completion(id, CM_OK);
  EXPECT_EQ(std::vector<CM_INT32>({g_out.data, g_out.status, g_out.received, g_out.rts}),
            std::vector<CM_INT32>({CM_COMPLETE_DATA_RECEIVED, CM_CONFIRM_SEND_RECEIVED, 12, 1}));
}

TEST_F(Conversations, TestRequestToSendIsSynchronousAndAnswersFromThePrimary) {
  const std::tuple<uint16_t, CM_RETURN_CODE, CM_INT32> rows[] = {
      {AP_OK, CM_OK, CM_REQ_TO_SEND_RECEIVED},
      {AP_UNSUCCESSFUL, CM_OK, CM_REQ_TO_SEND_NOT_RECEIVED},
      {AP_STATE_CHECK, CM_PROGRAM_STATE_CHECK, -1},  // -1: left as it was
      {AP_DEALLOC_ABEND, CM_DEALLOCATED_ABEND, -1},
  };
  for (const auto &[primary, rc, rts] : rows) {
    SCOPED_TRACE(primary);
    restart_node();
    ConvId id{};
    active_conversation(id, CM_BASIC_CONVERSATION, CM_NON_BLOCKING);
    push(NAP_TEST_RTS, primary);
    g_out.rts = -1;
    EXPECT_EQ(run("CMTRTS", id), rc);
    EXPECT_EQ(g_out.rts, rts);
    EXPECT_EQ(known(id), primary != AP_DEALLOC_ABEND);
    EXPECT_EQ(snt_submitted_with_routine(0) + pGCB->NumVerbsWaiting + pGCB->NumVerbsOutstanding,
              0u);
  }
}

// ---- Deallocate ----

TEST_F(Conversations, DeallocateOfAConversationNeverAllocatedIsLocalAndOnlyByAbend) {
  ConvId fresh{}, incoming{};
  CCCB *cccb = initialized_conversation(fresh);
  cccb->ulDeallocateType = CM_DEALLOCATE_FLUSH;
  EXPECT_EQ(run("CMDEAL", fresh), CM_PROGRAM_STATE_CHECK);
  EXPECT_TRUE(known(fresh)) << "still usable";
  cccb->ulDeallocateType = CM_DEALLOCATE_ABEND;
  EXPECT_EQ(run("CMDEAL", fresh), CM_OK);
  EXPECT_EQ(snt_submitted_count(), 0u) << "purely local";
  EXPECT_FALSE(known(fresh));
  incoming_conversation(incoming)->ulDeallocateType = CM_DEALLOCATE_ABEND;
  EXPECT_EQ(run("CMDEAL", incoming), CM_PROGRAM_STATE_CHECK);
  EXPECT_TRUE(known(incoming));
}

TEST_F(Conversations, DeallocateWritesAnAuditRecord) {
  ConvId id{};
  std::memcpy(active_conversation(id)->SideInfo.local_LU_alias, "LUALIAS1", 8);
  ASSERT_EQ(run("CMDEAL", id), CM_OK);
  ASSERT_EQ(snt_audit_count(), 1u);
  const SNT_RECORD r = audit(0);
  EXPECT_EQ(
      std::tuple(r.code, std::string(r.arg_types), bytes(r.bytes[0], 8), text_of(r.bytes[1], 8)),
      std::tuple(kAuditDeallocated, "ba ca", bytes(id.data(), 8), "LUALIAS1"));
}

}  // namespace

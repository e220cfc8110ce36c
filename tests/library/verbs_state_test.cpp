// Conversation state: Extract_Conversation_State and the state rules every
// conversation call applies before the node is asked.
#include <map>

#include "verbs_calls.h"

namespace verbs_test {
namespace {

class ConversationState : public VerbsTest {};

void answer_state(void *vcb, void *context) {
  static_cast<NAP_GET_STATE_VCB *>(vcb)->conv_state =
      static_cast<uint8_t>(reinterpret_cast<uintptr_t>(context));
}

TEST_F(ConversationState, NodeStatesAreTranslated) {
  const std::vector<std::pair<uint8_t, CM_CONVERSATION_STATE>> rows = {
      {0, CM_INITIALIZE_STATE},
      {1, CM_SEND_STATE},
      {2, CM_RECEIVE_STATE},
      {3, CM_CONFIRM_STATE},
      {4, CM_CONFIRM_SEND_STATE},
      {5, CM_CONFIRM_DEALLOCATE_STATE},
      {9, CM_SEND_PENDING_STATE},
      {6, -1},
      {8, -1},
      {10, -1},
  };
  for (const auto &[node_state, expected] : rows) {
    restart_node();
    ConvId id{};
    // Non-blocking conversations get their state synchronously too.
    active_conversation(id, CM_BASIC_CONVERSATION, 1);
    push(script(NAP_GET_STATE, AP_OK, 0, 0, answer_state,
                reinterpret_cast<void *>(uintptr_t{node_state})));
    CM_CONVERSATION_STATE state = -1;
    CM_RETURN_CODE rc = -1;
    cmecs(id.data(), &state, &rc);
    EXPECT_EQ(snt_submitted_with_routine(0), 0) << int{node_state};
    expect_record(submitted(0), header(NAP_GET_STATE, 0), "get state");
    EXPECT_EQ(state, expected) << int{node_state};
    ASSERT_NE(cccb_of(id), nullptr);
    EXPECT_EQ(cccb_of(id)->usProcessingMode, 1) << "the processing mode is left as it was";
    if (expected >= 0) {
      EXPECT_EQ(rc, CM_OK) << int{node_state};
      EXPECT_EQ(snt_problem_count(), 0u);
    } else {
      EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR) << int{node_state};
      ASSERT_EQ(snt_problem_count(), 1u);
      EXPECT_EQ(problem(0).code, kProblemBadState);
      EXPECT_EQ(std::string(problem(0).arg_types), "b");
      EXPECT_EQ(problem(0).args[0], node_state);
    }
  }
}

TEST_F(ConversationState, RefusedGetStateIsAProductError) {
  ConvId id{};
  active_conversation(id);
  push(script(NAP_GET_STATE, AP_DEALLOC_NORMAL));
  CM_CONVERSATION_STATE state = -1;
  CM_RETURN_CODE rc = -1;
  cmecs(id.data(), &state, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR) << "not mapped";
  EXPECT_EQ(state, CM_INITIALIZE_STATE) << "the node left state code 0";
  ASSERT_GE(snt_problem_count(), 1u);
  EXPECT_EQ(problem(0).code, kProblemGetStateFailed);
  EXPECT_EQ(problem(0).args[0], AP_DEALLOC_NORMAL);
  EXPECT_NE(cccb_of(id), nullptr) << "a refused GET_STATE ends nothing";
}

TEST_F(ConversationState, UnknownIdIsReportedWithoutProblem) {
  ConvId id{0x7F, 0x7F, 0x7F};
  CM_CONVERSATION_STATE state = -1;
  CM_RETURN_CODE rc = -1;
  cmecs(id.data(), &state, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(state, -1);
  EXPECT_EQ(snt_problem_count(), 0u);
}

// The library states a conversation record can be in, as the calls test them.
enum class LibraryState {
  kReset,
  kInitialize,
  kInitializeIncoming,
  kActive,
  kBusy,
  kConfirmPending
};

const char *name_of(LibraryState s) {
  switch (s) {
    case LibraryState::kReset:
      return "Reset";
    case LibraryState::kInitialize:
      return "Initialize";
    case LibraryState::kInitializeIncoming:
      return "Initialize_Incoming";
    case LibraryState::kActive:
      return "Active";
    case LibraryState::kBusy:
      return "Busy";
    case LibraryState::kConfirmPending:
      return "confirmation pending";
  }
  return "?";
}

// Puts a fresh conversation into `state`; Busy is an active conversation
// with a non-blocking flush in progress.
void enter(LibraryState state, ConvId &id) {
  switch (state) {
    case LibraryState::kReset:
      start_library();
      id = ConvId{0x55, 0x66, 0x77, 0x01};
      break;
    case LibraryState::kInitialize:
      initialized_conversation(id);
      break;
    case LibraryState::kInitializeIncoming:
      incoming_conversation(id);
      break;
    case LibraryState::kActive:
      active_conversation(id);
      break;
    case LibraryState::kBusy: {
      active_conversation(id, CM_MAPPED_CONVERSATION, 1);
      push(script(NAP_FLUSH, AP_OK, 0, 1));
      CM_RETURN_CODE rc = -1;
      cmflus(id.data(), &rc);
      ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
      break;
    }
    case LibraryState::kConfirmPending:
      active_conversation(id)->fConfirmRequested = 1;
      break;
  }
}

// Expected outcome: a return code, or kNode when the verb goes to the node
// (whose default answer is success), or kInitState / kIncomingState for the
// state CMECS reports from the record.
constexpr CM_RETURN_CODE kNode = 1000;

TEST_F(ConversationState, StateRulesOfEveryCall) {
  using S = LibraryState;
  const std::vector<S> states = {S::kReset,  S::kInitialize, S::kInitializeIncoming,
                                 S::kActive, S::kBusy,       S::kConfirmPending};
  std::vector<std::pair<Call, std::map<S, CM_RETURN_CODE>>> table;
  const std::map<S, CM_RETURN_CODE> conversation_verb = {
      {S::kReset, 24},     {S::kInitialize, 25}, {S::kInitializeIncoming, 25},
      {S::kActive, kNode}, {S::kBusy, 37},       {S::kConfirmPending, kNode}};
  for (const Call &call : verb_calls()) table.push_back({call, conversation_verb});
  table.push_back({trts_call(),
                   {{S::kReset, 24},
                    {S::kInitialize, 25},
                    {S::kInitializeIncoming, 25},
                    {S::kActive, kNode},
                    {S::kBusy, 37},
                    {S::kConfirmPending, 25}}});
  table.push_back({deallocate_call(),  // deallocate type sync level
                   {{S::kReset, 24},
                    {S::kInitialize, 25},
                    {S::kInitializeIncoming, 25},
                    {S::kActive, kNode},
                    {S::kBusy, 37},
                    {S::kConfirmPending, kNode}}});
  table.push_back({state_call(),
                   {{S::kReset, 24},
                    {S::kInitialize, 0},
                    {S::kInitializeIncoming, 0},
                    {S::kActive, kNode},
                    {S::kBusy, 37},
                    {S::kConfirmPending, kNode}}});
  table.push_back({accept_incoming_call(),
                   {{S::kReset, 24},
                    {S::kInitialize, 25},
                    {S::kInitializeIncoming, kNode},
                    {S::kActive, 25},
                    {S::kBusy, 37},
                    {S::kConfirmPending, 25}}});
  table.push_back({allocate_call(),
                   {{S::kReset, 24},
                    {S::kInitialize, kNode},
                    {S::kInitializeIncoming, 25},
                    {S::kActive, 25},
                    {S::kBusy, 37},
                    {S::kConfirmPending, 25}}});

  for (const auto &[call, expected_by_state] : table) {
    for (S state : states) {
      restart_node();
      ConvId id{};
      enter(state, id);
      const std::string what = call.name + " in " + name_of(state);
      CCCB *cccb = cccb_of(id);
      Vcb area_before{};
      if (cccb != nullptr) std::memcpy(area_before.data(), cccb->vcb.bytes, area_before.size());
      const uint32_t submitted_before = snt_submitted_count();
      const CM_RETURN_CODE expected = expected_by_state.at(state);

      const CM_RETURN_CODE rc = call.run(id);

      if (expected == kNode) {
        EXPECT_EQ(rc, CM_OK) << what;
        EXPECT_GT(snt_submitted_count(), submitted_before) << what;
        continue;
      }
      EXPECT_EQ(rc, expected) << what;
      if (call.name == "CMALLC") {
        // A refused allocate still starts a TP and ends it again: two verbs
        // outside the conversation's own area.
        if (state != S::kReset) {
          EXPECT_EQ(snt_submitted_count(), submitted_before + 2) << what;
        }
      } else {
        EXPECT_EQ(snt_submitted_count(), submitted_before) << what;
      }
      if (cccb != nullptr) {
        EXPECT_EQ(std::memcmp(area_before.data(), cccb->vcb.bytes, area_before.size()), 0)
            << what << ": a refused call leaves the verb area alone";
      }
      if (state == S::kReset) {
        const bool logs = call.name != "CMECS";
        ASSERT_EQ(snt_problem_count(), logs ? 1u : 0u) << what;
        if (logs) {
          EXPECT_EQ(problem(0).probe, call.unknown_id_probe) << what;
        }
      }
      if (call.name == "CMECS" && rc == CM_OK) {
        EXPECT_EQ(out_parms().state,
                  state == S::kInitialize ? CM_INITIALIZE_STATE : CM_INITIALIZE_INCOMING_STATE)
            << what;
      }
    }
  }
}

}  // namespace
}  // namespace verbs_test

// The conversation state machine seen from both sides: data, turns,
// confirmation, errors, deallocation, request-to-send and state checks.
#include "node/engine_harness.h"

namespace engine_test {
namespace {

using Options = AllocateOptions;

Options basic(uint8_t sync = 0) {
  return {.mapped = false, .sync_level = sync};
}
Options mapped(uint8_t sync = 0) {
  return {.sync_level = sync};
}

TEST(EngineConversation, BufferedDataStaysUntilFlushedOrPastTheModeBufferSize) {
  config::NodeConfig cfg;
  cfg.modes.push_back({"#INTER", 8, 10});
  EngineHarness h(cfg);
  auto [a, b] = h.connect(mapped());
  ASSERT_EQ(h.send(a, "1234"), AP_OK);
  EXPECT_EQ(h.receive(b, 100, 1, 0, false).rc, AP_UNSUCCESSFUL);  // still buffered
  ASSERT_EQ(h.send(a, "567890"), AP_OK);                          // 10 bytes: sent
  EXPECT_EQ(h.receive(b, 100, 1, 0, false).data, "1234");
  EXPECT_EQ(h.receive(b, 100, 1, 0, false).data, "567890");
  ASSERT_EQ(h.send(a, "x"), AP_OK);
  EXPECT_EQ(h.receive(b, 100, 1, 0, false).rc, AP_UNSUCCESSFUL);
  EXPECT_EQ(h.simple(NAP_FLUSH, a), AP_OK);
  EXPECT_EQ(h.receive(b, 100, 1, 0, false).data, "x");
}

TEST(EngineConversation, ReturnStatusBringsTheStatusWithTheLastData) {
  const std::tuple<uint8_t, uint16_t, uint8_t> cases[] = {
      {AP_SEND_PTR_FLUSH, AP_WR_SEND, AP_STATE_SEND_PENDING},
      {AP_SEND_CONFIRM, AP_WR_CONFIRM, AP_STATE_CONFIRM},
      {AP_SEND_PTR_SYNC_LEVEL, AP_WR_CONFIRM_SEND, AP_STATE_CONFIRM_SEND},
      {AP_SEND_DEALLOC_SYNC_LEVEL, AP_WR_CONFIRM_DEALLOCATE, AP_STATE_CONFIRM_DEALLOCATE}};
  for (const auto &[type, what, state] : cases) {
    SCOPED_TRACE(int(type));
    EngineHarness h;
    auto [a, b] = h.connect(mapped(1));
    auto vcb = EngineHarness::send_vcb(a, "last", type);
    h.submit(&vcb);
    Received got = h.receive(b, 100, 1, 1);
    EXPECT_EQ(got.data, "last");
    EXPECT_EQ(got.what, AP_WR_DATA_COMPLETE | what);
    EXPECT_EQ(h.state(b), state);
  }
}

TEST(EngineConversation, AWaitingReceiveGetsDataAndStatusSentTogether) {
  EngineHarness h;
  auto [a, b] = h.connect(mapped());
  std::vector<uint8_t> buffer(100);
  auto wait = EngineHarness::receive_vcb(b, buffer, true, 1, 1);
  ASSERT_FALSE(h.submit(&wait));
  ASSERT_EQ(h.send(a, "turn", AP_SEND_PTR_FLUSH), AP_OK);
  ASSERT_TRUE(h.completed(&wait));
  EXPECT_EQ(wait.what_received, AP_WR_DATA_COMPLETE | AP_WR_SEND);
  EXPECT_EQ(EngineHarness::result_of(wait, buffer).data, "turn");
  EXPECT_EQ(h.state(b), AP_STATE_SEND_PENDING);
}

TEST(EngineConversation, SendPendingAllowsSendingAndSendErrorByDirection) {
  // Whichever the direction, a partner that has already ended is reported.
  for (auto [direction, partner_ended] : {std::pair{0, false}, {1, false}, {0, true}, {1, true}}) {
    SCOPED_TRACE(testing::Message() << direction << partner_ended);
    EngineHarness h;
    auto [a, b] = h.connect(mapped());
    ASSERT_EQ(h.send(a, "data", AP_SEND_PTR_FLUSH), AP_OK);
    ASSERT_EQ(h.receive(b, 100, 1, 1).what, AP_WR_DATA_COMPLETE | AP_WR_SEND);
    ASSERT_EQ(h.state(b), AP_STATE_SEND_PENDING);
    if (partner_ended) {
      ASSERT_EQ(h.deallocate(a, AP_DEALLOC_ABEND_MAPPED), AP_OK);
      EXPECT_EQ(h.send_error(b, direction), AP_DEALLOC_ABEND_PROG);
      EXPECT_EQ(h.state(b), AP_STATE_RESET);
      continue;
    }
    EXPECT_EQ(h.send_error(b, direction), AP_OK);
    EXPECT_EQ(h.state(b), AP_STATE_SEND);
    EXPECT_EQ(h.receive(a, 100, 1, 0, false).rc,
              direction == 1 ? AP_PROG_ERROR_NO_TRUNC : AP_PROG_ERROR_PURGING);
    EXPECT_EQ(h.state(a), AP_STATE_RECEIVE);
  }
}

TEST(EngineConversation, AbendFromReceiveReachesAWaitingPartnerAndPurges) {
  EngineHarness h;
  auto [a, b] = h.connect(mapped(1));
  ASSERT_EQ(h.send(a, "unread"), AP_OK);
  auto confirm = EngineHarness::verb<NAP_CONFIRM_VCB>(NAP_CONFIRM, a);
  ASSERT_FALSE(h.submit(&confirm));
  EXPECT_EQ(h.deallocate(b, AP_DEALLOC_ABEND_MAPPED), AP_OK);
  ASSERT_TRUE(h.completed(&confirm));
  EXPECT_EQ(confirm.hdr.primary_rc, AP_DEALLOC_ABEND_PROG);
}

TEST(EngineConversation, APartnerEndingReachesASenderThatOnlyBuffers) {
  // The receiver ends or refuses the conversation while the sender is still
  // buffering: the very next SEND_DATA says so and leaves the right state.
  enum Ending { kSendError, kAbend, kTpEnded };
  const std::tuple<Ending, uint16_t, uint8_t> cases[] = {
      {kSendError, AP_PROG_ERROR_PURGING, AP_STATE_RECEIVE},
      {kAbend, AP_DEALLOC_ABEND_PROG, AP_STATE_RESET},
      {kTpEnded, AP_DEALLOC_ABEND_PROG, AP_STATE_RESET}};
  for (const auto &[ending, rc, state_after] : cases) {
    SCOPED_TRACE(testing::Message() << "ending " << int(ending));
    EngineHarness h;
    auto [a, b] = h.connect(mapped());
    ASSERT_EQ(h.send(a, "first"), AP_OK);
    if (ending == kSendError) {
      ASSERT_EQ(h.send_error(b), AP_OK);
    } else if (ending == kAbend) {
      ASSERT_EQ(h.deallocate(b, AP_DEALLOC_ABEND_MAPPED), AP_OK);
    } else {
      ASSERT_EQ(h.tp_ended(b.tp).primary_rc, AP_OK);
    }
    EXPECT_EQ(h.send(a, "second"), rc);
    EXPECT_EQ(h.state(a), state_after);
  }
}

TEST(EngineConversation, MappedRecordsAreCutToTheBufferAndContinued) {
  EngineHarness h;
  auto [a, b] = h.connect(mapped());
  ASSERT_EQ(h.send(a, "abcdefghij"), AP_OK);
  ASSERT_EQ(h.send(a, "", AP_SEND_FLUSH), AP_OK);
  // The empty record is a record too.
  for (auto [data, what] : {std::pair{"abcd", AP_WR_DATA_INCOMPLETE},
                            {"efgh", AP_WR_DATA_INCOMPLETE},
                            {"ij", AP_WR_DATA_COMPLETE},
                            {"", AP_WR_DATA_COMPLETE}}) {
    const Received got = h.receive(b, 4);
    EXPECT_EQ(got.data, data);
    EXPECT_EQ(got.what, what) << data;
  }
}

TEST(EngineConversation, InvalidLengthFieldsAreRefusedAndNothingIsSent) {
  for (const char *ll : {"\x00\x00", "\x00\x01", "\x80\x00", "\x80\x01"}) {
    EngineHarness h;
    auto [a, b] = h.connect(basic());
    const std::string bad = record("ok") + std::string(ll, 2) + "zz";
    EXPECT_EQ(h.send(a, bad, AP_SEND_FLUSH), AP_PARAMETER_CHECK);
    EXPECT_EQ(h.last_secondary, AP_BAD_FIELD);
    EXPECT_EQ(h.receive(b, 100, 1, 0, false).rc, AP_UNSUCCESSFUL);
    EXPECT_EQ(h.send(a, record("ok"), AP_SEND_FLUSH), AP_OK);
    EXPECT_EQ(h.receive(b).data, record("ok"));
  }
}

TEST(EngineConversation, IncompleteRecordBlocksTurnsButNotFlush) {
  EngineHarness h;
  auto [a, b] = h.connect(basic(1));
  const std::string head = std::string("\x00\x0A", 2) + "abc";  // 10-byte record, 5 given
  ASSERT_EQ(h.send(a, head, AP_SEND_FLUSH), AP_OK);
  EXPECT_EQ(h.prepare_to_receive(a, 1), AP_STATE_CHECK);
  EXPECT_EQ(h.deallocate(a, AP_DEALLOC_FLUSH), AP_STATE_CHECK);
  EXPECT_EQ(h.simple(NAP_CONFIRM, a), AP_STATE_CHECK);
  EXPECT_EQ(h.send(a, "defgh", AP_SEND_PTR_FLUSH), AP_OK);
  EXPECT_EQ(h.receive(b).data, head + "defgh");
}

TEST(EngineConversation, VerbsInStatesThatDoNotAllowThemAreStateChecks) {
  // (state reached, verb) pairs LU 6.2 refuses.
  enum At { kSend, kReceive, kConfirm };
  const std::pair<At, uint16_t> cases[] = {{kSend, NAP_CONFIRMED},
                                           {kSend, NAP_REQUEST_TO_SEND},
                                           {kReceive, NAP_SEND_DATA},
                                           {kReceive, NAP_FLUSH},
                                           {kReceive, NAP_CONFIRM},
                                           {kReceive, NAP_CONFIRMED},
                                           {kReceive, NAP_PREPARE_TO_RECEIVE},
                                           {kReceive, NAP_DEALLOCATE},
                                           {kConfirm, NAP_SEND_DATA},
                                           {kConfirm, NAP_RECEIVE_AND_WAIT},
                                           {kConfirm, NAP_FLUSH},
                                           {kConfirm, NAP_DEALLOCATE}};
  for (const auto &[at, opcode] : cases) {
    SCOPED_TRACE(testing::Message() << "at " << int(at) << " opcode " << opcode);
    EngineHarness h;
    auto [a, b] = h.connect(mapped(1));
    const Conv subject = at == kSend ? a : b;
    NAP_CONFIRM_VCB pending{};
    if (at == kConfirm) {
      pending = EngineHarness::verb<NAP_CONFIRM_VCB>(NAP_CONFIRM, a);
      ASSERT_FALSE(h.submit(&pending));
      ASSERT_EQ(h.receive(b).what, AP_WR_CONFIRM);
    }
    const uint8_t before = h.state(subject);
    std::vector<uint8_t> buffer(10);
    NAP_RECEIVE_VCB vcb = EngineHarness::receive_vcb(subject, buffer, true);
    vcb.hdr.opcode = opcode;
    if (opcode == NAP_DEALLOCATE) {
      reinterpret_cast<NAP_DEALLOCATE_VCB &>(vcb).dealloc_type = AP_DEALLOC_FLUSH;
    } else if (opcode == NAP_SEND_DATA) {
      vcb = NAP_RECEIVE_VCB{};
      auto send = EngineHarness::send_vcb(subject, "x", AP_SEND_FLUSH);
      std::memcpy(&vcb, &send, sizeof send);
    } else if (opcode == NAP_PREPARE_TO_RECEIVE) {
      reinterpret_cast<NAP_PREPARE_TO_RECEIVE_VCB &>(vcb).ptr_type = 1;
    }
    EXPECT_TRUE(h.submit(&vcb));
    EXPECT_EQ(vcb.hdr.primary_rc, AP_STATE_CHECK);
    EXPECT_EQ(h.state(subject), before);
  }
}

TEST(EngineConversation, ConfirmNeedsSyncLevelConfirm) {
  EngineHarness h;
  auto [a, b] = h.connect(mapped(0));
  EXPECT_EQ(h.simple(NAP_CONFIRM, a), AP_STATE_CHECK);
  EXPECT_EQ(h.send(a, "x", AP_SEND_CONFIRM), AP_STATE_CHECK);
  EXPECT_EQ(h.receive(b, 100, 1, 0, false).rc, AP_UNSUCCESSFUL);  // nothing went out
}

TEST(EngineConversation, UnknownConversationOrTpAndTheConversationsOwnType) {
  EngineHarness h;
  auto [a, b] = h.connect(mapped());
  EXPECT_EQ(h.simple(NAP_FLUSH, Conv{a.tp, 999999}), AP_PARAMETER_CHECK);
  auto flush = EngineHarness::verb<NAP_CONFIRM_VCB>(NAP_FLUSH, Conv{b.tp, a.id});
  h.submit(&flush);
  EXPECT_EQ(flush.hdr.secondary_rc, AP_BAD_TP_ID);
  // A DEALLOCATE marked basic on a mapped conversation still ends it as mapped
  // (no log data goes with it).
  EXPECT_EQ(h.deallocate(Conv{a.tp, a.id, false}, AP_DEALLOC_ABEND_LOG, "dropped"), AP_OK);
  EXPECT_EQ(h.receive(b).rc, AP_DEALLOC_ABEND_PROG);
  EXPECT_TRUE(h.logged.empty());
}

using snanode::engine::Conversation;
using snanode::engine::ConversationSetup;

struct CountingHost : snanode::engine::ConversationHost {
  int completed = 0;
  void verb_completed(void *, void *) override { ++completed; }
  void partner_log_data(uint32_t, const std::vector<uint8_t> &) override {}
};

TEST(EngineConversation, APartnerThatVanishesFailsTheWaitingVerbAndTheNextOne) {
  CountingHost host;
  auto link = snanode::engine::make_in_memory_link();
  ConversationSetup setup;
  setup.id = 1;
  Conversation a(setup, std::move(link.first), host);
  setup.starts_in_send = false;
  auto b = std::make_unique<Conversation>(setup, std::move(link.second), host);

  std::vector<uint8_t> buffer(10);
  Conv side{{}, 1, true};
  auto wait = EngineHarness::receive_vcb(side, buffer, true);
  ASSERT_FALSE(a.receive(wait, true, &wait));  // turns to b, then waits
  b.reset();                                   // b's process is gone
  EXPECT_EQ(host.completed, 1);
  EXPECT_EQ(wait.hdr.primary_rc, AP_CONV_FAILURE_NO_RETRY);
  EXPECT_EQ(a.state(), snanode::engine::ConvState::kReset);
}

TEST(EngineConversation, TruncationDropsTheRestOfAPartlyReceivedRecord) {
  // The receiver took part of what was sent of the record, or all of it:
  // either way the record's rest never comes.
  for (uint16_t first_receive : {4, 10}) {
    SCOPED_TRACE(testing::Message() << "first receive of " << first_receive);
    EngineHarness h;
    auto [a, b] = h.connect(basic());
    const std::string head = std::string("\x00\x14", 2) + "12345678";  // 20-byte record, 10 sent
    ASSERT_EQ(h.send(a, head, AP_SEND_FLUSH), AP_OK);
    Received got = h.receive(b, first_receive);
    EXPECT_EQ(got.what, AP_WR_DATA_INCOMPLETE);
    EXPECT_EQ(got.data, head.substr(0, first_receive));
    EXPECT_EQ(h.send_error(a), AP_OK);
    EXPECT_EQ(h.receive(b, 100).rc, AP_PROG_ERROR_TRUNC);
    // The next record is read from its own LL, not from the dropped one's.
    ASSERT_EQ(h.send(a, record("fresh"), AP_SEND_FLUSH), AP_OK);
    got = h.receive(b, 100);
    EXPECT_EQ(got.data, record("fresh"));
    EXPECT_EQ(got.what, AP_WR_DATA_COMPLETE);
  }
}

TEST(EngineConversation, SendErrorAfterThePartnerHasGoneReportsItsEnding) {
  for (bool abend : {false, true}) {
    EngineHarness h;
    auto [a, b] = h.connect(mapped());
    ASSERT_EQ(h.send(a, "unread"), AP_OK);
    ASSERT_EQ(h.deallocate(a, abend ? AP_DEALLOC_ABEND_MAPPED : AP_DEALLOC_FLUSH), AP_OK);
    EXPECT_EQ(h.send_error(b), abend ? AP_DEALLOC_ABEND_PROG : AP_DEALLOC_NORMAL);
    EXPECT_EQ(h.simple(NAP_FLUSH, b), AP_PARAMETER_CHECK);  // over
  }
}

}  // namespace
}  // namespace engine_test

// Two session managers joined by an in-memory pipe that carries whole BIUs:
// BIND negotiation and refusals, CNOS limits, the allocation queue, contention
// and bidding, pacing, UNBIND and malformed units.  The last test writes a
// whole exchange to a pcap file and reads it back with tshark.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "net/capture_files.h"
#include "net/formats/control_rus.h"
#include "net/formats/sense_codes.h"
#include "net/golden_units.h"
#include "net/lu62/session_manager.h"
#include "net/tshark_run.h"

namespace snanode::net::lu62 {
namespace {

const std::string kLuA = "NET.LUA";
const std::string kLuB = "NET.LUB";
const std::string kMode = "#INTER";

struct ManualClock : Clock {
  time_point t{};
  time_point now() const override { return t; }
};

// Units in flight each way, and every unit in the order it was sent.
struct Pipe {
  std::deque<Bytes> to[2];
  std::vector<std::pair<int, Bytes>> log;  // sender side (0 = A), BIU
};

struct Conversation : SessionUser {
  Session *session = nullptr;
  std::vector<Rh> requests;
  std::vector<Rh> responses;
  std::optional<uint32_t> ended;
  std::optional<AllocationOutcome> outcome;
  void on_request(Session &, const Rh &rh, ByteSpan, uint16_t) override { requests.push_back(rh); }
  void on_response(Session &, const Rh &rh, ByteSpan, uint16_t) override {
    responses.push_back(rh);
  }
  void on_request_to_send(Session &) override {}
  void on_session_ended(Session &, uint32_t sense) override {
    ended = sense;
    session = nullptr;
  }
  // One RU; BB is the session's business, CEB ends the bracket.
  Status send(bool first, bool last, bool ceb = false) {
    Rh rh;
    rh.bci = first;
    rh.eci = last;
    rh.set_form(ResponseForm::kRqe1);
    rh.cebi = ceb;
    const Bytes data{0x00, 0x05, 0x12, 0xFF, 0x42};
    return session->send_request(rh, data);
  }
};

struct Node : BiuTransport, IncomingConversations {
  Node(Pipe &pipe, int side, ManualClock &clock, std::vector<ModeConfig> modes)
      : pipe(pipe),
        side(side),
        manager({side == 0 ? kLuA : kLuB,
                 {uint8_t(0xA0 + side), 0, 0, 0},
                 std::move(modes),
                 std::chrono::seconds(30)},
                *this, clock, *this) {}
  void send_biu(std::string_view, std::string_view, ByteSpan biu) override {
    pipe.to[1 - side].emplace_back(biu.begin(), biu.end());
    pipe.log.emplace_back(side, Bytes(biu.begin(), biu.end()));
  }
  void on_partner_bracket(Session &session) override {
    incoming.emplace_back();
    incoming.back().session = &session;
    session.attach_user(&incoming.back());
  }
  Conversation &allocate(const std::string &mode = kMode) {
    outgoing.emplace_back();
    Conversation *c = &outgoing.back();
    manager.allocate_session(partner(), mode, [c](Session *session, AllocationOutcome outcome) {
      c->outcome = outcome;
      if (session) {
        c->session = session;
        session->attach_user(c);
      }
    });
    return *c;
  }
  const std::string &partner() const { return side == 0 ? kLuB : kLuA; }
  std::vector<Session *> sessions(const std::string &mode = kMode) {
    return manager.sessions(partner(), mode);
  }

  Pipe &pipe;
  int side;
  std::deque<Conversation> incoming;
  std::deque<Conversation> outgoing;
  SessionManager manager;
};

struct Pair {
  Pair(std::vector<ModeConfig> modes_a, std::vector<ModeConfig> modes_b)
      : a(pipe, 0, clock, std::move(modes_a)), b(pipe, 1, clock, std::move(modes_b)) {}
  void pump() {
    for (int guard = 0; guard < 10000 && (!pipe.to[0].empty() || !pipe.to[1].empty()); ++guard) {
      for (int side = 0; side < 2; ++side) {
        if (pipe.to[side].empty()) continue;
        Bytes unit = std::move(pipe.to[side].front());
        pipe.to[side].pop_front();
        (side == 0 ? a : b).manager.on_unit_received(side == 0 ? kLuB : kLuA, unit);
      }
    }
  }
  ManualClock clock;
  Pipe pipe;
  Node a, b;
};

ModeConfig mode(uint32_t ru_send, uint32_t ru_receive, uint8_t send_window, uint8_t receive_window,
                uint16_t limit, uint16_t winners, const std::string &name = kMode) {
  return {name, ru_send, ru_receive, send_window, receive_window, limit, winners};
}

// How many units one side sent whose RH (and RU start, if given) match.
size_t sent(const Pipe &pipe, int side, const char *rh_and_ru) {
  const Bytes start = golden::from_hex(rh_and_ru);
  return std::count_if(pipe.log.begin(), pipe.log.end(), [&](const auto &unit) {
    return unit.first == side && unit.second.size() >= 12 + start.size() &&
           std::equal(start.begin(), start.end(), unit.second.begin() + 12);
  });
}

TEST(Sessions, BindKeepsTheLowerOfBothSidesAndCnosSplitsTheWinners) {
  Pair p({mode(1024, 2048, 7, 7, 8, 4), mode(256, 256, 2, 2, 2, 1, "#BATCH")},
         {mode(512, 256, 3, 5, 6, 3), mode(256, 256, 2, 2, 2, 1, "#BATCH")});
  Conversation &c = p.a.allocate();
  p.pump();
  ASSERT_EQ(c.outcome, AllocationOutcome::kAllocated);
  EXPECT_EQ(p.a.manager.limits(kLuB, kMode), (SessionLimits{6, 4, 2}));
  EXPECT_EQ(p.b.manager.limits(kLuA, kMode), (SessionLimits{6, 2, 4}));
  EXPECT_EQ(p.a.sessions(std::string(kServiceMode)).size(), 1u);
  ASSERT_EQ(p.a.sessions().size(), 1u);
  ASSERT_EQ(p.b.sessions().size(), 1u);
  const SessionParams &pa = p.a.sessions()[0]->params();
  const SessionParams &pb = p.b.sessions()[0]->params();
  // A is primary and winner; A sends RUs of 256 (B takes no more), B of 512.
  EXPECT_EQ((std::vector<unsigned>{pa.primary, pa.local_winner, pa.max_send_ru, pa.max_receive_ru,
                                   pa.send_window, pa.receive_window}),
            (std::vector<unsigned>{1, 1, 256, 512, 5, 3}));
  EXPECT_EQ((std::vector<unsigned>{pb.primary, pb.local_winner, pb.max_send_ru, pb.max_receive_ru,
                                   pb.send_window, pb.receive_window}),
            (std::vector<unsigned>{0, 0, 512, 256, 3, 5}));

  // BINDs B refuses, each with its sense, the request code echoed, and no session.
  const SessionAddress used = p.b.sessions()[0]->address();
  struct Case {
    const char *what;
    std::string mode;
    SessionAddress address;
    uint32_t sense;
    int patch_at = -1;
    uint8_t patch = 0;
  };
  const Case cases[] = {
      {"unknown mode", "#NOPE", {0xA0, 0, 0, 0, 0, 0, 1, 0}, sense::kBindModeNameUnknown},
      {"no CNOS yet: limit 0", "#BATCH", {0xA0, 0, 0, 0, 0, 0, 1, 1}, sense::kSessionLimitExceeded},
      {"address in use", kMode, used, 0x08210000},
      {"FM profile 18", kMode, {0xA0, 0, 0, 0, 0, 0, 1, 2}, 0x08350002, 2, 0x12},
      {"session cryptography", kMode, {0xA0, 0, 0, 0, 0, 0, 1, 3}, 0x0835001A, 26, 0x20},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.what);
    Bytes ru;
    ASSERT_TRUE(encode_bind(build_bind(mode(256, 256, 1, 1, 1, 1, k.mode), kLuA, kLuB, true), ru));
    if (k.patch_at >= 0) ru[k.patch_at] = k.patch;
    Bytes biu;
    encode_biu({.expedited = true, .snf = 1, .session_address = k.address},
               Rh{.category = RuCategory::kSc, .fi = true, .dr1 = true}, ru, biu);
    p.pipe.to[0].clear();
    p.b.manager.on_unit_received(kLuA, biu);
    ASSERT_EQ(p.pipe.to[0].size(), 1u);
    Result<BiuView> rsp = decode_biu(p.pipe.to[0].front());
    ASSERT_TRUE(rsp);
    EXPECT_EQ(rsp->th.session_address, k.address);
    EXPECT_TRUE(rsp->th.expedited && rsp->rh.response && rsp->rh.rti && rsp->rh.sdi);
    Result<NegativeResponse> negative = decode_negative_response(rsp->ru);
    ASSERT_TRUE(negative);
    EXPECT_EQ(negative.value(), (NegativeResponse{k.sense, kRequestBind}));
  }
  p.pipe.to[0].clear();
  EXPECT_EQ(p.b.sessions().size(), 1u);
  EXPECT_TRUE(p.b.sessions("#BATCH").empty());

  // A +RSP(BIND) raising the RU size A proposed to send: A ends that session
  // at once with UNBIND X'FE' naming byte 11, and the allocation waits on.
  c.session->release();
  Conversation &takes_free = p.a.allocate();
  EXPECT_EQ(takes_free.outcome, AllocationOutcome::kAllocated);
  Conversation &waits = p.a.allocate();
  ASSERT_EQ(p.pipe.to[1].size(), 1u);
  Result<BiuView> bind_unit = decode_biu(p.pipe.to[1].front());
  Result<Bind> raised = decode_bind(bind_unit ? bind_unit->ru : ByteSpan{});
  ASSERT_TRUE(bind_unit && raised);
  raised->max_ru_primary_sends = 4096;
  Bytes image, rsp;
  ASSERT_TRUE(encode_bind(raised.value(), image));
  encode_biu(bind_unit->th, response_rh(bind_unit->rh, false), image, rsp);
  p.pipe.to[1].clear();
  p.a.manager.on_unit_received(kLuB, rsp);
  EXPECT_EQ(sent(p.pipe, 0, "6B800032FE0835000B"), 1u);
  EXPECT_FALSE(waits.outcome);
  EXPECT_EQ(p.a.sessions().size(), 1u);
}

TEST(Sessions, CrossingCnosExchangesLeaveBothSidesTheSameLimits) {
  Pair p({mode(256, 256, 7, 7, 8, 4)}, {mode(256, 256, 7, 7, 6, 1)});
  Conversation &from_a = p.a.allocate();
  Conversation &from_b = p.b.allocate();
  p.pump();
  EXPECT_EQ(from_a.outcome, AllocationOutcome::kAllocated);
  EXPECT_EQ(from_b.outcome, AllocationOutcome::kAllocated);
  // NET.LUA's exchange is the one kept: limit 6, A's four winners, B's two.
  EXPECT_EQ(p.a.manager.limits(kLuB, kMode), (SessionLimits{6, 4, 2}));
  EXPECT_EQ(p.b.manager.limits(kLuA, kMode), (SessionLimits{6, 2, 4}));
}

TEST(Sessions, AllocationsBeyondTheLimitQueueUntilASessionFreesOrTimeOut) {
  Pair p({mode(256, 256, 7, 7, 2, 1)}, {mode(256, 256, 7, 7, 2, 1)});
  Conversation &first = p.a.allocate();
  Conversation &second = p.a.allocate();
  Conversation &third = p.a.allocate();
  p.pump();
  ASSERT_EQ(first.outcome, AllocationOutcome::kAllocated);
  ASSERT_EQ(second.outcome, AllocationOutcome::kAllocated);
  EXPECT_FALSE(third.outcome);
  EXPECT_EQ(p.a.manager.queued_allocations(kLuB, kMode), 1u);
  ASSERT_EQ(p.a.sessions().size(), 2u);  // one A wins, one B wins and A bid for
  EXPECT_NE(first.session->params().local_winner, second.session->params().local_winner);
  EXPECT_EQ(sent(p.pipe, 0, "4B808004"), 1u);  // the bid: LUSTAT, BB, RQD1

  // The first bracket ends: the queued allocation gets that session.
  Session *freed = first.session;
  ASSERT_TRUE(first.send(true, true, true));
  p.pump();
  EXPECT_EQ(third.outcome, AllocationOutcome::kAllocated);
  EXPECT_EQ(third.session, freed);
  ASSERT_EQ(p.b.incoming.size(), 1u);
  EXPECT_TRUE(p.b.incoming[0].requests.at(0).bbi);

  // Nothing frees in time for a fourth.
  Conversation &fourth = p.a.allocate();
  p.pump();
  ASSERT_TRUE(p.a.manager.next_deadline());
  p.clock.t += std::chrono::seconds(29);
  p.a.manager.on_timer();
  EXPECT_FALSE(fourth.outcome);
  p.clock.t += std::chrono::seconds(2);
  p.a.manager.on_timer();
  EXPECT_EQ(fourth.outcome, AllocationOutcome::kTimedOut);
  EXPECT_EQ(p.a.manager.queued_allocations(kLuB, kMode), 0u);
}

// Among sessions in use, the one whose bracket ended serves the next
// allocation; one given but not used yet serves nobody else meanwhile.
TEST(Sessions, AFreedSessionAmongBusyOnesServesTheNextAllocation) {
  Pair p({mode(256, 256, 7, 7, 4, 4)}, {mode(256, 256, 7, 7, 4, 0)});
  std::vector<Conversation *> busy;
  for (int i = 0; i < 4; ++i) busy.push_back(&p.a.allocate());
  p.pump();
  for (Conversation *c : busy) ASSERT_TRUE(c->send(true, true));
  p.pump();
  ASSERT_EQ(p.a.sessions().size(), 4u);

  Session *third = busy[2]->session;
  ASSERT_TRUE(busy[2]->send(true, true, true));
  p.pump();
  Conversation &next = p.a.allocate();
  EXPECT_EQ(next.session, third);
  Conversation &waiting = p.a.allocate();
  p.pump();
  EXPECT_FALSE(waiting.outcome);
  Session *first = busy[0]->session;
  ASSERT_TRUE(busy[0]->send(true, true, true));
  p.pump();
  EXPECT_EQ(waiting.session, first);
  EXPECT_EQ(p.a.sessions().size(), 4u);
}

// A wins the one session; both sides begin a bracket at once.
void run_contention(Pair &p) {
  p.a.manager.change_session_limits(kLuB, kMode);
  p.pump();
  Conversation &warmup = p.a.allocate();
  p.pump();
  ASSERT_EQ(warmup.outcome, AllocationOutcome::kAllocated);
  ASSERT_TRUE(warmup.send(true, true, true));
  p.pump();

  Conversation &winner = p.a.allocate();
  ASSERT_EQ(winner.outcome, AllocationOutcome::kAllocated);  // at once: A wins
  Conversation &bidder = p.b.allocate();
  ASSERT_TRUE(winner.send(true, true));
  p.pump();
  EXPECT_FALSE(bidder.outcome);
  ASSERT_EQ(p.b.incoming.size(), 2u);
  EXPECT_TRUE(p.b.incoming[1].requests.at(0).bbi);
  // A refused the bid: −RSP(X'08140000') with the LUSTAT request code.
  EXPECT_EQ(sent(p.pipe, 0, "CF90000814000004"), 1u);

  ASSERT_TRUE(winner.send(true, true, true));  // A's bracket ends
  p.pump();
  ASSERT_EQ(bidder.outcome, AllocationOutcome::kAllocated);
  // B ends its bracket asking for a definite response, as the conversation
  // layer hands units over: the bracket ends at A's +RSP, not before.
  Rh last;
  last.set_form(ResponseForm::kRqd3);
  last.cebi = true;
  ASSERT_TRUE(bidder.session->send_unit(last, Bytes{0x00, 0x03, 0x01}, false));
  p.pump();
  ASSERT_EQ(p.a.incoming.size(), 1u);
  Conversation &taker = p.a.incoming[0];
  EXPECT_FALSE(taker.requests.at(0).bbi);  // the granted bid began the bracket
  EXPECT_EQ(sent(p.pipe, 1, "4B808004"), 2u);
  Session &b_session = *bidder.session;
  EXPECT_EQ(b_session.bracket(), Bracket::kLocal);
  ASSERT_TRUE(taker.session->send_unit(Rh{.response = true}, {}, false));
  p.pump();
  EXPECT_EQ(bidder.responses.size(), 1u);
  EXPECT_EQ(b_session.bracket(), Bracket::kBetween);
  EXPECT_TRUE(p.a.sessions()[0]->free());
  EXPECT_EQ(sent(p.pipe, 0, "4B800005"), 1u);  // RTR after A's bracket

  // A refuses a bid for an allocation it then gives up unused: its RTR lets
  // B bid again at once.
  Conversation &idle = p.a.allocate();
  ASSERT_EQ(idle.outcome, AllocationOutcome::kAllocated);
  Conversation &late = p.b.allocate();
  p.pump();
  EXPECT_FALSE(late.outcome);
  idle.session->release();
  p.pump();
  EXPECT_EQ(late.outcome, AllocationOutcome::kAllocated);
  ASSERT_TRUE(late.send(true, true, true));
  p.pump();
}

TEST(Sessions, ContentionWinnerGoesFirstAndTheLoserGetsTheSessionAfterBidding) {
  Pair p({mode(256, 256, 7, 7, 1, 1)}, {mode(256, 256, 7, 7, 1, 0)});
  run_contention(p);
}

// A sends five RUs with a window of two while B holds its pacing response.
void run_pacing(Pair &p) {
  Conversation &c = p.a.allocate();
  p.pump();
  ASSERT_EQ(c.outcome, AllocationOutcome::kAllocated);
  ASSERT_EQ(p.b.sessions().size(), 1u);
  Session &receiver = *p.b.sessions()[0];
  receiver.set_receive_ready(false);
  const size_t before = p.b.incoming.size();
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(c.send(i == 0, i == 4));
  p.pump();
  ASSERT_EQ(p.b.incoming.size(), before + 1);
  const Conversation &in = p.b.incoming.back();
  EXPECT_EQ(in.requests.size(), 2u);
  EXPECT_EQ(c.session->held_requests(), 3u);
  receiver.set_receive_ready(true);
  p.pump();
  ASSERT_EQ(in.requests.size(), 5u);
  EXPECT_EQ(c.session->held_requests(), 0u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(in.requests[i].pi, i % 2 == 0) << i;
  EXPECT_EQ(sent(p.pipe, 1, "830100000002"), 3u);  // IPMs
}

TEST(Sessions, PacingHoldsTheSenderToItsWindowUntilThePacingResponse) {
  Pair p({mode(256, 256, 2, 7, 1, 1)}, {mode(256, 256, 7, 2, 1, 0)});
  run_pacing(p);

  // A sender that ignores the window: B ends the session with X'20110000'.
  Session &receiver = *p.b.sessions()[0];
  Conversation &sender = p.a.outgoing.back();
  receiver.set_receive_ready(false);
  for (int i = 0; sender.session->held_requests() == 0 && i < 10; ++i) {
    ASSERT_TRUE(sender.send(i == 0, false));
  }
  p.pump();
  uint16_t last_snf = 0;
  for (const auto &[side, biu] : p.pipe.log) {
    Result<BiuView> unit = decode_biu(biu);
    if (side == 0 && !unit->th.expedited && !unit->rh.response) last_snf = unit->th.snf;
  }
  Bytes overrun;
  encode_biu({.snf = static_cast<uint16_t>(last_snf + 1), .session_address = receiver.address()},
             Rh{.bci = false, .eci = false, .dr1 = true, .eri = true}, Bytes{0x01}, overrun);
  p.b.manager.on_unit_received(kLuA, overrun);
  p.pump();
  EXPECT_EQ(sender.ended, 0x20110000u);
  EXPECT_EQ(sent(p.pipe, 1, "6B800032FE20110000"), 1u);
}

TEST(Sessions, UnbindAndMalformedUnitsEndOnlyTheirOwnSession) {
  Pair p({mode(256, 256, 7, 7, 3, 3)}, {mode(256, 256, 7, 7, 3, 0)});
  Conversation &one = p.a.allocate();
  Conversation &two = p.a.allocate();
  Conversation &three = p.a.allocate();
  p.pump();
  for (Conversation *c : {&one, &two, &three}) ASSERT_TRUE(c->send(true, true));
  p.pump();
  ASSERT_EQ(p.b.incoming.size(), 3u);

  // UNBIND with sense from B.
  p.b.incoming[0].session->unbind(decision::kUnbindInvalidSessionParameters, 0x08640000);
  p.pump();
  EXPECT_EQ(one.ended, 0x08640000u);
  EXPECT_EQ(p.b.incoming[0].ended, 0x08640000u);
  EXPECT_FALSE(two.ended || three.ended);

  // A unit out of sequence: −RSP and UNBIND with X'20010000'.
  Bytes biu;
  encode_biu({.snf = 99, .session_address = two.session->address()}, Rh{.dr1 = true, .eri = true},
             Bytes{0x01}, biu);
  p.b.manager.on_unit_received(kLuA, biu);
  p.pump();
  EXPECT_EQ(two.ended, 0x20010000u);
  EXPECT_EQ(p.b.incoming[1].ended, 0x20010000u);
  EXPECT_EQ(sent(p.pipe, 1, "87900020010000"), 1u);
  EXPECT_EQ(sent(p.pipe, 1, "6B800032FE20010000"), 1u);

  // A unit cut inside its RH: its TH still names the session.
  biu.assign(13, 0);
  biu[0] = 0x5C;  // FID5, whole BIU
  std::copy(three.session->address().begin(), three.session->address().end(), biu.begin() + 4);
  p.b.manager.on_unit_received(kLuA, biu);
  p.pump();
  EXPECT_EQ(three.ended, decision::kSenseTooShortRh);
  EXPECT_TRUE(p.a.sessions().empty());
  EXPECT_TRUE(p.b.sessions().empty());
  // Each ended session is dropped, however it ended: only CNOS's remains.
  EXPECT_EQ(p.a.manager.held_sessions(), 1u);
  EXPECT_EQ(p.b.manager.held_sessions(), 1u);

  // A normal end of a free session: UNBIND type 01, nobody told of a failure.
  Conversation &four = p.a.allocate();
  p.pump();
  ASSERT_TRUE(four.send(true, true, true));
  p.pump();
  p.a.manager.deactivate_free_sessions(kLuB, kMode);
  p.pump();
  EXPECT_TRUE(p.a.sessions().empty());
  EXPECT_TRUE(p.b.sessions().empty());
  EXPECT_FALSE(four.ended);
  EXPECT_EQ(p.a.manager.held_sessions(), 1u);
  EXPECT_EQ(p.b.manager.held_sessions(), 1u);
  EXPECT_EQ(sent(p.pipe, 0, "6B8000320100000000"), 1u);
  // +RSP(UNBIND) to each UNBIND: three from B, one from A.
  EXPECT_EQ(sent(p.pipe, 0, "EB800032"), 3u);
  EXPECT_EQ(sent(p.pipe, 1, "EB800032"), 1u);

  // The path fails: every session ends at once, CNOS's too, and none is kept.
  Conversation &five = p.a.allocate();
  p.pump();
  ASSERT_NE(five.session, nullptr);
  p.a.manager.on_path_lost(kLuB, 0x80020000);
  EXPECT_EQ(five.ended, 0x80020000u);
  EXPECT_EQ(p.a.manager.held_sessions(), 0u);
}

// Every unit of a whole exchange, cut and with bytes changed, fed to a live
// session manager: it may end sessions, but what it sends back is always a
// well-formed unit and it goes on serving allocations afterwards.
TEST(Sessions, MutatedUnitsFromThePartnerNeverBreakTheManager) {
  Pair recorded({mode(256, 256, 2, 2, 1, 1)}, {mode(256, 256, 2, 2, 1, 0)});
  run_contention(recorded);
  const std::vector<std::pair<int, Bytes>> units = recorded.pipe.log;
  uint32_t seed = 12345;
  size_t sessions_ended = 0;
  auto random = [&seed] { return seed = seed * 1103515245 + 12345, (seed >> 16) & 0x7FFF; };
  for (int round = 0; round < 300; ++round) {
    Pair p({mode(256, 256, 2, 2, 1, 1)}, {mode(256, 256, 2, 2, 1, 0)});
    run_contention(p);
    const size_t before = p.pipe.log.size();
    for (const auto &[side, unit] : units) {
      if (side != 0) continue;
      Bytes mutated = unit;
      if (random() % 4 == 0) mutated.resize(random() % (mutated.size() + 1));
      for (int edits = random() % 3 + 1; edits > 0 && !mutated.empty(); --edits) {
        mutated[random() % mutated.size()] = static_cast<uint8_t>(random());
      }
      p.b.manager.on_unit_received(kLuA, mutated);
      p.pump();
    }
    for (size_t i = before; i < p.pipe.log.size(); ++i) {
      ASSERT_TRUE(decode_biu(p.pipe.log[i].second)) << "round " << round << " unit " << i;
    }
    sessions_ended += sent(p.pipe, 1, "6B800032FE");
    Conversation &later = p.b.allocate();
    p.pump();
    p.clock.t += std::chrono::minutes(1);
    p.b.manager.on_timer();
    EXPECT_TRUE(later.outcome) << "round " << round;
  }
  EXPECT_GT(sessions_ended, 50u);  // the mutations did reach live sessions
}

TEST(Sessions, TsharkReadsEveryUnitTheSessionsExchange) {
  if (!tshark_check::have_tshark()) GTEST_SKIP() << "no tshark";
  Pair p({mode(256, 256, 7, 7, 1, 1)}, {mode(256, 256, 7, 7, 1, 0)});
  run_contention(p);
  p.a.manager.deactivate_free_sessions(kLuB, kMode);
  p.pump();
  Pair paced({mode(256, 256, 2, 7, 1, 1)}, {mode(256, 256, 7, 2, 1, 0)});
  run_pacing(paced);
  std::vector<std::pair<int, Bytes>> units = p.pipe.log;
  units.insert(units.end(), paced.pipe.log.begin(), paced.pipe.log.end());

  const std::string out = tshark_check::read_back(
      "net_sessions",
      [&](CaptureWriter &writer) {
        for (const auto &[side, biu] : units) {
          ASSERT_TRUE(
              writer.write_biu(side == 0 ? CaptureDirection::kSent : CaptureDirection::kReceived,
                               biu, BiuFraming{}));
        }
      },
      "-T fields -E separator='|' -e sna.rh.0 -e sna.rh.1 -e sna.rh.2 -e data.data"
      " -e _ws.expert -e _ws.malformed");
  const std::vector<std::string> lines = tshark_check::split(out);
  ASSERT_EQ(lines.size(), units.size()) << out;
  auto count = [&](const std::string &prefix) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string &l) { return l.rfind(prefix, 0) == 0; });
  };
  for (const std::string &line : lines) {
    EXPECT_EQ(line.substr(line.size() - 2), "||") << "expert item or malformed: " << line;
  }
  EXPECT_GE(count("0x6b|0x80|0x00|3100130"), 4);      // BINDs: SNASVCMG and #INTER
  EXPECT_GE(count("0xeb|0x80|0x00|3100130"), 4);      // +RSP(BIND)
  EXPECT_EQ(count("0x4b|0x80|0x80|0400060001|"), 4);  // B's bids
  EXPECT_EQ(count("0xcf|0x90|0x00|0814000004|"), 2);  // A refuses two
  EXPECT_EQ(count("0x4b|0x80|0x00|05|"), 2);          // and sends RTR after each
  // The first RTR finds B already bidding (it saw the CEB): "RTR not
  // required"; the second, after the unused allocation, is taken.
  EXPECT_EQ(count("0xcf|0x90|0x00|0819000005|"), 1);
  EXPECT_EQ(count("0xcb|0x80|0x00|05|"), 1);
  EXPECT_EQ(count("0x83|0x01|0x00|000002|"), 3);        // isolated pacing responses
  EXPECT_EQ(count("0x6b|0x80|0x00|320100000000|"), 1);  // normal UNBIND
}

}  // namespace
}  // namespace snanode::net::lu62

// Two link stations over an in-memory pipe on an injected clock: activation
// and the XID negotiation, NLPs at each priority, deactivation, liveness, and
// all of it again with datagrams lost, duplicated, reordered and delayed.
#include <gtest/gtest.h>

#include "ee_pipe.h"
#include "net/ee/ldlc_frames.h"

namespace snanode::net::ee {
namespace {

using namespace std::chrono_literals;
using testing::Pipe;
using testing::station_config;

constexpr uint32_t kNodeA = 0x05D00001;
constexpr uint32_t kNodeB = 0x05D00002;

// Both stations' state and what their receivers heard: active flags,
// activations and link-inactive reports.
std::string both(const Pipe &pipe) {
  return std::to_string(pipe.a.active()) + std::to_string(pipe.b.active()) + " " +
         std::to_string(pipe.ra.activations) + std::to_string(pipe.rb.activations) + " " +
         std::to_string(pipe.ra.inactive.size()) + std::to_string(pipe.rb.inactive.size());
}

LinkStationConfig node_a(const char *partner = "") {
  return station_config(kNodeA, "NETA.CPA", partner);
}
LinkStationConfig node_b(const char *partner = "") {
  return station_config(kNodeB, "NETA.CPB", partner);
}

// Starts the activation at `starter` and runs the pipe for 100 ms.
void activate(Pipe &pipe, LinkStation &starter) {
  starter.activate(pipe.now);
  pipe.run_for(100ms);
}

Bytes numbered_nlp(uint32_t n) {
  Nhdr nhdr;
  Thdr thdr;
  thdr.bsn = n;
  const uint8_t data[4] = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
  Bytes nlp;
  EXPECT_TRUE(encode_nlp(nhdr, thdr, data, nlp).ok());
  return nlp;
}

TEST(EeLinkStation, ActivatesNegotiatesCarriesNlpsAndDeactivates) {
  LinkStationConfig b = node_b();
  b.local.max_btu = 1200;
  b.local.tg_number = 5;
  b.local.anr_label = {0x82, 0x07};
  Pipe pipe(node_a("NETA.CPB"), b);
  EXPECT_FALSE(pipe.a.send_nlp(Priority::kHigh, numbered_nlp(0)));
  activate(pipe, pipe.a);
  ASSERT_EQ(both(pipe), "11 11 00");
  // B has the higher node ID: primary.  B's TG number wins over A's "any";
  // the smaller BTU bounds both directions.
  for (const LinkStation *s : {&pipe.a, &pipe.b}) {
    EXPECT_EQ(s->negotiated().primary, s == &pipe.b);
    EXPECT_EQ(s->negotiated().tg_number, 5);
    EXPECT_EQ(s->max_nlp_size(), 1200u);
  }
  EXPECT_EQ(pipe.a.partner().cp_name + " " + pipe.b.partner().cp_name, "NETA.CPB NETA.CPA");
  EXPECT_EQ(pipe.a.partner().node_id, kNodeB);
  EXPECT_EQ(pipe.a.partner().anr_label, (Bytes{0x82, 0x07}));
  EXPECT_EQ(pipe.b.partner().anr_label, (Bytes{0x80, 0x01}));
  // Everything of the activation went on the LLC port; the secondary (A) did
  // not send XID_DONE_RQ, the primary did.
  for (const auto &d : pipe.sent) EXPECT_EQ(d.port_index, kLlcPortIndex);

  pipe.sent.clear();
  for (uint32_t i = 0; i < 4; ++i) {
    EXPECT_TRUE(pipe.a.send_nlp(testing::kAllPriorities[i], numbered_nlp(i)));
    EXPECT_TRUE(pipe.b.send_nlp(testing::kAllPriorities[i], numbered_nlp(100 + i)));
  }
  EXPECT_FALSE(pipe.a.send_nlp(Priority::kLow, Bytes(1201, 0)));  // over the BTU
  pipe.run_for(10ms);
  ASSERT_EQ(pipe.rb.nlps.size(), 4u);
  ASSERT_EQ(pipe.ra.nlps.size(), 4u);
  for (uint32_t i = 0; i < 4; ++i) {
    EXPECT_EQ(pipe.rb.nlps[i], numbered_nlp(i));
    EXPECT_EQ(pipe.ra.nlps[i], numbered_nlp(100 + i));
    EXPECT_EQ(pipe.sent[2 * i].port_index, 1 + i);  // 12001 network ... 12004 low
    const auto frame = decode_ldlc(pipe.sent[2 * i].bytes);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->kind, LdlcKind::kUi);
    EXPECT_EQ(frame->dsap, kHprSap);
  }

  pipe.a.deactivate(pipe.now);
  pipe.run_for(100ms);
  ASSERT_EQ(both(pipe), "00 11 11");
  EXPECT_EQ(pipe.ra.inactive[0], "deactivated");
  EXPECT_EQ(pipe.rb.inactive[0], "the partner disconnected the link");
  EXPECT_FALSE(pipe.b.send_nlp(Priority::kHigh, numbered_nlp(9)));
  EXPECT_FALSE(pipe.a.next_deadline());
}

// A station stopped here: its receiver hears the link end when DISC goes
// (not when DM comes); a start before DM takes effect after it, without a
// second end reported; a stopped station refuses the partner's activation
// with DM until started again.
TEST(EeLinkStation, StoppedUntilStartedAgain) {
  Impairment slow;  // B's answers take 50 ms
  slow.delay = 50ms;
  Pipe pipe(node_a(), node_b(), {}, slow);
  activate(pipe, pipe.a);
  ASSERT_EQ(both(pipe), "11 11 00");
  pipe.a.deactivate(pipe.now);
  EXPECT_EQ(pipe.ra.inactive.size(), 1u);
  pipe.a.activate(pipe.now);
  pipe.run_for(20ms);
  EXPECT_EQ(pipe.a.state(), LinkStation::State::kDiscSent);
  pipe.run_for(1s);
  EXPECT_EQ(both(pipe), "11 22 11");

  pipe.a.deactivate(pipe.now);
  pipe.run_for(1s);
  EXPECT_EQ(both(pipe), "00 22 22");
  pipe.b.activate(pipe.now);
  pipe.run_for(1s);
  EXPECT_EQ(both(pipe), "00 22 23");
  EXPECT_EQ(pipe.rb.inactive.back(), "the partner refused the link (DM)");
  EXPECT_TRUE(pipe.a.held_down());
  activate(pipe, pipe.a);
  pipe.run_for(1s);
  EXPECT_EQ(both(pipe), "11 33 23");
}

TEST(EeLinkStation, ActivationsThatCrossOrAreRefused) {
  {  // Both sides start at once: one link, one primary.
    Pipe pipe(node_a(), node_b());
    pipe.a.activate(pipe.now);
    activate(pipe, pipe.b);
    ASSERT_EQ(both(pipe), "11 11 00");
    EXPECT_NE(pipe.a.negotiated().primary, pipe.b.negotiated().primary);
    EXPECT_EQ(pipe.a.negotiated().tg_number, pipe.b.negotiated().tg_number);
  }
  {  // A prenegotiation XID on an active link: a stray copy soon after the
     // activation, the partner starting again later.
    Pipe pipe(node_a(), node_b());
    activate(pipe, pipe.a);
    ASSERT_TRUE(pipe.a.active());
    LocalIdentity b;
    b.node_id = kNodeB;
    b.cp_name = "NETA.CPB";
    const Bytes restart =
        encode_ldlc_command(LdlcKind::kXid, false, kLinkSap,
                            build_xid3(b, XidExchangeState::kPrenegotiation, 3, 0, false));
    pipe.a.on_datagram(restart, pipe.now);
    EXPECT_TRUE(pipe.a.active());
    pipe.run_for(3s);
    pipe.sent.clear();
    pipe.a.on_datagram(restart, pipe.now);
    EXPECT_FALSE(pipe.a.active());
    ASSERT_EQ(pipe.ra.inactive.size(), 1u);
    EXPECT_EQ(pipe.ra.inactive[0], "the partner started a new activation");
    ASSERT_FALSE(pipe.sent.empty());  // answered as a new activation
    const auto answer = decode_ldlc(pipe.sent[0].bytes);
    EXPECT_TRUE(answer && answer->kind == LdlcKind::kXid && answer->response);
  }
  {  // The partner is not the node configured: both ends give up at once.
    Pipe pipe(node_a("NETA.CPX"), node_b());
    activate(pipe, pipe.a);
    EXPECT_FALSE(pipe.a.active() || pipe.b.active());
    ASSERT_EQ(pipe.ra.inactive.size(), 1u);
    EXPECT_NE(pipe.ra.inactive[0].find("NETA.CPB"), std::string::npos) << pipe.ra.inactive[0];
  }
  {  // No answer at all: the activation fails after the retries, not before.
    Pipe pipe(node_a(), node_b());
    pipe.cut(true);
    const TimePoint start = pipe.now;
    pipe.a.activate(pipe.now);
    pipe.run_for(60s);
    ASSERT_EQ(pipe.ra.inactive.size(), 1u);
    EXPECT_EQ(pipe.ra.last_change - start, 8s);  // 2 s retry interval, 3 retries
    size_t xids = 0;
    for (const auto &d : pipe.sent) xids += d.from_a;
    EXPECT_EQ(xids, 4u);
  }
}

TEST(EeLinkStation, SilentPartnerIsDeclaredDownWithinTheLivenessBoundAndFoundAgain) {
  LinkStationConfig a = node_a();
  a.reactivate_after = 30s;
  Pipe pipe(a, node_b());
  activate(pipe, pipe.a);
  ASSERT_TRUE(pipe.a.active());
  // Idle but answering: TESTs keep the link up for far longer than the bound.
  pipe.run_for(60s);
  EXPECT_EQ(both(pipe), "11 11 00");

  pipe.cut(false);  // B goes silent
  const TimePoint silent_since = pipe.now;
  pipe.run_for(20s);
  EXPECT_FALSE(pipe.a.active());
  ASSERT_EQ(pipe.ra.inactive.size(), 1u);
  const Duration took = pipe.ra.last_change - silent_since;
  EXPECT_LE(took, 8s);  // the configured liveness
  EXPECT_GT(took, 4s);  // and not at the first unanswered TEST
  EXPECT_NE(pipe.ra.inactive[0].find("stopped answering"), std::string::npos);

  // Once A gave up, B heard nothing either and ended its side too.  B is
  // heard again: A's next activation, 30 s after the failure, finds it.
  pipe.cut(false, false);
  pipe.run_for(40s);
  ASSERT_EQ(both(pipe), "11 22 11");
  EXPECT_NE(pipe.rb.inactive[0].find("stopped answering"), std::string::npos);
}

TEST(EeLinkStation, ActivationTrafficAndDeactivationSurviveAnImpairedPath) {
  // 10 % loss each way: an idle link then loses a TEST exchange in 19 % of
  // tries, and all four of one liveness period in 0.13 %.
  Impairment bad;
  bad.loss = 0.1;
  bad.duplication = 0.05;
  bad.reorder = 0.1;
  bad.delay = 5ms;
  for (uint64_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    Impairment ab = bad, ba = bad;
    ab.seed = seed;
    ba.seed = seed + 1000;
    Pipe pipe(node_a(), node_b(), ab, ba);
    (seed % 2 ? pipe.a : pipe.b).activate(pipe.now);
    pipe.run_for(9s);  // the activation's retries take up to 8 s
    ASSERT_EQ(both(pipe), "11 11 00");

    // A minute of traffic: the link stays up, and what arrives is what was
    // sent (the link neither repairs nor invents: each arrives at most twice).
    std::vector<int> seen(600, 0);
    for (uint32_t i = 0; i < 600; ++i) {
      ASSERT_TRUE(pipe.a.send_nlp(Priority::kMedium, numbered_nlp(i)))
          << i << " " << (pipe.ra.inactive.empty() ? "" : pipe.ra.inactive[0]);
      pipe.run_for(100ms);
    }
    for (const Bytes &nlp : pipe.rb.nlps) {
      const auto view = decode_nlp(nlp);
      ASSERT_TRUE(view);
      ASSERT_LT(view->thdr.bsn, 600u);
      EXPECT_EQ(nlp, numbered_nlp(view->thdr.bsn));
      ++seen[view->thdr.bsn];
    }
    int arrived = 0;
    for (int count : seen) {
      EXPECT_LE(count, 2);
      arrived += count > 0;
    }
    EXPECT_GT(arrived, 480);
    EXPECT_EQ(both(pipe), "11 11 00");

    pipe.b.deactivate(pipe.now);
    pipe.run_for(10s);
    EXPECT_EQ(both(pipe), "00 11 11");
  }
}

// Every datagram of a good activation, cut short or with one byte changed,
// fed to a station in each state it passes through: whatever it makes of
// them, a station that is not reset always has a timer running (a station
// left waiting with none would hang its link for good).
TEST(EeLinkStation, MangledDatagramsNeverLeaveAStationWithoutATimer) {
  Pipe good(node_a(), node_b());
  activate(good, good.a);
  ASSERT_TRUE(good.b.active());
  std::vector<Bytes> variants;
  for (const auto &d : good.sent) {
    for (size_t cut = 0; cut < d.bytes.size(); ++cut) {
      variants.emplace_back(d.bytes.begin(), d.bytes.begin() + cut);
    }
    for (size_t at = 0; at < d.bytes.size(); ++at) {
      variants.push_back(d.bytes);
      variants.back()[at] ^= 0xFF;
    }
  }
  // Stop after 0..6 of the good datagrams: B responding, negotiating, active.
  for (size_t steps = 0; steps <= good.sent.size(); ++steps) {
    for (const Bytes &variant : variants) {
      testing::Receiver receiver;
      TimePoint now{};
      receiver.clock = &now;
      struct : DatagramSink {
        void send_datagram(unsigned, Bytes) override {}
      } sink;
      LinkStation b(node_b(), sink, receiver);
      for (size_t i = 0; i < steps; ++i) {
        if (good.sent[i].from_a) b.on_datagram(good.sent[i].bytes, now);
      }
      b.on_datagram(variant, now);
      ASSERT_TRUE(b.state() == LinkStation::State::kReset || b.next_deadline().has_value())
          << "after " << steps << " datagrams, in state " << int(b.state());
    }
  }
}

}  // namespace
}  // namespace snanode::net::ee

// RTP connections between two nodes over an in-memory pipe with injected
// time: setup, segmentation, recovery from loss, duplication and reordering,
// the adaptive rate, and failure of a silent partner.
#include <gtest/gtest.h>

#include "net/hpr/rtp_decisions.h"
#include "net/hpr_pipe.h"

namespace snanode::net::hpr {
namespace {

using namespace std::chrono_literals;
using test::make_biu;
using test::TwoNodes;

RtpConfig test_config() {
  RtpConfig c;
  c.alive_timer = 2s;
  c.failure_timeout = 3s;
  return c;
}

TEST(HprRtp, SetupSegmentationAndReplyOnOneConnection) {
  const RtpConfig config = test_config();
  TwoNodes n(config, 1, 512);
  size_t nlps[2] = {0, 0};
  Bytes setup_copy;
  n.tap = [&](int from, ByteSpan) { ++nlps[from]; };
  const Bytes big = make_biu(1, 20000);
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, big));
  ASSERT_TRUE(n.run_until([&] { return !n.seen_b.bius.empty(); }, 5s));
  ASSERT_EQ(n.seen_b.bius.size(), 1u);
  EXPECT_EQ(n.seen_b.bius[0], big);
  EXPECT_GE(nlps[0], 20000u / 512);

  // B answers on the connection A set up: one connection each side, whose
  // TCIDs name each other.
  const Bytes answer = make_biu(2, 3000);
  ASSERT_TRUE(n.b.send_biu("NETA.CPA", Priority::kHigh, answer));
  ASSERT_TRUE(n.run_until([&] { return !n.seen_a.bius.empty(); }, 5s));
  EXPECT_EQ(n.seen_a.bius.at(0), answer);
  EXPECT_EQ(std::pair(n.a.connection_count(), n.b.connection_count()),
            (std::pair<size_t, size_t>(1, 1)));
  const RtpConnection *ca = n.a.connection("NETB.CPB", Priority::kHigh);
  const RtpConnection *cb = n.b.connection("NETA.CPA", Priority::kHigh);
  ASSERT_TRUE(ca && cb);
  EXPECT_TRUE(ca->initiator() && !cb->initiator());
  EXPECT_EQ(ca->remote_tcid(), cb->local_tcid());
  EXPECT_EQ(cb->remote_tcid(), ca->local_tcid());
  EXPECT_EQ(ca->state(), RtpState::kConnected);
  // The tail of the BIU went out without a status request of its own: the
  // reply to the last request asks about it at once, so it is acknowledged
  // within a round trip of the pipe (2 ms), long before the request timer.
  EXPECT_TRUE(n.run_until([&] { return ca->bytes_acknowledged() == big.size(); }, 3ms));

  // The session layer's transport routes by partner LU; unknown LUs go nowhere.
  RtpBiuTransport transport(n.a);
  transport.route("NETB.LUB", "NETB.CPB");
  transport.set_class("#INTER", "#INTER", Priority::kHigh);
  transport.send_biu("NETB.LUB", "#INTER", make_biu(5, 40));
  transport.send_biu("NETB.NOBODY", "#INTER", make_biu(6, 40));
  // A BIU handed down in its buffer is queued in that buffer, not a copy.
  Bytes handed = make_biu(7, 3000);
  transport.send_biu_buffer("NETB.LUB", "#INTER", std::move(handed));
  EXPECT_TRUE(handed.empty());
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 3; }, 1s));
  n.run_until([] { return false; }, 100ms);
  EXPECT_EQ(n.seen_b.bius.back(), make_biu(7, 3000));
  n.seen_b.bius.pop_back();
  EXPECT_EQ(n.seen_b.bius.back(), make_biu(5, 40));
  n.seen_b.bius.pop_back();
  // Another priority is another connection; a partner with no link is refused.
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kLow, make_biu(3, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 2; }, 5s));
  EXPECT_EQ(n.a.connection_count(), 2u);
  EXPECT_FALSE(n.a.send_biu("NETC.CPC", Priority::kHigh, big));
  // Closed by A once its last BIU is acknowledged: both sides hear it ended
  // normally, and a late copy of its setup does not bring it back.
  n.tap = [&](int from, ByteSpan nlp) {
    if (from == 0 && nlp.size() > 20 && setup_copy.empty())
      setup_copy.assign(nlp.begin(), nlp.end());
  };
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kMedium, make_biu(4, 100)));
  n.a.close("NETB.CPB", Priority::kMedium);
  ASSERT_TRUE(n.run_until([&] { return !n.seen_a.ended.empty() && !n.seen_b.ended.empty(); }, 1s));
  EXPECT_EQ(n.seen_a.ended[0].first | n.seen_b.ended[0].first, 0u);
  EXPECT_EQ(n.seen_b.bius.back(), make_biu(4, 100));
  n.inject(1, setup_copy);
  EXPECT_EQ(n.b.connection_count(), 2u);
  // Idle for several alive periods: the probes keep it up.
  n.run_until([] { return false; }, 4 * config.alive_timer);
  EXPECT_EQ(n.seen_a.ended.size() + n.seen_b.ended.size(), 2u);
}

TEST(HprRtp, LossDuplicationAndReorderingDeliverEveryByteOnceInOrder) {
  const RtpConfig config = test_config();
  TwoNodes n(config, 20261125, 600);
  for (int side : {0, 1}) n.impair(side, 0.05, 0.01, 0.05);
  std::vector<Bytes> to_b, to_a;
  for (uint32_t i = 0; i < 400; ++i) {
    to_b.push_back(make_biu(i, 15 + (i * 7919) % 3000));
    ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, to_b.back()));
    if (i % 4 == 0) {
      to_a.push_back(make_biu(i + 1000, 15 + (i * 104729) % 1200));
      ASSERT_TRUE(n.b.send_biu("NETA.CPA", Priority::kHigh, to_a.back()));
    }
  }
  ASSERT_TRUE(n.run_until(
      [&] { return n.seen_b.bius.size() >= to_b.size() && n.seen_a.bius.size() >= to_a.size(); },
      120s));
  // A few more round trips: nothing arrives twice late.
  n.run_until([] { return false; }, 1s);
  EXPECT_EQ(n.seen_b.bius, to_b);
  EXPECT_EQ(n.seen_a.bius, to_a);
  // Both sides opened a connection at once: two, each carrying one direction.
  uint64_t retransmitted = 0, duplicates = 0;
  for (const RtpNode *node : {&n.a, &n.b}) {
    for (const RtpConnection *c : node->connections()) {
      retransmitted += c->retransmitted();
      duplicates += c->duplicates();
    }
  }
  EXPECT_GT(retransmitted, 0u);
  EXPECT_GT(duplicates, 0u);
  EXPECT_TRUE(n.seen_a.ended.empty() && n.seen_b.ended.empty());
}

// Random loss on a path with no queue is not congestion: a sender kept busy
// for seconds on a 5 % lossy path stays near the top rate.
TEST(HprRtp, RandomLossDoesNotHoldTheRateDown) {
  RtpConfig config = test_config();
  config.max_rate = 16 * 1024 * 1024;
  TwoNodes n(config, 42, 1461);
  for (int side : {0, 1}) n.impair(side, 0.05);
  // Keeps 64 BIUs of 8000 bytes queued beyond what B has received.
  size_t sent = 0;
  n.run_until(
      [&] {
        while (n.seen_b.bius.size() + 64 > sent) {
          n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(static_cast<uint32_t>(sent++), 8000));
        }
        return false;
      },
      3s);
  // At least 60 % of the top rate on average (cutting on every lossy round
  // trip delivered about 40 %).
  EXPECT_GT(n.seen_b.bius.size() * 8000.0, 0.6 * config.max_rate * 3);
}

TEST(HprRtp, RateGrowsWhileThePartnerKeepsUpAndBacksOffAtTheBottleneck) {
  const RtpConfig config = test_config();
  TwoNodes n(config, 7, 1461);
  test::Path &imp = n.path(0);
  imp.capacity = 4 * 1024 * 1024;  // 4 MB/s, a 64 KB queue
  n.impair(0, 0, 0, 0, 4ms);       // 5 ms with the pipe's own
  size_t sent = 0;
  // Offers 8 MB/s for `rounds` of 10 ms; calls `sample` with the rate after each.
  auto stream = [&](int rounds, const std::function<void(uint32_t)> &sample) {
    for (int round = 0; round < rounds; ++round) {
      for (int i = 0; i < 20; ++i, ++sent) {
        ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(sent, 4000)));
      }
      n.run_until([] { return false; }, 10ms);
      sample(n.a.connection("NETB.CPB", Priority::kHigh)->rate());
    }
  };
  uint32_t peak = 0, after_peak_low = UINT32_MAX;
  stream(100, [&](uint32_t rate) {
    if (rate > peak) {
      peak = rate;
      after_peak_low = UINT32_MAX;
    }
    after_peak_low = std::min(after_peak_low, rate);
  });
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == sent; }, 60s));
  // Grew from the conservative start past the bottleneck, then backed off,
  // and kept near it rather than far beyond.
  const RtpConnection &c = *n.a.connection("NETB.CPB", Priority::kHigh);
  EXPECT_GT(peak, config.initial_rate * 4);
  EXPECT_GT(c.retransmitted(), 0u);
  EXPECT_LT(after_peak_low, peak * 0.8);
  EXPECT_LT(peak, imp.capacity * 3u);

  // The path has room but the network marks slowdown: the partner reports it
  // and the rate falls with nothing lost; unmarked, it grows again.
  imp.capacity = 0;
  imp.slowdown1 = true;
  const uint32_t before = c.rate();
  const uint64_t resent = c.retransmitted();
  uint32_t low = UINT32_MAX, high = 0;
  stream(30, [&](uint32_t rate) { low = std::min(low, rate); });
  EXPECT_LT(low, before / 4);
  imp.slowdown1 = false;
  stream(30, [&](uint32_t rate) { high = std::max(high, rate); });
  EXPECT_GT(high, low * 2);
  EXPECT_EQ(c.retransmitted(), resent);
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == sent; }, 60s));
  for (size_t i = 0; i < sent; ++i) ASSERT_EQ(n.seen_b.bius[i], make_biu(i, 4000)) << i;
}

TEST(HprRtp, ASilentPartnerFailsTheConnectionWithinTheBound) {
  const RtpConfig config = test_config();
  // A connection carrying one BIU.
  const auto connected = [&](TwoNodes &n) {
    ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(1, 100)));
    ASSERT_TRUE(n.run_until([&] { return !n.seen_b.bius.empty(); }, 1s));
  };
  // Busy: data outstanding when the partner goes silent.
  {
    TwoNodes n(config);
    connected(n);
    n.path(1).silent = true;
    const RtpTime silent_at = n.clock.now();
    ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(2, 5000)));
    ASSERT_TRUE(n.run_until([&] { return !n.seen_a.ended.empty(); }, 30s));
    EXPECT_EQ(n.seen_a.ended[0].first, decision::kSensePathFailure);
    // The bound runs from the last unit heard, which was still on its way.
    const RtpDuration in_flight = n.path(1).impairer.settings().delay;
    EXPECT_LE(n.seen_a.ended[0].second - silent_at, config.failure_bound() + in_flight);
    EXPECT_GE(n.seen_a.ended[0].second - silent_at, config.failure_timeout);
    EXPECT_EQ(n.a.connection_count(), 0u);
    // The partner answers again: a new connection carries the next BIU.
    n.path(1).silent = false;
    ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(3, 100)));
    ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 3; }, 2s));
    EXPECT_EQ(n.seen_b.bius[2], make_biu(3, 100));
    // A link that goes away takes its connections with it.
    n.a.remove_link("NETB.CPB");
    EXPECT_EQ(n.a.connection_count(), 0u);
    EXPECT_EQ(n.seen_a.ended.size(), 2u);
    EXPECT_EQ(n.seen_a.ended[1].first, decision::kSensePathFailure);
    EXPECT_FALSE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(4, 100)));
  }
  // Idle, and then the partner is gone: the alive probe finds out.
  {
    TwoNodes n(config);
    connected(n);
    n.run_until([] { return false; }, 1s);
    n.path(1).silent = true;
    const RtpTime silent_at = n.clock.now();
    ASSERT_TRUE(n.run_until([&] { return !n.seen_a.ended.empty(); }, 30s));
    EXPECT_LE(n.seen_a.ended[0].second - silent_at,
              config.failure_bound() + n.path(1).impairer.settings().delay);
    EXPECT_GE(n.seen_a.ended[0].second - silent_at, config.failure_bound() - config.alive_timer);
  }
}

// The rate on its own: a long round trip cuts it only when the sender used
// its rate, and after the start phase a reply that comes many round trips
// after the last change (a low rate of large packets) grows it by up to the
// start phase's step, where one a round trip later grows it by one step.
TEST(HprRateControl, QueueingCutsOnlyAUsedRateAndRareRepliesGrowItFaster) {
  const RtpConfig config;
  RateControl rate(config);
  const RtpTime t0 = RtpTime{} + 1s;
  // The first round trip sets the start: TCP's initial window of 14,600
  // bytes (ten 1,460-byte packets) per 100 us.
  rate.on_rtt_sample(100us);
  const uint32_t start = rate.rate();
  ASSERT_EQ(start, 146'000'000u);
  rate.on_rtt_sample(10ms);
  rate.on_reply(RateAction::kNormal, {}, t0, t0 + 10ms);
  EXPECT_EQ(rate.rate(), start);  // a conversation turning round: not queueing

  rate.note_rate_limited();
  rate.on_rtt_sample(10ms);
  rate.on_reply(RateAction::kNormal, {}, t0 + 11ms, t0 + 21ms);
  const auto cut = static_cast<uint32_t>(start * config.slowdown1_backoff);
  ASSERT_EQ(rate.rate(), cut);

  rate.note_rate_limited();
  rate.on_rtt_sample(200us);  // the queue drained
  rate.on_reply(RateAction::kNormal, {}, t0 + 22ms, t0 + 23ms);
  const auto one_step = static_cast<uint32_t>(cut * config.growth + 1);
  ASSERT_EQ(rate.rate(), one_step);

  rate.note_rate_limited();
  rate.on_rtt_sample(200us);
  rate.on_reply(RateAction::kNormal, {}, t0 + 24ms, t0 + 1s);
  EXPECT_EQ(rate.rate(), static_cast<uint32_t>(one_step * config.start_growth + 1));
}

}  // namespace
}  // namespace snanode::net::hpr

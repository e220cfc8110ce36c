// When an RTP receiver answers a status request: at once when the sender
// asks for that (RASAPI), else on the next NLP it sends, or alone once the
// hold runs out.  A conversation's turn then costs two NLPs, not four.
#include <gtest/gtest.h>

#include "net/formats/nlp.h"
#include "net/hpr_pipe.h"

namespace snanode::net::hpr {
namespace {

using namespace std::chrono_literals;
using test::make_biu;
using test::TwoNodes;

struct Seen {
  size_t nlps = 0, asked = 0, asked_at_once = 0;
};

TEST(HprStatusHold, ATurnCarriesTheStatusAndAnUnansweredMessageIsAcknowledgedAfterTheHold) {
  RtpConfig config;
  config.alive_timer = 2s;
  config.failure_timeout = 3s;
  TwoNodes n(config, 1, 1461);
  Seen seen[2];
  n.tap = [&](int from, ByteSpan nlp) {
    auto view = decode_nlp(nlp);
    ASSERT_TRUE(view);
    ++seen[from].nlps;
    seen[from].asked += view->thdr.status_requested;
    seen[from].asked_at_once += view->thdr.status_requested && view->thdr.reply_asap;
  };
  // Setup, and B's answer, so that both directions are connected.
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(0, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 1; }, 1s));
  ASSERT_TRUE(n.b.send_biu("NETA.CPA", Priority::kHigh, make_biu(0, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_a.bius.size() == 1; }, 1s));
  const RtpConnection *ca = n.a.connection("NETB.CPB", Priority::kHigh);
  const RtpConnection *cb = n.b.connection("NETA.CPA", Priority::kHigh);
  ASSERT_TRUE(ca && cb);
  ASSERT_TRUE(n.run_until([&] { return ca->bytes_acknowledged() == 100; }, 1s));

  // Each side answers what it gets at once: one NLP each way per turn, each
  // asking (without RASAPI) and carrying the status of what it answers.
  constexpr size_t kTurns = 20;
  const Seen before[2] = {seen[0], seen[1]};
  for (size_t i = 1; i <= kTurns; ++i) {
    ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(uint32_t(i), 100)));
    ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == i + 1; }, 1s));
    ASSERT_TRUE(n.b.send_biu("NETA.CPA", Priority::kHigh, make_biu(uint32_t(i), 100)));
    ASSERT_TRUE(n.run_until([&] { return n.seen_a.bius.size() == i + 1; }, 1s));
    // B's answer acknowledged all of A's data.
    EXPECT_EQ(ca->bytes_acknowledged(), 100 * (i + 1));
  }
  for (int side = 0; side < 2; ++side) {
    EXPECT_EQ(seen[side].nlps - before[side].nlps, kTurns) << side;
    EXPECT_EQ(seen[side].asked - before[side].asked, kTurns) << side;
    EXPECT_EQ(seen[side].asked_at_once, before[side].asked_at_once) << side;
  }
  // A's hold for B's last answer runs out: the status goes alone, within the
  // hold and the pipe's delay (1 ms each way), long before any request timer.
  EXPECT_TRUE(n.run_until([&] { return cb->bytes_acknowledged() == 100 * (kTurns + 1); }, 2500us));
  EXPECT_EQ(seen[0].nlps - before[0].nlps, kTurns + 1);

  // A message of several NLPs: the requests before its end ask for a reply
  // at once (RASAPI); nothing is left unacknowledged.
  const Seen streaming = seen[0];
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(99, 200000)));
  ASSERT_TRUE(
      n.run_until([&] { return ca->bytes_acknowledged() == 100 * (kTurns + 1) + 200000; }, 1s));
  EXPECT_GT(seen[0].asked_at_once, streaming.asked_at_once);
  EXPECT_EQ(n.seen_b.bius.back(), make_biu(99, 200000));
}

}  // namespace
}  // namespace snanode::net::hpr

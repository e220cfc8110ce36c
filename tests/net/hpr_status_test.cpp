// When a status asked for is sent: on the partner's next data while both
// sides send (a conversation turning round), at once while only one does.
#include <gtest/gtest.h>

#include "net/hpr_pipe.h"

namespace snanode::net::hpr {
namespace {

using namespace std::chrono_literals;
using test::make_biu;
using test::TwoNodes;

TEST(HprStatus, RidesOnDataGoingBackAndGoesAloneOnAOneWayStream) {
  const RtpConfig config;
  TwoNodes n(config);
  size_t nlps[2] = {0, 0};
  n.pipe.tap = [&](int from, ByteSpan) { ++nlps[from]; };
  const auto *a_to_b = [&] {
    EXPECT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(0, 100)));
    EXPECT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 1; }, 1s));
    return n.a.connection("NETB.CPB", Priority::kHigh);
  }();
  ASSERT_NE(a_to_b, nullptr);

  // One way only: B has sent no data, so each request is answered at once,
  // a pipe delay (1 ms) each way.
  for (uint32_t i = 1; i <= 3; ++i) {
    ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(i, 100)));
    ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == i + 1; }, 1s));
    n.run_until([] { return false; }, 1ms + 1us);
    EXPECT_EQ(a_to_b->bytes_acknowledged(), (i + 1) * 100u) << i;
  }

  // Ping-pong: each side answers the other's request on its next message,
  // one NLP each way per round instead of two.
  const size_t before[2] = {nlps[0], nlps[1]};
  constexpr size_t kRounds = 20;
  for (size_t round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(n.b.send_biu("NETA.CPA", Priority::kHigh, make_biu(100 + round, 100)));
    ASSERT_TRUE(n.run_until([&] { return n.seen_a.bius.size() == round + 1; }, 1s));
    ASSERT_TRUE(n.a.send_biu("NETB.CPB", Priority::kHigh, make_biu(200 + round, 100)));
    ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 5 + round; }, 1s));
  }
  EXPECT_EQ(nlps[0] - before[0], kRounds);
  EXPECT_EQ(nlps[1] - before[1], kRounds);
  for (size_t round = 0; round < kRounds; ++round) {
    EXPECT_EQ(n.seen_a.bius[round], make_biu(100 + static_cast<uint32_t>(round), 100));
    EXPECT_EQ(n.seen_b.bius[4 + round], make_biu(200 + static_cast<uint32_t>(round), 100));
  }

  // Nothing goes back after the last message: its status goes alone once the
  // delay is over, well before the asker's request timer.
  const uint64_t sent = a_to_b->bytes_acknowledged() + 100;
  n.run_until([&] { return a_to_b->bytes_acknowledged() == sent; }, config.min_rto);
  EXPECT_EQ(a_to_b->bytes_acknowledged(), sent);
  EXPECT_EQ(a_to_b->retransmitted(), 0u);
}

}  // namespace
}  // namespace snanode::net::hpr

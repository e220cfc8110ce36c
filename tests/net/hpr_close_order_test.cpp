// Units sent for a partner and class while this node closes that class's
// connection with data still unacknowledged: they wait for the close to end
// and then go on a new connection, so the partner gets everything in order;
// if the closing connection fails instead, they go with it.
#include <gtest/gtest.h>

#include "net/hpr_pipe.h"

namespace snanode::net::hpr {
namespace {

using namespace std::chrono_literals;
using test::make_biu;
using test::TwoNodes;

const ServiceClass kInter{"#INTER", Priority::kHigh};

std::vector<Bytes> bius(uint32_t from, uint32_t to) {
  std::vector<Bytes> all;
  for (uint32_t i = from; i <= to; ++i) all.push_back(make_biu(i, 200 + i));
  return all;
}

// The numbers of the BIUs received (make_biu's), or -1 for one that is not
// exactly what was sent.
std::vector<int> numbers(const std::vector<Bytes> &received) {
  std::vector<int> found;
  for (const Bytes &biu : received) {
    const uint32_t n = biu.size() < 4 ? 0 : (biu[2] << 8) | biu[3];
    found.push_back(biu == make_biu(n, 200 + n) ? static_cast<int>(n) : -1);
  }
  return found;
}

// Connected, with BIU 0 delivered, then BIUs 1..5 lost on their first try
// (so they are in flight when A closes).
void close_with_data_in_flight(TwoNodes &n) {
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", kInter, make_biu(0, 200)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 1; }, 1s));
  n.path(0).silent = true;
  for (const Bytes &biu : bius(1, 5)) ASSERT_TRUE(n.a.send_biu("NETB.CPB", kInter, biu));
  n.a.close("NETB.CPB", "#INTER");
}

TEST(HprCloseOrder, UnitsSentWhileAConnectionClosesFollowItsData) {
  TwoNodes n(RtpConfig{});
  close_with_data_in_flight(n);
  n.path(0).silent = false;
  for (const Bytes &biu : bius(6, 10)) ASSERT_TRUE(n.a.send_biu("NETB.CPB", kInter, biu));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 11; }, 5s));
  EXPECT_EQ(numbers(n.seen_b.bius), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  ASSERT_EQ(n.seen_a.ended.size(), 1u);
  EXPECT_EQ(n.seen_a.ended[0].first, 0u);
  // The waiting units went on a new connection, which stays for the next.
  ASSERT_NE(n.a.connection("NETB.CPB", "#INTER"), nullptr);
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", kInter, make_biu(11, 211)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 12; }, 1s));
  EXPECT_EQ(numbers(n.seen_b.bius).back(), 11);
  EXPECT_EQ(n.seen_a.ended.size(), 1u);
}

TEST(HprCloseOrder, UnitsWaitingOnAClosingConnectionThatFailsGoWithIt) {
  TwoNodes n(RtpConfig{});
  close_with_data_in_flight(n);
  n.path(1).silent = true;
  for (const Bytes &biu : bius(6, 10)) ASSERT_TRUE(n.a.send_biu("NETB.CPB", kInter, biu));
  ASSERT_TRUE(n.run_until([&] { return !n.seen_a.ended.empty(); }, 60s));
  EXPECT_NE(n.seen_a.ended[0].first, 0u);
  EXPECT_EQ(n.a.connection_count(), 0u);
  n.path(0).silent = n.path(1).silent = false;
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", kInter, make_biu(11, 211)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 2; }, 1s));
  n.run_until([] { return false; }, 100ms);
  EXPECT_EQ(numbers(n.seen_b.bius), (std::vector<int>{0, 11}));
}

}  // namespace
}  // namespace snanode::net::hpr

// The session manager keeps the number of sessions and BINDs in flight per
// partner and mode as they come and go: whatever way they end, the limit
// still allows exactly as many sessions as before.
#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "net/formats/wire_decisions.h"
#include "net/lu62/session_manager.h"

namespace snanode::net::lu62 {
namespace {

const std::string kLu[2] = {"NET.LUA", "NET.LUB"};
const std::string kMode = "#INTER";
constexpr uint32_t kPathFailure = 0x80020000;

struct FixedClock : Clock {
  time_point now() const override { return {}; }
};

// One LU whose units go to `out`, and that takes every bracket its partner
// begins (ignoring what comes on it).
struct Lu : BiuTransport, IncomingConversations, SessionUser {
  Lu(int side, std::deque<Bytes> &out, const Clock &clock)
      : out(out),
        manager(
            {kLu[side], {uint8_t(0xA0 + side), 0, 0, 0}, {ModeConfig{kMode, 256, 256, 7, 7, 2, 1}}},
            *this, clock, *this) {}
  void send_biu(std::string_view, std::string_view, ByteSpan biu) override {
    out.emplace_back(biu.begin(), biu.end());
  }
  void on_partner_bracket(Session &session) override { session.attach_user(this); }
  void on_request(Session &, const Rh &, ByteSpan, uint16_t) override {}
  void on_response(Session &, const Rh &, ByteSpan, uint16_t) override {}
  void on_request_to_send(Session &) override {}
  void on_session_ended(Session &, uint32_t) override {}

  // Asks for a session; the outcome lands in `got` (null until one is given).
  void allocate(Session *&got) {
    manager.allocate_session(kLu[1], kMode, [this, &got](Session *session, AllocationOutcome) {
      got = session;
      if (session) session->attach_user(this);
    });
  }

  std::deque<Bytes> &out;
  SessionManager manager;
};

struct Link {
  void deliver() {
    while (!to_a.empty() || !to_b.empty()) {
      std::deque<Bytes> &from = to_a.empty() ? to_b : to_a;
      Lu &lu = to_a.empty() ? b : a;
      const Bytes unit = std::move(from.front());
      from.pop_front();
      lu.manager.on_unit_received(kLu[&lu == &a ? 1 : 0], unit);
    }
  }
  FixedClock clock;
  std::deque<Bytes> to_a, to_b;
  Lu a{0, to_b, clock}, b{1, to_a, clock};
};

TEST(SessionCounts, PathLossWhileBindingAndUnbindingLeavesTheWholeLimit) {
  Link link;
  Session *first = nullptr, *second = nullptr, *third = nullptr;
  link.a.allocate(first);
  link.a.allocate(second);
  link.deliver();
  ASSERT_TRUE(first && second);
  ASSERT_EQ(link.a.manager.sessions(kLu[1], kMode).size(), 2u);
  // One session unbinding, one in use, and a BIND for a third on its way
  // when the path fails.
  first->unbind(decision::kUnbindNormal, 0);
  link.a.allocate(third);
  ASSERT_EQ(link.to_b.size(), 2u);  // UNBIND, BIND
  link.to_a.clear();
  link.to_b.clear();
  link.a.manager.on_path_lost(kLu[1], kPathFailure);
  link.b.manager.on_path_lost(kLu[0], kPathFailure);
  EXPECT_EQ(third, nullptr);
  EXPECT_TRUE(link.a.manager.sessions(kLu[1], kMode).empty());

  Session *again[2] = {nullptr, nullptr};
  link.a.allocate(again[0]);
  link.a.allocate(again[1]);
  link.deliver();
  EXPECT_TRUE(again[0] && again[1]);
  EXPECT_EQ(link.a.manager.queued_allocations(kLu[1], kMode), 0u);
  EXPECT_EQ(link.a.manager.sessions(kLu[1], kMode).size(), 2u);
}

}  // namespace
}  // namespace snanode::net::lu62

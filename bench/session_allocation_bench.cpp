// What one allocation costs the session layer as the sessions it holds grow:
// two session managers joined in memory bind N sessions, N - 1 of them
// carry a conversation that has begun its bracket, and each iteration
// allocates the free one and ends its bracket again (no units: the bracket
// ends before it begins).  Then with all N busy and room for one more: each
// iteration binds a session for the allocation (BIND and its response, each
// side checking its limits) and unbinds it again.
#include <benchmark/benchmark.h>

#include <deque>
#include <string>
#include <vector>

#include "net/formats/wire_decisions.h"
#include "net/lu62/session_manager.h"

namespace snanode::net::lu62 {
namespace {

const std::string kLu[2] = {"NET.LUA", "NET.LUB"};
const std::string kMode = "#INTER";

struct SteadyClock : Clock {
  time_point now() const override { return std::chrono::steady_clock::now(); }
};

struct Idle : SessionUser {
  void on_request(Session &, const Rh &, ByteSpan, uint16_t) override {}
  void on_response(Session &, const Rh &, ByteSpan, uint16_t) override {}
  void on_request_to_send(Session &) override {}
  void on_session_ended(Session &, uint32_t) override {}
};

struct Side : BiuTransport, IncomingConversations {
  Side(int side, std::deque<Bytes> &out, const SteadyClock &clock, uint16_t limit)
      : out(out),
        manager({kLu[side],
                 {uint8_t(0xA0 + side), 0, 0, 0},
                 {ModeConfig{kMode, 1024, 1024, 7, 7, limit, uint16_t(side == 0 ? limit : 0)}},
                 std::chrono::seconds(30)},
                *this, clock, *this) {}
  void send_biu(std::string_view, std::string_view, ByteSpan biu) override {
    out.emplace_back(biu.begin(), biu.end());
  }
  void on_partner_bracket(Session &session) override { session.attach_user(&idle); }
  std::deque<Bytes> &out;
  Idle idle;
  SessionManager manager;
};

struct Pair {
  explicit Pair(uint16_t limit) : a(0, to_b, clock, limit), b(1, to_a, clock, limit) {}
  void pump() {
    while (!to_a.empty() || !to_b.empty()) {
      for (auto [queue, side] : {std::pair{&to_a, &a}, std::pair{&to_b, &b}}) {
        if (queue->empty()) continue;
        Bytes unit = std::move(queue->front());
        queue->pop_front();
        side->manager.on_unit_received(kLu[side == &a ? 1 : 0], unit);
      }
    }
  }
  SteadyClock clock;
  std::deque<Bytes> to_a, to_b;
  Side a, b;
};

// Binds `sessions` sessions and begins a bracket on each but the last; false
// (the state told why) when that fails.
bool bind_sessions(benchmark::State &state, Pair &pair, Idle &user, uint16_t sessions,
                   std::vector<Session *> &held) {
  for (int i = 0; i < sessions; ++i) {
    pair.a.manager.allocate_session(kLu[1], kMode, [&](Session *session, AllocationOutcome) {
      if (session == nullptr) return;
      session->attach_user(&user);
      held.push_back(session);
    });
    pair.pump();
  }
  if (held.size() != sessions) {
    state.SkipWithError("not every session was bound");
    return false;
  }
  Rh rh;
  rh.bci = rh.eci = true;
  rh.set_form(ResponseForm::kRqe1);
  const Bytes data{0x00, 0x05, 0x12, 0xFF, 0x42};
  for (size_t i = 0; i + 1 < held.size(); ++i) {
    if (!held[i]->send_request(rh, data)) {
      state.SkipWithError("a bracket did not begin");
      return false;
    }
  }
  pair.pump();
  return true;
}

void allocate_the_free_session(benchmark::State &state) {
  const auto sessions = static_cast<uint16_t>(state.range(0));
  Pair pair(sessions);
  Idle user;
  std::vector<Session *> held;
  if (!bind_sessions(state, pair, user, sessions, held)) return;
  held.back()->release();
  for (auto _ : state) {
    Session *got = nullptr;
    pair.a.manager.allocate_session(kLu[1], kMode,
                                    [&](Session *session, AllocationOutcome) { got = session; });
    if (got == nullptr) return state.SkipWithError("no session given");
    got->attach_user(&user);
    got->release();
  }
}
BENCHMARK(allocate_the_free_session)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

void bind_a_session_beside_busy_ones(benchmark::State &state) {
  const auto sessions = static_cast<uint16_t>(state.range(0));
  Pair pair(sessions + 1);
  Idle user;
  std::vector<Session *> held;
  // N + 1 bound, brackets begun on N and the free one unbound: none is free
  // and the limit leaves room for one.
  if (!bind_sessions(state, pair, user, sessions + 1, held)) return;
  held.back()->unbind(decision::kUnbindNormal, 0);
  pair.pump();
  const size_t before = pair.a.manager.held_sessions();
  for (auto _ : state) {
    Session *got = nullptr;
    pair.a.manager.allocate_session(kLu[1], kMode,
                                    [&](Session *session, AllocationOutcome) { got = session; });
    pair.pump();
    if (got == nullptr) return state.SkipWithError("no session bound");
    got->attach_user(&user);
    got->unbind(decision::kUnbindNormal, 0);
    pair.pump();
  }
  if (pair.a.manager.held_sessions() != before) state.SkipWithError("sessions left over");
}
BENCHMARK(bind_a_session_beside_busy_ones)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

}  // namespace
}  // namespace snanode::net::lu62

BENCHMARK_MAIN();

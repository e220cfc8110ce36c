// Two RTP nodes joined by an in-memory NlpLink pipe with injected time.  The
// pipe can lose, duplicate, reorder and delay packets (a seeded RNG decides),
// squeeze them through a bottleneck of limited rate and queue, and hands
// every NLP it carries to a tap (for captures and fuzz seeds).
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "net/hpr/rtp_node.h"

namespace snanode::net::hpr::test {

class ManualClock : public lu62::Clock {
 public:
  time_point now() const override { return now_; }
  void set(time_point t) { now_ = t; }

 private:
  time_point now_ = time_point{} + std::chrono::hours(1);
};

struct Impairment {
  double loss = 0, duplicate = 0, reorder = 0;
  RtpDuration delay = std::chrono::milliseconds(1);
  RtpDuration reorder_delay = std::chrono::milliseconds(4);
  // A bottleneck: packets leave at `capacity` bytes/s (0: unlimited) and at
  // most `queue_limit` bytes wait for it; the rest are dropped.
  uint32_t capacity = 0;
  size_t queue_limit = 64 * 1024;
  bool silent = false;     // everything sent this way is lost
  bool slowdown1 = false;  // marks every NLP with the NHDR's slowdown 1 bit
};

class NlpPipe {
 public:
  NlpPipe(ManualClock &clock, uint32_t seed, size_t max_nlp)
      : clock_(clock), random_(seed), ends_{End(*this, 0, max_nlp), End(*this, 1, max_nlp)} {}

  ee::NlpLink &link(int side) { return ends_[side]; }
  void connect(int side, ee::NlpReceiver &receiver) { receivers_[side] = &receiver; }
  Impairment &impairment(int from_side) { return impairment_[from_side]; }
  std::function<void(int from_side, ByteSpan nlp)> tap;

  // Hands `nlp` to `side`'s receiver as if the pipe had carried it.
  void inject(int side, ByteSpan nlp) { receivers_[side]->on_nlp(nlp); }

  // Hands every packet due by now to its receiver, in time order.
  void deliver_due() {
    while (!in_flight_.empty() && in_flight_.begin()->first.first <= clock_.now()) {
      auto packet = in_flight_.extract(in_flight_.begin());
      receivers_[1 - packet.mapped().from]->on_nlp(packet.mapped().bytes);
    }
  }
  std::optional<RtpTime> next_delivery() const {
    if (in_flight_.empty()) return std::nullopt;
    return in_flight_.begin()->first.first;
  }

 private:
  struct Packet {
    int from;
    Bytes bytes;
  };
  struct End : ee::NlpLink {
    End(NlpPipe &p, int s, size_t max) : pipe(&p), side(s), max_nlp(max) {}
    bool send_nlp(Priority, ByteSpan nlp) override { return pipe->carry(side, nlp); }
    size_t max_nlp_size() const override { return max_nlp; }
    NlpPipe *pipe;
    int side;
    size_t max_nlp;
  };

  bool chance(double p) { return p > 0 && std::uniform_real_distribution<>(0, 1)(random_) < p; }

  bool carry(int from, ByteSpan nlp) {
    if (nlp.size() > ends_[from].max_nlp) return false;
    if (tap) tap(from, nlp);
    const Impairment &imp = impairment_[from];
    if (imp.silent || chance(imp.loss)) return true;
    RtpTime at = clock_.now() + imp.delay;
    if (imp.capacity != 0) {
      RtpTime &free_at = bottleneck_free_[from];
      free_at = std::max(free_at, clock_.now());
      const auto queued = std::chrono::duration<double>(free_at - clock_.now()).count();
      if (queued * imp.capacity > static_cast<double>(imp.queue_limit)) return true;
      free_at += std::chrono::duration_cast<RtpDuration>(
          std::chrono::duration<double>(static_cast<double>(nlp.size()) / imp.capacity));
      at = free_at + imp.delay;
    }
    if (chance(imp.reorder)) at += imp.reorder_delay;
    Bytes bytes(nlp.begin(), nlp.end());
    if (imp.slowdown1 && bytes.size() > 1) bytes[1] |= 0x04;
    const int copies = chance(imp.duplicate) ? 2 : 1;
    for (int i = 0; i < copies; ++i)
      in_flight_.emplace(std::pair{at, sequence_++}, Packet{from, bytes});
    return true;
  }

  ManualClock &clock_;
  std::mt19937 random_;
  End ends_[2];
  ee::NlpReceiver *receivers_[2] = {nullptr, nullptr};
  Impairment impairment_[2];
  RtpTime bottleneck_free_[2]{};
  std::multimap<std::pair<RtpTime, uint64_t>, Packet> in_flight_;
  uint64_t sequence_ = 0;
};

// What a node's listener saw.
struct Received : RtpNodeListener {
  std::vector<Bytes> bius;
  std::vector<std::pair<uint32_t, RtpTime>> ended;  // sense, when
  const ManualClock *clock = nullptr;
  void on_biu(std::string_view, ByteSpan biu) override {
    bius.emplace_back(biu.begin(), biu.end());
  }
  void on_connection_ended(std::string_view, Priority, uint32_t sense, std::string_view) override {
    ended.emplace_back(sense, clock->now());
  }
};

// Node A ("NETA.CPA", side 0) and node B ("NETB.CPB", side 1) over one pipe.
struct TwoNodes {
  // `idle_close`: each node's (see RtpNodeConfig).
  explicit TwoNodes(const RtpConfig &rtp, uint32_t seed = 1, size_t max_nlp = 1461,
                    RtpDuration idle_close = {})
      : pipe(clock, seed, max_nlp),
        a({"NETA.CPA", rtp, 0xA, idle_close}, clock, seen_a),
        b({"NETB.CPB", rtp, 0xB, idle_close}, clock, seen_b) {
    seen_a.clock = seen_b.clock = &clock;
    pipe.connect(0, a.add_link("NETB.CPB", pipe.link(0), {0x80, 0x01}));
    pipe.connect(1, b.add_link("NETA.CPA", pipe.link(1), {0x80, 0x02}));
  }

  // Runs the loop (deliveries and both nodes' timers, time jumping to the next
  // event) until `done` or `limit` of simulated time passes.
  bool run_until(const std::function<bool()> &done, RtpDuration limit) {
    const RtpTime stop = clock.now() + limit;
    int stuck = 0;  // rounds without time moving: a deadline that never clears
    while (!done()) {
      if (++stuck > 100000) return false;
      std::optional<RtpTime> next = pipe.next_delivery();
      for (RtpNode *node : {&a, &b}) {
        if (auto due = node->next_deadline()) next = next ? std::min(*next, *due) : *due;
      }
      if (!next || *next > stop) {
        clock.set(stop);
        return done();
      }
      if (*next > clock.now()) {
        clock.set(*next);
        stuck = 0;
      }
      pipe.deliver_due();
      a.on_timer();
      b.on_timer();
    }
    return true;
  }

  ManualClock clock;
  NlpPipe pipe;
  Received seen_a, seen_b;
  RtpNode a, b;
};

// A BIU of `size` bytes: a FID5 TH and RH in front (so captures decode), then
// a pattern numbered by `n`.
inline Bytes make_biu(uint32_t n, size_t size) {
  Bytes biu = {0x5C, 0, uint8_t(n >> 8), uint8_t(n), 0x80, 0, 0, 0, 0, 0, 0, 1, 0x03, 0x90, 0};
  for (size_t i = biu.size(); i < size; ++i) biu.push_back(static_cast<uint8_t>(n * 31 + i));
  return biu;
}

}  // namespace snanode::net::hpr::test

// Two RTP nodes joined by an in-memory pipe with injected time.  What each
// side sends passes the link's own impairment (ee::Impairer: loss,
// duplication, reordering and delay, seeded from the pipe's seed), then a
// bottleneck of limited rate and queue; every NLP carried goes to a tap (for
// captures and fuzz seeds).
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "net/ee/impairment.h"
#include "net/hpr/rtp_node.h"

namespace snanode::net::hpr::test {

class ManualClock : public lu62::Clock {
 public:
  time_point now() const override { return now_; }
  void set(time_point t) { now_ = t; }

 private:
  time_point now_ = time_point{} + std::chrono::hours(1);
};

// How long every packet takes, whatever else delays it.
inline constexpr std::chrono::milliseconds kLatency{1};

// One direction of the pipe.
struct Path {
  // A bottleneck: packets leave at `capacity` bytes/s (0: unlimited) and at
  // most `queue_limit` bytes wait for it; the rest are dropped.
  uint32_t capacity = 0;
  size_t queue_limit = 64 * 1024;
  bool silent = false;     // everything sent this way is lost
  bool slowdown1 = false;  // marks every NLP with the NHDR's slowdown 1 bit
  ee::Impairer impairer{[] {
    ee::Impairment latency;
    latency.delay = kLatency;
    return latency;
  }()};
  RtpTime free_at{};  // when the bottleneck is next free
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
class TwoNodes {
 public:
  // `idle_close`: each node's (see RtpNodeConfig).
  explicit TwoNodes(const RtpConfig &rtp, uint32_t seed = 1, size_t max_nlp = 1461,
                    RtpDuration idle_close = {})
      : a({"NETA.CPA", rtp, 0xA, idle_close}, clock, seen_a),
        b({"NETB.CPB", rtp, 0xB, idle_close}, clock, seen_b),
        seed_(seed),
        ends_{{this, 0, max_nlp}, {this, 1, max_nlp}} {
    seen_a.clock = seen_b.clock = &clock;
    receivers_[0] = &a.add_link("NETB.CPB", ends_[0], {0x80, 0x01});
    receivers_[1] = &b.add_link("NETA.CPA", ends_[1], {0x80, 0x02});
  }

  Path &path(int from_side) { return paths_[from_side]; }
  // Impairs what `from_side` sends from now on, seeded from the pipe's seed:
  // rates of loss, duplication and reordering, and a delay on top of kLatency.
  void impair(int from_side, double loss, double duplication = 0, double reorder = 0,
              std::chrono::milliseconds delay = {}) {
    ee::Impairment i;
    i.loss = loss;
    i.duplication = duplication;
    i.reorder = reorder;
    i.delay = kLatency + delay;
    i.seed = seed_ * 2 + static_cast<unsigned>(from_side);
    paths_[from_side].impairer = ee::Impairer(i);
  }
  // Hands `nlp` to `side`'s node as if the pipe had carried it.
  void inject(int side, ByteSpan nlp) { receivers_[side]->on_nlp(nlp); }

  // Runs the loop (deliveries and both nodes' timers, time jumping to the next
  // event) until `done` or `limit` of simulated time passes.
  bool run_until(const std::function<bool()> &done, RtpDuration limit) {
    const RtpTime stop = clock.now() + limit;
    int stuck = 0;  // rounds without time moving: a deadline that never clears
    while (!done()) {
      if (++stuck > 100000) return false;
      std::optional<RtpTime> next;
      if (!in_flight_.empty()) next = in_flight_.begin()->first.first;
      for (auto due : {a.next_deadline(), b.next_deadline(), paths_[0].impairer.next_deadline(),
                       paths_[1].impairer.next_deadline()}) {
        if (due && (!next || *due < *next)) next = due;
      }
      if (!next || *next > stop) {
        clock.set(stop);
        return done();
      }
      if (*next > clock.now()) {
        clock.set(*next);
        stuck = 0;
      }
      deliver_due();
      a.on_timer();
      b.on_timer();
    }
    return true;
  }

  std::function<void(int from_side, ByteSpan nlp)> tap;
  ManualClock clock;
  Received seen_a, seen_b;
  RtpNode a, b;

 private:
  struct End : ee::NlpLink {
    End(TwoNodes *p, int s, size_t max) : pipe(p), side(s), max_nlp(max) {}
    bool send_nlp(Priority, ByteSpan nlp) override { return pipe->carry(side, nlp); }
    size_t max_nlp_size() const override { return max_nlp; }
    TwoNodes *pipe;
    int side;
    size_t max_nlp;
  };

  bool carry(int from, ByteSpan nlp) {
    if (nlp.size() > ends_[from].max_nlp) return false;
    if (tap) tap(from, nlp);
    Path &p = paths_[from];
    if (p.silent) return true;
    Bytes bytes(nlp.begin(), nlp.end());
    if (p.slowdown1 && bytes.size() > 1) bytes[1] |= 0x04;
    std::vector<ee::HeldDatagram> ready;
    p.impairer.push({0, {}, std::move(bytes)}, clock.now(), ready);
    queue(from, ready);
    return true;
  }

  // What the impairment let through, on its way through the bottleneck.
  void queue(int from, std::vector<ee::HeldDatagram> &ready) {
    Path &p = paths_[from];
    for (ee::HeldDatagram &d : ready) {
      RtpTime at = clock.now();
      if (p.capacity != 0) {
        p.free_at = std::max(p.free_at, at);
        const auto queued = std::chrono::duration<double>(p.free_at - at).count();
        if (queued * p.capacity > static_cast<double>(p.queue_limit)) continue;
        p.free_at += std::chrono::duration_cast<RtpDuration>(
            std::chrono::duration<double>(static_cast<double>(d.payload.size()) / p.capacity));
        at = p.free_at;
      }
      in_flight_.emplace(std::pair{at, sequence_++}, std::pair{from, std::move(d.payload)});
    }
  }

  // Every packet due by now to its node, in time order.
  void deliver_due() {
    for (int from : {0, 1}) {
      std::vector<ee::HeldDatagram> ready;
      paths_[from].impairer.release(clock.now(), ready);
      queue(from, ready);
    }
    while (!in_flight_.empty() && in_flight_.begin()->first.first <= clock.now()) {
      auto packet = in_flight_.extract(in_flight_.begin());
      receivers_[1 - packet.mapped().first]->on_nlp(packet.mapped().second);
    }
  }

  uint32_t seed_;
  End ends_[2];
  ee::NlpReceiver *receivers_[2] = {nullptr, nullptr};
  Path paths_[2];
  std::multimap<std::pair<RtpTime, uint64_t>, std::pair<int, Bytes>> in_flight_;  // from, NLP
  uint64_t sequence_ = 0;
};

// A BIU of `size` bytes: a FID5 TH and RH in front (so captures decode), then
// a pattern numbered by `n`.
inline Bytes make_biu(uint32_t n, size_t size) {
  Bytes biu = {0x5C, 0, uint8_t(n >> 8), uint8_t(n), 0x80, 0, 0, 0, 0, 0, 0, 1, 0x03, 0x90, 0};
  for (size_t i = biu.size(); i < size; ++i) biu.push_back(static_cast<uint8_t>(n * 31 + i));
  return biu;
}

}  // namespace snanode::net::hpr::test

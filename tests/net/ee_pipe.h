// Two link stations joined by an in-memory pipe with its own impairment in
// each direction, run on an injected clock: every datagram either side sends
// is recorded, passes the impairer of its direction and reaches the other
// station when the pipe runs.
#pragma once

#include <string>
#include <vector>

#include "net/ee/impairment.h"
#include "net/ee/link_station.h"

namespace snanode::net::ee::testing {

// Network to low: the order of the ports base+1 .. base+4.
inline constexpr Priority kAllPriorities[] = {Priority::kNetwork, Priority::kHigh,
                                              Priority::kMedium, Priority::kLow};

struct Receiver : NlpReceiver {
  std::vector<Bytes> nlps;
  int activations = 0;
  std::vector<std::string> inactive;
  TimePoint last_change{};
  const TimePoint *clock = nullptr;

  void on_nlp(ByteSpan nlp) override { nlps.emplace_back(nlp.begin(), nlp.end()); }
  void on_link_active() override {
    ++activations;
    last_change = *clock;
  }
  void on_link_inactive(std::string_view why) override {
    inactive.emplace_back(why);
    last_change = *clock;
  }
};

struct SentDatagram {
  bool from_a;
  unsigned port_index;
  Bytes bytes;
  TimePoint when;
};

class Pipe {
 public:
  Pipe(const LinkStationConfig &a, const LinkStationConfig &b, const Impairment &a_to_b = {},
       const Impairment &b_to_a = {})
      : a_side_(*this, true, a_to_b),
        b_side_(*this, false, b_to_a),
        a(a, a_side_, ra),
        b(b, b_side_, rb) {
    ra.clock = &now;
    rb.clock = &now;
  }

  // Runs both stations until `until`, delivering datagrams as they become due
  // and firing timers at their deadlines.
  void run_until(TimePoint until) {
    for (;;) {
      bool moved = true;
      while (moved) {
        moved = false;
        for (Side *side : {&a_side_, &b_side_}) {
          std::vector<HeldDatagram> ready;
          side->impairer.release(now, ready);
          for (HeldDatagram &d : ready) side->wire.push_back(std::move(d));
          while (!side->wire.empty()) {
            HeldDatagram d = std::move(side->wire.front());
            side->wire.erase(side->wire.begin());
            if (!side->cut) (side->from_a ? b : a).on_datagram(d.payload, now);
            moved = true;
          }
        }
        for (LinkStation *s : {&a, &b}) {
          if (auto due = s->next_deadline(); due && *due <= now) {
            s->on_timer(now);
            moved = true;
          }
        }
      }
      std::optional<TimePoint> next;
      for (auto due : {a.next_deadline(), b.next_deadline(), a_side_.impairer.next_deadline(),
                       b_side_.impairer.next_deadline()}) {
        if (due && (!next || *due < *next)) next = due;
      }
      if (!next || *next > until) break;
      now = std::max(now, *next);
    }
    now = until;
  }
  void run_for(Duration d) { run_until(now + d); }

  // Datagrams from this side stop arriving (the partner goes silent), or
  // arrive again.
  void cut(bool from_a, bool cut = true) { (from_a ? a_side_ : b_side_).cut = cut; }

  TimePoint now = TimePoint{} + std::chrono::hours(1);
  std::vector<SentDatagram> sent;
  Receiver ra, rb;

 private:
  struct Side : DatagramSink {
    Side(Pipe &pipe, bool from_a, const Impairment &impairment)
        : pipe(pipe), from_a(from_a), impairer(impairment) {}
    void send_datagram(unsigned port_index, Bytes datagram) override {
      pipe.sent.push_back({from_a, port_index, datagram, pipe.now});
      std::vector<HeldDatagram> ready;
      impairer.push({port_index, {}, std::move(datagram)}, pipe.now, ready);
      for (HeldDatagram &d : ready) wire.push_back(std::move(d));
    }
    Pipe &pipe;
    bool from_a;
    Impairer impairer;
    std::vector<HeldDatagram> wire;
    bool cut = false;
  };
  Side a_side_, b_side_;

 public:
  LinkStation a, b;
};

inline LinkStationConfig station_config(uint32_t node_id, const std::string &cp,
                                        const std::string &partner_cp) {
  LinkStationConfig c;
  c.local.node_id = node_id;
  c.local.cp_name = cp;
  c.partner_cp_name = partner_cp;
  c.retry_interval = std::chrono::seconds(2);
  c.retry_count = 3;
  c.liveness = std::chrono::seconds(8);
  return c;
}

}  // namespace snanode::net::ee::testing

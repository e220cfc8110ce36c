// A test-only impairment of the node's own UDP path: datagrams lost,
// duplicated, reordered and delayed at configured rates, from a seeded
// generator so that a test sees the same run every time.  The endpoint passes
// every datagram it sends and every one it receives through an Impairer; with
// the default (all zero) nothing is touched and nothing is queued.
//
// SNANODE_IMPAIR and the configuration give it as text:
//   "loss=0.05,dup=0.01,reorder=0.01,delay_ms=5,seed=7"
// loss, dup and reorder are rates from 0 to 1 (of the datagrams in each
// direction); delay_ms delays every datagram; a reordered datagram is held
// back until the next one has passed (or for reorder_hold_ms at most).
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "net/formats/byte_io.h"
#include "net/formats/shared_bytes.h"

namespace snanode::net::ee {

struct Impairment {
  double loss = 0;
  double duplication = 0;
  double reorder = 0;
  std::chrono::milliseconds delay{0};
  std::chrono::milliseconds reorder_hold{20};
  uint64_t seed = 1;

  bool any() const { return loss > 0 || duplication > 0 || reorder > 0 || delay.count() > 0; }
};

// Parses the text form; on an error returns nothing and sets `error` to a
// sentence naming the item at fault.
std::optional<Impairment> parse_impairment(std::string_view text, std::string *error);
// SNANODE_IMPAIR parsed: none (all zero) when unset; nothing with `error` set
// when it cannot be read.
std::optional<Impairment> impairment_from_environment(std::string *error);
// The impairment in effect for a node whose configuration says `configured`
// ([network] impair, empty: none): SNANODE_IMPAIR when it is set, since a
// test harness sets it around a daemon whose file it does not own; else the
// configured one.  Nothing with `error` set (naming its source) when the text
// in use cannot be read.  `from_environment` (may be null) tells which.
std::optional<Impairment> effective_impairment(std::string_view configured, std::string *error,
                                               bool *from_environment = nullptr);
// "loss 0.05, duplication 0, reordering 0.01, delay 0 ms", for the log.
std::string impairment_text(const Impairment &impairment);

// One datagram held by an Impairer: its payload and what the endpoint needs
// to send or deliver it later (port index and partner address, opaque here).
struct HeldDatagram {
  unsigned port_index = 0;
  Bytes address;  // the partner's address, as the endpoint keys it
  Bytes payload;
  SharedSpan tail{};  // what follows the payload when sent in two pieces
  size_t size() const { return payload.size() + tail.size; }
};

class Impairer {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit Impairer(const Impairment &impairment);

  const Impairment &settings() const { return settings_; }
  // Takes one datagram and appends to `ready` what may go now (none, it, a
  // copy of it, one held back before it, ...).
  void push(HeldDatagram datagram, TimePoint now, std::vector<HeldDatagram> &ready);
  // Appends what has waited long enough.
  void release(TimePoint now, std::vector<HeldDatagram> &ready);
  std::optional<TimePoint> next_deadline() const;

  struct Counters {
    uint64_t lost = 0, duplicated = 0, reordered = 0, delayed = 0;
  };
  const Counters &counters() const { return counters_; }

 private:
  bool chance(double rate);
  void schedule(HeldDatagram datagram, TimePoint now, std::vector<HeldDatagram> &ready);

  Impairment settings_;
  uint64_t state_;
  Counters counters_;
  struct Delayed {
    TimePoint due;
    HeldDatagram datagram;
  };
  std::deque<Delayed> delayed_;  // in order of `due` (the delay is the same for all)
  std::optional<Delayed> held_;  // the datagram being reordered
};

}  // namespace snanode::net::ee

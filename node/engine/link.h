// The path between the two halves of one conversation.
//
// A half sends frames through its Link and receives them through the
// FrameSink it attached.  Frames arrive in the order they were sent.  When the
// far end goes away without a word (its process died, its socket broke), the
// sink hears link_lost() once; a half that ends properly detaches first, so its
// peer only hears the frames it sent.
#pragma once

#include <memory>

#include "engine/frame.h"

namespace snanode::engine {

class FrameSink {
 public:
  virtual ~FrameSink() = default;
  virtual void on_frame(Frame &&frame) = 0;
  virtual void link_lost() = 0;
};

// Where the receive that waits on a conversation wants its next record: a
// link may read the payload of a DATA frame that fits straight into it, the
// one copy a bare socket costs, and deliver the frame as `landed`.
struct Landing {
  uint8_t *data = nullptr;
  size_t capacity = 0;
};

// A way for a thread that waits for a link's next frame to read the link's
// socket itself, instead of waiting for the reactor thread to read it and wake
// it: one hand-over between threads less on every frame that completes a
// waiting verb.
class LinkReader {
 public:
  virtual ~LinkReader() = default;
  // Called holding the process lock.  Releases it, waits until the socket
  // has something (or the link is closed: whatever else may end the verb a
  // thread waits for, a cancel or the end of the path, closes its link),
  // reads what has come and delivers it with the lock taken back.  False
  // once the socket can bring nothing more.  `landing`: see Landing; only
  // for the first frame read, and only while the thread waits in here.
  virtual bool read_here(const Landing *landing = nullptr) = 0;
  // Called holding the process lock once a verb whose thread can wait has
  // sent: past the link's queue limit, writes what the socket has not taken,
  // waiting for room with the lock released, so a sender that outpaces its
  // partner waits for it (pacing) instead of queueing without end.  Once the
  // link is closed (the verb ended its conversation), writes all of it and
  // the end of the stream, unless the peer is gone or stuck: what a verb
  // accepted is then out of the process's hands.
  virtual void finish_writing() {}
};

class Link {
 public:
  virtual ~Link() = default;
  // Delivers to the peer; frames to a peer that has gone are dropped.
  // `more`: another frame of the same verb follows at once, so the link may
  // hold this one back and pass both together.
  virtual void send(Frame &&frame, bool more = false) = 0;
  // Sends a DATA frame whose payload stays the caller's: the link copies
  // what it cannot pass on before returning, unless `may_wait` lets it wait
  // (with the process lock released) until the rest is written.
  virtual void send_data(uint8_t flags, const uint8_t *data, size_t size, bool may_wait) {
    (void)may_wait;
    Frame frame;
    frame.flags = flags;
    frame.payload.assign(data, data + size);
    send(std::move(frame));
  }
  // Sets (or, with nullptr, clears) where this end's inbound frames go.
  virtual void attach(FrameSink *sink) = 0;
  // This end is going away: the peer hears link_lost() unless `quietly`.
  virtual void close(bool quietly) = 0;
  // Whether the sink wants the peer's frames as they come.  Without, they wait
  // (the peer's sends wait for room once they are many) until the sink wants
  // them again, pull()s them, or a reader() reads them.  A link that hands
  // frames over at once ignores it.
  virtual void set_input_wanted(bool wanted) { (void)wanted; }
  // Delivers, now, the frames that have come and not been delivered.
  // `recent_ok`: a look at the socket a few microseconds ago will do (as if
  // what came since had come a moment later).
  virtual void pull(bool recent_ok = false) { (void)recent_ok; }
  // A reader for a waiting thread, or nullptr: wait for the link to deliver.
  virtual std::shared_ptr<LinkReader> reader() { return nullptr; }
};

// Two connected in-memory ends: a frame sent on one is handed to the other's
// sink at once, on the sender's thread, under the caller's lock.
struct LinkPair {
  std::unique_ptr<Link> first;
  std::unique_ptr<Link> second;
};
LinkPair make_in_memory_link();

}  // namespace snanode::engine

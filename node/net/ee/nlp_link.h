// The boundary between the RTP layer and the data link under it.
//
// An RTP connection hands whole network layer packets (NHDR + THDR + data, no
// LLC header) to the link that reaches the adjacent node, and the link hands
// up every NLP that arrives.  Enterprise Extender implements the link over
// UDP; tests implement it over an in-memory pipe that can lose, duplicate,
// reorder and delay.  Nothing here blocks or starts a thread: the daemon's
// loop calls into the link when a socket is readable or a timer is due, and
// the link calls the receiver from there.
#pragma once

#include <cstddef>
#include <string_view>

#include "net/formats/byte_io.h"
#include "net/formats/nlp.h"
#include "net/formats/shared_bytes.h"

namespace snanode::net::ee {

class NlpLink {
 public:
  virtual ~NlpLink() = default;
  // Sends one NLP at `priority` (which picks the UDP port).  Never blocks: a
  // datagram the kernel cannot take now is dropped, as the network may drop
  // it; RTP recovers.  Returns false when the link is not active.
  virtual bool send_nlp(Priority priority, ByteSpan nlp) = 0;
  // The same without copying: the NLP's headers are appended to a buffer
  // from start_nlp() (which may hold room for the link's own header in
  // front, for it to fill), and its data follows as a piece of its own that
  // the link keeps until the datagram has left.
  virtual Bytes start_nlp() { return {}; }
  virtual bool send_nlp_pieces(Priority priority, Bytes head, const SharedSpan &data) {
    const ByteSpan tail = data.bytes();
    head.insert(head.end(), tail.begin(), tail.end());
    return send_nlp(priority, head);
  }
  // The largest NLP the link carries (negotiated in the XID exchange).  RTP
  // segments messages to fit.
  virtual size_t max_nlp_size() const = 0;
};

class NlpReceiver {
 public:
  virtual ~NlpReceiver() = default;
  virtual void on_nlp(ByteSpan nlp) = 0;
  virtual void on_link_active() = 0;
  // The link stopped answering, was disconnected by the partner, or failed
  // to activate; `why` is for the log.
  virtual void on_link_inactive(std::string_view why) = 0;
};

}  // namespace snanode::net::ee

// Large records from a TP to its node daemon through memory the two share,
// instead of through the socket.
//
// A TP and the daemon carrying its conversation to another node mostly run on
// one CPU.  A record written to a Unix socket is copied into the kernel and
// out again, and the buffers between cost about as much again; a stream of
// large records spent a quarter of that CPU so.  On an end the daemon holds,
// the TP's link offers the daemon a ring: a sealed memory file (it can no
// longer shrink, so the daemon's mapping never faults) passed once with a
// RING frame.  After that a large record is copied into the ring and a DATA
// frame flagged "in the ring" says where it lies; the frames keep their order
// on the socket, and a record the ring has no room for goes inline as before.
//
// The daemon trusts nothing in the ring but the bytes of the records: it
// checks each reference against the ring's size, copies the record out when
// it reads the frame, and then publishes how far it has read in the ring's
// header, from where the TP reuses the room.  A TP that writes over records
// it sent, or over the header, spoils only its own conversation's data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include <sys/types.h>

namespace snanode::engine {

// Records at least this large go through the ring; smaller ones do not pay
// for the extra frame.
inline constexpr size_t kRingRecordMin = 8 * 1024;
// The ring's record room, and the header page before it.
inline constexpr size_t kRingDataSize = 1024 * 1024;
inline constexpr size_t kRingHeaderSize = 4096;
// A DATA frame in the ring carries: u64 end (the ring position after the
// record, counting every byte ever placed), u32 length.
inline constexpr size_t kRingReferenceSize = 12;

struct RingReference {
  uint64_t end = 0;
  uint32_t length = 0;
};
void encode_ring_reference(const RingReference &ref, uint8_t (&out)[kRingReferenceSize]);
std::optional<RingReference> decode_ring_reference(std::span<const uint8_t> payload);

// The TP's side: creates the ring and places records in it.
class RingWriter {
 public:
  // A new ring; nothing when the system will not make one (the link then
  // sends inline).
  static std::optional<RingWriter> create();
  RingWriter(RingWriter &&other) noexcept;
  RingWriter &operator=(RingWriter &&) = delete;
  ~RingWriter();

  // The descriptor to pass in the RING frame, and the size it announces.
  int fd() const { return fd_; }
  static uint32_t file_size() { return kRingHeaderSize + kRingDataSize; }

  // Writes the RING frame that offers the ring, with its descriptor, without
  // waiting: how many of the frame's bytes went (the descriptor
  // with the first), or -1 (errno says why).  The caller queues the rest.
  static constexpr size_t kOfferSize = 14;  // a frame header and the u32 size
  ssize_t send_offer(int socket, uint8_t (&frame)[kOfferSize]) const;

  // Copies a record into the ring; nothing when the daemon has not yet read
  // far enough for it to fit.
  std::optional<RingReference> place(const uint8_t *data, size_t size);

 private:
  RingWriter(int fd, uint8_t *map) : fd_(fd), map_(map) {}
  int fd_;
  uint8_t *map_;
  uint64_t head_ = 0;  // the position after the last record placed
};

// The daemon's side: adopts a ring a TP offered and reads records from it.
class RingReader {
 public:
  // Takes ownership of `fd`.  Nothing (and the descriptor closed) unless it
  // is a memory file of `announced` bytes, the size a writer makes, sealed
  // against shrinking and growing.
  static std::optional<RingReader> adopt(int fd, uint32_t announced);
  RingReader(RingReader &&other) noexcept;
  RingReader &operator=(RingReader &&) = delete;
  ~RingReader();

  // Where in the ring the record `ref` names lies: nothing for a reference
  // outside it.  The TP may still write there; the caller copies the bytes
  // out once, then releases the room.
  std::optional<std::span<const uint8_t>> record(const RingReference &ref) const;
  // The writer may reuse the room up to `end`.
  void release(uint64_t end);

 private:
  RingReader(int fd, uint8_t *map) : fd_(fd), map_(map) {}
  int fd_;
  uint8_t *map_;
};

class FrameReader;
struct Frame;

// The daemon's side of a TP's end: the ring the TP offered, if any.
class RingIntake {
 public:
  // A RING frame adopts the ring it offers (its descriptor comes from
  // `reader`); a DATA frame in the ring gets the record it names as its
  // payload, as if sent inline, and the room goes back to the TP.  Other
  // frames pass untouched.  False for a frame that does not hold up (an offer
  // without a usable ring, a second offer, a record in no ring or outside
  // it): the TP has broken the protocol.
  bool take(Frame &frame, FrameReader &reader);
  void close() { ring_.reset(); }

 private:
  std::optional<RingReader> ring_;
};

}  // namespace snanode::engine

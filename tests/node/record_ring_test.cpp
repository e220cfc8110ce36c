// Large records from a TP to its daemon through the shared ring: what the
// TP's link sends, and what the daemon's side accepts from a TP it cannot
// trust.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "client/message_channel.h"
#include "core/process_lock.h"
#include "engine/frame_reader.h"
#include "engine/record_ring.h"
#include "engine/socket_link.h"

namespace {

using namespace snanode::engine;

struct SocketPair {
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
  ~SocketPair() {
    for (int fd : fds) {
      if (fd >= 0) ::close(fd);
    }
  }
  int fds[2] = {-1, -1};
};

std::vector<uint8_t> record_of(size_t size, uint8_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 13);
  return bytes;
}

// The daemon's end: reads frames as the daemon does, each through the intake.
struct DaemonEnd {
  explicit DaemonEnd(int fd) : fd(fd) { reader.set_takes_descriptors(true); }
  // Reads until `count` frames are in (or a second passes without any);
  // false as soon as the intake refuses one.
  bool read(size_t count) {
    while (frames.size() < count) {
      pollfd polled{fd, POLLIN, 0};
      if (::poll(&polled, 1, 1000) <= 0) return true;
      std::vector<Frame> got;
      reader.read(fd, got, false);
      for (Frame &frame : got) {
        const bool in_ring = frame.type == FrameType::kData && (frame.flags & kDataInRing) != 0;
        if (!intake.take(frame, reader)) return false;
        if (frame.type == FrameType::kRing) continue;
        ring_records += in_ring ? 1 : 0;
        frames.push_back(std::move(frame));
      }
    }
    return true;
  }
  int fd;
  FrameReader reader;
  RingIntake intake;
  std::vector<Frame> frames;
  size_t ring_records = 0;
};

void send_raw(int fd, const std::vector<uint8_t> &bytes, int passing = -1) {
  ASSERT_EQ(snanode::client::send_passing(fd, bytes.data(), bytes.size(), passing, 0),
            static_cast<ssize_t>(bytes.size()));
}

// A ring made and offered on `fd` as a TP's link does it.
std::optional<RingWriter> offered_ring(int fd) {
  std::optional<RingWriter> ring = RingWriter::create();
  uint8_t offer[RingWriter::kOfferSize];
  if (ring && ring->send_offer(fd, offer) != ssize_t{RingWriter::kOfferSize}) ring.reset();
  return ring;
}

std::vector<uint8_t> frame_bytes(FrameType type, uint8_t flags, const std::vector<uint8_t> &body) {
  Frame frame;
  frame.type = type;
  frame.flags = flags;
  frame.payload = body;
  std::vector<uint8_t> out;
  encode_frame(frame, out);
  return out;
}

std::vector<uint8_t> size_field(uint32_t size) {
  std::vector<uint8_t> field(4);
  put_u32(field.data(), size);
  return field;
}

std::vector<uint8_t> reference(uint64_t end, uint32_t length) {
  uint8_t out[kRingReferenceSize];
  encode_ring_reference({end, length}, out);
  return {out, out + kRingReferenceSize};
}

// A memory file as a TP could make one: `seals` added, `size` bytes.
int memory_file(unsigned seals, off_t size) {
  const int fd = ::memfd_create("test-ring", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(::ftruncate(fd, size), 0);
  if (seals != 0) {
    EXPECT_EQ(::fcntl(fd, F_ADD_SEALS, seals), 0);
  }
  return fd;
}

// Records to the daemon go through the ring while it has room and inline
// when it has none, small ones always inline, all arriving in order and
// whole; room the daemon has read is used again, round the ring's end.
TEST(RecordRing, TpLinkSendsLargeRecordsThroughTheRingInOrder) {
  SocketPair pair;
  std::unique_ptr<Link> tp(make_socket_link(pair.fds[0], nullptr, SocketPeer::kNode));
  pair.fds[0] = -1;  // the link owns it
  DaemonEnd daemon(pair.fds[1]);
  std::vector<std::vector<uint8_t>> sent;
  const auto send = [&](size_t size) {
    sent.push_back(record_of(size, static_cast<uint8_t>(sent.size())));
    snanode::ProcessLockGuard lock;
    tp->send_data(0, sent.back().data(), sent.back().size(), false);
  };
  // More than the ring holds before the daemon reads anything.
  size_t large = 0;
  for (size_t i = 0; i < 3 * kRingDataSize / 32767; ++i) {
    const size_t size = i % 3 == 0 ? 100 : 32767 - i;
    large += size >= kRingRecordMin ? 1 : 0;
    send(size);
  }
  ASSERT_TRUE(daemon.read(sent.size()));
  const size_t through_ring = daemon.ring_records;
  EXPECT_GE(through_ring, kRingDataSize / 32767 - 1);
  EXPECT_LT(through_ring, large);  // the rest found the ring full
  // Read and released: the ring takes the next ones again, those that would
  // run past its end from its start.
  for (size_t i = 0; i < 4; ++i) {
    send(kRingDataSize / 3 + 1);
    ASSERT_TRUE(daemon.read(sent.size()));
  }
  EXPECT_EQ(daemon.ring_records, through_ring + 4);
  ASSERT_EQ(daemon.frames.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(daemon.frames[i].payload, sent[i]) << i;
    EXPECT_EQ(daemon.frames[i].flags, 0) << i;
  }
  snanode::ProcessLockGuard lock;
  tp.reset();
}

// Each way a TP can break the ring's rules is refused, on a daemon that
// carries on; a well-made ring is taken, once.
TEST(RecordRing, DaemonRefusesWhatDoesNotHoldUp) {
  const uint32_t size = RingWriter::file_size();
  struct Case {
    const char *what;
    int passed;  // -1: none
    std::vector<uint8_t> frame;
  };
  int pipe_ends[2];
  ASSERT_EQ(::pipe(pipe_ends), 0);
  ::close(pipe_ends[1]);
  const std::vector<uint8_t> offer = frame_bytes(FrameType::kRing, 0, size_field(size));
  const std::vector<Case> cases = {
      {"a record in no ring", -1, frame_bytes(FrameType::kData, kDataInRing, reference(100, 100))},
      {"an offer without a descriptor", -1, offer},
      {"a pipe", pipe_ends[0], offer},
      {"a file that can shrink", memory_file(F_SEAL_GROW, size), offer},
      {"a file that can grow", memory_file(F_SEAL_SHRINK, size), offer},
      {"a file of another size", memory_file(F_SEAL_SHRINK | F_SEAL_GROW, size * 2),
       frame_bytes(FrameType::kRing, 0, size_field(size * 2))},
      {"a size that is not the file's", memory_file(F_SEAL_SHRINK | F_SEAL_GROW, size),
       frame_bytes(FrameType::kRing, 0, size_field(size + 1))},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    SocketPair pair;
    DaemonEnd daemon(pair.fds[1]);
    send_raw(pair.fds[0], c.frame, c.passed);
    if (c.passed >= 0) ::close(c.passed);
    EXPECT_FALSE(daemon.read(1));
  }

  // A good ring, offered as a TP's link offers it; then references to it.
  SocketPair pair;
  DaemonEnd daemon(pair.fds[1]);
  std::optional<RingWriter> ring = offered_ring(pair.fds[0]);
  ASSERT_TRUE(ring);
  const std::vector<uint8_t> record = record_of(20000, 5);
  const std::optional<RingReference> placed = ring->place(record.data(), record.size());
  ASSERT_TRUE(placed);
  send_raw(pair.fds[0],
           frame_bytes(FrameType::kData, kDataInRing, reference(placed->end, placed->length)));
  ASSERT_TRUE(daemon.read(1));
  ASSERT_EQ(daemon.frames.size(), 1u);
  EXPECT_EQ(daemon.frames[0].payload, record);

  const uint64_t data = kRingDataSize;
  const std::vector<std::pair<const char *, std::vector<uint8_t>>> bad = {
      {"empty", reference(50, 0)},
      {"larger than the ring", reference(data * 3, data + 1)},
      {"across the ring's end", reference(data + 10, 20)},
      {"ending before it starts", reference(5, 10)},
      {"a reference cut short", std::vector<uint8_t>(kRingReferenceSize - 1, 0)},
  };
  for (const auto &[what, body] : bad) {
    SCOPED_TRACE(what);
    Frame frame;
    frame.flags = kDataInRing;
    frame.payload = body;
    EXPECT_FALSE(daemon.intake.take(frame, daemon.reader));
  }
  // A second offer, however good.
  ASSERT_TRUE(offered_ring(pair.fds[0]));
  EXPECT_FALSE(daemon.read(2));
}

}  // namespace

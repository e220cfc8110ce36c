// The socket link: frames over a stream socket between two ends, in this
// process or across a fork.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "core/process_lock.h"
#include "engine/socket_link.h"
#include "node/recording_sink.h"

namespace {

using namespace snanode::engine;
using namespace std::chrono_literals;
using engine_test::RecordingSink;

struct SocketPair {
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
  int fds[2] = {-1, -1};
};

Frame make_frame(FrameType type, uint8_t flags, uint32_t code, size_t size, uint8_t seed) {
  Frame frame;
  frame.type = type;
  frame.flags = flags;
  frame.code = code;
  frame.payload.resize(size);
  for (size_t i = 0; i < size; ++i) frame.payload[i] = static_cast<uint8_t>(seed + i * 7);
  return frame;
}

void expect_same(const Frame &got, const Frame &sent, size_t index) {
  EXPECT_TRUE(std::tie(got.type, got.flags, got.code, got.payload) ==
              std::tie(sent.type, sent.flags, sent.code, sent.payload))
      << index;
}
void expect_same(const std::vector<Frame> &got, const std::vector<Frame> &sent) {
  ASSERT_EQ(got.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) expect_same(got[i], sent[i], i);
}

// A link that goes, as every link of the node does, under the process lock:
// its reader may be delivering to it right then.
struct CloseLocked {
  void operator()(Link *link) const {
    snanode::ProcessLockGuard lock;
    delete link;
  }
};
using LinkPtr = std::unique_ptr<Link, CloseLocked>;
LinkPtr socket_link(int fd, RunLocked run_locked = nullptr) {
  return LinkPtr(make_socket_link(fd, std::move(run_locked)).release());
}

void attach_locked(Link &link, FrameSink &sink) {
  snanode::ProcessLockGuard lock;
  link.attach(&sink);
}

void send_locked(Link &link, Frame frame) {
  snanode::ProcessLockGuard lock;
  link.send(std::move(frame));
}

TEST(SocketLink, FramesArriveInOrderBothWays) {
  SocketPair pair;
  auto left = socket_link(pair.fds[0]);
  auto right = socket_link(pair.fds[1]);
  RecordingSink left_sink, right_sink;
  attach_locked(*left, left_sink);
  attach_locked(*right, right_sink);
  const FrameType types[] = {FrameType::kData,          FrameType::kChangeDirection,
                             FrameType::kConfirm,       FrameType::kConfirmed,
                             FrameType::kSendError,     FrameType::kDeallocate,
                             FrameType::kRequestToSend, FrameType::kAttachFailed};
  std::vector<Frame> to_right, to_left;
  for (size_t i = 0; i < 300; ++i) {
    const FrameType type = types[i % 8];
    to_right.push_back(make_frame(type, static_cast<uint8_t>(i), 0x10000000u + i, i % 37, 1));
    to_left.push_back(make_frame(type, static_cast<uint8_t>(i + 1), 0x21600810u ^ i, i % 11, 9));
  }
  std::thread other([&] {
    for (const Frame &frame : to_left) send_locked(*right, frame);
  });
  for (const Frame &frame : to_right) send_locked(*left, frame);
  other.join();

  ASSERT_TRUE(right_sink.wait_for_frames(to_right.size()));
  ASSERT_TRUE(left_sink.wait_for_frames(to_left.size()));
  expect_same(right_sink.frames(), to_right);
  expect_same(left_sink.frames(), to_left);
  EXPECT_EQ(left_sink.lost() + right_sink.lost(), 0);
}

// More than the queue limit in largest frames: the sender is held back until
// the reader (which needs the same process lock) catches up, without deadlock.
TEST(SocketLink, LargePayloadsPassWithBackPressure) {
  SocketPair pair;
  auto sender = socket_link(pair.fds[0]);
  auto receiver = socket_link(pair.fds[1]);
  RecordingSink sink;
  attach_locked(*receiver, sink);
  const size_t count = 2 * kSocketLinkQueueLimit / kMaxFramePayload + 2;
  std::vector<Frame> sent;
  {
    snanode::ProcessLockGuard lock;  // held throughout, as a verb would
    for (size_t i = 0; i < count; ++i) {
      sent.push_back(
          make_frame(FrameType::kData, 0, 0, kMaxFramePayload - i, static_cast<uint8_t>(i)));
      sender->send(Frame(sent.back()));
    }
  }
  ASSERT_TRUE(sink.wait_for_frames(count, 20s));
  expect_same(sink.frames(), sent);
}

// A record sent from its caller's buffer that the socket cannot take whole:
// the sender waits for room and the record arrives intact; with nobody
// reading, closing the link (as a cancel does) ends the wait.
TEST(SocketLink, ASenderWaitingForRoomFinishesOrIsReleasedByClose) {
  std::vector<uint8_t> record(kMaxFramePayload);
  for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<uint8_t>(i * 13);
  // A send buffer far smaller than the record.
  auto small_pair = [] {
    SocketPair pair;
    const int size = 4096;
    EXPECT_EQ(::setsockopt(pair.fds[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
    return pair;
  };
  {
    SocketPair pair = small_pair();
    auto sender = socket_link(pair.fds[0]);
    auto receiver = socket_link(pair.fds[1]);
    RecordingSink sink;
    {
      snanode::ProcessLockGuard lock;
      receiver->attach(&sink);
      sender->send_data(0, record.data(), record.size(), true);
    }
    ASSERT_TRUE(sink.wait_for_frames(1, 20s));
    EXPECT_TRUE(sink.frames()[0].payload == record);
  }
  for (bool quietly : {false, true}) {
    SCOPED_TRACE(quietly ? "quietly" : "telling the peer");
    SocketPair pair = small_pair();
    auto sender = socket_link(pair.fds[0]);
    std::thread closer([&] {
      std::this_thread::sleep_for(50ms);
      snanode::ProcessLockGuard lock;  // released by the waiting sender
      sender->close(quietly);
    });
    const auto started = std::chrono::steady_clock::now();
    {
      snanode::ProcessLockGuard lock;
      sender->send_data(0, record.data(), record.size(), true);
    }
    closer.join();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    ::close(pair.fds[1]);
  }
}

// Large records read by a waiting thread with a buffer of its own land in
// that buffer, one after the other, and not only the first of a read: a read
// takes no more than the start of the record behind the one it lands.
TEST(SocketLink, LargeRecordsLandInTheWaitingReceivesBuffer) {
  SocketPair pair;
  auto receiver = socket_link(pair.fds[0]);
  auto sender = socket_link(pair.fds[1]);
  std::vector<uint8_t> buffer(32767);
  struct LandingSink : RecordingSink {
    const std::vector<uint8_t> *buffer = nullptr;
    size_t landed = 0;
    void on_frame(Frame &&frame) override {
      if (frame.landed > 0) {
        ++landed;
        frame.payload.assign(buffer->begin(), buffer->begin() + frame.landed);
      }
      RecordingSink::on_frame(std::move(frame));
    }
  } sink;
  sink.buffer = &buffer;
  constexpr size_t kRecords = 12;
  std::vector<Frame> sent;
  {
    snanode::ProcessLockGuard lock;
    receiver->attach(&sink);
    receiver->set_input_wanted(false);  // only the waiting thread reads
    for (size_t i = 0; i < kRecords; ++i) {
      sent.push_back(make_frame(FrameType::kData, 0, 0, 20000 + i, static_cast<uint8_t>(i)));
      sender->send(Frame(sent.back()));
    }
  }
  snanode::ProcessLockGuard lock;
  auto reader = receiver->reader();
  ASSERT_NE(reader, nullptr);
  const Landing landing{buffer.data(), buffer.size()};
  while (sink.frames().size() < kRecords) ASSERT_TRUE(reader->read_here(&landing));
  expect_same(sink.frames(), sent);
  // Only the first read, with no size to go by, may bring whole records
  // behind the one it lands (three of these).
  EXPECT_GE(sink.landed, kRecords - 3);
}

// A thread whose verb waits reads the socket itself: the frames are
// delivered on that thread, in order with what the reactor delivered before;
// closing the link (as a cancel does) ends its wait.
TEST(SocketLink, AWaitingThreadReadsItsSocketUntilTheLinkCloses) {
  SocketPair pair;
  auto receiver = socket_link(pair.fds[0]);
  auto sender = socket_link(pair.fds[1]);
  struct ThreadSink : RecordingSink {
    std::vector<std::thread::id> threads;
    void on_frame(Frame &&frame) override {
      threads.push_back(std::this_thread::get_id());
      RecordingSink::on_frame(std::move(frame));
    }
  } sink;
  attach_locked(*receiver, sink);
  send_locked(*sender, make_frame(FrameType::kData, 0, 0, 10, 1));
  ASSERT_TRUE(sink.wait_for_frames(1));  // the reactor delivers while no one waits

  snanode::ProcessLockGuard lock;
  // As the engine does while a verb's own thread waits: otherwise the reactor
  // may take a frame that arrives between two reads of this thread.
  receiver->set_input_wanted(false);
  auto reader = receiver->reader();
  ASSERT_NE(reader, nullptr);
  std::thread later([&] {
    std::this_thread::sleep_for(50ms);
    send_locked(*sender, make_frame(FrameType::kData, 0, 0, 20000, 2));  // read into its payload
    send_locked(*sender, make_frame(FrameType::kConfirm, 0, 0, 0, 0));
  });
  while (sink.frames().size() < 3) ASSERT_TRUE(reader->read_here());
  later.join();
  const auto frames = sink.frames();
  EXPECT_EQ(frames[1].payload.size(), 20000u);
  EXPECT_EQ(frames[2].type, FrameType::kConfirm);
  const auto me = std::this_thread::get_id();
  EXPECT_TRUE(sink.threads[0] != me && sink.threads[1] == me && sink.threads[2] == me);

  std::thread closer([&] {
    std::this_thread::sleep_for(50ms);
    snanode::ProcessLockGuard closing;
    receiver->close(true);
  });
  reader->read_here();  // returns once the link is closed
  closer.join();
  EXPECT_EQ(sink.frames().size(), 3u);
}

TEST(SocketLink, CloseTellsThePeerOnlyWhenNotQuiet) {
  for (const bool quietly : {false, true}) {
    SCOPED_TRACE(quietly ? "quiet close" : "abnormal close");
    SocketPair pair;
    auto closing = socket_link(pair.fds[0]);
    auto peer = socket_link(pair.fds[1]);
    RecordingSink sink;
    {
      snanode::ProcessLockGuard lock;
      peer->attach(&sink);
      closing->send(make_frame(FrameType::kData, 0, 0, 5, 3));
      closing->send(make_frame(FrameType::kDeallocate, 0, 0, 0, 0));
      closing->close(quietly);
      // Nothing leaves a closed end.
      closing->send(make_frame(FrameType::kData, 0, 0, 1, 1));
    }
    ASSERT_TRUE(sink.wait_for_frames(2));
    EXPECT_EQ(sink.wait_for_lost(quietly ? 300ms : 5s), !quietly);
    EXPECT_EQ(sink.frames().size(), 2u);
    EXPECT_EQ(sink.lost(), quietly ? 0 : 1);
  }
}

// The peer is a forked process that writes one encoded frame and is killed.
TEST(SocketLink, PeerDeathIsReportedOnceAfterItsFrames) {
  SocketPair pair;
  std::vector<uint8_t> encoded;
  encode_frame(make_frame(FrameType::kData, 0, 0, 100, 5), encoded);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(pair.fds[0]);
    if (::write(pair.fds[1], encoded.data(), encoded.size()) < 0) ::_exit(2);
    for (;;) ::pause();
  }
  ::close(pair.fds[1]);
  auto link = socket_link(pair.fds[0]);
  RecordingSink sink;
  attach_locked(*link, sink);
  ASSERT_TRUE(sink.wait_for_frames(1));
  EXPECT_EQ(sink.lost(), 0);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(sink.wait_for_lost());
  // Sending to a dead peer is dropped, not fatal.
  send_locked(*link, make_frame(FrameType::kData, 0, 0, 10, 0));
  send_locked(*link, make_frame(FrameType::kData, 0, 0, 10, 0));
  EXPECT_EQ(sink.lost(), 1);
  EXPECT_EQ(sink.frames().size(), 1u);
}

// A process that closes a link with far more queued than its socket holds
// and goes at once: the frames and the orderly end still reach the peer,
// written out by the closing thread before it goes (even by _exit), or else
// at exit.  A peer that takes nothing is given up on within the stall limit,
// and its stream is cut, so it learns the conversation broke.  The children
// are forked before this process has threads (the sanitizers want that).
TEST(SocketLink, AClosedLinkIsWrittenOutBeforeItsProcessGoes) {
  enum Going { kWrittenOutThenUnderscoreExit, kExit, kExitToAStuckPeer, kWays };
  constexpr size_t kFrames = 64;  // 4 MiB
  const auto data_frame = [](size_t i) {
    return make_frame(FrameType::kData, 0, 0, 65536, static_cast<uint8_t>(i));
  };
  SocketPair pairs[kWays];
  pid_t children[kWays];
  for (int going = 0; going < kWays; ++going) {
    children[going] = ::fork();
    ASSERT_GE(children[going], 0);
    if (children[going] != 0) continue;
    if (going == kExitToAStuckPeer) set_socket_link_stall_limit(300ms);
    auto link = socket_link(pairs[going].fds[0]);
    snanode::ProcessLockGuard lock;
    for (size_t i = 0; i < kFrames; ++i) link->send(data_frame(i));
    link->send(make_frame(FrameType::kDeallocate, 0, 0, 0, 0));
    link->close(true);
    if (going != kWrittenOutThenUnderscoreExit) std::exit(0);
    link->reader()->finish_writing();
    ::_exit(0);
  }
  for (SocketPair &pair : pairs) ::close(pair.fds[0]);
  const auto started = std::chrono::steady_clock::now();
  int status[kWays];
  ASSERT_EQ(::waitpid(children[kExitToAStuckPeer], &status[kExitToAStuckPeer], 0),
            children[kExitToAStuckPeer]);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
  for (int going = 0; going < kWays; ++going) {
    SCOPED_TRACE(going);
    auto receiver = socket_link(pairs[going].fds[1]);
    RecordingSink sink;
    attach_locked(*receiver, sink);
    if (going == kExitToAStuckPeer) {
      EXPECT_TRUE(sink.wait_for_lost());
      EXPECT_LT(sink.frames().size(), kFrames + 1);
      continue;
    }
    ASSERT_TRUE(sink.wait_for_frames(kFrames + 1));
    std::vector<Frame> sent;
    for (size_t i = 0; i < kFrames; ++i) sent.push_back(data_frame(i));
    sent.push_back(make_frame(FrameType::kDeallocate, 0, 0, 0, 0));
    expect_same(sink.frames(), sent);
    EXPECT_FALSE(sink.wait_for_lost(300ms));
    ASSERT_EQ(::waitpid(children[going], &status[going], 0), children[going]);
  }
  for (const int ended : status) EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == 0) << ended;
}

TEST(SocketLink, UndecodableStreamCountsAsLost) {
  SocketPair pair;
  auto link = socket_link(pair.fds[0]);
  RecordingSink sink;
  attach_locked(*link, sink);
  const uint8_t garbage[] = {0, 0, 0, 6, 0x77, 0, 0, 0, 0, 0};  // unknown frame type
  ASSERT_EQ(::write(pair.fds[1], garbage, sizeof garbage), static_cast<ssize_t>(sizeof garbage));
  EXPECT_TRUE(sink.wait_for_lost());
  EXPECT_TRUE(sink.frames().empty());
  ::close(pair.fds[1]);
}

// A link given its own way to take the node's lock delivers under that lock,
// not the process lock.
TEST(SocketLink, DeliversUnderTheLockItWasGiven) {
  SocketPair pair;
  std::mutex node_lock;
  bool inside = false;
  RunLocked run_locked = [&](const std::function<void()> &work) {
    std::lock_guard<std::mutex> hold(node_lock);
    inside = true;
    work();
    inside = false;
  };
  class CheckingSink : public RecordingSink {
   public:
    explicit CheckingSink(const bool &inside) : inside_(inside) {}
    void on_frame(Frame &&frame) override {
      if (inside_) RecordingSink::on_frame(std::move(frame));
    }
    void link_lost() override {
      if (inside_) RecordingSink::link_lost();
    }

   private:
    const bool &inside_;
  } sink(inside);
  auto receiver = socket_link(pair.fds[1], run_locked);
  auto sender = socket_link(pair.fds[0]);
  {
    std::lock_guard<std::mutex> hold(node_lock);
    receiver->attach(&sink);
  }
  {
    snanode::ProcessLockGuard lock;
    sender->send(make_frame(FrameType::kData, 0, 0, 3, 0));
    sender->close(false);
  }
  ASSERT_TRUE(sink.wait_for_frames(1));
  EXPECT_TRUE(sink.wait_for_lost());
  std::lock_guard<std::mutex> hold(node_lock);
  receiver->close(true);
}

}  // namespace

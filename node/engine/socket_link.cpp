#include "engine/socket_link.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "core/process_lock.h"
#include "engine/byte_pool.h"
#include "engine/frame_reader.h"
#include "engine/link_reactor.h"
#include "engine/output_queue.h"
#include "engine/record_ring.h"

namespace snanode::engine {
namespace {

// How often a thread waiting for room to write checks that its link is still
// open (a cancel closes it without a word to the socket).
constexpr int kWriteCheckMs = 100;

using Clock = std::chrono::steady_clock;

std::atomic<int64_t> g_stall_limit_ms{
    std::chrono::duration_cast<std::chrono::milliseconds>(kSocketLinkStallLimit).count()};

Clock::duration stall_limit() {
  return std::chrono::milliseconds(g_stall_limit_ms.load());
}
// A socket found empty this recently is taken to be empty still, by a verb
// that only looks for news from the partner (see Link::pull).
constexpr auto kStillEmpty = std::chrono::microseconds(50);

// Who reads the socket: nobody, one thread (the reactor or a verb's thread),
// or one thread while another found input it could not take.
constexpr uint32_t kInputIdle = 0;
constexpr uint32_t kInputOwned = 1;
constexpr uint32_t kInputMore = 2;

bool write_all(int fd, const uint8_t *data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

void wait_for_room(int fd) {
  pollfd polled{fd, POLLOUT, 0};
  while (::poll(&polled, 1, kWriteCheckMs) < 0 && errno == EINTR) {
  }
}

// One end of the socket and everything about it that outlives the Link
// object: the reactor keeps it while output is still queued, and a thread
// reading or writing it in place of the reactor keeps it meanwhile.  The
// socket closes with the last owner.
//
// Output: frames are written at once by the sending verb, as far as the
// socket takes them; the rest waits in the queue for the reactor (told of
// room only while there is some to wait for), or for the sending thread
// itself where it can wait.  Input: read by whoever owns it (input_state_),
// the reactor only while the conversation wants input as it comes and no
// verb's thread reads.
class State : public ReactorEndpoint,
              public LinkReader,
              public std::enable_shared_from_this<State> {
 public:
  State(int fd, RunLocked run_locked, SocketPeer peer)
      : fd_(fd), run_locked_(std::move(run_locked)), peer_is_node_(peer == SocketPeer::kNode) {}
  ~State() override { ::close(fd_); }

  void start() {
    // Bounds a write that waits for room (see send_data).
    const timeval limit{0, kWriteCheckMs * 1000};
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    key_ = reactor_register(fd_, shared_from_this());
    if (key_ == 0) {
      write_failed_ = true;
      end_unreported_ = true;
      input_ended_ = true;
    }
  }

  bool uses_process_lock() const { return !run_locked_; }

  // ---- the Link side, under the node's lock ----

  void send(Frame &&frame, bool more) {
    if (!open_ || write_failed_.load()) return;
    note_sent();
    Outgoing out;
    encode_frame_header(frame, out.head);
    out.head_size = kFrameHeaderSize;
    out.body = std::move(frame.payload);
    {
      std::lock_guard<std::mutex> hold(out_mutex_);
      enqueue_locked(std::move(out), more);
    }
    apply_back_pressure();
  }

  // The frame goes out from the caller's buffer when nothing is queued before
  // it: at once as far as the socket takes it, the rest either written by
  // this thread as room comes (`may_wait`) or copied into the queue.
  void send_data(uint8_t flags, const uint8_t *data, size_t size, bool may_wait) {
    if (!open_ || write_failed_.load()) return;
    note_sent();
    std::unique_lock<std::mutex> hold(out_mutex_);
    // A large record to the daemon that the ring takes leaves as a reference
    // to where it lies there, sent (and waited for) as the record would be.
    uint8_t reference[kRingReferenceSize];
    if (peer_is_node_ && size >= kRingRecordMin && place_in_ring_locked(data, size, reference)) {
      flags |= kDataInRing;
      data = reference;
      size = kRingReferenceSize;
    }
    Outgoing head;
    encode_frame_header(FrameHeader{FrameType::kData, flags, 0, static_cast<uint32_t>(size)},
                        head.head);
    head.head_size = kFrameHeaderSize;
    if (!queue_.empty() || blocked_) {
      head.body = take_buffer(size);
      if (size > 0) std::memcpy(head.body.data(), data, size);
      enqueue_locked(std::move(head), false);
      return;
    }
    BorrowedFrame frame{head.head, data, size};
    frame.write(fd_, write_failed_);
    if (frame.done() || write_failed_.load()) return;
    // Frames sent meanwhile (a cancel's) queue behind the rest of this one,
    // and nobody else writes until it is out.
    blocked_ = true;
    partial_out_ = true;
    const std::shared_ptr<State> keep = shared_from_this();
    if (may_wait && !run_locked_) {
      self_writing_ = true;
      update_watch_locked();
      hold.unlock();
      // Nobody else writes while `partial_out_` is set, so the rest goes out
      // without the mutex, in writes that wait in the kernel for room as a
      // plain blocking write does (one system call where a poll and a
      // write would be two), each given up after the socket's send time-out
      // to look whether the link has closed meanwhile.
      run_without_process_lock([&] {
        while (!frame.done() && !write_failed_.load() && !closed_.load()) {
          frame.write(fd_, write_failed_, true);
        }
      });
      hold.lock();
      self_writing_ = false;
    }
    partial_out_ = false;
    // What is left keeps its place at the head of the queue.
    if (!frame.done() && !write_failed_.load()) queue_.push_front(frame.rest());
    write_queue_locked();
    const bool retire = ready_to_retire_locked();
    hold.unlock();
    if (retire) this->retire();
  }

  void attach(FrameSink *sink) {
    if (!open_) return;
    sink_ = sink;
    if (sink != nullptr && !input_watched_) {
      input_watched_ = true;
      if (input_ended_.load()) {
        report_end_locked();
      } else {
        set_input(input_attached_, true);
      }
    }
  }

  void set_input_wanted(bool wanted) { set_input(input_wanted_, wanted); }

  void pull(bool recent_ok) {
    if (input_ended_.load() || !claim_input()) return;  // the reader there delivers
    if (recent_ok && std::chrono::steady_clock::now() - reader_.emptied_at() < kStillEmpty) {
      if (release_input()) return;
    }
    std::vector<Frame> frames;
    do {
      read_socket(frames, false);
      deliver_locked(frames);
    } while (!release_input());
  }

  void close(bool quietly) {
    if (!open_) return;
    open_ = false;
    closed_ = true;
    sink_ = nullptr;
    drained_.notify_all();  // a sender held back gives up waiting
    // A thread blocked reading the socket for a verb that this close ends
    // (a cancel, the end of the path) wakes; what is queued still goes out.
    ::shutdown(fd_, SHUT_RD);
    bool retire;
    {
      std::lock_guard<std::mutex> hold(out_mutex_);
      closing_ = true;
      if (quietly) {
        Outgoing end;
        std::memcpy(end.head, kOrderlyEnd, sizeof kOrderlyEnd);
        end.head_size = sizeof kOrderlyEnd;
        enqueue_locked(std::move(end), false);
      } else if (!blocked_) {
        write_queue_locked();  // frames held for one that now never comes
      }
      retire = ready_to_retire_locked();
    }
    if (retire) this->retire();
  }

  // ---- ReactorEndpoint ----

  void on_events(uint32_t events) override {
    if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) != 0) flush_queue();
    // A closed link's input goes nowhere; its node may already be gone.
    if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP)) == 0 || closed_.load()) return;
    if (!claim_input()) return;
    // Input that another thread found while this one read may include the
    // end of the stream: a second round reads to the end.
    bool to_the_end = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    do {
      std::vector<Frame> frames;
      read_socket(frames, std::exchange(to_the_end, true));
      if (!frames.empty() || end_unreported_) {
        with_node_lock([&] { deliver_locked(frames); });
      }
    } while (!release_input());
  }

  // ---- LinkReader ----

  bool read_here(const Landing *landing) override {
    if (input_ended_.load()) return false;
    if (!claim_input()) {
      // The reactor is reading it right now, and what it delivers may be
      // what the verb waits for: let it finish, and the caller look again.
      run_without_process_lock([this] {
        while (input_state_.load() != kInputIdle) std::this_thread::yield();
      });
      return true;
    }
    // The reactor would only find the socket taken; keep it out meanwhile.
    set_input(reading_here_, true);
    std::vector<Frame> frames;
    run_without_process_lock([&] { read_socket(frames, false, true, landing); });
    deliver_locked(frames);
    set_input(reading_here_, false);
    while (!release_input()) {
      read_socket(frames, true);
      deliver_locked(frames);
    }
    return true;
  }

  // Past the queue limit, writes down to half of it; once the link is closed
  // (the verb ended the conversation), writes everything and the end of the
  // stream, so it has reached the kernel, which keeps it for the peer however
  // soon this process exits.  Either way with the node's lock released, and
  // for an ending link only while the peer takes something at least every
  // stall limit: a peer that is stuck does not hold the verb for ever (what
  // is left then waits for the reactor, or for the exit, see
  // write_out_at_exit).
  void finish_writing() override {
    bool ending;
    {
      std::lock_guard<std::mutex> hold(out_mutex_);
      ending = closing_;
      if (write_failed_.load() || queue_.empty()) return;
      if (!ending && (queue_.bytes() <= kSocketLinkQueueLimit || closed_.load())) return;
      self_writing_ = true;  // the reactor need not wake for room
      update_watch_locked();
    }
    const size_t keep = ending ? 0 : kSocketLinkQueueLimit / 2;
    const std::shared_ptr<State> keep_alive = shared_from_this();
    bool retire;
    run_without_process_lock([&] {
      std::unique_lock<std::mutex> hold(out_mutex_);
      Clock::time_point progress = Clock::now();
      while (queue_.bytes() > keep && !write_failed_.load() && (ending || !closed_.load())) {
        if (ending && Clock::now() - progress > stall_limit()) break;
        hold.unlock();
        wait_for_room(fd_);
        hold.lock();
        const size_t before = queue_.bytes();
        write_queue_locked();
        if (queue_.bytes() < before) progress = Clock::now();
      }
      self_writing_ = false;
      update_watch_locked();
      retire = ready_to_retire_locked();
    });
    notify_drained();
    if (retire) this->retire();
  }

  // ---- at process exit ----

  enum class ExitWrite : uint8_t { kDone, kWaiting, kGivenUp };

  // One round of writing out a closed link's queue at exit, without the
  // node's lock (its holder may be the exiting thread).  kWaiting: the socket
  // is full, poll fd() for room.  A peer that has taken nothing for the stall
  // limit is given up: its stream is cut, so it learns of the loss.
  ExitWrite write_before_exit(Clock::time_point now) {
    ExitWrite result = ExitWrite::kWaiting;
    bool retire = false;
    {
      std::lock_guard<std::mutex> hold(out_mutex_);
      if (!closing_ || retired_) return ExitWrite::kDone;  // open links just break
      if (exit_progress_ == Clock::time_point{}) exit_progress_ = now;
      const size_t before = queue_.bytes();
      write_queue_locked();
      if (queue_.bytes() < before) exit_progress_ = now;
      if (queue_.empty() || write_failed_.load()) {
        retire = ready_to_retire_locked();
        result = ExitWrite::kDone;
      } else if (now - exit_progress_ > stall_limit()) {
        result = ExitWrite::kGivenUp;
      }
    }
    if (retire) this->retire();
    if (result == ExitWrite::kGivenUp) ::shutdown(fd_, SHUT_RDWR);
    return result;
  }

  int fd() const { return fd_; }

 private:
  // A DATA frame written from its sender's buffer, as far as a socket takes it.
  struct BorrowedFrame {
    const uint8_t *head;
    const uint8_t *data;
    size_t size;
    size_t written = 0;

    bool done() const { return written == kFrameHeaderSize + size; }
    // Writes on until the socket is full (or, with `wait`, until the send
    // time-out passes) or the frame is out; sets `failed` when the peer is
    // gone.
    void write(int fd, std::atomic<bool> &failed, bool wait = false) {
      while (!done()) {
        iovec pieces[2];
        size_t count = 0;
        if (written < kFrameHeaderSize) {
          pieces[count++] = {const_cast<uint8_t *>(head) + written, kFrameHeaderSize - written};
        }
        const size_t sent = data_written();
        if (sent < size) pieces[count++] = {const_cast<uint8_t *>(data) + sent, size - sent};
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = count;
        const ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) failed = true;
          return;
        }
        written += static_cast<size_t>(n);
        if (wait) return;  // the caller looks at the link before writing on
      }
    }
    // What is not written yet, copied for the queue.
    Outgoing rest() const {
      Outgoing out;
      if (written < kFrameHeaderSize) {
        out.head_size = kFrameHeaderSize - written;
        std::memcpy(out.head, head + written, out.head_size);
      }
      out.body = take_buffer(size - data_written());
      if (!out.body.empty()) std::memcpy(out.body.data(), data + data_written(), out.body.size());
      return out;
    }
    size_t data_written() const {
      return written > kFrameHeaderSize ? written - kFrameHeaderSize : 0;
    }
  };

  void with_node_lock(const std::function<void()> &work) {
    if (run_locked_) {
      run_locked_(work);
    } else {
      ProcessLockGuard lock;
      work();
    }
  }

  // ---- output ----

  // Queues a frame after whatever is queued and, unless another frame of
  // the same verb follows (`more`), writes the queue at once as far as the
  // socket takes it without blocking: a verb's frames leave in one system
  // call, and they are on their way when the verb returns, even if the process
  // exits right after.  Once the socket is full the reactor writes the rest
  // when it can take more.  `out_mutex_` is held.
  void enqueue_locked(Outgoing &&out, bool more) {
    if (write_failed_.load()) return;
    queue_.push_back(std::move(out));
    if (!more && !blocked_) write_queue_locked();
  }

  // Copies a large record for the daemon into the ring (record_ring.h) when
  // it has room, and says where in `reference`.  The ring is offered with the
  // first such record; its descriptor travels with the offer's first byte, so
  // only while nothing is queued before it.  False: the record goes inline.
  // (Waiting for room in the ring instead, woken by the daemon, made a stream
  // slower: on a shared CPU the records that go inline meanwhile keep both
  // sides busy.)  `out_mutex_` is held.
  bool place_in_ring_locked(const uint8_t *data, size_t size,
                            uint8_t (&reference)[kRingReferenceSize]) {
    if (!ring_) {
      if (no_ring_ || !queue_.empty() || blocked_ || partial_out_) return false;
      std::optional<RingWriter> ring = RingWriter::create();
      if (!ring) {
        no_ring_ = true;
        return false;
      }
      uint8_t offer[RingWriter::kOfferSize];
      const ssize_t n = ring->send_offer(fd_, offer);
      if (n <= 0) {
        // A full socket: offered with a later record.  Anything else, the
        // link is failing or cannot pass descriptors: inline from now on.
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) no_ring_ = true;
        return false;
      }
      if (static_cast<size_t>(n) < sizeof offer) {
        Outgoing rest;
        rest.body.assign(offer + n, offer + sizeof offer);
        enqueue_locked(std::move(rest), false);
      }
      ring_.emplace(std::move(*ring));
    }
    const std::optional<RingReference> placed = ring_->place(data, size);
    if (!placed) return false;
    encode_ring_reference(*placed, reference);
    return true;
  }

  // `out_mutex_` is held.
  void write_queue_locked() {
    if (partial_out_) return;  // a frame is half written from its sender's buffer
    switch (queue_.write(fd_)) {
      case OutputQueue::Written::kAll:
        blocked_ = false;
        break;
      case OutputQueue::Written::kSocketFull:
        blocked_ = true;  // the reactor hears when the socket can take more
        break;
      case OutputQueue::Written::kFailed:
        write_failed_ = true;
        break;
    }
    update_watch_locked();
  }

  // Asks the reactor for input (see the class comment) and for room to write
  // (while the socket is full and no verb's thread waits for it); only a
  // change costs a system call.  `out_mutex_` is held.
  void update_watch_locked() {
    const bool input = input_attached_ && input_wanted_ && !reading_here_ && !closed_.load();
    const bool output = blocked_ && !self_writing_;
    if (input == watching_input_ && output == watching_output_) return;
    watching_input_ = input;
    watching_output_ = output;
    reactor_watch(key_, fd_, input, output);
  }

  void set_input(bool &flag, bool value) {
    std::lock_guard<std::mutex> hold(out_mutex_);
    flag = value;
    update_watch_locked();
  }

  // The reactor found the socket writable again.
  void flush_queue() {
    bool retire;
    {
      std::lock_guard<std::mutex> hold(out_mutex_);
      write_queue_locked();
      retire = ready_to_retire_locked();
    }
    notify_drained();
    if (retire) this->retire();
  }

  // Closed and written out: the peer sees the end of the stream at once (the
  // socket itself closes with the last owner), and the reactor lets go.
  void retire() {
    ::shutdown(fd_, SHUT_RDWR);
    reactor_unregister(key_, fd_);
  }

  // Whether the link is closed and has nothing left to write: then the
  // reactor can let go of it.  `out_mutex_` is held.
  bool ready_to_retire_locked() {
    if (!closing_ || retired_ || (!queue_.empty() && !write_failed_.load())) return false;
    retired_ = true;
    return true;
  }

  // A sender whose frames passed the queue limit within one verb waits, with
  // the process lock released, until the reactor has written enough.  Only
  // where the node's lock is the process lock: another lock cannot be
  // released for the wait.
  void apply_back_pressure() {
    if (run_locked_ || queue_.bytes() <= kSocketLinkQueueLimit) return;
    const std::shared_ptr<State> keep = shared_from_this();
    senders_waiting_.fetch_add(1);
    wait_releasing_process_lock(drained_, std::chrono::milliseconds(-1), [&] {
      return queue_.bytes() <= kSocketLinkQueueLimit || write_failed_.load() || closed_.load();
    });
    senders_waiting_.fetch_sub(1);
  }

  void notify_drained() {
    // Taking the process lock orders this after a waiting sender's check of
    // the queue size, so the wake-up cannot be lost.
    if (senders_waiting_.load() == 0) return;
    { ProcessLockGuard lock; }
    drained_.notify_all();
  }

  // ---- input ----

  bool claim_input() {
    uint32_t seen = input_state_.load();
    for (;;) {
      if (seen == kInputIdle) {
        if (input_state_.compare_exchange_weak(seen, kInputOwned)) return true;
      } else if (input_state_.compare_exchange_weak(seen, seen | kInputMore)) {
        return false;  // the owner reads again before it lets go
      }
    }
  }

  // False when another thread found input meanwhile: read again.
  bool release_input() {
    uint32_t expected = kInputOwned;
    if (input_state_.compare_exchange_strong(expected, kInputIdle)) return true;
    input_state_.store(kInputOwned);
    return false;
  }

  // What this end sends may wake a reader waiting on it for nothing when the
  // daemon reads it (see SocketPeer): noted for the next read that waits.
  void note_sent() {
    if (peer_is_node_) sent_since_wait_.store(true, std::memory_order_relaxed);
  }

  // The input's owner reads.
  void read_socket(std::vector<Frame> &frames, bool to_the_end, bool wait = false,
                   const Landing *landing = nullptr) {
    if (input_ended_.load()) return;
    // Only a wait that follows a send polls first: a receiver taking a stream
    // sends nothing the daemon could wake it with, and a poll per wait would
    // be a system call per record for nothing.
    if (wait) reader_.set_poll_before_waiting(sent_since_wait_.exchange(false));
    if (landing == nullptr || !reader_.read_landing(fd_, *landing, frames, wait)) {
      reader_.read(fd_, frames, to_the_end, wait);
    }
    if (reader_.end() == FrameReader::End::kNone) return;
    // Before input_ended_: whoever sees the input ended also sees whether the
    // sink is still to hear of it (attach looks without owning the input).
    end_unreported_ = reader_.end() == FrameReader::End::kBroken;
    input_ended_ = true;
  }

  // Hands what was read to the sink, and then the loss of the link if the
  // stream ended without the orderly end.  The node's lock is held.
  void deliver_locked(std::vector<Frame> &frames) {
    for (auto &frame : frames) {
      if (!open_ || sink_ == nullptr) break;
      sink_->on_frame(std::move(frame));
    }
    frames.clear();
    report_end_locked();
  }

  void report_end_locked() {
    if (!open_ || sink_ == nullptr || !end_unreported_.exchange(false)) return;
    FrameSink *sink = std::exchange(sink_, nullptr);  // heard once
    sink->link_lost();
  }

  const int fd_;
  const RunLocked run_locked_;  // empty: the process lock
  uint64_t key_ = 0;            // the reactor's registration

  // Output, guarded by out_mutex_.
  std::mutex out_mutex_;
  OutputQueue queue_;
  bool blocked_ = false;            // the socket was full: the reactor writes when it is not
  bool self_writing_ = false;       // ... unless a verb's thread writes it
  bool partial_out_ = false;        // send_data is writing a frame straight from its caller
  std::optional<RingWriter> ring_;  // on an end the daemon holds, once offered
  bool no_ring_ = false;            // the ring could not be made or offered
  bool input_attached_ = false;
  bool input_wanted_ = true;
  bool reading_here_ = false;
  bool watching_input_ = false;
  bool watching_output_ = false;
  bool closing_ = false;
  bool retired_ = false;
  Clock::time_point exit_progress_;  // the last write at exit (zero: none yet)
  const bool peer_is_node_;
  std::atomic<bool> sent_since_wait_{false};  // see note_sent
  std::atomic<bool> write_failed_{false};
  std::atomic<int> senders_waiting_{0};
  std::condition_variable_any drained_;  // waited on with the process lock

  // Input, touched only by the thread that owns it (input_state_).
  std::atomic<uint32_t> input_state_{kInputIdle};
  FrameReader reader_;
  std::atomic<bool> input_ended_{false};
  // The stream broke and the sink has not heard it: set by the input's owner,
  // taken under the node's lock by whoever reports it (attach included).
  std::atomic<bool> end_unreported_{false};

  std::atomic<bool> closed_{false};  // open_, for threads without the node's lock

  // Guarded by the node's lock.
  FrameSink *sink_ = nullptr;
  bool open_ = true;
  bool input_watched_ = false;
};

class SocketLink : public Link {
 public:
  explicit SocketLink(std::shared_ptr<State> state) : state_(std::move(state)) {}
  ~SocketLink() override { state_->close(true); }

  void send(Frame &&frame, bool more) override { state_->send(std::move(frame), more); }
  void send_data(uint8_t flags, const uint8_t *data, size_t size, bool may_wait) override {
    state_->send_data(flags, data, size, may_wait);
  }
  void attach(FrameSink *sink) override { state_->attach(sink); }
  void close(bool quietly) override { state_->close(quietly); }
  void set_input_wanted(bool wanted) override { state_->set_input_wanted(wanted); }
  void pull(bool recent_ok) override { state_->pull(recent_ok); }
  std::shared_ptr<LinkReader> reader() override {
    if (!state_->uses_process_lock()) return nullptr;
    return state_;
  }

 private:
  std::shared_ptr<State> state_;
};

// Registered with atexit when the process makes its first link: writes out
// the links that were closed with output still queued (a verb that ended a
// conversation with no thread waiting for it, a TP that ended, a verb that
// gave up on a stuck peer), all at once, until each is written, its peer gone
// or given up.  Only the reactor's links are looked at: a forked child has
// none of its parent's, so it never writes its parent's output.
void write_out_at_exit() {
  std::vector<std::shared_ptr<State>> pending;
  for (auto &endpoint : reactor_endpoints()) {
    if (auto state = std::dynamic_pointer_cast<State>(endpoint))
      pending.push_back(std::move(state));
  }
  std::vector<pollfd> waiting;
  while (!pending.empty()) {
    waiting.clear();
    const Clock::time_point now = Clock::now();
    std::erase_if(pending, [&](const std::shared_ptr<State> &state) {
      if (state->write_before_exit(now) != State::ExitWrite::kWaiting) return true;
      waiting.push_back(pollfd{state->fd(), POLLOUT, 0});
      return false;
    });
    if (!waiting.empty()) ::poll(waiting.data(), waiting.size(), kWriteCheckMs);
  }
}

}  // namespace

void set_socket_link_stall_limit(std::chrono::milliseconds limit) {
  g_stall_limit_ms = limit.count();
}

std::unique_ptr<Link> make_socket_link(int fd, RunLocked run_locked, SocketPeer peer) {
  static std::once_flag exit_handler;
  std::call_once(exit_handler, [] { std::atexit(write_out_at_exit); });
  auto state = std::make_shared<State>(fd, std::move(run_locked), peer);
  state->start();
  return std::make_unique<SocketLink>(std::move(state));
}

bool send_final_frame(int fd, const Frame &frame) {
  std::vector<uint8_t> bytes;
  encode_frame(frame, bytes);
  bytes.insert(bytes.end(), kOrderlyEnd, kOrderlyEnd + sizeof kOrderlyEnd);
  const bool sent = write_all(fd, bytes.data(), bytes.size());
  ::shutdown(fd, SHUT_WR);
  return sent;
}

}  // namespace snanode::engine

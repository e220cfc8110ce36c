#include "engine/socket_link.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "core/process_lock.h"
#include "engine/byte_pool.h"
#include "engine/link_reactor.h"

namespace snanode::engine {
namespace {

constexpr size_t kReadChunk = 64 * 1024;
// A frame at least this large is read straight into its own payload, which
// saves copying it out of the read buffer.
constexpr size_t kDirectPayload = 8 * 1024;
constexpr size_t kMaxIovecs = 64;
constexpr int kWriteCheckMs = 100;
// A socket found empty this recently is taken to be empty still, by a verb
// that only looks for news from the partner (see Link::pull).
constexpr auto kStillEmpty = std::chrono::microseconds(50);
constexpr uint8_t kOrderlyEnd[4] = {0, 0, 0, 0};

// Who reads the socket: nobody, one thread (the reactor or a waiting verb's
// thread), or one thread while another found input it could not take.
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

// One frame on its way out: its encoded header (or the orderly end) and its
// payload, written with one system call for as many frames as are queued.
struct Outgoing {
  uint8_t head[kFrameHeaderSize];
  size_t head_size = 0;
  std::vector<uint8_t> body;
  size_t size() const { return head_size + body.size(); }
};

// One end of the socket and everything about it that outlives the Link
// object: the reactor keeps it while output is still queued, and a thread
// reading it in place of the reactor keeps it while it reads.  The socket
// closes with the last owner.
class State : public ReactorEndpoint,
              public LinkReader,
              public std::enable_shared_from_this<State> {
 public:
  State(int fd, RunLocked run_locked) : fd_(fd), run_locked_(std::move(run_locked)) {}
  ~State() override { ::close(fd_); }

  void start() {
    key_ = reactor_register(fd_, shared_from_this());
    if (key_ == 0) {
      write_failed_ = true;
      input_ended_ = true;
      end_unreported_ = true;
    }
  }

  bool uses_process_lock() const { return !run_locked_; }

  // ---- the Link side, under the node's lock ----

  void send(Frame &&frame, bool more) {
    if (!open_ || write_failed_.load()) return;
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
    Outgoing head;
    encode_frame_header(FrameHeader{FrameType::kData, flags, 0, static_cast<uint32_t>(size)},
                        head.head);
    head.head_size = kFrameHeaderSize;
    std::unique_lock<std::mutex> hold(out_mutex_);
    if (!queue_.empty() || blocked_) {
      head.body = take_buffer(size);
      if (size > 0) std::memcpy(head.body.data(), data, size);
      enqueue_locked(std::move(head), false);
      return;
    }
    size_t done = 0;
    const size_t whole = kFrameHeaderSize + size;
    const auto write_rest = [&]() -> bool {  // false: the socket is full or gone
      iovec parts[2];
      size_t count = 0;
      if (done < kFrameHeaderSize) parts[count++] = {head.head + done, kFrameHeaderSize - done};
      const size_t in_data = done > kFrameHeaderSize ? done - kFrameHeaderSize : 0;
      if (in_data < size) parts[count++] = {const_cast<uint8_t *>(data) + in_data, size - in_data};
      msghdr message{};
      message.msg_iov = parts;
      message.msg_iovlen = count;
      for (;;) {
        const ssize_t n = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
          done += static_cast<size_t>(n);
          return n > 0;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) write_failed_ = true;
        return false;
      }
    };
    while (done < whole && write_rest()) {
    }
    if (done == whole || write_failed_.load()) return;
    // Frames sent meanwhile (a cancel's) queue behind the rest of this one,
    // and nobody else writes until it is out.
    blocked_ = true;
    partial_out_ = true;
    const std::shared_ptr<State> keep = shared_from_this();
    if (may_wait && !run_locked_) {
      self_writing_ = true;
      update_watch_locked();
      hold.unlock();
      run_without_process_lock([&] {
        while (done < whole && !write_failed_.load() && !closed_.load()) {
          pollfd polled{fd_, POLLOUT, 0};
          while (::poll(&polled, 1, kWriteCheckMs) < 0 && errno == EINTR) {
          }
          std::lock_guard<std::mutex> again(out_mutex_);
          while (done < whole && write_rest()) {
          }
        }
      });
      hold.lock();
      self_writing_ = false;
    }
    partial_out_ = false;
    if (done < whole && !write_failed_.load()) {
      // What is left keeps its place at the head of the queue.
      Outgoing rest;
      if (done < kFrameHeaderSize) {
        std::memcpy(rest.head, head.head + done, kFrameHeaderSize - done);
        rest.head_size = kFrameHeaderSize - done;
      }
      const size_t in_data = done > kFrameHeaderSize ? done - kFrameHeaderSize : 0;
      rest.body = take_buffer(size - in_data);
      std::memcpy(rest.body.data(), data + in_data, size - in_data);
      queued_bytes_ += rest.size();
      queue_.push_front(std::move(rest));
      front_written_ = 0;
    }
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
        deliver_locked_now();
      } else {
        set_input(input_attached_, true);
      }
    }
  }

  void set_input_wanted(bool wanted) { set_input(input_wanted_, wanted); }

  void pull(bool recent_ok) {
    if (input_ended_.load() || !claim_input()) return;  // the reader there delivers
    if (recent_ok && std::chrono::steady_clock::now() - emptied_at_ < kStillEmpty) {
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

  bool read_here(int wake_fd) override {
    // The socket may be watched by nobody but this thread: when the reactor
    // is reading it right now, wait for it to finish, then take over.
    while (!input_ended_.load() && !claim_input()) {
      run_without_process_lock([this] {
        while (input_state_.load() != kInputIdle) std::this_thread::yield();
      });
    }
    if (input_ended_.load()) return false;
    // The reactor would only find the socket taken; keep it out meanwhile.
    set_input(reading_here_, true);
    std::vector<Frame> frames;
    run_without_process_lock([&] {
      pollfd polled[2] = {{fd_, POLLIN | POLLRDHUP, 0}, {wake_fd, POLLIN, 0}};
      while (::poll(polled, 2, -1) < 0 && errno == EINTR) {
      }
      if (polled[0].revents != 0) {
        read_socket(frames, (polled[0].revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0);
      }
    });
    deliver_locked(frames);
    set_input(reading_here_, false);
    while (!release_input()) {
      read_socket(frames, true);
      deliver_locked(frames);
    }
    return true;
  }

 private:
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
    queued_bytes_ += out.size();
    queue_.push_back(std::move(out));
    if (!more && !blocked_) write_queue_locked();
  }

  // Writes from the front of the queue until it is empty or the socket is
  // full; a peer that has gone drops everything queued.  `out_mutex_` is held.
  void write_queue_locked() {
    if (partial_out_) return;  // a frame is half written from its sender's buffer
    while (!queue_.empty()) {
      iovec parts[kMaxIovecs];
      size_t count = 0;
      size_t skip = front_written_;
      for (auto &out : queue_) {
        if (count + 2 > kMaxIovecs) break;
        if (skip < out.head_size) {
          parts[count++] = {out.head + skip, out.head_size - skip};
          skip = 0;
        } else {
          skip -= out.head_size;
        }
        if (skip < out.body.size())
          parts[count++] = {out.body.data() + skip, out.body.size() - skip};
        skip = 0;
      }
      msghdr message{};
      message.msg_iov = parts;
      message.msg_iovlen = count;
      const ssize_t n = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        blocked_ = true;  // the reactor hears when the socket can take more
        update_watch_locked();
        return;
      }
      if (n < 0) {
        write_failed_ = true;
        queue_.clear();
        front_written_ = 0;
        queued_bytes_ = 0;
        return;
      }
      consume_locked(static_cast<size_t>(n));
    }
    blocked_ = false;
    update_watch_locked();
  }

  // Asks the reactor for input (while nobody else reads the socket) and for
  // output (while the socket is full); only a change costs a system call.
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

  void consume_locked(size_t written) {
    queued_bytes_ -= written;
    while (written > 0) {
      const size_t in_front = queue_.front().size() - front_written_;
      if (written < in_front) {
        front_written_ += written;
        return;
      }
      written -= in_front;
      give_back_buffer(std::move(queue_.front().body));
      queue_.pop_front();
      front_written_ = 0;
    }
  }

  void finish_writing() override {
    {
      std::lock_guard<std::mutex> hold(out_mutex_);
      if (queued_bytes_.load() <= kSocketLinkQueueLimit || write_failed_.load() || closed_.load()) {
        return;
      }
      self_writing_ = true;  // the reactor need not wake for room
      update_watch_locked();
    }
    const std::shared_ptr<State> keep = shared_from_this();
    bool retire;
    run_without_process_lock([&] {
      std::unique_lock<std::mutex> hold(out_mutex_);
      while (queued_bytes_.load() > kSocketLinkQueueLimit / 2 && !write_failed_.load() &&
             !closed_.load()) {
        hold.unlock();
        // A bounded wait: a link closed meanwhile (a cancel) ends it.
        pollfd polled{fd_, POLLOUT, 0};
        while (::poll(&polled, 1, kWriteCheckMs) < 0 && errno == EINTR) {
        }
        hold.lock();
        write_queue_locked();
      }
      self_writing_ = false;
      update_watch_locked();
      retire = ready_to_retire_locked();
    });
    notify_drained();
    if (retire) this->retire();
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

  // Past the queue limit a sender waits, with the process lock released,
  // until the reactor has written enough.  Only where the node's lock is the
  // process lock: another lock cannot be released for the wait.
  void apply_back_pressure() {
    if (run_locked_ || queued_bytes_.load() <= kSocketLinkQueueLimit) return;
    const std::shared_ptr<State> keep = shared_from_this();
    senders_waiting_.fetch_add(1);
    wait_releasing_process_lock(drained_, std::chrono::milliseconds(-1), [&] {
      return queued_bytes_.load() <= kSocketLinkQueueLimit || write_failed_.load() ||
             closed_.load();
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

  // Reads whatever the socket holds (without blocking) into whole frames.
  // A short read means the socket was empty: later input is reported anew.
  // But the end of the stream, once reported, is not reported again, so when
  // the peer has ended (`to_the_end`) the socket is read until it says so.
  // Runs only in the thread that owns the input.
  void read_socket(std::vector<Frame> &frames, bool to_the_end) {
    while (!input_ended_.load()) {
      if (partial_) {
        auto &payload = partial_->payload;
        const ssize_t n =
            receive(payload.data() + partial_filled_, payload.size() - partial_filled_);
        if (n <= 0) return;
        partial_filled_ += static_cast<size_t>(n);
        if (partial_filled_ < payload.size() && !to_the_end) return;  // the rest is to come
        if (partial_filled_ < payload.size()) continue;
        frames.push_back(std::move(*partial_));
        partial_.reset();
        continue;
      }
      // Read after what is left of an incomplete frame, in a buffer of the
      // reading thread's own: a link keeps only that rest between reads.
      thread_local std::vector<uint8_t> scratch(kReadChunk + kDirectPayload + kFrameHeaderSize);
      const size_t kept = rest_.size();
      std::memcpy(scratch.data(), rest_.data(), kept);
      const ssize_t n = receive(scratch.data() + kept, kReadChunk);
      if (n <= 0) return;
      decode(scratch.data(), kept + static_cast<size_t>(n), frames);
      if (static_cast<size_t>(n) < kReadChunk && !partial_ && !to_the_end) {
        emptied_at_ = std::chrono::steady_clock::now();
        return;
      }
    }
  }

  // recv without blocking; 0 when nothing is there, -1 once the stream ended.
  ssize_t receive(uint8_t *into, size_t size) {
    for (;;) {
      const ssize_t n = ::recv(fd_, into, size, MSG_DONTWAIT);
      if (n > 0) return n;
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        emptied_at_ = std::chrono::steady_clock::now();
        return 0;
      }
      end_input(false);  // end of stream or a broken socket
      return -1;
    }
  }

  void end_input(bool orderly) {
    input_ended_ = true;
    end_unreported_ = !orderly;
  }

  // Decodes the whole frames of `bytes`; a large frame that is not whole
  // continues in its own payload, a smaller one is kept for the next read.
  void decode(const uint8_t *bytes, size_t size, std::vector<Frame> &frames) {
    size_t offset = 0;
    for (;;) {
      const uint8_t *at = bytes + offset;
      const size_t left = size - offset;
      if (left >= sizeof kOrderlyEnd && std::memcmp(at, kOrderlyEnd, sizeof kOrderlyEnd) == 0) {
        end_input(true);
        break;
      }
      if (left < kFrameHeaderSize) break;
      FrameHeader header;
      try {
        header = decode_frame_header(at);
      } catch (const std::invalid_argument &) {
        end_input(false);  // bytes that are not a frame: the peer is not one of ours
        break;
      }
      Frame frame;
      frame.type = header.type;
      frame.flags = header.flags;
      frame.code = header.code;
      const size_t whole = kFrameHeaderSize + header.payload_size;
      if (left >= whole || header.payload_size >= kDirectPayload) {
        const size_t here = std::min(left, whole) - kFrameHeaderSize;
        frame.payload = take_buffer(header.payload_size);
        std::memcpy(frame.payload.data(), at + kFrameHeaderSize, here);
        offset += kFrameHeaderSize + here;
        if (here < header.payload_size) {
          partial_filled_ = here;
          partial_ = std::move(frame);
          break;
        }
        frames.push_back(std::move(frame));
        continue;
      }
      break;
    }
    rest_.assign(bytes + offset, bytes + size);
  }

  // Hands what was read to the sink, and then the loss of the link if the
  // stream ended without the orderly end.  The node's lock is held.
  void deliver_locked(std::vector<Frame> &frames) {
    for (auto &frame : frames) {
      if (!open_ || sink_ == nullptr) break;
      sink_->on_frame(std::move(frame));
    }
    frames.clear();
    deliver_locked_now();
  }

  void deliver_locked_now() {
    if (!end_unreported_ || !open_ || sink_ == nullptr) return;
    end_unreported_ = false;
    FrameSink *sink = std::exchange(sink_, nullptr);  // heard once
    sink->link_lost();
  }

  const int fd_;
  const RunLocked run_locked_;  // empty: the process lock
  uint64_t key_ = 0;            // the reactor's registration

  // Output, guarded by out_mutex_.
  std::mutex out_mutex_;
  std::deque<Outgoing> queue_;
  size_t front_written_ = 0;   // bytes of the front frame already written
  bool blocked_ = false;       // the socket was full: the reactor writes when it is not
  bool self_writing_ = false;  // ... unless a verb's thread writes it (finish_writing)
  bool partial_out_ = false;   // send_data is writing a frame straight from its caller
  // The reactor reads while the link has a sink that wants input as it comes
  // and no waiting thread reads the socket itself.
  bool input_attached_ = false;
  bool input_wanted_ = true;
  bool reading_here_ = false;
  bool watching_input_ = false;
  bool watching_output_ = false;
  bool closing_ = false;
  bool retired_ = false;
  std::atomic<size_t> queued_bytes_{0};
  std::atomic<bool> write_failed_{false};
  std::atomic<int> senders_waiting_{0};
  std::condition_variable_any drained_;  // waited on with the process lock

  // Input, touched only by the thread that owns it (input_state_).
  std::atomic<uint32_t> input_state_{kInputIdle};
  std::vector<uint8_t> rest_;                         // the start of a frame not yet whole
  std::optional<Frame> partial_;                      // a large frame being read into its payload
  std::chrono::steady_clock::time_point emptied_at_;  // the last read that found no more
  size_t partial_filled_ = 0;
  std::atomic<bool> input_ended_{false};
  bool end_unreported_ = false;  // the stream broke; the sink has not heard it

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

}  // namespace

std::unique_ptr<Link> make_socket_link(int fd, RunLocked run_locked) {
  auto state = std::make_shared<State>(fd, std::move(run_locked));
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

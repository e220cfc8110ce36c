#include "engine/socket_link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/process_lock.h"

namespace snanode::engine {
namespace {

constexpr size_t kReadChunk = 64 * 1024;
constexpr uint8_t kOrderlyEnd[4] = {0, 0, 0, 0};

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

// What the link object and its two threads share.  The threads keep it alive
// after the link is gone; the last owner closes the socket.
struct State {
  State(int socket, RunLocked locked) : fd(socket), run_locked(std::move(locked)) {}
  ~State() { ::close(fd); }

  void with_node_lock(const std::function<void()> &work) {
    if (run_locked) {
      run_locked(work);
    } else {
      ProcessLockGuard lock;
      work();
    }
  }

  const int fd;
  const RunLocked run_locked;  // empty: the process lock

  // Outbound queue, guarded by `mutex`.
  std::mutex mutex;
  std::condition_variable queue_changed;
  std::deque<std::vector<uint8_t>> queue;
  bool writer_busy = false;  // the writer is writing what it took from the queue
  bool closing = false;
  bool finished = false;  // the end of the stream has been written

  std::atomic<size_t> queued_bytes{0};
  std::atomic<bool> write_failed{false};
  std::atomic<int> senders_waiting{0};
  std::condition_variable_any drained;  // waited on with the process lock

  // Guarded by the node's lock.
  FrameSink *sink = nullptr;
  bool open = true;
  bool reader_started = false;
};

void notify_drained(State &state) {
  // Taking the process lock orders this notification after a waiting
  // sender's check of queued_bytes, so the wake-up cannot be lost.
  if (state.senders_waiting.load() == 0) return;
  { ProcessLockGuard lock; }
  state.drained.notify_all();
}

// Writes what the socket takes at once; the bytes written, or nothing when
// the peer is gone.
std::optional<size_t> write_now(int fd, const uint8_t *data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::send(fd, data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (n <= 0) return std::nullopt;
    done += static_cast<size_t>(n);
  }
  return done;
}

// Appends to the queue for the writer thread; `state.mutex` is held.
void enqueue_locked(State &state, std::vector<uint8_t> bytes) {
  state.queued_bytes.fetch_add(bytes.size());
  state.queue.push_back(std::move(bytes));
  state.queue_changed.notify_one();
}

// Sends `bytes` after everything queued before them: at once when nothing
// waits and the socket takes them, so a frame is on its way when the verb
// that sent it returns (and survives the process exiting right after); the
// rest through the writer thread.  `state.mutex` is held.
void send_locked(State &state, std::vector<uint8_t> bytes) {
  if (state.write_failed.load()) return;
  if (state.queue.empty() && !state.writer_busy) {
    const auto written = write_now(state.fd, bytes.data(), bytes.size());
    if (!written) {
      state.write_failed.store(true);
      return;
    }
    if (*written == bytes.size()) return;
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(*written));
  }
  enqueue_locked(state, std::move(bytes));
}

// Ends the stream once everything queued is written; `state.mutex` is held.
void finish_locked(State &state) {
  if (state.finished || !state.queue.empty() || state.writer_busy) return;
  state.finished = true;
  ::shutdown(state.fd, SHUT_WR);
}

void run_writer(const std::shared_ptr<State> &state) {
  std::unique_lock<std::mutex> hold(state->mutex);
  for (;;) {
    state->queue_changed.wait(hold, [&] { return !state->queue.empty() || state->closing; });
    if (state->queue.empty()) break;
    std::vector<uint8_t> burst;
    for (auto &chunk : state->queue) burst.insert(burst.end(), chunk.begin(), chunk.end());
    state->queue.clear();
    state->writer_busy = true;
    hold.unlock();
    if (!state->write_failed.load() && !write_all(state->fd, burst.data(), burst.size())) {
      state->write_failed.store(true);
    }
    state->queued_bytes.fetch_sub(burst.size());
    notify_drained(*state);
    hold.lock();
    state->writer_busy = false;
  }
  finish_locked(*state);
}

// Decodes the whole frames `buffer` holds and delivers them under one hold of
// the node's lock, so a status sent right after data reaches a waiting verb
// with it.  False once the stream has ended (`orderly` tells how), cannot be
// decoded, or the link was closed.
bool deliver_frames(State &state, std::vector<uint8_t> &buffer, bool &orderly) {
  std::vector<Frame> frames;
  size_t offset = 0;
  bool ended = false;
  while (!ended) {
    const size_t left = buffer.size() - offset;
    if (left >= sizeof kOrderlyEnd &&
        std::equal(kOrderlyEnd, kOrderlyEnd + sizeof kOrderlyEnd, buffer.data() + offset)) {
      orderly = true;
      ended = true;
      break;
    }
    size_t consumed = 0;
    try {
      std::optional<Frame> frame = decode_frame(buffer.data() + offset, left, consumed);
      if (!frame) break;
      frames.push_back(std::move(*frame));
      offset += consumed;
    } catch (const std::invalid_argument &) {
      ended = true;
    }
  }
  buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(offset));
  bool open = true;
  if (!frames.empty()) {
    state.with_node_lock([&] {
      for (auto &frame : frames) {
        if (!state.open) break;
        if (state.sink != nullptr) state.sink->on_frame(std::move(frame));
      }
      open = state.open;
    });
  }
  return open && !ended;
}

void run_reader(const std::shared_ptr<State> &state) {
  std::vector<uint8_t> buffer;
  std::vector<uint8_t> chunk(kReadChunk);
  bool orderly = false;
  for (;;) {
    const ssize_t n = ::recv(state->fd, chunk.data(), chunk.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    buffer.insert(buffer.end(), chunk.begin(), chunk.begin() + n);
    if (!deliver_frames(*state, buffer, orderly)) break;
  }
  state->with_node_lock([&] {
    if (state->open && !orderly && state->sink != nullptr) {
      FrameSink *sink = state->sink;
      state->sink = nullptr;  // link_lost() is heard once
      sink->link_lost();
    }
  });
}

class SocketLink : public Link {
 public:
  SocketLink(int fd, RunLocked run_locked)
      : state_(std::make_shared<State>(fd, std::move(run_locked))) {
    std::thread([state = state_] { run_writer(state); }).detach();
  }
  ~SocketLink() override { close(true); }

  void send(Frame &&frame) override {
    if (!state_->open || state_->write_failed.load()) return;
    std::vector<uint8_t> bytes;
    encode_frame(frame, bytes);
    {
      std::lock_guard<std::mutex> hold(state_->mutex);
      send_locked(*state_, std::move(bytes));
    }
    // Back-pressure, where the node's lock is the process lock (another lock
    // cannot be released for the wait).
    if (state_->run_locked || state_->queued_bytes.load() <= kSocketLinkQueueLimit) return;
    // The link may be closed by another thread meanwhile, so the wait holds
    // its own reference to the state.
    const std::shared_ptr<State> state = state_;
    state->senders_waiting.fetch_add(1);
    wait_releasing_process_lock(state->drained, std::chrono::milliseconds(-1), [&] {
      return state->queued_bytes.load() <= kSocketLinkQueueLimit || state->write_failed.load();
    });
    state->senders_waiting.fetch_sub(1);
  }

  void attach(FrameSink *sink) override {
    if (!state_->open) return;
    state_->sink = sink;
    if (sink != nullptr && !state_->reader_started) {
      state_->reader_started = true;
      std::thread([state = state_] { run_reader(state); }).detach();
    }
  }

  void close(bool quietly) override {
    if (!state_->open) return;
    state_->open = false;
    state_->sink = nullptr;
    {
      std::lock_guard<std::mutex> hold(state_->mutex);
      state_->closing = true;
      if (quietly) send_locked(*state_, {kOrderlyEnd, kOrderlyEnd + sizeof kOrderlyEnd});
      finish_locked(*state_);  // or the writer does, once the queue is written
    }
    state_->queue_changed.notify_one();
    // Wakes the reader; what is still queued is written all the same.
    ::shutdown(state_->fd, SHUT_RD);
  }

 private:
  std::shared_ptr<State> state_;
};

}  // namespace

std::unique_ptr<Link> make_socket_link(int fd, RunLocked run_locked) {
  return std::make_unique<SocketLink>(fd, std::move(run_locked));
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

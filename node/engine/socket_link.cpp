#include "engine/socket_link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
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
  bool closing = false;
  bool orderly = false;

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

void run_writer(const std::shared_ptr<State> &state) {
  for (;;) {
    std::vector<uint8_t> chunk;
    {
      std::unique_lock<std::mutex> hold(state->mutex);
      state->queue_changed.wait(hold, [&] { return !state->queue.empty() || state->closing; });
      if (state->queue.empty()) break;
      chunk = std::move(state->queue.front());
      state->queue.pop_front();
    }
    if (!state->write_failed.load() && !write_all(state->fd, chunk.data(), chunk.size())) {
      state->write_failed.store(true);
    }
    state->queued_bytes.fetch_sub(chunk.size());
    notify_drained(*state);
  }
  bool orderly;
  {
    std::lock_guard<std::mutex> hold(state->mutex);
    orderly = state->orderly;
  }
  if (orderly && !state->write_failed.load()) {
    write_all(state->fd, kOrderlyEnd, sizeof kOrderlyEnd);
  }
  ::shutdown(state->fd, SHUT_WR);
}

// Decodes what `buffer` holds past `offset`; false once the stream has ended
// (`orderly` tells how) or cannot be decoded.
bool deliver_frames(State &state, std::vector<uint8_t> &buffer, bool &orderly) {
  size_t offset = 0;
  bool more = true;
  while (more) {
    const size_t left = buffer.size() - offset;
    if (left >= sizeof kOrderlyEnd &&
        std::equal(kOrderlyEnd, kOrderlyEnd + sizeof kOrderlyEnd, buffer.data() + offset)) {
      orderly = true;
      return false;
    }
    size_t consumed = 0;
    std::optional<Frame> frame;
    try {
      frame = decode_frame(buffer.data() + offset, left, consumed);
    } catch (const std::invalid_argument &) {
      return false;
    }
    if (!frame) break;
    offset += consumed;
    bool open = false;
    state.with_node_lock([&] {
      open = state.open;
      if (open && state.sink != nullptr) state.sink->on_frame(std::move(*frame));
      more = state.open;
    });
    if (!open) return false;
  }
  buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(offset));
  return more;
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
    const size_t size = bytes.size();
    {
      std::lock_guard<std::mutex> hold(state_->mutex);
      state_->queue.push_back(std::move(bytes));
    }
    state_->queued_bytes.fetch_add(size);
    state_->queue_changed.notify_one();
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
      state_->orderly = quietly;
    }
    state_->queue_changed.notify_one();
    // Wakes the reader; the writer still flushes what was queued.
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

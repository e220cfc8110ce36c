// The socket link.  Its threads share one State with the link object and
// outlive it if they must: close() only marks the state and shuts the socket
// down (it runs under the node's lock, which a reader thread may be waiting
// for), and a reader never touches the sink once the link is closed.
#include "engine/socket_link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace snanode::engine {
namespace {

struct State {
  explicit State(int socket, RunLocked locked) : fd(socket), run_locked(std::move(locked)) {}
  ~State() { ::close(fd); }

  const int fd;
  const RunLocked run_locked;
  FrameSink *sink = nullptr;  // guarded by the node's lock
  bool closed = false;        // guarded by the node's lock

  std::mutex queue_mutex;
  std::condition_variable queue_changed;
  std::deque<std::vector<uint8_t>> outgoing;
  bool writer_stop = false;
};

bool write_all(int fd, const std::vector<uint8_t> &bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

void write_loop(std::shared_ptr<State> state) {
  std::unique_lock<std::mutex> lock(state->queue_mutex);
  for (;;) {
    state->queue_changed.wait(lock, [&] { return state->writer_stop || !state->outgoing.empty(); });
    if (state->outgoing.empty()) {
      // Closed and all written: the peer reads the end of the stream.
      ::shutdown(state->fd, SHUT_WR);
      return;
    }
    std::vector<uint8_t> bytes = std::move(state->outgoing.front());
    state->outgoing.pop_front();
    lock.unlock();
    const bool sent = write_all(state->fd, bytes);
    lock.lock();
    if (!sent) return;
  }
}

void read_loop(std::shared_ptr<State> state) {
  std::vector<uint8_t> pending;
  uint8_t chunk[65536];
  bool lost = false;
  while (!lost) {
    const ssize_t n = ::recv(state->fd, chunk, sizeof chunk, 0);
    if (n <= 0) break;
    pending.insert(pending.end(), chunk, chunk + n);
    std::vector<Frame> frames;
    try {
      size_t used = 0;
      size_t offset = 0;
      while (auto frame = decode_frame(pending.data() + offset, pending.size() - offset, used)) {
        frames.push_back(std::move(*frame));
        offset += used;
      }
      pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(offset));
    } catch (const std::invalid_argument &) {
      lost = true;  // a peer that sends garbage is as good as gone
    }
    if (frames.empty()) continue;
    state->run_locked([&] {
      for (auto &frame : frames) {
        if (state->closed || state->sink == nullptr) return;
        state->sink->on_frame(std::move(frame));
      }
    });
  }
  state->run_locked([&] {
    if (!state->closed && state->sink != nullptr) state->sink->link_lost();
  });
}

class SocketLink : public Link {
 public:
  explicit SocketLink(std::shared_ptr<State> state) : state_(std::move(state)) {
    std::thread(read_loop, state_).detach();
    std::thread(write_loop, state_).detach();
  }
  ~SocketLink() override { close(true); }

  void send(Frame &&frame) override {
    if (state_->closed) return;
    std::vector<uint8_t> bytes;
    encode_frame(frame, bytes);
    {
      std::lock_guard<std::mutex> lock(state_->queue_mutex);
      state_->outgoing.push_back(std::move(bytes));
    }
    state_->queue_changed.notify_one();
  }

  void attach(FrameSink *sink) override { state_->sink = sink; }

  // Across processes the peer learns of a quiet close from the frames sent
  // before it; a loud one, like a crash, is the end of the stream.  Either
  // way what was queued is still written before the socket closes.
  void close(bool) override {
    if (state_->closed) return;
    state_->closed = true;
    state_->sink = nullptr;
    {
      std::lock_guard<std::mutex> lock(state_->queue_mutex);
      state_->writer_stop = true;
    }
    // The writer drains the queue and then shuts the sending half; the
    // reader ends when the peer closes its end.  The socket itself closes
    // when the last thread lets go of the state.
    state_->queue_changed.notify_one();
  }

 private:
  std::shared_ptr<State> state_;
};

}  // namespace

std::unique_ptr<Link> make_socket_link(int fd, RunLocked run_locked) {
  return std::make_unique<SocketLink>(std::make_shared<State>(fd, std::move(run_locked)));
}

}  // namespace snanode::engine

#include "client/outbox.h"

#include <sys/socket.h>

#include <cerrno>

namespace snanode::client {

ssize_t Outbox::write_now(const uint8_t *data, size_t size) {
  size_t sent = 0;
  while (sent < size) {
    const ssize_t n = ::send(fd_, data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (n <= 0) return -1;
    sent += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(sent);
}

bool Outbox::post(const std::vector<uint8_t> &bytes) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (broken_ || closed_) return false;
  size_t sent = 0;
  // Only when nothing waits before them may these bytes overtake the writer.
  if (!writing_ && queue_.empty()) {
    const ssize_t n = write_now(bytes.data(), bytes.size());
    if (n < 0) {
      broken_ = true;
      return false;
    }
    sent = static_cast<size_t>(n);
    if (sent == bytes.size()) return true;
  }
  queue_.insert(queue_.end(), bytes.begin() + static_cast<std::ptrdiff_t>(sent), bytes.end());
  queued_.notify_one();
  return true;
}

void Outbox::run() {
  std::unique_lock<std::mutex> hold(mutex_);
  for (;;) {
    queued_.wait(hold, [&] { return closed_ || !queue_.empty(); });
    if (closed_) return;
    std::vector<uint8_t> batch;
    batch.swap(queue_);
    writing_ = true;
    hold.unlock();
    // Blocks until the daemon reads; this thread holds no lock of the node.
    size_t sent = 0;
    while (sent < batch.size()) {
      const ssize_t n = ::send(fd_, batch.data() + sent, batch.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    hold.lock();
    writing_ = false;
    if (sent < batch.size()) {
      // The reader sees the connection end too and ends the path.
      broken_ = true;
      ::shutdown(fd_, SHUT_RDWR);
      return;
    }
  }
}

void Outbox::close() {
  std::lock_guard<std::mutex> hold(mutex_);
  closed_ = true;
  queued_.notify_one();
}

}  // namespace snanode::client

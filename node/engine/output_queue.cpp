#include "engine/output_queue.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>

#include "engine/byte_pool.h"

namespace snanode::engine {
namespace {

constexpr size_t kMaxPieces = 64;

}  // namespace

void OutputQueue::push_back(Outgoing &&out) {
  bytes_ += out.size();
  queue_.push_back(std::move(out));
}

void OutputQueue::push_front(Outgoing &&out) {
  bytes_ += out.size();
  queue_.push_front(std::move(out));
  front_written_ = 0;
}

OutputQueue::Written OutputQueue::write(int fd) {
  while (!queue_.empty()) {
    iovec pieces[kMaxPieces];
    size_t count = 0;
    size_t skip = front_written_;
    for (auto &out : queue_) {
      if (count + 2 > kMaxPieces) break;
      if (skip < out.head_size) {
        pieces[count++] = {out.head + skip, out.head_size - skip};
        skip = 0;
      } else {
        skip -= out.head_size;
      }
      if (skip < out.body.size())
        pieces[count++] = {out.body.data() + skip, out.body.size() - skip};
      skip = 0;
    }
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    const ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Written::kSocketFull;
    if (n < 0) {
      clear();
      return Written::kFailed;
    }
    consume(static_cast<size_t>(n));
  }
  return Written::kAll;
}

void OutputQueue::clear() {
  queue_.clear();
  front_written_ = 0;
  bytes_ = 0;
}

void OutputQueue::consume(size_t written) {
  bytes_ -= written;
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

}  // namespace snanode::engine

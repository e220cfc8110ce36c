#include "daemon/output_queue.h"

#include "client/message_channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace snanode::daemon {

OutputQueue::OutputQueue(size_t byte_limit, size_t descriptor_limit)
    : byte_limit_(byte_limit), descriptor_limit_(descriptor_limit) {}

OutputQueue::Push OutputQueue::push(const client::Message &message, int descriptor) {
  Entry entry;
  client::encode_message(message, descriptor >= 0, entry.bytes);
  if (bytes_ + entry.bytes.size() > byte_limit_) return Push::kFull;
  if (descriptor >= 0) {
    if (descriptors_ >= descriptor_limit_) return Push::kFull;
    entry.descriptor.reset(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
    if (!entry.descriptor.valid()) return Push::kNoDescriptor;
    ++descriptors_;
  }
  bytes_ += entry.bytes.size();
  entries_.push_back(std::move(entry));
  return Push::kQueued;
}

OutputQueue::Flush OutputQueue::flush(int socket) {
  while (!entries_.empty()) {
    Entry &entry = entries_.front();
    const ssize_t n = client::send_passing(
        socket, entry.bytes.data() + entry.sent, entry.bytes.size() - entry.sent,
        entry.sent == 0 ? entry.descriptor.get() : -1, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Flush::kPending;
    if (n <= 0) return Flush::kBroken;
    if (entry.sent == 0 && entry.descriptor.valid()) {
      entry.descriptor.reset();  // the peer holds it now
      --descriptors_;
    }
    entry.sent += static_cast<size_t>(n);
    if (entry.sent < entry.bytes.size()) continue;
    bytes_ -= entry.bytes.size();
    entries_.pop_front();
  }
  return Flush::kDone;
}

}  // namespace snanode::daemon

#include "client/message_channel.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace snanode::client {
namespace {

constexpr size_t kReadChunk = 16 * 1024;
constexpr size_t kMaxDescriptorsPerRead = 16;
// Descriptors held for messages not yet taken; a peer that passes more than
// its messages account for is cut off here rather than filling the table.
constexpr size_t kMaxHeldDescriptors = 16;

}  // namespace

MessageChannel::MessageChannel(UniqueFd socket, DescriptorPolicy policy)
    : socket_(std::move(socket)), policy_(policy) {}

bool MessageChannel::send(const Message &message, int descriptor) {
  std::vector<uint8_t> bytes;
  encode_message(message, descriptor >= 0, bytes);
  std::lock_guard<std::mutex> hold(send_mutex_);
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = send_passing(socket_.get(), bytes.data() + sent, bytes.size() - sent,
                                   sent == 0 ? descriptor : -1, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool MessageChannel::read_some() {
  uint8_t chunk[kReadChunk];
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxDescriptorsPerRead)];
  for (;;) {
    iovec iov{chunk, sizeof chunk};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(socket_.get(), &msg, MSG_CMSG_CLOEXEC);
    if (n < 0 && errno == EINTR) continue;
    if (n >= 0) take_descriptors(msg);
    if (n <= 0) return false;
    inbound_.insert(inbound_.end(), chunk, chunk + n);
    return true;
  }
}

void MessageChannel::take_descriptors(msghdr &msg) {
  size_t received = 0;
  for (cmsghdr *cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
    if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof fd);
      UniqueFd passed(fd);
      ++received;
      if (policy_ == DescriptorPolicy::kNone || descriptors_.size() >= kMaxHeldDescriptors) {
        ++refused_descriptors_;  // closed here, at once
      } else {
        descriptors_.push_back(std::move(passed));
      }
    }
  }
  if ((msg.msg_flags & MSG_CTRUNC) != 0) {
    if (policy_ == DescriptorPolicy::kNone || received > 0) {
      ++refused_descriptors_;  // more than fit: the kernel closed the rest
    } else {
      // A stream read stops after the one message that passes descriptors,
      // and the daemon passes one a message, so a truncation with nothing
      // received means the kernel could not install it in this process: at
      // its open-file limit.  It closed the descriptor; its message still
      // comes, and only that message loses its descriptor.
      descriptors_.emplace_back();
    }
  }
  // A peer in breach of the protocol gets nothing it passed held here.
  if (refused_descriptors_ > 0) descriptors_.clear();
}

void MessageChannel::check_descriptors(const DecodedMessage *decoded) {
  if (refused_descriptors_ > 0) throw ProtocolError("descriptors passed that no message takes");
  if (decoded != nullptr && decoded->passes_descriptor &&
      (policy_ == DescriptorPolicy::kNone || !may_pass_descriptor(decoded->message))) {
    descriptors_.clear();
    throw ProtocolError(std::string("a ") + message_name(decoded->message) +
                        " message cannot pass a descriptor");
  }
}

std::optional<ReceivedMessage> MessageChannel::next() {
  size_t consumed = 0;
  check_descriptors(nullptr);
  auto decoded = decode_message(inbound_.data(), inbound_.size(), consumed);
  if (!decoded) return std::nullopt;
  check_descriptors(&*decoded);
  inbound_.erase(inbound_.begin(), inbound_.begin() + static_cast<std::ptrdiff_t>(consumed));
  ReceivedMessage received{std::move(decoded->message), UniqueFd()};
  if (decoded->passes_descriptor) {
    if (descriptors_.empty()) throw ProtocolError("descriptor missing");
    received.descriptor = std::move(descriptors_.front());
    received.descriptor_lost = !received.descriptor.valid();
    descriptors_.pop_front();
  }
  return received;
}

std::optional<ReceivedMessage> MessageChannel::receive() {
  for (;;) {
    if (auto message = next()) return message;
    if (!read_some()) return std::nullopt;
  }
}

ssize_t send_passing(int socket, const uint8_t *data, size_t size, int descriptor, int flags) {
  iovec iov{const_cast<uint8_t *>(data), size};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  if (descriptor >= 0) {
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(cmsg), &descriptor, sizeof(int));
  }
  return ::sendmsg(socket, &msg, flags | MSG_NOSIGNAL);
}

UniqueFd connect_unix_socket(const std::string &path) {
  sockaddr_un address{};
  if (path.empty() || path.size() >= sizeof address.sun_path) return UniqueFd();
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return fd;
  if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return UniqueFd();
  }
  return fd;
}

}  // namespace snanode::client

#include "client/message_channel.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace snanode::client {
namespace {

constexpr size_t kReadChunk = 16 * 1024;
constexpr size_t kMaxDescriptorsPerRead = 16;

}  // namespace

MessageChannel::MessageChannel(UniqueFd socket) : socket_(std::move(socket)) {}

bool MessageChannel::send(const Message &message, int descriptor) {
  std::vector<uint8_t> bytes;
  encode_message(message, descriptor >= 0, bytes);
  std::lock_guard<std::mutex> hold(send_mutex_);
  size_t sent = 0;
  while (sent < bytes.size()) {
    iovec iov{bytes.data() + sent, bytes.size() - sent};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (sent == 0 && descriptor >= 0) {
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
      cmsg->cmsg_level = SOL_SOCKET;
      cmsg->cmsg_type = SCM_RIGHTS;
      cmsg->cmsg_len = CMSG_LEN(sizeof(int));
      std::memcpy(CMSG_DATA(cmsg), &descriptor, sizeof(int));
    }
    const ssize_t n = ::sendmsg(socket_.get(), &msg, MSG_NOSIGNAL);
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
  for (cmsghdr *cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
    if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof fd);
      descriptors_.emplace_back(fd);
    }
  }
  // The control buffer has room for more descriptors than a read can bring
  // (a stream read stops after the one message that passes some), so a
  // truncation means the kernel could not install one in this process: at
  // its open-file limit.  It closed the descriptor; its message still comes,
  // and only that message loses its descriptor.
  if ((msg.msg_flags & MSG_CTRUNC) != 0) descriptors_.emplace_back();
}

std::optional<ReceivedMessage> MessageChannel::next() {
  size_t consumed = 0;
  auto decoded = decode_message(inbound_.data(), inbound_.size(), consumed);
  if (!decoded) return std::nullopt;
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

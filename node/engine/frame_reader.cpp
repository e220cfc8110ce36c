#include "engine/frame_reader.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "engine/byte_pool.h"

namespace snanode::engine {
namespace {

constexpr size_t kReadChunk = 64 * 1024;
// A frame at least this large, not whole in the read buffer, is read on
// straight into its own payload.
constexpr size_t kDirectPayload = 8 * 1024;

}  // namespace

void FrameReader::read(int fd, std::vector<Frame> &frames, bool to_the_end, bool wait,
                       size_t budget) {
  size_t counted = frames.size();  // frames before this are in `taken`
  size_t taken = 0;                // payload bytes of the frames appended
  const auto over_budget = [&] {
    for (; counted < frames.size(); ++counted) taken += frames[counted].payload.size();
    return !to_the_end && taken >= budget;
  };
  for (; end_ == End::kNone; wait = false) {
    if (!partial_ && rest_.size() > kDirectPayload + kFrameHeaderSize) {
      // The start of a large record held for a landing that did not come:
      // it goes into a payload of its own, read on as any large frame.
      const std::vector<uint8_t> held = std::move(rest_);
      rest_.clear();
      decode(held.data(), held.size(), frames);
    }
    if (partial_) {
      auto &payload = partial_->payload;
      const ssize_t n =
          receive(fd, payload.data() + partial_filled_, payload.size() - partial_filled_, wait);
      if (n <= 0) return;
      partial_filled_ += static_cast<size_t>(n);
      if (partial_filled_ < payload.size()) {
        if (!to_the_end) return;  // the rest is still on its way
        continue;
      }
      frames.push_back(std::move(*partial_));
      partial_.reset();
      if (over_budget()) return;
      continue;
    }
    // Read after what is left of an incomplete frame, in a buffer of the
    // reading thread's own: a reader keeps only that rest between reads.
    thread_local std::vector<uint8_t> scratch(kReadChunk + kDirectPayload + kFrameHeaderSize);
    const size_t kept = rest_.size();
    if (kept > 0) std::memcpy(scratch.data(), rest_.data(), kept);
    const ssize_t n = receive(fd, scratch.data() + kept, kReadChunk, wait);
    if (n <= 0) return;
    decode(scratch.data(), kept + static_cast<size_t>(n), frames);
    if (static_cast<size_t>(n) < kReadChunk && !partial_ && !to_the_end) {
      emptied_at_ = std::chrono::steady_clock::now();
      return;
    }
    if (over_budget()) return;
  }
}

ssize_t FrameReader::receive(int fd, uint8_t *into, size_t size, bool wait) {
  for (;;) {
    if (wait) await_input(fd);
    const int flags = wait ? 0 : MSG_DONTWAIT;
    const ssize_t n =
        received(takes_descriptors_ ? receive_taking_descriptors(fd, into, size, flags)
                                    : ::recv(fd, into, size, flags));
    if (n >= 0 || end_ != End::kNone) return n;
  }
}

ssize_t FrameReader::receive_taking_descriptors(int fd, uint8_t *into, size_t size, int flags) {
  iovec piece{into, size};
  alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t n = ::recvmsg(fd, &message, flags | MSG_CMSG_CLOEXEC);
  if (n < 0) return n;
  for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int passed;
      std::memcpy(&passed, CMSG_DATA(c) + i * sizeof(int), sizeof passed);
      if (descriptor_.valid()) {
        ::close(passed);
      } else {
        descriptor_.reset(passed);
      }
    }
  }
  return n;
}

void FrameReader::await_input(int fd) const {
  if (!poll_before_waiting_) return;
  // Input, an error or a hang-up ends the poll; the read then reports which.
  pollfd polled{fd, POLLIN, 0};
  while (::poll(&polled, 1, -1) < 0 && errno == EINTR) {
  }
}

ssize_t FrameReader::received(ssize_t n) {
  if (n > 0) return n;
  if (n < 0 && errno == EINTR) return -1;  // the caller reads again
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    emptied_at_ = std::chrono::steady_clock::now();
    return 0;
  }
  end_ = End::kBroken;  // end of file without the orderly end, or a broken socket
  return -1;
}

bool FrameReader::read_landing(int fd, const Landing &landing, std::vector<Frame> &frames,
                               bool wait) {
  if (end_ != End::kNone || partial_) return false;
  uint8_t head[kFrameHeaderSize];
  size_t head_have = 0;
  std::optional<FrameHeader> header;
  size_t filled = 0;  // bytes in the receive's buffer
  if (!rest_.empty()) {
    // A header read before, perhaps with some of its payload: the rest of
    // that payload is read into the buffer when it is DATA that fits.
    if (rest_.size() < kFrameHeaderSize) return false;
    FrameHeader known;
    try {
      known = decode_frame_header(rest_.data());
    } catch (const std::invalid_argument &) {
      return false;
    }
    const size_t payload_here = rest_.size() - kFrameHeaderSize;
    if (known.type != FrameType::kData || known.payload_size > landing.capacity ||
        payload_here > known.payload_size) {
      return false;
    }
    std::memcpy(head, rest_.data(), kFrameHeaderSize);
    if (payload_here > 0) std::memcpy(landing.data, rest_.data() + kFrameHeaderSize, payload_here);
    head_have = kFrameHeaderSize;
    header = known;
    filled = payload_here;
    rest_.clear();
  }
  // Each read takes what the header still lacks, the payload into the
  // receive's buffer, and whatever follows into the reading thread's buffer,
  // decoded as usual (a status sent with the record, the records after it).
  thread_local std::vector<uint8_t> scratch(kReadChunk + kDirectPayload + kFrameHeaderSize);
  uint8_t *next = scratch.data();
  for (bool first = true;; first = false) {
    const size_t want = header ? header->payload_size - filled : landing.capacity;
    iovec pieces[3];
    size_t count = 0;
    if (head_have < kFrameHeaderSize) {
      pieces[count++] = {head + head_have, kFrameHeaderSize - head_have};
    }
    if (want > 0) pieces[count++] = {landing.data + filled, want};
    // After a large record, take only the start of what follows: the records
    // after it are most likely large too, and left in the socket each lands
    // in its own receive's buffer instead of being copied twice.
    const size_t trailing = landed_large_ ? kDirectPayload + kFrameHeaderSize : kReadChunk;
    pieces[count++] = {next, trailing};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    // Past the first read the frame is known to be on its way: wait for it.
    const bool block = first ? wait : true;
    if (block && first) await_input(fd);
    ssize_t n;
    do {
      n = received(::recvmsg(fd, &message, block ? 0 : MSG_DONTWAIT));
    } while (n < 0 && end_ == End::kNone);
    if (n <= 0) {
      if (end_ == End::kNone && (head_have > 0 || filled > 0)) end_ = End::kBroken;
      return true;
    }
    size_t left = static_cast<size_t>(n);
    const size_t to_head = std::min(left, kFrameHeaderSize - head_have);
    head_have += to_head;
    left -= to_head;
    const size_t to_landing = std::min(left, want);
    filled += to_landing;
    left -= to_landing;
    const size_t to_next = left;
    // A read that left room in the thread's buffer emptied the socket.
    if (to_next < trailing) emptied_at_ = std::chrono::steady_clock::now();
    if (!header && head_have == kFrameHeaderSize) {
      try {
        header = decode_frame_header(head);
      } catch (const std::invalid_argument &) {
        end_ = End::kBroken;  // not a frame: the peer is not one of ours
        return true;
      }
      if (header->type != FrameType::kData || header->payload_size > landing.capacity) {
        // Not for the receive: the bytes in their order, decoded as usual.
        std::vector<uint8_t> bytes(head, head + kFrameHeaderSize);
        bytes.insert(bytes.end(), landing.data, landing.data + filled);
        bytes.insert(bytes.end(), next, next + to_next);
        decode(bytes.data(), bytes.size(), frames, true);
        return true;
      }
    }
    if (!header || filled < header->payload_size) continue;
    // The whole record is in the buffer; what came after it is the next
    // frames' (past the record in the buffer, when its size was not yet
    // known, and in `next`).
    std::vector<uint8_t> after(landing.data + header->payload_size, landing.data + filled);
    after.insert(after.end(), next, next + to_next);
    Frame frame;
    frame.flags = header->flags;
    frame.code = header->code;
    frame.landed = header->payload_size;
    frames.push_back(std::move(frame));
    landed_large_ = header->payload_size >= kDirectPayload;
    decode(after.data(), after.size(), frames, true);
    return true;
  }
}

void FrameReader::decode(const uint8_t *bytes, size_t size, std::vector<Frame> &frames,
                         bool hold_data) {
  size_t offset = 0;
  for (;;) {
    const uint8_t *at = bytes + offset;
    const size_t left = size - offset;
    if (left >= sizeof kOrderlyEnd && std::memcmp(at, kOrderlyEnd, sizeof kOrderlyEnd) == 0) {
      end_ = End::kOrderly;
      break;
    }
    if (left < kFrameHeaderSize) break;
    FrameHeader header;
    try {
      header = decode_frame_header(at);
    } catch (const std::invalid_argument &) {
      end_ = End::kBroken;  // not a frame: the peer is not one of ours
      break;
    }
    const size_t whole = kFrameHeaderSize + header.payload_size;
    // Kept for the next read: a small frame, or the start of a record that a
    // waiting receive may still take straight into its buffer.
    if (left < whole &&
        (header.payload_size < kDirectPayload || (hold_data && header.type == FrameType::kData))) {
      break;
    }
    Frame frame;
    frame.type = header.type;
    frame.flags = header.flags;
    frame.code = header.code;
    const size_t here = std::min(left, whole) - kFrameHeaderSize;
    frame.payload = take_buffer(header.payload_size);
    if (here > 0) std::memcpy(frame.payload.data(), at + kFrameHeaderSize, here);
    offset += kFrameHeaderSize + here;
    if (here < header.payload_size) {
      partial_filled_ = here;
      partial_ = std::move(frame);
      break;
    }
    frames.push_back(std::move(frame));
  }
  rest_.assign(bytes + offset, bytes + size);
}

}  // namespace snanode::engine

#include "engine/frame_reader.h"

#include <sys/socket.h>

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

void FrameReader::read(int fd, std::vector<Frame> &frames, bool to_the_end, bool wait) {
  for (; end_ == End::kNone; wait = false) {
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
      continue;
    }
    // Read after what is left of an incomplete frame, in a buffer of the
    // reading thread's own: a reader keeps only that rest between reads.
    thread_local std::vector<uint8_t> scratch(kReadChunk + kDirectPayload + kFrameHeaderSize);
    const size_t kept = rest_.size();
    std::memcpy(scratch.data(), rest_.data(), kept);
    const ssize_t n = receive(fd, scratch.data() + kept, kReadChunk, wait);
    if (n <= 0) return;
    decode(scratch.data(), kept + static_cast<size_t>(n), frames);
    if (static_cast<size_t>(n) < kReadChunk && !partial_ && !to_the_end) {
      emptied_at_ = std::chrono::steady_clock::now();
      return;
    }
  }
}

ssize_t FrameReader::receive(int fd, uint8_t *into, size_t size, bool wait) {
  for (;;) {
    const ssize_t n = ::recv(fd, into, size, wait ? 0 : MSG_DONTWAIT);
    if (n > 0) return n;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      emptied_at_ = std::chrono::steady_clock::now();
      return 0;
    }
    end_ = End::kBroken;  // end of file without the orderly end, or a broken socket
    return -1;
  }
}

void FrameReader::decode(const uint8_t *bytes, size_t size, std::vector<Frame> &frames) {
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
    if (left < whole && header.payload_size < kDirectPayload) break;  // kept for the next read
    Frame frame;
    frame.type = header.type;
    frame.flags = header.flags;
    frame.code = header.code;
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
  }
  rest_.assign(bytes + offset, bytes + size);
}

}  // namespace snanode::engine

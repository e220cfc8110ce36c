#include "engine/record_ring.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "client/message_channel.h"
#include "engine/byte_pool.h"
#include "engine/frame.h"
#include "engine/frame_reader.h"

namespace snanode::engine {
namespace {

constexpr unsigned kSeals = F_SEAL_SHRINK | F_SEAL_GROW;

// The header's first eight bytes: how far the daemon has read, as a ring
// position.  Written by the daemon, read by the TP.
std::atomic_ref<uint64_t> released_position(uint8_t *map) {
  return std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t *>(map));
}

uint8_t *map_ring(int fd) {
  void *map = ::mmap(nullptr, RingWriter::file_size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return map == MAP_FAILED ? nullptr : static_cast<uint8_t *>(map);
}

void unmap_ring(int fd, uint8_t *map) {
  if (map != nullptr) ::munmap(map, RingWriter::file_size());
  if (fd >= 0) ::close(fd);
}

}  // namespace

void encode_ring_reference(const RingReference &ref, uint8_t (&out)[kRingReferenceSize]) {
  put_u32(out, static_cast<uint32_t>(ref.end >> 32));
  put_u32(out + 4, static_cast<uint32_t>(ref.end));
  put_u32(out + 8, ref.length);
}

std::optional<RingReference> decode_ring_reference(std::span<const uint8_t> payload) {
  if (payload.size() != kRingReferenceSize) return std::nullopt;
  RingReference ref;
  ref.end = uint64_t{get_u32(payload.data())} << 32 | get_u32(payload.data() + 4);
  ref.length = get_u32(payload.data() + 8);
  return ref;
}

// ---- the TP's side ----

std::optional<RingWriter> RingWriter::create() {
  const int fd = ::memfd_create("snanode-ring", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0) return std::nullopt;
  uint8_t *map = nullptr;
  if (::ftruncate(fd, file_size()) != 0 || ::fcntl(fd, F_ADD_SEALS, kSeals | F_SEAL_SEAL) != 0 ||
      (map = map_ring(fd)) == nullptr) {
    ::close(fd);
    return std::nullopt;
  }
  return RingWriter(fd, map);
}

RingWriter::RingWriter(RingWriter &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      map_(std::exchange(other.map_, nullptr)),
      head_(other.head_) {}

RingWriter::~RingWriter() {
  unmap_ring(fd_, map_);
}

ssize_t RingWriter::send_offer(int socket, uint8_t (&frame)[kOfferSize]) const {
  uint8_t head[kFrameHeaderSize];
  encode_frame_header(FrameHeader{FrameType::kRing, 0, 0, 4}, head);
  std::memcpy(frame, head, kFrameHeaderSize);
  put_u32(frame + kFrameHeaderSize, file_size());
  ssize_t n;
  do {
    n = client::send_passing(socket, frame, kOfferSize, fd_, MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return n;
}

std::optional<RingReference> RingWriter::place(const uint8_t *data, size_t size) {
  if (size == 0 || size > kRingDataSize) return std::nullopt;
  // A record lies whole in the ring: one that would run past its end starts
  // again at its beginning, and the room skipped counts as used.
  uint64_t start = head_;
  if (const size_t at = start % kRingDataSize; at + size > kRingDataSize) {
    start += kRingDataSize - at;
  }
  const uint64_t released = released_position(map_).load(std::memory_order_acquire);
  if (start + size - released > kRingDataSize) return std::nullopt;
  std::memcpy(map_ + kRingHeaderSize + start % kRingDataSize, data, size);
  head_ = start + size;
  return RingReference{head_, static_cast<uint32_t>(size)};
}

// ---- the daemon's side ----

std::optional<RingReader> RingReader::adopt(int fd, uint32_t announced) {
  struct stat st {};
  struct statfs fs {};
  // A memory file only (one on huge pages could fail to fault a page in, and
  // the daemon would die of it), of the size expected, that can neither
  // shrink under the daemon's mapping nor grow.
  const int seals = ::fcntl(fd, F_GET_SEALS);
  uint8_t *map = nullptr;
  const bool usable = announced == RingWriter::file_size() && ::fstat(fd, &st) == 0 &&
                      S_ISREG(st.st_mode) && st.st_size == announced && ::fstatfs(fd, &fs) == 0 &&
                      fs.f_type == TMPFS_MAGIC && seals >= 0 &&
                      (static_cast<unsigned>(seals) & kSeals) == kSeals &&
                      (map = map_ring(fd)) != nullptr;
  if (!usable) {
    ::close(fd);
    return std::nullopt;
  }
  return RingReader(fd, map);
}

RingReader::RingReader(RingReader &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), map_(std::exchange(other.map_, nullptr)) {}

RingReader::~RingReader() {
  unmap_ring(fd_, map_);
}

std::optional<std::span<const uint8_t>> RingReader::record(const RingReference &ref) const {
  if (ref.length == 0 || ref.length > kRingDataSize || ref.end < ref.length) return std::nullopt;
  const size_t at = (ref.end - ref.length) % kRingDataSize;
  if (at + ref.length > kRingDataSize) return std::nullopt;
  return std::span<const uint8_t>(map_ + kRingHeaderSize + at, ref.length);
}

void RingReader::release(uint64_t end) {
  released_position(map_).store(end, std::memory_order_release);
}

// ---- the daemon's intake ----

bool RingIntake::take(Frame &frame, FrameReader &reader) {
  if (frame.type == FrameType::kRing) {
    client::UniqueFd offered = reader.take_descriptor();
    if (ring_ || !offered.valid() || frame.payload.size() != 4) return false;
    std::optional<RingReader> adopted =
        RingReader::adopt(offered.release(), get_u32(frame.payload.data()));
    if (!adopted) return false;
    ring_.emplace(std::move(*adopted));
    return true;
  }
  if (frame.type != FrameType::kData || (frame.flags & kDataInRing) == 0) return true;
  const std::optional<RingReference> ref = decode_ring_reference(frame.payload);
  const std::optional<std::span<const uint8_t>> record =
      ring_ && ref ? ring_->record(*ref) : std::nullopt;
  if (!record) return false;
  // Copied out at once: the TP may write there again once it is released.
  give_back_buffer(std::move(frame.payload));
  frame.payload = take_buffer(record->size());
  std::memcpy(frame.payload.data(), record->data(), record->size());
  ring_->release(ref->end);
  frame.flags &= static_cast<uint8_t>(~kDataInRing);
  return true;
}

}  // namespace snanode::engine

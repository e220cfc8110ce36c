// What one half of a conversation tells the other.
//
// The two halves of a conversation never share state: everything passes as
// frames over a Link, in order.  In embedded mode the link hands the Frame
// object to the peer; across processes it is encoded as
//
//   u32 length of the rest (big-endian) | u8 type | u8 flags | u32 code (big-endian) | payload
//
// so both ends agree on the bytes whatever their host order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace snanode::engine {

enum class FrameType : uint8_t {
  kData = 1,             // conversation data; mapped: one whole record per frame
  kChangeDirection = 2,  // the sender now receives; the peer may send
  kConfirm = 3,          // flags: ConfirmKind; the sender waits for kConfirmed or an error
  kConfirmed = 4,
  kSendError = 5,   // flags: SendErrorKind; payload: log data
  kDeallocate = 6,  // flags: DeallocKind; payload: log data
  kRequestToSend = 7,
  kAttachFailed = 8,  // code: the allocation error's secondary return code
  // The answer to a purging send-error: the frames the sender of this one
  // sent before it are the ones it sent before it knew of the error.
  kErrorSeen = 9,
  // code: the primary return code (conversation failure, retry or not) of a
  // conversation the node ended under the TP, e.g. when the session or link
  // to a partner on another node failed.  A link that simply breaks says
  // only "no retry".  New in daemon protocol version 2.
  kFailure = 10,
  // TP to node daemon: the ring of record_ring.h, whose descriptor comes with
  // this frame; payload: u32 the ring's size.  New in daemon protocol
  // version 4.  A TP's end ignores one.
  kRing = 11,
};

// DATA flag: a control frame (turn, confirm, error, deallocation) follows at
// once.  The receiver holds its waiting verb until that frame is in, so data
// and the status sent with it are received together.
inline constexpr uint8_t kDataMoreFollows = 1;
// DATA flag, TP to node daemon: the record is in the ring (record_ring.h);
// the payload says where.
inline constexpr uint8_t kDataInRing = 2;

enum class ConfirmKind : uint8_t { kPlain = 0, kChangeDirection = 1, kDeallocate = 2 };
enum class SendErrorKind : uint8_t { kNoTruncation = 0, kTruncation = 1, kPurging = 2 };
enum class DeallocKind : uint8_t { kNormal = 0, kAbend = 1 };

struct Frame {
  FrameType type = FrameType::kData;
  uint8_t flags = 0;
  uint32_t code = 0;
  std::vector<uint8_t> payload;
  // DATA whose payload a link read straight into the waiting receive's
  // buffer (see Landing): its size; `payload` is then empty.
  uint32_t landed = 0;
};

inline constexpr size_t kFrameHeaderSize = 10;          // length, type, flags, code
inline constexpr uint32_t kMaxFramePayload = 1u << 20;  // larger frames are refused

// What the fixed-size start of an encoded frame says.
struct FrameHeader {
  FrameType type = FrameType::kData;
  uint8_t flags = 0;
  uint32_t code = 0;
  uint32_t payload_size = 0;
};

// A big-endian u32, as every length and code on the stream is.
inline void put_u32(uint8_t *out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}
inline uint32_t get_u32(const uint8_t *in) {
  return (uint32_t{in[0]} << 24) | (uint32_t{in[1]} << 16) | (uint32_t{in[2]} << 8) | in[3];
}

// Writes the header of `frame` (or of a frame that `header` describes); its
// payload follows it on the stream.
void encode_frame_header(const Frame &frame, uint8_t (&out)[kFrameHeaderSize]);
void encode_frame_header(const FrameHeader &header, uint8_t (&out)[kFrameHeaderSize]);

// Decodes a header from `in`, which holds at least kFrameHeaderSize bytes.
// Throws std::invalid_argument for bytes that cannot start a frame.
FrameHeader decode_frame_header(const uint8_t *in);

// Appends the encoded frame to `out`.
void encode_frame(const Frame &frame, std::vector<uint8_t> &out);

// Decodes one frame from the front of `in`.  Returns nothing when `in` does
// not yet hold a whole frame; sets `consumed` to the bytes used otherwise.
// Throws std::invalid_argument for bytes that cannot be a frame.
std::optional<Frame> decode_frame(const uint8_t *in, size_t size, size_t &consumed);

}  // namespace snanode::engine

// Frame encoding for links that cross a process boundary.
#include "engine/frame.h"

#include <stdexcept>

namespace snanode::engine {
namespace {

bool known_type(uint8_t type) {
  return type >= static_cast<uint8_t>(FrameType::kData) &&
         type <= static_cast<uint8_t>(FrameType::kRing);
}

}  // namespace

void encode_frame_header(const FrameHeader &header, uint8_t (&out)[kFrameHeaderSize]) {
  if (header.payload_size > kMaxFramePayload) throw std::invalid_argument("frame too large");
  put_u32(out, static_cast<uint32_t>(kFrameHeaderSize - 4 + header.payload_size));
  out[4] = static_cast<uint8_t>(header.type);
  out[5] = header.flags;
  put_u32(out + 6, header.code);
}

void encode_frame_header(const Frame &frame, uint8_t (&out)[kFrameHeaderSize]) {
  if (frame.payload.size() > kMaxFramePayload) throw std::invalid_argument("frame too large");
  encode_frame_header(
      FrameHeader{frame.type, frame.flags, frame.code, static_cast<uint32_t>(frame.payload.size())},
      out);
}

FrameHeader decode_frame_header(const uint8_t *in) {
  const uint32_t rest = get_u32(in);
  if (rest < kFrameHeaderSize - 4 || rest - (kFrameHeaderSize - 4) > kMaxFramePayload) {
    throw std::invalid_argument("bad frame length");
  }
  if (!known_type(in[4])) throw std::invalid_argument("unknown frame type");
  return {static_cast<FrameType>(in[4]), in[5], get_u32(in + 6),
          static_cast<uint32_t>(rest - (kFrameHeaderSize - 4))};
}

void encode_frame(const Frame &frame, std::vector<uint8_t> &out) {
  uint8_t header[kFrameHeaderSize];
  encode_frame_header(frame, header);
  out.insert(out.end(), header, header + kFrameHeaderSize);
  out.insert(out.end(), frame.payload.begin(), frame.payload.end());
}

std::optional<Frame> decode_frame(const uint8_t *in, size_t size, size_t &consumed) {
  consumed = 0;
  if (size < 4) return std::nullopt;
  // The length alone may already be wrong; refuse it before waiting for more.
  const uint32_t rest = get_u32(in);
  if (rest < kFrameHeaderSize - 4 || rest - (kFrameHeaderSize - 4) > kMaxFramePayload) {
    throw std::invalid_argument("bad frame length");
  }
  if (size - 4 < rest) return std::nullopt;
  const FrameHeader header = decode_frame_header(in);
  Frame frame;
  frame.type = header.type;
  frame.flags = header.flags;
  frame.code = header.code;
  frame.payload.assign(in + kFrameHeaderSize, in + kFrameHeaderSize + header.payload_size);
  consumed = kFrameHeaderSize + header.payload_size;
  return frame;
}

}  // namespace snanode::engine

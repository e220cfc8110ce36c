// Frame encoding for links that cross a process boundary.
#include "engine/frame.h"

#include <stdexcept>

namespace snanode::engine {
namespace {

void put_u32(std::vector<uint8_t> &out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

uint32_t get_u32(const uint8_t *in) {
  return (uint32_t{in[0]} << 24) | (uint32_t{in[1]} << 16) | (uint32_t{in[2]} << 8) | in[3];
}

bool known_type(uint8_t type) {
  return type >= static_cast<uint8_t>(FrameType::kData) &&
         type <= static_cast<uint8_t>(FrameType::kAttachFailed);
}

}  // namespace

void encode_frame(const Frame &frame, std::vector<uint8_t> &out) {
  if (frame.payload.size() > kMaxFramePayload) throw std::invalid_argument("frame too large");
  put_u32(out, static_cast<uint32_t>(kFrameHeaderSize - 4 + frame.payload.size()));
  out.push_back(static_cast<uint8_t>(frame.type));
  out.push_back(frame.flags);
  put_u32(out, frame.code);
  out.insert(out.end(), frame.payload.begin(), frame.payload.end());
}

std::optional<Frame> decode_frame(const uint8_t *in, size_t size, size_t &consumed) {
  consumed = 0;
  if (size < 4) return std::nullopt;
  const uint32_t rest = get_u32(in);
  if (rest < kFrameHeaderSize - 4 || rest - (kFrameHeaderSize - 4) > kMaxFramePayload) {
    throw std::invalid_argument("bad frame length");
  }
  if (size - 4 < rest) return std::nullopt;
  if (!known_type(in[4])) throw std::invalid_argument("unknown frame type");
  Frame frame;
  frame.type = static_cast<FrameType>(in[4]);
  frame.flags = in[5];
  frame.code = get_u32(in + 6);
  frame.payload.assign(in + kFrameHeaderSize, in + 4 + rest);
  consumed = 4 + rest;
  return frame;
}

}  // namespace snanode::engine

#include "net/formats/th.h"

#include <algorithm>

namespace snanode::net {

namespace {
constexpr uint8_t kFid5 = 0x50;
}

void encode_th(const Fid5Th &th, ByteWriter &out) {
  out.u8(static_cast<uint8_t>(kFid5 | (th.mpf & 0x3) << 2 | (th.expedited ? 0x01 : 0)));
  out.u8(0);
  out.u16(th.snf);
  out.bytes(th.session_address);
}

Result<Fid5Th> decode_th(ByteReader &in) {
  if (in.remaining() < kFid5ThSize) return Result<Fid5Th>::refused(decision::kSenseTooShortTh);
  const uint8_t b0 = in.u8();
  if ((b0 & 0xF0) != kFid5) return Result<Fid5Th>::refused(decision::kSenseInvalidFid);
  Fid5Th th;
  th.mpf = (b0 >> 2) & 0x3;
  th.expedited = b0 & 0x01;
  in.u8();
  th.snf = in.u16();
  const ByteSpan sa = in.take(th.session_address.size());
  std::copy(sa.begin(), sa.end(), th.session_address.begin());
  return th;
}

}  // namespace snanode::net

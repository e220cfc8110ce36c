// FID5 transmission header: the 12-byte TH of every BIU an LU-LU session
// carries inside an HPR network layer packet.
//
//   byte 0   FID (X'F0' = 0101), MPF (X'0C'), EFI (X'01')
//   byte 1   reserved
//   2-3      sequence number field (SNF)
//   4-11     session address
#pragma once

#include <array>

#include "net/formats/byte_io.h"
#include "net/formats/result.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {

inline constexpr size_t kFid5ThSize = 12;
using SessionAddress = std::array<uint8_t, 8>;

struct Fid5Th {
  uint8_t mpf = decision::kMpfWholeBiu;  // 2 bits: 3 whole, 2 first, 1 last, 0 middle
  bool expedited = false;                // EFI
  uint16_t snf = 0;
  SessionAddress session_address{};

  bool operator==(const Fid5Th &) const = default;
};

void encode_th(const Fid5Th &th, ByteWriter &out);
// Reads the 12 TH bytes; refuses a short header or a FID other than 5.
Result<Fid5Th> decode_th(ByteReader &in);

}  // namespace snanode::net

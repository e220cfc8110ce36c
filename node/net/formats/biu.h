// A basic information unit as an HPR packet carries it: FID5 TH, RH, RU; and
// what kind of unit an RU is, from its RH and first bytes.
#pragma once

#include "net/formats/byte_io.h"
#include "net/formats/result.h"
#include "net/formats/rh.h"
#include "net/formats/th.h"

namespace snanode::net {

struct BiuView {
  Fid5Th th;
  Rh rh;
  ByteSpan ru;  // points into the decoded bytes
};

void encode_biu(const Fid5Th &th, const Rh &rh, ByteSpan ru, Bytes &out);
Result<BiuView> decode_biu(ByteSpan biu);

enum class RuKind : uint8_t {
  kBind,
  kUnbind,
  kSignal,
  kLustat,
  kReadyToReceive,
  kBracketInitiationStopped,
  kOtherControl,      // an SC/DFC/NC request LU 6.2 sessions do not use
  kAttach,            // FMD starting with an FMH-5
  kErrorDescription,  // FMD starting with an FMH-7
  kOtherFmHeader,
  kData,
  kIsolatedPacing,
  kPositiveResponse,
  kNegativeResponse,
};

RuKind classify(const BiuView &biu);

}  // namespace snanode::net

#include "net/formats/biu.h"

#include "net/formats/bind.h"
#include "net/formats/control_rus.h"
#include "net/formats/fmh5.h"
#include "net/formats/fmh7.h"

namespace snanode::net {

void encode_biu(const Fid5Th &th, const Rh &rh, ByteSpan ru, Bytes &out) {
  ByteWriter w(out);
  encode_th(th, w);
  encode_rh(rh, w);
  w.bytes(ru);
}

Result<BiuView> decode_biu(ByteSpan biu) {
  ByteReader in(biu);
  Result<Fid5Th> th = decode_th(in);
  if (!th) return Result<BiuView>::refused(th.sense());
  Result<Rh> rh = decode_rh(in);
  if (!rh) return Result<BiuView>::refused(rh.sense());
  return BiuView{th.value(), rh.value(), in.rest()};
}

RuKind classify(const BiuView &biu) {
  const Rh &rh = biu.rh;
  if (rh.response) {
    // An expedited FMD response with PI set and no sense is a pacing message.
    if (rh.category == RuCategory::kFmd && biu.th.expedited && rh.pi && !rh.sdi) {
      return RuKind::kIsolatedPacing;
    }
    return rh.sdi ? RuKind::kNegativeResponse : RuKind::kPositiveResponse;
  }
  if (rh.category == RuCategory::kFmd) {
    if (!rh.fi || biu.ru.size() < 2) return RuKind::kData;
    switch (biu.ru[1] & 0x7F) {
      case kFmhTypeAttach:
        return RuKind::kAttach;
      case kFmhTypeErrorDescription:
        return RuKind::kErrorDescription;
      default:
        return RuKind::kOtherFmHeader;
    }
  }
  if (biu.ru.empty()) return RuKind::kOtherControl;
  switch (biu.ru[0]) {
    case kRequestBind:
      return RuKind::kBind;
    case kRequestUnbind:
      return RuKind::kUnbind;
    case kRequestSig:
      return RuKind::kSignal;
    case kRequestLustat:
      return RuKind::kLustat;
    case kRequestRtr:
      return RuKind::kReadyToReceive;
    case kRequestBis:
      return RuKind::kBracketInitiationStopped;
    default:
      return RuKind::kOtherControl;
  }
}

}  // namespace snanode::net

#include "net/formats/rh.h"

#include "net/formats/sense_codes.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {

ResponseForm Rh::form() const {
  return static_cast<ResponseForm>((dr1 ? 0x80 : 0) | (dr2 ? 0x20 : 0) | (eri ? 0x10 : 0));
}

void Rh::set_form(ResponseForm f) {
  const auto bits = static_cast<uint8_t>(f);
  dr1 = bits & 0x80;
  dr2 = bits & 0x20;
  eri = bits & 0x10;
}

void encode_rh(const Rh &rh, ByteWriter &out) {
  out.u8(static_cast<uint8_t>((rh.response ? 0x80 : 0) | static_cast<uint8_t>(rh.category) << 5 |
                              (rh.fi ? 0x08 : 0) | (rh.sdi ? 0x04 : 0) | (rh.bci ? 0x02 : 0) |
                              (rh.eci ? 0x01 : 0)));
  const bool bit3 = rh.response ? rh.rti : rh.eri;
  out.u8(static_cast<uint8_t>((rh.dr1 ? 0x80 : 0) | (rh.lcci ? 0x40 : 0) | (rh.dr2 ? 0x20 : 0) |
                              (bit3 ? 0x10 : 0) | (rh.rlwi ? 0x04 : 0) | (rh.qri ? 0x02 : 0) |
                              (rh.pi ? 0x01 : 0)));
  out.u8(static_cast<uint8_t>((rh.bbi ? 0x80 : 0) | (rh.ebi ? 0x40 : 0) | (rh.cdi ? 0x20 : 0) |
                              (rh.csi ? 0x08 : 0) | (rh.edi ? 0x04 : 0) | (rh.pdi ? 0x02 : 0) |
                              (rh.cebi ? 0x01 : 0)));
}

Result<Rh> decode_rh(ByteReader &in) {
  if (in.remaining() < kRhSize) return Result<Rh>::refused(decision::kSenseTooShortRh);
  const uint8_t b0 = in.u8(), b1 = in.u8(), b2 = in.u8();
  Rh rh;
  rh.response = b0 & 0x80;
  rh.category = static_cast<RuCategory>((b0 >> 5) & 0x3);
  rh.fi = b0 & 0x08;
  rh.sdi = b0 & 0x04;
  rh.bci = b0 & 0x02;
  rh.eci = b0 & 0x01;
  rh.dr1 = b1 & 0x80;
  rh.lcci = b1 & 0x40;
  rh.dr2 = b1 & 0x20;
  (rh.response ? rh.rti : rh.eri) = b1 & 0x10;
  rh.rlwi = b1 & 0x04;
  rh.qri = b1 & 0x02;
  rh.pi = b1 & 0x01;
  rh.bbi = b2 & 0x80;
  rh.ebi = b2 & 0x40;
  rh.cdi = b2 & 0x20;
  rh.csi = b2 & 0x08;
  rh.edi = b2 & 0x04;
  rh.pdi = b2 & 0x02;
  rh.cebi = b2 & 0x01;
  return rh;
}

uint32_t check_request_indicators(const Rh &rh) {
  if (rh.response) return 0;
  if (rh.csi) return sense::kAlternateCodeNotSupported;
  if (rh.edi) return sense::kEncipheredDataIndicatorInvalid;
  if (rh.pdi) return sense::kPaddedDataIndicatorInvalid;
  if (rh.bbi && !rh.bci) return sense::kBeginBracketNotAllowed;
  if ((rh.cdi || rh.cebi) && !rh.eci) return sense::kLastInChainIndicatorsInvalid;
  if (rh.cdi && rh.cebi) return sense::kLastInChainIndicatorsInvalid;
  // An exception response needs a response to be asked for at all; change
  // direction needs more than the RQD1 form.
  if (rh.eri && !rh.dr1 && !rh.dr2) return sense::kResponseRequestIndicatorsInvalid;
  if (rh.cdi && rh.form() == ResponseForm::kRqd1) return sense::kResponseRequestIndicatorsInvalid;
  if (rh.category != RuCategory::kFmd && (!rh.fi || !rh.bci || !rh.eci)) {
    return sense::kLastInChainIndicatorsInvalid;
  }
  return 0;
}

Rh response_rh(const Rh &request, bool negative) {
  Rh rsp;
  rsp.response = true;
  rsp.category = request.category;
  rsp.fi = request.category != RuCategory::kFmd;
  rsp.sdi = negative;
  rsp.bci = rsp.eci = true;
  rsp.dr1 = request.dr1;
  rsp.dr2 = request.dr2;
  rsp.rti = negative;
  rsp.qri = request.qri;
  return rsp;
}

}  // namespace snanode::net

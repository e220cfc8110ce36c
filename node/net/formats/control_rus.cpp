#include "net/formats/control_rus.h"

#include "net/formats/sense_codes.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {

void encode_unbind(const Unbind &unbind, Bytes &out) {
  ByteWriter w(out);
  w.u8(kRequestUnbind);
  w.u8(unbind.type);
  w.u32(unbind.sense);
  w.bytes(unbind.control_vectors);
}

Result<Unbind> decode_unbind(ByteSpan ru) {
  if (ru.empty()) return Result<Unbind>::refused(decision::kSenseRuLength);
  ByteReader in(ru);
  if (in.u8() != kRequestUnbind) return Result<Unbind>::refused(sense::kFunctionNotSupported);
  Unbind unbind;
  unbind.type = in.u8();
  if (!in.ok()) return Result<Unbind>::refused(decision::kSenseRuLength);
  // Senders that omit the sense bytes of a normal UNBIND are accepted.
  if (in.at_end()) return unbind;
  unbind.sense = in.u32();
  if (!in.ok()) return Result<Unbind>::refused(decision::kSenseRuLength);
  const ByteSpan cvs = in.rest();
  unbind.control_vectors.assign(cvs.begin(), cvs.end());
  return unbind;
}

void encode_signal(const Signal &signal, Bytes &out) {
  ByteWriter w(out);
  w.u8(kRequestSig);
  w.u16(signal.code);
  w.u16(signal.extension);
}

Result<Signal> decode_signal(ByteSpan ru) {
  if (ru.size() != 5 || ru[0] != kRequestSig) {
    return Result<Signal>::refused(decision::kSenseRuLength);
  }
  Signal signal{load_u16(&ru[1]), load_u16(&ru[3])};
  if (signal.code != kSignalRequestToSend || signal.extension != 0x0001) {
    return Result<Signal>::refused(sense::kParameterError);
  }
  return signal;
}

void encode_lustat(const Lustat &lustat, Bytes &out) {
  ByteWriter w(out);
  w.u8(kRequestLustat);
  w.u32(lustat.status);
}

Result<Lustat> decode_lustat(ByteSpan ru) {
  if (ru.size() != 5 || ru[0] != kRequestLustat) {
    return Result<Lustat>::refused(decision::kSenseRuLength);
  }
  return Lustat{load_u32(&ru[1])};
}

void encode_ipm(const Ipm &ipm, Bytes &out) {
  ByteWriter w(out);
  w.u8(static_cast<uint8_t>(static_cast<uint8_t>(ipm.type) << 6 | (ipm.reset_window ? 0x20 : 0)));
  w.u16(ipm.next_window_size);
}

Result<Ipm> decode_ipm(ByteSpan ru) {
  if (ru.size() != kIpmSize) return Result<Ipm>::refused(decision::kSenseRuLength);
  const uint8_t type = ru[0] >> 6;
  if (type > static_cast<uint8_t>(IpmType::kResetAcknowledgement)) {
    return Result<Ipm>::refused(sense::kParameterError);
  }
  return Ipm{static_cast<IpmType>(type), (ru[0] & 0x20) != 0, load_u16(&ru[1])};
}

void encode_negative_response(const NegativeResponse &rsp, Bytes &out) {
  ByteWriter w(out);
  w.u32(rsp.sense);
  if (rsp.request_code) w.u8(*rsp.request_code);
}

Result<NegativeResponse> decode_negative_response(ByteSpan ru) {
  if (ru.size() < 4) return Result<NegativeResponse>::refused(decision::kSenseRuLength);
  NegativeResponse rsp{load_u32(ru.data()), std::nullopt};
  if (ru.size() > 4) rsp.request_code = ru[4];
  return rsp;
}

}  // namespace snanode::net

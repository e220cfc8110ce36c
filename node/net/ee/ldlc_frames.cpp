#include "net/ee/ldlc_frames.h"

namespace snanode::net::ee {
namespace {

constexpr uint8_t kPollFinal = 0x10;
constexpr uint8_t kResponseBit = 0x01;
constexpr uint8_t kFunctionTypeLdlc = 1;
constexpr uint8_t kFrXidDoneRequest = 0x03;
constexpr uint8_t kFrXidDoneResponse = 0x04;

// Control bytes with the P/F bit clear.
constexpr uint8_t kControlXid = 0xAF;
constexpr uint8_t kControlTest = 0xE3;
constexpr uint8_t kControlDisc = 0x43;
constexpr uint8_t kControlDm = 0x0F;

uint8_t control_of(LdlcKind kind) {
  switch (kind) {
    case LdlcKind::kXid:
      return kControlXid;
    case LdlcKind::kTest:
      return kControlTest;
    case LdlcKind::kDisc:
      return kControlDisc;
    case LdlcKind::kDm:
      return kControlDm;
    case LdlcKind::kUi:
      break;
  }
  return kLlcUi;
}

}  // namespace

Bytes encode_ldlc_command(LdlcKind kind, bool response, uint8_t link_sap, ByteSpan info) {
  // Every command asks for an answer (P=1) and every answer carries F=1:
  // LDLC has no other use for the bit, and tshark then names the frames the
  // way a person reading a trace expects ("XID, poll").
  Bytes out;
  out.reserve(kLlcSize + info.size());
  out.push_back(link_sap);
  out.push_back(static_cast<uint8_t>(link_sap | (response ? kResponseBit : 0)));
  out.push_back(static_cast<uint8_t>(control_of(kind) | kPollFinal));
  out.insert(out.end(), info.begin(), info.end());
  return out;
}

Bytes encode_ui(uint8_t partner_sap, uint8_t own_sap, ByteSpan nlp) {
  Bytes out;
  encode_ui(partner_sap, own_sap, nlp, out);
  return out;
}

void encode_ui(uint8_t partner_sap, uint8_t own_sap, ByteSpan nlp, Bytes &out) {
  out.resize(kLlcSize);
  out.reserve(kLlcSize + nlp.size());
  put_ui_header(partner_sap, own_sap, out.data());
  out.insert(out.end(), nlp.begin(), nlp.end());
}

void put_ui_header(uint8_t partner_sap, uint8_t own_sap, uint8_t *at) {
  at[0] = partner_sap;
  at[1] = static_cast<uint8_t>(own_sap & ~kResponseBit);  // the C/R bit is never set on UI
  at[2] = kLlcUi;
}

std::optional<LdlcFrame> decode_ldlc(ByteSpan datagram) {
  ByteReader in(datagram);
  const Result<LlcHeader> llc = decode_llc(in);
  if (!llc) return std::nullopt;
  LdlcFrame frame;
  frame.dsap = llc->dsap;
  frame.response = (llc->ssap & kResponseBit) != 0;
  frame.poll_final = (llc->control & kPollFinal) != 0;
  frame.info = in.rest();
  switch (llc->control & ~kPollFinal) {
    case kLlcUi:
      frame.kind = LdlcKind::kUi;
      frame.response = false;  // ignored on UI frames
      break;
    case kControlXid:
      frame.kind = LdlcKind::kXid;
      break;
    case kControlTest:
      frame.kind = LdlcKind::kTest;
      break;
    case kControlDisc:
      frame.kind = LdlcKind::kDisc;
      break;
    case kControlDm:
      frame.kind = LdlcKind::kDm;
      break;
    default:
      return std::nullopt;
  }
  return frame;
}

Bytes encode_xid_done(bool request, uint8_t partner_sap, uint8_t own_sap) {
  Nhdr nhdr;
  nhdr.mode = SwitchingMode::kFunctionRouting;
  nhdr.priority = Priority::kLow;
  nhdr.function_type = kFunctionTypeLdlc;
  nhdr.fr_header = request ? kFrXidDoneRequest : kFrXidDoneResponse;
  Bytes nlp;
  (void)encode_nlp(nhdr, Thdr{}, {}, nlp);  // no labels, no options: cannot be refused
  return encode_ui(partner_sap, own_sap, nlp);
}

std::optional<bool> xid_done_kind(ByteSpan nlp) {
  const Result<NlpView> view = decode_nlp(nlp);
  if (!view || view->nhdr.mode != SwitchingMode::kFunctionRouting ||
      view->nhdr.function_type != kFunctionTypeLdlc) {
    return std::nullopt;
  }
  if (view->nhdr.fr_header == kFrXidDoneRequest) return true;
  if (view->nhdr.fr_header == kFrXidDoneResponse) return false;
  return std::nullopt;
}

}  // namespace snanode::net::ee

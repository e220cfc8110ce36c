#include "net/formats/fmh5.h"

#include <algorithm>

#include "net/formats/sense_codes.h"

namespace snanode::net {
namespace {

constexpr uint8_t kAlreadyVerified = 0x80;
constexpr uint8_t kPasswordSubstitute = 0x10;
constexpr uint8_t kPipPresent = 0x08;
constexpr uint8_t kFixedLength = 3;
constexpr size_t kPasswordSubstituteSize = 8;

enum : uint8_t { kSubfieldProfile = 0x00, kSubfieldPassword = 0x01, kSubfieldUserId = 0x02 };

bool put_subfield(ByteWriter &w, uint8_t type, const std::optional<Bytes> &value) {
  if (!value) return true;
  if (value->size() > 0xFE) return false;
  w.u8(static_cast<uint8_t>(value->size() + 1));
  w.u8(type);
  w.bytes(*value);
  return true;
}

// The combinations of access security a partner may send: a user ID needs a
// password or the already-verified indicator; a password or profile needs a
// user ID; already-verified excludes a password.
uint32_t check_security(const Attach &a) {
  if ((a.password || a.profile) && !a.user_id) return sense::kSecurityNotValid;
  if (a.user_id && !a.password && !a.already_verified) return sense::kSecurityNotValid;
  if (a.already_verified && a.password) return sense::kSecurityNotValid;
  if (a.password_substitute && (!a.password || a.password->size() != kPasswordSubstituteSize)) {
    return sense::kSecurityNotValid;
  }
  return 0;
}

}  // namespace

Status encode_attach(const Attach &a, Bytes &out) {
  if (a.tp_name.empty() || a.tp_name.size() > kMaxTpName) return {sense::kInvalidAttachParameter};
  if (a.conversation_correlator.size() > kMaxConversationCorrelator) {
    return {sense::kInvalidAttachParameter};
  }
  if (uint32_t s = check_security(a)) return {s};
  Bytes h;
  ByteWriter w(h);
  w.u8(0);
  w.u8(kFmhTypeAttach);
  w.u16(kAttachCommand);
  w.u8(static_cast<uint8_t>(
      (a.already_verified ? kAlreadyVerified : 0) | (a.persistent_verification & 0x3) << 5 |
      (a.password_substitute ? kPasswordSubstitute : 0) | (a.pip_present ? kPipPresent : 0)));
  w.u8(kFixedLength);
  w.u8(static_cast<uint8_t>(a.resource));
  w.u8(0);
  w.u8(static_cast<uint8_t>(static_cast<uint8_t>(a.sync_level) << 6));
  w.u8(static_cast<uint8_t>(a.tp_name.size()));
  w.bytes(a.tp_name);
  const size_t security_at = w.size();
  w.u8(0);
  if (!put_subfield(w, kSubfieldUserId, a.user_id) ||
      !put_subfield(w, kSubfieldPassword, a.password) ||
      !put_subfield(w, kSubfieldProfile, a.profile) || w.size() - security_at - 1 > 0xFF) {
    return {sense::kAccessSecurityLengthWrong};
  }
  w.patch_u8(security_at, static_cast<uint8_t>(w.size() - security_at - 1));
  if (a.luw) {
    const size_t luw_size = 1 + a.luw->lu_name.size() + 6 + 2;
    if (a.luw->lu_name.empty() || luw_size > 0xFF) return {sense::kInvalidLuwIdentifier};
    w.u8(static_cast<uint8_t>(luw_size));
    w.u8(static_cast<uint8_t>(a.luw->lu_name.size()));
    w.bytes(a.luw->lu_name);
    w.bytes(a.luw->instance);
    w.u16(a.luw->sequence);
  } else {
    w.u8(0);
  }
  w.u8(static_cast<uint8_t>(a.conversation_correlator.size()));
  w.bytes(a.conversation_correlator);
  w.bytes(a.trailing);
  if (h.size() > 0xFF) return {sense::kFmhLengthWrong};
  w.patch_u8(0, static_cast<uint8_t>(h.size()));
  out.insert(out.end(), h.begin(), h.end());
  return {};
}

namespace {

uint32_t decode_security(ByteSpan section, Attach &a) {
  ByteReader in(section);
  while (!in.at_end()) {
    const uint8_t length = in.u8();
    if (length == 0) return sense::kAccessSecurityLengthWrong;
    const uint8_t type = in.u8();
    const ByteSpan value = in.take(length - 1u);
    if (!in.ok()) return sense::kAccessSecurityLengthWrong;
    Bytes bytes(value.begin(), value.end());
    switch (type) {
      case kSubfieldUserId:
        a.user_id = std::move(bytes);
        break;
      case kSubfieldPassword:
        a.password = std::move(bytes);
        break;
      case kSubfieldProfile:
        a.profile = std::move(bytes);
        break;
      default:
        break;  // subfield types this node does not use
    }
  }
  return check_security(a);
}

uint32_t decode_luw(ByteSpan field, Attach &a) {
  ByteReader in(field);
  LuwIdentifier luw;
  const uint8_t name_length = in.u8();
  if (name_length == 0 || !in.copy(name_length, luw.lu_name)) return sense::kInvalidLuwIdentifier;
  const ByteSpan instance = in.take(luw.instance.size());
  luw.sequence = in.u16();
  if (!in.ok() || !in.at_end()) return sense::kInvalidLuwIdentifier;
  std::copy(instance.begin(), instance.end(), luw.instance.begin());
  a.luw = std::move(luw);
  return 0;
}

}  // namespace

Result<Attach> decode_attach(ByteReader &outer) {
  using R = Result<Attach>;
  const uint8_t length = outer.peek();
  if (length < 10 || outer.remaining() < length) return R::refused(sense::kFmhLengthWrong);
  ByteReader in(outer.take(length));
  in.u8();
  if ((in.u8() & 0x7F) != kFmhTypeAttach) return R::refused(sense::kFmhTypeNotSupported);
  if (in.u16() != kAttachCommand) return R::refused(sense::kFmhCommandNotRecognized);
  Attach a;
  const uint8_t flags = in.u8();
  a.already_verified = flags & kAlreadyVerified;
  a.persistent_verification = (flags >> 5) & 0x3;
  a.password_substitute = flags & kPasswordSubstitute;
  a.pip_present = flags & kPipPresent;
  const uint8_t fixed_length = in.u8();
  const ByteSpan fixed = in.take(fixed_length);
  if (fixed_length < kFixedLength || !in.ok()) {
    return R::refused(sense::kFixedParameterLengthInvalid);
  }
  if (fixed[0] < 0xD0 || fixed[0] > 0xD3 || (fixed[2] >> 6) == 3) {
    return R::refused(sense::kInvalidAttachParameter);
  }
  a.resource = static_cast<ConversationResource>(fixed[0]);
  a.sync_level = static_cast<AttachSyncLevel>(fixed[2] >> 6);

  const uint8_t tp_length = in.u8();
  if (!in.copy(tp_length, a.tp_name)) return R::refused(sense::kFmhLengthWrong);
  if (tp_length == 0 || tp_length > kMaxTpName) return R::refused(sense::kInvalidAttachParameter);
  // The fields after the TP name may be left off from the end.
  if (in.at_end()) {
    if (uint32_t s = check_security(a)) return R::refused(s);
    return a;
  }
  const ByteSpan security = in.take(in.u8());
  if (!in.ok()) return R::refused(sense::kAccessSecurityLengthWrong);
  if (uint32_t s = decode_security(security, a)) return R::refused(s);
  if (in.at_end()) return a;
  const uint8_t luw_length = in.u8();
  const ByteSpan luw = in.take(luw_length);
  if (!in.ok()) return R::refused(sense::kInvalidLuwIdentifier);
  if (luw_length > 0) {
    if (uint32_t s = decode_luw(luw, a)) return R::refused(s);
  }
  if (in.at_end()) return a;
  const uint8_t correlator_length = in.u8();
  if (correlator_length > kMaxConversationCorrelator) {
    return R::refused(sense::kInvalidAttachParameter);
  }
  if (!in.copy(correlator_length, a.conversation_correlator)) {
    return R::refused(sense::kFmhLengthWrong);
  }
  const ByteSpan rest = in.rest();
  a.trailing.assign(rest.begin(), rest.end());
  return a;
}

Blanking blank_attach_password(std::span<uint8_t> fmh, uint8_t blank) {
  auto blank_from = [&](size_t at) {
    std::fill(fmh.begin() + static_cast<std::ptrdiff_t>(std::min(at, fmh.size())), fmh.end(),
              blank);
    return Blanking::kBlankedRemainder;
  };
  if (fmh.size() < 2 || (fmh[1] & 0x7F) != kFmhTypeAttach) return Blanking::kNothingToBlank;
  // Too short to tell the command or find the TP name: the rest may follow.
  if (fmh.size() < 4) return blank_from(fmh.size());
  if (load_u16(&fmh[2]) != kAttachCommand) return Blanking::kNothingToBlank;
  if (fmh.size() < 6) return blank_from(fmh.size());
  const size_t end = std::min<size_t>(fmh[0], fmh.size());
  size_t at = 6 + size_t{fmh[5]};  // past the fixed part: the TP name length
  if (at >= end) return blank_from(at);
  at += 1 + size_t{fmh[at]};  // the access security length
  if (at >= end) return at >= fmh[0] ? Blanking::kNothingToBlank : blank_from(at);
  const size_t security_end = at + 1 + size_t{fmh[at]};
  if (security_end > end) return blank_from(at + 1);
  Blanking result = Blanking::kNothingToBlank;
  for (size_t sub = at + 1; sub < security_end;) {
    const size_t next = sub + 1 + size_t{fmh[sub]};
    if (fmh[sub] == 0 || next > security_end) return blank_from(sub);
    if (fmh[sub + 1] == kSubfieldPassword) {
      std::fill(fmh.begin() + static_cast<std::ptrdiff_t>(sub + 2),
                fmh.begin() + static_cast<std::ptrdiff_t>(next), blank);
      result = Blanking::kBlanked;
    }
    sub = next;
  }
  return result;
}

}  // namespace snanode::net

#include "net/formats/bind.h"

#include "net/formats/sense_codes.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {
namespace {

constexpr uint8_t kFmProfile19 = 0x13;
constexpr uint8_t kTsProfile7 = 0x07;
constexpr uint8_t kLuType6 = 0x06;
constexpr uint8_t kStructuredUserData = 0x00;
constexpr uint8_t kControlVectorsFollow = 0x02;

// Offsets of the fields a refusal names.
enum : size_t {
  kAtFormat = 1,
  kAtFmProfile = 2,
  kAtTsProfile = 3,
  kAtPacing = 8,
  kAtMaxRuSecondary = 10,
  kAtMaxRuPrimary = 11,
  kAtLuType = 14,
  kAtSyncLevel = 24,
  kAtCryptography = 26,
};

uint8_t fm_usage_byte(const FmUsage &u) {
  return static_cast<uint8_t>((u.multiple_ru_chains ? 0x80 : 0) |
                              (u.delayed_request_mode ? 0x40 : 0) |
                              (u.chain_response_protocol & 0x3) << 4 | (u.reserved & 0x0C) |
                              (u.compression ? 0x02 : 0) | (u.may_send_end_bracket ? 0x01 : 0));
}

FmUsage fm_usage_of(uint8_t b) {
  FmUsage u;
  u.multiple_ru_chains = b & 0x80;
  u.delayed_request_mode = b & 0x40;
  u.chain_response_protocol = (b >> 4) & 0x3;
  u.reserved = b & 0x0C;
  u.compression = b & 0x02;
  u.may_send_end_bracket = b & 0x01;
  return u;
}

bool windows_fit(const Pacing &p) {
  return p.secondary_send_window <= 0x3F && p.secondary_receive_window <= 0x3F &&
         p.primary_send_window <= 0x3F && p.primary_receive_window <= 0x3F;
}

// A length-prefixed field of at most `limit` bytes; false when it is longer.
bool put_counted(ByteWriter &out, const Bytes &field, size_t limit) {
  if (field.size() > limit) return false;
  out.u8(static_cast<uint8_t>(field.size()));
  out.bytes(field);
  return true;
}

// Key-length control vectors: key, length of the data, data.
bool control_vectors_well_formed(ByteSpan cvs) {
  ByteReader in(cvs);
  while (!in.at_end()) {
    in.u8();
    in.take(in.u8());
    if (!in.ok()) return false;
  }
  return true;
}

}  // namespace

uint8_t encode_ru_size(uint32_t bytes) {
  if (bytes < 8) return 0x80;
  uint8_t exponent = 0;
  while (exponent < 15 && (bytes >> (exponent + 1)) >= 8) ++exponent;
  uint32_t mantissa = bytes >> exponent;
  if (mantissa > 15) mantissa = 15;
  return static_cast<uint8_t>(mantissa << 4 | exponent);
}

uint32_t decode_ru_size(uint8_t code) {
  if (code == 0) return decision::kNoMaximumRuSize;
  return static_cast<uint32_t>(code >> 4) << (code & 0x0F);
}

Status encode_bind(const Bind &bind, Bytes &out) {
  if (!windows_fit(bind.pacing)) return {sense::bind_parameter_at(kAtPacing)};
  if (bind.cryptography_options.size() > 0x0F) return {sense::bind_parameter_at(kAtCryptography)};
  Bytes ru;
  ByteWriter w(ru);
  w.u8(kRequestBind);
  w.u8(bind.nonnegotiable ? 0x01 : 0x00);
  w.u8(kFmProfile19);
  w.u8(kTsProfile7);
  w.u8(fm_usage_byte(bind.primary));
  w.u8(fm_usage_byte(bind.secondary));
  w.u8(static_cast<uint8_t>((bind.whole_biu ? 0x80 : 0) | (bind.fm_headers ? 0x40 : 0) |
                            (bind.brackets ? 0x20 : 0) |
                            (bind.bracket_termination_rule1 ? 0x10 : 0) |
                            (bind.alternate_code_set ? 0x08 : 0) | (bind.bind_queuing ? 0x01 : 0)));
  w.u8(static_cast<uint8_t>(
      (bind.send_receive_mode & 0x3) << 6 | (bind.symmetric_error_recovery ? 0x20 : 0) |
      (bind.primary_contention_winner ? 0x10 : 0) | (bind.alternate_code_processing & 0x3) << 2 |
      (bind.control_vectors.empty() ? 0 : kControlVectorsFollow) |
      (bind.primary_sends_first ? 0x01 : 0)));
  const Pacing &p = bind.pacing;
  w.u8(static_cast<uint8_t>((p.secondary_staging ? 0x80 : 0) | p.secondary_send_window));
  w.u8(static_cast<uint8_t>((p.adaptive ? 0x80 : 0) | p.secondary_receive_window));
  w.u8(encode_ru_size(bind.max_ru_secondary_sends));
  w.u8(encode_ru_size(bind.max_ru_primary_sends));
  w.u8(static_cast<uint8_t>((p.primary_staging ? 0x80 : 0) | p.primary_send_window));
  w.u8(p.primary_receive_window);
  w.u8(static_cast<uint8_t>((bind.ps_usage_format ? 0x80 : 0) | kLuType6));
  w.u8(bind.lu6_level);
  for (int i = 16; i < 22; ++i) w.u8(0);
  w.u8(bind.byte22);
  w.u8(static_cast<uint8_t>(
      (bind.access_security_accepted ? 0x10 : 0) | (bind.lu_lu_verification ? 0x08 : 0) |
      (bind.password_substitution ? 0x04 : 0) | (bind.already_verified_accepted ? 0x02 : 0) |
      (bind.persistent_verification ? 0x01 : 0)));
  w.u8(static_cast<uint8_t>(
      static_cast<uint8_t>(bind.sync_level) << 5 | (bind.session_reinitiation & 0x3) << 2 |
      (bind.parallel_sessions ? 0x02 : 0) | (bind.cnos_supported ? 0x01 : 0)));
  w.u8(static_cast<uint8_t>((bind.limited_resource ? 0x40 : 0) |
                            (bind.length_checked_compression & 0x3)));
  w.u8(static_cast<uint8_t>((bind.cryptography & 0xF0) | bind.cryptography_options.size()));
  w.bytes(bind.cryptography_options);

  if (!put_counted(w, bind.plu_name, kMaxNetworkQualifiedName)) {
    return {sense::bind_parameter_at(w.size())};
  }
  const size_t user_data_at = w.size();
  w.u8(0);
  if (!bind.mode_name.empty() || !bind.other_user_data.empty()) {
    w.u8(kStructuredUserData);
    if (!bind.mode_name.empty()) {
      if (bind.mode_name.size() > kMaxModeName) return {sense::bind_parameter_at(w.size())};
      w.u8(static_cast<uint8_t>(bind.mode_name.size() + 1));
      w.u8(kUserDataModeName);
      w.bytes(bind.mode_name);
    }
    for (const BindUserSubfield &sub : bind.other_user_data) {
      if (sub.data.size() > 254) return {sense::bind_parameter_at(w.size())};
      w.u8(static_cast<uint8_t>(sub.data.size() + 1));
      w.u8(sub.key);
      w.bytes(sub.data);
    }
    const size_t length = w.size() - user_data_at - 1;
    if (length > 0xFF) return {sense::bind_parameter_at(user_data_at)};
    w.patch_u8(user_data_at, static_cast<uint8_t>(length));
  }
  if (!put_counted(w, bind.user_request_correlation, 0xFF) ||
      !put_counted(w, bind.slu_name, kMaxNetworkQualifiedName)) {
    return {sense::bind_parameter_at(w.size())};
  }
  if (!control_vectors_well_formed(bind.control_vectors)) {
    return {sense::bind_parameter_at(w.size())};
  }
  w.bytes(bind.control_vectors);
  out.insert(out.end(), ru.begin(), ru.end());
  return {};
}

namespace {

// The structured user data: subfields of (length counting the key, key, data).
uint32_t decode_user_data(ByteSpan data, size_t base, Bind &bind) {
  ByteReader in(data);
  if (in.u8() != kStructuredUserData) return sense::bind_parameter_at(base);
  while (!in.at_end()) {
    const size_t at = base + in.offset();
    const uint8_t length = in.u8();
    if (length == 0) return sense::bind_parameter_at(at);
    const uint8_t key = in.u8();
    const ByteSpan value = in.take(length - 1u);
    if (!in.ok()) return sense::bind_parameter_at(at);
    if (key == kUserDataModeName) {
      if (value.size() > kMaxModeName) return sense::kBindInvalidSessionParameters | (at & 0xFFFF);
      bind.mode_name.assign(value.begin(), value.end());
    } else {
      bind.other_user_data.push_back({key, Bytes(value.begin(), value.end())});
    }
  }
  return 0;
}

}  // namespace

Result<Bind> decode_bind(ByteSpan ru) {
  using R = Result<Bind>;
  if (ru.size() < kBindFixedSize) return R::refused(sense::bind_parameter_at(ru.size()));
  ByteReader in(ru);
  if (in.u8() != kRequestBind) return R::refused(sense::bind_parameter_at(0));
  Bind bind;
  const uint8_t format = in.u8();
  if ((format & 0xF0) != 0 || (format & 0x0F) > 1) {
    return R::refused(sense::bind_parameter_at(kAtFormat));
  }
  bind.nonnegotiable = format & 0x01;
  if (in.u8() != kFmProfile19) return R::refused(sense::bind_parameter_at(kAtFmProfile));
  if (in.u8() != kTsProfile7) return R::refused(sense::bind_parameter_at(kAtTsProfile));
  bind.primary = fm_usage_of(in.u8());
  bind.secondary = fm_usage_of(in.u8());
  const uint8_t b6 = in.u8();
  bind.whole_biu = b6 & 0x80;
  bind.fm_headers = b6 & 0x40;
  bind.brackets = b6 & 0x20;
  bind.bracket_termination_rule1 = b6 & 0x10;
  bind.alternate_code_set = b6 & 0x08;
  bind.bind_queuing = b6 & 0x01;
  const uint8_t b7 = in.u8();
  bind.send_receive_mode = b7 >> 6;
  bind.symmetric_error_recovery = b7 & 0x20;
  bind.primary_contention_winner = b7 & 0x10;
  bind.alternate_code_processing = (b7 >> 2) & 0x3;
  const bool control_vectors_follow = b7 & kControlVectorsFollow;
  bind.primary_sends_first = b7 & 0x01;
  Pacing &p = bind.pacing;
  const uint8_t b8 = in.u8(), b9 = in.u8();
  p.secondary_staging = b8 & 0x80;
  p.secondary_send_window = b8 & 0x3F;
  p.adaptive = b9 & 0x80;
  p.secondary_receive_window = b9 & 0x3F;
  const uint8_t ru_secondary = in.u8(), ru_primary = in.u8();
  // A size byte is X'00' or has its high bit set (mantissa 8-15).
  if (ru_secondary != 0 && !(ru_secondary & 0x80)) {
    return R::refused(sense::bind_parameter_at(kAtMaxRuSecondary));
  }
  if (ru_primary != 0 && !(ru_primary & 0x80)) {
    return R::refused(sense::bind_parameter_at(kAtMaxRuPrimary));
  }
  bind.max_ru_secondary_sends = decode_ru_size(ru_secondary);
  bind.max_ru_primary_sends = decode_ru_size(ru_primary);
  const uint8_t b12 = in.u8(), b13 = in.u8();
  p.primary_staging = b12 & 0x80;
  p.primary_send_window = b12 & 0x3F;
  p.primary_receive_window = b13 & 0x3F;
  const uint8_t b14 = in.u8();
  if ((b14 & 0x7F) != kLuType6) return R::refused(sense::bind_parameter_at(kAtLuType));
  bind.ps_usage_format = b14 & 0x80;
  bind.lu6_level = in.u8();
  in.take(6);
  bind.byte22 = in.u8();
  const uint8_t b23 = in.u8();
  bind.access_security_accepted = b23 & 0x10;
  bind.lu_lu_verification = b23 & 0x08;
  bind.password_substitution = b23 & 0x04;
  bind.already_verified_accepted = b23 & 0x02;
  bind.persistent_verification = b23 & 0x01;
  const uint8_t b24 = in.u8();
  if (((b24 >> 5) & 0x3) == 3) return R::refused(sense::bind_parameter_at(kAtSyncLevel));
  bind.sync_level = static_cast<BindSyncLevel>((b24 >> 5) & 0x3);
  bind.session_reinitiation = (b24 >> 2) & 0x3;
  bind.parallel_sessions = b24 & 0x02;
  bind.cnos_supported = b24 & 0x01;
  const uint8_t b25 = in.u8();
  bind.limited_resource = b25 & 0x40;
  bind.length_checked_compression = b25 & 0x3;
  const uint8_t b26 = in.u8();
  bind.cryptography = b26 & 0xF0;
  if (!in.copy(b26 & 0x0F, bind.cryptography_options)) {
    return R::refused(sense::bind_parameter_at(kAtCryptography));
  }

  // The variable part: every length byte is checked against what is left.
  auto counted = [&](Bytes &field, size_t limit) -> uint32_t {
    const size_t at = in.offset();
    if (in.at_end()) return sense::bind_parameter_at(at);
    const uint8_t length = in.u8();
    if (length > limit) return sense::kBindInvalidSessionParameters | (at & 0xFFFF);
    if (!in.copy(length, field)) return sense::bind_parameter_at(at);
    return 0;
  };
  if (uint32_t s = counted(bind.plu_name, kMaxNetworkQualifiedName)) return R::refused(s);
  // Optional from here: a BIND may end after the PLU name.
  if (!in.at_end()) {
    const size_t at = in.offset();
    const uint8_t length = in.u8();
    const ByteSpan user_data = in.take(length);
    if (!in.ok()) return R::refused(sense::bind_parameter_at(at));
    if (length > 0) {
      if (uint32_t s = decode_user_data(user_data, at + 1, bind)) return R::refused(s);
    }
  }
  if (!in.at_end()) {
    if (uint32_t s = counted(bind.user_request_correlation, 0xFF)) return R::refused(s);
  }
  if (!in.at_end()) {
    if (uint32_t s = counted(bind.slu_name, kMaxNetworkQualifiedName)) return R::refused(s);
  }
  if (control_vectors_follow) {
    const size_t at = in.offset();
    const ByteSpan cvs = in.rest();
    if (cvs.empty() || !control_vectors_well_formed(cvs)) {
      return R::refused(sense::bind_parameter_at(at));
    }
    bind.control_vectors.assign(cvs.begin(), cvs.end());
  }
  // Bytes after the SLU name with no control-vector flag are ignored: later
  // BIND extensions put fields there that this node does not use.
  return bind;
}

}  // namespace snanode::net

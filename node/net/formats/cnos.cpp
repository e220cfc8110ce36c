#include "net/formats/cnos.h"

#include "net/formats/bind.h"
#include "net/formats/gds.h"
#include "net/formats/sense_codes.h"

namespace snanode::net {

Status encode_cnos(const Cnos &c, Bytes &out) {
  if (c.mode_name.size() > kMaxModeName) return {sense::kParameterError};
  if (c.max_sessions > kMaxCnosSessions || c.source_min_winners > kMaxCnosSessions ||
      c.target_min_winners > kMaxCnosSessions) {
    return {sense::kParameterError};
  }
  Bytes fields;
  ByteWriter w(fields);
  w.u8(c.service);
  w.u8(c.reply_modifier);
  w.u8(c.action);
  w.u8(static_cast<uint8_t>((c.drain_source ? decision::kCnosDrainSource : 0) |
                            (c.drain_target ? decision::kCnosDrainTarget : 0)));
  w.u8(c.deactivation_responsibility);
  w.u16(c.max_sessions);
  w.u16(c.source_min_winners);
  w.u16(c.target_min_winners);
  w.u8(c.affected_modes);
  w.u8(static_cast<uint8_t>(c.mode_name.size()));
  w.bytes(c.mode_name);
  append_gds(kGdsChangeNumberOfSessions, fields, out);
  return {};
}

Result<Cnos> decode_cnos(ByteSpan gds) {
  using R = Result<Cnos>;
  ByteReader outer(gds);
  Result<Record> record = read_gds(outer);
  if (!record) return R::refused(record.sense());
  if (record->id != kGdsChangeNumberOfSessions) return R::refused(sense::kParameterError);
  ByteReader in(record->data);
  Cnos c;
  c.service = in.u8();
  c.reply_modifier = in.u8();
  c.action = in.u8();
  const uint8_t drain = in.u8();
  c.drain_source = drain & decision::kCnosDrainSource;
  c.drain_target = drain & decision::kCnosDrainTarget;
  c.deactivation_responsibility = in.u8();
  c.max_sessions = in.u16();
  c.source_min_winners = in.u16();
  c.target_min_winners = in.u16();
  c.affected_modes = in.u8();
  const uint8_t name_length = in.u8();
  if (!in.copy(name_length, c.mode_name) || !in.at_end()) {
    return R::refused(decision::kSenseRuLength);
  }
  if (name_length > kMaxModeName || c.max_sessions > kMaxCnosSessions ||
      c.source_min_winners > kMaxCnosSessions || c.target_min_winners > kMaxCnosSessions) {
    return R::refused(sense::kParameterError);
  }
  return c;
}

}  // namespace snanode::net

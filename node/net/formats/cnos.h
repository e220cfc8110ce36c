// Change number of sessions (CNOS): the GDS variable X'1210' two LUs exchange
// on a conversation over mode SNASVCMG to agree session limits per mode.
#pragma once

#include "net/formats/byte_io.h"
#include "net/formats/result.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {

inline constexpr uint16_t kMaxCnosSessions = 0x7FFF;

struct Cnos {
  uint8_t service = decision::kCnosRequest;  // request or reply
  uint8_t reply_modifier = decision::kCnosReplyAsRequested;
  uint8_t action = decision::kCnosActionSet;
  bool drain_source = false;
  bool drain_target = false;
  uint8_t deactivation_responsibility = 0;
  uint16_t max_sessions = 0;
  uint16_t source_min_winners = 0;
  uint16_t target_min_winners = 0;
  uint8_t affected_modes = decision::kCnosOneMode;
  Bytes mode_name;  // EBCDIC, at most 8

  bool operator==(const Cnos &) const = default;
};

// Appends the whole GDS variable (LL, ID, fields).
Status encode_cnos(const Cnos &cnos, Bytes &out);
// Reads one CNOS GDS variable from the record data that carried it.
Result<Cnos> decode_cnos(ByteSpan gds);

}  // namespace snanode::net

// Session parameters: what a mode asks for, how a BIND is built from it, how
// the secondary lowers it to what it can take, and what each half-session
// keeps of the result.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "net/formats/bind.h"
#include "net/formats/result.h"

namespace snanode::net::lu62 {

inline constexpr std::string_view kServiceMode = "SNASVCMG";

// One mode as this LU configures it.  Sizes and windows are this LU's own
// limits; a window of 0 means no pacing.
struct ModeConfig {
  std::string name;
  uint32_t max_ru_send = 1024;     // largest RU this LU sends
  uint32_t max_ru_receive = 1024;  // largest RU this LU takes
  uint8_t send_window = 7;
  uint8_t receive_window = 7;
  uint16_t session_limit = 8;  // proposed to the partner by CNOS
  uint16_t min_winners = 4;    // contention winners this LU asks for
};

// The service mode every LU has: two sessions, one contention winner each.
ModeConfig service_mode_config();

// What a half-session keeps of the negotiated BIND, from its own side.
struct SessionParams {
  bool primary = false;
  bool local_winner = false;
  uint32_t max_send_ru = 256;
  uint32_t max_receive_ru = 256;
  uint8_t send_window = 0;  // 0: no pacing in that direction
  uint8_t receive_window = 0;
};

// The BIND a primary sends for `mode` to `slu`; `primary_winner` sets the
// session's contention polarity.
Bind build_bind(const ModeConfig &mode, std::string_view plu, std::string_view slu,
                bool primary_winner);

// Secondary: refuses what this LU does not support (X'0835xxxx', xxxx = byte
// at fault), lowers RU sizes and pacing windows to its own, and returns the
// image of the +RSP(BIND).
Result<Bind> negotiate_bind(const Bind &received, const ModeConfig &local);

// Primary: the returned image may only lower what was sent; anything else is
// refused with the sense the UNBIND carries.
Result<Bind> check_bind_response(const Bind &sent, const Bind &returned);

SessionParams params_from_bind(const Bind &bind, bool primary);

// The lower of two windows where 0 means unlimited.
uint8_t lower_window(uint8_t a, uint8_t b);

}  // namespace snanode::net::lu62

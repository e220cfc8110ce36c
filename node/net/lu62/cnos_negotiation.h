// Change number of sessions between two LUs for one mode: the request the
// source sends (an Attach of the CNOS service TP with the CNOS GDS variable,
// on a SNASVCMG session), how the target lowers it to its own limits, and the
// limits each side keeps afterwards.
#pragma once

#include <cstdint>

#include "net/formats/cnos.h"
#include "net/formats/result.h"
#include "net/lu62/session_params.h"

namespace snanode::net::lu62 {

// Session limits for one partner LU and mode, from this LU's side.  The two
// winner counts are reserved: each LU binds at most `limit - partner_winners`
// sessions it wins, so the two sides together never exceed `limit`.
struct SessionLimits {
  uint16_t limit = 0;
  uint16_t local_winners = 0;
  uint16_t partner_winners = 0;
  bool operator==(const SessionLimits &) const = default;
};

// The SNASVCMG limits every LU pair has without CNOS: one winner each.
SessionLimits service_mode_limits();

// The request for `mode`: its limit, this LU's winners, the rest to the target.
Cnos cnos_request(const ModeConfig &mode);

struct CnosAnswer {
  Cnos reply;
  SessionLimits limits;  // the target's own view
};
// Target side.  `local` is null when the mode is not known here.
CnosAnswer answer_cnos(const Cnos &request, const ModeConfig *local);

// Source side: the limits a reply leaves it with (zero when the target did not
// know the mode).
SessionLimits limits_from_reply(const Cnos &reply);

// The RU of the CNOS conversation's first chain: Attach of the CNOS service TP
// followed by the request.
Status encode_cnos_attach(const Cnos &request, Bytes &ru);
// Refuses an RU that is not an Attach of the CNOS TP carrying one CNOS request.
Result<Cnos> decode_cnos_attach(ByteSpan ru);

}  // namespace snanode::net::lu62

#include "net/lu62/cnos_negotiation.h"

#include <algorithm>
#include <iterator>

#include "net/formats/ebcdic_names.h"
#include "net/formats/fmh5.h"
#include "net/formats/sense_codes.h"

namespace snanode::net::lu62 {

SessionLimits service_mode_limits() {
  const ModeConfig mode = service_mode_config();
  return {mode.session_limit, mode.min_winners,
          static_cast<uint16_t>(mode.session_limit - mode.min_winners)};
}

Cnos cnos_request(const ModeConfig &mode) {
  Cnos cnos;
  cnos.max_sessions = std::min<uint16_t>(mode.session_limit, kMaxCnosSessions);
  cnos.source_min_winners = std::min(mode.min_winners, cnos.max_sessions);
  cnos.target_min_winners = static_cast<uint16_t>(cnos.max_sessions - cnos.source_min_winners);
  cnos.mode_name = ebcdic_from_name(mode.name).value_or(Bytes{});
  return cnos;
}

CnosAnswer answer_cnos(const Cnos &request, const ModeConfig *local) {
  CnosAnswer answer;
  Cnos &reply = answer.reply;
  reply = request;
  reply.service = decision::kCnosReply;
  if (!local) {
    reply.reply_modifier = decision::kCnosReplyModeNotRecognized;
    reply.max_sessions = reply.source_min_winners = reply.target_min_winners = 0;
    return answer;
  }
  if (request.action == decision::kCnosActionClose) {
    reply.max_sessions = reply.source_min_winners = reply.target_min_winners = 0;
  } else {
    reply.max_sessions = std::min(request.max_sessions, local->session_limit);
    reply.source_min_winners = std::min(request.source_min_winners, reply.max_sessions);
    reply.target_min_winners = std::min<uint16_t>(request.target_min_winners,
                                                  reply.max_sessions - reply.source_min_winners);
  }
  const bool lowered = reply.max_sessions != request.max_sessions ||
                       reply.source_min_winners != request.source_min_winners ||
                       reply.target_min_winners != request.target_min_winners;
  reply.reply_modifier = lowered ? decision::kCnosReplyNegotiated : decision::kCnosReplyAsRequested;
  answer.limits = {reply.max_sessions, reply.target_min_winners, reply.source_min_winners};
  return answer;
}

SessionLimits limits_from_reply(const Cnos &reply) {
  if (reply.reply_modifier == decision::kCnosReplyModeNotRecognized) return {};
  return {reply.max_sessions, reply.source_min_winners, reply.target_min_winners};
}

Status encode_cnos_attach(const Cnos &request, Bytes &ru) {
  Attach attach;
  attach.resource = ConversationResource::kBasicHalfDuplex;
  attach.sync_level = AttachSyncLevel::kNone;
  attach.tp_name.assign(std::begin(decision::kCnosTpName), std::end(decision::kCnosTpName));
  const size_t start = ru.size();
  if (Status s = encode_attach(attach, ru); !s) return s;
  if (Status s = encode_cnos(request, ru); !s) {
    ru.resize(start);
    return s;
  }
  return {};
}

Result<Cnos> decode_cnos_attach(ByteSpan ru) {
  ByteReader in(ru);
  Result<Attach> attach = decode_attach(in);
  if (!attach) return Result<Cnos>::refused(attach.sense());
  if (!std::equal(attach->tp_name.begin(), attach->tp_name.end(), std::begin(decision::kCnosTpName),
                  std::end(decision::kCnosTpName))) {
    return Result<Cnos>::refused(sense::kTpNameNotRecognized);
  }
  return decode_cnos(in.rest());
}

}  // namespace snanode::net::lu62

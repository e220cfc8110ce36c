// Frames from the local TP → units for the session.
#include <stdexcept>

#include "net/formats/control_rus.h"
#include "net/formats/fmh7.h"
#include "net/formats/sense_codes.h"
#include "net/formats/shared_bytes.h"
#include "net/formats/wire_decisions.h"
#include "net/lu62/conversation_codes.h"
#include "net/lu62/conversation_translator.h"

namespace snanode::net::lu62 {

using engine::Frame;
using engine::FrameType;

namespace {

bool is_basic(ConversationResource resource) {
  return resource == ConversationResource::kBasicHalfDuplex ||
         resource == ConversationResource::kBasicFullDuplex;
}

Rh request_rh(RuCategory category, bool first, bool last, bool fi) {
  Rh rh;
  rh.category = category;
  rh.fi = fi;
  rh.bci = first;
  rh.eci = last;
  rh.set_form(static_cast<ResponseForm>(decision::kChainResponseForm));
  return rh;
}

Frame error_seen() {
  Frame frame;
  frame.type = FrameType::kErrorSeen;
  return frame;
}

}  // namespace

ConversationTranslator::ConversationTranslator(RecordFraming framing, size_t max_ru_size,
                                               bool sending)
    : framing_(framing),
      max_ru_(max_ru_size == 0 ? 1 : max_ru_size),
      assembler_(framing),
      holder_(sending) {}

ConversationTranslator ConversationTranslator::allocating(Attach attach, size_t max_ru_size) {
  ConversationTranslator t(
      is_basic(attach.resource) ? RecordFraming::kBasic : RecordFraming::kMapped, max_ru_size,
      true);
  if (!encode_attach(attach, t.attach_)) throw std::invalid_argument("Attach cannot be encoded");
  t.attach_taken_ = true;  // the Attach is this side's to send, not to read
  return t;
}

ConversationTranslator ConversationTranslator::attached(size_t max_ru_size) {
  // The framing is the Attach's; it is set when the Attach arrives.
  return ConversationTranslator(RecordFraming::kMapped, max_ru_size, false);
}

Output ConversationTranslator::on_frame(const Frame &frame) {
  Output out;
  if (ended_) return out;
  switch (frame.type) {
    case FrameType::kErrorSeen:
      // The TP has read the partner's purging error: what it sends from now
      // on is fresh.  (The partner's own answer was given on the wire.)
      stale_until_error_seen_ = false;
      return out;
    case FrameType::kRequestToSend: {
      if (!bracket_begun_) return out;  // the allocating side sends first anyway
      Unit sig{request_rh(RuCategory::kDfc, true, true, true), {}, true};
      sig.rh.set_form(static_cast<ResponseForm>(decision::kSignalResponseForm));
      encode_signal(Signal{}, sig.ru);
      out.units.push_back(std::move(sig));
      return out;
    }
    default:
      break;
  }
  if (stale_until_error_seen_ && frame.type != FrameType::kAttachFailed) {
    // Sent before the TP knew of the partner's purging error: purged, as a
    // local partner's engine would drop it.  Only an ending still counts; a
    // normal one without the turn (given away on the partner's −RSP) can
    // only reach the partner as an abend.
    if (frame.type != FrameType::kDeallocate) return out;
    if (!holder_) {
      send_abend(frame.payload, out);
      return out;
    }
  }
  if (error_expected_) {
    // The partner purges whatever this side sends until its FMH-7 is in.  An
    // end the TP makes meanwhile can only reach the partner as an abend once
    // that FMH-7 has come.
    if (frame.type == FrameType::kDeallocate) tp_gone_ = true;
    return out;
  }
  if (awaiting_turn_) {
    held_frames_.push_back(frame);
    return out;
  }
  switch (frame.type) {
    case FrameType::kData:
      append_data(frame, out);
      break;
    case FrameType::kConfirmed:
      answer_pending_request(out);
      break;
    case FrameType::kChangeDirection:
    case FrameType::kConfirm:
      send_status(frame, out);
      break;
    case FrameType::kDeallocate:
      if (frame.flags == static_cast<uint8_t>(engine::DeallocKind::kAbend)) {
        send_abend(frame.payload, out);
      } else {
        send_status(frame, out);
      }
      break;
    case FrameType::kSendError:
      send_error(frame, out);
      break;
    case FrameType::kAttachFailed:
      report_error({allocation_sense(frame.code), {}, true}, out);
      break;
    default:
      break;
  }
  return out;
}

Output ConversationTranslator::send_attach() {
  Output out;
  if (!ended_ && !bracket_begun_ && !attach_.empty() && !awaiting_turn_) end_chain({}, out);
  return out;
}

Output ConversationTranslator::on_link_lost() {
  if (!bracket_begun_) {
    // The TP died before anything reached the partner: there is nothing to
    // end there, and what it had not finished sending dies with it.
    attach_.clear();
    pending_.clear();
    ended_ = true;
    return {};
  }
  process_ended_ = true;
  Frame abend;
  abend.type = FrameType::kDeallocate;
  abend.flags = static_cast<uint8_t>(engine::DeallocKind::kAbend);
  return on_frame(abend);
}

Output ConversationTranslator::on_session_failure(uint32_t sense) {
  Output out;
  if (ended_) return out;
  ended_ = true;
  out.failure = session_failure_code(sense);
  return out;
}

void ConversationTranslator::start_chain() {
  if (attach_.empty()) return;
  pending_.insert(pending_.begin(), attach_.begin(), attach_.end());
  attach_.clear();
  chain_fmh_ = true;
}

void ConversationTranslator::append_data(const Frame &frame, Output &out) {
  if (!holder_) return;  // the engine never sends data without the turn
  start_chain();
  // The chain's bytes leave as the last RU's buffer, which the session gives
  // back to the pool once sent: the next record's come from there rather
  // than from a fresh allocation.
  if (pending_.capacity() == 0) pending_ = pooled_buffer(frame.payload.size() + 16);
  // Room for the record and its segment headers at once: grown a header at a
  // time, a large record would be copied into ever larger buffers.
  pending_.reserve(pending_.size() + frame.payload.size() + frame.payload.size() / 8192 + 8);
  if (framing_ == RecordFraming::kMapped) {
    append_gds(kGdsApplicationData, frame.payload, pending_);
  } else {
    // Basic data is already a stream of LL records as the TP wrote them.
    pending_.insert(pending_.end(), frame.payload.begin(), frame.payload.end());
  }
  emit_full_rus(out);
  // Without "more follows" the TP flushed: the chain ends here.  With it, the
  // status that follows ends the chain on its last RU.
  if ((frame.flags & engine::kDataMoreFollows) == 0) end_chain({}, out);
}

void ConversationTranslator::emit_full_rus(Output &out) {
  size_t at = 0;
  while (pending_.size() - at > max_ru_) {
    Unit unit{request_rh(RuCategory::kFmd, !chain_open_, false, !chain_open_ && chain_fmh_), {}};
    unit.rh.bbi = !bracket_begun_;
    unit.ru.assign(pending_.begin() + at, pending_.begin() + at + max_ru_);
    at += max_ru_;
    out.units.push_back(std::move(unit));
    chain_open_ = bracket_begun_ = true;
  }
  pending_.erase(pending_.begin(), pending_.begin() + at);
}

void ConversationTranslator::end_chain(ChainEnd end, Output &out) {
  start_chain();
  emit_full_rus(out);
  Unit unit;
  if (pending_.empty() && !chain_open_) {
    // Nothing to carry the indicators: a LUSTAT alone does.
    unit.rh = request_rh(RuCategory::kDfc, true, true, true);
    encode_lustat(Lustat{decision::kLustatNullStatus}, unit.ru);
  } else {
    unit.rh = request_rh(RuCategory::kFmd, !chain_open_, true, !chain_open_ && chain_fmh_);
    unit.ru = std::move(pending_);
  }
  unit.rh.bbi = !bracket_begun_;
  unit.rh.cdi = end.cd;
  unit.rh.cebi = end.ceb;
  if (end.definite) unit.rh.set_form(static_cast<ResponseForm>(decision::kConfirmResponseForm));
  out.units.push_back(std::move(unit));
  pending_.clear();
  chain_open_ = chain_fmh_ = false;
  bracket_begun_ = true;
  if (end.cd || end.ceb) holder_ = false;
  if (end.definite) {
    awaiting_confirmed_ = end;
  } else if (end.ceb) {
    ended_ = true;
  }
}

void ConversationTranslator::close_open_chain(Output &out) {
  if (!attach_.empty() || !pending_.empty() || chain_open_) end_chain({}, out);
}

void ConversationTranslator::send_error_description(const DeferredError &error, Output &out) {
  close_open_chain(out);
  encode_error_description(ErrorDescription{error.sense, !error.log_data.empty()}, pending_);
  if (!error.log_data.empty()) append_error_log(error.log_data, pending_);
  chain_fmh_ = true;
  end_chain(ChainEnd{false, error.ends_bracket, false}, out);
}

void ConversationTranslator::send_status(const Frame &frame, Output &out) {
  if (!holder_) return;
  ChainEnd end;
  if (frame.type == FrameType::kChangeDirection) {
    end.cd = true;
  } else if (frame.type == FrameType::kDeallocate) {
    end.ceb = true;
  } else {
    end.definite = true;
    end.cd = frame.flags == static_cast<uint8_t>(engine::ConfirmKind::kChangeDirection);
    end.ceb = frame.flags == static_cast<uint8_t>(engine::ConfirmKind::kDeallocate);
  }
  end_chain(end, out);
}

void ConversationTranslator::send_error(const Frame &frame, Output &out) {
  const auto kind = static_cast<engine::SendErrorKind>(frame.flags);
  DeferredError error{kind == engine::SendErrorKind::kTruncation ? sense::kProgramErrorTruncation
                                                                 : sense::kProgramErrorNoTruncation,
                      frame.payload, false};
  // Data this side received and did not take (Receive, a confirm state, or
  // Send-Pending with the error in what came): the partner purges.
  if (kind == engine::SendErrorKind::kPurging || !holder_) {
    error_with_negative_response(std::move(error), out);
    return;
  }
  send_error_description(error, out);
}

void ConversationTranslator::send_abend(const Bytes &log_data, Output &out) {
  if (!bracket_begun_ && pending_.empty()) {
    // Nothing has reached the partner and no data waits for it: there is no
    // conversation to end there.  Data the TP sent first still goes, with
    // the Attach, before the abend.
    attach_.clear();
    ended_ = true;
    return;
  }
  report_error(
      {process_ended_ ? kSenseTpProcessEnded : sense::kDeallocateAbendProgram, log_data, true},
      out);
}

void ConversationTranslator::report_error(DeferredError error, Output &out) {
  if (holder_) {
    send_error_description(error, out);
  } else {
    error_with_negative_response(std::move(error), out);
  }
}

void ConversationTranslator::negative_response(uint32_t sense, Output &out) {
  if (!request_received_) {
    // Nothing to answer yet: the partner's data may still be on its way.
    negative_response_due_ = true;
    return;
  }
  Unit rsp{response_rh(last_request_, true), {}};
  NegativeResponse nr{sense, std::nullopt};
  if (last_request_.category != RuCategory::kFmd && decision::kNegativeResponseEchoesRequestCode) {
    nr.request_code = kRequestLustat;
  }
  encode_negative_response(nr, rsp.ru);
  out.units.push_back(std::move(rsp));
  response_owed_ = false;
}

void ConversationTranslator::error_with_negative_response(DeferredError error, Output &out) {
  // A confirm with CD or CEB gave this side the turn along with the request.
  const bool turn_given = holder_ || (response_owed_ && (last_request_.cdi || last_request_.cebi));
  const bool purging = error.sense == sense::kProgramErrorNoTruncation;
  negative_response(sense::kErpMessageForthcoming, out);
  // A record the partner had begun will not be finished.
  assembler_.reset();
  if (turn_given) {
    holder_ = true;
    send_error_description(error, out);
    if (purging) out.frames.push_back(error_seen());
    return;
  }
  awaiting_turn_ = true;
  deferred_ = std::move(error);
}

void ConversationTranslator::take_turn(Output &out) {
  awaiting_turn_ = false;
  holder_ = true;
  const DeferredError error = std::move(*deferred_);
  deferred_.reset();
  send_error_description(error, out);
  // Everything the partner sent before it knew of the error is dropped.
  if (error.sense == sense::kProgramErrorNoTruncation) {
    out.frames.push_back(error_seen());
  }
  std::vector<Frame> held = std::move(held_frames_);
  held_frames_.clear();
  for (const Frame &frame : held) {
    Output more = on_frame(frame);
    for (auto &unit : more.units) out.units.push_back(std::move(unit));
    for (auto &f : more.frames) out.frames.push_back(std::move(f));
  }
}

void ConversationTranslator::answer_pending_request(Output &out) {
  if (!response_owed_) return;
  Unit rsp{response_rh(last_request_, false), {}};
  if (last_request_.category != RuCategory::kFmd) rsp.ru.push_back(kRequestLustat);
  out.units.push_back(std::move(rsp));
  response_owed_ = false;
  if (last_request_.cebi) {
    ended_ = true;
  } else if (last_request_.cdi) {
    holder_ = true;
  }
}

}  // namespace snanode::net::lu62

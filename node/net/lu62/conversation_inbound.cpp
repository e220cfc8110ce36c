// Units from the session → frames for the local TP.
#include "net/formats/control_rus.h"
#include "net/formats/fmh7.h"
#include "net/formats/sense_codes.h"
#include "net/formats/wire_decisions.h"
#include "net/lu62/conversation_codes.h"
#include "net/lu62/conversation_translator.h"
#include "snanode/verbs.h"

namespace snanode::net::lu62 {

using engine::Frame;
using engine::FrameType;

namespace {

Frame make_frame(FrameType type, uint8_t flags = 0, Bytes payload = {}, uint32_t code = 0) {
  Frame frame;
  frame.type = type;
  frame.flags = flags;
  frame.code = code;
  frame.payload = std::move(payload);
  return frame;
}

// Confirmations ask for DR2 (RQD2 or RQD3, D10); RQD1 alone asks only the
// session for a response.
bool asks_confirmation(const Rh &rh) {
  return rh.dr2 && !rh.eri;
}

bool starts_with_fmh(const Rh &rh, ByteSpan ru, uint8_t type) {
  return rh.category == RuCategory::kFmd && rh.fi && ru.size() >= 2 && (ru[1] & 0x7F) == type;
}

}  // namespace

Output ConversationTranslator::on_unit(const Rh &rh, ByteSpan ru) {
  Output out;
  if (ended_) return out;
  if (rh.response) {
    take_response(rh, ru, out);
  } else {
    take_request(rh, ru, out);
  }
  return out;
}

Output ConversationTranslator::on_request_to_send() {
  Output out;
  if (!ended_) out.frames.push_back(make_frame(FrameType::kRequestToSend));
  return out;
}

void ConversationTranslator::fail(uint32_t sense, Output &out) {
  out.protocol_error = sense;
  out.failure = AP_CONV_FAILURE_NO_RETRY;
  ended_ = true;
}

void ConversationTranslator::take_response(const Rh &rh, ByteSpan ru, Output &out) {
  const bool signal = rh.category == RuCategory::kDfc && !ru.empty() && ru[0] == kRequestSig;
  if (!rh.rti) {
    if (signal || !awaiting_confirmed_) return;
    const ChainEnd asked = *awaiting_confirmed_;
    awaiting_confirmed_.reset();
    out.frames.push_back(make_frame(FrameType::kConfirmed));
    if (asked.ceb) ended_ = true;
    return;
  }
  const auto rsp = decode_negative_response(ru);
  if (!rsp) return fail(rsp.sense(), out);
  if (signal) return;  // a refused request-to-send changes nothing
  if (rsp->sense != sense::kErpMessageForthcoming) return fail(rsp->sense, out);
  // The partner has an error to report and purges what this side sent.  A
  // confirmation this side asked for is answered by that error instead; a
  // deallocation it asked to confirm did not happen.
  awaiting_confirmed_.reset();
  if (error_expected_) return;  // a second −RSP, to a request that crossed the first
  error_expected_ = true;
  if (holder_) {
    // Give the partner the turn for its FMH-7.  The bytes held back for the
    // chain in progress only carry the CD: the partner drops them.
    if (!chain_open_) pending_.clear();
    end_chain(ChainEnd{true, false, false}, out);
  }
}

void ConversationTranslator::take_request(const Rh &rh, ByteSpan ru, Output &out) {
  if (rh.category == RuCategory::kDfc && !ru.empty() && ru[0] == kRequestSig) {
    if (!decode_signal(ru)) return;  // the session layer refuses bad signals
    out.frames.push_back(make_frame(FrameType::kRequestToSend));
    Unit rsp{response_rh(rh, false), {kRequestSig}, true};
    out.units.push_back(std::move(rsp));
    return;
  }
  const bool carrier = rh.category == RuCategory::kDfc && !ru.empty() && ru[0] == kRequestLustat;
  if (rh.category != RuCategory::kFmd && !carrier) return;  // the session layer's
  if (holder_ && !awaiting_turn_) return fail(sense::kDirectionError, out);
  last_request_ = rh;
  response_owed_ = asks_confirmation(rh);
  request_received_ = true;
  if (negative_response_due_) {
    negative_response_due_ = false;
    negative_response(sense::kErpMessageForthcoming, out);
  } else if (rh.form() == ResponseForm::kRqd1) {
    // A partner may end a bracket with RQD1 (Deallocate flush): answered at
    // once, the TP has nothing to confirm.
    Unit rsp{response_rh(rh, false), {}};
    if (carrier) rsp.ru.push_back(kRequestLustat);
    out.units.push_back(std::move(rsp));
  }
  if (carrier) ru = {};
  if (awaiting_turn_) return take_while_awaiting_turn(rh, ru, out);
  // FI on the unit that begins the bracket points at its FMH-5; what follows
  // it in the RU is data.
  const bool attach_unit = !attach_taken_;
  if (attach_unit && !take_attach(rh, ru, out)) return;
  if (!attach_unit && collect_error_chain(rh, ru)) {
    take_error_description(out);
    if (ended_ || awaiting_turn_) return;
  } else if (in_error_chain_) {
    return;
  }
  deliver_data(ru, out);
  if (!ended_ && rh.eci) end_of_chain(rh, out);
}

bool ConversationTranslator::take_attach(const Rh &rh, ByteSpan &ru, Output &out) {
  if (!bracket_begun_) {
    bracket_begun_ = true;
    // BB is the session's to check: after a granted bid the Attach comes
    // without it.
    if (!starts_with_fmh(rh, ru, kFmhTypeAttach)) {
      fail(sense::kNoBeginBracket, out);
      return false;
    }
  }
  // An FMH-5 longer than the RU size spans the first RUs of the chain.
  attach_in_.insert(attach_in_.end(), ru.begin(), ru.end());
  ru = {};
  if (attach_in_.size() < attach_in_[0] && !rh.eci) return false;
  attach_taken_ = true;
  ByteReader in(attach_in_);
  auto attach = decode_attach(in);
  if (!attach) {
    // Answered like a refused allocation, with the reason the decoder gave.
    if (rh.cdi) holder_ = true;
    report_error({attach.sense(), {}, true}, out);
    return false;
  }
  const auto resource = attach->resource;
  framing_ = resource == ConversationResource::kBasicHalfDuplex ||
                     resource == ConversationResource::kBasicFullDuplex
                 ? RecordFraming::kBasic
                 : RecordFraming::kMapped;
  assembler_ = RecordAssembler(framing_);
  out.attach = std::move(attach.value());
  ru = in.rest();  // stays in attach_in_, which is not touched again
  return true;
}

void ConversationTranslator::take_while_awaiting_turn(const Rh &rh, ByteSpan ru, Output &out) {
  // Only the partner's own ending, which crossed this side's error, still
  // counts; its data and statuses were sent before it knew of the error.
  if (collect_error_chain(rh, ru)) {
    ByteReader in(error_chain_);
    const auto fmh7 = decode_error_description(in);
    const ErrorMeaning meaning = fmh7 ? error_meaning(fmh7->sense) : ErrorMeaning::kOther;
    if (meaning == ErrorMeaning::kAbend || meaning == ErrorMeaning::kPartnerProcessEnded) {
      take_error_description(out);
      ended_ = true;  // an abend ends the bracket; this side's error is moot
      return;
    }
    in_error_chain_ = false;
  }
  if (in_error_chain_ || !rh.eci) return;
  if (rh.cebi && !response_owed_) {
    add_status(make_frame(FrameType::kDeallocate), out);
    ended_ = true;
    return;
  }
  const bool turn = rh.cdi || rh.cebi;
  if (response_owed_) negative_response(sense::kErpMessageForthcoming, out);
  if (turn) take_turn(out);
}

bool ConversationTranslator::collect_error_chain(const Rh &rh, ByteSpan &ru) {
  if (rh.bci && starts_with_fmh(rh, ru, kFmhTypeErrorDescription)) {
    in_error_chain_ = true;
    error_chain_.clear();
  }
  if (!in_error_chain_) return false;
  error_chain_.insert(error_chain_.end(), ru.begin(), ru.end());
  ru = {};
  return rh.eci;
}

void ConversationTranslator::take_error_description(Output &out) {
  in_error_chain_ = false;
  ByteReader in(error_chain_);
  const auto fmh7 = decode_error_description(in);
  if (!fmh7) return fail(fmh7.sense(), out);
  Bytes log_data;
  if (fmh7->log_data_follows) {
    auto log = read_error_log(in);
    if (!log) return fail(log.sense(), out);
    log_data = std::move(log.value());
  }
  // What the partner's error cut short will not be finished.
  assembler_.reset();
  const bool purging = error_expected_;
  error_expected_ = false;
  const ErrorMeaning meaning = error_meaning(fmh7->sense);
  if (meaning == ErrorMeaning::kProgramError || meaning == ErrorMeaning::kProgramErrorTruncation) {
    if (tp_gone_) {
      // The TP ended while the partner's error was on its way.
      send_abend({}, out);
      return;
    }
    const auto kind = meaning == ErrorMeaning::kProgramErrorTruncation
                          ? engine::SendErrorKind::kTruncation
                      : purging ? engine::SendErrorKind::kPurging
                                : engine::SendErrorKind::kNoTruncation;
    out.frames.push_back(
        make_frame(FrameType::kSendError, static_cast<uint8_t>(kind), std::move(log_data)));
    // What the TP sent before it reads this error is what the partner purges;
    // its engine answers the error with ERROR_SEEN after all of it.
    stale_until_error_seen_ = kind == engine::SendErrorKind::kPurging;
  } else if (meaning == ErrorMeaning::kPartnerProcessEnded) {
    // Nothing the partner's TP said ends this: its node did, for it.
    out.failure = AP_CONV_FAILURE_NO_RETRY;
    terminal_delivered_ = true;
  } else if (meaning == ErrorMeaning::kAllocationError) {
    out.frames.push_back(
        make_frame(FrameType::kAttachFailed, 0, {}, allocation_secondary(fmh7->sense)));
    terminal_delivered_ = true;
  } else {
    // An abend, or a reason this node has no return code for: either way the
    // partner's program ended the conversation.
    out.frames.push_back(make_frame(FrameType::kDeallocate,
                                    static_cast<uint8_t>(engine::DeallocKind::kAbend),
                                    std::move(log_data)));
    terminal_delivered_ = true;
  }
  deliver_data(in.rest(), out);
}

void ConversationTranslator::deliver_data(ByteSpan bytes, Output &out) {
  if (bytes.empty() || terminal_delivered_) return;
  if (framing_ == RecordFraming::kBasic) {
    // The TP's engine cuts the LL records itself, across RUs and chains.
    out.frames.push_back(make_frame(FrameType::kData, 0, Bytes(bytes.begin(), bytes.end())));
    return;
  }
  std::vector<Record> records;
  if (const uint32_t sense = assembler_.feed(bytes, records)) return fail(sense, out);
  for (auto &record : records) {
    if (record.id != kGdsApplicationData) continue;  // null data and the like carry nothing
    out.frames.push_back(make_frame(FrameType::kData, 0, std::move(record.data)));
  }
}

void ConversationTranslator::add_status(Frame frame, Output &out) {
  // Data sent with a status is received together with it.
  if (!out.frames.empty() && out.frames.back().type == FrameType::kData) {
    out.frames.back().flags |= engine::kDataMoreFollows;
  }
  out.frames.push_back(std::move(frame));
}

void ConversationTranslator::end_of_chain(const Rh &rh, Output &out) {
  if (terminal_delivered_) {
    if (rh.cebi) ended_ = true;
    return;
  }
  if (response_owed_) {
    const auto kind = rh.cdi    ? engine::ConfirmKind::kChangeDirection
                      : rh.cebi ? engine::ConfirmKind::kDeallocate
                                : engine::ConfirmKind::kPlain;
    add_status(make_frame(FrameType::kConfirm, static_cast<uint8_t>(kind)), out);
  } else if (rh.cebi) {
    add_status(make_frame(FrameType::kDeallocate), out);
    ended_ = true;
  } else if (rh.cdi) {
    add_status(make_frame(FrameType::kChangeDirection), out);
    holder_ = true;
  }
}

}  // namespace snanode::net::lu62

#include "net/lu62/session.h"

#include "net/formats/control_rus.h"
#include "net/formats/sense_codes.h"
#include "net/formats/shared_bytes.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net::lu62 {
namespace {

Rh control_request(RuCategory category) {
  Rh rh;
  rh.category = category;
  rh.fi = true;
  rh.set_form(ResponseForm::kRqd1);
  return rh;
}

bool definite(const Rh &rh) {
  return (rh.dr1 || rh.dr2) && !rh.eri;
}

std::optional<uint8_t> request_code(const Rh &rh, ByteSpan ru) {
  if (rh.category == RuCategory::kFmd || ru.empty()) return std::nullopt;
  return ru[0];
}

}  // namespace

Session::Session(SessionHost &host, const SessionAddress &address, std::string partner,
                 std::string mode, const SessionParams &params)
    : host_(host),
      address_(address),
      partner_(std::move(partner)),
      mode_(std::move(mode)),
      params_(params),
      send_pacer_(params.send_window),
      receive_pacer_(params.receive_window),
      send_expedited_snf_(params.primary ? 1 : 0) {}

void Session::transmit(const Fid5Th &th, const Rh &rh, ByteSpan ru) {
  // The host may keep the BIU's buffer until the partner has it, instead of
  // copying it; a buffer it leaves here goes back to the pool.
  Bytes biu = pooled_buffer(kFid5ThSize + kRhSize + ru.size());
  encode_biu(th, rh, ru, biu);
  host_.transmit_buffer(*this, std::move(biu));
  recycle_buffer(std::move(biu));  // nothing when it was kept
}

void Session::answer(const Rh &request, bool expedited, uint16_t snf, std::optional<uint8_t> code,
                     uint32_t sense) {
  const Rh rh = response_rh(request, sense != 0);
  Bytes ru;
  if (sense != 0) {
    NegativeResponse rsp{sense, std::nullopt};
    if (decision::kNegativeResponseEchoesRequestCode) rsp.request_code = code;
    encode_negative_response(rsp, ru);
  } else if (code) {
    ru.push_back(*code);
  }
  transmit(Fid5Th{.expedited = expedited, .snf = snf, .session_address = address_}, rh, ru);
}

Status Session::send_request(Rh rh, ByteSpan ru) {
  return send_request(rh, ru, nullptr);
}

Status Session::send_request(Rh rh, Bytes &&ru) {
  return send_request(rh, ru, &ru);
}

Status Session::send_request(Rh rh, ByteSpan ru, Bytes *owned) {
  if (state_ != SessionState::kActive || rh.response) return {sense::kFunctionNotSupported};
  if (ru.size() > params_.max_send_ru) return {decision::kSenseRuLength};
  if (uint32_t s = check_request_indicators(rh)) return {s};
  if (rh.bci == sending_chain_) return {sense::kChainingError};
  if (rh.bci) {
    switch (bracket_) {
      case Bracket::kBetween:
        // Only the contention winner begins a bracket unasked; a loser's
        // bracket begins with its accepted bid.
        if (!params_.local_winner) return {sense::kBracketError};
        rh.bbi = true;
        bracket_ = Bracket::kLocal;
        break;
      case Bracket::kBidding:
        return {sense::kBracketError};
      case Bracket::kLocal:
      case Bracket::kPartner:
        rh.bbi = false;
        break;
    }
  } else {
    rh.bbi = false;
  }
  sending_chain_ = !rh.eci;
  const bool paced = rh.category == RuCategory::kFmd;
  if (!held_.empty() || (paced && !send_pacer_.can_send())) {
    held_.push_back({rh, owned != nullptr ? std::move(*owned) : Bytes(ru.begin(), ru.end())});
    return {};
  }
  transmit_normal_request(rh, ru);
  return {};
}

void Session::transmit_normal_request(Rh rh, ByteSpan ru) {
  if (rh.category == RuCategory::kFmd) rh.pi = send_pacer_.on_send();
  ++send_snf_;
  transmit(Fid5Th{.snf = send_snf_, .session_address = address_}, rh, ru);
  if (rh.cebi) {
    if (definite(rh)) {
      local_ceb_snf_ = send_snf_;
    } else {
      end_bracket();
    }
  }
}

void Session::flush_held() {
  const bool had_held = !held_.empty();
  while (!held_.empty() && state_ == SessionState::kActive) {
    HeldRequest &front = held_.front();
    if (front.rh.category == RuCategory::kFmd && !send_pacer_.can_send()) return;
    HeldRequest request = std::move(front);
    held_.pop_front();
    transmit_normal_request(request.rh, request.ru);
  }
  if (had_held && held_.empty() && user_) user_->on_send_window_open(*this);
}

Status Session::send_response(const Rh &request, uint16_t snf, uint32_t negative_sense) {
  if (state_ != SessionState::kActive) return {sense::kFunctionNotSupported};
  std::optional<uint8_t> code;
  if (request.category == RuCategory::kDfc) code = kRequestLustat;
  answer(request, false, snf, code, negative_sense);
  if (negative_sense == 0 && partner_ceb_snf_ == snf) end_bracket();
  return {};
}

void Session::send_request_to_send() {
  if (state_ != SessionState::kActive) return;
  Bytes ru;
  encode_signal(Signal{}, ru);
  transmit(Fid5Th{.expedited = true, .snf = ++send_expedited_snf_, .session_address = address_},
           control_request(RuCategory::kDfc), ru);
}

Status Session::send_unit(const Rh &rh, Bytes ru, bool expedited) {
  if (!rh.response) {
    if (!expedited) {
      const Status status = send_request(rh, std::move(ru));
      recycle_buffer(std::move(ru));  // nothing when the session holds it
      return status;
    }
    Result<Signal> signal = decode_signal(ru);
    if (!signal) return {signal.sense()};
    send_request_to_send();
    return {};
  }
  if (expedited) return {};
  if (!last_request_) return {sense::kFunctionNotSupported};
  uint32_t negative = 0;
  if (rh.rti) {
    Result<NegativeResponse> rsp = decode_negative_response(ru);
    if (!rsp || rsp->sense == 0) return {sense::kParameterError};
    negative = rsp->sense;
  }
  return send_response(last_request_->rh, last_request_->snf, negative);
}

void Session::set_receive_ready(bool ready) {
  if (std::optional<uint16_t> snf = receive_pacer_.set_ready(ready)) send_pacing_response(*snf);
}

void Session::send_pacing_response(uint16_t snf) {
  if (state_ != SessionState::kActive) return;
  Rh rh;
  rh.response = true;
  rh.pi = true;
  Bytes ru;
  encode_ipm(Ipm{IpmType::kSolicited, false, receive_pacer_.window()}, ru);
  transmit(Fid5Th{.expedited = true, .snf = snf, .session_address = address_}, rh, ru);
}

bool Session::bid() {
  if (!free() || params_.local_winner) return false;
  Rh rh = control_request(RuCategory::kDfc);
  rh.bbi = true;
  Bytes ru;
  encode_lustat(Lustat{decision::kLustatNullStatus}, ru);
  bracket_ = Bracket::kBidding;
  transmit_normal_request(rh, ru);
  bid_snf_ = send_snf_;
  return true;
}

void Session::release() {
  if (state_ != SessionState::kActive) return;
  if (bracket_ == Bracket::kLocal && !sending_chain_) {
    Rh rh;
    rh.category = RuCategory::kDfc;
    rh.fi = true;
    rh.set_form(ResponseForm::kRqe1);
    rh.cebi = true;
    Bytes ru;
    encode_lustat(Lustat{decision::kLustatNullStatus}, ru);
    if (send_request(rh, ru)) return;
  }
  if (bracket_ == Bracket::kBetween && user_) end_bracket();
}

void Session::end_bracket() {
  bracket_ = Bracket::kBetween;
  ++brackets_ended_;
  local_ceb_snf_.reset();
  partner_ceb_snf_.reset();
  last_request_.reset();
  user_ = nullptr;
  if (owe_rtr_) {
    // The loser whose bid was refused may now have the session.
    owe_rtr_ = false;
    transmit_normal_request(control_request(RuCategory::kDfc), Bytes{kRequestRtr});
  }
  host_.on_bracket_free(*this);
}

void Session::unbind(uint8_t type, uint32_t sense) {
  if (state_ != SessionState::kActive) return;
  Bytes ru;
  encode_unbind(Unbind{type, sense, {}}, ru);
  transmit(Fid5Th{.expedited = true, .snf = ++send_expedited_snf_, .session_address = address_},
           control_request(RuCategory::kSc), ru);
  state_ = SessionState::kUnbinding;
  end(sense);
}

void Session::fail(uint32_t sense, const BiuView *request) {
  if (state_ != SessionState::kActive) return;
  if (request && !request->rh.response) {
    answer(request->rh, request->th.expedited, request->th.snf,
           request_code(request->rh, request->ru), sense);
  }
  unbind(decision::kUnbindInvalidSessionParameters, sense);
}

void Session::lost(uint32_t sense) {
  if (state_ == SessionState::kEnded) return;
  state_ = SessionState::kEnded;
  end(sense);
}

void Session::end(uint32_t sense) {
  SessionUser *user = user_;
  user_ = nullptr;
  held_.clear();
  if (user) user->on_session_ended(*this, sense);
  host_.on_ended(*this, sense);
}

void Session::on_unit(const BiuView &unit) {
  if (state_ == SessionState::kEnded) return;
  const RuKind kind = classify(unit);
  if (state_ == SessionState::kUnbinding) {
    // Only the end of the UNBIND exchange matters now: its response, or the
    // partner's own UNBIND crossing ours.
    if (kind == RuKind::kUnbind) answer(unit.rh, true, unit.th.snf, kRequestUnbind, 0);
    if (kind == RuKind::kUnbind || (unit.rh.response && unit.th.expedited)) {
      state_ = SessionState::kEnded;
    }
    return;
  }
  if (unit.th.expedited) {
    on_expedited(unit, kind);
  } else if (unit.rh.response) {
    on_normal_response(unit);
  } else {
    on_request(unit, kind);
  }
}

void Session::on_expedited(const BiuView &unit, RuKind kind) {
  switch (kind) {
    case RuKind::kUnbind: {
      Result<Unbind> unbind = decode_unbind(unit.ru);
      answer(unit.rh, true, unit.th.snf, kRequestUnbind, 0);
      state_ = SessionState::kEnded;
      uint32_t sense = unbind ? unbind->sense : 0;
      // Conversations cut by an UNBIND that names no cause still learn that
      // the session was reset under them.
      if (sense == 0 && (!unbind || unbind->type != decision::kUnbindNormal)) {
        sense = sense::kSessionResetCleanup;
      }
      end(sense);
      return;
    }
    case RuKind::kSignal: {
      Result<Signal> signal = decode_signal(unit.ru);
      if (!signal) return fail(signal.sense(), &unit);
      answer(unit.rh, true, unit.th.snf, kRequestSig, 0);
      if (user_) user_->on_request_to_send(*this);
      return;
    }
    case RuKind::kIsolatedPacing: {
      if (!decode_ipm(unit.ru) || !send_pacer_.on_pacing_response()) {
        return fail(decision::kSensePacingError);
      }
      flush_held();
      return;
    }
    case RuKind::kPositiveResponse:
    case RuKind::kNegativeResponse:
      return;  // to a SIG: nothing waits for it
    default:
      return fail(sense::kFunctionNotSupported, &unit);
  }
}

bool Session::accept_partner_bracket(const BiuView &unit, bool is_bid) {
  const bool reject = bracket_ == Bracket::kLocal ||
                      (bracket_ == Bracket::kBetween && user_ && params_.local_winner);
  if (bracket_ == Bracket::kPartner) {
    fail(sense::kBracketError, &unit);
    return false;
  }
  if (reject) {
    // The winner's own bracket goes ahead; the rest of the refused chain is
    // dropped as it arrives.
    answer(unit.rh, false, unit.th.snf, request_code(unit.rh, unit.ru),
           sense::kBracketBidRejectRtr);
    discarding_chain_ = !unit.rh.eci;
    owe_rtr_ = true;
    return false;
  }
  bracket_ = Bracket::kPartner;
  if (is_bid) {
    if (unit.rh.dr1 || unit.rh.dr2) answer(unit.rh, false, unit.th.snf, kRequestLustat, 0);
    return false;
  }
  return true;
}

void Session::on_request(const BiuView &unit, RuKind kind) {
  const Rh &rh = unit.rh;
  if (uint32_t s = check_request_indicators(rh)) return fail(s, &unit);
  if (unit.th.snf != static_cast<uint16_t>(receive_snf_ + 1)) {
    return fail(sense::kSequenceNumberError, &unit);
  }
  receive_snf_ = unit.th.snf;
  if (unit.ru.size() > params_.max_receive_ru) return fail(decision::kSenseRuLength, &unit);
  if (discarding_chain_) {
    if (rh.bci) return fail(sense::kChainingError, &unit);
    discarding_chain_ = !rh.eci;
    return;
  }
  if (rh.bci == receiving_chain_) return fail(sense::kChainingError, &unit);
  const bool fmd = rh.category == RuCategory::kFmd;
  if (!fmd && kind != RuKind::kLustat && kind != RuKind::kReadyToReceive) {
    return fail(sense::kFunctionNotSupported, &unit);
  }
  if (fmd) {
    bool within_window = true;
    std::optional<uint16_t> owed = receive_pacer_.on_request(rh.pi, unit.th.snf, within_window);
    if (!within_window) return fail(decision::kSensePacingError, &unit);
    if (owed) send_pacing_response(*owed);
  }
  if (kind == RuKind::kReadyToReceive) {
    const bool wanted = bracket_ == Bracket::kBetween && !user_;
    answer(rh, false, unit.th.snf, kRequestRtr, wanted ? 0 : sense::kRtrNotRequired);
    if (wanted) host_.on_bracket_free(*this);
    return;
  }
  if (rh.bbi) {
    if (!accept_partner_bracket(unit, kind == RuKind::kLustat)) return;
  } else if (rh.bci && bracket_ == Bracket::kBetween) {
    return fail(sense::kNoBeginBracket, &unit);
  }
  receiving_chain_ = !rh.eci;
  const bool ends_now = rh.cebi && !definite(rh);
  // The partner's conversation shows itself with its first FMD chain; the
  // host attaches the conversation that takes it.
  if (!user_ && fmd && bracket_ == Bracket::kPartner) host_.on_partner_bracket(*this);
  if (!user_) {
    // A LUSTAT ending a bracket nobody used (a bid that found nothing to do).
    if (fmd || !rh.cebi) return fail(sense::kFunctionNotSupported, &unit);
    if (!ends_now) answer(rh, false, unit.th.snf, kRequestLustat, 0);
    if (bracket_ != Bracket::kBetween) end_bracket();
    return;
  }
  if (rh.cebi && !ends_now) partner_ceb_snf_ = unit.th.snf;
  last_request_ = ReceivedRequest{rh, unit.th.snf};
  const uint32_t bracket_number = brackets_ended_;
  user_->on_request(*this, rh, unit.ru, unit.th.snf);
  // Unless the conversation already ended this bracket from inside the call.
  if (ends_now && state_ == SessionState::kActive && brackets_ended_ == bracket_number) {
    end_bracket();
  }
}

void Session::on_normal_response(const BiuView &unit) {
  const uint16_t snf = unit.th.snf;
  const bool positive = !unit.rh.rti;
  bool window_opened = false;
  if (unit.rh.pi) {
    if (!send_pacer_.on_pacing_response()) return fail(decision::kSensePacingError);
    window_opened = true;
  }
  if (bid_snf_ == snf) {
    bid_snf_.reset();
    // A refused bid leaves the bracket to whoever has it now (the winner's
    // BB may have arrived first).
    if (bracket_ == Bracket::kBidding) bracket_ = positive ? Bracket::kLocal : Bracket::kBetween;
    host_.on_bid_result(*this, positive && bracket_ == Bracket::kLocal);
  } else if (user_) {
    const bool ends_bracket = local_ceb_snf_ == snf && positive;
    if (local_ceb_snf_ == snf) local_ceb_snf_.reset();
    user_->on_response(*this, unit.rh, unit.ru, snf);
    if (ends_bracket && state_ == SessionState::kActive) end_bracket();
  }
  if (window_opened) flush_held();
}

}  // namespace snanode::net::lu62

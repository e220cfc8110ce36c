// The LU 6.2 state machine of one conversation side.
#include "engine/conversation.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "engine/byte_pool.h"

namespace snanode::engine {
namespace {

void put_result(NAP_HDR &hdr, uint16_t primary, uint32_t secondary = 0) {
  hdr.primary_rc = primary;
  hdr.secondary_rc = secondary;
}

// Completes a verb at once with `primary`; the shape every early exit takes.
bool done(NAP_HDR &hdr, uint16_t primary, uint32_t secondary = 0) {
  put_result(hdr, primary, secondary);
  return true;
}

std::vector<uint8_t> log_bytes(bool mapped, const uint8_t *data, uint16_t length) {
  // Log data belongs to basic conversations; a mapped TP has no way to give it.
  if (mapped || data == nullptr || length == 0) return {};
  return {data, data + length};
}

}  // namespace

Conversation::Conversation(const ConversationSetup &setup, std::unique_ptr<Link> link,
                           ConversationHost &host)
    : setup_(setup),
      link_(std::move(link)),
      host_(host),
      state_(setup.starts_in_send ? ConvState::kSend : ConvState::kReceive) {
  // Input waits for the TP's verbs (see refresh_input_interest).
  link_->set_input_wanted(false);
  link_->attach(this);
}

Conversation::~Conversation() {
  // An owner that drops a live conversation without ending it is a lost
  // partner as far as the other side can tell.
  link_->close(state_ == ConvState::kReset);
}

uint8_t Conversation::take_rts() {
  const bool rts = rts_received_;
  rts_received_ = false;
  return rts ? 1 : 0;
}

// ---- sending ------------------------------------------------------------------

bool Conversation::buffer_data(const uint8_t *data, size_t length, Result &result) {
  if (setup_.mapped) {
    out_records_.push_back(take_buffer(length));
    if (length > 0) std::memcpy(out_records_.back().data(), data, length);
  } else {
    RecordCursor next = out_cursor_;
    if (!next.advance(data, length)) {
      result.primary = AP_PARAMETER_CHECK;
      result.secondary = AP_BAD_FIELD;
      return false;
    }
    out_cursor_ = next;
    out_bytes_.insert(out_bytes_.end(), data, data + length);
  }
  out_size_ += length;
  return true;
}

void Conversation::send_frame(FrameType type, uint8_t flags, std::vector<uint8_t> payload,
                              bool more) {
  Frame frame;
  frame.type = type;
  frame.flags = flags;
  frame.payload = std::move(payload);
  link_->send(std::move(frame), more);
}

void Conversation::send_buffer(bool more_follows) {
  const uint8_t last_flags = more_follows ? kDataMoreFollows : 0;
  // The frames of one flush (and the control frame after them) go together.
  if (setup_.mapped) {
    for (size_t i = 0; i < out_records_.size(); ++i) {
      const bool last = i + 1 == out_records_.size();
      send_frame(FrameType::kData, last ? last_flags : 0, std::move(out_records_[i]),
                 !last || more_follows);
    }
    out_records_.clear();
  } else if (!out_bytes_.empty()) {
    send_frame(FrameType::kData, last_flags, std::move(out_bytes_), more_follows);
    out_bytes_.clear();
  }
  out_size_ = 0;
}

bool Conversation::sends_alone(uint8_t type, size_t length) const {
  if (out_size_ != 0 || length < kPooledBufferSize) return false;
  return type == AP_SEND_FLUSH || (type == AP_SEND_BUFFER && length >= setup_.send_buffer_size);
}

bool Conversation::take_send_notice(Result &result, bool fetch) {
  if (fetch) link_->pull(true);
  if (inbound_.empty()) return false;
  const Inbound &head = inbound_.front();
  if (head.kind == InKind::kErrorPurging) {
    // The partner threw away what we sent and now sends itself.
    inbound_.pop_front();
    out_bytes_.clear();
    out_records_.clear();
    out_size_ = 0;
    out_cursor_.reset();
    state_ = ConvState::kReceive;
    result = {AP_PROG_ERROR_PURGING, 0};
    return true;
  }
  if (terminal_result(head, result)) {
    end_conversation();
    return true;
  }
  return false;
}

bool Conversation::send_confirm(ConfirmKind kind, NAP_HDR &hdr, void *token) {
  Result result;
  if (take_send_notice(result)) return done(hdr, result.primary, result.secondary);
  send_buffer(true);
  state_ = ConvState::kSend;
  send_frame(FrameType::kConfirm, static_cast<uint8_t>(kind));
  wait_for(WaitKind::kConfirmed, &hdr, token, kind);
  return false;
}

bool Conversation::turn_around(bool confirm_first, NAP_HDR &hdr, void *token) {
  if (confirm_first) return send_confirm(ConfirmKind::kChangeDirection, hdr, token);
  Result result;
  if (take_send_notice(result)) return done(hdr, result.primary, result.secondary);
  send_buffer(true);
  send_frame(FrameType::kChangeDirection, 0);
  state_ = ConvState::kReceive;
  return done(hdr, AP_OK);
}

bool Conversation::deallocate_normal(bool confirm_first, NAP_HDR &hdr, void *token) {
  if (confirm_first) return send_confirm(ConfirmKind::kDeallocate, hdr, token);
  Result result;
  if (take_send_notice(result)) return done(hdr, result.primary, result.secondary);
  send_buffer(true);
  send_frame(FrameType::kDeallocate, static_cast<uint8_t>(DeallocKind::kNormal));
  end_conversation();
  return done(hdr, AP_OK);
}

void Conversation::deallocate_abend(std::vector<uint8_t> log_data) {
  if (in_send_state()) {
    send_buffer(true);  // what the TP sent before the abend still reaches the partner
  } else {
    purge_inbound();
  }
  send_frame(FrameType::kDeallocate, static_cast<uint8_t>(DeallocKind::kAbend),
             std::move(log_data));
  end_conversation();
}

// ---- verbs ----------------------------------------------------------------------

bool Conversation::send_data(NAP_SEND_DATA_VCB &vcb, void *token) {
  NAP_HDR &hdr = vcb.hdr;
  const uint8_t type = vcb.send_data_type;
  if (type > AP_SEND_DEALLOC_ABEND) return done(hdr, AP_PARAMETER_CHECK, AP_BAD_FIELD);
  if (vcb.data_length > 0 && vcb.data_pointer == nullptr) {
    return done(hdr, AP_PARAMETER_CHECK, AP_BAD_FIELD);
  }
  if (!in_send_state()) return done(hdr, AP_STATE_CHECK);
  if (type == AP_SEND_CONFIRM && setup_.sync_level == 0) return done(hdr, AP_STATE_CHECK);

  // Types that end a record's run (confirm, turn, deallocate) must not stop
  // inside a basic logical record.
  const bool ends_run = type >= AP_SEND_CONFIRM && type <= AP_SEND_DEALLOC_SYNC_LEVEL;
  if (!setup_.mapped && ends_run) {
    RecordCursor after = out_cursor_;
    if (after.advance(vcb.data_pointer, vcb.data_length) && !after.at_boundary()) {
      return done(hdr, AP_STATE_CHECK);
    }
  }
  Result result;
  // A partner that has purged our data, ended or vanished is reported on the
  // very next send, even one that would only buffer: the TP must not go on
  // filling a buffer that can never reach anyone.  An abend needs no news.
  // A refused attach is different: as over a real session, it is learnt only
  // by a verb that sends to the partner or waits for it.
  const bool refused_attach = !inbound_.empty() && inbound_.front().kind == InKind::kAttachFailed;
  if (type != AP_SEND_DEALLOC_ABEND && !refused_attach && take_send_notice(result, false)) {
    return done(hdr, result.primary, result.secondary);
  }
  if (sends_alone(type, vcb.data_length)) {
    // A large record that goes out at once on its own is written from the
    // TP's buffer, not copied into the send buffer first.
    if (!setup_.mapped && !out_cursor_.advance(vcb.data_pointer, vcb.data_length)) {
      return done(hdr, AP_PARAMETER_CHECK, AP_BAD_FIELD);
    }
    state_ = ConvState::kSend;
    vcb.rts_received = take_rts();
    if (take_send_notice(result)) return done(hdr, result.primary, result.secondary);
    bytes_sent_ += vcb.data_length;
    link_->send_data(0, vcb.data_pointer, vcb.data_length, caller_blocks_);
    return done(hdr, AP_OK);
  }
  if (!buffer_data(vcb.data_pointer, vcb.data_length, result)) {
    return done(hdr, result.primary, result.secondary);
  }
  bytes_sent_ += vcb.data_length;
  state_ = ConvState::kSend;
  vcb.rts_received = take_rts();

  const bool confirm_sync = setup_.sync_level != 0;
  switch (type) {
    case AP_SEND_BUFFER:
      if (out_size_ >= setup_.send_buffer_size) {
        if (take_send_notice(result)) return done(hdr, result.primary, result.secondary);
        send_buffer(false);
      }
      return done(hdr, AP_OK);
    case AP_SEND_FLUSH:
      if (take_send_notice(result)) return done(hdr, result.primary, result.secondary);
      send_buffer(false);
      return done(hdr, AP_OK);
    case AP_SEND_CONFIRM:
      return send_confirm(ConfirmKind::kPlain, hdr, token);
    case AP_SEND_PTR_FLUSH:
      return turn_around(false, hdr, token);
    case AP_SEND_PTR_SYNC_LEVEL:
      return turn_around(confirm_sync, hdr, token);
    case AP_SEND_DEALLOC_FLUSH:
      return deallocate_normal(false, hdr, token);
    case AP_SEND_DEALLOC_SYNC_LEVEL:
      return deallocate_normal(confirm_sync, hdr, token);
    default:
      deallocate_abend({});
      return done(hdr, AP_OK);
  }
}

bool Conversation::receive(NAP_RECEIVE_VCB &vcb, bool wait, void *token) {
  NAP_HDR &hdr = vcb.hdr;
  vcb.what_received = 0;
  vcb.data_length = 0;
  if (vcb.max_length > 0 && vcb.data_pointer == nullptr) {
    return done(hdr, AP_PARAMETER_CHECK, AP_BAD_FIELD);
  }
  if (in_send_state()) {
    // Receive-and-wait in Send state first hands the turn to the partner.
    if (!wait) return done(hdr, AP_STATE_CHECK);
    if (!setup_.mapped && !out_cursor_.at_boundary()) return done(hdr, AP_STATE_CHECK);
    Result result;
    if (take_send_notice(result)) return done(hdr, result.primary, result.secondary);
    send_buffer(true);
    send_frame(FrameType::kChangeDirection, 0);
    state_ = ConvState::kReceive;
  }
  if (state_ != ConvState::kReceive) return done(hdr, AP_STATE_CHECK);
  if (!wait) link_->pull();  // input in Receive state is the TP's to fetch
  if (try_receive(vcb)) return true;
  if (!wait) {
    vcb.rts_received = take_rts();
    return done(hdr, AP_UNSUCCESSFUL);
  }
  wait_for(WaitKind::kReceive, &vcb, token);
  return false;
}

bool Conversation::confirm(NAP_CONFIRM_VCB &vcb, void *token) {
  if (!in_send_state() || setup_.sync_level == 0) return done(vcb.hdr, AP_STATE_CHECK);
  if (!setup_.mapped && !out_cursor_.at_boundary()) return done(vcb.hdr, AP_STATE_CHECK);
  vcb.rts_received = take_rts();
  return send_confirm(ConfirmKind::kPlain, vcb.hdr, token);
}

void Conversation::confirmed(NAP_HDR &hdr) {
  if (!in_confirm_state()) {
    put_result(hdr, AP_STATE_CHECK);
    return;
  }
  send_frame(FrameType::kConfirmed, 0);
  if (state_ == ConvState::kConfirmDeallocate) {
    end_conversation();
  } else {
    state_ = state_ == ConvState::kConfirm ? ConvState::kReceive : ConvState::kSend;
  }
  put_result(hdr, AP_OK);
}

void Conversation::flush(NAP_HDR &hdr) {
  if (!in_send_state()) {
    put_result(hdr, AP_STATE_CHECK);
    return;
  }
  Result result;
  if (take_send_notice(result)) {
    put_result(hdr, result.primary, result.secondary);
    return;
  }
  send_buffer(false);
  state_ = ConvState::kSend;
  put_result(hdr, AP_OK);
}

bool Conversation::prepare_to_receive(NAP_PREPARE_TO_RECEIVE_VCB &vcb, void *token) {
  if (vcb.ptr_type > 1) return done(vcb.hdr, AP_PARAMETER_CHECK, AP_BAD_FIELD);
  if (!in_send_state()) return done(vcb.hdr, AP_STATE_CHECK);
  if (!setup_.mapped && !out_cursor_.at_boundary()) return done(vcb.hdr, AP_STATE_CHECK);
  const bool confirm_first = vcb.ptr_type == 0 && setup_.sync_level != 0;
  return turn_around(confirm_first, vcb.hdr, token);
}

void Conversation::request_to_send(NAP_HDR &hdr) {
  if (state_ != ConvState::kReceive && !in_confirm_state()) {
    put_result(hdr, AP_STATE_CHECK);
    return;
  }
  send_frame(FrameType::kRequestToSend, 0);
  put_result(hdr, AP_OK);
}

void Conversation::send_error(NAP_SEND_ERROR_VCB &vcb) {
  NAP_HDR &hdr = vcb.hdr;
  auto log_data = log_bytes(setup_.mapped, vcb.log_data_pointer, vcb.log_data_length);
  SendErrorKind kind;
  if (in_send_state()) {
    Result result;
    if (take_send_notice(result)) {
      put_result(hdr, result.primary, result.secondary);
      return;
    }
    if (state_ == ConvState::kSendPending && vcb.error_direction == 0) {
      // An error in the data just received: the partner learns its data was
      // not taken, as in Receive state.
      kind = SendErrorKind::kPurging;
    } else {
      kind = !setup_.mapped && !out_cursor_.at_boundary() ? SendErrorKind::kTruncation
                                                          : SendErrorKind::kNoTruncation;
      send_buffer(true);
      out_cursor_.reset();
    }
  } else if (state_ == ConvState::kReceive || in_confirm_state()) {
    Result result;
    for (const auto &item : inbound_) {
      if (terminal_result(item, result)) {
        end_conversation();
        put_result(hdr, result.primary, result.secondary);
        return;
      }
    }
    purge_inbound();
    kind = SendErrorKind::kPurging;
  } else {
    put_result(hdr, AP_STATE_CHECK);
    return;
  }
  // Frames the partner sent before it learns of a purging error may still be
  // on their way (across processes); they are dropped until its answer.
  purging_ = kind == SendErrorKind::kPurging;
  send_frame(FrameType::kSendError, static_cast<uint8_t>(kind), std::move(log_data));
  state_ = ConvState::kSend;
  vcb.rts_received = take_rts();
  put_result(hdr, AP_OK);
}

void Conversation::test_rts(NAP_HDR &hdr) {
  link_->pull();
  put_result(hdr, take_rts() ? AP_OK : AP_UNSUCCESSFUL);
}

bool Conversation::deallocate(NAP_DEALLOCATE_VCB &vcb, void *token) {
  NAP_HDR &hdr = vcb.hdr;
  switch (vcb.dealloc_type) {
    case AP_DEALLOC_ABEND_LOG:
    case AP_DEALLOC_ABEND_MAPPED:
      deallocate_abend(log_bytes(setup_.mapped, vcb.log_data_pointer, vcb.log_data_length));
      return done(hdr, AP_OK);
    case AP_DEALLOC_SYNC_LEVEL:
    case AP_DEALLOC_FLUSH:
      if (!in_send_state()) return done(hdr, AP_STATE_CHECK);
      if (!setup_.mapped && !out_cursor_.at_boundary()) return done(hdr, AP_STATE_CHECK);
      return deallocate_normal(vcb.dealloc_type == AP_DEALLOC_SYNC_LEVEL && setup_.sync_level != 0,
                               hdr, token);
    default:
      return done(hdr, AP_PARAMETER_CHECK, AP_BAD_FIELD);
  }
}

void Conversation::get_state(NAP_GET_STATE_VCB &vcb) const {
  vcb.conv_state = static_cast<uint8_t>(state_);
  put_result(vcb.hdr, AP_OK);
}

void Conversation::refuse_attach(uint32_t secondary) {
  Frame frame;
  frame.type = FrameType::kAttachFailed;
  frame.code = secondary;
  link_->send(std::move(frame));
  end_conversation();
}

void Conversation::abort(uint16_t waiting_rc) {
  if (state_ != ConvState::kReset) {
    send_frame(FrameType::kDeallocate, static_cast<uint8_t>(DeallocKind::kAbend));
    end_conversation();
  }
  complete_waiting(Result{waiting_rc, 0});
}

void Conversation::drop(uint16_t waiting_rc) {
  link_->close(false);
  state_ = ConvState::kReset;
  inbound_.clear();
  complete_waiting(Result{waiting_rc, 0});
}

// ---- receiving --------------------------------------------------------------------

void Conversation::enqueue(InKind kind, std::vector<uint8_t> bytes, uint32_t code) {
  inbound_.push_back(Inbound{kind, std::move(bytes), 0, code});
}

void Conversation::on_frame(Frame &&frame) {
  take_frame(std::move(frame));
  refresh_input_interest();
}

void Conversation::take_frame(Frame &&frame) {
  if (state_ == ConvState::kReset) return;
  if (frame.type == FrameType::kErrorSeen) {
    purging_ = false;
    return;
  }
  if (purging_ && frame.type != FrameType::kDeallocate && frame.type != FrameType::kAttachFailed &&
      frame.type != FrameType::kFailure && frame.type != FrameType::kRequestToSend) {
    // Sent before the partner knew this side purges: purged too.  Only its
    // ending, which no error can undo, still counts.
    give_back_buffer(std::move(frame.payload));
    return;
  }
  control_follows_ = frame.type == FrameType::kData && (frame.flags & kDataMoreFollows) != 0;
  if (frame.type == FrameType::kData && frame.landed != 0) {
    // Read into the receive that waits (mapped, nothing ahead of it).
    bytes_received_ += frame.landed;
    inbound_.push_back(Inbound{InKind::kData, {}, 0, 0, frame.landed});
    if ((frame.flags & kDataMoreFollows) == 0) service_waiting();
    return;
  }
  if (frame.type == FrameType::kData) {
    bytes_received_ += frame.payload.size();
    inbound_data_ += frame.payload.size();
    if (!setup_.mapped && !inbound_.empty() && inbound_.back().kind == InKind::kData) {
      auto &bytes = inbound_.back().bytes;
      bytes.insert(bytes.end(), frame.payload.begin(), frame.payload.end());
      give_back_buffer(std::move(frame.payload));
    } else {
      enqueue(InKind::kData, std::move(frame.payload));
    }
    if ((frame.flags & kDataMoreFollows) == 0) service_waiting();
    return;
  }
  if (frame.type == FrameType::kRequestToSend) {
    rts_received_ = true;
    return;
  }
  if (frame.type == FrameType::kConfirmed) {
    if (waiting_.kind == WaitKind::kConfirmed) {
      report_rts_with_confirmed();
      if (waiting_.after == ConfirmKind::kDeallocate) {
        end_conversation();
      } else if (waiting_.after == ConfirmKind::kChangeDirection) {
        state_ = ConvState::kReceive;
      }
      complete_waiting(Result{AP_OK, 0});
    }
    return;
  }
  // Whatever else comes ends the partner's run of data: a record it left
  // incomplete will never be finished.
  truncate_incomplete_record();
  if (!frame.payload.empty() && !setup_.mapped) host_.partner_log_data(id(), frame.payload);
  switch (frame.type) {
    case FrameType::kChangeDirection:
      enqueue(InKind::kChangeDirection);
      break;
    case FrameType::kConfirm:
      enqueue(frame.flags == static_cast<uint8_t>(ConfirmKind::kChangeDirection)
                  ? InKind::kConfirmSend
              : frame.flags == static_cast<uint8_t>(ConfirmKind::kDeallocate)
                  ? InKind::kConfirmDeallocate
                  : InKind::kConfirm);
      break;
    case FrameType::kSendError:
      enqueue(frame.flags == static_cast<uint8_t>(SendErrorKind::kPurging) ? InKind::kErrorPurging
              : frame.flags == static_cast<uint8_t>(SendErrorKind::kTruncation)
                  ? InKind::kErrorTrunc
                  : InKind::kErrorNoTrunc);
      // Whatever this side sent before now, the partner drops; it keeps
      // dropping until it hears that this side knows.
      if (frame.flags == static_cast<uint8_t>(SendErrorKind::kPurging)) {
        send_frame(FrameType::kErrorSeen, 0);
      }
      break;
    case FrameType::kDeallocate:
      enqueue(frame.flags == static_cast<uint8_t>(DeallocKind::kAbend) ? InKind::kDeallocAbend
                                                                       : InKind::kDeallocNormal);
      break;
    case FrameType::kAttachFailed:
      enqueue(InKind::kAttachFailed, {}, frame.code);
      break;
    case FrameType::kFailure:
      enqueue(InKind::kFailure, {}, frame.code);
      break;
    default:
      break;
  }
  service_waiting();
}

void Conversation::link_lost() {
  if (state_ == ConvState::kReset) return;
  control_follows_ = false;
  truncate_incomplete_record();
  enqueue(InKind::kFailure);
  service_waiting();
  refresh_input_interest();
}

void Conversation::report_rts_with_confirmed() {
  // A partner asked for confirmation often asks for the turn before it
  // answers; the verb that waited reports that request with its own answer
  // (on top of one that had come before it was issued).
  auto &hdr = *static_cast<NAP_HDR *>(waiting_.vcb);
  if (hdr.opcode == NAP_CONFIRM) {
    static_cast<NAP_CONFIRM_VCB *>(waiting_.vcb)->rts_received |= take_rts();
  } else if (hdr.opcode == NAP_SEND_DATA) {
    static_cast<NAP_SEND_DATA_VCB *>(waiting_.vcb)->rts_received |= take_rts();
  }
}

bool Conversation::terminal_result(const Inbound &item, Result &result) const {
  switch (item.kind) {
    case InKind::kDeallocNormal:
      result = {AP_DEALLOC_NORMAL, 0};
      return true;
    case InKind::kDeallocAbend:
      result = {AP_DEALLOC_ABEND_PROG, 0};
      return true;
    case InKind::kFailure:
      result = {
          static_cast<uint16_t>(item.code == AP_CONV_FAILURE_RETRY ? AP_CONV_FAILURE_RETRY
                                                                   : AP_CONV_FAILURE_NO_RETRY),
          0};
      return true;
    case InKind::kAttachFailed:
      result = {AP_ALLOCATION_ERROR, item.code};
      return true;
    default:
      return false;
  }
}

void Conversation::purge_inbound() {
  // Everything up to an ending stays unread for good; the ending itself (if
  // any) is what the partner left, and still has to be reported.
  auto ending = std::find_if(inbound_.begin(), inbound_.end(), [this](const Inbound &item) {
    Result unused;
    return terminal_result(item, unused);
  });
  inbound_.erase(inbound_.begin(), ending);
  in_cursor_.reset();
  recount_inbound();
}

void Conversation::recount_inbound() {
  inbound_data_ = 0;
  for (const auto &item : inbound_) {
    if (item.kind == InKind::kData) inbound_data_ += item.bytes.size() - item.offset;
  }
}

// A link delivers input as it comes only while a verb waits for it whose
// completion routine (not a waiting thread) is to run, and this side holds
// less than kInboundLimit unreceived: otherwise the TP's own verbs take the
// input when they need it.  A blocked verb's thread reads the socket itself
// (Engine::reader_for), a receive-immediate pulls what has come, and so does
// every verb that sends to the partner (take_send_notice), to learn of an
// error, a request-to-send or the partner's end.  No other thread wakes for a
// frame then, and a partner that sends more than the TP takes waits for room.
bool Conversation::landing(const void *vcb, Landing &landing) const {
  if (!setup_.mapped || state_ != ConvState::kReceive || waiting_.kind != WaitKind::kReceive ||
      waiting_.vcb != vcb || !inbound_.empty() || control_follows_ || purging_) {
    return false;
  }
  const auto &receive = *static_cast<const NAP_RECEIVE_VCB *>(vcb);
  if (receive.max_length == 0 || receive.data_pointer == nullptr) return false;
  landing = Landing{receive.data_pointer, receive.max_length};
  return true;
}

void Conversation::refresh_input_interest() {
  if (state_ == ConvState::kReset) return;
  if (!input_paused_ && inbound_data_ > kInboundLimit) {
    input_paused_ = true;
  } else if (input_paused_ && inbound_data_ <= kInboundLimit / 2) {
    input_paused_ = false;
  }
  const bool routine_waits = waiting_.vcb != nullptr && !waiting_.caller_blocks;
  set_input_wanted(!input_paused_ && routine_waits);
}

void Conversation::set_input_wanted(bool wanted) {
  if (wanted == input_wanted_) return;
  input_wanted_ = wanted;
  link_->set_input_wanted(wanted);
}

void Conversation::truncate_incomplete_record() {
  if (setup_.mapped) return;
  if (inbound_.empty()) {
    // The TP may already hold every byte sent of the record it is inside; the
    // rest will never come, so whatever arrives next starts with an LL.
    in_cursor_.reset();
    return;
  }
  if (inbound_.back().kind != InKind::kData) return;
  Inbound &item = inbound_.back();
  const bool is_front = inbound_.size() == 1;
  // Only the front item can be partly received; later ones start between records.
  const RecordCursor cursor = is_front ? in_cursor_ : RecordCursor();
  const uint8_t *rest = item.bytes.data() + item.offset;
  const auto boundary = cursor.last_boundary(rest, item.bytes.size() - item.offset);
  if (boundary) {
    item.bytes.resize(item.offset + *boundary);
  } else {
    item.bytes.resize(item.offset);
    in_cursor_.reset();
  }
  if (item.offset == item.bytes.size()) inbound_.pop_back();
  recount_inbound();
}

void Conversation::deliver_data(NAP_RECEIVE_VCB &vcb, Inbound &item, size_t length, uint16_t what) {
  if (length > 0) std::memcpy(vcb.data_pointer, item.bytes.data() + item.offset, length);
  if (!setup_.mapped) in_cursor_.advance(item.bytes.data() + item.offset, length);
  item.offset += length;
  inbound_data_ -= length;
  vcb.data_length = static_cast<uint16_t>(length);
  vcb.what_received = what;
}

bool Conversation::receive_data(NAP_RECEIVE_VCB &vcb, Inbound &item) {
  const size_t available = item.bytes.size() - item.offset;
  const size_t max = vcb.max_length;
  if (item.landed != 0) {
    // Already in this receive's buffer, and it fit.
    vcb.data_length = static_cast<uint16_t>(item.landed);
    vcb.what_received = AP_WR_DATA_COMPLETE;
    item.landed = 0;
    return true;
  }
  if (setup_.mapped) {
    const size_t length = std::min(max, available);
    deliver_data(vcb, item, length,
                 length == available ? AP_WR_DATA_COMPLETE : AP_WR_DATA_INCOMPLETE);
    return true;
  }
  if (vcb.fill == 1) {
    const auto left = in_cursor_.left_in_record(item.bytes.data() + item.offset, available);
    if (!left) return false;
    const size_t length = std::min({max, *left, available});
    // A receive-and-wait waits for the rest of the record (or a full buffer);
    // a receive-immediate takes the part that is there, as incomplete.
    const bool immediate = vcb.hdr.opcode == NAP_RECEIVE_IMMEDIATE;
    if (length < *left && length < max && !immediate) return false;
    deliver_data(vcb, item, length, length == *left ? AP_WR_DATA_COMPLETE : AP_WR_DATA_INCOMPLETE);
    return true;
  }
  const size_t length = std::min(max, available);
  if (length == 0 && max > 0) return false;
  deliver_data(vcb, item, length, AP_WR_DATA);
  return true;
}

bool Conversation::apply_status(InKind kind, uint16_t &what_received, bool with_data) {
  switch (kind) {
    case InKind::kChangeDirection:
      what_received |= AP_WR_SEND;
      state_ = with_data ? ConvState::kSendPending : ConvState::kSend;
      return true;
    case InKind::kConfirm:
      what_received |= AP_WR_CONFIRM;
      state_ = ConvState::kConfirm;
      return true;
    case InKind::kConfirmSend:
      what_received |= AP_WR_CONFIRM_SEND;
      state_ = ConvState::kConfirmSend;
      return true;
    case InKind::kConfirmDeallocate:
      what_received |= AP_WR_CONFIRM_DEALLOCATE;
      state_ = ConvState::kConfirmDeallocate;
      return true;
    default:
      return false;
  }
}

bool Conversation::try_receive(NAP_RECEIVE_VCB &vcb) {
  if (inbound_.empty()) return false;
  NAP_HDR &hdr = vcb.hdr;
  Inbound &head = inbound_.front();
  if (head.kind == InKind::kData) {
    // The last data before a status the partner sent with it: a
    // receive-and-wait waits the moment it takes for the status to come too,
    // so that it gets both, however the two travelled.
    if (control_follows_ && inbound_.size() == 1 && hdr.opcode == NAP_RECEIVE_AND_WAIT) {
      return false;
    }
    if (!receive_data(vcb, head)) return false;
    const bool item_done = head.offset == head.bytes.size();
    if (item_done) {
      give_back_buffer(std::move(head.bytes));
      inbound_.pop_front();
    }
    // With return_status, a status that follows the last data comes with it.
    const bool record_done =
        vcb.what_received != AP_WR_DATA_INCOMPLETE && (setup_.mapped || in_cursor_.at_boundary());
    if (vcb.return_status == 1 && item_done && record_done && !inbound_.empty() &&
        apply_status(inbound_.front().kind, vcb.what_received, true)) {
      inbound_.pop_front();
    }
    vcb.rts_received = take_rts();
    return done(hdr, AP_OK);
  }
  vcb.rts_received = take_rts();
  if (apply_status(head.kind, vcb.what_received, false)) {
    inbound_.pop_front();
    return done(hdr, AP_OK);
  }
  Result result;
  switch (head.kind) {
    case InKind::kErrorNoTrunc:
      result.primary = AP_PROG_ERROR_NO_TRUNC;
      break;
    case InKind::kErrorTrunc:
      result.primary = AP_PROG_ERROR_TRUNC;
      break;
    case InKind::kErrorPurging:
      result.primary = AP_PROG_ERROR_PURGING;
      break;
    default:
      terminal_result(head, result);
      end_conversation();
      return done(hdr, result.primary, result.secondary);
  }
  inbound_.pop_front();
  return done(hdr, result.primary, result.secondary);
}

// ---- waiting verbs -------------------------------------------------------------------

void Conversation::wait_for(WaitKind kind, void *vcb, void *token, ConfirmKind after) {
  waiting_ = Waiting{kind, vcb, token, after, caller_blocks_};
  refresh_input_interest();
}

void Conversation::service_waiting() {
  if (waiting_.kind == WaitKind::kReceive) {
    if (try_receive(*static_cast<NAP_RECEIVE_VCB *>(waiting_.vcb))) complete_waiting(std::nullopt);
  } else if (waiting_.kind == WaitKind::kConfirmed) {
    Result result;
    if (take_send_notice(result, false)) complete_waiting(result);
  }
}

void Conversation::complete_waiting(std::optional<Result> result) {
  if (waiting_.vcb == nullptr) return;
  const Waiting finished = std::exchange(waiting_, Waiting{});
  if (result) put_result(*static_cast<NAP_HDR *>(finished.vcb), result->primary, result->secondary);
  host_.verb_completed(finished.vcb, finished.token);
}

void Conversation::end_conversation() {
  state_ = ConvState::kReset;
  inbound_.clear();
  out_bytes_.clear();
  out_records_.clear();
  out_size_ = 0;
  rts_received_ = false;
  link_->close(true);
}

}  // namespace snanode::engine

#include "net/hpr/rtp_connection.h"

#include <algorithm>

#include "net/formats/ebcdic_names.h"
#include "net/hpr/rtp_decisions.h"

namespace snanode::net::hpr {
namespace {

// Control vectors in the connection setup segment are padded to words.
void append_padded_cv(uint8_t key, ByteSpan body, Bytes &out) {
  const size_t start = out.size();
  out.push_back(static_cast<uint8_t>(2 + body.size()));
  out.push_back(key);
  out.insert(out.end(), body.begin(), body.end());
  while ((out.size() - start) % 4) out.push_back(0);
}

// The class name of the COS/TPF vector among a setup's control vectors (each
// padded to a word; R1 layout: key, priority byte, name); empty if none.
std::string cos_name_of(ByteSpan cvs) {
  for (size_t at = 0; at + 2 <= cvs.size() && cvs[at] >= 2;) {
    const size_t length = cvs[at];
    if (at + length > cvs.size()) break;
    if (cvs[at + 1] == decision::kCvCosTpf && length > 3) {
      return name_from_ebcdic(cvs.subspan(at + 3, length - 3)).value_or("");
    }
    at += (length + 3) / 4 * 4;
  }
  return {};
}

constexpr size_t kMaxRequests = 8;

uint32_t seconds_rounded_up(RtpDuration d) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
  return static_cast<uint32_t>((ms + 999) / 1000);
}

}  // namespace

std::optional<RtpSetupOffer> read_setup(const Thdr &thdr) {
  if (!thdr.setup || !thdr.optional_segments) return std::nullopt;
  auto segments = split_segments(thdr.options);
  if (!segments) return std::nullopt;
  RtpSetupOffer offer;
  offer.partner_tcid = thdr.tcid;
  bool have_setup = false;
  for (const OptionalSegment &segment : segments.value()) {
    if (segment.type == kSegmentConnectionSetup) {
      auto setup = decode_connection_setup(segment);
      if (!setup || !setup->reliable) return std::nullopt;
      offer.cos_name = cos_name_of(setup->control_vectors);
      have_setup = true;
    } else if (segment.type == kSegmentSwitchingInformation) {
      auto info = decode_switching_information(segment);
      if (!info) return std::nullopt;
      offer.max_packet_size = info->max_packet_size;
      offer.alive_seconds = info->alive_timer;
    } else if (segment.type == kSegmentArb) {
      auto arb = decode_arb(segment);
      if (arb && arb->message == ArbMessage::kSetup) offer.window = arb->field4;
    } else if (segment.type == kSegmentConnectionId) {
      auto tcid = decode_connection_id(segment);
      if (!tcid || tcid.value() != thdr.tcid) return std::nullopt;
    }
  }
  if (!have_setup) return std::nullopt;
  return offer;
}

RtpConnection::RtpConnection(const RtpConfig &config, RtpEndpoint endpoint, ee::NlpLink &link,
                             Tcid local, MessageHandler on_message, RtpTime now)
    : config_(config),
      endpoint_(std::move(endpoint)),
      link_(link),
      on_message_(std::move(on_message)),
      initiator_(true),
      local_tcid_(local),
      window_(config.window),
      rate_(config),
      receive_(config.window, config.max_message),
      last_heard_(now) {
  nhdr_.priority = endpoint_.priority;
  nhdr_.labels = endpoint_.anr_labels;
  rate_.set_packet_size(link_.max_nlp_size());
}

RtpConnection::RtpConnection(const RtpConfig &config, RtpEndpoint endpoint, ee::NlpLink &link,
                             Tcid local, const RtpSetupOffer &offer, MessageHandler on_message,
                             RtpTime now)
    : RtpConnection(config, std::move(endpoint), link, local, std::move(on_message), now) {
  initiator_ = false;
  remote_tcid_ = offer.partner_tcid;
  partner_max_packet_ = offer.max_packet_size;
  if (offer.window != 0) window_ = std::min<size_t>(window_, offer.window);
  state_ = RtpState::kConnected;
}

// ---- Sending ---------------------------------------------------------------

Thdr RtpConnection::base_thdr() const {
  Thdr t;
  t.start_of_message = t.end_of_message = false;
  if (initiator_ && !heard_) {
    t.tcid = local_tcid_;
    t.setup = true;
    t.status_requested = true;
    add_setup_segments(t.options);
  } else {
    t.tcid = remote_tcid_;
    if (!initiator_ && !confirmed_) append_connection_id(local_tcid_, t.options);
  }
  return t;
}

void RtpConnection::add_setup_segments(Bytes &options) const {
  ConnectionSetup setup;
  Bytes cos = {static_cast<uint8_t>(endpoint_.priority)};
  const auto name =
      ebcdic_from_name(endpoint_.cos_name.empty() ? decision::cos_name(endpoint_.priority)
                                                  : std::string_view(endpoint_.cos_name));
  if (name) cos.insert(cos.end(), name->begin(), name->end());
  append_padded_cv(decision::kCvCosTpf, cos, setup.control_vectors);
  append_connection_setup(setup, options);

  SwitchingInformation info;
  info.flags = decision::kSwitchingFlags;
  info.max_packet_size = static_cast<uint32_t>(link_.max_nlp_size());
  info.path_switch_time = decision::kPathSwitchSeconds;
  info.alive_timer = seconds_rounded_up(config_.alive_timer);
  Bytes cp = {decision::kNetworkNameCp};
  if (auto ebcdic = ebcdic_from_name(endpoint_.local_cp)) {
    cp.insert(cp.end(), ebcdic->begin(), ebcdic->end());
  }
  info.nested_cvs = {static_cast<uint8_t>(2 + cp.size()), decision::kCvNetworkName};
  info.nested_cvs.insert(info.nested_cvs.end(), cp.begin(), cp.end());
  info.return_route.assign(std::begin(decision::kEmptyReturnRoute),
                           std::end(decision::kEmptyReturnRoute));
  (void)append_switching_information(info, options);

  Arb arb;
  arb.message = ArbMessage::kSetup;
  arb.mode = 1;  // responsive
  arb.request_correlator = next_correlator_;
  arb.field1 = config_.initial_rate;
  arb.field2 = config_.min_rate;
  arb.field3 = config_.max_rate;
  arb.field4 = static_cast<uint32_t>(config_.window);
  append_arb(arb, options);
  append_connection_id(local_tcid_, options);
}

// The largest header an NLP of this connection can have now: the setup
// segments while setting up, else a connection identifier (responder, until
// confirmed) and a rate request.
size_t RtpConnection::header_size() const {
  constexpr size_t kConnectionIdSize = 12, kRateRequestSize = 12;
  size_t options = kRateRequestSize;
  if (initiator_ && !heard_) {
    if (setup_options_size_ == 0) setup_options_size_ = base_thdr().options.size();
    options = setup_options_size_;
  } else if (!initiator_ && !confirmed_) {
    options += kConnectionIdSize;
  }
  return fixed_header_size() + options;
}

// The NHDR and the THDR without its optional segments.
size_t RtpConnection::fixed_header_size() const {
  return 4 + endpoint_.anr_labels.size() + kThdrFixedSize;
}

// The largest NLP both the link and the partner take.
size_t RtpConnection::packet_limit() const {
  const size_t limit = link_.max_nlp_size();
  return partner_max_packet_ != 0 ? std::min<size_t>(limit, partner_max_packet_) : limit;
}

size_t RtpConnection::max_data() const {
  const size_t limit = packet_limit();
  const size_t header = header_size();
  return limit > header ? limit - header : 0;
}

// Asks for a status on this NLP: a rate request whose correlator the reply
// echoes (the setup's ARB segment carries it during setup).  A reply held
// for the partner shares the ARB segment (request and reply).
void RtpConnection::add_request(Thdr &thdr, bool reply_asap, RtpTime now, const Arb *reply) {
  thdr.status_requested = true;
  thdr.reply_asap = reply_asap && !thdr.setup;  // a setup is always answered at once
  if (!thdr.setup) {
    Arb arb;
    arb.message = reply != nullptr ? ArbMessage::kBoth : ArbMessage::kRateRequest;
    arb.mode = 1;
    arb.request_correlator = next_correlator_;
    if (reply != nullptr) {
      arb.reply_correlator = reply->reply_correlator;
      arb.rate_action = reply->rate_action;
      arb.field1 = reply->field1;
      arb.field2 = reply->field2;
    } else {
      arb.field1 = rate_.rate();
      arb.field2 = static_cast<uint32_t>(std::min<size_t>(send_.in_flight(), UINT32_MAX));
    }
    append_arb(arb, thdr.options);
  }
  if (requests_.size() >= kMaxRequests) requests_.pop_front();
  requests_.push_back({next_correlator_, now, reply_asap || thdr.setup});
  next_correlator_ = static_cast<uint8_t>((next_correlator_ + 1) & 0xF);
  bytes_since_request_ = 0;
  last_request_ = now;
}

void RtpConnection::transmit(Thdr &thdr, const SharedSpan &data) {
  thdr.optional_segments = !thdr.options.empty();
  // Only the headers are written here: the data goes to the link as the
  // queue holds it, and leaves as a piece of the datagram of its own.
  Bytes head = link_.start_nlp();
  head.reserve(head.size() + 64 + nhdr_.labels.size() + thdr.options.size());
  if (encode_nlp_headers(nhdr_, thdr, data.size, head)) {
    ++stats_.nlps_sent;
    // A refusal is a loss; RTP recovers.
    (void)link_.send_nlp_pieces(endpoint_.priority, std::move(head), data);
  }
}

void RtpConnection::send_segment(RtpSegment &segment, bool request_status, bool reply_asap,
                                 RtpTime now) {
  Thdr t = base_thdr();
  t.start_of_message = segment.start;
  t.end_of_message = segment.end;
  t.bsn = static_cast<uint32_t>(segment.bsn);
  bytes_since_request_ += segment.data.size;
  const std::optional<Arb> reply = attach_held_reply(t, segment.data.size, now);
  // At most 8 requests outstanding, so that a 4-bit correlator never names
  // two of them at once.
  if ((request_status && requests_.size() < kMaxRequests) || t.setup) {
    add_request(t, reply_asap, now, reply ? &*reply : nullptr);
  } else if (reply) {
    append_arb(*reply, t.options);
  }
  segment.last_sent = now;
  transmit(t, segment.data);
}

// A data-less status request.  Its BSN is where the stream ends, so the reply
// lists as missing whatever was lost at the tail.
void RtpConnection::send_probe(RtpTime now) {
  Thdr t = base_thdr();
  t.bsn = static_cast<uint32_t>(send_.sent_end());
  const std::optional<Arb> reply = attach_held_reply(t, 0, now);
  add_request(t, true, now, reply ? &*reply : nullptr);
  transmit(t, SharedSpan{});
}

StatusReport RtpConnection::status_report() const {
  StatusReport status;
  // As many gaps as the link's packet holds (each takes 8 bytes).
  const size_t room =
      link_.max_nlp_size() > header_size() + 32 ? link_.max_nlp_size() - header_size() - 32 : 0;
  status.gaps = receive_.gaps(std::min(config_.max_gaps_reported, room / 8));
  status.gap_detected = !status.gaps.empty();
  status.report_number = static_cast<uint16_t>(stats_.status_replies_sent);
  status.received_sequence = static_cast<uint32_t>(receive_.next());
  return status;
}

Arb RtpConnection::rate_reply(uint8_t correlator) {
  Arb reply;
  reply.message = ArbMessage::kRateReply;
  reply.mode = 1;
  reply.reply_correlator = correlator;
  reply.rate_action = static_cast<uint8_t>(receive_rate_action(slowdown1_seen_, slowdown2_seen_));
  reply.field1 = static_cast<uint32_t>(std::min<size_t>(receive_.buffered(), UINT32_MAX));
  reply.field2 =
      static_cast<uint32_t>(config_.window - std::min(config_.window, receive_.buffered()));
  slowdown1_seen_ = slowdown2_seen_ = false;
  return reply;
}

void RtpConnection::send_status(std::optional<uint8_t> correlator, RtpTime now) {
  Thdr t = base_thdr();
  t.status_requested = t.setup;  // a setup NLP always asks
  t.bsn = static_cast<uint32_t>(send_.sent_end());
  append_status(status_report(), t.options);
  // This status answers a held request too: the newer correlator covers it.
  if (!correlator && held_reply_) correlator = held_reply_->correlator;
  held_reply_.reset();
  if (correlator) append_arb(rate_reply(*correlator), t.options);
  if (t.setup) add_request(t, true, now);
  ++stats_.status_replies_sent;
  transmit(t, SharedSpan{});
}

void RtpConnection::hold_status(std::optional<uint8_t> correlator, RtpTime now) {
  if (!held_reply_) {
    held_reply_ = HeldReply{correlator, now + std::min(config_.status_hold, config_.min_rto / 2)};
  } else if (correlator) {
    held_reply_->correlator = correlator;
  }
}

std::optional<Arb> RtpConnection::attach_held_reply(Thdr &t, size_t data_size, RtpTime now) {
  if (!held_reply_ || t.setup) return std::nullopt;
  Bytes status;
  append_status(status_report(), status);
  constexpr size_t kArbSize = 12;
  const size_t size = fixed_header_size() + t.options.size() + status.size() + kArbSize + data_size;
  if (size > packet_limit()) {
    // A full packet of data: the reply goes on its own, now.
    send_status(std::nullopt, now);
    return std::nullopt;
  }
  t.options.insert(t.options.end(), status.begin(), status.end());
  const std::optional<uint8_t> correlator = held_reply_->correlator;
  held_reply_.reset();
  ++stats_.status_replies_sent;
  if (!correlator) return std::nullopt;
  return rate_reply(*correlator);
}

void RtpConnection::pump(RtpTime now) {
  if (ended()) return;
  pace_at_.reset();
  for (;;) {
    RtpSegment *segment = send_.peek_retransmission();
    const bool again = segment != nullptr;
    size_t size = 0;
    if (again) {
      size = segment->data.size;
    } else if (send_.has_new_data() && send_.in_flight() < window_) {
      size = send_.next_cut_size(max_data());
    } else {
      break;
    }
    if (size == 0) {
      fail(decision::kSenseProtocol, "the link's packets are too small to carry data");
      return;
    }
    RtpTime ready;
    if (!rate_.try_spend(header_size() + size, now, ready)) {
      pace_at_ = ready;
      rate_.note_rate_limited();
      break;
    }
    // Nothing unacknowledged before this segment: the connection is idle,
    // not streaming (a stream asks for each reply at once: its replies pace
    // the rate's growth).
    const bool idle = send_.in_flight() == 0;
    if (again) {
      send_.retransmitted();
    } else {
      segment = send_.cut(max_data());
    }
    // Ask for a status on a resend, when no request is outstanding (about
    // one per round trip however slow the rate) and every status_every bytes.
    // Not at the end of every burst: a stream written a record at a time
    // would ask on nearly every packet, and each answer is a datagram both
    // nodes handle.  The tail of a stream is acknowledged by the reply to an
    // outstanding request, or else by the probe the request timer sends.
    // A whole message from an idle connection need not be answered at once:
    // the partner's answer to it, if it has one, carries the status (a turn
    // of a conversation costs two NLPs instead of four).
    send_segment(*segment,
                 again || requests_.empty() || bytes_since_request_ + size >= config_.status_every,
                 again || !segment->end || send_.has_new_data() || !idle, now);
  }
  finish_close_if_done(now);
}

void RtpConnection::send_message(Bytes &&message, RtpTime now) {
  if (ended() || closing_) return;
  send_.push_message(std::move(message));
  pump(now);
}

void RtpConnection::close(RtpTime now) {
  if (ended()) return;
  closing_ = true;
  pump(now);
}

// A close takes both sides' last message indicators, each sent once all that
// side sent is acknowledged: the side that closes first keeps receiving (and
// acknowledging) what the partner sent before it heard of the close, and the
// partner goes on sending on the connection until its data is through, so no
// BIU is left behind on a connection that ended.
void RtpConnection::finish_close_if_done(RtpTime now) {
  if (ended() || last_message_sent_ || !send_.all_acknowledged()) return;
  const bool partner_done = partner_closed();
  if (!closing_ && !partner_done) return;
  send_last_message(now);
  last_message_sent_ = true;
  last_message_wait_ = request_timeout();
  if (partner_done) state_ = RtpState::kClosed;
}

void RtpConnection::send_last_message(RtpTime now) {
  Thdr t = base_thdr();
  t.last_message = true;
  t.bsn = static_cast<uint32_t>(send_.sent_end());
  transmit(t, SharedSpan{});
  last_message_at_ = now;
}

void RtpConnection::fail(uint32_t sense, std::string why) {
  if (ended()) return;
  state_ = RtpState::kFailed;
  failure_sense_ = sense;
  failure_reason_ = std::move(why);
}

// ---- Receiving -------------------------------------------------------------

void RtpConnection::on_status(const StatusReport &status, const std::optional<Arb> &reply,
                              RtpTime now) {
  send_.acknowledge(status.received_sequence);
  // Only what was sent before the request this answers can be judged
  // missing; an unsolicited report, what was sent a round trip ago.
  RtpTime sent_before = now - rate_.rto();
  std::optional<RtpTime> request_sent;
  if (reply) {
    auto answered = std::find_if(requests_.begin(), requests_.end(), [&](const Request &r) {
      return r.correlator == reply->reply_correlator;
    });
    if (answered != requests_.end()) {
      // A reply the partner could hold measures its wait, not the path.
      if (answered->timed) rate_.on_rtt_sample(now - answered->sent);
      sent_before = answered->sent;
      request_sent = answered->sent;
      requests_.erase(requests_.begin(), answered + 1);
    }
  }
  RtpTime lost_sent_at{};
  size_t missing = 0;
  for (const auto &[begin, end] : status.gaps) {
    lost_sent_at = std::max(lost_sent_at, send_.mark_missing(begin, end, sent_before, missing));
  }
  rate_.note_missing(missing);
  if (request_sent) {
    rate_.on_reply(static_cast<RateAction>(std::min<uint8_t>(reply->rate_action, 4)), lost_sent_at,
                   *request_sent, now);
  }
}

void RtpConnection::on_nlp(const NlpView &nlp, RtpTime now) {
  if (ended()) return;
  const Thdr &t = nlp.thdr;
  auto segments = split_segments(t.options);
  if (!segments) {
    ++stats_.nlps_dropped;
    return;
  }
  std::optional<StatusReport> status;
  std::optional<Arb> reply;
  std::optional<uint8_t> asked;
  std::optional<Tcid> partner_tcid;
  for (const OptionalSegment &segment : segments.value()) {
    if (segment.type == kSegmentStatus) {
      if (auto s = decode_status(segment)) status = std::move(s.value());
    } else if (segment.type == kSegmentArb) {
      if (auto arb = decode_arb(segment)) {
        if (arb->message == ArbMessage::kRateReply || arb->message == ArbMessage::kBoth) {
          reply = arb.value();
        }
        if (arb->message != ArbMessage::kRateReply) asked = arb->request_correlator;
      }
    } else if (segment.type == kSegmentConnectionId) {
      if (auto tcid = decode_connection_id(segment)) partner_tcid = tcid.value();
    }
  }
  if (initiator_ && !heard_) {
    // Nothing can be addressed to the partner before it names its TCID.
    if (!partner_tcid) {
      ++stats_.nlps_dropped;
      return;
    }
    remote_tcid_ = *partner_tcid;
    heard_ = true;
    state_ = RtpState::kConnected;
  }
  if (!initiator_ && !t.setup) confirmed_ = true;
  ++stats_.nlps_received;
  last_heard_ = now;
  slowdown1_seen_ |= nlp.nhdr.slowdown1;
  slowdown2_seen_ |= nlp.nhdr.slowdown2;

  if (status) on_status(*status, reply, now);
  // Completed messages may view the NLP's own bytes: they are handed up
  // before this returns, while the datagram is still in its buffer.
  RtpReassembly::Completed complete;
  if (nlp.data.empty()) {
    receive_.note_stream_end(t.bsn);
  } else if (receive_.accept(t.bsn, nlp.data, t.start_of_message, t.end_of_message, complete) ==
             RtpReassembly::Outcome::kRefused) {
    ++stats_.nlps_dropped;
  }
  if (t.last_message) partner_last_message_at_ = receive_.unwrap(t.bsn);
  if (t.status_requested && !t.reply_asap && !t.setup && state_ == RtpState::kConnected) {
    hold_status(asked, now);
  } else if (t.status_requested) {
    send_status(asked, now);
  }
  if (receive_.broken()) {
    fail(decision::kSenseProtocol, "the partner sent a message beyond the limit");
    return;
  }
  for (const ByteSpan message : complete.messages) {
    on_message_(message);
    if (ended()) return;
  }
  check_partner_close();
  pump(now);
  // A reply that leaves data unacknowledged with nothing asking about it
  // (what went out after the request was the tail of a burst): ask now,
  // rather than when the request timer runs out.
  if (status && requests_.empty() && send_.in_flight() > 0 && !ended()) send_probe(now);
}

bool RtpConnection::partner_closed() const {
  return partner_last_message_at_ && receive_.next() >= *partner_last_message_at_;
}

// The partner's indicator after ours ends the connection; before ours, pump()
// sends ours once our data is acknowledged.
void RtpConnection::check_partner_close() {
  if (partner_closed() && last_message_sent_ && !ended()) state_ = RtpState::kClosed;
}

// The status timer, short enough that a silent partner is asked at least
// eight times before the connection gives up on it.
RtpDuration RtpConnection::request_timeout() const {
  return std::min<RtpDuration>(rate_.rto(), config_.failure_timeout / 8);
}

// ---- Time ------------------------------------------------------------------

void RtpConnection::on_timer(RtpTime now) {
  if (ended()) return;
  if (now - last_heard_ >= config_.failure_bound()) {
    // After our indicator everything we sent was acknowledged, and a partner
    // that sent its own has ended (that copy was lost): nothing is left here.
    if (last_message_sent_) {
      state_ = RtpState::kClosed;
    } else {
      fail(decision::kSensePathFailure, "the partner stopped answering");
    }
    return;
  }
  if (held_reply_ && now >= held_reply_->due) send_status(std::nullopt, now);
  if (last_message_sent_ && now - last_message_at_ >= last_message_wait_) {
    // Our indicator, or the partner's answer to it, may have been lost.
    send_last_message(now);
    last_message_wait_ = std::min<RtpDuration>(last_message_wait_ * 2, config_.alive_timer);
  }
  if (!requests_.empty() && now - requests_.front().sent >= request_timeout()) {
    // Unanswered: the request or its reply was lost, or the partner is gone.
    requests_.pop_front();
    rate_.on_request_timeout();
    send_probe(now);
  } else if (requests_.empty() && send_.in_flight() > 0 &&
             now - last_request_ >= request_timeout()) {
    send_probe(now);
  } else if (requests_.empty() && now - last_heard_ >= config_.alive_timer) {
    send_probe(now);
  }
  pump(now);
}

std::optional<RtpTime> RtpConnection::next_deadline() const {
  if (ended()) return std::nullopt;
  RtpTime at = last_heard_ + config_.failure_bound();
  if (!requests_.empty()) {
    at = std::min(at, requests_.front().sent + request_timeout());
  } else if (send_.in_flight() > 0) {
    at = std::min(at, last_request_ + request_timeout());
  } else {
    at = std::min(at, last_heard_ + config_.alive_timer);
  }
  if (pace_at_) at = std::min(at, *pace_at_);
  if (held_reply_) at = std::min(at, held_reply_->due);
  if (last_message_sent_) at = std::min(at, last_message_at_ + last_message_wait_);
  return at;
}

}  // namespace snanode::net::hpr

#include "net/ee/link_station.h"

#include <utility>

#include "net/formats/wire_decisions.h"

namespace snanode::net::ee {
namespace {

// Liveness: the first TEST goes out after a quarter of the liveness time
// without a frame from the partner; while unanswered it is repeated every
// sixteenth, so that about a dozen TESTs (not three) must all be lost, or
// their answers lost, before a partner that is there is declared down.
constexpr int kLivenessIdleDivisor = 4;
constexpr int kLivenessProbeDivisor = 16;

uint8_t role_bits(bool primary) {
  return primary ? decision::kXidRolePrimary : decision::kXidRoleSecondary;
}

std::string sense_text(uint32_t sense) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out = "X'";
  for (int shift = 28; shift >= 0; shift -= 4) out.push_back(digits[(sense >> shift) & 0xF]);
  return out + "'";
}

}  // namespace

LinkStation::LinkStation(LinkStationConfig config, DatagramSink &sink, NlpReceiver &receiver)
    : config_(std::move(config)), sink_(sink), receiver_(receiver) {}

void LinkStation::activate(TimePoint now) {
  held_down_ = false;
  if (state_ == State::kReset) {
    start_activation(now);
  } else if (state_ == State::kDiscSent) {
    // The partner must see the old link end before it hears of a new one,
    // or its DM would be taken for a refusal of the new activation.
    activate_when_reset_ = true;
  }
}

void LinkStation::start_activation(TimePoint now) {
  negotiated_known_ = false;
  state_ = State::kXidSent;
  send_with_retry(encode_ldlc_command(LdlcKind::kXid, false, config_.link_sap,
                                      our_xid(XidExchangeState::kPrenegotiation)),
                  now);
}

void LinkStation::deactivate(TimePoint now) {
  held_down_ = true;
  activate_when_reset_ = false;
  if (state_ == State::kReset) deadline_.reset();  // no reactivation either
  if (state_ == State::kReset || state_ == State::kDiscSent) return;
  state_ = State::kDiscSent;
  send_with_retry(encode_ldlc_command(LdlcKind::kDisc, false, config_.link_sap, {}), now);
  // The link carries nothing more from here, so the layers above end what
  // ran on it now rather than when DM comes: what they start meanwhile (for
  // an activation asked for before DM) is not ended with the old link.
  receiver_.on_link_inactive("deactivated");
}

Bytes LinkStation::our_xid(XidExchangeState state, uint32_t error_sense) const {
  if (state == XidExchangeState::kPrenegotiation || !negotiated_known_) {
    return build_xid3(config_.local, state, decision::kXidRoleNegotiable, config_.local.tg_number,
                      false, error_sense);
  }
  // Negotiation-proceeding XIDs state the outcome; the secondary's marks the
  // negotiation complete.
  return build_xid3(config_.local, state, role_bits(negotiated_.primary), negotiated_.tg_number,
                    !negotiated_.primary, error_sense);
}

void LinkStation::send_with_retry(Bytes datagram, TimePoint now) {
  retry_datagram_ = datagram;
  retries_left_ = config_.retry_count;
  deadline_ = now + config_.retry_interval;
  send_llc(std::move(datagram));
}

void LinkStation::wait_for_partner(TimePoint now) {
  retry_datagram_.clear();
  retries_left_ = 0;
  deadline_ = now + config_.retry_interval * (config_.retry_count + 1);
}

void LinkStation::fail(const std::string &why, TimePoint now, bool orderly) {
  // A deactivating link was reported inactive when DISC went out.
  const bool was_reported = state_ == State::kReset || state_ == State::kDiscSent;
  state_ = State::kReset;
  negotiated_known_ = false;
  retry_datagram_.clear();
  deadline_.reset();
  // A link that failed (rather than being ended by either side) is tried
  // again later when the configuration asks for it.
  if (!orderly && !held_down_ && config_.reactivate_after.count() > 0) {
    deadline_ = now + config_.reactivate_after;
  }
  if (!was_reported) receiver_.on_link_inactive(why);
  // Only once the partner has seen the old link end does the new one begin.
  if (std::exchange(activate_when_reset_, false) && state_ == State::kReset) {
    start_activation(now);
  }
}

void LinkStation::become_active(TimePoint now) {
  state_ = State::kActive;
  retry_datagram_.clear();
  active_since_ = now;
  last_heard_ = now;
  deadline_ = now + config_.liveness / kLivenessIdleDivisor;
  receiver_.on_link_active();
}

void LinkStation::on_timer(TimePoint now) {
  if (!deadline_ || now < *deadline_) return;
  if (state_ == State::kReset) {
    start_activation(now);  // the reactivation's time has come
    return;
  }
  if (state_ == State::kActive) {
    if (now - last_heard_ >= config_.liveness) {
      fail("the partner stopped answering (no frame for " +
               std::to_string(
                   std::chrono::duration_cast<std::chrono::milliseconds>(now - last_heard_)
                       .count()) +
               " ms)",
           now);
      return;
    }
    ++test_counter_;
    const Bytes data{uint8_t(test_counter_ >> 24), uint8_t(test_counter_ >> 16),
                     uint8_t(test_counter_ >> 8), uint8_t(test_counter_)};
    send_llc(encode_ldlc_command(LdlcKind::kTest, false, config_.link_sap, data));
    deadline_ =
        std::min(now + config_.liveness / kLivenessProbeDivisor, last_heard_ + config_.liveness);
    return;
  }
  if (!retry_datagram_.empty() && retries_left_ > 0) {
    --retries_left_;
    deadline_ = now + config_.retry_interval;
    send_llc(retry_datagram_);
    return;
  }
  if (state_ == State::kDiscSent) {
    fail("deactivated (the partner did not answer DISC)", now, true);
  } else {
    fail("activation timed out: the partner did not answer", now);
  }
}

std::optional<TimePoint> LinkStation::next_deadline() const {
  return deadline_;
}

void LinkStation::on_datagram(ByteSpan datagram, TimePoint now) {
  const std::optional<LdlcFrame> frame = decode_ldlc(datagram);
  if (!frame) return;
  if (state_ == State::kActive) {
    last_heard_ = now;
    deadline_ = now + config_.liveness / kLivenessIdleDivisor;
  }
  switch (frame->kind) {
    case LdlcKind::kXid:
      on_xid(*frame, now);
      break;
    case LdlcKind::kTest:
      if (!frame->response && state_ != State::kReset) {
        send_llc(encode_ldlc_command(LdlcKind::kTest, true, config_.link_sap, frame->info));
      }
      break;
    case LdlcKind::kDisc:
      send_llc(encode_ldlc_command(LdlcKind::kDm, true, config_.link_sap, {}));
      fail(state_ == State::kDiscSent ? "deactivated" : "the partner disconnected the link", now,
           true);
      break;
    case LdlcKind::kDm:
      if (state_ == State::kDiscSent) {
        fail("deactivated", now, true);
      } else if (state_ != State::kReset) {
        fail("the partner refused the link (DM)", now);
      }
      break;
    case LdlcKind::kUi:
      on_ui(frame->info, now);
      break;
  }
}

void LinkStation::on_xid(const LdlcFrame &frame, TimePoint now) {
  if (frame.info.empty()) {
    // A null XID asks who we are; answered in kind, so that the activator
    // follows with its XID3.
    if (!frame.response) {
      send_llc(encode_ldlc_command(LdlcKind::kXid, true, config_.link_sap, {}));
    }
    return;
  }
  const Result<PartnerXid> xid = read_partner_xid(frame.info);
  if (!xid) {
    if (!frame.response) {
      send_llc(encode_ldlc_command(LdlcKind::kXid, true, config_.link_sap,
                                   our_xid(XidExchangeState::kPrenegotiation, xid.sense())));
    }
    if (state_ != State::kActive)
      fail("the partner's XID3 was refused, sense " + sense_text(xid.sense()), now);
    return;
  }
  if (xid->error_sense != 0) {
    if (state_ != State::kActive) {
      fail("the partner refused our XID3, sense " + sense_text(xid->error_sense), now);
    }
    return;
  }
  if (frame.response) {
    on_xid_response(xid.value(), now);
  } else {
    on_xid_command(xid.value(), now);
  }
}

bool LinkStation::accept_partner(const PartnerXid &xid, bool answer_refusal, TimePoint now) {
  uint32_t sense = 0;
  std::string why;
  if (!config_.partner_cp_name.empty() && xid.cp_name != config_.partner_cp_name) {
    sense = decision::kSenseXidFormat | 29;  // the CP name CV leads the control vectors
    why = "the partner is " + xid.cp_name + ", not " + config_.partner_cp_name;
  } else if (Result<Negotiated> n = negotiate(config_.local, xid); !n) {
    sense = n.sense();
    why = "the XID negotiation failed, sense " + sense_text(sense);
  } else {
    partner_ = xid;
    negotiated_ = n.value();
    negotiated_known_ = true;
    return true;
  }
  if (answer_refusal) {
    send_llc(encode_ldlc_command(LdlcKind::kXid, true, config_.link_sap,
                                 our_xid(XidExchangeState::kPrenegotiation, sense)));
  }
  fail(why, now);
  return false;
}

void LinkStation::answer_prenegotiation() {
  send_llc(encode_ldlc_command(LdlcKind::kXid, true, config_.link_sap,
                               our_xid(XidExchangeState::kPrenegotiation)));
}

void LinkStation::on_xid_command(const PartnerXid &xid, TimePoint now) {
  const bool prenegotiation = xid.state == XidExchangeState::kPrenegotiation;
  switch (state_) {
    case State::kActive:
      // A new activation from the partner's address means the partner
      // started again and lost the link; a copy of an old XID arriving late
      // (within a retry interval of activation) is ignored.
      if (!prenegotiation || now - active_since_ < config_.retry_interval) return;
      fail("the partner started a new activation", now);
      [[fallthrough]];
    case State::kReset:
      if (!prenegotiation) return;
      if (held_down_) {
        send_llc(encode_ldlc_command(LdlcKind::kDm, true, config_.link_sap, {}));
        return;
      }
      if (!accept_partner(xid, true, now)) return;
      state_ = State::kResponding;
      answer_prenegotiation();
      wait_for_partner(now);
      return;
    case State::kXidSent: {
      if (!prenegotiation) return;
      // Both sides began at once: the side that would become secondary gives
      // way and answers; the other waits for that answer.
      const Result<Negotiated> n = negotiate(config_.local, xid);
      if (n && n->primary) return;
      if (!accept_partner(xid, true, now)) return;
      state_ = State::kResponding;
      answer_prenegotiation();
      wait_for_partner(now);
      return;
    }
    case State::kResponding:
    case State::kXidDonePending:
      if (prenegotiation) {
        answer_prenegotiation();  // our answer was lost
        return;
      }
      if (state_ == State::kXidDonePending || !accept_partner(xid, false, now)) {
        // A repeated negotiation-proceeding XID: our answer was lost.
        if (state_ == State::kXidDonePending) {
          send_llc(encode_ldlc_command(LdlcKind::kXid, true, config_.link_sap,
                                       our_xid(XidExchangeState::kNegotiationProceeding)));
        }
        return;
      }
      send_llc(encode_ldlc_command(LdlcKind::kXid, true, config_.link_sap,
                                   our_xid(XidExchangeState::kNegotiationProceeding)));
      after_negotiation(now);
      return;
    case State::kNegotiating:
    case State::kDiscSent:
      return;
  }
}

void LinkStation::on_xid_response(const PartnerXid &xid, TimePoint now) {
  if (state_ == State::kXidSent && xid.state == XidExchangeState::kPrenegotiation) {
    if (!accept_partner(xid, false, now)) {
      send_llc(encode_ldlc_command(LdlcKind::kDisc, false, config_.link_sap, {}));
      return;
    }
    state_ = State::kNegotiating;
    send_with_retry(encode_ldlc_command(LdlcKind::kXid, false, config_.link_sap,
                                        our_xid(XidExchangeState::kNegotiationProceeding)),
                    now);
  } else if (state_ == State::kNegotiating &&
             xid.state == XidExchangeState::kNegotiationProceeding) {
    const bool agrees =
        xid.role == role_bits(!negotiated_.primary) && xid.tg_number == negotiated_.tg_number;
    if (!agrees) {
      send_llc(encode_ldlc_command(LdlcKind::kDisc, false, config_.link_sap, {}));
      fail("the partner did not agree on the link's role and TG number", now);
      return;
    }
    partner_ = xid;
    after_negotiation(now);
  }
}

void LinkStation::after_negotiation(TimePoint now) {
  state_ = State::kXidDonePending;
  if (negotiated_.primary) {
    send_with_retry(encode_xid_done(true, partner_.hpr_sap, config_.local.hpr_sap), now);
  } else {
    wait_for_partner(now);
  }
}

void LinkStation::on_ui(ByteSpan nlp, TimePoint now) {
  if (const std::optional<bool> done = xid_done_kind(nlp)) {
    const bool request = *done;
    if (request && !negotiated_.primary && negotiated_known_ &&
        (state_ == State::kXidDonePending || state_ == State::kNegotiating ||
         state_ == State::kActive)) {
      // Answered again when already active: the first answer was lost.
      sink_.send_datagram(kLlcPortIndex,
                          encode_xid_done(false, partner_.hpr_sap, config_.local.hpr_sap));
      if (state_ != State::kActive) become_active(now);
    } else if (!request && negotiated_.primary && state_ == State::kXidDonePending) {
      become_active(now);
    }
    return;
  }
  if (state_ == State::kXidDonePending && negotiated_.primary) {
    // The partner is active and sending, so our XID_DONE_RSP was lost.
    become_active(now);
  }
  if (state_ == State::kActive) receiver_.on_nlp(nlp);
}

bool LinkStation::send_nlp(Priority priority, ByteSpan nlp) {
  if (state_ != State::kActive || nlp.size() > max_nlp_size()) return false;
  Bytes frame = sink_.take_buffer();
  encode_ui(partner_.hpr_sap, config_.local.hpr_sap, nlp, frame);
  sink_.send_datagram(port_index_of(priority), std::move(frame));
  return true;
}

Bytes LinkStation::start_nlp() {
  Bytes head = sink_.take_buffer();
  head.assign(kLlcSize, 0);  // the UI frame's header, filled when sent
  return head;
}

bool LinkStation::send_nlp_pieces(Priority priority, Bytes head, const SharedSpan &data) {
  if (state_ != State::kActive || head.size() < kLlcSize ||
      head.size() - kLlcSize + data.size > max_nlp_size()) {
    return false;
  }
  put_ui_header(partner_.hpr_sap, config_.local.hpr_sap, head.data());
  sink_.send_datagram_pieces(port_index_of(priority), std::move(head), data);
  return true;
}

size_t LinkStation::max_nlp_size() const {
  return negotiated_known_ ? negotiated_.max_btu : config_.local.max_btu;
}

}  // namespace snanode::net::ee

#include "net/lu62/cnos_service.h"

#include "net/formats/ebcdic_names.h"
#include "net/formats/sense_codes.h"

namespace snanode::net::lu62 {
namespace {

Rh only_chain() {
  Rh rh;
  rh.set_form(ResponseForm::kRqe1);
  return rh;
}

}  // namespace

std::unique_ptr<CnosConversation> CnosConversation::start(CnosOwner &owner, Session &session,
                                                          const ModeConfig &mode) {
  std::unique_ptr<CnosConversation> conversation(new CnosConversation(owner, true, mode.name));
  session.attach_user(conversation.get());
  Bytes ru;
  Rh rh = only_chain();
  rh.fi = true;
  rh.cdi = true;
  if (!encode_cnos_attach(cnos_request(mode), ru) || !session.send_request(rh, ru)) {
    conversation->done_ = true;
    session.release();
    owner.on_cnos_failed(session.partner(), mode.name);
  }
  return conversation;
}

std::unique_ptr<CnosConversation> CnosConversation::answer(CnosOwner &owner, Session &session) {
  std::unique_ptr<CnosConversation> conversation(new CnosConversation(owner, false, {}));
  session.attach_user(conversation.get());
  return conversation;
}

void CnosConversation::on_request(Session &session, const Rh &, ByteSpan ru, uint16_t) {
  if (done_) return session.fail(sense::kFunctionNotSupported);
  if (source_) {
    finish_source(session, ru);
  } else {
    finish_target(session, ru);
  }
}

void CnosConversation::finish_source(Session &session, ByteSpan ru) {
  done_ = true;
  Result<Cnos> reply = decode_cnos(ru);
  if (!reply || reply->service != decision::kCnosReply) {
    owner_.on_cnos_failed(session.partner(), mode_);
    return session.fail(reply ? sense::kParameterError : reply.sense());
  }
  // A crossing exchange the partner keeps sets the limits on its own.
  if (reply->reply_modifier == decision::kCnosReplyRaceRejected) {
    return owner_.on_cnos_failed(session.partner(), mode_);
  }
  owner_.on_cnos_done(session.partner(), mode_, limits_from_reply(reply.value()));
}

void CnosConversation::finish_target(Session &session, ByteSpan ru) {
  done_ = true;
  Result<Cnos> request = decode_cnos_attach(ru);
  if (!request || request->service != decision::kCnosRequest) {
    return session.fail(request ? sense::kParameterError : request.sense());
  }
  mode_ = name_from_ebcdic(request->mode_name).value_or("");
  CnosAnswer answer = answer_cnos(request.value(), owner_.find_mode(mode_));
  const bool race_won = owner_.wins_cnos_race(session.partner(), mode_);
  if (race_won) {
    answer.reply = request.value();
    answer.reply.service = decision::kCnosReply;
    answer.reply.reply_modifier = decision::kCnosReplyRaceRejected;
  }
  Bytes reply;
  Rh rh = only_chain();
  rh.cebi = true;
  if (!encode_cnos(answer.reply, reply) || !session.send_request(rh, reply)) {
    return session.fail(sense::kParameterError);
  }
  if (!race_won && answer.reply.reply_modifier != decision::kCnosReplyModeNotRecognized) {
    owner_.on_cnos_done(session.partner(), mode_, answer.limits);
  }
}

void CnosConversation::on_response(Session &session, const Rh &, ByteSpan, uint16_t) {
  // The CNOS conversation asks for no response; a negative one ends it.
  if (!done_ && source_) owner_.on_cnos_failed(session.partner(), mode_);
  done_ = true;
}

void CnosConversation::on_session_ended(Session &session, uint32_t) {
  if (!done_ && source_) owner_.on_cnos_failed(session.partner(), mode_);
  done_ = true;
}

}  // namespace snanode::net::lu62

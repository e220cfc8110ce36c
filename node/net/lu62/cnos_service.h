// The CNOS service conversation on a SNASVCMG session, for either side: the
// source sends the request with its Attach and change direction, the target
// answers with the reply and ends the bracket.  Either side reports the limits
// it is left with to its owner.
#pragma once

#include <memory>
#include <string>

#include "net/lu62/cnos_negotiation.h"
#include "net/lu62/session.h"

namespace snanode::net::lu62 {

class CnosOwner {
 public:
  virtual ~CnosOwner() = default;
  // Null when the mode is not configured here.
  virtual const ModeConfig *find_mode(std::string_view name) const = 0;
  virtual void on_cnos_done(const std::string &partner, const std::string &mode,
                            const SessionLimits &limits) = 0;
  virtual void on_cnos_failed(const std::string &partner, const std::string &mode) = 0;
  // True when this LU's own CNOS for the mode is under way and its exchange,
  // not the partner's crossing one, is the one both sides keep.
  virtual bool wins_cnos_race(const std::string &partner, const std::string &mode) const = 0;
};

class CnosConversation : public SessionUser {
 public:
  // Source: sends the request for `mode` on `session` at once.
  static std::unique_ptr<CnosConversation> start(CnosOwner &owner, Session &session,
                                                 const ModeConfig &mode);
  // Target: waits for the partner's request on `session`.
  static std::unique_ptr<CnosConversation> answer(CnosOwner &owner, Session &session);

  bool done() const { return done_; }

  void on_request(Session &session, const Rh &rh, ByteSpan ru, uint16_t snf) override;
  void on_response(Session &session, const Rh &rh, ByteSpan ru, uint16_t snf) override;
  void on_request_to_send(Session &) override {}
  void on_session_ended(Session &session, uint32_t sense) override;

 private:
  CnosConversation(CnosOwner &owner, bool source, std::string mode)
      : owner_(owner), source_(source), mode_(std::move(mode)) {}
  void finish_source(Session &session, ByteSpan ru);
  void finish_target(Session &session, ByteSpan ru);

  CnosOwner &owner_;
  bool source_;
  std::string mode_;  // known to the source from the start, to the target from the request
  bool done_ = false;
};

}  // namespace snanode::net::lu62

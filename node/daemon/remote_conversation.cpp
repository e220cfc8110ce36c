#include "daemon/remote_conversation.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstring>

#include "engine/byte_pool.h"
#include "snanode/verbs.h"

namespace snanode::daemon {

using net::lu62::Output;

// Frames for the TP the daemon holds before it stops the partner's flow.
constexpr size_t kTpBacklogLimit = 1u << 20;
// Payload bytes read from the TP before they are acted on.  The TP's end is
// watched level-triggered, so what is left is read on the next turn of the
// loop; read to the end, a TP streaming faster than the session sends would
// have all it writes held in the daemon, and none of it sent meanwhile.
constexpr size_t kTpReadBudget = 256 * 1024;

RemoteConversation::RemoteConversation(net::lu62::ConversationTranslator translator,
                                       net::lu62::Session &session, client::UniqueFd tp_end,
                                       Watch watch, AttachHandler on_attach, Finished on_finished)
    : translator_(std::move(translator)),
      session_(&session),
      tp_end_(std::move(tp_end)),
      watch_(std::move(watch)),
      on_attach_(std::move(on_attach)),
      on_finished_(std::move(on_finished)) {
  reader_.set_takes_descriptors(true);  // the ring a TP may offer
  session.attach_user(this);
  update_watch();
}

RemoteConversation::~RemoteConversation() {
  if (session_ != nullptr && session_->user() == this) session_->attach_user(nullptr);
}

bool RemoteConversation::finished() const {
  return !attach_pending_ && !tp_end_.valid() && (session_ == nullptr || translator_.ended());
}

void RemoteConversation::on_ready(uint32_t events) {
  if ((events & EPOLLOUT) != 0) flush();
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && tp_end_.valid() && !tp_stream_ended_) {
    read_frames();
  }
  update_watch();
}

void RemoteConversation::attach_resolved(uint32_t refusal, client::UniqueFd daemon_end) {
  if (!attach_pending_) return;
  attach_pending_ = false;
  if (refusal == 0 && daemon_end.valid()) {
    tp_end_ = std::move(daemon_end);
    flush();
  } else {
    out_.clear();
    engine::Frame failed;
    failed.type = engine::FrameType::kAttachFailed;
    failed.code = refusal == 0 ? uint32_t{AP_SECURITY_NOT_VALID} : refusal;
    if (!translator_.ended()) apply(translator_.on_frame(failed));
    update_receive_ready();
  }
  update_watch();
}

void RemoteConversation::send_attach() {
  if (session_ == nullptr) return;
  apply(translator_.send_attach());
  update_watch();
}

void RemoteConversation::read_frames(bool to_the_end) {
  reading_ = true;
  std::vector<engine::Frame> &frames = frames_;
  bool broken = false;  // the TP broke the ring's rules: its stream is broken
  do {
    frames.clear();
    // Once a write has failed the TP has gone: what it sent is read to the end.
    reader_.read(tp_end_.get(), frames, to_the_end || tp_write_failed_, false, kTpReadBudget);
    for (engine::Frame &frame : frames) {
      if (!ring_.take(frame, reader_)) {
        broken = true;
        break;
      }
      if (frame.type != engine::FrameType::kRing) apply(translator_.on_frame(frame));
      // The translator copied what it needs: the buffer goes back to the pool
      // so the next frame's is not allocated and zero-filled again.
      engine::give_back_buffer(std::move(frame.payload));
    }
  } while (!broken && tp_write_failed_ && !frames.empty() &&
           reader_.end() == engine::FrameReader::End::kNone);
  frames.clear();
  reading_ = false;
  if (!broken && reader_.end() == engine::FrameReader::End::kNone && !tp_write_failed_) return;
  tp_stream_ended_ = true;
  // The TP has gone: without a deallocation first, its partner hears of a
  // conversation failure.
  if (!translator_.ended()) apply(translator_.on_link_lost());
  out_.clear();
  close_tp_end();
}

void RemoteConversation::on_request(net::lu62::Session &, const net::Rh &rh, net::ByteSpan ru,
                                    uint16_t) {
  apply(translator_.on_unit(rh, ru));
  update_watch();
}

void RemoteConversation::on_response(net::lu62::Session &, const net::Rh &rh, net::ByteSpan ru,
                                     uint16_t) {
  apply(translator_.on_unit(rh, ru));
  update_watch();
}

void RemoteConversation::on_request_to_send(net::lu62::Session &) {
  apply(translator_.on_request_to_send());
  update_watch();
}

void RemoteConversation::on_send_window_open(net::lu62::Session &) {
  update_watch();
}

void RemoteConversation::on_session_ended(net::lu62::Session &, uint32_t sense) {
  session_ = nullptr;
  apply(translator_.on_session_failure(sense));
  update_watch();
}

void RemoteConversation::apply(Output out) {
  if (out.attach) {
    const uint32_t refusal = on_attach_(*this, *out.attach, tp_end_);
    if (refusal == kAttachPending) {
      attach_pending_ = true;
    } else if (refusal != 0) {
      engine::Frame failed;
      failed.type = engine::FrameType::kAttachFailed;
      failed.code = refusal;
      Output answer = translator_.on_frame(failed);
      out.units.insert(out.units.end(), answer.units.begin(), answer.units.end());
      out.frames.clear();
    }
  }
  for (net::lu62::Unit &unit : out.units) {
    if (session_ == nullptr) break;
    // A unit the session refuses (one this side got wrong) ends the TP's view
    // of the conversation as a failure rather than leaving it waiting.
    if (!session_->send_unit(unit.rh, std::move(unit.ru), unit.expedited).ok()) cut_ = true;
    sent_any_ = true;
  }
  if (out.protocol_error != 0 && session_ != nullptr) {
    net::lu62::Session *session = session_;
    session_ = nullptr;  // its end reaches this conversation no more
    session->attach_user(nullptr);
    session->fail(out.protocol_error);
    cut_ = true;
  }
  // While the attach logic decides, frames wait for the TP that may come.
  const bool tp_to_come = tp_end_.valid() || attach_pending_;
  if (tp_to_come) {
    for (engine::Frame &frame : out.frames) queue_frame(std::move(frame));
  }
  if (out.failure) {
    // The TP's next verb learns which failure it is; then its end closes.
    if (tp_to_come && !cut_) {
      engine::Frame failure;
      failure.type = engine::FrameType::kFailure;
      failure.code = *out.failure;
      queue_frame(std::move(failure));
    }
    cut_ = true;
  }
  // The bracket is over: the session may serve another conversation, and
  // this one never touches it again.
  if (translator_.ended()) {
    if (!receive_ready_ && session_ != nullptr) session_->set_receive_ready(true);
    receive_ready_ = true;
    // Ended before anything went out (an abend first thing): the session's
    // bracket was never used and goes back unused.
    if (!sent_any_ && session_ != nullptr && session_->user() == this) session_->release();
    // The bracket's last chain may still wait for the pacing window: the
    // session must not call this conversation, which may be gone by then.
    if (session_ != nullptr && session_->user() == this) session_->attach_user(nullptr);
    session_ = nullptr;
    if (!cut_ && !orderly_end_queued_ && tp_to_come) {
      engine::Outgoing end;
      std::memcpy(end.head, engine::kOrderlyEnd, sizeof engine::kOrderlyEnd);
      end.head_size = sizeof engine::kOrderlyEnd;
      out_.push_back(std::move(end));
      orderly_end_queued_ = true;
    }
  }
  flush();
}

void RemoteConversation::queue_frame(engine::Frame &&frame) {
  engine::Outgoing out;
  engine::encode_frame_header(frame, out.head);
  out.head_size = engine::kFrameHeaderSize;
  out.body = std::move(frame.payload);
  out_.push_back(std::move(out));
}

void RemoteConversation::flush() {
  if (!tp_end_.valid()) {
    update_receive_ready();  // a pending attach's frames count too
    return;
  }
  if (tp_write_failed_) {
    out_.clear();
    return;
  }
  if (out_.write(tp_end_.get()) == engine::OutputQueue::Written::kFailed) {
    // The TP's end is gone (the queue dropped what it held); what the TP
    // sent before it closed still counts (a deallocation, say), so it is
    // read before the end is judged.
    tp_write_failed_ = true;
    // Inside read_frames, it reads on to the end itself.
    if (!reading_ && !tp_stream_ended_) read_frames(/*to_the_end=*/true);
    return;
  }
  if (out_.empty() && (orderly_end_queued_ || cut_)) close_tp_end();
  update_receive_ready();
}

void RemoteConversation::update_receive_ready() {
  const bool ready = out_.bytes() < kTpBacklogLimit;
  if (ready == receive_ready_ || session_ == nullptr) return;
  receive_ready_ = ready;
  session_->set_receive_ready(ready);
}

void RemoteConversation::close_tp_end() {
  if (!tp_end_.valid()) return;
  ring_.close();
  watched_ = 0;
  watch_(*this, 0);
  tp_end_.reset();
}

void RemoteConversation::update_watch() {
  uint32_t events = 0;
  if (tp_end_.valid()) {
    // While the session holds units behind a closed pacing window, the TP's
    // end is not read: the TP waits for the partner rather than the daemon
    // growing by all it sends (on_send_window_open reads on).
    const bool window_closed = session_ != nullptr && session_->held_requests() > 0;
    if (!tp_stream_ended_ && !window_closed) events |= EPOLLIN;
    if (!out_.empty()) events |= EPOLLOUT;
  }
  if (events != watched_) {
    watched_ = events;
    watch_(*this, events);
  }
  if (!finish_told_ && finished()) {
    finish_told_ = true;
    on_finished_(*this);
  }
}

}  // namespace snanode::daemon

// One conversation whose partner TP is on another node: the daemon's end of
// the local TP's link on one side, the bracket on an LU-LU session on the
// other, and a ConversationTranslator between them.
//
// The TP's process is the same as for a local partner: it gets a socket end
// from the daemon and speaks engine frames on it, ending the stream in order
// with the four zero bytes.  The daemon reads and writes that end without
// blocking from its loop; units go to the session as the translator makes
// them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/message_channel.h"
#include "engine/frame_reader.h"
#include "engine/output_queue.h"
#include "engine/record_ring.h"
#include "net/lu62/conversation_translator.h"
#include "net/lu62/session.h"

namespace snanode::daemon {

class RemoteConversation : public net::lu62::SessionUser {
 public:
  // The attached side asks its owner what to do with the partner's Attach:
  // the TP's end of a new socket pair, or the allocation error's secondary
  // code (the socket end then stays invalid), or kAttachPending: the answer
  // comes later through attach_resolved().
  using AttachHandler = std::function<uint32_t(
      RemoteConversation &conversation, const net::Attach &attach, client::UniqueFd &daemon_end)>;
  static constexpr uint32_t kAttachPending = 0xFFFFFFFF;
  // Tells the owner which events of the TP's end to watch (none: -1 events).
  using Watch = std::function<void(RemoteConversation &conversation, uint32_t events)>;
  // Tells the owner, once, that the conversation has finished (it may be
  // inside a session's call then, so the owner drops it later).
  using Finished = std::function<void(RemoteConversation &conversation)>;

  RemoteConversation(net::lu62::ConversationTranslator translator, net::lu62::Session &session,
                     client::UniqueFd tp_end, Watch watch, AttachHandler on_attach,
                     Finished on_finished);
  ~RemoteConversation() override;

  int fd() const { return tp_end_.get(); }
  // The TP's end is readable or writable (or hung up).
  void on_ready(uint32_t events);
  // The answer to a pending Attach: 0 and the TP's end, or the refusal.
  // What the partner sent meanwhile waits for the TP.
  void attach_resolved(uint32_t refusal, client::UniqueFd daemon_end);
  // The Attach goes now if the TP has not yet sent anything to carry it.
  void send_attach();
  // Nothing more will happen: the owner may drop it.
  bool finished() const;

  // SessionUser
  void on_request(net::lu62::Session &session, const net::Rh &rh, net::ByteSpan ru,
                  uint16_t snf) override;
  void on_response(net::lu62::Session &session, const net::Rh &rh, net::ByteSpan ru,
                   uint16_t snf) override;
  void on_request_to_send(net::lu62::Session &session) override;
  void on_send_window_open(net::lu62::Session &session) override;
  void on_session_ended(net::lu62::Session &session, uint32_t sense) override;

 private:
  void apply(net::lu62::Output out);
  // Queues a frame for the TP: its payload is written from where it lies.
  void queue_frame(engine::Frame &&frame);
  void read_frames(bool to_the_end = false);
  void flush();
  void close_tp_end();
  // Every entry ends here: the events to watch, and the owner told once the
  // conversation has finished.
  void update_watch();
  // Holds the partner's next pacing window while the TP has not taken what
  // came before (a TP that does not read must not grow the daemon).
  void update_receive_ready();

  net::lu62::ConversationTranslator translator_;
  net::lu62::Session *session_;
  client::UniqueFd tp_end_;
  Watch watch_;
  AttachHandler on_attach_;
  Finished on_finished_;
  engine::FrameReader reader_;
  std::vector<engine::Frame> frames_;  // read_frames' batch, kept for its room
  engine::OutputQueue out_;            // frames not yet taken by the TP's end
  engine::RingIntake ring_;            // large records the TP sends through memory
  bool tp_stream_ended_ = false;
  bool attach_pending_ = false;   // the attach logic has not answered yet
  bool tp_write_failed_ = false;  // the TP's end refused a write: it has gone
  bool reading_ = false;          // inside read_frames
  bool orderly_end_queued_ = false;
  bool cut_ = false;       // the TP's end closes without the orderly end
  bool sent_any_ = false;  // a unit of this conversation went to the session
  bool receive_ready_ = true;
  uint32_t watched_ = 0;
  bool finish_told_ = false;
};

}  // namespace snanode::daemon

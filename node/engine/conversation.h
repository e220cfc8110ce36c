// One side of an LU 6.2 conversation.
//
// A Conversation holds everything one TP's end of a conversation knows: its
// state, the data it buffers before sending, the frames that arrived from the
// partner and not yet been received, the request-to-send flag, and the one verb
// that may be waiting on the partner.  It talks to its partner only through
// its Link, so the same object serves when the partner is in this process or
// in another one.
//
// Every method runs under the node's lock.  A verb method returns true when
// the verb has completed (its record holds the results) and false when it
// waits; the waiting verb is completed later through the host.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "engine/link.h"
#include "engine/logical_records.h"
#include "snanode/verbs.h"

namespace snanode::engine {

// What a conversation needs from the engine that owns it.
class ConversationHost {
 public:
  virtual ~ConversationHost() = default;
  // A verb that waited has its results in `vcb`.
  virtual void verb_completed(void *vcb, void *token) = 0;
  // The partner sent log data with an error or an abnormal deallocation.
  virtual void partner_log_data(uint32_t conv_id, const std::vector<uint8_t> &log_data) = 0;
};

// Unreceived data a side holds before it stops taking in more: past it, a
// partner in another process waits (its socket fills) until the TP receives.
inline constexpr size_t kInboundLimit = 256 * 1024;

struct ConversationSetup {
  uint32_t id = 0;
  bool mapped = true;
  uint8_t sync_level = 0;  // 0 none, 1 confirm
  uint32_t send_buffer_size = 4096;
  bool starts_in_send = true;  // the allocating side sends first
};

enum class ConvState : uint8_t {
  kReset = AP_STATE_RESET,
  kSend = AP_STATE_SEND,
  kReceive = AP_STATE_RECEIVE,
  kConfirm = AP_STATE_CONFIRM,
  kConfirmSend = AP_STATE_CONFIRM_SEND,
  kConfirmDeallocate = AP_STATE_CONFIRM_DEALLOCATE,
  kSendPending = AP_STATE_SEND_PENDING,
};

class Conversation : public FrameSink {
 public:
  Conversation(const ConversationSetup &setup, std::unique_ptr<Link> link, ConversationHost &host);
  ~Conversation() override;
  Conversation(const Conversation &) = delete;
  Conversation &operator=(const Conversation &) = delete;

  uint32_t id() const { return setup_.id; }
  void set_id(uint32_t id) { setup_.id = id; }
  bool mapped() const { return setup_.mapped; }
  uint8_t sync_level() const { return setup_.sync_level; }
  ConvState state() const { return state_; }
  // Data the TP has sent and the partner has sent it, in bytes (for status).
  uint64_t bytes_sent() const { return bytes_sent_; }
  uint64_t bytes_received() const { return bytes_received_; }
  bool has_waiting_verb() const { return waiting_.vcb != nullptr; }
  std::shared_ptr<LinkReader> link_reader() const { return link_->reader(); }
  // Where the next record may go for the receive `vcb`, while it waits on a
  // mapped conversation with nothing received ahead of it (see Landing).
  bool landing(const void *vcb, Landing &landing) const;
  // Ended, and nothing left to tell the TP: the engine may drop it.
  bool finished() const { return state_ == ConvState::kReset && !has_waiting_verb() && busy_ == 0; }
  // A verb is being carried out on it: one that may release the node's lock
  // while it writes (see Link::send_data).  No other verb but GET_STATE and a
  // cancel runs meanwhile, and the engine keeps the conversation.
  bool busy() const { return busy_ != 0; }
  struct BusyScope {
    explicit BusyScope(Conversation &c) : conv(c) { ++conv.busy_; }
    ~BusyScope() { --conv.busy_; }
    BusyScope(const BusyScope &) = delete;
    BusyScope &operator=(const BusyScope &) = delete;
    Conversation &conv;
  };

  // The engine says, before each verb, whether the caller's thread waits for
  // it (and so reads the socket itself), and afterwards lets the
  // conversation tell its link what input it wants.
  void set_caller_blocks(bool blocks) { caller_blocks_ = blocks; }
  void verb_done() { refresh_input_interest(); }

  bool send_data(NAP_SEND_DATA_VCB &vcb, void *token);
  bool receive(NAP_RECEIVE_VCB &vcb, bool wait, void *token);
  bool confirm(NAP_CONFIRM_VCB &vcb, void *token);
  void confirmed(NAP_HDR &hdr);
  void flush(NAP_HDR &hdr);
  bool prepare_to_receive(NAP_PREPARE_TO_RECEIVE_VCB &vcb, void *token);
  void request_to_send(NAP_HDR &hdr);
  void send_error(NAP_SEND_ERROR_VCB &vcb);
  void test_rts(NAP_HDR &hdr);
  bool deallocate(NAP_DEALLOCATE_VCB &vcb, void *token);
  void get_state(NAP_GET_STATE_VCB &vcb) const;

  // The attach was refused: the allocating side learns why (an allocation
  // error's secondary return code) and this side is gone.
  void refuse_attach(uint32_t secondary);
  // Cancel or the end of the TP: a waiting verb gets `waiting_rc`, the
  // partner sees an abnormal deallocation, the conversation is over.
  void abort(uint16_t waiting_rc);
  // The node is going away under the conversation: a waiting verb gets
  // `waiting_rc` and the partner, if any, hears the link break.
  void drop(uint16_t waiting_rc);

  // FrameSink
  void on_frame(Frame &&frame) override;
  void link_lost() override;

 private:
  // What arrived from the partner, in order.
  enum class InKind : uint8_t {
    kData,
    kChangeDirection,
    kConfirm,
    kConfirmSend,
    kConfirmDeallocate,
    kErrorNoTrunc,
    kErrorTrunc,
    kErrorPurging,
    kDeallocNormal,
    kDeallocAbend,
    kFailure,
    kAttachFailed,
  };
  struct Inbound {
    InKind kind;
    std::vector<uint8_t> bytes;  // data, or log data
    size_t offset = 0;           // data already received
    uint32_t code = 0;           // secondary return code of kAttachFailed
    size_t landed = 0;           // a record already in the waiting receive's buffer
  };
  enum class WaitKind : uint8_t { kNone, kReceive, kConfirmed };
  struct Waiting {
    WaitKind kind = WaitKind::kNone;
    void *vcb = nullptr;
    void *token = nullptr;
    ConfirmKind after = ConfirmKind::kPlain;  // what a kConfirmed wait asked for
    bool caller_blocks = false;
  };
  struct Result {
    uint16_t primary = AP_OK;
    uint32_t secondary = 0;
  };

  bool in_send_state() const {
    return state_ == ConvState::kSend || state_ == ConvState::kSendPending;
  }
  bool in_confirm_state() const {
    return state_ == ConvState::kConfirm || state_ == ConvState::kConfirmSend ||
           state_ == ConvState::kConfirmDeallocate;
  }
  uint8_t take_rts();

  // Sending.
  bool buffer_data(const uint8_t *data, size_t length, Result &result);
  // Whether a SEND_DATA of `type` and `length` flushes nothing but its own data.
  bool sends_alone(uint8_t type, size_t length) const;
  // Sends what is buffered; `more_follows` when a control frame comes next.
  void send_buffer(bool more_follows);
  // `more`: the verb sends another frame at once (see Link::send).
  void send_frame(FrameType type, uint8_t flags, std::vector<uint8_t> payload = {},
                  bool more = false);
  bool send_confirm(ConfirmKind kind, NAP_HDR &hdr, void *token);
  bool turn_around(bool confirm_first, NAP_HDR &hdr, void *token);
  bool deallocate_normal(bool confirm_first, NAP_HDR &hdr, void *token);
  void deallocate_abend(std::vector<uint8_t> log_data);
  // A notice from the partner (error, abend, failure) that ends this side's
  // sending, applied to `result`; false when there is none.
  // `fetch`: first take in what the link has not delivered yet.
  bool take_send_notice(Result &result, bool fetch = true);

  // Receiving.
  bool try_receive(NAP_RECEIVE_VCB &vcb);
  bool receive_data(NAP_RECEIVE_VCB &vcb, Inbound &item);
  void deliver_data(NAP_RECEIVE_VCB &vcb, Inbound &item, size_t length, uint16_t what);
  bool apply_status(InKind kind, uint16_t &what_received, bool with_data);
  bool terminal_result(const Inbound &item, Result &result) const;
  void purge_inbound();
  void recount_inbound();
  // Tells the link whether to deliver input as it comes (see the .cpp).
  void refresh_input_interest();
  void set_input_wanted(bool wanted);
  void truncate_incomplete_record();
  void enqueue(InKind kind, std::vector<uint8_t> bytes = {}, uint32_t code = 0);
  void take_frame(Frame &&frame);

  // Waiting verbs.
  void wait_for(WaitKind kind, void *vcb, void *token, ConfirmKind after = ConfirmKind::kPlain);
  void service_waiting();
  // Completes the waiting verb; `result` unless the verb wrote its own.
  void complete_waiting(std::optional<Result> result);
  // Puts a request-to-send that came while a confirmation was awaited into
  // the waiting verb's record, when the verb has room for it.
  void report_rts_with_confirmed();

  void end_conversation();

  ConversationSetup setup_;
  std::unique_ptr<Link> link_;
  ConversationHost &host_;
  ConvState state_;
  bool rts_received_ = false;
  Waiting waiting_;

  std::vector<uint8_t> out_bytes_;                 // basic: buffered stream
  std::vector<std::vector<uint8_t>> out_records_;  // mapped: buffered records
  size_t out_size_ = 0;
  RecordCursor out_cursor_;  // basic: where the sent stream stands

  std::deque<Inbound> inbound_;
  bool control_follows_ = false;  // the last frame was data with a status right behind it
  bool purging_ = false;          // a purging send-error went out, not yet answered
  size_t inbound_data_ = 0;       // bytes of data in inbound_ not yet received
  bool input_paused_ = false;     // past kInboundLimit
  bool input_wanted_ = false;     // as last told to the link
  bool caller_blocks_ = false;    // the verb being carried out has a thread waiting for it
  int busy_ = 0;
  uint64_t bytes_sent_ = 0;
  uint64_t bytes_received_ = 0;
  RecordCursor in_cursor_;  // basic: where the received stream stands
};

}  // namespace snanode::engine

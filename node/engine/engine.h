// The LU 6.2 conversation engine: every APPC verb a TP submits ends here.
//
// The engine keeps the node's TPs, its conversations (one Conversation object
// per side, joined by a Link), the local TP names TPs accept under, attaches
// waiting for a TP to accept them, accepts waiting for an attach, and
// allocations waiting for a free session.  All its methods run under the
// node's lock; verbs that have to wait are completed later through the hooks,
// still under that lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "client/daemon_protocol.h"
#include "client/unique_fd.h"
#include "config/node_config.h"
#include "engine/conversation.h"
#include "engine/deadline_timer.h"
#include "engine/directory.h"
#include "engine/remote_node.h"
#include "snanode/verbs.h"

namespace snanode::engine {

// Problem-log code of log data received from a partner (basic conversations).
inline constexpr uint32_t kPartnerLogDataProblem = 0x10040001;

struct EngineHooks {
  // A verb that waited has completed; called with the lock held.
  std::function<void(void *token)> complete;
  // Runs `work` with the node's lock held (the timer thread needs it).
  std::function<void(const std::function<void()> &work)> run_locked;
  // Writes log data a partner sent to the problem log.
  std::function<void(uint32_t conv_id, const std::vector<uint8_t> &log_data)> log_data;
  // Makes the link over a socket end the daemon handed over; unset: a socket
  // link that delivers under the process lock.
  std::function<std::unique_ptr<Link>(client::UniqueFd end)> socket_link;
};

class Engine : private ConversationHost {
 public:
  Engine(const config::NodeConfig &config, EngineHooks hooks);
  ~Engine() override;
  Engine(const Engine &) = delete;
  Engine &operator=(const Engine &) = delete;

  // Carries out one verb.  True: completed, results in `vcb`.  False: the
  // verb waits and hooks.complete(token) follows exactly once.
  // `caller_blocks`: the caller's thread waits for it (and reads the
  // conversation's socket itself, see reader_for) rather than a routine.
  bool start(void *vcb, void *token, bool caller_blocks = false);

  // The process is leaving the node: every waiting verb completes with a
  // conversation failure and all state is dropped.
  void end_path();

  // Routes to and from the node daemon; nullptr: TPs of this process only.
  // The engine tells a new daemon the names and accepts it already has.
  void set_remote(RemoteNode *remote);
  // The daemon's answer to an allocation: primary 0 with the allocating
  // side's end of the conversation, or the allocation error.
  void remote_allocated(const client::AllocateResult &result, client::UniqueFd end);
  // An attach from the daemon, with the attached side's end.
  void remote_attached(client::AttachDelivery attach, client::UniqueFd end);

  // For a thread whose verb on a conversation waits or has sent: a way to
  // read and write the conversation's link itself (see LinkReader), or
  // nullptr.  Also for one whose verb has just ended its conversation (the
  // engine has let go of it): the link, to write out before the verb returns.
  std::shared_ptr<LinkReader> reader_for(const void *vcb);

  // What the engine holds, for the daemon's status (engine_report.cpp).
  client::StatsReport report() const;
  // Where the link may put the next record for a receive that waits (see
  // Landing); false when it may not.
  bool landing_for(const void *vcb, Landing &landing);

 private:
  using TpId = uint64_t;
  using Clock = DeadlineTimer::Clock;

  struct Tp {
    std::string lu_alias;
    std::string lu_name;
    std::optional<std::string> verified_user;
    std::string name;  // the TP's name, for status reports
  };
  struct ConvEntry {
    std::unique_ptr<Conversation> conv;
    TpId tp = 0;
    std::string session;  // partner LU and mode of the session it holds; empty: none
    // For status reports.
    std::string partner_tp;  // known on the allocating side only
    std::string partner_lu;
    std::string mode;
    DeadlineTimer::Clock::time_point since = DeadlineTimer::Clock::now();
  };
  // What an attach tells the accepting TP.
  struct AttachInfo {
    std::string tp_name;
    bool mapped = true;
    uint8_t sync_level = 0;
    std::optional<std::string> user;
    std::string mode;
    std::string partner_lu_name;  // the allocating side's LU
    std::string local_lu_alias;   // the LU the attach arrives at
  };
  struct PendingAttach {
    AttachInfo info;
    std::unique_ptr<Conversation> half;
    Clock::time_point deadline;
  };
  struct WaitingAccept {
    NAP_RECEIVE_ALLOCATE *vcb;
    void *token;
    std::vector<std::string> names;
    uint32_t accept_id;  // as the daemon knows it
  };
  struct AllocateRequest {
    TpId tp = 0;
    std::string session;
    uint32_t send_buffer_size = 0;
    AttachInfo info;
    bool security_valid = true;
    // Set when the allocation goes to the daemon, which checks it instead.
    std::optional<client::AllocateRequest> remote;
  };
  struct WaitingAllocate {
    NAP_ALLOCATE *vcb;
    void *token;
    AllocateRequest request;
  };

  // ConversationHost
  void verb_completed(void *vcb, void *token) override;
  void partner_log_data(uint32_t conv_id, const std::vector<uint8_t> &log_data) override;

  // TPs and local TP names.
  void start_tp(NAP_START_TP_VCB &vcb);
  void tp_ended(NAP_TP_ENDED_VCB &vcb);
  void define_local_tp(NAP_LOCAL_TP_VCB &vcb);
  void delete_local_tp(NAP_LOCAL_TP_VCB &vcb);
  Tp *find_tp(const uint8_t *tp_id);

  // Allocation and attach (engine_attach.cpp).
  bool allocate(NAP_ALLOCATE &vcb, void *token);
  // Takes a session and makes the conversation; false while the daemon is
  // asked (the verb then completes in remote_allocated).
  bool establish(NAP_ALLOCATE &vcb, void *token, const AllocateRequest &request);
  void add_conversation(NAP_ALLOCATE &vcb, const AllocateRequest &request,
                        std::unique_ptr<Conversation> own);
  void attach(AttachInfo info, std::unique_ptr<Conversation> half, bool security_valid);
  bool receive_allocate(NAP_RECEIVE_ALLOCATE &vcb, void *token);
  void deliver_attach(PendingAttach attach, NAP_RECEIVE_ALLOCATE &vcb);
  bool serves(const std::string &tp_name) const;
  // A TP of this process accepts the name (the daemon need not be asked).
  bool served_here(const std::string &tp_name) const;
  // Takes a waiting accept off the list, telling the daemon.
  WaitingAccept take_accept(std::list<WaitingAccept>::iterator accept);
  void queue_attach(PendingAttach attach, uint32_t timeout_ms);
  const config::InvokableTp *invokable(const std::string &tp_name) const;
  void expire_attaches();
  void grant_sessions();

  // Conversation verbs and cancel.
  bool conversation_verb(void *vcb, void *token, bool caller_blocks);
  bool carry_out(Conversation &conv, void *vcb, void *token);
  void cancel(NAP_HDR &hdr);
  // Allocations of `tp` still waiting for a session end with 0x2100.
  void cancel_allocates(TpId tp);
  // Drops the conversations in maybe_ended_ that have ended and frees their
  // sessions.
  void reap();
  uint32_t next_conv_id();
  // `via_node`: the other side of the end is the daemon's (see SocketPeer).
  std::unique_ptr<Link> socket_link(client::UniqueFd end, bool via_node);

  config::NodeConfig config_;
  Directory directory_;
  EngineHooks hooks_;
  TpId next_tp_ = 1;
  uint32_t next_conv_ = 1;
  std::unordered_map<TpId, Tp> tps_;
  std::map<uint32_t, ConvEntry> convs_;
  // Conversations that may have ended since the last reap: every verb's, and
  // every one a completion, cancel or TP end touched, or newly added.  A
  // conversation ends only through one of these.
  std::vector<uint32_t> maybe_ended_;
  // The conversations in convs_ of each TP, so that the end of one TP does
  // not walk every conversation.
  std::unordered_map<TpId, std::vector<uint32_t>> tp_convs_;
  std::deque<uint32_t> recently_ended_;  // GET_STATE still answers Reset for these
  std::unordered_set<uint32_t> recently_ended_set_;
  std::map<std::string, int> local_tp_names_;
  std::map<std::string, uint32_t> sessions_in_use_;
  std::list<PendingAttach> attaches_;
  std::list<WaitingAccept> accepts_;
  std::list<WaitingAllocate> allocates_;
  RemoteNode *remote_ = nullptr;
  uint32_t next_accept_id_ = 0;
  // Allocations the daemon has not answered; a null vcb: the TP gave up.
  std::map<uint32_t, WaitingAllocate> remote_allocates_;
  // The link of the conversation that the last verb ended, while its caller's
  // thread has yet to write it out (reader_for).
  const void *ended_vcb_ = nullptr;
  std::shared_ptr<LinkReader> ended_link_;
  DeadlineTimer timer_;  // last: stopped before the state it looks at goes
};

}  // namespace snanode::engine

// The daemon's bookkeeping: which connected processes accept which TP names,
// which receive-allocates wait, which attaches wait for a TP, and how an
// allocation is checked and handed over.
//
// The broker never touches a socket of a client itself: it answers through
// BrokerOutput, so the server's poll loop and the tests drive it the same way.
// Conversation data never passes through it: for each allocation it makes a
// socketpair, gives one end to the allocating process at once and the other
// to the accepting process when one takes the attach.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/daemon_protocol.h"
#include "client/message_channel.h"
#include "config/node_config.h"
#include "engine/directory.h"

namespace snanode::daemon {

using ClientId = uint64_t;
using Clock = std::chrono::steady_clock;

class BrokerOutput {
 public:
  virtual ~BrokerOutput() = default;
  // Sends a message to a client, passing `descriptor` when >= 0.  False when
  // the client cannot be reached (the server then drops it).
  virtual bool send(ClientId client, const client::Message &message, int descriptor) = 0;
  // Starts an instance of an invokable TP at the local LU `lu_alias` (the
  // node's own definition); false when it could not be started.
  virtual bool launch(const config::InvokableTp &tp, const std::string &lu_alias) = 0;
  // One line of the daemon's log.
  virtual void log(const std::string &line) = 0;
  // A line a client can cause at will, of a kind whose lines are rate
  // limited together.  By default, as log().
  virtual void log_limited(const std::string &kind, const std::string &line) {
    (void)kind;
    log(line);
  }
  // Runs `check`, a verification with the system that may take seconds, away
  // from the broker's thread, and later `done` with its verdict on it.  False
  // when too many verifications wait already.  By default, at once.
  virtual bool verify_off_thread(ClientId client, std::function<bool()> check,
                                 std::function<void(bool)> done) {
    (void)client;
    done(check());
    return true;
  }
};

// Verifies a user's password with the system (PAM); unset: nobody is.
using PasswordCheck = std::function<bool(const std::string &user, const std::string &password)>;

struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = 0;
};

// The uid an invokable TP's programs run as, which alone may accept its
// attaches: the uid its `user` names, else the daemon's own.
using TpOwner = std::function<uid_t(const config::InvokableTp &tp)>;

// Takes an allocation whose partner LU lives on another node, with the user
// this daemon verified for the allocating process (security SAME); false when
// the partner is not one it reaches.
using RemoteAllocation = std::function<bool(ClientId client, const client::AllocateRequest &request,
                                            const std::optional<std::string> &verified_user)>;

// What the broker holds, for the node's status (snanodectl).
struct BrokerSnapshot {
  struct Process {
    ClientId client = 0;
    PeerCredentials peer;
    std::vector<std::string> tp_names;  // registered
  };
  struct Accept {
    ClientId client = 0;
    std::vector<std::string> tp_names;
  };
  struct QueuedAttach {
    std::string tp_name;
    std::string mode;
    std::string partner_lu;
    Clock::duration left;  // until it is refused
  };
  std::vector<Process> processes;  // greeted ones
  std::vector<Accept> accepts;
  std::vector<QueuedAttach> attaches;
};

class Broker {
 public:
  // `owner` defaults to the uid of the account named by the TP's `user`, or
  // the daemon's effective uid.
  Broker(const config::NodeConfig &config, BrokerOutput &output, PasswordCheck system_check,
         TpOwner owner = nullptr);

  void connected(ClientId client, const PeerCredentials &peer);
  // False when the client broke the protocol and must be dropped.
  bool handle(ClientId client, client::ReceivedMessage &&received);
  // The client's connection is over: its names and waiting accepts go.
  void disconnected(ClientId client);

  // Refuses attaches whose queue time-out has passed.
  void expire(Clock::time_point now);
  std::optional<Clock::time_point> next_deadline() const;

  BrokerSnapshot snapshot(Clock::time_point now) const;
  // The pid of a connection's process (0 once it is gone), and whether the
  // process holds `tp_name`: registered, or waited for in an accept.
  pid_t pid_of(ClientId client) const;
  bool holds_tp(ClientId client, const std::string &tp_name) const;

  // An instance of an invokable TP the daemon started has exited.
  void instance_exited(const std::string &tp_name);

  // Takes the invokable TPs and side information of a configuration read
  // again (the daemon's reload).  Connections, waiting accepts, queued
  // attaches and running instances stay as they are; an attach queued for a
  // TP whose definition went times out as any other.
  void replace_definitions(const config::NodeConfig &fresh);

  // Allocations to LUs on other nodes go to `remote`.
  void set_remote_allocation(RemoteAllocation remote) { remote_ = std::move(remote); }
  // An Attach from a partner node, as an allocation request whose security
  // the caller has already mapped (`request.allocator_user`: a user the
  // partner verified and this node trusts).  Queues it for a TP with `end` as
  // the attached side's end, or returns the allocation error's secondary code.
  // `system_verified`: the system (PAM) accepted the Attach's user and
  // password (verify_from_network).
  uint32_t attach_from_network(const client::AllocateRequest &request, client::UniqueFd end,
                               bool system_verified = false);
  // Whether an Attach's password is the system's to verify, as it would be for
  // a local allocation; then verify_from_network() runs first.
  bool verified_by_system(const client::AllocateRequest &request) const {
    return left_to_system(request);
  }
  // Verifies the Attach's user and password with the system away from the
  // loop; `done` gets the verdict.  False when too many verifications wait.
  bool verify_from_network(const client::AllocateRequest &request, std::function<void(bool)> done);

 private:
  struct Client {
    PeerCredentials peer;
    bool greeted = false;
    std::multiset<std::string> tp_names;
    // Users of attaches delivered to this connection (one process, one uid)
    // for names it was allowed to take.
    std::set<std::string> verified_users;
  };
  struct WaitingAccept {
    ClientId client;
    uint32_t accept_id;
    std::vector<std::string> tp_names;
  };
  struct PendingAttach {
    client::AttachDelivery info;  // accept_id set on delivery
    client::UniqueFd end;         // the accepting side's end
    Clock::time_point deadline;
    ClientId allocator;
  };
  struct Instances {
    unsigned running = 0;
    unsigned starting = 0;  // started, no accept seen yet
  };

  bool greet(ClientId client, Client &state, const client::Hello &hello);
  // False, with a log line, when the client passes its limits (limits.h).
  bool within_limits(ClientId client, const Client &state, const client::Message &message);
  void allocate(ClientId client, Client &state, const client::AllocateRequest &request);
  // The allocation once its security is decided.
  void complete_allocation(ClientId client, const client::AllocateRequest &request, bool valid,
                           const std::optional<std::string> &user);
  void fail_for_retry(ClientId client, const client::AllocateRequest &request,
                      const std::string &reason);
  void accept_wait(ClientId client, client::AcceptWait &&wait);
  void accept_cancel(ClientId client, uint32_t accept_id);
  bool serves(const std::string &tp_name) const;
  // Whether a process of `uid` may accept conversations for the name: an
  // invokable TP's only under its owner's uid, another name only when no
  // process of another uid holds it.  Logs a refusal.
  bool may_take(ClientId client, uid_t uid, const std::string &tp_name);
  const config::InvokableTp *invokable(const std::string &tp_name) const;
  // Verifies the allocation's security; the verified user, if any, in `user`.
  bool verify_security(const Client &state, const client::AllocateRequest &request,
                       std::optional<std::string> &user) const;
  // A user configured without a password: the system (PAM) verifies it.
  bool left_to_system(const client::AllocateRequest &request) const;
  // The system's check of the request's user and password, to run off the loop.
  std::function<bool()> system_check_of(const client::AllocateRequest &request) const;
  void refuse(ClientId client, const client::AllocateRequest &request, uint32_t secondary);
  // The attach checks of an allocation whose security is decided: 0, or the
  // allocation error's secondary code.
  uint32_t attach_check(const client::AllocateRequest &request, bool valid,
                        const std::optional<std::string> &user) const;
  PendingAttach pending_attach(const client::AllocateRequest &request,
                               const std::optional<std::string> &user, client::UniqueFd end,
                               ClientId allocator) const;
  // Hands the attach to a waiting accept, or queues it (starting the TP).
  void offer(PendingAttach attach);
  void deliver(PendingAttach &attach, const WaitingAccept &accept);
  void start_instance_if_needed(const std::string &tp_name);
  // The local LU alias of the node's own definition the attach arrives at.
  std::string local_lu_of(const client::AllocateRequest &request,
                          const config::InvokableTp *tp) const;
  void log_request(const char *what, ClientId client, const client::AllocateRequest &request,
                   const std::string &outcome);

  config::NodeConfig config_;
  engine::Directory directory_;  // the default local LU for attaches that name none
  BrokerOutput &output_;
  PasswordCheck system_check_;
  std::map<ClientId, Client> clients_;
  std::list<WaitingAccept> accepts_;
  std::list<PendingAttach> attaches_;
  std::map<std::string, Instances> instances_;
  TpOwner owner_;
  std::map<std::string, uid_t> owners_;  // invokable TP name -> its owner's uid
  unsigned started_running_ = 0;         // started programs running, all TPs
  RemoteAllocation remote_;
};

}  // namespace snanode::daemon

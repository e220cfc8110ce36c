#include "daemon/broker.h"

#include <sys/socket.h>

#include <algorithm>
#include <sstream>

#include "client/attach_policy.h"
#include "daemon/limits.h"
#include "daemon/log_text.h"
#include "daemon/run_as.h"
#include "engine/frame.h"
#include "engine/security.h"
#include "engine/socket_link.h"
#include "snanode/verbs.h"

namespace snanode::daemon {
namespace {

bool lists(const std::vector<std::string> &names, const std::string &name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

bool is_program_security(uint8_t type) {
  return type == engine::kSecurityProgram || type == engine::kSecurityProgramStrong;
}

uid_t default_owner(const config::InvokableTp &tp) {
  std::string ignored;
  const auto account = tp_account(tp, ::geteuid(), ignored);
  return account ? account->uid : ::geteuid();
}

}  // namespace

Broker::Broker(const config::NodeConfig &config, BrokerOutput &output, PasswordCheck system_check,
               TpOwner owner)
    : config_(config),
      directory_(config_),
      output_(output),
      system_check_(std::move(system_check)),
      owner_(owner ? std::move(owner) : TpOwner(default_owner)) {
  for (const auto &tp : config_.tps) owners_[tp.tp_name] = owner_(tp);
}

void Broker::replace_definitions(const config::NodeConfig &fresh) {
  config_.tps = fresh.tps;
  config_.side_info = fresh.side_info;
  owners_.clear();
  for (const auto &tp : config_.tps) owners_[tp.tp_name] = owner_(tp);
  // Attaches already queued for a TP defined only now may start it.
  for (const auto &tp : config_.tps) start_instance_if_needed(tp.tp_name);
}

void Broker::connected(ClientId client, const PeerCredentials &peer) {
  clients_[client].peer = peer;
}

bool Broker::handle(ClientId client, client::ReceivedMessage &&received) {
  auto found = clients_.find(client);
  if (found == clients_.end()) return false;
  Client &state = found->second;
  client::Message &message = received.message;
  if (!state.greeted) {
    const auto *hello = std::get_if<client::Hello>(&message);
    return hello != nullptr && greet(client, state, *hello);
  }
  if (!within_limits(client, state, message)) return false;
  if (const auto *m = std::get_if<client::RegisterTp>(&message)) {
    if (may_take(client, state.peer.uid, m->tp_name)) state.tp_names.insert(m->tp_name);
  } else if (const auto *m = std::get_if<client::WithdrawTp>(&message)) {
    if (auto it = state.tp_names.find(m->tp_name); it != state.tp_names.end()) {
      state.tp_names.erase(it);
    }
  } else if (auto *m = std::get_if<client::AcceptWait>(&message)) {
    accept_wait(client, std::move(*m));
  } else if (const auto *m = std::get_if<client::AcceptCancel>(&message)) {
    accept_cancel(client, m->accept_id);
  } else if (const auto *m = std::get_if<client::AllocateRequest>(&message)) {
    allocate(client, state, *m);
  } else {
    output_.log_limited("protocol", "client " + std::to_string(client) + " sent an unexpected " +
                                        client::message_name(message) + " message; dropped");
    return false;
  }
  return true;
}

BrokerSnapshot Broker::snapshot(Clock::time_point now) const {
  BrokerSnapshot snapshot;
  for (const auto &[id, state] : clients_) {
    if (!state.greeted) continue;
    std::set<std::string> names(state.tp_names.begin(), state.tp_names.end());
    snapshot.processes.push_back({id, state.peer, {names.begin(), names.end()}});
  }
  for (const auto &accept : accepts_) snapshot.accepts.push_back({accept.client, accept.tp_names});
  for (const auto &attach : attaches_) {
    snapshot.attaches.push_back({attach.info.tp_name, attach.info.mode, attach.info.partner_lu_name,
                                 attach.deadline - now});
  }
  return snapshot;
}

bool Broker::within_limits(ClientId client, const Client &state, const client::Message &message) {
  const char *passed = nullptr;
  if (std::holds_alternative<client::RegisterTp>(message) &&
      state.tp_names.size() >= limits::kTpNamesPerClient) {
    passed = "registered TP names";
  } else if (const auto *wait = std::get_if<client::AcceptWait>(&message)) {
    const auto waiting = std::count_if(accepts_.begin(), accepts_.end(),
                                       [&](const WaitingAccept &a) { return a.client == client; });
    if (static_cast<size_t>(waiting) >= limits::kAcceptWaitsPerClient ||
        wait->tp_names.size() > limits::kTpNamesPerClient) {
      passed = "waiting accepts";
    }
  }
  if (passed == nullptr) return true;
  output_.log_limited("limit", "client " + std::to_string(client) + " dropped: too many " + passed);
  return false;
}

bool Broker::greet(ClientId client, Client &state, const client::Hello &hello) {
  if (hello.version != client::kProtocolVersion) {
    output_.log_limited("hello", "client " + std::to_string(client) +
                                     " refused: its node library speaks protocol version " +
                                     std::to_string(hello.version) + ", this daemon version " +
                                     std::to_string(client::kProtocolVersion));
    return false;
  }
  if (hello.pid != static_cast<uint32_t>(state.peer.pid) ||
      hello.uid != static_cast<uint32_t>(state.peer.uid)) {
    output_.log_limited(
        "hello", "client " + std::to_string(client) + " refused: hello (pid " +
                     std::to_string(hello.pid) + ", uid " + std::to_string(hello.uid) +
                     ") does not match the connection (pid " + std::to_string(state.peer.pid) +
                     ", uid " + std::to_string(state.peer.uid) + ")");
    return false;
  }
  state.greeted = true;
  return output_.send(client, client::Welcome{client::kProtocolVersion, config_.node_name}, -1);
}

void Broker::disconnected(ClientId client) {
  clients_.erase(client);
  accepts_.remove_if([&](const WaitingAccept &accept) { return accept.client == client; });
}

pid_t Broker::pid_of(ClientId client) const {
  auto found = clients_.find(client);
  return found == clients_.end() ? 0 : found->second.peer.pid;
}

bool Broker::holds_tp(ClientId client, const std::string &tp_name) const {
  auto found = clients_.find(client);
  if (found == clients_.end()) return false;
  if (found->second.tp_names.count(tp_name) != 0) return true;
  return std::any_of(accepts_.begin(), accepts_.end(), [&](const WaitingAccept &accept) {
    return accept.client == client && lists(accept.tp_names, tp_name);
  });
}

bool Broker::serves(const std::string &tp_name) const {
  if (invokable(tp_name) != nullptr) return true;
  for (const auto &[id, state] : clients_) {
    if (state.tp_names.count(tp_name) != 0) return true;
  }
  return std::any_of(accepts_.begin(), accepts_.end(),
                     [&](const WaitingAccept &accept) { return lists(accept.tp_names, tp_name); });
}

bool Broker::may_take(ClientId client, uid_t uid, const std::string &tp_name) {
  std::optional<uid_t> holder;
  if (auto owner = owners_.find(tp_name); owner != owners_.end()) {
    holder = owner->second;
  } else {
    for (const auto &[id, other] : clients_) {
      if (other.peer.uid != uid && other.tp_names.count(tp_name) != 0) holder = other.peer.uid;
    }
    for (const auto &accept : accepts_) {
      const uid_t other = clients_.at(accept.client).peer.uid;
      if (other != uid && lists(accept.tp_names, tp_name)) holder = other;
    }
  }
  if (!holder || *holder == uid) return true;
  output_.log("client " + std::to_string(client) + " (uid " + std::to_string(uid) +
              ") refused TP name " + log_safe(tp_name) + ": it belongs to uid " +
              std::to_string(*holder));
  return false;
}

const config::InvokableTp *Broker::invokable(const std::string &tp_name) const {
  for (const auto &tp : config_.tps) {
    if (tp.tp_name == tp_name) return &tp;
  }
  return nullptr;
}

bool Broker::verify_security(const Client &state, const client::AllocateRequest &request,
                             std::optional<std::string> &user) const {
  engine::SecurityRequest security;
  security.type = request.security_type;
  security.user_id = request.user_id;
  security.password = request.password;
  // SAME passes on only a user this daemon verified for the allocating process.
  if (request.allocator_user && state.verified_users.count(*request.allocator_user) != 0) {
    security.allocator_user = request.allocator_user;
  }
  const engine::SecurityOutcome outcome = engine::check_security(security, config_.users);
  user = outcome.user;
  return outcome.valid;
}

bool Broker::left_to_system(const client::AllocateRequest &request) const {
  return is_program_security(request.security_type) && config_.use_pam && system_check_ &&
         !request.user_id.empty() &&
         std::any_of(config_.users.begin(), config_.users.end(), [&](const config::User &u) {
           return u.user_id == request.user_id && u.password.empty();
         });
}

void Broker::allocate(ClientId client, Client &state, const client::AllocateRequest &request) {
  if (remote_) {
    std::optional<std::string> same;
    if (request.allocator_user && state.verified_users.count(*request.allocator_user) != 0) {
      same = request.allocator_user;
    }
    if (remote_(client, request, same)) return;
  }
  std::optional<std::string> user;
  const bool valid = verify_security(state, request, user);
  if (valid || !left_to_system(request)) {
    complete_allocation(client, request, valid, user);
    return;
  }
  // The system's verification may take seconds: the answer goes out when it
  // is in, and every other client is served meanwhile.
  auto done = [this, client, request](bool verified) {
    if (clients_.count(client) == 0) return;  // gone meanwhile: nobody to answer
    complete_allocation(client, request, verified,
                        verified ? std::optional<std::string>(request.user_id) : std::nullopt);
  };
  if (!output_.verify_off_thread(client, system_check_of(request), std::move(done))) {
    fail_for_retry(client, request, "too many password verifications waiting");
  }
}

void Broker::fail_for_retry(ClientId client, const client::AllocateRequest &request,
                            const std::string &reason) {
  log_request("allocation failed", client, request, reason);
  output_.send(
      client,
      client::AllocateResult{request.request_id, AP_ALLOCATION_ERROR, AP_ALLOCATION_FAILURE_RETRY},
      -1);
}

uint32_t Broker::attach_check(const client::AllocateRequest &request, bool valid,
                              const std::optional<std::string> &user) const {
  client::AttachCheck check;
  check.served = serves(request.tp_name);
  check.invokable = invokable(request.tp_name);
  check.mapped = request.mapped;
  check.sync_level = request.sync_level;
  check.security_valid = valid;
  check.has_user = user.has_value();
  return client::attach_refusal(check);
}

Broker::PendingAttach Broker::pending_attach(const client::AllocateRequest &request,
                                             const std::optional<std::string> &user,
                                             client::UniqueFd end, ClientId allocator) const {
  const config::InvokableTp *tp = invokable(request.tp_name);
  PendingAttach attach;
  attach.end = std::move(end);
  attach.allocator = allocator;
  attach.info.tp_name = request.tp_name;
  attach.info.mapped = request.mapped;
  attach.info.sync_level = request.sync_level;
  attach.info.user = user;
  attach.info.mode = request.mode;
  attach.info.partner_lu_name = request.allocator_lu;
  attach.info.local_lu_alias = local_lu_of(request, tp);
  const uint32_t timeout_ms = tp != nullptr ? tp->queue_timeout_ms : config_.attach_timeout_ms;
  attach.deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  return attach;
}

void Broker::complete_allocation(ClientId client, const client::AllocateRequest &request,
                                 bool valid, const std::optional<std::string> &user) {
  if (const uint32_t refusal = attach_check(request, valid, user); refusal != 0) {
    refuse(client, request, refusal);
    return;
  }
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    fail_for_retry(client, request, "no socket pair");
    return;
  }
  client::UniqueFd allocator_end(ends[0]);
  PendingAttach attach = pending_attach(request, user, client::UniqueFd(ends[1]), client);
  if (!output_.send(client, client::AllocateResult{request.request_id, AP_OK, 0},
                    allocator_end.get())) {
    return;  // the allocating process is gone; so is the conversation
  }
  log_request("allocation", client, request, "accepted");
  offer(std::move(attach));
}

std::function<bool()> Broker::system_check_of(const client::AllocateRequest &request) const {
  return [check = system_check_, user_id = request.user_id, password = request.password] {
    return check(user_id, password);
  };
}

bool Broker::verify_from_network(const client::AllocateRequest &request,
                                 std::function<void(bool)> done) {
  return output_.verify_off_thread(0, system_check_of(request), std::move(done));
}

uint32_t Broker::attach_from_network(const client::AllocateRequest &request, client::UniqueFd end,
                                     bool system_verified) {
  engine::SecurityRequest security;
  security.type = request.security_type;
  security.user_id = request.user_id;
  security.password = request.password;
  security.allocator_user = request.allocator_user;
  const engine::SecurityOutcome outcome = system_verified
                                              ? engine::SecurityOutcome{true, request.user_id}
                                              : engine::check_security(security, config_.users);
  if (const uint32_t refusal = attach_check(request, outcome.valid, outcome.user); refusal != 0) {
    log_request("attach from the network refused", 0, request, client::refusal_reason(refusal));
    return refusal;
  }
  log_request("attach from the network", 0, request, "accepted");
  PendingAttach attach = pending_attach(request, outcome.user, std::move(end), 0);
  attach.info.via_node = true;  // the daemon holds the other side of the end
  offer(std::move(attach));
  return 0;
}

std::string Broker::local_lu_of(const client::AllocateRequest &request,
                                const config::InvokableTp *tp) const {
  // An invokable TP is reachable at the LU of its definition; another name at
  // the configured LU the allocation names.  What the allocating process
  // wrote is never passed on as it came.
  const std::string &wanted = tp != nullptr ? tp->local_lu_alias : request.local_lu_alias;
  if (const config::LocalLu *lu = directory_.local_lu(wanted)) return lu->alias;
  return directory_.default_local_lu().alias;
}

void Broker::refuse(ClientId client, const client::AllocateRequest &request, uint32_t secondary) {
  std::ostringstream code;
  code << std::hex << std::uppercase << secondary;
  log_request("allocation refused", client, request,
              std::string(client::refusal_reason(secondary)) + " (0x" + code.str() + ")");
  output_.send(client, client::AllocateResult{request.request_id, AP_ALLOCATION_ERROR, secondary},
               -1);
}

void Broker::log_request(const char *what, ClientId client, const client::AllocateRequest &request,
                         const std::string &outcome) {
  // The password stays out of the log.
  output_.log(std::string(what) + ": client " + std::to_string(client) + " TP " +
              log_safe(request.tp_name) + " mode " + log_safe(request.mode) + " partner " +
              log_safe(request.partner_lu) +
              (request.user_id.empty() ? "" : " user " + log_safe(request.user_id)) + ": " +
              outcome);
}

void Broker::offer(PendingAttach attach) {
  for (auto it = accepts_.begin(); it != accepts_.end(); ++it) {
    if (!lists(it->tp_names, attach.info.tp_name)) continue;
    const WaitingAccept accept = *it;
    accepts_.erase(it);
    deliver(attach, accept);
    return;
  }
  const std::string tp_name = attach.info.tp_name;
  attaches_.push_back(std::move(attach));
  start_instance_if_needed(tp_name);
}

void Broker::deliver(PendingAttach &attach, const WaitingAccept &accept) {
  attach.info.accept_id = accept.accept_id;
  auto client = clients_.find(accept.client);
  if (client != clients_.end() && attach.info.user) {
    client->second.verified_users.insert(*attach.info.user);
  }
  if (!output_.send(accept.client, attach.info, attach.end.get())) {
    // The accepting process is gone: its end closes with the attach and the
    // allocating side hears the conversation fail.
    output_.log("attach of TP " + log_safe(attach.info.tp_name) + " lost: client " +
                std::to_string(accept.client) + " unreachable");
  }
}

void Broker::accept_wait(ClientId client, client::AcceptWait &&wait) {
  const uid_t uid = clients_.at(client).peer.uid;
  std::erase_if(wait.tp_names,
                [&](const std::string &name) { return !may_take(client, uid, name); });
  if (wait.tp_names.empty()) return;  // it waits for nothing this node gives it
  for (const auto &name : wait.tp_names) {
    if (auto it = instances_.find(name); it != instances_.end() && it->second.starting > 0) {
      --it->second.starting;
      break;
    }
  }
  WaitingAccept accept{client, wait.accept_id, std::move(wait.tp_names)};
  // The attach that has waited longest for any of the names goes first.
  for (auto it = attaches_.begin(); it != attaches_.end(); ++it) {
    if (!lists(accept.tp_names, it->info.tp_name)) continue;
    PendingAttach attach = std::move(*it);
    attaches_.erase(it);
    deliver(attach, accept);
    return;
  }
  accepts_.push_back(std::move(accept));
}

void Broker::accept_cancel(ClientId client, uint32_t accept_id) {
  accepts_.remove_if([&](const WaitingAccept &accept) {
    return accept.client == client && accept.accept_id == accept_id;
  });
}

void Broker::start_instance_if_needed(const std::string &tp_name) {
  const config::InvokableTp *tp = invokable(tp_name);
  if (tp == nullptr) return;
  Instances &instances = instances_[tp_name];
  const auto queued = static_cast<unsigned>(
      std::count_if(attaches_.begin(), attaches_.end(),
                    [&](const PendingAttach &attach) { return attach.info.tp_name == tp_name; }));
  if (instances.starting >= queued) return;  // one is on its way for each
  if (instances.running >= tp->max_instances) {
    output_.log("TP " + log_safe(tp_name) + " not started: " + std::to_string(instances.running) +
                " instances run, the limit");
    return;
  }
  if (started_running_ >= config_.max_started_tps) {
    output_.log("TP " + log_safe(tp_name) + " not started: " + std::to_string(started_running_) +
                " started programs run, the node's limit");
    return;
  }
  const config::LocalLu *lu = directory_.local_lu(tp->local_lu_alias);
  const std::string alias = lu != nullptr ? lu->alias : directory_.default_local_lu().alias;
  if (!output_.launch(*tp, alias)) {
    output_.log("TP " + log_safe(tp_name) + " could not be started (" + log_safe(tp->program) +
                ")");
    return;
  }
  output_.log("TP " + log_safe(tp_name) + " started (" + log_safe(tp->program) + ")");
  ++instances.running;
  ++instances.starting;
  ++started_running_;
}

void Broker::instance_exited(const std::string &tp_name) {
  Instances &instances = instances_[tp_name];
  if (instances.running > 0) {
    --instances.running;
    if (started_running_ > 0) --started_running_;
  }
  instances.starting = std::min(instances.starting, instances.running);
  // The room it leaves goes to attaches still queued: first its own TP's, then
  // those held back by the node's limit.
  start_instance_if_needed(tp_name);
  for (const auto &tp : config_.tps) {
    if (tp.tp_name != tp_name) start_instance_if_needed(tp.tp_name);
  }
}

void Broker::expire(Clock::time_point now) {
  for (auto it = attaches_.begin(); it != attaches_.end();) {
    if (it->deadline > now) {
      ++it;
      continue;
    }
    output_.log("attach of TP " + log_safe(it->info.tp_name) + " from client " +
                std::to_string(it->allocator) +
                " refused: " + client::refusal_reason(AP_TP_NOT_AVAILABLE_RETRY));
    engine::Frame failed;
    failed.type = engine::FrameType::kAttachFailed;
    failed.code = AP_TP_NOT_AVAILABLE_RETRY;
    engine::send_final_frame(it->end.get(), failed);
    it = attaches_.erase(it);
  }
}

std::optional<Clock::time_point> Broker::next_deadline() const {
  std::optional<Clock::time_point> next;
  for (const auto &attach : attaches_) {
    if (!next || attach.deadline < *next) next = attach.deadline;
  }
  return next;
}

}  // namespace snanode::daemon

#include "daemon/network_node.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "config/class_of_service.h"
#include "core/log_files.h"
#include "daemon/log_text.h"
#include "engine/ebcdic.h"
#include "engine/security.h"
#include "snanode/verbs.h"

namespace snanode::daemon {
namespace {

using net::Attach;
using net::lu62::AllocationOutcome;
using net::lu62::ConversationTranslator;

constexpr uint64_t kLinkToken = 0;
// Tokens 1..5: the Enterprise Extender endpoint's sockets (a conversation's
// token is its address, never that small).
constexpr uint64_t kFirstEeToken = 1;
constexpr size_t kMaxBiu = 65536;
// A path failure under every session on the link or RTP connection (a retry
// may find another).
constexpr uint32_t kSenseLinkLost = 0x80020000;
// How long an allocated conversation's Attach waits for the TP's first data
// or status to carry it before it goes alone: a TP usually sends at once
// (one unit instead of two), but a partner TP waits in Accept, or for a
// request-to-send, until the Attach arrives.
constexpr auto kAttachHold = std::chrono::milliseconds(10);
// How often the number of sessions with each partner LU is looked at for the log.
constexpr auto kSessionsNoteInterval = std::chrono::seconds(1);

net::Bytes ebcdic(const std::string &text) {
  net::Bytes out(text.size());
  if (!text.empty()) engine::put_ebcdic_name(text, out.data(), out.size());
  return out;
}

std::string ascii(const net::Bytes &bytes) {
  return engine::ebcdic_name(bytes.data(), bytes.size());
}

// Each primary picks session addresses under its own prefix; one taken from
// the LU's name keeps the two ends of a link apart.
std::array<uint8_t, 4> address_prefix(const std::string &lu_name) {
  uint32_t hash = 2166136261u;
  for (char c : lu_name) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
  return {static_cast<uint8_t>(hash >> 24), static_cast<uint8_t>(hash >> 16),
          static_cast<uint8_t>(hash >> 8), static_cast<uint8_t>(hash)};
}

net::lu62::LocalLuConfig local_lu_config(const config::NodeConfig &config) {
  net::lu62::LocalLuConfig lu;
  for (const config::LocalLu &local : config.local_lus) {
    if (local.is_default || lu.lu_name.empty()) lu.lu_name = local.lu_name;
  }
  lu.address_prefix = address_prefix(lu.lu_name);
  for (const config::Mode &mode : config.modes) {
    net::lu62::ModeConfig m;
    m.name = mode.name;
    m.max_ru_send = m.max_ru_receive = mode.max_ru_size;
    m.send_window = m.receive_window = static_cast<uint8_t>(mode.pacing_window);
    m.session_limit = static_cast<uint16_t>(std::min<uint32_t>(mode.session_limit, 32767));
    m.min_winners = static_cast<uint16_t>(m.session_limit / 2);
    lu.modes.push_back(m);
  }
  return lu;
}

// The Attach an allocation request sends: PROGRAM carries the user and
// password for the partner to verify; SAME passes on a user this daemon
// verified, as already verified.
Attach attach_of(const client::AllocateRequest &request,
                 const std::optional<std::string> &verified_user) {
  Attach attach;
  attach.resource = request.mapped ? net::ConversationResource::kMappedHalfDuplex
                                   : net::ConversationResource::kBasicHalfDuplex;
  attach.sync_level =
      request.sync_level == 0 ? net::AttachSyncLevel::kNone : net::AttachSyncLevel::kConfirm;
  attach.tp_name = ebcdic(request.tp_name);
  if (request.security_type == engine::kSecurityProgram ||
      request.security_type == engine::kSecurityProgramStrong) {
    attach.user_id = ebcdic(request.user_id);
    attach.password = ebcdic(request.password);
  } else if (request.security_type == engine::kSecuritySame && verified_user) {
    attach.already_verified = true;
    attach.user_id = ebcdic(*verified_user);
  }
  return attach;
}

}  // namespace

NetworkNode::NetworkNode(const config::NodeConfig &config, client::UniqueFd link, Broker &broker,
                         BrokerOutput &output, const std::string &capture_file, int loop_epoll)
    : config_(config),
      link_(std::move(link)),
      epoll_(loop_epoll),
      broker_(broker),
      output_(output),
      scoped_captures_(broker) {
  for (const config::PartnerLu &lu : config_.partner_lus) {
    if (!lu.owning_cp.empty() && link_partner_.empty()) link_partner_ = lu.lu_name;
  }
  if (link_.valid()) {
    ::fcntl(link_.get(), F_SETFL, ::fcntl(link_.get(), F_GETFL) | O_NONBLOCK);
    ::fcntl(link_.get(), F_SETFD, FD_CLOEXEC);  // the TPs it starts do not hold the link
    watch_fd(EPOLL_CTL_ADD, link_.get(), EPOLLIN, kLinkToken);
  }
  if (!capture_file.empty()) {
    std::string error;
    capture_ = net::CaptureWriter::open(
        capture_file,
        link_.valid() ? net::CaptureEndpoints{} : EeNetwork::capture_endpoints(config_), &error);
    if (!capture_) log("capture " + log_safe(capture_file) + " not written: " + log_safe(error));
  }
  capture_path_ = capture_file;
  capturing_ = capture_ != nullptr;
  manager_ =
      std::make_unique<net::lu62::SessionManager>(local_lu_config(config_), *this, *this, *this);
  if (link_.valid()) {
    log("network: control point " + log_safe(config_.network.cp_name) + ", LU " +
        log_safe(manager_->config().lu_name) + " on the link to " + log_safe(link_partner_));
    return;
  }
  std::string error;
  ee_ = EeNetwork::open(config_, *this, *this, capture_.get(), &error);
  if (!ee_) {
    link_up_ = false;
    network_error_ = "no Enterprise Extender endpoint on " + config_.network.local_address +
                     " port " + std::to_string(config_.network.port_base) + ": " + error;
    log("network: " + log_safe(network_error_));
    return;
  }
  for (unsigned i = 0; i < net::ee::kPortCount; ++i) {
    watch_fd(EPOLL_CTL_ADD, ee_->fds()[i], EPOLLIN, kFirstEeToken + i);
  }
  log("network: control point " + log_safe(config_.network.cp_name) + ", LU " +
      log_safe(manager_->config().lu_name) + " on Enterprise Extender at " +
      log_safe(config_.network.local_address) + " port " +
      std::to_string(config_.network.port_base));
}

NetworkNode::~NetworkNode() {
  conversations_.clear();  // before the sessions they point at
  manager_.reset();
  ee_.reset();
}

bool NetworkNode::reachable(const std::string &partner_lu) {
  return ee_ ? ee_->reachable(partner_lu) : link_up_;
}

const config::PartnerLu *NetworkNode::remote_partner(const std::string &name) const {
  for (const config::PartnerLu &lu : config_.partner_lus) {
    if (!lu.owning_cp.empty() && (lu.alias == name || lu.lu_name == name)) return &lu;
  }
  return nullptr;
}

bool NetworkNode::allocate(ClientId client, const client::AllocateRequest &request,
                           const std::optional<std::string> &verified_user) {
  const config::PartnerLu *partner = remote_partner(request.partner_lu);
  if (partner == nullptr) return false;
  auto answer = [this, client, request](uint16_t primary, uint32_t secondary, int fd) {
    return output_.send(
        client, client::AllocateResult{request.request_id, primary, secondary, /*via_node=*/true},
        fd);
  };
  if (!reachable(partner->lu_name)) {
    answer(AP_ALLOCATION_ERROR, AP_ALLOCATION_FAILURE_RETRY, -1);
    return true;
  }
  Attach attach = attach_of(request, verified_user);
  if (net::Bytes encoded; !net::encode_attach(attach, encoded).ok()) {
    // A field no FMH-5 can carry (the translator would refuse it later).
    answer(AP_ALLOCATION_ERROR, AP_ALLOCATION_FAILURE_NO_RETRY, -1);
    return true;
  }
  manager_->allocate_session(
      partner->lu_name, request.mode,
      [this, client, answer, attach = std::move(attach), request](
          net::lu62::Session *session, AllocationOutcome outcome) mutable {
        if (session == nullptr) {
          log("network allocation of TP " + log_safe(request.tp_name) + " at " +
              log_safe(request.partner_lu) + " failed (" +
              std::to_string(static_cast<int>(outcome)) + ")");
          answer(AP_ALLOCATION_ERROR,
                 outcome == AllocationOutcome::kTimedOut || outcome == AllocationOutcome::kPathLost
                     ? AP_ALLOCATION_FAILURE_RETRY
                     : AP_ALLOCATION_FAILURE_NO_RETRY,
                 -1);
          return;
        }
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
          session->release();
          answer(AP_ALLOCATION_ERROR, AP_ALLOCATION_FAILURE_RETRY, -1);
          return;
        }
        client::UniqueFd tp_end(ends[0]), daemon_end(ends[1]);
        ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
        if (!answer(AP_OK, 0, tp_end.get())) {
          session->release();  // the allocating process went meanwhile
          return;
        }
        auto translator =
            ConversationTranslator::allocating(std::move(attach), session->params().max_send_ru);
        const net::lu62::Session &on = *session;
        auto conversation = std::make_unique<RemoteConversation>(
            std::move(translator), *session, std::move(daemon_end),
            [this](RemoteConversation &c, uint32_t events) { watch(c, events); },
            // Only the attached side receives an Attach.
            [](RemoteConversation &, const Attach &, client::UniqueFd &) {
              return uint32_t{AP_ALLOCATION_FAILURE_NO_RETRY};
            },
            [this](RemoteConversation &c) { finished_.push_back(&c); });
        own(on, *conversation, UnitOwner{client, {}});
        attach_due_.emplace_back(now() + kAttachHold, conversation.get());
        conversations_.emplace(conversation.get(), std::move(conversation));
      });
  return true;
}

void NetworkNode::on_partner_bracket(net::lu62::Session &session) {
  auto conversation = std::make_unique<RemoteConversation>(
      ConversationTranslator::attached(session.params().max_send_ru), session, client::UniqueFd(),
      [this](RemoteConversation &c, uint32_t events) { watch(c, events); },
      [this, &session](RemoteConversation &c, const Attach &a, client::UniqueFd &daemon_end) {
        return attach(c, a, session, daemon_end);
      },
      [this](RemoteConversation &c) { finished_.push_back(&c); });
  own(session, *conversation, UnitOwner{});
  conversations_.emplace(conversation.get(), std::move(conversation));
}

void NetworkNode::own(const net::lu62::Session &session, RemoteConversation &conversation,
                      UnitOwner owner) {
  unit_owners_[&session] = SessionOwner{&conversation, std::move(owner)};
  owned_sessions_[&conversation] = &session;
}

void NetworkNode::on_unit(net::lu62::Session &session, bool sent, net::ByteSpan biu) {
  const net::lu62::SessionUser *user = session.user();
  if (!sent && user == nullptr) unowned_ = &session;
  if (&session == unowned_) {
    unowned_units_.emplace_back(sent, net::Bytes(biu.begin(), biu.end()));
    return;
  }
  auto found = unit_owners_.find(&session);
  if (found == unit_owners_.end()) return;
  // A session lent to another user meanwhile (CNOS) carries none of ours.
  if (user != nullptr && user != found->second.conversation) return;
  scoped_captures_.write(found->second.owner, sent, biu);
}

void NetworkNode::take_unit(const std::string &partner_lu, net::ByteSpan biu) {
  manager_->on_unit_received(partner_lu, biu);
  if (unowned_ == nullptr) return;
  // The session may have ended meanwhile: its address only finds its owner.
  if (auto found = unit_owners_.find(unowned_); found != unit_owners_.end()) {
    for (const auto &[sent, unit] : unowned_units_) {
      scoped_captures_.write(found->second.owner, sent, unit);
    }
  }
  unowned_ = nullptr;
  unowned_units_.clear();
}

uint32_t NetworkNode::attach(RemoteConversation &conversation, const Attach &attach,
                             const net::lu62::Session &session, client::UniqueFd &daemon_end) {
  client::AllocateRequest request;
  request.tp_name = ascii(attach.tp_name);
  if (auto found = unit_owners_.find(&session);
      found != unit_owners_.end() && found->second.conversation == &conversation) {
    found->second.owner.tp_name = request.tp_name;
  }
  request.mapped = attach.resource == net::ConversationResource::kMappedHalfDuplex;
  request.sync_level = attach.sync_level == net::AttachSyncLevel::kNone ? 0 : 1;
  request.mode = session.mode();
  request.allocator_lu = session.partner();
  request.partner_lu = session.partner();
  if (attach.resource != net::ConversationResource::kMappedHalfDuplex &&
      attach.resource != net::ConversationResource::kBasicHalfDuplex) {
    return AP_CONV_TYPE_MISMATCH;
  }
  if (attach.sync_level == net::AttachSyncLevel::kSyncPoint) return AP_SYNC_LEVEL_NOT_SUPPORTED;
  if (attach.password) {
    request.security_type = engine::kSecurityProgram;
    request.user_id = attach.user_id ? ascii(*attach.user_id) : "";
    request.password = engine::ebcdic_secret(attach.password->data(), attach.password->size());
  } else if (attach.already_verified && attach.user_id) {
    const config::PartnerLu *partner = remote_partner(session.partner());
    if (partner == nullptr || !partner->trust_already_verified) return AP_SECURITY_NOT_VALID;
    request.security_type = engine::kSecuritySame;
    request.allocator_user = ascii(*attach.user_id);
  } else if (attach.user_id) {
    return AP_SECURITY_NOT_VALID;  // a user with neither password nor trust
  }
  if (broker_.verified_by_system(request)) {
    // The system (PAM) verifies this user's password, as for a local
    // allocation: away from the loop, and the conversation waits for it.
    RemoteConversation *waiting = &conversation;
    const bool started =
        broker_.verify_from_network(request, [this, waiting, request](bool verified) {
          // A conversation waiting for its attach is never swept.
          if (conversations_.count(waiting) == 0) return;
          client::UniqueFd end;
          const uint32_t refusal =
              verified ? hand_to_tp(request, end, true) : AP_SECURITY_NOT_VALID;
          waiting->attach_resolved(refusal, std::move(end));
          sweep();
        });
    return started ? RemoteConversation::kAttachPending : AP_TP_NOT_AVAILABLE_RETRY;
  }
  return hand_to_tp(request, daemon_end, false);
}

uint32_t NetworkNode::hand_to_tp(const client::AllocateRequest &request,
                                 client::UniqueFd &daemon_end, bool system_verified) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    return AP_TP_NOT_AVAILABLE_RETRY;
  }
  client::UniqueFd tp_end(ends[1]);
  daemon_end.reset(ends[0]);
  ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
  const uint32_t refusal = broker_.attach_from_network(request, std::move(tp_end), system_verified);
  if (refusal != 0) daemon_end.reset();
  return refusal;
}

void NetworkNode::send_biu(std::string_view partner_lu, std::string_view mode, net::ByteSpan biu) {
  if (ee_) {
    ee_->send_biu(partner_lu, mode, biu);
    return;
  }
  if (!link_up_) return;
  if (capturing_) capture_->write_biu(net::CaptureDirection::kSent, biu, net::BiuFraming{});
  // A burst (a thousand brackets ending at once) can fill the link's buffer:
  // what does not fit waits, behind anything already waiting.
  link_queue_.emplace_back(biu.begin(), biu.end());
  flush_link();
}

void NetworkNode::send_biu_buffer(std::string_view partner_lu, std::string_view mode,
                                  net::Bytes &&biu) {
  if (!ee_) return send_biu(partner_lu, mode, net::ByteSpan(biu));
  ee_->send_biu(partner_lu, mode, std::move(biu));
}

void NetworkNode::flush_link() {
  while (link_up_ && !link_queue_.empty()) {
    const net::Bytes &biu = link_queue_.front();
    if (::send(link_.get(), biu.data(), biu.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) link_lost(std::strerror(errno));
      break;
    }
    link_queue_.pop_front();
  }
  watch_link();
}

void NetworkNode::watch_link() {
  const bool want_out = link_up_ && !link_queue_.empty();
  if (want_out == link_out_watched_ || !link_up_) return;
  link_out_watched_ = want_out;
  watch_fd(EPOLL_CTL_MOD, link_.get(), EPOLLIN | (want_out ? EPOLLOUT : 0u), kLinkToken);
}

void NetworkNode::watch_fd(int op, int fd, uint32_t events, uint64_t token) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = token | kTokenTag;
  ::epoll_ctl(epoll_, op, fd, &event);
}

void NetworkNode::on_event(uint64_t tagged, uint32_t events) {
  struct EventTime {
    std::optional<time_point> &time;
    explicit EventTime(std::optional<time_point> &t) : time(t) {
      time = std::chrono::steady_clock::now();
    }
    ~EventTime() { time.reset(); }
  } held(event_time_);
  const uint64_t token = tagged & ~kTokenTag;
  if (token == kLinkToken) {
    if ((events & EPOLLOUT) != 0) flush_link();
    if ((events & ~uint32_t{EPOLLOUT}) != 0) read_link();
    return;
  }
  if (ee_ && token < kFirstEeToken + net::ee::kPortCount) {
    ee_->on_readable(ee_->fds()[token - kFirstEeToken]);
    return;
  }
  auto *conversation = reinterpret_cast<RemoteConversation *>(token);
  if (conversations_.count(conversation) != 0) conversation->on_ready(events);
}

void NetworkNode::on_biu(const std::string &partner_lu, net::ByteSpan biu) {
  take_unit(partner_lu, biu);
}

void NetworkNode::on_path_lost(const std::string &partner_lu) {
  paths_lost_.insert(partner_lu);
}

std::pair<bool, std::string> NetworkNode::control(const std::vector<std::string> &words) {
  const bool on = words.size() > 1 && (words[1] == "on" || words[1] == "start");
  const bool scoped = std::find(words.begin(), words.end(), "--tp") != words.end() ||
                      std::find(words.begin(), words.end(), "--pid") != words.end();
  if (words.front() == "capture" && scoped) return scoped_capture(on, words);
  if (scoped) return {false, "--tp and --pid scope a capture or a trace only"};
  if (words.front() == "capture") {
    // Off pauses the file rather than closing it, so that turning it on
    // again appends instead of starting it anew over what was captured.
    if (!on) {
      capturing_ = false;
      if (ee_) ee_->set_capture(nullptr);
      return {true, "capture off" + (capture_ ? " (" + capture_path_ + " kept)" : std::string())};
    }
    if (capture_path_.empty()) {
      return {false, "no capture file configured: set [network] capture_file or SNANODE_CAPTURE"};
    }
    if (!capture_) {
      std::string error;
      capture_ = net::CaptureWriter::open(
          capture_path_,
          link_.valid() ? net::CaptureEndpoints{} : EeNetwork::capture_endpoints(config_), &error);
      if (!capture_) return {false, "capture " + capture_path_ + " cannot be written: " + error};
    }
    capturing_ = true;
    if (ee_) ee_->set_capture(capture_.get());
    return {true, "capture on: " + capture_path_};
  }
  if (!ee_) return {false, "no Enterprise Extender links: this node runs on a test link"};
  auto answer = ee_->link_command(on, words.size() > 2 ? words[2] : std::string());
  sweep();  // the sessions of a stopped link end now
  return answer;
}

std::pair<bool, std::string> NetworkNode::scoped_capture(bool on,
                                                         const std::vector<std::string> &words) {
  std::string option, value;
  for (size_t i = 2; i + 1 < words.size(); ++i) {
    if (words[i] != "--tp" && words[i] != "--pid") continue;
    if (!option.empty()) return {false, "give --tp or --pid, not both"};
    option = words[i];
    value = words[i + 1];
  }
  // Next to the node's capture file when one is configured, else with the
  // daemon's log: both are places the node already writes to.
  const std::string parent = std::filesystem::path(capture_path_).parent_path().string();
  const std::string directory = capture_path_.empty() ? log_directory()
                                : parent.empty()      ? std::string(".")
                                                      : parent;
  auto answer = scoped_captures_.control(
      on, option, value, directory,
      link_.valid() ? net::CaptureEndpoints{} : EeNetwork::capture_endpoints(config_));
  manager_->set_unit_observer(scoped_captures_.empty() ? nullptr : this);
  return answer;
}

Table NetworkNode::status_sections() const {
  Section sessions{"network_sessions", false, {}};
  for (const config::PartnerLu &lu : config_.partner_lus) {
    if (lu.owning_cp.empty()) continue;
    for (const config::Mode &mode : config_.modes) {
      uint64_t bound = 0, in_use = 0, won = 0;
      for (const net::lu62::Session *session : manager_->sessions(lu.lu_name, mode.name)) {
        ++bound;
        in_use += session->in_use() ? 1 : 0;
        won += session->params().local_winner ? 1 : 0;
      }
      const uint64_t queued = manager_->queued_allocations(lu.lu_name, mode.name);
      if (bound == 0 && queued == 0) continue;
      Row row;
      row.add("partner_lu", lu.lu_name)
          .add("mode", mode.name)
          .add("cos", std::string(config::class_of_service(mode).name))
          .add("bound", bound)
          .add("in_use", in_use)
          .add("contention_winners", won)
          .add("queued_allocations", queued)
          .add("session_limit", uint64_t{mode.session_limit});
      sessions.rows.push_back(std::move(row));
    }
  }
  // What is being captured: the node's file (paused or not) and each scope.
  Section captures{"captures", false, {}};
  if (!capture_path_.empty()) {
    captures.rows.push_back(Row()
                                .add("scope", std::string("node"))
                                .add("name", std::monostate{})
                                .add("path", capture_path_)
                                .add("on", capturing_));
  }
  for (const ScopedCaptures::Listed &scope : scoped_captures_.list()) {
    captures.rows.push_back(Row()
                                .add("scope", scope.scope)
                                .add("name", scope.name)
                                .add("path", scope.path)
                                .add("on", true));
  }
  Table table{std::move(sessions), std::move(captures)};
  if (ee_) ee_->add_status(table);
  return table;
}

void NetworkNode::note_sessions() {
  for (const config::PartnerLu &lu : config_.partner_lus) {
    if (lu.owning_cp.empty()) continue;
    size_t count = 0;
    for (const config::Mode &mode : config_.modes) {
      count += manager_->sessions(lu.lu_name, mode.name).size();
    }
    size_t &logged = sessions_logged_[lu.lu_name];
    if (count == logged) continue;
    log("network: sessions with " + log_safe(lu.lu_name) + ": " + std::to_string(count) +
        (count > logged ? " (bound)" : " (unbound)"));
    logged = count;
  }
}

void NetworkNode::read_link() {
  std::vector<uint8_t> buffer(kMaxBiu);
  for (;;) {
    const ssize_t n = ::recv(link_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      link_lost(n == 0 ? "the partner closed it" : std::strerror(errno));
      return;
    }
    const net::ByteSpan biu(buffer.data(), static_cast<size_t>(n));
    if (capturing_) capture_->write_biu(net::CaptureDirection::kReceived, biu, net::BiuFraming{});
    take_unit(link_partner_, biu);
  }
}

void NetworkNode::link_lost(const std::string &why) {
  if (!link_up_) return;
  link_up_ = false;
  link_queue_.clear();
  log("network: link lost: " + log_safe(why));
  ::epoll_ctl(epoll_, EPOLL_CTL_DEL, link_.get(), nullptr);
}

void NetworkNode::on_timer() {
  if (ee_) ee_->on_timer();
  manager_->on_timer();
  const auto at = now();
  while (!attach_due_.empty() && attach_due_.front().first <= at) {
    RemoteConversation *conversation = attach_due_.front().second;
    attach_due_.pop_front();
    if (conversations_.count(conversation) != 0) conversation->send_attach();
  }
  sweep();
  if (ee_) {
    ee_->flush();
    if (at - sessions_noted_ >= kSessionsNoteInterval) {
      sessions_noted_ = at;
      note_sessions();
    }
  }
}

std::optional<std::chrono::steady_clock::time_point> NetworkNode::next_deadline() const {
  auto next = manager_->next_deadline();
  if (ee_) {
    if (auto ee = ee_->next_deadline(); ee && (!next || *ee < *next)) next = ee;
    // The sessions are looked at for the log once a second (the links' TEST
    // timers wake the loop about as often anyway).
    if (const auto look = sessions_noted_ + kSessionsNoteInterval; !next || look < *next) {
      next = look;
    }
  }
  if (!attach_due_.empty() && (!next || attach_due_.front().first < *next)) {
    next = attach_due_.front().first;
  }
  return next;
}

void NetworkNode::watch(RemoteConversation &conversation, uint32_t events) {
  auto found = watched_.find(&conversation);
  if (events == 0) {
    if (found != watched_.end()) ::epoll_ctl(epoll_, EPOLL_CTL_DEL, found->second, nullptr);
    if (found != watched_.end()) watched_.erase(found);
    return;
  }
  const auto token = reinterpret_cast<uint64_t>(&conversation);
  if (found == watched_.end()) {
    watch_fd(EPOLL_CTL_ADD, conversation.fd(), events, token);
    watched_[&conversation] = conversation.fd();
  } else {
    watch_fd(EPOLL_CTL_MOD, found->second, events, token);
  }
}

void NetworkNode::sweep() {
  if (!link_up_ && !path_lost_reported_) {
    // Here, not where the link failed: that may be inside the session layer's
    // own call.  Every session on the link ends under its conversation; each
    // TP's next verb gets a conversation failure (retry: a new link may serve).
    path_lost_reported_ = true;
    manager_->on_path_lost(link_partner_, kSenseLinkLost);
  }
  while (!paths_lost_.empty()) {
    const std::string partner = std::move(paths_lost_.extract(paths_lost_.begin()).value());
    manager_->on_path_lost(partner, kSenseLinkLost);
  }
  // Only those that said they finished: this runs on every pass of the loop.
  for (RemoteConversation *conversation : finished_) {
    if (auto owned = owned_sessions_.find(conversation); owned != owned_sessions_.end()) {
      auto owner = unit_owners_.find(owned->second);
      if (owner != unit_owners_.end() && owner->second.conversation == conversation) {
        unit_owners_.erase(owner);
      }
      owned_sessions_.erase(owned);
    }
    watched_.erase(conversation);
    conversations_.erase(conversation);
  }
  finished_.clear();
}

}  // namespace snanode::daemon

// Allocation, sessions and attach: how a conversation gets its second side.
//
// ALLOCATE completes as soon as a session is free; both sides of the
// conversation are made at once and joined by a link, so the allocating TP
// can send straight away.  The attached side then waits, with whatever the
// allocating TP sent, for a RECEIVE_ALLOCATE that lists its TP name.  Checks
// the partner makes at attach (TP name, conversation type, sync level,
// security) and a queue time-out refuse the attach: the allocating side learns
// it, as an allocation error, on its next verb that sends or waits.
#include <algorithm>
#include <cstring>

#include "client/attach_policy.h"
#include "engine/ebcdic.h"
#include "engine/engine.h"
#include "engine/link.h"
#include "engine/security.h"
#include "engine/socket_link.h"

namespace snanode::engine {
namespace {

constexpr uint8_t kReturnImmediately = 1;
constexpr size_t kTpNameSize = 64;

void put_result(NAP_HDR &hdr, uint16_t primary, uint32_t secondary = 0) {
  hdr.primary_rc = primary;
  hdr.secondary_rc = secondary;
}

bool is_blank(const uint8_t *field, size_t size) {
  return std::all_of(field, field + size, [](uint8_t b) { return b == 0 || b == ' '; });
}

}  // namespace

bool Engine::allocate(NAP_ALLOCATE &vcb, void *token) {
  NAP_HDR &hdr = vcb.hdr;
  put_result(hdr, AP_OK);
  TpId tp_id;
  std::memcpy(&tp_id, hdr.tp_id, sizeof tp_id);
  Tp *tp = find_tp(hdr.tp_id);
  if (tp == nullptr) {
    put_result(hdr, AP_PARAMETER_CHECK, AP_BAD_TP_ID);
    return true;
  }
  const std::string partner_name =
      is_blank(vcb.partner_lu_name, sizeof vcb.partner_lu_name)
          ? ascii_name(vcb.partner_lu_alias, sizeof vcb.partner_lu_alias)
          : ebcdic_name(vcb.partner_lu_name, sizeof vcb.partner_lu_name);
  const auto partner = directory_.partner(partner_name);
  if (!partner) {
    put_result(hdr, AP_PARAMETER_CHECK, AP_UNKNOWN_PARTNER_LU);
    return true;
  }
  const config::Mode *mode = directory_.mode(ebcdic_name(vcb.mode_name, sizeof vcb.mode_name));
  if (mode == nullptr) {
    put_result(hdr, AP_PARAMETER_CHECK, AP_BAD_MODE_NAME);
    return true;
  }
  if (!partner->host.empty()) {
    // Nodes on other hosts are not reached yet.
    put_result(hdr, AP_ALLOCATION_ERROR, AP_ALLOCATION_FAILURE_NO_RETRY);
    return true;
  }

  SecurityRequest security;
  security.type = vcb.security_type;
  security.user_id = ebcdic_secret(vcb.user_id, sizeof vcb.user_id);
  security.password = ebcdic_secret(vcb.password, sizeof vcb.password);
  security.allocator_user = tp->verified_user;

  AllocateRequest request;
  request.tp = tp_id;
  request.session = partner->lu_name + "/" + mode->name;
  request.send_buffer_size = mode->send_buffer_size;
  request.info.tp_name = ebcdic_name(vcb.tp_name, sizeof vcb.tp_name);
  request.info.mapped = hdr.opext == NAP_OPEXT_MAPPED;
  request.info.sync_level = vcb.sync_level;
  request.info.mode = mode->name;
  request.info.partner_lu_name = tp->lu_name;
  request.info.local_lu_alias = partner->local_lu_alias;
  if (remote_ != nullptr && !served_here(request.info.tp_name)) {
    // A TP of another process (or one the daemon starts): the daemon checks
    // security, with the system's password check where configured.
    client::AllocateRequest &remote = request.remote.emplace();
    remote.partner_lu = partner_name;
    remote.local_lu_alias = partner->local_lu_alias;
    remote.allocator_lu = tp->lu_name;
    remote.mode = mode->name;
    remote.tp_name = request.info.tp_name;
    remote.mapped = request.info.mapped;
    remote.sync_level = request.info.sync_level;
    remote.security_type = security.type;
    remote.user_id = security.user_id;
    remote.password = security.password;
    remote.allocator_user = tp->verified_user;
  } else {
    const SecurityOutcome outcome = check_security(security, config_.users);
    request.security_valid = outcome.valid;
    request.info.user = outcome.user;
  }

  if (sessions_in_use_[request.session] >= mode->session_limit) {
    if (vcb.return_control == kReturnImmediately) {
      put_result(hdr, AP_UNSUCCESSFUL);
      return true;
    }
    allocates_.push_back({&vcb, token, std::move(request)});
    return false;
  }
  return establish(vcb, token, request);
}

bool Engine::establish(NAP_ALLOCATE &vcb, void *token, const AllocateRequest &request) {
  ++sessions_in_use_[request.session];
  if (request.remote) {
    const uint32_t request_id = remote_->allocate(*request.remote);
    if (request_id == 0) {
      --sessions_in_use_[request.session];
      put_result(vcb.hdr, AP_ALLOCATION_ERROR, AP_ALLOCATION_FAILURE_RETRY);
      return true;
    }
    remote_allocates_[request_id] = WaitingAllocate{&vcb, token, request};
    return false;
  }
  LinkPair link = make_in_memory_link();
  ConversationSetup setup;
  setup.mapped = request.info.mapped;
  setup.sync_level = request.info.sync_level;
  setup.send_buffer_size = request.send_buffer_size;
  // The partner's side has its ID from the start (log data that reaches it
  // before a TP accepts it is logged under it); its TP gets it on accepting.
  setup.id = next_conv_id();
  setup.starts_in_send = false;
  ConversationHost &host = *this;
  auto partner = std::make_unique<Conversation>(setup, std::move(link.second), host);
  setup.starts_in_send = true;
  setup.id = 0;
  add_conversation(vcb, request,
                   std::make_unique<Conversation>(setup, std::move(link.first), host));
  attach(request.info, std::move(partner), request.security_valid);
  return true;
}

void Engine::add_conversation(NAP_ALLOCATE &vcb, const AllocateRequest &request,
                              std::unique_ptr<Conversation> own) {
  const uint32_t id = next_conv_id();
  own->set_id(id);
  const AttachInfo &info = request.info;
  convs_[id] = ConvEntry{std::move(own),
                         request.tp,
                         request.session,
                         info.tp_name,
                         request.session.substr(0, request.session.find('/')),
                         info.mode};
  maybe_ended_.push_back(id);
  tp_convs_[request.tp].push_back(id);
  vcb.hdr.conv_id = id;
  put_result(vcb.hdr, AP_OK);
}

void Engine::remote_allocated(const client::AllocateResult &result, client::UniqueFd end) {
  const uint16_t primary = result.primary;
  const uint32_t secondary = result.secondary;
  auto found = remote_allocates_.find(result.request_id);
  if (found == remote_allocates_.end()) return;  // from before the path ended
  WaitingAllocate waiting = std::move(found->second);
  remote_allocates_.erase(found);
  const AllocateRequest &request = waiting.request;
  // An answer without its socket (this process could not receive it: at its
  // open-file limit) fails this allocation alone, as one that may be retried.
  if (waiting.vcb == nullptr || (primary != AP_OK && primary != AP_ALLOCATION_ERROR) ||
      (primary == AP_OK && !end.valid())) {
    --sessions_in_use_[request.session];
    if (waiting.vcb != nullptr) {
      put_result(waiting.vcb->hdr, primary == AP_OK ? AP_ALLOCATION_ERROR : primary,
                 primary == AP_OK ? AP_ALLOCATION_FAILURE_RETRY : secondary);
      hooks_.complete(waiting.token);
    } else if (end.valid()) {
      // The allocating TP gave up meanwhile: the partner sees it abend.
      Frame abend;
      abend.type = FrameType::kDeallocate;
      abend.flags = static_cast<uint8_t>(DeallocKind::kAbend);
      send_final_frame(end.get(), abend);
    }
    grant_sessions();
    return;
  }
  ConversationSetup setup;
  setup.mapped = request.info.mapped;
  setup.sync_level = request.info.sync_level;
  setup.send_buffer_size = request.send_buffer_size;
  ConversationHost &host = *this;
  std::unique_ptr<Conversation> own;
  if (primary == AP_OK) {
    own = std::make_unique<Conversation>(setup, socket_link(std::move(end), result.via_node), host);
  } else {
    // Refused by the daemon: as with a refusal at attach, the allocating TP
    // learns it on its next verb that sends or waits.
    LinkPair link = make_in_memory_link();
    own = std::make_unique<Conversation>(setup, std::move(link.first), host);
    setup.starts_in_send = false;
    Conversation(setup, std::move(link.second), host).refuse_attach(secondary);
  }
  add_conversation(*waiting.vcb, request, std::move(own));
  hooks_.complete(waiting.token);
}

bool Engine::serves(const std::string &tp_name) const {
  return served_here(tp_name) || invokable(tp_name) != nullptr;
}

bool Engine::served_here(const std::string &tp_name) const {
  if (local_tp_names_.count(tp_name) != 0) return true;
  return std::any_of(accepts_.begin(), accepts_.end(), [&](const WaitingAccept &accept) {
    return std::find(accept.names.begin(), accept.names.end(), tp_name) != accept.names.end();
  });
}

Engine::WaitingAccept Engine::take_accept(std::list<WaitingAccept>::iterator accept) {
  WaitingAccept taken = std::move(*accept);
  accepts_.erase(accept);
  if (remote_ != nullptr) remote_->accept_ended(taken.accept_id);
  return taken;
}

const config::InvokableTp *Engine::invokable(const std::string &tp_name) const {
  for (const auto &tp : config_.tps) {
    if (tp.tp_name == tp_name) return &tp;
  }
  return nullptr;
}

void Engine::attach(AttachInfo info, std::unique_ptr<Conversation> half, bool security_valid) {
  const config::InvokableTp *tp = invokable(info.tp_name);
  client::AttachCheck check;
  check.served = serves(info.tp_name);
  check.invokable = tp;
  check.mapped = info.mapped;
  check.sync_level = info.sync_level;
  check.security_valid = security_valid;
  check.has_user = info.user.has_value();
  const uint32_t refusal = client::attach_refusal(check);
  if (refusal != 0) {
    half->refuse_attach(refusal);
    return;
  }
  for (auto it = accepts_.begin(); it != accepts_.end(); ++it) {
    if (std::find(it->names.begin(), it->names.end(), info.tp_name) == it->names.end()) continue;
    const WaitingAccept accept = take_accept(it);
    deliver_attach(PendingAttach{std::move(info), std::move(half), {}}, *accept.vcb);
    hooks_.complete(accept.token);
    return;
  }
  queue_attach(PendingAttach{std::move(info), std::move(half), {}},
               tp != nullptr ? tp->queue_timeout_ms : config_.attach_timeout_ms);
}

std::unique_ptr<Link> Engine::socket_link(client::UniqueFd end, bool via_node) {
  if (hooks_.socket_link) return hooks_.socket_link(std::move(end));
  return make_socket_link(end.release(), nullptr,
                          via_node ? SocketPeer::kNode : SocketPeer::kPartner);
}

void Engine::queue_attach(PendingAttach attach, uint32_t timeout_ms) {
  attach.deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  const auto deadline = attach.deadline;
  attaches_.push_back(std::move(attach));
  timer_.schedule(deadline);
}

void Engine::remote_attached(client::AttachDelivery attach, client::UniqueFd end) {
  if (!end.valid()) {
    // Its socket could not be received: that attach is lost (its allocating
    // side sees the conversation fail), but the accept it was meant for still
    // waits, and the daemon forgot it when it delivered.
    for (const WaitingAccept &accept : accepts_) {
      if (accept.accept_id != attach.accept_id) continue;
      if (remote_ != nullptr) remote_->accept_waiting(accept.accept_id, accept.names);
      break;
    }
    return;
  }
  const config::Mode *mode = directory_.mode(attach.mode);
  ConversationSetup setup;
  setup.mapped = attach.mapped;
  setup.sync_level = attach.sync_level;
  if (mode != nullptr) setup.send_buffer_size = mode->send_buffer_size;
  setup.starts_in_send = false;
  setup.id = next_conv_id();
  PendingAttach pending;
  pending.info =
      AttachInfo{attach.tp_name, attach.mapped,          attach.sync_level,    attach.user,
                 attach.mode,    attach.partner_lu_name, attach.local_lu_alias};
  ConversationHost &host = *this;
  pending.half =
      std::make_unique<Conversation>(setup, socket_link(std::move(end), attach.via_node), host);
  auto accept = std::find_if(accepts_.begin(), accepts_.end(), [&](const WaitingAccept &waiting) {
    return waiting.accept_id == attach.accept_id;
  });
  if (accept == accepts_.end()) {
    // The accept it was meant for has ended meanwhile; the next one takes it.
    queue_attach(std::move(pending), config_.attach_timeout_ms);
    return;
  }
  const WaitingAccept taken = take_accept(accept);
  deliver_attach(std::move(pending), *taken.vcb);
  hooks_.complete(taken.token);
}

bool Engine::receive_allocate(NAP_RECEIVE_ALLOCATE &vcb, void *token) {
  vcb.primary_rc = AP_OK;
  vcb.secondary_rc = 0;
  if (vcb.tp_name_count == 0 || vcb.tp_name_list == nullptr) {
    vcb.primary_rc = AP_PARAMETER_CHECK;
    vcb.secondary_rc = AP_BAD_FIELD;
    return true;
  }
  std::vector<std::string> names;
  for (uint32_t i = 0; i < vcb.tp_name_count; ++i) {
    names.push_back(ebcdic_name(vcb.tp_name_list + i * kTpNameSize, kTpNameSize));
  }
  // The attach that has waited longest for any of the names is taken first.
  for (auto it = attaches_.begin(); it != attaches_.end(); ++it) {
    if (std::find(names.begin(), names.end(), it->info.tp_name) == names.end()) continue;
    PendingAttach attach = std::move(*it);
    attaches_.erase(it);
    deliver_attach(std::move(attach), vcb);
    return true;
  }
  if (++next_accept_id_ == 0) ++next_accept_id_;
  if (remote_ != nullptr) remote_->accept_waiting(next_accept_id_, names);
  accepts_.push_back({&vcb, token, std::move(names), next_accept_id_});
  return false;
}

void Engine::deliver_attach(PendingAttach attach, NAP_RECEIVE_ALLOCATE &vcb) {
  const AttachInfo &info = attach.info;
  const config::LocalLu *lu = directory_.local_lu(info.local_lu_alias);
  if (lu == nullptr) lu = &directory_.default_local_lu();
  const TpId tp_id = next_tp_++;
  tps_[tp_id] = Tp{lu->alias, lu->lu_name, info.user, info.tp_name};

  const uint32_t conv_id = attach.half->id();
  convs_[conv_id] =
      ConvEntry{std::move(attach.half), tp_id, "", "", info.partner_lu_name, info.mode};
  maybe_ended_.push_back(conv_id);  // its partner may have ended it already
  tp_convs_[tp_id].push_back(conv_id);

  put_ebcdic_name(info.tp_name, vcb.rcv_tp_name, sizeof vcb.rcv_tp_name);
  std::memcpy(vcb.tp_id, &tp_id, sizeof tp_id);
  vcb.conv_id = conv_id;
  vcb.rcv_sync_level = info.sync_level;
  vcb.rcv_conv_type = info.mapped ? 1 : 0;
  put_ebcdic_name(info.user.value_or(""), vcb.rcv_user_id, sizeof vcb.rcv_user_id);
  put_ascii_name(lu->alias, vcb.rcv_lu_alias, sizeof vcb.rcv_lu_alias);
  put_ebcdic_name(info.mode, vcb.rcv_mode_name, sizeof vcb.rcv_mode_name);
  put_ebcdic_name(info.partner_lu_name, vcb.rcv_partner_lu_name, sizeof vcb.rcv_partner_lu_name);
  vcb.primary_rc = AP_OK;
  vcb.secondary_rc = 0;
}

void Engine::expire_attaches() {
  const auto now = Clock::now();
  for (auto it = attaches_.begin(); it != attaches_.end();) {
    if (it->deadline > now) {
      ++it;
      continue;
    }
    it->half->refuse_attach(AP_TP_NOT_AVAILABLE_RETRY);
    it = attaches_.erase(it);
  }
  reap();
}

void Engine::grant_sessions() {
  for (auto it = allocates_.begin(); it != allocates_.end();) {
    const config::Mode *mode = directory_.mode(it->request.info.mode);
    if (mode == nullptr || sessions_in_use_[it->request.session] >= mode->session_limit) {
      ++it;
      continue;
    }
    WaitingAllocate waiting = std::move(*it);
    it = allocates_.erase(it);
    if (establish(*waiting.vcb, waiting.token, waiting.request)) hooks_.complete(waiting.token);
  }
}

}  // namespace snanode::engine

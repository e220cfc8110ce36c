// Verb dispatch, TPs, local TP names, conversation verbs, cancel and clean-up.
#include "engine/engine.h"

#include <algorithm>
#include <cstring>

#include "engine/ebcdic.h"

namespace snanode::engine {
namespace {

constexpr size_t kRecentlyEndedKept = 4096;

template <typename Vcb>
void put_result(Vcb &vcb, uint16_t primary, uint32_t secondary = 0) {
  vcb.primary_rc = primary;
  vcb.secondary_rc = secondary;
}

uint16_t opcode_of(const void *vcb) {
  uint16_t opcode;
  std::memcpy(&opcode, vcb, sizeof opcode);
  return opcode;
}

}  // namespace

Engine::Engine(const config::NodeConfig &config, EngineHooks hooks)
    : config_(config),
      directory_(config_),
      hooks_(std::move(hooks)),
      timer_([this] { hooks_.run_locked([this] { expire_attaches(); }); }) {}

Engine::~Engine() = default;

bool Engine::start(void *vcb, void *token, bool caller_blocks) {
  ended_vcb_ = nullptr;
  ended_link_.reset();
  bool completed = true;
  switch (opcode_of(vcb)) {
    case NAP_START_TP:
      start_tp(*static_cast<NAP_START_TP_VCB *>(vcb));
      break;
    case NAP_TP_ENDED:
      tp_ended(*static_cast<NAP_TP_ENDED_VCB *>(vcb));
      break;
    case NAP_DEFINE_LOCAL_TP:
      define_local_tp(*static_cast<NAP_LOCAL_TP_VCB *>(vcb));
      break;
    case NAP_DELETE_LOCAL_TP:
      delete_local_tp(*static_cast<NAP_LOCAL_TP_VCB *>(vcb));
      break;
    case NAP_B_ALLOCATE:
      completed = allocate(*static_cast<NAP_ALLOCATE *>(vcb), token);
      break;
    case NAP_RECEIVE_ALLOCATE_CPIC:
      completed = receive_allocate(*static_cast<NAP_RECEIVE_ALLOCATE *>(vcb), token);
      break;
    case NAP_CANCEL:
      cancel(*static_cast<NAP_HDR *>(vcb));
      break;
    default:
      completed = conversation_verb(vcb, token, caller_blocks);
      // Looked at only now: while the verb ran the conversation was busy.
      maybe_ended_.push_back(static_cast<NAP_HDR *>(vcb)->conv_id);
      break;
  }
  reap();
  return completed;
}

void Engine::verb_completed(void *vcb, void *token) {
  // A waiting verb that completes may leave its conversation ended.
  maybe_ended_.push_back(static_cast<NAP_HDR *>(vcb)->conv_id);
  hooks_.complete(token);
}

void Engine::partner_log_data(uint32_t conv_id, const std::vector<uint8_t> &log_data) {
  if (hooks_.log_data) hooks_.log_data(conv_id, log_data);
}

// ---- TPs -------------------------------------------------------------------------

Engine::Tp *Engine::find_tp(const uint8_t *tp_id) {
  TpId id;
  std::memcpy(&id, tp_id, sizeof id);
  auto it = tps_.find(id);
  return it == tps_.end() ? nullptr : &it->second;
}

void Engine::start_tp(NAP_START_TP_VCB &vcb) {
  std::string alias = ascii_name(vcb.local_lu_name, sizeof vcb.local_lu_name);
  const config::LocalLu *lu =
      alias.empty() ? &directory_.default_local_lu() : directory_.local_lu(alias);
  if (lu == nullptr) {
    put_result(vcb, AP_PARAMETER_CHECK, AP_BAD_FIELD);
    return;
  }
  const TpId id = next_tp_++;
  tps_[id] = Tp{lu->alias, lu->lu_name, std::nullopt, ebcdic_name(vcb.tp_name, sizeof vcb.tp_name)};
  std::memcpy(vcb.tp_id, &id, sizeof id);
  put_ascii_name(lu->alias, vcb.local_lu_name, sizeof vcb.local_lu_name);
  put_result(vcb, AP_OK);
}

void Engine::tp_ended(NAP_TP_ENDED_VCB &vcb) {
  TpId id;
  std::memcpy(&id, vcb.tp_id, sizeof id);
  if (tps_.erase(id) == 0) {
    put_result(vcb, AP_PARAMETER_CHECK, AP_BAD_TP_ID);
    return;
  }
  // Everything the TP still had ends as if cancelled, in ID order.
  if (auto owned = tp_convs_.find(id); owned != tp_convs_.end()) {
    std::vector<uint32_t> ids = owned->second;
    std::sort(ids.begin(), ids.end());
    for (const uint32_t conv_id : ids) {
      auto found = convs_.find(conv_id);
      if (found == convs_.end()) continue;
      found->second.conv->abort(AP_CANCELLED);
      maybe_ended_.push_back(conv_id);
    }
  }
  cancel_allocates(id);
  put_result(vcb, AP_OK);
}

void Engine::define_local_tp(NAP_LOCAL_TP_VCB &vcb) {
  const std::string name = ebcdic_name(vcb.tp_name, sizeof vcb.tp_name);
  if (name.empty()) {
    put_result(vcb, AP_PARAMETER_CHECK, AP_BAD_FIELD);
    return;
  }
  if (++local_tp_names_[name] == 1 && remote_ != nullptr) remote_->tp_name_added(name);
  put_result(vcb, AP_OK);
}

void Engine::delete_local_tp(NAP_LOCAL_TP_VCB &vcb) {
  auto it = local_tp_names_.find(ebcdic_name(vcb.tp_name, sizeof vcb.tp_name));
  if (it == local_tp_names_.end()) {
    put_result(vcb, AP_PARAMETER_CHECK, AP_BAD_FIELD);
    return;
  }
  if (--it->second == 0) {
    if (remote_ != nullptr) remote_->tp_name_removed(it->first);
    local_tp_names_.erase(it);
  }
  put_result(vcb, AP_OK);
}

// ---- conversation verbs --------------------------------------------------------------

bool Engine::conversation_verb(void *vcb, void *token, bool caller_blocks) {
  auto &hdr = *static_cast<NAP_HDR *>(vcb);
  put_result(hdr, AP_OK);
  auto it = convs_.find(hdr.conv_id);
  if (it == convs_.end()) {
    if (hdr.opcode == NAP_GET_STATE && recently_ended_set_.count(hdr.conv_id) != 0) {
      static_cast<NAP_GET_STATE_VCB *>(vcb)->conv_state = AP_STATE_RESET;
      return true;
    }
    put_result(hdr, AP_PARAMETER_CHECK, AP_BAD_CONV_ID);
    return true;
  }
  ConvEntry &entry = it->second;
  TpId tp;
  std::memcpy(&tp, hdr.tp_id, sizeof tp);
  if (tp != entry.tp) {
    put_result(hdr, AP_PARAMETER_CHECK, AP_BAD_TP_ID);
    return true;
  }
  Conversation &conv = *entry.conv;
  if ((conv.has_waiting_verb() || conv.busy()) && hdr.opcode != NAP_GET_STATE) {
    // One verb at a time per conversation; only cancel runs beside it.
    put_result(hdr, AP_STATE_CHECK);
    return true;
  }
  const Conversation::BusyScope busy(conv);
  conv.set_caller_blocks(caller_blocks);
  const bool completed = carry_out(conv, vcb, token);
  conv.verb_done();
  if (completed && caller_blocks && conv.state() == ConvState::kReset) {
    // What this verb and the ones before it sent may still be queued: the
    // caller's thread writes it out before the verb returns (see reader_for),
    // so it reaches the partner even if the process exits right after.
    ended_vcb_ = vcb;
    ended_link_ = conv.link_reader();
  }
  return completed;
}

bool Engine::carry_out(Conversation &conv, void *vcb, void *token) {
  auto &hdr = *static_cast<NAP_HDR *>(vcb);
  // The conversation's own type decides how a verb is carried out; opext is
  // not checked, since the library sends the DEALLOCATE that follows an
  // abending SEND_DATA as basic whatever the conversation's type.
  switch (hdr.opcode) {
    case NAP_SEND_DATA:
      return conv.send_data(*static_cast<NAP_SEND_DATA_VCB *>(vcb), token);
    case NAP_RECEIVE_AND_WAIT:
      return conv.receive(*static_cast<NAP_RECEIVE_VCB *>(vcb), true, token);
    case NAP_RECEIVE_IMMEDIATE:
      return conv.receive(*static_cast<NAP_RECEIVE_VCB *>(vcb), false, token);
    case NAP_CONFIRM:
      return conv.confirm(*static_cast<NAP_CONFIRM_VCB *>(vcb), token);
    case NAP_CONFIRMED:
      conv.confirmed(hdr);
      return true;
    case NAP_FLUSH:
      conv.flush(hdr);
      return true;
    case NAP_PREPARE_TO_RECEIVE:
      return conv.prepare_to_receive(*static_cast<NAP_PREPARE_TO_RECEIVE_VCB *>(vcb), token);
    case NAP_REQUEST_TO_SEND:
      conv.request_to_send(hdr);
      return true;
    case NAP_SEND_ERROR:
      conv.send_error(*static_cast<NAP_SEND_ERROR_VCB *>(vcb));
      return true;
    case NAP_TEST_RTS:
      conv.test_rts(hdr);
      return true;
    case NAP_DEALLOCATE:
      return conv.deallocate(*static_cast<NAP_DEALLOCATE_VCB *>(vcb), token);
    case NAP_GET_STATE:
      conv.get_state(*static_cast<NAP_GET_STATE_VCB *>(vcb));
      return true;
    default:
      put_result(hdr, AP_PARAMETER_CHECK, AP_BAD_FIELD);
      return true;
  }
}

void Engine::cancel(NAP_HDR &hdr) {
  TpId tp;
  std::memcpy(&tp, hdr.tp_id, sizeof tp);
  put_result(hdr, AP_OK);
  if (hdr.conv_id != 0 && tp != 0) {
    auto it = convs_.find(hdr.conv_id);
    if (it == convs_.end() || it->second.tp != tp) {
      put_result(hdr, AP_PARAMETER_CHECK, AP_BAD_CONV_ID);
      return;
    }
    it->second.conv->abort(AP_CANCELLED);
    maybe_ended_.push_back(hdr.conv_id);
  } else if (hdr.conv_id != 0) {
    // An accept still waiting: the library names it by its own handle.
    auto it = std::find_if(accepts_.begin(), accepts_.end(), [&](const WaitingAccept &accept) {
      return accept.vcb->conv_id == hdr.conv_id;
    });
    if (it == accepts_.end()) return;
    const WaitingAccept accept = take_accept(it);
    put_result(*accept.vcb, AP_CANCELLED);
    hooks_.complete(accept.token);
  } else if (tp != 0) {
    cancel_allocates(tp);  // an allocation of this TP still waiting for a session
  }
}

void Engine::cancel_allocates(TpId tp) {
  for (auto it = allocates_.begin(); it != allocates_.end();) {
    if (it->request.tp != tp) {
      ++it;
      continue;
    }
    put_result(it->vcb->hdr, AP_CANCELLED);
    void *token = it->token;
    it = allocates_.erase(it);
    hooks_.complete(token);
  }
  // An allocation the daemon is still answering ends here; its answer is
  // then turned down (remote_allocated).
  for (auto &[id, waiting] : remote_allocates_) {
    if (waiting.request.tp != tp || waiting.vcb == nullptr) continue;
    put_result(waiting.vcb->hdr, AP_CANCELLED);
    waiting.vcb = nullptr;
    hooks_.complete(std::exchange(waiting.token, nullptr));
  }
}

// ---- the node daemon ------------------------------------------------------------------

void Engine::set_remote(RemoteNode *remote) {
  remote_ = remote;
  if (remote_ == nullptr) return;
  for (const auto &[name, count] : local_tp_names_) remote_->tp_name_added(name);
  for (const auto &accept : accepts_) remote_->accept_waiting(accept.accept_id, accept.names);
}

std::shared_ptr<LinkReader> Engine::reader_for(const void *vcb) {
  if (vcb == ended_vcb_) {
    ended_vcb_ = nullptr;
    return std::move(ended_link_);
  }
  switch (opcode_of(vcb)) {
    case NAP_START_TP:
    case NAP_TP_ENDED:
    case NAP_DEFINE_LOCAL_TP:
    case NAP_DELETE_LOCAL_TP:
    case NAP_B_ALLOCATE:
    case NAP_RECEIVE_ALLOCATE_CPIC:
    case NAP_CANCEL:
      return nullptr;  // not a verb of one conversation
    default:
      break;
  }
  auto found = convs_.find(static_cast<const NAP_HDR *>(vcb)->conv_id);
  return found == convs_.end() ? nullptr : found->second.conv->link_reader();
}

bool Engine::landing_for(const void *vcb, Landing &landing) {
  if (opcode_of(vcb) != NAP_RECEIVE_AND_WAIT) return false;
  auto found = convs_.find(static_cast<const NAP_HDR *>(vcb)->conv_id);
  return found != convs_.end() && found->second.conv->landing(vcb, landing);
}

// ---- clean-up ------------------------------------------------------------------------

uint32_t Engine::next_conv_id() {
  // IDs are not reused while the counter goes round, and never 0.
  const auto in_use = [this](uint32_t id) {
    return convs_.count(id) != 0 ||
           std::any_of(attaches_.begin(), attaches_.end(),
                       [id](const PendingAttach &attach) { return attach.half->id() == id; });
  };
  do {
    ++next_conv_;
  } while (next_conv_ == 0 || in_use(next_conv_));
  return next_conv_;
}

void Engine::reap() {
  if (maybe_ended_.empty()) return;
  // Only conversations something happened to can have ended: walking all of
  // them after every verb made each verb cost as much as the conversations
  // open.  In ID order, as a walk of the map would drop them.
  std::vector<uint32_t> candidates;
  candidates.swap(maybe_ended_);
  std::sort(candidates.begin(), candidates.end());
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  bool freed_session = false;
  for (const uint32_t id : candidates) {
    auto it = convs_.find(id);
    if (it == convs_.end() || !it->second.conv->finished()) continue;
    if (auto owned = tp_convs_.find(it->second.tp); owned != tp_convs_.end()) {
      std::erase(owned->second, id);
      if (owned->second.empty()) tp_convs_.erase(owned);
    }
    if (!it->second.session.empty()) {
      --sessions_in_use_[it->second.session];
      freed_session = true;
    }
    recently_ended_.push_back(it->first);
    recently_ended_set_.insert(it->first);
    if (recently_ended_.size() > kRecentlyEndedKept) {
      recently_ended_set_.erase(recently_ended_.front());
      recently_ended_.pop_front();
    }
    convs_.erase(it);
  }
  if (freed_session) grant_sessions();
}

void Engine::end_path() {
  std::vector<void *> tokens;
  for (auto &[id, entry] : convs_) entry.conv->drop(AP_CONV_FAILURE_NO_RETRY);
  for (auto &accept : accepts_) {
    put_result(*accept.vcb, AP_CONV_FAILURE_NO_RETRY);
    tokens.push_back(accept.token);
  }
  for (auto &allocate : allocates_) {
    put_result(allocate.vcb->hdr, AP_CONV_FAILURE_NO_RETRY);
    tokens.push_back(allocate.token);
  }
  for (auto &[id, allocate] : remote_allocates_) {
    if (allocate.vcb == nullptr) continue;
    put_result(allocate.vcb->hdr, AP_CONV_FAILURE_NO_RETRY);
    tokens.push_back(allocate.token);
  }
  ended_vcb_ = nullptr;
  ended_link_.reset();
  maybe_ended_.clear();
  tp_convs_.clear();
  accepts_.clear();
  allocates_.clear();
  remote_allocates_.clear();
  attaches_.clear();
  convs_.clear();
  tps_.clear();
  local_tp_names_.clear();
  sessions_in_use_.clear();
  for (void *token : tokens) hooks_.complete(token);
}

}  // namespace snanode::engine

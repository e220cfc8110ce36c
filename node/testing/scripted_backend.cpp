#include "testing/scripted_backend.h"

#include <algorithm>
#include <cstring>

#include "core/dispatcher.h"
#include "core/verb_result.h"

namespace snanode::testing {

SNT_VERB_SCRIPT ScriptedBackend::take_script(uint16_t opcode) {
  auto it = std::find_if(scripts_.begin(), scripts_.end(), [opcode](const SNT_VERB_SCRIPT &s) {
    return s.opcode == 0 || s.opcode == opcode;
  });
  if (it == scripts_.end()) return SNT_VERB_SCRIPT{};
  SNT_VERB_SCRIPT script = *it;
  scripts_.erase(it);
  return script;
}

// A successful verb gets the default out-values first, so a script that only
// delays a verb or checks its submission still hands the library usable
// identifiers; the script's fill routine then overrides what it wants.
void ScriptedBackend::apply(void *vcb, const SNT_VERB_SCRIPT &script) {
  write_verb_result(vcb, script.primary_rc, script.secondary_rc);
  if (script.primary_rc == AP_OK) defaults_.apply(vcb);
  if (script.fill != nullptr) script.fill(vcb, script.context);
}

bool ScriptedBackend::start(void *vcb, VerbTicket *ticket) {
  Submitted entry{};
  entry.opcode = verb_opcode(vcb);
  entry.size = static_cast<uint32_t>(verb_record_size(entry.opcode));
  std::memcpy(entry.copy, vcb, entry.size);
  entry.with_routine = ticket_has_routine(ticket);
  submitted_.push_back(entry);

  const SNT_VERB_SCRIPT script = take_script(entry.opcode);
  if (script.complete_later != 0 && !ticket_submitted_synchronously(ticket)) {
    pending_.push_back({ticket, script});
    return false;
  }
  apply(vcb, script);
  return true;
}

bool ScriptedBackend::complete_pending(uint32_t n) {
  if (n >= pending_.size()) return false;
  const Pending pending = pending_[n];
  pending_.erase(pending_.begin() + n);
  apply(ticket_vcb(pending.ticket), pending.script);
  complete_verb_and_wait(pending.ticket);
  return true;
}

void ScriptedBackend::end_path() {
  std::deque<Pending> ending;
  ending.swap(pending_);
  for (const Pending &pending : ending) {
    write_verb_result(ticket_vcb(pending.ticket), AP_COMM_SUBSYSTEM_ABENDED, 0);
    complete_verb(pending.ticket);
  }
}

void ScriptedBackend::reset() {
  end_path();
  scripts_.clear();
  submitted_.clear();
  defaults_.reset();
}

bool ScriptedBackend::submitted_vcb(uint32_t n, void *copy, uint32_t size) const {
  if (n >= submitted_.size() || copy == nullptr) return false;
  std::memcpy(copy, submitted_[n].copy, std::min(size, submitted_[n].size));
  return true;
}

uint16_t ScriptedBackend::submitted_opcode(uint32_t n) const {
  return n < submitted_.size() ? submitted_[n].opcode : 0;
}

bool ScriptedBackend::submitted_with_routine(uint32_t n) const {
  return n < submitted_.size() && submitted_[n].with_routine;
}

}  // namespace snanode::testing

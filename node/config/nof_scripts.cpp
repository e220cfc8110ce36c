// Scripted NOF answers for tests.
#include "config/nof_scripts.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#include "snanode/snanode_test.h"
#include "snanode/verbs.h"

namespace snanode::config {
namespace {

// The handle a scripted OPEN hands out when its script does not matter.
constexpr uint32_t kScriptedTargetHandle = 1;

struct ScriptState {
  std::mutex mutex;
  bool on = false;
  std::deque<SNT_NOF_SCRIPT> scripts;
  std::vector<uint16_t> submitted;
};

ScriptState &state() {
  static ScriptState instance;
  return instance;
}

// Takes the first script for `opcode` (or for any verb); true if one was found.
bool take_script(ScriptState &s, uint16_t opcode, SNT_NOF_SCRIPT &out) {
  const auto found = std::find_if(s.scripts.begin(), s.scripts.end(), [&](const auto &script) {
    return script.opcode == 0 || script.opcode == opcode;
  });
  if (found == s.scripts.end()) return false;
  out = *found;
  s.scripts.erase(found);
  return true;
}

void apply(const SNT_NOF_SCRIPT &script, void *verb_block, uint16_t opcode) {
  switch (opcode) {
    case NOF_OPEN_OPCODE: {
      auto *open = static_cast<NOF_OPEN *>(verb_block);
      open->primary_rc = script.primary_rc;
      open->secondary_rc = script.secondary_rc;
      if (script.primary_rc == AP_OK) open->target_handle = kScriptedTargetHandle;
      break;
    }
    case NOF_QUERY_SIDE_INFO_OPCODE: {
      auto *query = static_cast<NOF_QUERY_SIDE_INFO *>(verb_block);
      query->primary_rc = script.primary_rc;
      query->secondary_rc = script.secondary_rc;
      if (script.primary_rc == AP_OK && query->buf_ptr != nullptr) {
        std::memcpy(query->buf_ptr, script.record,
                    std::min<size_t>(query->buf_size, sizeof script.record));
      }
      break;
    }
    default: {
      auto *close = static_cast<NOF_CLOSE *>(verb_block);
      close->primary_rc = script.primary_rc;
      close->secondary_rc = script.secondary_rc;
      break;
    }
  }
}

SNT_NOF_SCRIPT default_answer(uint16_t opcode) {
  SNT_NOF_SCRIPT script{};
  script.opcode = opcode;
  if (opcode == NOF_QUERY_SIDE_INFO_OPCODE) {
    script.primary_rc = AP_STATE_CHECK;
    script.secondary_rc = AP_NO_SIDE_INFO_ENTRY;
  }
  return script;
}

}  // namespace

void reset_nof_scripts() {
  ScriptState &s = state();
  std::lock_guard<std::mutex> guard(s.mutex);
  s.on = false;
  s.scripts.clear();
  s.submitted.clear();
}

bool answer_scripted_nof(void *verb_block) {
  ScriptState &s = state();
  uint16_t opcode = 0;
  std::memcpy(&opcode, verb_block, sizeof opcode);
  std::lock_guard<std::mutex> guard(s.mutex);
  s.submitted.push_back(opcode);
  if (!s.on) return false;
  SNT_NOF_SCRIPT script;
  if (!take_script(s, opcode, script)) script = default_answer(opcode);
  apply(script, verb_block, opcode);
  return true;
}

}  // namespace snanode::config

extern "C" {

SNANODE_API void snt_script_nof(int on) {
  auto &s = snanode::config::state();
  std::lock_guard<std::mutex> guard(s.mutex);
  s.on = on != 0;
}

SNANODE_API void snt_push_nof_script(const SNT_NOF_SCRIPT *script) {
  auto &s = snanode::config::state();
  std::lock_guard<std::mutex> guard(s.mutex);
  s.scripts.push_back(*script);
}

SNANODE_API uint32_t snt_nof_count(void) {
  auto &s = snanode::config::state();
  std::lock_guard<std::mutex> guard(s.mutex);
  return static_cast<uint32_t>(s.submitted.size());
}

SNANODE_API uint16_t snt_nof_opcode(uint32_t n) {
  auto &s = snanode::config::state();
  std::lock_guard<std::mutex> guard(s.mutex);
  return n < s.submitted.size() ? s.submitted[n] : 0;
}

}  // extern "C"

#include "core/path.h"

#include <map>
#include <vector>

#include "core/completion_thread.h"
#include "core/dispatcher.h"
#include "core/failure_injection.h"
#include "core/node_monitor.h"
#include "core/process_lock.h"
#include "core/rising_id.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

struct PathUser {
  VPM_PATH_ROUTINE routine;
  void *context;
};

// All guarded by the process lock.  The table is never destroyed: a path end
// on the completion thread may still use it while static destructors run.
std::map<uint32_t, PathUser> &g_users = *new std::map<uint32_t, PathUser>;
PathConnector g_connector = nullptr;
uint32_t g_last_user_id = 0;
bool g_ending = false;

// Runs on the completion thread after the routines of the verbs that
// end_path failed (they were queued first).
void finish_path_end() {
  wait_releasing_process_lock(node_state_cv(), std::chrono::milliseconds(-1),
                              [] { return threads_waiting_for_verbs() == 0; });
  // Routines may register again or terminate themselves while they run, so
  // they are taken out of the table first.
  std::map<uint32_t, PathUser> ended;
  ended.swap(g_users);
  for (const auto &[id, user] : ended) {
    VPM_PATH_EVENT event = {static_cast<uint16_t>(VPM_PATH_ENDED), 0};
    if (user.routine != nullptr) user.routine(user.context, &event);
  }
  g_ending = false;
  notify_node_state_changed();
}

}  // namespace

void end_path() {
  ProcessLockGuard guard;
  if (!g_ending) {
    g_ending = true;
    end_path_at_backends();
    post_completion_job(finish_path_end);
  }
  if (on_completion_thread()) return;
  wait_releasing_process_lock(node_state_cv(), std::chrono::milliseconds(-1),
                              [] { return !g_ending; });
}

bool path_is_ending() {
  return g_ending;
}

void set_path_connector(PathConnector connector) {
  ProcessLockGuard guard;
  g_connector = connector;
}

uint32_t path_user_count() {
  ProcessLockGuard guard;
  return static_cast<uint32_t>(g_users.size());
}

}  // namespace snanode

extern "C" {

// The routine's context argument is the r3 value given here (libcpic passes 0).
void vpm_init_path_user(uint32_t, uint32_t, VPM_PATH_ROUTINE routine, uint32_t r3,
                        uint32_t *path_user_id) {
  if (path_user_id == nullptr) return;
  *path_user_id = 0;
  if (snanode::take_injected_failure(snanode::InjectedFailure::kPathRegistration)) return;
  snanode::ProcessLockGuard guard;
  if (snanode::g_users.empty() && snanode::g_connector != nullptr && !snanode::g_connector())
    return;
  const uint32_t id = snanode::next_rising_id(
      snanode::g_last_user_id, [](uint32_t used) { return snanode::g_users.count(used) != 0; });
  snanode::g_users[id] = {routine, reinterpret_cast<void *>(static_cast<uintptr_t>(r3))};
  *path_user_id = id;
}

void vpm_terminate_path_user(uint32_t path_user_id) {
  snanode::ProcessLockGuard guard;
  snanode::g_users.erase(path_user_id);
}

}  // extern "C"

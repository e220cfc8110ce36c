// Wait objects: counted wake-ups under the process-lock monitor.
//
// A wake-up that arrives before anyone sleeps is kept in the count, so the
// usual "submit, then sleep" sequence of a caller cannot miss a completion that
// ran in between.  Each vpm_sleep consumes one wake-up.  Handles are registry
// handles: a sleeper keeps its object alive when another thread releases it,
// and sleeping on a released or unknown object returns at once.
#include <chrono>
#include <memory>

#include "core/failure_injection.h"
#include "core/node_monitor.h"
#include "core/opaque_registry.h"
#include "core/process_lock.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

// vpm_sleep results besides 0 (woken).
constexpr uint32_t kSleepTimedOut = 1;
constexpr uint32_t kSleepNoObject = 2;  // unknown handle, or released while asleep

struct WaitObject {
  uint32_t wakeups = 0;  // guarded by the process lock
  bool released = false;
};

OpaqueRegistry<WaitObject> &wait_objects() {
  static auto *registry = new OpaqueRegistry<WaitObject>(0x3A17);
  return *registry;
}

}  // namespace
}  // namespace snanode

extern "C" {

void *vpm_allocate_wait_object(void) {
  if (snanode::take_injected_failure(snanode::InjectedFailure::kWaitObject)) return nullptr;
  const uint64_t handle = snanode::wait_objects().add(std::make_shared<snanode::WaitObject>());
  return snanode::handle_to_opaque<void *>(handle);
}

void vpm_release_wait_object(void *wait_object) {
  auto object = snanode::wait_objects().remove(snanode::opaque_to_handle(wait_object));
  if (!object) return;
  snanode::ProcessLockGuard guard;
  object->released = true;
  snanode::notify_node_state_changed();
}

uint32_t vpm_sleep(void *wait_object, uint32_t timeout_ms) {
  auto object = snanode::wait_objects().find(snanode::opaque_to_handle(wait_object));
  if (!object) return snanode::kSleepNoObject;
  snanode::ProcessLockGuard guard;
  const std::chrono::milliseconds timeout(
      timeout_ms == VPM_SLEEP_FOREVER ? -1 : static_cast<int64_t>(timeout_ms));
  const bool woken = snanode::wait_releasing_process_lock(
      snanode::node_state_cv(), timeout,
      [&object] { return object->wakeups != 0 || object->released; });
  if (!woken) return snanode::kSleepTimedOut;
  if (object->wakeups == 0) return snanode::kSleepNoObject;
  --object->wakeups;
  return 0;
}

void vpm_wakeup(void *wait_object) {
  auto object = snanode::wait_objects().find(snanode::opaque_to_handle(wait_object));
  if (!object) return;
  snanode::ProcessLockGuard guard;
  ++object->wakeups;
  snanode::notify_node_state_changed();
}

}  // extern "C"

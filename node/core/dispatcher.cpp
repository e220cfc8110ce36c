// The APPC entry points: hand each verb to the active backend and turn the
// backend's "later" into either a wait (blocking callers) or a run of the
// completion routine on the completion thread.
//
// Every entry takes the process lock (re-entrantly: libcpic already holds it),
// so backends always start verbs and complete them under the lock, and a
// blocking caller's wait is a monitor wait that lets completions and other
// threads' calls run meanwhile.

#include <cstring>
#include <memory>
#include <unordered_set>

#include "core/completion_thread.h"
#include "core/dispatcher.h"
#include "core/node_monitor.h"
#include "core/path.h"
#include "core/process_lock.h"
#include "core/verb_result.h"
#include "snanode/snanode.h"
#include "snanode/verbs.h"

namespace snanode {

struct VerbTicket {
  void *vcb = nullptr;
  APPC_CALLBACK routine = nullptr;
  uintptr_t correlator = 0;
  bool synchronous_entry = false;
  bool completed = false;  // the backend has written the results
  uint64_t serial = 0;
};

namespace {

// All guarded by the process lock.
VerbBackend *g_test_backend = nullptr;
uint64_t g_next_serial = 1;
// Tickets whose caller or routine has not seen them yet.  Never destroyed: the
// completion thread may still finish a ticket while static destructors run.
std::unordered_set<uint64_t> &g_unfinished = *new std::unordered_set<uint64_t>;
unsigned g_waiting_threads = 0;

VerbBackend *active_backend() {
  return g_test_backend != nullptr ? g_test_backend : engine_backend();
}

void register_ticket(VerbTicket &ticket) {
  ticket.serial = g_next_serial++;
  g_unfinished.insert(ticket.serial);
}

void finish_ticket(const VerbTicket &ticket) {
  g_unfinished.erase(ticket.serial);
  notify_node_state_changed();
}

// Answers a verb without any backend; true when it was answered.
bool answered_without_backend(void *vcb) {
  if (path_is_ending()) {
    write_verb_result(vcb, AP_COMM_SUBSYSTEM_ABENDED, 0);
    return true;
  }
  if (active_backend() == nullptr) {
    write_verb_result(vcb, AP_COMM_SUBSYSTEM_NOT_LOADED, 0);
    return true;
  }
  return false;
}

// Starts a verb whose caller waits for it here.
void run_blocking(void *vcb, bool synchronous_entry) {
  if (answered_without_backend(vcb)) return;
  VerbTicket ticket;
  ticket.vcb = vcb;
  ticket.synchronous_entry = synchronous_entry;
  register_ticket(ticket);
  if (!active_backend()->start(vcb, &ticket)) {
    ++g_waiting_threads;
    active_backend()->wait(&ticket);
    --g_waiting_threads;
  }
  finish_ticket(ticket);
}

}  // namespace

void set_test_backend(VerbBackend *backend) {
  g_test_backend = backend;
}

bool ticket_has_routine(const VerbTicket *ticket) {
  return ticket->routine != nullptr;
}

bool ticket_submitted_synchronously(const VerbTicket *ticket) {
  return ticket->synchronous_entry;
}

void *ticket_vcb(const VerbTicket *ticket) {
  return ticket->vcb;
}

bool ticket_completed(const VerbTicket *ticket) {
  return ticket->completed;
}

void VerbBackend::wait(VerbTicket *ticket) {
  wait_releasing_process_lock(node_state_cv(), std::chrono::milliseconds(-1),
                              [ticket] { return ticket->completed; });
}

void complete_verb(VerbTicket *ticket) {
  if (ticket->completed) return;
  ticket->completed = true;
  if (ticket->routine == nullptr) {
    notify_node_state_changed();  // the blocked caller rechecks
    return;
  }
  post_completion_job([ticket] {
    ticket->routine(ticket->vcb, 0, 0, ticket->correlator);
    finish_ticket(*ticket);
    delete ticket;
  });
}

void complete_verb_and_wait(VerbTicket *ticket) {
  const uint64_t serial = ticket->serial;
  const bool runs_routine = ticket->routine != nullptr;
  complete_verb(ticket);  // a routine ticket may be gone from here on
  if (runs_routine && on_completion_thread()) return;
  wait_releasing_process_lock(node_state_cv(), std::chrono::milliseconds(-1),
                              [serial] { return g_unfinished.count(serial) == 0; });
}

void end_path_at_backends() {
  if (g_test_backend != nullptr) g_test_backend->end_path();
  if (VerbBackend *engine = engine_backend()) engine->end_path();
}

unsigned threads_waiting_for_verbs() {
  return g_waiting_threads;
}

}  // namespace snanode

extern "C" {

// Only the current interface version is served; other versions get "node not
// reachable", as a node that does not offer that interface would answer.
void appc_c_version(uint32_t version, void *vcb) {
  if (vcb == nullptr) return;
  snanode::ProcessLockGuard guard;
  if (version != APPC_INTERFACE_VERSION) {
    snanode::write_verb_result(vcb, AP_COMM_SUBSYSTEM_NOT_LOADED, 0);
    return;
  }
  snanode::run_blocking(vcb, true);
}

uint32_t appc_c_async_version(uint32_t version, void *vcb, APPC_CALLBACK routine,
                              uintptr_t correlator) {
  if (vcb == nullptr) return AP_ASYNC_COMPLETED;
  snanode::ProcessLockGuard guard;
  if (version != APPC_INTERFACE_VERSION) {
    snanode::write_verb_result(vcb, AP_COMM_SUBSYSTEM_NOT_LOADED, 0);
    return AP_ASYNC_COMPLETED;
  }
  if (routine == nullptr) {
    snanode::run_blocking(vcb, false);
    return AP_ASYNC_COMPLETED;
  }
  if (snanode::answered_without_backend(vcb)) return AP_ASYNC_COMPLETED;
  auto ticket = std::make_unique<snanode::VerbTicket>();
  ticket->vcb = vcb;
  ticket->routine = routine;
  ticket->correlator = correlator;
  snanode::register_ticket(*ticket);
  if (snanode::active_backend()->start(vcb, ticket.get())) {
    snanode::finish_ticket(*ticket);
    return AP_ASYNC_COMPLETED;
  }
  ticket.release();  // owned by the backend until complete_verb, then by the completion job
  return AP_ASYNC_IN_PROGRESS;
}

}  // extern "C"

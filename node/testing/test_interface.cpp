// The node's test interface (snanode_test.h), apart from the NOF scripting.
#include <string>

#include "config/nof_scripts.h"
#include "core/dispatcher.h"
#include "core/failure_injection.h"
#include "core/log_store.h"
#include "core/memory_accounting.h"
#include "core/path.h"
#include "core/process_lock.h"
#include "core/trace_flags.h"
#include "snanode/snanode_test.h"
#include "testing/reset_hooks.h"
#include "testing/scripted_backend.h"

namespace snanode::testing {
namespace {

ScriptedBackend &scripted_backend() {
  static auto *backend = new ScriptedBackend;
  return *backend;
}

void copy_text(const std::string &text, char *out, uint32_t size) {
  if (out == nullptr || size == 0) return;
  const size_t length = text.size() < size - 1 ? text.size() : size - 1;
  text.copy(out, length);
  out[length] = '\0';
}

}  // namespace
}  // namespace snanode::testing

using snanode::InjectedFailure;
using snanode::LogKind;
using snanode::ProcessLockGuard;
using snanode::testing::scripted_backend;

extern "C" {

// Registered path users stay: they belong to the library's own state, which a
// reset of the node's test state must not pull from under it.  Memory in use
// stays too: those blocks are still allocated.
void snt_reset(void) {
  ProcessLockGuard guard;
  snanode::set_test_backend(nullptr);
  scripted_backend().reset();
  snanode::clear_injected_failures();
  snanode::clear_kept_records();
  snanode::load_trace_flags_from_environment();
  snanode::config::reset_nof_scripts();
  snanode::testing::run_reset_hooks();
}

void snt_fail_allocations(uint32_t n) {
  inject_failures(InjectedFailure::kAllocation, n);
}
void snt_fail_table_inserts(uint32_t n) {
  inject_failures(InjectedFailure::kTableInsert, n);
}
void snt_fail_table_inits(uint32_t n) {
  inject_failures(InjectedFailure::kTableInit, n);
}
void snt_refuse_wait_objects(uint32_t n) {
  inject_failures(InjectedFailure::kWaitObject, n);
}
void snt_fail_path_registrations(uint32_t n) {
  inject_failures(InjectedFailure::kPathRegistration, n);
}

void snt_end_path(void) {
  snanode::end_path();
}
uint32_t snt_path_users(void) {
  return snanode::path_user_count();
}

uint32_t snt_problem_count(void) {
  return snanode::record_count(LogKind::kProblem);
}
uint32_t snt_audit_count(void) {
  return snanode::record_count(LogKind::kAudit);
}
uint32_t snt_assert_count(void) {
  return snanode::assertion_count();
}

int snt_problem(uint32_t n, SNT_RECORD *out) {
  return snanode::kept_record(LogKind::kProblem, n, out) ? 1 : 0;
}

int snt_audit(uint32_t n, SNT_RECORD *out) {
  return snanode::kept_record(LogKind::kAudit, n, out) ? 1 : 0;
}

int snt_assertion(uint32_t n, char *file, uint32_t file_size, char *expression,
                  uint32_t expression_size) {
  std::string file_text;
  std::string expression_text;
  if (!snanode::kept_assertion(n, &file_text, &expression_text)) return 0;
  snanode::testing::copy_text(file_text, file, file_size);
  snanode::testing::copy_text(expression_text, expression, expression_size);
  return 1;
}

uint32_t snt_blocks_in_use(uint32_t mem_class) {
  return snanode::memory_in_use(mem_class).blocks;
}
uint64_t snt_bytes_in_use(uint32_t mem_class) {
  return snanode::memory_in_use(mem_class).bytes;
}

void snt_script_verbs(int on) {
  ProcessLockGuard guard;
  snanode::set_test_backend(on != 0 ? &scripted_backend() : nullptr);
}

void snt_push_verb_script(const SNT_VERB_SCRIPT *script) {
  if (script == nullptr) return;
  ProcessLockGuard guard;
  scripted_backend().push_script(*script);
}

uint32_t snt_submitted_count(void) {
  ProcessLockGuard guard;
  return scripted_backend().submitted_count();
}

int snt_submitted_vcb(uint32_t n, void *copy, uint32_t size) {
  ProcessLockGuard guard;
  return scripted_backend().submitted_vcb(n, copy, size) ? 1 : 0;
}

uint16_t snt_submitted_opcode(uint32_t n) {
  ProcessLockGuard guard;
  return scripted_backend().submitted_opcode(n);
}

int snt_submitted_with_routine(uint32_t n) {
  ProcessLockGuard guard;
  return scripted_backend().submitted_with_routine(n) ? 1 : 0;
}

uint32_t snt_pending_count(void) {
  ProcessLockGuard guard;
  return scripted_backend().pending_count();
}

int snt_complete_pending(uint32_t n) {
  ProcessLockGuard guard;
  return scripted_backend().complete_pending(n) ? 1 : 0;
}

}  // extern "C"

// The scripted node: minimal but working stand-ins for every node service —
// a process lock, handle tables, counted memory, wait objects that count
// wake-ups, a path registry, and APPC verbs that all succeed at once.
#include "scripted_node.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace scripted_node {
namespace {

std::recursive_mutex g_lock;
Problem g_last_problem;
VPM_PATH_ROUTINE g_path_routine = nullptr;
uint16_t g_last_opcode = 0;
unsigned char g_trace_flags[SNANODE_TRACE_FLAG_BYTES] = {};

void count_call(const char *name) {
  ++calls()[name];
}

struct WaitObject {
  int wakeups = 0;
};

}  // namespace

std::map<std::string, int> &calls() {
  static std::map<std::string, int> counters;
  return counters;
}
Problem last_problem() {
  return g_last_problem;
}
VPM_PATH_ROUTINE path_routine() {
  return g_path_routine;
}
uint16_t last_opcode() {
  return g_last_opcode;
}

}  // namespace scripted_node

using scripted_node::count_call;

struct vtm_table {
  std::vector<void *> entries;  // handle n lives at index n - 1; null = free
};

extern "C" {

const unsigned char nba_blank_name[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
unsigned char *ptrc = scripted_node::g_trace_flags;
TRC_API trc_api = {0, {0, 0, 0}, -1};

void *nba_mm_alloc(uint32_t size, uint32_t, const void *, uint32_t, uint32_t) {
  count_call("nba_mm_alloc");
  return std::calloc(1, size);
}
void nba_mm_free(void *block, uint32_t) {
  count_call("nba_mm_free");
  std::free(block);
}

void nba_pd_print_problem(uint32_t code, uint32_t probe, const char *arg_types, ...) {
  count_call("nba_pd_print_problem");
  scripted_node::g_last_problem = {code, probe, arg_types};
}
void nba_pd_print_audit(uint32_t, uint32_t, const char *, ...) {
  count_call("nba_pd_print_audit");
}
void v0_assert(const char *, int, const char *) {
  count_call("v0_assert");
}

uint16_t vpm_lock(void) {
  count_call("vpm_lock");
  scripted_node::g_lock.lock();
  return 1;
}
void vpm_unlock(uint16_t) {
  count_call("vpm_unlock");
  scripted_node::g_lock.unlock();
}
void *vpm_allocate_wait_object(void) {
  count_call("vpm_allocate_wait_object");
  return new scripted_node::WaitObject;
}
void vpm_release_wait_object(void *object) {
  count_call("vpm_release_wait_object");
  delete static_cast<scripted_node::WaitObject *>(object);
}
uint32_t vpm_sleep(void *object, uint32_t) {
  count_call("vpm_sleep");
  // Every verb completes at once, so a sleeper only consumes a wake-up.
  auto *wait = static_cast<scripted_node::WaitObject *>(object);
  if (wait->wakeups > 0) --wait->wakeups;
  return 0;
}
void vpm_wakeup(void *object) {
  count_call("vpm_wakeup");
  ++static_cast<scripted_node::WaitObject *>(object)->wakeups;
}
int vpm_asm_event_fd(void) {
  count_call("vpm_asm_event_fd");
  return -1;
}
void vpm_init_path_user(uint32_t, uint32_t, VPM_PATH_ROUTINE routine, uint32_t, uint32_t *id) {
  count_call("vpm_init_path_user");
  scripted_node::g_path_routine = routine;
  *id = 1;
}
void vpm_terminate_path_user(uint32_t) {
  count_call("vpm_terminate_path_user");
  scripted_node::g_path_routine = nullptr;
}

void vtm_table_init(VTM_TABLE *field, uint32_t) {
  count_call("vtm_table_init");
  *field = new vtm_table;
}
void vtm_table_terminate(VTM_TABLE *field) {
  count_call("vtm_table_terminate");
  delete *field;
  *field = nullptr;
}
uint32_t vtm_get_free_entry(VTM_TABLE table, void *pointer) {
  count_call("vtm_get_free_entry");
  table->entries.push_back(pointer);  // handles are never reused
  return static_cast<uint32_t>(table->entries.size());
}
void *vtm_get_pointer(VTM_TABLE table, uint32_t handle) {
  count_call("vtm_get_pointer");
  if (table == nullptr || handle == 0 || handle > table->entries.size()) return nullptr;
  return table->entries[handle - 1];
}
void vtm_release_entry(VTM_TABLE table, uint32_t handle) {
  count_call("vtm_release_entry");
  if (table != nullptr && handle != 0 && handle <= table->entries.size()) {
    table->entries[handle - 1] = nullptr;
  }
}
uint32_t vtm_get_next_used(VTM_TABLE table, uint32_t previous, void **pointer) {
  count_call("vtm_get_next_used");
  if (table == nullptr) return 0;
  for (uint32_t h = previous + 1; h <= table->entries.size(); ++h) {
    if (table->entries[h - 1] != nullptr) {
      *pointer = table->entries[h - 1];
      return h;
    }
  }
  return 0;
}

// Every verb succeeds at once.  An accept gets a TP and a conversation.
static void answer(void *vcb) {
  unsigned char *bytes = static_cast<unsigned char *>(vcb);
  uint16_t opcode;
  std::memcpy(&opcode, bytes, sizeof opcode);
  scripted_node::g_last_opcode = opcode;
  std::memset(bytes + 4, 0, 8);  // primary and secondary return codes
  if (opcode == NAP_RECEIVE_ALLOCATE_CPIC) {
    std::memset(bytes + 76, 0x5A, 8);
    std::memcpy(bytes + 84, &scripted_node::kAcceptedConvId, 4);
  } else if (opcode == NAP_START_TP) {
    std::memset(bytes + 20, 0x5B, 8);
  }
}
void appc_c_version(uint32_t, void *vcb) {
  count_call("appc_c_version");
  answer(vcb);
}
uint32_t appc_c_async_version(uint32_t, void *vcb, APPC_CALLBACK, uintptr_t) {
  count_call("appc_c_async_version");
  answer(vcb);
  return AP_ASYNC_COMPLETED;
}
void nof_version(uint32_t, uint32_t, void *verb_block) {
  count_call("nof_version");
  std::memset(static_cast<unsigned char *>(verb_block) + 4, 0xFF, 2);  // no such entry
}

void sepuapi_init(unsigned char *) {
  count_call("sepuapi_init");
}
void trc_lock_file(TRC_API *) {
  count_call("trc_lock_file");
}
void trc_unlock_file(TRC_API *) {
  count_call("trc_unlock_file");
}
void com_trc_sep(int32_t, const char *) {
  count_call("com_trc_sep");
}
void com_trc_line(int32_t, const char *, const char *) {
  count_call("com_trc_line");
}
void com_trc_dump(int32_t, const char *, const void *, uint32_t) {
  count_call("com_trc_dump");
}
}

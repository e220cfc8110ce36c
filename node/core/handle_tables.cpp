// The vtm_ entry points: handle tables behind opaque, never reused table
// handles.
//
// Capacity: vtm_table_init's second argument, when nonzero, is the most
// entries the table holds; 0 (what libcpic passes) gives
// HandleTable::kDefaultCapacity (1048576), far beyond the conversations one
// process can keep open, so a full table means a runaway program.
//
// Each table carries its own mutex: the library calls these under the process
// lock, but node threads may use tables too, and a call on a table that
// another thread terminates meanwhile must still find a live object.
#include <memory>
#include <mutex>

#include "core/failure_injection.h"
#include "core/handle_table.h"
#include "core/opaque_registry.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

struct LockedTable {
  explicit LockedTable(uint32_t capacity) : table(capacity) {}
  std::mutex mutex;
  HandleTable table;
};

OpaqueRegistry<LockedTable> &tables() {
  static auto *registry = new OpaqueRegistry<LockedTable>(0x7AB1);
  return *registry;
}

std::shared_ptr<LockedTable> find_table(VTM_TABLE table) {
  if (table == nullptr) return nullptr;
  return tables().find(opaque_to_handle(table));
}

}  // namespace
}  // namespace snanode

using snanode::find_table;

extern "C" {

void vtm_table_init(VTM_TABLE *field, uint32_t r1) {
  if (field == nullptr) return;
  *field = nullptr;
  if (snanode::take_injected_failure(snanode::InjectedFailure::kTableInit)) return;
  const uint32_t capacity = r1 != 0 ? r1 : snanode::HandleTable::kDefaultCapacity;
  const uint64_t handle = snanode::tables().add(std::make_shared<snanode::LockedTable>(capacity));
  *field = snanode::handle_to_opaque<VTM_TABLE>(handle);
}

void vtm_table_terminate(VTM_TABLE *field) {
  if (field == nullptr || *field == nullptr) return;
  snanode::tables().remove(snanode::opaque_to_handle(*field));
  *field = nullptr;
}

uint32_t vtm_get_free_entry(VTM_TABLE table, void *pointer) {
  auto found = find_table(table);
  if (!found) return NB_NULL_HANDLE;
  if (snanode::take_injected_failure(snanode::InjectedFailure::kTableInsert)) return NB_NULL_HANDLE;
  std::lock_guard<std::mutex> hold(found->mutex);
  return found->table.insert(pointer);
}

void *vtm_get_pointer(VTM_TABLE table, uint32_t handle) {
  auto found = find_table(table);
  if (!found) return nullptr;
  std::lock_guard<std::mutex> hold(found->mutex);
  return found->table.find(handle);
}

void vtm_release_entry(VTM_TABLE table, uint32_t handle) {
  auto found = find_table(table);
  if (!found) return;
  std::lock_guard<std::mutex> hold(found->mutex);
  found->table.release(handle);
}

uint32_t vtm_get_next_used(VTM_TABLE table, uint32_t previous, void **pointer) {
  auto found = find_table(table);
  if (!found) {
    if (pointer != nullptr) *pointer = nullptr;
    return NB_NULL_HANDLE;
  }
  std::lock_guard<std::mutex> hold(found->mutex);
  return found->table.next_used(previous, pointer);
}

}  // extern "C"

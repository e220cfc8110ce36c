#include "core/handle_table.h"

#include "core/rising_id.h"

namespace snanode {

uint32_t HandleTable::insert(void *pointer) {
  if (by_handle_.size() >= capacity_) return 0;
  const uint32_t candidate =
      next_rising_id(last_issued_, [this](uint32_t id) { return by_handle_.count(id) != 0; });
  by_handle_.emplace(candidate, pointer);
  in_order_.emplace(candidate, pointer);
  return candidate;
}

void *HandleTable::find(uint32_t handle) const {
  auto it = by_handle_.find(handle);
  return it == by_handle_.end() ? nullptr : it->second;
}

bool HandleTable::release(uint32_t handle) {
  if (by_handle_.erase(handle) == 0) return false;
  in_order_.erase(handle);
  return true;
}

uint32_t HandleTable::next_used(uint32_t previous, void **pointer) const {
  auto it = in_order_.upper_bound(previous);
  if (it == in_order_.end()) {
    if (pointer != nullptr) *pointer = nullptr;
    return 0;
  }
  if (pointer != nullptr) *pointer = it->second;
  return it->first;
}

}  // namespace snanode

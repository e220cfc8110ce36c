// One handle table: nonzero 32-bit handles mapped to pointers.
//
// Handles are issued from a rising counter (wrapping past 0xFFFFFFFF to 1 and
// skipping handles in use), so a released handle comes back only after about
// four thousand million other inserts: stale conversation IDs stay unknown.
// A hash index gives O(1) lookup; an ordered index gives the walk in handle
// order, which starts after any value, so it survives the release of the
// handle it came from.  Not thread-safe by itself (see handle_tables.cpp).
#pragma once

#include <cstdint>
#include <map>
#include <unordered_map>

namespace snanode {

class HandleTable {
 public:
  // Entries the node's tables hold unless the creator asks for another limit.
  static constexpr uint32_t kDefaultCapacity = 1u << 20;

  explicit HandleTable(uint32_t capacity) : capacity_(capacity) {}

  // Returns the new handle, or 0 when the table is full.
  uint32_t insert(void *pointer);
  // Null when the handle is not in use.
  void *find(uint32_t handle) const;
  // False when the handle was not in use.
  bool release(uint32_t handle);
  // The first handle in use above `previous` and its pointer; 0 at the end.
  uint32_t next_used(uint32_t previous, void **pointer) const;
  uint32_t size() const { return static_cast<uint32_t>(by_handle_.size()); }

 private:
  uint32_t capacity_;
  uint32_t last_issued_ = 0;
  std::unordered_map<uint32_t, void *> by_handle_;
  std::map<uint32_t, void *> in_order_;
};

}  // namespace snanode

// Maps the opaque handles the C interface hands out (tables, wait objects) to
// the objects behind them.
//
// A handle is a tagged 64-bit serial number, never a pointer, and serials are
// never reused: a handle that was terminated or released, or that belongs to
// another kind of object, is simply not found, so calls with stale handles
// fail safely instead of touching freed memory.  Objects are shared: a thread
// still using one (a sleeper on a wait object) keeps it alive after release.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace snanode {

template <class T>
class OpaqueRegistry {
 public:
  // `tag` occupies the top 16 bits of every handle of this registry.
  explicit OpaqueRegistry(uint16_t tag) : tag_(static_cast<uint64_t>(tag) << 48) {}

  uint64_t add(std::shared_ptr<T> object) {
    std::lock_guard<std::mutex> hold(mutex_);
    const uint64_t handle = tag_ | next_serial_++;
    objects_.emplace(handle, std::move(object));
    return handle;
  }

  std::shared_ptr<T> find(uint64_t handle) const {
    std::lock_guard<std::mutex> hold(mutex_);
    auto it = objects_.find(handle);
    return it == objects_.end() ? nullptr : it->second;
  }

  // Removes the handle; returns the object (null when the handle is unknown).
  std::shared_ptr<T> remove(uint64_t handle) {
    std::lock_guard<std::mutex> hold(mutex_);
    auto it = objects_.find(handle);
    if (it == objects_.end()) return nullptr;
    std::shared_ptr<T> object = std::move(it->second);
    objects_.erase(it);
    return object;
  }

 private:
  const uint64_t tag_;
  mutable std::mutex mutex_;
  uint64_t next_serial_ = 1;
  std::unordered_map<uint64_t, std::shared_ptr<T>> objects_;
};

// Conversions between registry handles and the pointer-sized C handles.
template <class P>
P handle_to_opaque(uint64_t handle) {
  return reinterpret_cast<P>(static_cast<uintptr_t>(handle));
}

template <class P>
uint64_t opaque_to_handle(P opaque) {
  return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(opaque));
}

}  // namespace snanode

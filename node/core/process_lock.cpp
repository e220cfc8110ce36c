// The process lock: one recursive monitor shared by the application's calls
// into libcpic and the node's own threads.
//
// A plain std::mutex carries the exclusion; the owner and the depth make it
// re-entrant for the owning thread (a completion routine may submit a verb, a
// library call may call another node service).  Blocking points hand the mutex
// to std::condition_variable_any with the depth saved, so other threads run
// while the caller waits, and the caller gets its full depth back afterwards.
#include "core/process_lock.h"

#include <atomic>
#include <thread>

#include "core/node_monitor.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

struct ProcessLock {
  std::mutex mutex;
  std::atomic<std::thread::id> owner{};
  unsigned depth = 0;  // read and written only by the owner
};

// Never destroyed: node threads may still take the lock while the process
// runs its static destructors.
ProcessLock &process_lock() {
  static ProcessLock *lock = new ProcessLock;
  return *lock;
}

bool held_by_this_thread(const ProcessLock &lock) {
  return lock.owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

unsigned acquire() {
  ProcessLock &lock = process_lock();
  if (held_by_this_thread(lock)) return ++lock.depth;
  lock.mutex.lock();
  lock.owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  lock.depth = 1;
  return 1;
}

// Returns false when the calling thread does not hold the lock.
bool release() {
  ProcessLock &lock = process_lock();
  if (!held_by_this_thread(lock)) return false;
  if (--lock.depth == 0) {
    lock.owner.store(std::thread::id(), std::memory_order_relaxed);
    lock.mutex.unlock();
  }
  return true;
}

}  // namespace

bool process_lock_held() {
  return held_by_this_thread(process_lock());
}

unsigned process_lock_depth() {
  ProcessLock &lock = process_lock();
  return held_by_this_thread(lock) ? lock.depth : 0;
}

ProcessLockGuard::ProcessLockGuard() {
  acquire();
}
ProcessLockGuard::~ProcessLockGuard() {
  release();
}

bool wait_releasing_process_lock(std::condition_variable_any &cv, std::chrono::milliseconds timeout,
                                 const std::function<bool()> &ready) {
  ProcessLock &lock = process_lock();
  if (!held_by_this_thread(lock)) {
    // Callers outside any call of the node get the same monitor semantics.
    ProcessLockGuard guard;
    return wait_releasing_process_lock(cv, timeout, ready);
  }
  const unsigned depth = lock.depth;
  lock.depth = 0;
  lock.owner.store(std::thread::id(), std::memory_order_relaxed);
  std::unique_lock<std::mutex> hold(lock.mutex, std::adopt_lock);
  bool satisfied = true;
  if (timeout.count() < 0) {
    cv.wait(hold, ready);
  } else {
    satisfied = cv.wait_for(hold, timeout, ready);
  }
  hold.release();
  lock.owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  lock.depth = depth;
  return satisfied;
}

void run_without_process_lock(const std::function<void()> &work) {
  ProcessLock &lock = process_lock();
  if (!held_by_this_thread(lock)) {
    work();
    return;
  }
  const unsigned depth = lock.depth;
  lock.depth = 0;
  lock.owner.store(std::thread::id(), std::memory_order_relaxed);
  lock.mutex.unlock();
  struct Retake {
    ProcessLock &lock;
    unsigned depth;
    ~Retake() {
      lock.mutex.lock();
      lock.owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
      lock.depth = depth;
    }
  } retake{lock, depth};
  work();
}

std::condition_variable_any &node_state_cv() {
  static std::condition_variable_any *cv = new std::condition_variable_any;
  return *cv;
}

void notify_node_state_changed() {
  node_state_cv().notify_all();
}

}  // namespace snanode

extern "C" {

// The token is the nesting depth the lock reached; unlocking checks that calls
// pair up, which catches a lost vpm_unlock early.
uint16_t vpm_lock(void) {
  return static_cast<uint16_t>(snanode::acquire());
}

void vpm_unlock(uint16_t token) {
  const unsigned depth = snanode::process_lock_depth();
  if (depth == 0) {
    v0_assert(__FILE__, __LINE__, "vpm_unlock by a thread that does not hold the process lock");
    return;
  }
  if (token != static_cast<uint16_t>(depth)) {
    v0_assert(__FILE__, __LINE__, "vpm_unlock token matches the lock depth");
  }
  snanode::release();
}

}  // extern "C"

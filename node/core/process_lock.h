// The process lock seen from inside the node.
//
// vpm_lock/vpm_unlock give applications (libcpic) a monitor; node threads that
// must touch library memory (completing a verb, running a completion routine,
// ending the path) take the same lock through these helpers.
#pragma once

#include <chrono>
#include <functional>
#include <condition_variable>
#include <mutex>

namespace snanode {

// Takes the process lock for the lifetime of the guard.
class ProcessLockGuard {
 public:
  ProcessLockGuard();
  ~ProcessLockGuard();
  ProcessLockGuard(const ProcessLockGuard &) = delete;
  ProcessLockGuard &operator=(const ProcessLockGuard &) = delete;
};

// Waits on `cv` with the process lock released (however deeply the calling
// thread holds it) and takes it back before returning.  The caller holds the
// process lock.  Returns false on time-out.
bool wait_releasing_process_lock(std::condition_variable_any &cv,
                                 std::chrono::milliseconds timeout,  // negative: no limit
                                 const std::function<bool()> &ready);

// Runs `work` with the process lock released (however deeply the calling
// thread holds it) and takes it back afterwards, so a thread can block in a
// system call without holding up the node.  The caller holds the process lock.
void run_without_process_lock(const std::function<void()> &work);

}  // namespace snanode

// Password verifications away from the daemon's thread.  Verifying with the
// system (PAM) can take seconds, a wrong password on purpose; the daemon's
// one thread must meanwhile go on serving every other client.  A few worker
// threads run the checks; each result comes back to the daemon's thread,
// which is woken through an eventfd and runs the verification's completion.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "client/unique_fd.h"

namespace snanode::daemon {

class VerifierPool {
 public:
  using Check = std::function<bool()>;
  using Done = std::function<void(bool verified)>;

  // At most `threads` checks run at once; at most `max_waiting` are queued
  // or running, `max_per_owner` of them for one owner.
  VerifierPool(unsigned threads, size_t max_waiting, size_t max_per_owner);
  ~VerifierPool();  // waits for the checks that run; drops the queued ones
  VerifierPool(const VerifierPool &) = delete;
  VerifierPool &operator=(const VerifierPool &) = delete;

  // Readable while completions wait for complete_ready().
  int ready_fd() const { return ready_.get(); }

  // Queues a check for `owner`; `done` runs later on the thread that calls
  // complete_ready().  False, and nothing queued, past the limits.
  bool submit(uint64_t owner, Check check, Done done);

  // On the daemon's thread: runs the completions of the checks that ended.
  void complete_ready();

 private:
  struct Job {
    uint64_t owner;
    Check check;
    Done done;
    bool verified = false;
  };
  void work();

  unsigned thread_count_;
  size_t max_waiting_;
  size_t max_per_owner_;
  client::UniqueFd ready_;
  std::mutex mutex_;
  std::condition_variable queued_;
  std::deque<Job> waiting_;
  std::deque<Job> finished_;
  std::map<uint64_t, size_t> per_owner_;  // queued or running, by owner
  size_t in_flight_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> threads_;  // started at the first check
};

}  // namespace snanode::daemon

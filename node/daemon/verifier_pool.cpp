#include "daemon/verifier_pool.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace snanode::daemon {

VerifierPool::VerifierPool(unsigned threads, size_t max_waiting, size_t max_per_owner)
    : thread_count_(threads),
      max_waiting_(max_waiting),
      max_per_owner_(max_per_owner),
      ready_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

VerifierPool::~VerifierPool() {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stopping_ = true;
    waiting_.clear();
  }
  queued_.notify_all();
  for (auto &thread : threads_) thread.join();
}

bool VerifierPool::submit(uint64_t owner, Check check, Done done) {
  std::lock_guard<std::mutex> hold(mutex_);
  size_t &owned = per_owner_[owner];
  if (!ready_.valid() || in_flight_ >= max_waiting_ || owned >= max_per_owner_) {
    if (owned == 0) per_owner_.erase(owner);
    return false;
  }
  ++owned;
  ++in_flight_;
  waiting_.push_back({owner, std::move(check), std::move(done)});
  // A daemon that never verifies with the system never has these threads.
  while (threads_.size() < thread_count_) threads_.emplace_back([this] { work(); });
  queued_.notify_one();
  return true;
}

void VerifierPool::work() {
  std::unique_lock<std::mutex> hold(mutex_);
  for (;;) {
    queued_.wait(hold, [&] { return stopping_ || !waiting_.empty(); });
    if (stopping_) return;
    Job job = std::move(waiting_.front());
    waiting_.pop_front();
    hold.unlock();
    job.verified = job.check();
    job.check = nullptr;  // lets go of the password now
    hold.lock();
    finished_.push_back(std::move(job));
    const uint64_t one = 1;
    ssize_t written = ::write(ready_.get(), &one, sizeof one);
    (void)written;  // the counter cannot overflow with this few jobs
  }
}

void VerifierPool::complete_ready() {
  uint64_t count;
  ssize_t got = ::read(ready_.get(), &count, sizeof count);
  (void)got;  // nothing to read just means nothing finished
  std::deque<Job> finished;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    finished.swap(finished_);
    for (const Job &job : finished) {
      --in_flight_;
      if (--per_owner_[job.owner] == 0) per_owner_.erase(job.owner);
    }
  }
  // Outside the lock: a completion may submit the next check.
  for (Job &job : finished) job.done(job.verified);
}

}  // namespace snanode::daemon

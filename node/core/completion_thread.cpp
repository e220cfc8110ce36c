#include "core/completion_thread.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "core/node_monitor.h"
#include "core/process_lock.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

struct CompletionQueue {
  std::mutex mutex;  // taken after, never around, the process lock
  std::condition_variable work;
  std::deque<std::function<void()>> jobs;
  std::thread::id thread_id;
  bool started = false;
  uint64_t posted = 0;    // guarded by mutex
  uint64_t finished = 0;  // written under the process lock
  int event_fd = -1;      // counter > 0 while jobs are queued or running
};

// Lives for the whole process: the thread is detached and may still be
// waiting for work while static destructors run.
CompletionQueue &queue() {
  static auto *instance = new CompletionQueue;
  return *instance;
}

void signal_event_fd(int fd) {
  if (fd < 0) return;
  const uint64_t one = 1;
  ssize_t written = write(fd, &one, sizeof one);
  (void)written;  // a saturated counter is still readable
}

void drain_event_fd(int fd) {
  if (fd < 0) return;
  uint64_t count = 0;
  ssize_t got = read(fd, &count, sizeof count);
  (void)got;  // EAGAIN: nothing was pending
}

void run_jobs() {
  CompletionQueue &q = queue();
  for (;;) {
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> hold(q.mutex);
      q.work.wait(hold, [&q] { return !q.jobs.empty(); });
      job = std::move(q.jobs.front());
      q.jobs.pop_front();
    }
    {
      ProcessLockGuard guard;
      job();
      ++q.finished;
      notify_node_state_changed();
    }
    std::lock_guard<std::mutex> hold(q.mutex);
    if (q.jobs.empty()) drain_event_fd(q.event_fd);
  }
}

}  // namespace

void post_completion_job(std::function<void()> job) {
  CompletionQueue &q = queue();
  std::lock_guard<std::mutex> hold(q.mutex);
  if (!q.started) {
    q.event_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    std::thread thread(run_jobs);
    q.thread_id = thread.get_id();
    thread.detach();
    q.started = true;
  }
  q.jobs.push_back(std::move(job));
  ++q.posted;
  signal_event_fd(q.event_fd);
  q.work.notify_one();
}

bool on_completion_thread() {
  CompletionQueue &q = queue();
  std::lock_guard<std::mutex> hold(q.mutex);
  return q.started && q.thread_id == std::this_thread::get_id();
}

uint64_t completion_jobs_posted() {
  CompletionQueue &q = queue();
  std::lock_guard<std::mutex> hold(q.mutex);
  return q.posted;
}

uint64_t completion_jobs_finished() {
  return queue().finished;
}

int completion_event_fd() {
  CompletionQueue &q = queue();
  std::lock_guard<std::mutex> hold(q.mutex);
  return q.event_fd;
}

}  // namespace snanode

// What a single-threaded program gets from vpm_asm_event_fd (CMCHCK calls it
// before taking the lock): the completion routines queued at the time of the
// call have run when it returns (waited for with the process lock released,
// for at most one second so a routine stuck on the caller cannot hang it),
// and the result is an eventfd that is readable while further routines are
// queued, for programs that want to poll for them.  On the completion thread
// itself it cannot wait and only returns the descriptor.
extern "C" int vpm_asm_event_fd(void) {
  if (!snanode::on_completion_thread()) {
    const uint64_t target = snanode::completion_jobs_posted();
    snanode::wait_releasing_process_lock(
        snanode::node_state_cv(), std::chrono::milliseconds(1000),
        [target] { return snanode::completion_jobs_finished() >= target; });
  }
  return snanode::completion_event_fd();
}

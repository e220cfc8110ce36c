// The node's completion thread: runs completion routines and other deferred
// work one job at a time, each holding the process lock.
//
// It is never the thread that reads results from the engine or daemon, so a
// routine may submit further verbs (and even wait for them) without blocking
// the delivery of their results.
#pragma once

#include <cstdint>
#include <functional>

namespace snanode {

// Queues `job`; it runs after every job queued before it.  Any thread may
// post, with or without the process lock.
void post_completion_job(std::function<void()> job);

bool on_completion_thread();

// Jobs posted and finished so far.  completion_jobs_finished() is read under
// the process lock, which every job holds while it runs.
uint64_t completion_jobs_posted();
uint64_t completion_jobs_finished();

// An eventfd that is readable while jobs are queued or running, or -1.
int completion_event_fd();

}  // namespace snanode

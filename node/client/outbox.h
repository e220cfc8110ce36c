// The bytes a process sends to the node daemon, written so that no thread
// ever blocks on the daemon's socket while it holds the node's lock.
//
// A message goes out at once when nothing is queued before it and the socket
// takes it without blocking; whatever the socket cannot take yet is queued
// and written by the outbox's own writer thread, which blocks in the kernel
// without any lock of the node.  The queue has no limit: everything in it
// answers a verb or a definition of this process's TPs, so it holds at most
// a message per waiting verb or local name.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace snanode::client {

class Outbox {
 public:
  // Writes to `fd`, which outlives the outbox (the caller owns it).
  explicit Outbox(int fd) : fd_(fd) {}
  Outbox(const Outbox &) = delete;
  Outbox &operator=(const Outbox &) = delete;

  // Sends `bytes` after everything posted before them.  False once a write
  // has failed: the connection is broken.
  bool post(const std::vector<uint8_t> &bytes);

  // Writes the queue until close(); run by the writer thread.
  void run();

  // Ends run() (what is still queued is dropped).
  void close();

 private:
  // Writes what the socket takes now; the count of bytes written, -1 on a
  // broken connection.
  ssize_t write_now(const uint8_t *data, size_t size);

  const int fd_;
  std::mutex mutex_;
  std::condition_variable queued_;
  std::vector<uint8_t> queue_;  // guarded by mutex_, as the flags below
  bool writing_ = false;        // the writer thread has bytes of its own on their way
  bool closed_ = false;
  bool broken_ = false;
};

}  // namespace snanode::client

// A process's connection to the node daemon, as the node library uses it.
//
// The engine tells the daemon which local TP names the process accepts, which
// receive-allocates wait, and which allocations it cannot serve in the
// process; the daemon's answers (allocation results, attaches, each with its
// end of the conversation's socketpair) come back through DaemonEvents on the
// client's applier thread, with the process lock held.  Sending never blocks
// (the engine sends with the process lock held), and the connection is read
// without the lock, so neither side of it can stall the other.  When the
// daemon goes away, `on_lost` runs (without the lock): the node library ends
// the path there, so every outstanding verb completes with an error and the
// path routines hear that the node is gone.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/daemon_protocol.h"
#include "client/unique_fd.h"

namespace snanode::client {

// Problem-log code: a conversation socket the daemon passed could not be
// received (the process was at its open-file limit); the probe is the
// allocation's request ID or the attach's accept ID.
inline constexpr uint32_t kLostDescriptorProblem = 0x10040004;

class DaemonEvents {
 public:
  virtual ~DaemonEvents() = default;
  // The daemon answered an allocation: primary 0 with the allocating side's
  // end, or the allocation error.
  virtual void allocated(const AllocateResult &result, UniqueFd end) = 0;
  // An attach for a receive-allocate that waits, with the attached side's end.
  virtual void attached(AttachDelivery attach, UniqueFd end) = 0;
  // The daemon asks what the process's engine holds (for snanodectl); the
  // answer goes back at once.  By default: nothing.
  virtual StatsReport report() { return {}; }
  // The daemon switches this process's API trace.  By default ignored.
  virtual void trace(const TraceControl &control) { (void)control; }
};

class DaemonClient {
 public:
  // Connects to the daemon at `path` and greets it; nullptr when no daemon
  // answers there, or none within a few seconds.  Called without the process
  // lock: it waits for the daemon's answer.
  static std::unique_ptr<DaemonClient> connect(const std::string &path, DaemonEvents &events,
                                               std::function<void()> on_lost);
  // Leaves the daemon (which then forgets this process's names and accepts);
  // `on_lost` does not run.  Call with the process lock held.
  ~DaemonClient();
  DaemonClient(const DaemonClient &) = delete;
  DaemonClient &operator=(const DaemonClient &) = delete;

  const std::string &node_name() const { return node_name_; }

  // All of these return false once the daemon is gone.
  bool register_tp(const std::string &tp_name);
  bool withdraw_tp(const std::string &tp_name);
  bool accept_wait(uint32_t accept_id, const std::vector<std::string> &tp_names);
  bool accept_cancel(uint32_t accept_id);
  // Sends the allocation under a fresh request id, which it returns (0: the
  // daemon is gone).  The answer comes through DaemonEvents::allocated.
  uint32_t allocate(AllocateRequest request);

  struct Shared;  // what the reader thread shares with the client

 private:
  explicit DaemonClient(std::shared_ptr<Shared> shared, std::string node_name);
  bool send(const Message &message);

  std::shared_ptr<Shared> shared_;
  std::string node_name_;
  uint32_t next_request_ = 1;
};

}  // namespace snanode::client

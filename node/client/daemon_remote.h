// The engine joined to the node daemon: what the engine asks of the daemon
// goes out through this process's DaemonClient, and what the daemon answers
// (allocation results, attaches) goes back into the engine.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/daemon_client.h"
#include "engine/engine.h"
#include "engine/remote_node.h"

namespace snanode::client {

class DaemonRemote : public engine::RemoteNode, private DaemonEvents {
 public:
  // Connects to the daemon at `path` for the engine; nullptr when no daemon
  // answers there.  `on_lost` runs, without the process lock, when the
  // daemon goes away.  Call without the process lock (it waits for the
  // daemon's answer), then hand the connection to the engine with
  // install(), holding the lock.
  static std::unique_ptr<DaemonRemote> connect(const std::string &path, engine::Engine &engine,
                                               std::function<void()> on_lost);
  // The engine starts using the daemon.  Process lock held.
  void install();
  // Takes the engine off the daemon and leaves it.  Process lock held.
  ~DaemonRemote() override;

  // engine::RemoteNode
  void tp_name_added(const std::string &tp_name) override;
  void tp_name_removed(const std::string &tp_name) override;
  void accept_waiting(uint32_t accept_id, const std::vector<std::string> &tp_names) override;
  void accept_ended(uint32_t accept_id) override;
  uint32_t allocate(const AllocateRequest &request) override;

 private:
  explicit DaemonRemote(engine::Engine &engine) : engine_(engine) {}

  // DaemonEvents
  void allocated(const AllocateResult &result, UniqueFd end) override;
  void attached(AttachDelivery attach, UniqueFd end) override;
  StatsReport report() override;
  void trace(const TraceControl &control) override;

  engine::Engine &engine_;
  std::unique_ptr<DaemonClient> client_;
};

}  // namespace snanode::client

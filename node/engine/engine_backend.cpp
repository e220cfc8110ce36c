// The node's conversation engine behind the verb dispatcher, and its
// connection to the node daemon.
//
// The engine is made on the first verb (or when the process first connects to
// the node), from the node configuration, and lives until the process ends:
// it is never destroyed, so no verb or timer can reach it half torn down at
// exit.  The daemon connection is made when the first path user registers and
// dropped when the path ends; the next path user connects afresh.  Nothing
// here waits on the daemon's socket with the process lock held.
#include "engine/engine_backend.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "client/daemon_remote.h"
#include "client/socket_path.h"
#include "config/node_config.h"
#include "core/dispatcher.h"
#include "core/file_limit.h"
#include "core/node_monitor.h"
#include "core/path.h"
#include "core/process_lock.h"
#include "core/verb_backend.h"
#include "core/verb_result.h"
#include "engine/engine.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

// Problem-log codes: a configuration the engine could not start from; a
// daemon the configuration requires that does not answer.
constexpr uint32_t kConfigProblem = 0x10040002;
constexpr uint32_t kNoDaemonProblem = 0x10040003;

class EngineBackend : public VerbBackend {
 public:
  bool start(void *vcb, VerbTicket *ticket) override {
    engine::Engine *engine = this->engine();
    if (engine == nullptr) {
      // A configuration the node cannot use leaves it without an engine: the
      // verb is answered as by a node that is not there.
      write_verb_result(vcb, AP_COMM_SUBSYSTEM_NOT_LOADED, 0);
      return true;
    }
    const bool blocks = !ticket_has_routine(ticket);
    const bool completed = engine->start(vcb, ticket, blocks);
    if (completed && blocks) {
      if (auto io = engine->reader_for(vcb)) io->finish_writing();
    }
    return completed;
  }

  void end_path() override {
    // A process that never submitted a verb has no engine to end.
    if (instance_ != nullptr) instance_->end_path();
    daemon_.reset();
    ++paths_ended_;
  }

  // A blocked verb that waits for its partner reads the conversation's socket
  // in its own thread: the frame that completes it needs no hand-over from
  // the reactor thread.  Anything else waits on the node monitor.
  void wait(VerbTicket *ticket) override {
    std::shared_ptr<engine::LinkReader> reader;
    if (instance_ != nullptr) reader = instance_->reader_for(ticket_vcb(ticket));
    while (reader != nullptr && !ticket_completed(ticket)) {
      engine::Landing landing;
      const bool lands = instance_->landing_for(ticket_vcb(ticket), landing);
      if (!reader->read_here(lands ? &landing : nullptr)) break;
    }
    VerbBackend::wait(ticket);
  }

  // Called with the process lock held.  The daemon's answer is awaited with
  // the lock released, so the process's other threads run meanwhile; one
  // thread connects at a time, and the others that need the connection wait
  // for its outcome instead of opening their own.
  bool connect() {
    const config::NodeConfig &config = config::current_config();
    if (config.daemon == config::DaemonUse::kOff || daemon_ != nullptr) return true;
    if (connecting_) {
      wait_releasing_process_lock(node_state_cv(), std::chrono::milliseconds(-1),
                                  [this] { return !connecting_; });
      return daemon_ != nullptr || last_connect_usable_;
    }
    const std::string path = client::daemon_socket_path(config);
    // No socket, no daemon: the embedded engine serves, made when first needed.
    if (config.daemon == config::DaemonUse::kAuto && ::access(path.c_str(), F_OK) != 0) {
      return true;
    }
    engine::Engine *engine = this->engine();
    if (engine == nullptr) return false;
    connecting_ = true;
    const uint64_t paths_ended = paths_ended_;
    std::unique_ptr<client::DaemonRemote> remote;
    run_without_process_lock([&] {
      remote = client::DaemonRemote::connect(path, *engine, [] { snanode::end_path(); });
    });
    // A path that ended meanwhile took the connection's users with it (the
    // daemon may have gone already): the connection is not taken up.
    if (paths_ended != paths_ended_) remote.reset();
    if (remote != nullptr) {
      remote->install();
      daemon_ = std::move(remote);
      raise_open_file_limit();
    }
    last_connect_usable_ = daemon_ != nullptr || config.daemon != config::DaemonUse::kRequired;
    connecting_ = false;
    notify_node_state_changed();
    if (!last_connect_usable_) {
      const std::string problem = "no node daemon answers at " + path;
      std::fprintf(stderr, "snanode: %s\n", problem.c_str());
      nba_pd_print_problem(kNoDaemonProblem, 0, "s", problem.c_str());
    }
    return last_connect_usable_;
  }

 private:
  engine::Engine *engine() {
    if (instance_ != nullptr || config_failed_) return instance_;
    const config::NodeConfig *config = nullptr;
    try {
      config = &config::current_config();
    } catch (const config::ConfigError &error) {
      config_failed_ = true;  // reported once; every verb then gets "not reachable"
      nba_pd_print_problem(kConfigProblem, 1, "s", error.what());
      return nullptr;
    }
    engine::EngineHooks hooks;
    hooks.complete = [](void *token) { complete_verb(static_cast<VerbTicket *>(token)); };
    hooks.run_locked = [](const std::function<void()> &work) {
      ProcessLockGuard lock;
      work();
    };
    hooks.log_data = [](uint32_t conv_id, const std::vector<uint8_t> &log_data) {
      nba_pd_print_problem(engine::kPartnerLogDataProblem, conv_id, "ba",
                           static_cast<uint32_t>(log_data.size()), log_data.data());
    };
    instance_ = new engine::Engine(*config, hooks);
    return instance_;
  }

  // All guarded by the process lock.
  engine::Engine *instance_ = nullptr;
  bool config_failed_ = false;
  std::unique_ptr<client::DaemonRemote> daemon_;
  bool connecting_ = false;           // a thread is connecting to the daemon
  bool last_connect_usable_ = false;  // that connection's outcome, for those who waited
  uint64_t paths_ended_ = 0;
};

EngineBackend &backend() {
  // Never destroyed, like the engine.
  static EngineBackend *instance = new EngineBackend;
  return *instance;
}

}  // namespace

VerbBackend *engine_backend() {
  return &backend();
}

bool connect_engine_to_node() {
  ProcessLockGuard lock;
  return backend().connect();
}

}  // namespace snanode

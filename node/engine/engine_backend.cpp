// The node's conversation engine behind the verb dispatcher.
//
// The engine is made on the first verb, from the node configuration, and
// lives until the process ends: it is never destroyed, so no verb or timer
// can reach it half torn down at exit.
#include <cstdint>
#include <vector>

#include "config/node_config.h"
#include "core/process_lock.h"
#include "core/verb_backend.h"
#include "core/verb_result.h"
#include "engine/engine.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

// Problem-log code of a configuration the engine could not start from.
constexpr uint32_t kConfigProblem = 0x10040002;

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
    return engine->start(vcb, ticket);
  }

  void end_path() override {
    // A process that never submitted a verb has no engine to end.
    if (instance_ != nullptr) instance_->end_path();
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

  engine::Engine *instance_ = nullptr;  // guarded by the process lock
  bool config_failed_ = false;
};

}  // namespace

VerbBackend *engine_backend() {
  static EngineBackend backend;
  return &backend;
}

}  // namespace snanode

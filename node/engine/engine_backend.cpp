// The node's conversation engine behind the verb dispatcher.
//
// The engine is made on the first verb and lives until the process ends: it
// is never destroyed, so no verb or timer can reach it half torn down at exit.
#include <cstdint>
#include <vector>

#include "core/process_lock.h"
#include "core/verb_backend.h"
#include "engine/engine.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

class EngineBackend : public VerbBackend {
 public:
  bool start(void *vcb, VerbTicket *ticket) override { return engine().start(vcb, ticket); }
  void end_path() override {
    // A process that never submitted a verb has no engine to end.
    if (instance_ != nullptr) instance_->end_path();
  }

 private:
  engine::Engine &engine() {
    if (instance_ == nullptr)
      instance_ = new engine::Engine(
          config::NodeConfig{},
          engine::EngineHooks{
              [](void *token) { complete_verb(static_cast<VerbTicket *>(token)); },
              [](const std::function<void()> &work) {
                ProcessLockGuard lock;
                work();
              },
              [](uint32_t conv_id, const std::vector<uint8_t> &log_data) {
                nba_pd_print_problem(engine::kPartnerLogDataProblem, conv_id, "ba",
                                     static_cast<uint32_t>(log_data.size()), log_data.data());
              },
          });
    return *instance_;
  }

  engine::Engine *instance_ = nullptr;  // guarded by the process lock
};

}  // namespace

VerbBackend *engine_backend() {
  static EngineBackend backend;
  return &backend;
}

}  // namespace snanode

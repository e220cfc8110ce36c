// The embedded link: both halves live in this process under one lock, so a
// frame is delivered by calling the peer's sink directly.
#include <array>

#include "engine/link.h"

namespace snanode::engine {
namespace {

struct Shared {
  std::array<FrameSink *, 2> sinks{nullptr, nullptr};
  std::array<bool, 2> open{true, true};
};

class InMemoryEnd : public Link {
 public:
  InMemoryEnd(std::shared_ptr<Shared> shared, int side) : shared_(std::move(shared)), side_(side) {}
  ~InMemoryEnd() override { close(true); }

  void send(Frame &&frame, bool) override {
    FrameSink *peer = shared_->sinks[1 - side_];
    if (shared_->open[side_] && peer != nullptr) peer->on_frame(std::move(frame));
  }
  void attach(FrameSink *sink) override { shared_->sinks[side_] = sink; }
  void close(bool quietly) override {
    if (!shared_->open[side_]) return;
    shared_->open[side_] = false;
    shared_->sinks[side_] = nullptr;
    FrameSink *peer = shared_->sinks[1 - side_];
    if (!quietly && peer != nullptr) peer->link_lost();
  }

 private:
  std::shared_ptr<Shared> shared_;
  int side_;
};

}  // namespace

LinkPair make_in_memory_link() {
  auto shared = std::make_shared<Shared>();
  return {std::make_unique<InMemoryEnd>(shared, 0), std::make_unique<InMemoryEnd>(shared, 1)};
}

}  // namespace snanode::engine

#include "client/daemon_remote.h"

#include "trace/trace_settings.h"

namespace snanode::client {

std::unique_ptr<DaemonRemote> DaemonRemote::connect(const std::string &path, engine::Engine &engine,
                                                    std::function<void()> on_lost) {
  std::unique_ptr<DaemonRemote> remote(new DaemonRemote(engine));
  remote->client_ = DaemonClient::connect(path, *remote, std::move(on_lost));
  if (!remote->client_) return nullptr;
  return remote;
}

void DaemonRemote::install() {
  engine_.set_remote(this);
}

DaemonRemote::~DaemonRemote() {
  engine_.set_remote(nullptr);
}

// A message the daemon can no longer take needs no answer here: its reader
// sees the connection end and the path ends with it.
void DaemonRemote::tp_name_added(const std::string &tp_name) {
  client_->register_tp(tp_name);
}

void DaemonRemote::tp_name_removed(const std::string &tp_name) {
  client_->withdraw_tp(tp_name);
}

void DaemonRemote::accept_waiting(uint32_t accept_id, const std::vector<std::string> &tp_names) {
  client_->accept_wait(accept_id, tp_names);
}

void DaemonRemote::accept_ended(uint32_t accept_id) {
  client_->accept_cancel(accept_id);
}

uint32_t DaemonRemote::allocate(const AllocateRequest &request) {
  return client_->allocate(request);
}

void DaemonRemote::allocated(const AllocateResult &result, UniqueFd end) {
  engine_.remote_allocated(result, std::move(end));
}

void DaemonRemote::attached(AttachDelivery attach, UniqueFd end) {
  engine_.remote_attached(std::move(attach), std::move(end));
}

StatsReport DaemonRemote::report() {
  StatsReport report = engine_.report();
  report.trace_on = trace::api_trace_on();
  return report;
}

void DaemonRemote::trace(const TraceControl &control) {
  trace::set_api_trace(control.on, control.file);
}

}  // namespace snanode::client

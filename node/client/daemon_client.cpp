#include "client/daemon_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <thread>

#include "client/daemon_identity.h"
#include "client/message_channel.h"
#include "core/process_lock.h"

namespace snanode::client {

struct DaemonClient::Shared {
  Shared(UniqueFd socket, DaemonEvents &e, std::function<void()> lost)
      : channel(std::move(socket)), events(e), on_lost(std::move(lost)) {}
  MessageChannel channel;
  DaemonEvents &events;
  std::function<void()> on_lost;
  bool leaving = false;  // guarded by the process lock
};

namespace {

constexpr timeval kWelcomeTimeout = {5, 0};

// Hands one daemon message to the engine; false for one a client never gets.
bool dispatch(DaemonClient::Shared &shared, ReceivedMessage &received) {
  if (auto *result = std::get_if<AllocateResult>(&received.message)) {
    shared.events.allocated(result->request_id, result->primary, result->secondary,
                            std::move(received.descriptor));
    return true;
  }
  if (auto *attach = std::get_if<AttachDelivery>(&received.message)) {
    if (!received.descriptor.valid()) return false;
    shared.events.attached(std::move(*attach), std::move(received.descriptor));
    return true;
  }
  return false;
}

void run_reader(const std::shared_ptr<DaemonClient::Shared> &shared) {
  try {
    while (auto received = shared->channel.receive()) {
      ProcessLockGuard lock;
      if (shared->leaving) return;
      if (!dispatch(*shared, *received)) break;
    }
  } catch (const ProtocolError &) {
    // A daemon that speaks nonsense is as good as gone.
  }
  {
    ProcessLockGuard lock;
    if (shared->leaving) return;
    shared->leaving = true;
  }
  ::shutdown(shared->channel.fd(), SHUT_RDWR);
  if (shared->on_lost) shared->on_lost();
}

}  // namespace

std::unique_ptr<DaemonClient> DaemonClient::connect(const std::string &path, DaemonEvents &events,
                                                    std::function<void()> on_lost) {
  UniqueFd socket = connect_unix_socket(path);
  if (!socket.valid() || !daemon_is_trusted(socket.get(), path)) return nullptr;
  auto shared = std::make_shared<Shared>(std::move(socket), events, std::move(on_lost));
  const Hello hello{kProtocolVersion, static_cast<uint32_t>(::getpid()),
                    static_cast<uint32_t>(::getuid())};
  if (!shared->channel.send(hello)) return nullptr;
  // The caller holds the process lock: a daemon that does not answer must not
  // hold the process up for long.
  const timeval limit = kWelcomeTimeout;
  ::setsockopt(shared->channel.fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  std::optional<ReceivedMessage> welcome;
  try {
    welcome = shared->channel.receive();
  } catch (const ProtocolError &) {
    return nullptr;
  }
  const auto *greeting = welcome ? std::get_if<Welcome>(&welcome->message) : nullptr;
  if (greeting == nullptr || greeting->version != kProtocolVersion) return nullptr;
  const timeval no_limit = {0, 0};
  ::setsockopt(shared->channel.fd(), SOL_SOCKET, SO_RCVTIMEO, &no_limit, sizeof no_limit);
  std::thread([shared] { run_reader(shared); }).detach();
  return std::unique_ptr<DaemonClient>(new DaemonClient(shared, greeting->node_name));
}

DaemonClient::DaemonClient(std::shared_ptr<Shared> shared, std::string node_name)
    : shared_(std::move(shared)), node_name_(std::move(node_name)) {}

DaemonClient::~DaemonClient() {
  ProcessLockGuard lock;
  shared_->leaving = true;
  // Wakes the reader, which then sees `leaving` and ends quietly.
  ::shutdown(shared_->channel.fd(), SHUT_RDWR);
}

bool DaemonClient::send(const Message &message) {
  return shared_->channel.send(message);
}

bool DaemonClient::register_tp(const std::string &tp_name) {
  return send(RegisterTp{tp_name});
}

bool DaemonClient::withdraw_tp(const std::string &tp_name) {
  return send(WithdrawTp{tp_name});
}

bool DaemonClient::accept_wait(uint32_t accept_id, const std::vector<std::string> &tp_names) {
  return send(AcceptWait{accept_id, tp_names});
}

bool DaemonClient::accept_cancel(uint32_t accept_id) {
  return send(AcceptCancel{accept_id});
}

uint32_t DaemonClient::allocate(AllocateRequest request) {
  request.request_id = next_request_++;
  if (next_request_ == 0) next_request_ = 1;
  return send(request) ? request.request_id : 0;
}

}  // namespace snanode::client

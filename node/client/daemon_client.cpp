#include "client/daemon_client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "client/daemon_identity.h"
#include "client/message_channel.h"
#include "client/outbox.h"
#include "core/process_lock.h"
#include "snanode/snanode.h"

namespace snanode::client {

// What the client's threads share.  Three threads serve the connection, so
// that neither direction ever waits for the node's lock while the other
// needs the socket: the reader reads and parses without any lock; the
// applier takes the lock to hand each message to the engine; the outbox's
// writer writes what the socket could not take at once.
struct DaemonClient::Shared {
  Shared(UniqueFd socket, DaemonEvents &e, std::function<void()> lost)
      : channel(std::move(socket)), outbox(channel.fd()), events(e), on_lost(std::move(lost)) {}
  MessageChannel channel;
  Outbox outbox;
  DaemonEvents &events;
  std::function<void()> on_lost;
  bool leaving = false;  // guarded by the process lock
  UniqueFd spare;        // given up to write a problem at the open-file limit (lock held)

  // From the reader to the applier.
  std::mutex inbox_mutex;
  std::condition_variable inbox_changed;
  std::deque<ReceivedMessage> inbox;
  bool ended = false;  // the connection is over: nothing follows the inbox
};

namespace {

constexpr timeval kWelcomeTimeout = {5, 0};

UniqueFd open_spare() {
  return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

// Records that the conversation socket of `what` could not be taken in.  The
// process is at its open-file limit then, so the spare descriptor kept for
// this makes room for the problem log to be opened.
void report_lost_descriptor(DaemonClient::Shared &shared, uint32_t id, const std::string &what) {
  shared.spare.reset();
  const std::string problem = what + ": its conversation socket could not be received (the " +
                              "process is at its limit of open files)";
  nba_pd_print_problem(kLostDescriptorProblem, id, "s", problem.c_str());
  shared.spare = open_spare();
}

// Hands one daemon message to the engine; false for one a client never gets.
// A message whose descriptor was lost fails alone: an allocation result
// without its end fails that allocation, an attach without its end is
// dropped (its accept goes on waiting).
bool dispatch(DaemonClient::Shared &shared, ReceivedMessage &received) {
  if (auto *result = std::get_if<AllocateResult>(&received.message)) {
    if (received.descriptor_lost) {
      report_lost_descriptor(shared, result->request_id, "allocation");
    }
    shared.events.allocated(*result, std::move(received.descriptor));
    return true;
  }
  if (auto *attach = std::get_if<AttachDelivery>(&received.message)) {
    if (received.descriptor_lost) {
      report_lost_descriptor(shared, attach->accept_id, "attach for TP " + attach->tp_name);
    } else if (!received.descriptor.valid()) {
      return false;
    }
    shared.events.attached(std::move(*attach), std::move(received.descriptor));
    return true;
  }
  if (const auto *query = std::get_if<StatsQuery>(&received.message)) {
    // Answered from the applier with the lock held, like every message: the
    // daemon waits a short while for it and never blocks on it.
    StatsReport report = shared.events.report();
    report.query_id = query->query_id;
    std::vector<uint8_t> bytes;
    try {
      encode_message(report, false, bytes);
    } catch (const ProtocolError &) {
      report.conversations.clear();  // more than a message holds: the rest still helps
      bytes.clear();
      encode_message(report, false, bytes);
    }
    shared.outbox.post(bytes);
    return true;
  }
  if (const auto *control = std::get_if<TraceControl>(&received.message)) {
    shared.events.trace(*control);
    return true;
  }
  return false;
}

void run_reader(const std::shared_ptr<DaemonClient::Shared> &shared) {
  std::deque<ReceivedMessage> parsed;
  try {
    while (shared->channel.read_some()) {
      while (auto received = shared->channel.next()) parsed.push_back(std::move(*received));
      std::lock_guard<std::mutex> hold(shared->inbox_mutex);
      for (auto &received : parsed) shared->inbox.push_back(std::move(received));
      parsed.clear();
      shared->inbox_changed.notify_one();
    }
  } catch (const ProtocolError &) {
    // A daemon that speaks nonsense is as good as gone; what it said before
    // that is still applied.
  }
  std::lock_guard<std::mutex> hold(shared->inbox_mutex);
  for (auto &received : parsed) shared->inbox.push_back(std::move(received));
  shared->ended = true;
  shared->inbox_changed.notify_one();
}

// Takes what the reader has parsed, all of it under one hold of the lock,
// until the connection ends; then ends the path unless the process left.
void run_applier(const std::shared_ptr<DaemonClient::Shared> &shared) {
  for (bool ended = false; !ended;) {
    std::deque<ReceivedMessage> batch;
    {
      std::unique_lock<std::mutex> hold(shared->inbox_mutex);
      shared->inbox_changed.wait(hold, [&] { return shared->ended || !shared->inbox.empty(); });
      batch.swap(shared->inbox);
      ended = shared->ended;
    }
    ProcessLockGuard lock;
    if (shared->leaving) return;
    for (auto &received : batch) {
      if (!dispatch(*shared, received)) {
        ended = true;
        break;
      }
    }
  }
  {
    ProcessLockGuard lock;
    if (shared->leaving) return;
    shared->leaving = true;
  }
  ::shutdown(shared->channel.fd(), SHUT_RDWR);
  shared->outbox.close();
  if (shared->on_lost) shared->on_lost();
}

}  // namespace

std::unique_ptr<DaemonClient> DaemonClient::connect(const std::string &path, DaemonEvents &events,
                                                    std::function<void()> on_lost) {
  UniqueFd socket = connect_unix_socket(path);
  if (!socket.valid() || !daemon_is_trusted(socket.get(), path)) return nullptr;
  auto shared = std::make_shared<Shared>(std::move(socket), events, std::move(on_lost));
  shared->spare = open_spare();
  const Hello hello{kProtocolVersion, static_cast<uint32_t>(::getpid()),
                    static_cast<uint32_t>(::getuid())};
  if (!shared->channel.send(hello)) return nullptr;
  // A daemon that does not answer must not hold the process's start-up up
  // for long.
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
  std::thread([shared] { run_applier(shared); }).detach();
  std::thread([shared] { shared->outbox.run(); }).detach();
  return std::unique_ptr<DaemonClient>(new DaemonClient(shared, greeting->node_name));
}

DaemonClient::DaemonClient(std::shared_ptr<Shared> shared, std::string node_name)
    : shared_(std::move(shared)), node_name_(std::move(node_name)) {}

DaemonClient::~DaemonClient() {
  ProcessLockGuard lock;
  shared_->leaving = true;
  // Wakes the reader, whose end the applier then takes quietly.
  ::shutdown(shared_->channel.fd(), SHUT_RDWR);
  shared_->outbox.close();
}

// Never blocks: the caller holds the process lock.
bool DaemonClient::send(const Message &message) {
  std::vector<uint8_t> bytes;
  encode_message(message, false, bytes);
  return shared_->outbox.post(bytes);
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

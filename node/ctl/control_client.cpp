#include "control_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "client/daemon_identity.h"
#include "client/daemon_protocol.h"
#include "client/message_channel.h"

namespace snanode::ctl {

ControlAnswer run_control_request(const std::string &socket_path,
                                  const std::vector<std::string> &words,
                                  std::chrono::seconds timeout) {
  client::UniqueFd socket = client::connect_unix_socket(socket_path);
  if (!socket.valid()) {
    return {kNoAnswer, "no node daemon answers at " + socket_path + ": " + std::strerror(errno) +
                           " (is snanoded running? --socket names another socket)"};
  }
  // The same check the node library makes before it talks to a daemon.
  if (!client::daemon_is_trusted(socket.get(), socket_path)) {
    return {kNoAnswer, "not asking the process at " + socket_path + ": it is not a node daemon"};
  }
  const timeval limit{static_cast<time_t>(timeout.count()), 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  client::MessageChannel channel(std::move(socket), client::DescriptorPolicy::kNone);
  constexpr uint32_t kRequestId = 1;
  if (!channel.send(client::ControlRequest{client::kControlVersion, kRequestId, words})) {
    return {kNoAnswer, "the node daemon at " + socket_path + " closed the connection"};
  }
  ControlAnswer answer;
  for (;;) {
    std::optional<client::ReceivedMessage> received;
    errno = 0;  // tells a time-out from the end of the connection below
    try {
      received = channel.receive();
    } catch (const client::ProtocolError &e) {
      return {kNoAnswer, std::string("the node daemon's answer is not understood (") + e.what() +
                             "): it speaks another version than this snanodectl"};
    }
    if (!received) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return {kNoAnswer, "the node daemon at " + socket_path + " did not answer within " +
                               std::to_string(timeout.count()) + " s"};
      }
      return {kNoAnswer, "the node daemon at " + socket_path +
                             " closed the connection without answering: it does not take "
                             "control requests of this snanodectl's version (an older "
                             "snanoded?); its log says why"};
    }
    const auto *reply = std::get_if<client::ControlReply>(&received->message);
    if (reply == nullptr || reply->request_id != kRequestId) {
      return {kNoAnswer, std::string("the node daemon sent a ") +
                             client::message_name(received->message) +
                             " message instead of an answer"};
    }
    answer.status = reply->status;
    answer.text += reply->text;
    if (!reply->more) return answer;
  }
}

}  // namespace snanode::ctl

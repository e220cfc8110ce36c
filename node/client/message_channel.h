// One end of a daemon connection: whole protocol messages out and in, with
// the descriptors they pass.
#pragma once

#include <sys/socket.h>

#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "client/daemon_protocol.h"
#include "client/unique_fd.h"

namespace snanode::client {

struct ReceivedMessage {
  Message message;
  UniqueFd descriptor;  // the one passed with the message, if any
  // The message passed a descriptor that this process could not take in (it
  // had no descriptor left): `descriptor` is invalid, the rest is intact.
  bool descriptor_lost = false;
};

class MessageChannel {
 public:
  explicit MessageChannel(UniqueFd socket);

  int fd() const { return socket_.get(); }

  // Sends one message whole, passing `descriptor` when it is >= 0 (the
  // caller keeps its own copy).  False when the peer is gone.  Safe to call
  // from several threads.
  bool send(const Message &message, int descriptor = -1);

  // Waits for and reads what the socket holds.  False at end of stream or on
  // an error: the connection is over.
  bool read_some();

  // The next whole message read so far.  Throws ProtocolError for bytes that
  // are not one, or when a message announces a descriptor that was never
  // sent; one that was sent but could not be taken in is `descriptor_lost`.
  std::optional<ReceivedMessage> next();

  // Waits for the next whole message: next() and read_some() until one has
  // come; nothing once the connection is over.  Throws ProtocolError.
  std::optional<ReceivedMessage> receive();

 private:
  // Queues the descriptors a read brought, in order, with a placeholder for
  // one the kernel could not install.
  void take_descriptors(msghdr &msg);

  UniqueFd socket_;
  std::mutex send_mutex_;
  std::vector<uint8_t> inbound_;
  std::deque<UniqueFd> descriptors_;
};

// Connects to the daemon's socket; an invalid descriptor on failure.
UniqueFd connect_unix_socket(const std::string &path);

}  // namespace snanode::client

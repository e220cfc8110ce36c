// snanodectl's side of a control connection: one request, one answer.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace snanode::ctl {

// How a request ended.  `status` is the daemon's reply status (0 done, 1
// refused, 2 bad request, 3 unavailable) or kNoAnswer.
struct ControlAnswer {
  int status = 0;
  std::string text;
};
inline constexpr int kNoAnswer = 4;

// Sends `words` to the daemon at `socket_path` and waits up to `timeout` for
// the whole answer.  Never hangs on a daemon that says nothing, and explains
// a connection closed without an answer (a daemon of another version).
ControlAnswer run_control_request(const std::string &socket_path,
                                  const std::vector<std::string> &words,
                                  std::chrono::seconds timeout);

}  // namespace snanode::ctl

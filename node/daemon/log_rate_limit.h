// Keeps lines that clients can cause (connections, protocol errors, refused
// hellos, a full descriptor table) from flooding the daemon's log: each kind
// has a budget of lines per window; past it, lines are counted instead, and
// the count is written once the window is over.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace snanode::daemon {

class LogRateLimit {
 public:
  using Clock = std::chrono::steady_clock;
  using Writer = std::function<void(const std::string &line)>;

  LogRateLimit(unsigned lines_per_window, Clock::duration window, Writer writer);

  // Writes `line` unless its kind has used its budget in this window.
  void log(const std::string &kind, const std::string &line, Clock::time_point now);
  // Writes "suppressed" lines for the kinds whose window is over.
  void flush(Clock::time_point now);
  // When flush has something to write, if ever.
  std::optional<Clock::time_point> next_flush() const;

 private:
  struct Kind {
    Clock::time_point window_start;
    unsigned written = 0;
    unsigned long suppressed = 0;
  };
  void close_window(const std::string &name, Kind &kind);

  unsigned lines_per_window_;
  Clock::duration window_;
  Writer writer_;
  std::map<std::string, Kind> kinds_;
};

}  // namespace snanode::daemon

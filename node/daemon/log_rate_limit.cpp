#include "daemon/log_rate_limit.h"

namespace snanode::daemon {

LogRateLimit::LogRateLimit(unsigned lines_per_window, Clock::duration window, Writer writer)
    : lines_per_window_(lines_per_window), window_(window), writer_(std::move(writer)) {}

void LogRateLimit::close_window(const std::string &name, Kind &kind) {
  if (kind.suppressed > 0) {
    writer_(std::to_string(kind.suppressed) + " more " + name + " lines suppressed");
  }
  kind.suppressed = 0;
  kind.written = 0;
}

void LogRateLimit::log(const std::string &kind_name, const std::string &line,
                       Clock::time_point now) {
  Kind &kind = kinds_[kind_name];
  if (now - kind.window_start >= window_) {
    close_window(kind_name, kind);
    kind.window_start = now;
  }
  if (kind.written < lines_per_window_) {
    ++kind.written;
    writer_(line);
  } else {
    ++kind.suppressed;
  }
}

void LogRateLimit::flush(Clock::time_point now) {
  for (auto it = kinds_.begin(); it != kinds_.end();) {
    Kind &kind = it->second;
    if (now - kind.window_start < window_) {
      ++it;
      continue;
    }
    close_window(it->first, kind);
    it = kinds_.erase(it);  // a quiet kind starts afresh
  }
}

std::optional<LogRateLimit::Clock::time_point> LogRateLimit::next_flush() const {
  std::optional<Clock::time_point> next;
  for (const auto &[name, kind] : kinds_) {
    if (kind.suppressed == 0) continue;
    const auto due = kind.window_start + window_;
    if (!next || due < *next) next = due;
  }
  return next;
}

}  // namespace snanode::daemon

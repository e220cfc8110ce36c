#include "core/log_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "core/safe_directory.h"

namespace snanode {
namespace {

std::mutex g_configured_mutex;
std::string g_configured_directory;

std::string environment(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

void set_configured_log_directory(const std::string &directory) {
  std::lock_guard<std::mutex> hold(g_configured_mutex);
  g_configured_directory = directory;
}

std::string log_directory() {
  if (std::string dir = environment("SNANODE_LOG_DIR"); !dir.empty()) return dir;
  {
    std::lock_guard<std::mutex> hold(g_configured_mutex);
    if (!g_configured_directory.empty()) return g_configured_directory;
  }
  if (std::string state = environment("XDG_STATE_HOME"); !state.empty()) {
    return state + "/snanode";
  }
  if (std::string home = environment("HOME"); !home.empty()) {
    return home + "/.local/state/snanode";
  }
  return "/tmp/snanode-" + std::to_string(getuid());
}

void append_log_line(const char *file_name, const std::string &line) {
  const std::string directory = log_directory();
  // A directory another user prepared (or a link planted where it belongs)
  // could point the record anywhere: such a log is skipped, as is a log file
  // that is a symbolic link.
  std::string problem;
  if (!prepare_own_directory(directory, 0750, problem)) return;
  const std::string path = directory + "/" + file_name;
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (fd < 0) return;
  const std::string text = line + "\n";
  ssize_t written = write(fd, text.data(), text.size());
  (void)written;  // nowhere better to report a failing log
  close(fd);
}

}  // namespace snanode

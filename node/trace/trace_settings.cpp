// Trace settings from the environment, with the place where the
// configuration file's settings join them.
#include "trace/trace_settings.h"

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <strings.h>

namespace snanode::trace {

namespace {

const char *environment(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

bool is_true(const char *value) {
  return value != nullptr && (std::string(value) == "1" || strcasecmp(value, "yes") == 0 ||
                              strcasecmp(value, "true") == 0 || strcasecmp(value, "on") == 0);
}

// The configuration file's trace settings (trace, trace_file, log_dir and
// explicit flag bytes of NodeConfig).  This is the hook for the
// configuration module: once it is part of every process, it fills the
// settings here.  The environment is applied after it and wins.
TraceSettings configured_settings() {
  return {};
}

}  // namespace

std::filesystem::path log_directory() {
  if (const char *dir = environment("SNANODE_LOG_DIR")) return dir;
  if (const char *state = environment("XDG_STATE_HOME")) {
    return std::filesystem::path(state) / "snanode";
  }
  if (const char *home = environment("HOME")) {
    return std::filesystem::path(home) / ".local" / "state" / "snanode";
  }
  return "/tmp/snanode-" + std::to_string(getuid());
}

TraceSettings resolve_trace_settings() {
  TraceSettings settings = configured_settings();
  if (is_true(environment("SNANODE_TRACE"))) settings.api_trace = true;
  if (const char *file = environment("SNANODE_TRACE_FILE")) {
    settings.file = file;
  } else if (settings.file.empty()) {
    settings.file = log_directory() / "api.trc";
  }
  return settings;
}

}  // namespace snanode::trace

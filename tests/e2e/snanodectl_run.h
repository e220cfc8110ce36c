// Runs the built snanodectl against a daemon's socket, as an operator would:
// its exit status and what it printed (standard output and error together).
// The including test target defines SNANODECTL_PATH.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <utility>

namespace ctl_test {

inline std::pair<int, std::string> run_snanodectl(const std::string &socket,
                                                  const std::string &args) {
  const std::string command =
      std::string(SNANODECTL_PATH) + " --socket " + socket + " " + args + " 2>&1";
  FILE *pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, "popen failed"};
  std::string out;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

}  // namespace ctl_test

// Runs a command of the test as a shell would, and the built snanodectl
// against a daemon's socket as an operator would: the exit status (-1 when
// it did not exit) and what it printed, or the JSON it answered.  The including test target defines
// SNANODECTL_PATH.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <utility>

#include "e2e/ctl_json.h"

namespace ctl_test {

inline std::pair<int, std::string> run_command(const std::string &command) {
  FILE *pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, "popen failed"};
  std::string out;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// Standard output and error together.
inline std::pair<int, std::string> run_snanodectl(const std::string &socket,
                                                  const std::string &args) {
  return run_command(std::string(SNANODECTL_PATH) + " --socket " + socket + " " + args + " 2>&1");
}

// The answer to `args` (which ask for JSON), checked to be a success and JSON.
inline Json run_snanodectl_json(const std::string &socket, const std::string &args) {
  const auto [status, out] = run_snanodectl(socket, args);
  auto parsed = JsonParser(out).parse();
  EXPECT_TRUE(status == 0 && parsed) << args << ": " << out;
  return parsed.value_or(Json{});
}

}  // namespace ctl_test

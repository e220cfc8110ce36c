// Invokable TPs in a test's configuration run as the user running the test:
// a daemon run as root starts no TP that names no user.
#pragma once

#include <pwd.h>
#include <unistd.h>

#include <string>

namespace test_support {

// `config` with `user = "<this user>"` added to every [[tp]] table.
inline std::string with_tp_user(std::string config) {
  const passwd *self = ::getpwuid(::geteuid());
  const std::string line =
      "user = \"" + std::string(self != nullptr ? self->pw_name : "root") + "\"\n";
  const std::string table = "[[tp]]\n";
  for (size_t at = config.find(table); at != std::string::npos;
       at = config.find(table, at + table.size() + line.size())) {
    config.insert(at + table.size(), line);
  }
  return config;
}

}  // namespace test_support

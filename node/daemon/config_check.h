// `snanoded --check`: what is wrong with a configuration file, as a list of
// sentences a person can act on.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "config/node_config.h"

namespace snanode::daemon {

struct CheckReport {
  std::vector<std::string> problems;  // the daemon cannot work with the file
  std::vector<std::string> warnings;  // it can, but something will fail later
};

// Every problem found in the file.  The parser stops at the first problem of
// the file itself; a file that parses is then checked for what only the
// daemon cares about (programs it must start, the PAM service it asks, the
// socket it must create), and all of those are reported.  An invokable TP
// whose program is not installed is only a warning, since a configuration is
// often written before the programs are installed; `strict` makes it a
// problem.
CheckReport check_configuration(const std::filesystem::path &file, bool strict = false);

// The daemon-level problems of a parsed configuration.
CheckReport check_deployment(const config::NodeConfig &config, bool strict = false);

}  // namespace snanode::daemon

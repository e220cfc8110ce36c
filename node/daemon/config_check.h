// `snanoded --check`: what is wrong with a configuration file, as a list of
// sentences a person can act on.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "config/node_config.h"

namespace snanode::daemon {

// Every problem found in the file.  The parser stops at the first problem of
// the file itself; a file that parses is then checked for what only the
// daemon cares about (programs it must start, the PAM service it asks, the
// socket it must create), and all of those are reported.
std::vector<std::string> check_configuration(const std::filesystem::path &file);

// The daemon-level problems of a parsed configuration.
std::vector<std::string> check_deployment(const config::NodeConfig &config);

}  // namespace snanode::daemon

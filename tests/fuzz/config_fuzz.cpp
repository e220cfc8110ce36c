// Fuzz target: the node's configuration reader.  Any bytes either make a
// configuration or are refused with a ConfigError; nothing else may happen.
#include <cstddef>
#include <cstdint>
#include <string>

#include "config/node_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  try {
    snanode::config::parse_config(std::string(reinterpret_cast<const char *>(data), size),
                                  "fuzz.toml");
  } catch (const snanode::config::ConfigError &) {
    // refused, with its file, line and column: what a bad file gets
  }
  return 0;
}

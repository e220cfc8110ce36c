// A node of the test's own: every node-services name of snanode.h defined in
// the test executable, with a call counter per name.  libcpic.so lists
// libsnanode as needed, but the executable's definitions come first in the
// dynamic linker's search, so every node call of the library lands here.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "snanode/snanode.h"
#include "snanode/verbs.h"

namespace scripted_node {

// Calls per node routine, by name.
std::map<std::string, int> &calls();
inline int count(const char *name) {
  return calls()[name];
}

// The last problem record written.
struct Problem {
  uint32_t code = 0;
  uint32_t probe = 0;
  std::string arg_types;
};
Problem last_problem();

// The path routine the library registered, to send it events.
VPM_PATH_ROUTINE path_routine();

// Conversation identifier the fake node hands out for an accepted conversation.
inline constexpr uint32_t kAcceptedConvId = 0x4711;

// Opcode of the last APPC verb.
uint16_t last_opcode();

}  // namespace scripted_node

// Issues identifiers from a rising 32-bit counter that wraps past its top to
// 1, skipping 0 and identifiers still in use, so a released identifier comes
// back as late as possible.
#pragma once

#include <cstdint>

namespace snanode {

template <class InUse>
uint32_t next_rising_id(uint32_t &last_issued, const InUse &in_use) {
  uint32_t candidate = last_issued;
  do {
    ++candidate;  // wraps to 0, which is never an identifier
  } while (candidate == 0 || in_use(candidate));
  last_issued = candidate;
  return candidate;
}

}  // namespace snanode

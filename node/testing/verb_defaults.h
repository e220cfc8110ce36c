// The out-values the scripted node gives a verb that succeeds without a fill
// routine of its own: fresh identifiers and a plausible partner, as a real
// node would answer.
#pragma once

#include <cstdint>

namespace snanode::testing {

class VerbDefaults {
 public:
  // Writes the defaults of the verb's opcode into `vcb` (nothing for verbs
  // without out-values).
  void apply(void *vcb);
  void reset() { *this = VerbDefaults(); }

 private:
  void fresh_tp_id(uint8_t *tp_id);
  uint32_t fresh_conv_id() { return next_conv_id_++; }

  uint64_t next_tp_serial_ = 1;
  uint32_t next_conv_id_ = 1;
};

}  // namespace snanode::testing

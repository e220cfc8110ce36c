// Reading and writing the fields every verb record shares.
//
// All the APPC records keep the opcode at offset 0, the primary return code at
// 4 and the secondary at 8, whatever else their layout holds (the header-less
// START_TP, TP_ENDED and local-TP records included), so results are written by
// offset instead of through one record type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "snanode/verbs.h"

namespace snanode {

inline uint16_t verb_opcode(const void *vcb) {
  uint16_t opcode;
  std::memcpy(&opcode, vcb, sizeof opcode);
  return opcode;
}

inline void write_verb_result(void *vcb, uint16_t primary, uint32_t secondary) {
  auto *bytes = static_cast<unsigned char *>(vcb);
  std::memcpy(bytes + 4, &primary, sizeof primary);
  std::memcpy(bytes + 8, &secondary, sizeof secondary);
}

inline uint16_t verb_primary_rc(const void *vcb) {
  uint16_t primary;
  std::memcpy(&primary, static_cast<const unsigned char *>(vcb) + 4, sizeof primary);
  return primary;
}

// The bytes a verb record of `opcode` spans: the local-TP records are short,
// every other record fills the conversation record's verb area.
inline size_t verb_record_size(uint16_t opcode) {
  if (opcode == NAP_DEFINE_LOCAL_TP || opcode == NAP_DELETE_LOCAL_TP) {
    return sizeof(NAP_LOCAL_TP_VCB);
  }
  return NAP_VCB_SIZE;
}

}  // namespace snanode

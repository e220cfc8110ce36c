// ASCII/EBCDIC conversion through the exported tables.  The table is read
// at every call, so a program that patches a table sees the change at once.
#include "call_frame.h"

namespace {

unsigned char *table_of(uint16_t charset) {
  switch (charset) {
    case SCC_CHARSET_AE:
      return cpic_ae;
    case SCC_CHARSET_A:
      return cpic_a;
    case SCC_CHARSET_AE640:
      return cpic_ae640;
    case SCC_CHARSET_AE640_EX:
      return cpic_ae640_ex;
    default:
      return nullptr;
  }
}

}  // namespace

void SCC_convert_string(uint8_t direction, uint16_t charset, int16_t length, unsigned char *target,
                        const unsigned char *source) {
  // An unknown direction is a caller bug; converting towards EBCDIC keeps
  // the target defined.
  CPIC_ASSERT(kUnitUtil, direction == SCC_CNV_OUT || direction == SCC_CNV_IN, "FALSE");
  const unsigned base = direction == SCC_CNV_IN ? 256 : 0;
  const unsigned char *table = table_of(charset);
  if (table == nullptr) {
    CPIC_ASSERT(kUnitUtil, false, "FALSE");
    return;
  }
  // Increasing order makes conversion in place (target == source) safe.
  for (int16_t i = 0; i < length; ++i) target[i] = table[base + source[i]];
}

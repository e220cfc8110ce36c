// CMCNVO and CMCNVI: the application's own ASCII/EBCDIC conversion of a data
// buffer, in place, through the widest of the library's character sets.
#include "call_frame.h"

namespace {

void convert_buffer(uint16_t verb, uint8_t direction, unsigned char *buffer, CM_INT32 *length,
                    CM_RETURN_CODE *return_code) {
  CallFrame frame(verb, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr, buffer, length);
  if (*length > CM_MAXIMUM_BUFFER_SIZE) {
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else if (*length > 0) {
    // A negative length converts nothing: it must not wrap into a large
    // 16-bit count.
    SCC_convert_string(direction, SCC_CHARSET_AE640_EX, static_cast<int16_t>(*length), buffer,
                       buffer);
  }
  if (frame.tracing()) frame.response(nullptr, buffer, length);
}

}  // namespace

extern "C" {

void cmcnvo(unsigned char *buffer, CM_INT32 *length, CM_RETURN_CODE *return_code) {
  convert_buffer(kVerbCMCNVO, SCC_CNV_OUT, buffer, length, return_code);
}

void cmcnvi(unsigned char *buffer, CM_INT32 *length, CM_RETURN_CODE *return_code) {
  convert_buffer(kVerbCMCNVI, SCC_CNV_IN, buffer, length, return_code);
}

}  // extern "C"

// Log data in its sent form:
//
//   offset 0  L+8 (big-endian)   the GDS variable's length
//   offset 2  X'12E1'            SNA Error Log GDS identifier
//   offset 4  X'0002'            fixed
//   offset 6  L+2 (big-endian)   length of the log text subfield
//   offset 8  the L bytes of log data in EBCDIC
//
// The buffer is built once, when the application sets the log data, so the
// verbs that send it pass the stored bytes on without any work of their own.
#include "log_data.h"

#include "call_frame.h"

namespace {

// Probe of the allocation failure, telling this call site apart from the
// other places that report running out of memory.
constexpr uint32_t kProbeLogDataMemory = 11;

void put_big_endian16(unsigned char *at, uint16_t value) {
  at[0] = static_cast<unsigned char>(value >> 8);
  at[1] = static_cast<unsigned char>(value & 0xFF);
}

}  // namespace

CM_RETURN_CODE SCC_store_log_data(CCCB *cccb, const unsigned char *data, uint16_t length) {
  const uint16_t total = static_cast<uint16_t>(length + kLogDataHeaderLength);
  auto *buffer = static_cast<unsigned char *>(nba_mm_alloc(total, kMemKept, nba_blank_name, 0, 0));
  if (buffer == nullptr) {
    nba_pd_print_problem(kProblemNoResource, kProbeLogDataMemory, "");
    return CM_PRODUCT_SPECIFIC_ERROR;
  }
  SCC_clear_log_data(cccb);
  cccb->pLogData = buffer;
  cccb->usLogDataLength = total;

  put_big_endian16(buffer, total);
  put_big_endian16(buffer + 2, 0x12E1);
  put_big_endian16(buffer + 4, 0x0002);
  put_big_endian16(buffer + 6, static_cast<uint16_t>(length + 2));
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE, static_cast<int16_t>(length),
                     buffer + kLogDataHeaderLength, data);
  return CM_OK;
}

void SCC_clear_log_data(CCCB *cccb) {
  if (cccb->pLogData != nullptr) nba_mm_free(cccb->pLogData, 0);
  cccb->pLogData = nullptr;
  cccb->usLogDataLength = 0;
}

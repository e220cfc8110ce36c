// The conversation's log data in the form the deallocate and send-error
// verbs hand to the node: an SNA Error Log GDS variable wrapping the
// application's text in EBCDIC.
#pragma once

#include <cstdint>

#include "records.h"

// Largest log data an application may set, in bytes.
inline constexpr int32_t kMaxLogDataLength = 512;
// Bytes the GDS header adds in front of the log data.
inline constexpr uint16_t kLogDataHeaderLength = 8;

// Replaces the conversation's log data with `length` (1 to 512) bytes of
// `data`.  Returns CM_OK, or CM_PRODUCT_SPECIFIC_ERROR when no memory could
// be had, in which case the old log data stays.
CM_RETURN_CODE SCC_store_log_data(CCCB *cccb, const unsigned char *data, uint16_t length);

// Frees the conversation's log data, if any, and records that it has none.
void SCC_clear_log_data(CCCB *cccb);

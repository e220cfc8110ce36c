// FM header 7, error description: the sense data of Send_Error, Deallocate
// abend and allocation errors, optionally followed by an error-log GDS
// variable holding the program's log data.
#pragma once

#include "net/formats/byte_io.h"
#include "net/formats/result.h"

namespace snanode::net {

inline constexpr uint8_t kFmhTypeErrorDescription = 0x07;
inline constexpr size_t kFmh7Size = 7;

struct ErrorDescription {
  uint32_t sense = 0;
  bool log_data_follows = false;  // the next record is the error-log GDS
  bool operator==(const ErrorDescription &) const = default;
};

void encode_error_description(const ErrorDescription &fmh7, Bytes &out);
// Reads the 7-byte header from `in`; a header of another length is refused.
Result<ErrorDescription> decode_error_description(ByteReader &in);

// The error-log GDS variable that follows an FMH-7 with log data.
void append_error_log(ByteSpan log_data, Bytes &out);
Result<Bytes> read_error_log(ByteReader &in);

}  // namespace snanode::net

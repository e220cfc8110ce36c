#include "net/formats/fmh7.h"

#include "net/formats/gds.h"
#include "net/formats/sense_codes.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {

namespace {
constexpr uint8_t kLogDataFollows = 0x80;
}

void encode_error_description(const ErrorDescription &fmh7, Bytes &out) {
  ByteWriter w(out);
  w.u8(kFmh7Size);
  w.u8(kFmhTypeErrorDescription);
  w.u32(fmh7.sense);
  w.u8(fmh7.log_data_follows ? kLogDataFollows : 0);
}

Result<ErrorDescription> decode_error_description(ByteReader &in) {
  using R = Result<ErrorDescription>;
  if (in.peek() != kFmh7Size || in.remaining() < kFmh7Size)
    return R::refused(sense::kFmhLengthWrong);
  in.u8();
  if ((in.u8() & 0x7F) != kFmhTypeErrorDescription) return R::refused(sense::kFmhTypeNotSupported);
  ErrorDescription fmh7;
  fmh7.sense = in.u32();
  fmh7.log_data_follows = in.u8() & kLogDataFollows;
  return fmh7;
}

void append_error_log(ByteSpan log_data, Bytes &out) {
  append_gds(decision::kGdsIdErrorLog, log_data, out);
}

Result<Bytes> read_error_log(ByteReader &in) {
  Result<Record> record = read_gds(in);
  if (!record) return Result<Bytes>::refused(record.sense());
  if (record->id != decision::kGdsIdErrorLog) {
    return Result<Bytes>::refused(decision::kSenseRecordFraming);
  }
  return std::move(record->data);
}

}  // namespace snanode::net

// Request/response header: the 3 bytes after the TH that say what the RU is
// and what the sender expects back.
#pragma once

#include "net/formats/byte_io.h"
#include "net/formats/result.h"

namespace snanode::net {

inline constexpr size_t kRhSize = 3;

enum class RuCategory : uint8_t { kFmd = 0, kNc = 1, kDfc = 2, kSc = 3 };

// The response each request asks for, as LU 6.2 names the DR1/DR2/ERI forms.
enum class ResponseForm : uint8_t {
  kNone = 0x00,
  kRqd1 = 0x80,
  kRqe1 = 0x90,
  kRqd2 = 0x20,
  kRqe2 = 0x30,
  kRqd3 = 0xA0,
  kRqe3 = 0xB0,
};

struct Rh {
  bool response = false;  // RRI
  RuCategory category = RuCategory::kFmd;
  bool fi = false;   // FMD: RU starts with an FM header; DFC/SC: always set
  bool sdi = false;  // sense data included (negative responses)
  bool bci = true;   // begin chain
  bool eci = true;   // end chain
  bool dr1 = false;
  bool lcci = false;  // length-checked compression
  bool dr2 = false;
  bool eri = false;  // requests: exception response only
  bool rti = false;  // responses: negative
  bool rlwi = false;
  bool qri = false;
  bool pi = false;
  // Byte 2: requests only.
  bool bbi = false;
  bool ebi = false;
  bool cdi = false;
  bool csi = false;
  bool edi = false;
  bool pdi = false;
  bool cebi = false;

  ResponseForm form() const;
  void set_form(ResponseForm form);
  bool operator==(const Rh &) const = default;
};

void encode_rh(const Rh &rh, ByteWriter &out);
// Reserved bits are ignored; only a short header is refused here.
Result<Rh> decode_rh(ByteReader &in);

// The indicator rules that hold for any single request whatever the session's
// state: 0 when they hold, else the sense code of the −RSP that refuses it.
uint32_t check_request_indicators(const Rh &rh);

// The RH of the response to a request with `request`: same category and DR
// bits, FI as the request had it for SC/DFC, whole chain, negative when asked.
Rh response_rh(const Rh &request, bool negative);

}  // namespace snanode::net

// Every decoder of the network formats with the property checked on what it
// accepts: encoding the decoded value and decoding again gives the same value
// (a field the decoder accepts but the encoder cannot carry is a fault).  The
// mutation loop of the test suite and the libFuzzer target share it.
#pragma once

#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

#include "net/capture/pcap_writer.h"
#include "net/formats/bind.h"
#include "net/formats/biu.h"
#include "net/formats/cnos.h"
#include "net/formats/control_rus.h"
#include "net/formats/fmh5.h"
#include "net/formats/fmh7.h"
#include "net/formats/gds.h"
#include "net/formats/nlp.h"
#include "net/formats/pip.h"
#include "net/formats/thdr_segments.h"
#include "net/formats/xid3.h"

namespace snanode::net::fuzz {

// Encodes `value`; false when the encoder refused it.
template <class T, class Encode>
inline bool encodes(Encode encode, const T &value, Bytes &out) {
  if constexpr (std::is_void_v<decltype(encode(value, out))>) {
    encode(value, out);
    return true;
  } else {
    return encode(value, out).ok();
  }
}

// False when `decode` accepted `unit` but its value does not survive a round trip.
template <class Decode, class Encode>
inline bool stable(Decode decode, Encode encode, ByteSpan unit) {
  const auto decoded = decode(unit);
  if (!decoded) return true;
  Bytes again;
  if (!encodes(encode, decoded.value(), again)) return false;
  const auto redecoded = decode(again);
  return redecoded && redecoded.value() == decoded.value();
}

// A decoder that reads from a ByteReader, as one of a whole unit.
template <class T>
inline auto whole(Result<T> (*decode)(ByteReader &)) {
  return [decode](ByteSpan unit) {
    ByteReader in(unit);
    return decode(in);
  };
}

// Each returns false when the decoder accepted a unit that does not survive
// a round trip.
inline const std::vector<std::pair<const char *, std::function<bool(ByteSpan)>>> &decoders() {
  static const std::vector<std::pair<const char *, std::function<bool(ByteSpan)>>> all = {
      {"bind", [](ByteSpan b) { return stable(decode_bind, encode_bind, b); }},
      {"attach", [](ByteSpan b) { return stable(whole(decode_attach), encode_attach, b); }},
      {"fmh7",
       [](ByteSpan b) {
         ByteReader in(b);
         Result<ErrorDescription> fmh7 = decode_error_description(in);
         if (fmh7 && fmh7->log_data_follows) (void)read_error_log(in);
         return stable(whole(decode_error_description), encode_error_description, b);
       }},
      {"unbind", [](ByteSpan b) { return stable(decode_unbind, encode_unbind, b); }},
      {"control",
       [](ByteSpan b) {
         return stable(decode_signal, encode_signal, b) &&
                stable(decode_lustat, encode_lustat, b) && stable(decode_ipm, encode_ipm, b) &&
                stable(decode_negative_response, encode_negative_response, b);
       }},
      {"cnos", [](ByteSpan b) { return stable(decode_cnos, encode_cnos, b); }},
      {"biu",
       [](ByteSpan b) {
         Result<BiuView> biu = decode_biu(b);
         if (!biu) return true;
         (void)classify(biu.value());
         Bytes again;
         encode_biu(biu->th, biu->rh, biu->ru, again);
         Result<BiuView> re = decode_biu(again);
         return re && re->th == biu->th && re->rh == biu->rh &&
                std::equal(re->ru.begin(), re->ru.end(), biu->ru.begin(), biu->ru.end());
       }},
      {"nlp",
       [](ByteSpan b) {
         ByteReader in(b);
         if (!decode_llc(in)) return true;
         Result<NlpView> nlp = decode_nlp(in.rest());
         if (!nlp) return true;
         Bytes again;
         if (!encode_nlp(nlp->nhdr, nlp->thdr, nlp->data, again)) return false;
         Result<NlpView> re = decode_nlp(again);
         return re && re->nhdr == nlp->nhdr &&
                (nlp->nhdr.mode != SwitchingMode::kAnr || re->thdr == nlp->thdr) &&
                std::equal(re->data.begin(), re->data.end(), nlp->data.begin(), nlp->data.end());
       }},
      {"xid3", [](ByteSpan b) { return stable(decode_xid3, encode_xid3, b); }},
      {"segments",
       [](ByteSpan b) {
         Result<std::vector<OptionalSegment>> segments = split_segments(b);
         if (!segments) return true;
         Bytes again;
         size_t typed = 0;
         for (const OptionalSegment &segment : segments.value()) {
           // A typed decoder refuses, or gives what re-encodes to one segment.
           const size_t before = again.size();
           if (auto s = decode_status(segment)) append_status(s.value(), again);
           if (auto a = decode_arb(segment)) append_arb(a.value(), again);
           if (auto c = decode_connection_setup(segment)) append_connection_setup(c.value(), again);
           if (auto t = decode_connection_id(segment)) append_connection_id(t.value(), again);
           if (auto f = decode_connection_fault(segment)) append_connection_fault(f.value(), again);
           if (auto o = decode_client_bits(segment)) append_client_bits(o.value(), again);
           if (auto w = decode_switching_information(segment)) {
             if (!append_switching_information(w.value(), again)) return false;
           }
           typed += again.size() > before ? 1 : 0;
         }
         Result<std::vector<OptionalSegment>> re = split_segments(again);
         return re && re->size() == typed;
       }},
      {"records",
       [](ByteSpan b) {
         for (RecordFraming framing : {RecordFraming::kMapped, RecordFraming::kBasic}) {
           RecordAssembler assembler(framing);
           std::vector<Record> records;
           const size_t half = b.size() / 2;
           if (assembler.feed(b.first(half), records) == 0)
             (void)assembler.feed(b.subspan(half), records);
         }
         ByteReader in(b);
         (void)read_gds(in);
         ByteReader pip(b);
         (void)read_pip(pip);
         return true;
       }},
  };
  return all;
}

}  // namespace snanode::net::fuzz

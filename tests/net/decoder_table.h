// Every decoder of the network formats with the property checked on what it
// accepts: encoding the decoded value and decoding again gives the same value
// (a field the decoder accepts but the encoder cannot carry is a fault).  The
// mutation loop of the test suite and the libFuzzer target share it.
#pragma once

#include <functional>
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

template <class T, class Encode>
inline bool stable(const Result<T> &decoded, Encode encode,
                   std::function<Result<T>(ByteSpan)> decode) {
  if (!decoded) return true;
  Bytes again;
  if (!encode(decoded.value(), again)) return false;
  Result<T> redecoded = decode(again);
  return redecoded && redecoded.value() == decoded.value();
}

// Each returns false when the decoder accepted a unit that does not survive
// a round trip.
inline const std::vector<std::pair<const char *, std::function<bool(ByteSpan)>>> &decoders() {
  static const std::vector<std::pair<const char *, std::function<bool(ByteSpan)>>> all = {
      {"bind",
       [](ByteSpan b) {
         return stable<Bind>(
             decode_bind(b), [](const Bind &v, Bytes &o) { return encode_bind(v, o).ok(); },
             decode_bind);
       }},
      {"attach",
       [](ByteSpan b) {
         auto decode = [](ByteSpan s) {
           ByteReader in(s);
           return decode_attach(in);
         };
         return stable<Attach>(
             decode(b), [](const Attach &v, Bytes &o) { return encode_attach(v, o).ok(); }, decode);
       }},
      {"fmh7",
       [](ByteSpan b) {
         ByteReader in(b);
         Result<ErrorDescription> fmh7 = decode_error_description(in);
         if (fmh7 && fmh7->log_data_follows) (void)read_error_log(in);
         auto decode = [](ByteSpan s) {
           ByteReader r(s);
           return decode_error_description(r);
         };
         return stable<ErrorDescription>(
             fmh7,
             [](const ErrorDescription &v, Bytes &o) {
               encode_error_description(v, o);
               return true;
             },
             decode);
       }},
      {"unbind",
       [](ByteSpan b) {
         return stable<Unbind>(
             decode_unbind(b),
             [](const Unbind &v, Bytes &o) {
               encode_unbind(v, o);
               return true;
             },
             decode_unbind);
       }},
      {"control",
       [](ByteSpan b) {
         auto put = [](auto encode) {
           return [encode](const auto &v, Bytes &o) {
             encode(v, o);
             return true;
           };
         };
         return stable<Signal>(decode_signal(b), put(encode_signal), decode_signal) &&
                stable<Lustat>(decode_lustat(b), put(encode_lustat), decode_lustat) &&
                stable<Ipm>(decode_ipm(b), put(encode_ipm), decode_ipm) &&
                stable<NegativeResponse>(decode_negative_response(b), put(encode_negative_response),
                                         decode_negative_response);
       }},
      {"cnos",
       [](ByteSpan b) {
         return stable<Cnos>(
             decode_cnos(b), [](const Cnos &v, Bytes &o) { return encode_cnos(v, o).ok(); },
             decode_cnos);
       }},
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
      {"xid3",
       [](ByteSpan b) {
         return stable<Xid3>(
             decode_xid3(b), [](const Xid3 &v, Bytes &o) { return encode_xid3(v, o).ok(); },
             decode_xid3);
       }},
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

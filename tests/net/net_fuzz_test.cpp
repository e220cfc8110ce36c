// A bounded, deterministic mutation loop over every decoder: each golden unit
// cut at every length, extended, and with bytes overwritten, decoded from an
// allocation of exactly its size (so an over-read is an ASan report).  Whatever
// a decoder accepts must encode back to a unit that decodes the same: a field
// the decoder accepts but the encoder cannot carry is a fault too.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <sstream>

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
#include "net/golden_units.h"

namespace snanode::net {
namespace {

template <class T, class Encode>
bool stable(const Result<T> &decoded, Encode encode, std::function<Result<T>(ByteSpan)> decode) {
  if (!decoded) return true;
  Bytes again;
  if (!encode(decoded.value(), again)) return false;
  Result<T> redecoded = decode(again);
  return redecoded && redecoded.value() == decoded.value();
}

// Each returns false when the decoder accepted a unit that does not survive
// a round trip.
const std::vector<std::pair<const char *, std::function<bool(ByteSpan)>>> &decoders() {
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

TEST(NetFuzz, MutatedUnitsNeverCrashAndAcceptedOnesRoundTrip) {
  std::vector<const golden::Bytes *> seeds = {&golden::kBind,
                                              &golden::kAttachWithData,
                                              &golden::kAttachWithPassword,
                                              &golden::kFmh7Abend,
                                              &golden::kFmh7WithLog,
                                              &golden::kUnbindNormal,
                                              &golden::kSignalRequestToSend,
                                              &golden::kLustatNull,
                                              &golden::kIpmSolicited,
                                              &golden::kCnos,
                                              &golden::kDataDatagram,
                                              &golden::kChainFirst,
                                              &golden::kXid3,
                                              &golden::kPip,
                                              &golden::kSegments};
  // The segments of a connection setup, as the encoders build them.
  Bytes setup_segments;
  append_connection_setup(ConnectionSetup{}, setup_segments);
  SwitchingInformation switching;
  switching.nested_cvs = {0x0B, 0x0E, 0xF4, 0xD5, 0xC5, 0xE3, 0xC1, 0x4B, 0xC3, 0xD7, 0xC1};
  switching.return_route = {0x04, 0x85, 0x00, 0x00};
  ASSERT_TRUE(append_switching_information(switching, setup_segments));
  append_arb(Arb{}, setup_segments);
  append_connection_id({1, 2, 3, 4, 5, 6, 7, 8}, setup_segments);
  append_client_bits(0x0001, setup_segments);
  seeds.push_back(&setup_segments);
  std::mt19937 random(20261125);
  std::string error;
  auto capture = CaptureWriter::open("/dev/null", CaptureEndpoints{}, &error);
  ASSERT_TRUE(capture) << error;

  size_t inputs = 0, accepted_faults = 0;
  std::ostringstream first_fault;
  auto run = [&](const Bytes &mutant) {
    ++inputs;
    // An allocation of exactly the unit's size: reading one byte past it is caught.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[mutant.size() + (mutant.empty() ? 1 : 0)]);
    std::copy(mutant.begin(), mutant.end(), exact.get());
    const ByteSpan unit(exact.get(), mutant.size());
    for (const auto &[name, decode] : decoders()) {
      if (!decode(unit) && accepted_faults++ == 0) {
        first_fault << name << ":";
        for (uint8_t b : mutant) first_fault << ' ' << std::hex << int(b);
      }
    }
    std::span<uint8_t> writable(exact.get(), mutant.size());
    (void)blank_attach_password(writable, 0x40);
    (void)capture->write_datagram(CaptureDirection::kSent, 12002, unit);
  };

  for (const golden::Bytes *seed : seeds) {
    for (size_t size = 0; size <= seed->size(); ++size) {
      run(Bytes(seed->begin(), seed->begin() + static_cast<std::ptrdiff_t>(size)));
    }
    // Every value at every position: length bytes reach every boundary.
    for (size_t at = 0; at < seed->size(); ++at) {
      Bytes mutant = *seed;
      for (int value = 0; value < 256; ++value) {
        mutant[at] = static_cast<uint8_t>(value);
        run(mutant);
      }
    }
    for (int i = 0; i < 3000; ++i) {
      Bytes mutant = *seed;
      const int edits = 1 + static_cast<int>(random() % 3);
      for (int e = 0; e < edits && !mutant.empty(); ++e) {
        const size_t at = random() % mutant.size();
        switch (random() % 4) {
          case 0:
            mutant[at] ^= static_cast<uint8_t>(1u << (random() % 8));
            break;
          case 1:
            mutant[at] = static_cast<uint8_t>(random());
            break;
          case 2:
            mutant[at] = (random() % 2) ? 0x00 : 0xFF;
            break;
          default:
            mutant.resize(at);
            break;
        }
      }
      if (random() % 4 == 0) {
        for (int extra = 1 + static_cast<int>(random() % 8); extra > 0; --extra) {
          mutant.push_back(static_cast<uint8_t>(random()));
        }
      }
      run(mutant);
    }
  }
  EXPECT_GT(inputs, 150000u);
  EXPECT_EQ(accepted_faults, 0u) << "first: " << first_fault.str();
}

}  // namespace
}  // namespace snanode::net

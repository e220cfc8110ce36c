// A bounded, deterministic mutation loop over every decoder: each golden unit
// cut at every length, extended, and with bytes overwritten, decoded from an
// allocation of exactly its size (so an over-read is an ASan report).  Whatever
// a decoder accepts must encode back to a unit that decodes the same: a field
// the decoder accepts but the encoder cannot carry is a fault too.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <sstream>

#include "net/decoder_table.h"
#include "net/golden_units.h"

namespace snanode::net {
namespace {

using fuzz::decoders;

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

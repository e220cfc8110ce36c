// libFuzzer entry for every network decoder (built with -DCPIC_NET_LIBFUZZER=ON
// by clang; see tests/net/CMakeLists.txt).  A crash, a sanitizer report or an
// accepted unit that does not survive its round trip stops the run.
#include <cstdio>
#include <cstdlib>

#include "net/decoder_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const snanode::net::ByteSpan unit(data, size);
  for (const auto &[name, decode] : snanode::net::fuzz::decoders()) {
    if (!decode(unit)) {
      std::fprintf(stderr, "decoder %s accepted a unit that does not round-trip\n", name);
      std::abort();
    }
  }
  snanode::net::Bytes writable(data, data + size);
  (void)snanode::net::blank_attach_password(writable, 0x40);
  return 0;
}

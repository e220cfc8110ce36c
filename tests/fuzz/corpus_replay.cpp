// Replays a committed fuzz corpus through a fuzz target, so every run of the
// test suite checks the inputs that once broke something (and the seeds),
// with any compiler: `corpus_replay DIR...` runs each file once and fails
// only by crashing or aborting, as the target would under a fuzzer.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream in(entry.path(), std::ios::binary);
      const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                       std::istreambuf_iterator<char>());
      std::cout << entry.path().filename().string() << std::endl;
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++replayed;
    }
  }
  std::cout << replayed << " inputs replayed" << std::endl;
  return replayed == 0 ? 1 : 0;  // an empty corpus is a mistake, not a pass
}

// nba_mm_alloc / nba_mm_free: malloc with a header that remembers the block's
// size and class, so frees are accounted without the caller's help.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "core/failure_injection.h"
#include "core/memory_accounting.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

constexpr uint32_t kLiveMagic = 0x4D4D424Bu;  // "MMBK"
constexpr uint32_t kFreedMagic = 0xDEADB10Cu;

// 16 bytes, so the caller's block keeps malloc's alignment.
struct BlockHeader {
  uint64_t size;
  uint32_t mem_class;
  uint32_t magic;
};
static_assert(sizeof(BlockHeader) == 16);

struct Accounts {
  std::mutex mutex;
  std::map<uint32_t, MemoryUse> by_class;
};

Accounts &accounts() {
  static auto *instance = new Accounts;
  return *instance;
}

void account(uint32_t mem_class, uint64_t size, bool allocated) {
  Accounts &a = accounts();
  std::lock_guard<std::mutex> hold(a.mutex);
  MemoryUse &use = a.by_class[mem_class];
  if (allocated) {
    ++use.blocks;
    use.bytes += size;
  } else {
    --use.blocks;
    use.bytes -= size;
  }
}

}  // namespace

MemoryUse memory_in_use(uint32_t mem_class) {
  Accounts &a = accounts();
  std::lock_guard<std::mutex> hold(a.mutex);
  if (mem_class != 0) {
    auto it = a.by_class.find(mem_class);
    return it == a.by_class.end() ? MemoryUse{} : it->second;
  }
  MemoryUse total;
  for (const auto &[cls, use] : a.by_class) {
    total.blocks += use.blocks;
    total.bytes += use.bytes;
  }
  return total;
}

}  // namespace snanode

extern "C" {

const unsigned char nba_blank_name[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};

void *nba_mm_alloc(uint32_t size, uint32_t mem_class, const void *, uint32_t, uint32_t) {
  if (snanode::take_injected_failure(snanode::InjectedFailure::kAllocation)) return nullptr;
  auto *header =
      static_cast<snanode::BlockHeader *>(std::malloc(sizeof(snanode::BlockHeader) + size));
  if (header == nullptr) return nullptr;
  header->size = size;
  header->mem_class = mem_class;
  header->magic = snanode::kLiveMagic;
  snanode::account(mem_class, size, true);
  return header + 1;
}

// A block whose header is not live (never from nba_mm_alloc, or overwritten by
// its user) is reported and left alone rather than corrupting the heap.
void nba_mm_free(void *block, uint32_t) {
  if (block == nullptr) return;
  auto *header = static_cast<snanode::BlockHeader *>(block) - 1;
  if (header->magic != snanode::kLiveMagic) {
    v0_assert(__FILE__, __LINE__, "nba_mm_free of a block that is not in use");
    return;
  }
  header->magic = snanode::kFreedMagic;
  snanode::account(header->mem_class, header->size, false);
  std::free(header);
}

}  // extern "C"

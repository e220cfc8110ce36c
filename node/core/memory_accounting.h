// Accounting of the blocks handed out by nba_mm_alloc, per memory class, so
// tests can prove that every block a component takes is given back.
#pragma once

#include <cstdint>

namespace snanode {

struct MemoryUse {
  uint32_t blocks = 0;
  uint64_t bytes = 0;
};

// Blocks and bytes in use in `mem_class`, or in all classes for 0.
MemoryUse memory_in_use(uint32_t mem_class);

}  // namespace snanode

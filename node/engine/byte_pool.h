// Recycled buffers for large frame payloads.
//
// Streaming large records allocates and frees a buffer of the record's size
// for every frame on both sides.  Freed at the top of the heap, such a buffer
// goes back to the kernel, and the next one faults its pages in again; kept
// here instead, it is used again as it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace snanode::engine {

// Buffers smaller than this are left to the allocator.
inline constexpr size_t kPooledBufferSize = 8 * 1024;

// A buffer of `size` bytes (their values unspecified).
std::vector<uint8_t> take_buffer(size_t size);

// Hands a buffer back for reuse; small ones, or more than the pool keeps, are
// freed.  Any thread may call both.
void give_back_buffer(std::vector<uint8_t> &&buffer);

}  // namespace snanode::engine

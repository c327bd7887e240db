#pragma once

#include <cstddef>

// Storage for the framework's table blocks; all of it comes from the global operator new, so an
// agent's allocator (and its accounting) sees every byte. Large blocks (kLargeBlockBytes or
// more) are aligned to 2 MiB and, on Linux, advised for transparent huge pages: a look-up in a
// table of many megabytes then costs a cache miss without a page walk.
namespace Core {

inline constexpr size_t kLargeBlockBytes = size_t{2} << 20;

// A block of at least `bytes` aligned to `align`; throws std::bad_alloc when memory runs out.
void* blockAlloc(size_t bytes, size_t align);
// Frees a block from blockAlloc with the same `bytes` and `align`.
void blockFree(void* block, size_t bytes, size_t align) noexcept;

}  // namespace Core

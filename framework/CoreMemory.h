#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Storage for the framework's table blocks; all of it comes from the global operator new, so an
// agent's allocator (and its accounting) sees every byte. Large blocks (kLargeBlockBytes or
// more) are aligned to 2 MiB and, on Linux, advised for transparent huge pages: a look-up in a
// table of many megabytes then costs a cache miss without a page walk.
namespace Core {

class Node;

inline constexpr size_t kLargeBlockBytes = size_t{2} << 20;

// A block of at least `bytes` aligned to `align`; throws std::bad_alloc when memory runs out.
void* blockAlloc(size_t bytes, size_t align);
// Frees a block from blockAlloc with the same `bytes` and `align`.
void blockFree(void* block, size_t bytes, size_t align) noexcept;

// Memory accounting, for benchmarks and diagnostics. While it is on, the framework keeps the live
// bytes of every entity, by the entity's type name, and of every hash table block, by the
// table's key and member types (a table's smallest block, kept inside its owner, is part of the
// owner). Bytes are those asked of operator new, without the allocator's own overhead; strings,
// vectors and publisher lists inside entities are not attributed. Off (the default), an entity's
// allocation and a table's new block each cost one flag test. The bookkeeping itself takes its
// memory from malloc, outside operator new, so that it does not show in what it measures.
struct MemoryUse {
  std::string name;  // "entity TYPE" or "table KEY -> MEMBER"
  size_t count = 0;  // live entities, or live table blocks
  size_t bytes = 0;
};

// Turns accounting on or off; turning it off forgets everything counted so far.
void memoryAccountingIs(bool on);
// Live use by entity type and by table type, largest first. What was allocated while accounting
// was off is not in it.
std::vector<MemoryUse> memoryUse();

namespace detail {

inline std::atomic<bool> memoryAccountingOn{false};
inline bool memoryAccounting() { return memoryAccountingOn.load(std::memory_order_relaxed); }

// `types` is the compiler's name of a function templated on the table's key and member types.
void tableBlockAccount(std::string_view types, size_t bytes, bool allocated) noexcept;
void entityAllocated(const void* block, size_t bytes) noexcept;
void entityConstructed(const Node* node) noexcept;
void entityFreed(const void* block) noexcept;

}  // namespace detail

}  // namespace Core

#include "framework/CoreMemory.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>

#include "framework/Core.h"

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Core {

namespace {

bool isLarge(size_t bytes) { return bytes >= kLargeBlockBytes; }

std::align_val_t alignmentOf(size_t bytes, size_t align) {
  return std::align_val_t(isLarge(bytes) ? std::max(align, kLargeBlockBytes) : align);
}

}  // namespace

void* blockAlloc(size_t bytes, size_t align) {
  void* block = ::operator new(bytes, alignmentOf(bytes, align));
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  // Only advice: a kernel without transparent huge pages keeps small pages (as does the tail of
  // the block past its last whole huge page).
  if (isLarge(bytes)) madvise(block, bytes, MADV_HUGEPAGE);
#endif
  return block;
}

void blockFree(void* block, size_t bytes, size_t align) noexcept {
  if (!block) return;
    // Clang declares the sized forms only with -fsized-deallocation; the unsized aligned form
    // frees the same block.
#if defined(__cpp_sized_deallocation)
  ::operator delete(block, bytes, alignmentOf(bytes, align));
#else
  ::operator delete(block, alignmentOf(bytes, align));
#endif
}

}  // namespace Core

namespace Core {

namespace {

// The bookkeeping's own allocations bypass operator new.
template <class T>
struct MallocAllocator {
  using value_type = T;
  MallocAllocator() = default;
  template <class U>
  MallocAllocator(const MallocAllocator<U>&) noexcept {}
  T* allocate(size_t n) {
    if (void* p = std::malloc(n * sizeof(T))) return static_cast<T*>(p);
    throw std::bad_alloc();
  }
  void deallocate(T* p, size_t) noexcept { std::free(p); }
  template <class U>
  bool operator==(const MallocAllocator<U>&) const noexcept {
    return true;
  }
};

template <class K, class V>
using MallocMap = std::unordered_map<K, V, std::hash<K>, std::equal_to<K>,
                                     MallocAllocator<std::pair<const K, V>>>;

struct EntityBlock {
  size_t bytes = 0;
  // Set when the entity's Node starts the block, so that the block can be read as one.
  bool typed = false;
};

struct TableUse {
  std::string_view types;
  size_t blocks = 0;
  size_t bytes = 0;
};

struct Accounts {
  std::mutex mutex;
  MallocMap<const void*, EntityBlock> entities;
  // By the address of the table types' name: one entry per instantiation.
  MallocMap<const char*, TableUse> tables;
};

// Never destroyed: entities may still be freed while static objects are destroyed.
Accounts& accounts() {
  static Accounts* a = new (std::malloc(sizeof(Accounts))) Accounts;
  return *a;
}

// "... [with Key = K; Slot = M; ...]" (GCC) or "... [Key = K, Slot = M]" (clang): "K -> M".
std::string tableName(std::string_view types) {
  const size_t key = types.find("Key = ");
  const size_t slot = types.find("Slot = ");
  if (key == std::string_view::npos || slot == std::string_view::npos || slot < key)
    return std::string(types);
  std::string_view k = types.substr(key + 6, slot - key - 6);
  while (!k.empty() && (k.back() == ' ' || k.back() == ';' || k.back() == ',')) k.remove_suffix(1);
  std::string_view m = types.substr(slot + 7);
  const size_t end = m.find_first_of(";]");
  return std::string(k) + " -> " + std::string(m.substr(0, end));
}

}  // namespace

void memoryAccountingIs(bool on) {
  Accounts& a = accounts();
  std::lock_guard lock(a.mutex);
  detail::memoryAccountingOn.store(on, std::memory_order_relaxed);
  if (!on) {
    a.entities.clear();
    a.tables.clear();
  }
}

std::vector<MemoryUse> memoryUse() {
  Accounts& a = accounts();
  std::lock_guard lock(a.mutex);
  std::map<std::string, MemoryUse> byName;
  for (const auto& [block, entity] : a.entities) {
    std::string name = entity.typed
                           ? "entity " + std::string(static_cast<const Node*>(block)->typeName())
                           : std::string("entity (not at the start of its block)");
    MemoryUse& use = byName[name];
    use.name = name;
    ++use.count;
    use.bytes += entity.bytes;
  }
  for (const auto& [key, table] : a.tables) {
    if (table.blocks == 0) continue;
    const std::string name = "table " + tableName(table.types);
    MemoryUse& use = byName[name];
    use.name = name;
    use.count += table.blocks;
    use.bytes += table.bytes;
  }
  std::vector<MemoryUse> out;
  for (auto& [name, use] : byName) out.push_back(std::move(use));
  std::stable_sort(out.begin(), out.end(),
                   [](const MemoryUse& x, const MemoryUse& y) { return x.bytes > y.bytes; });
  return out;
}

namespace detail {

void tableBlockAccount(std::string_view types, size_t bytes, bool allocated) noexcept {
  Accounts& a = accounts();
  std::lock_guard lock(a.mutex);
  if (!memoryAccounting()) return;
  try {
    TableUse& use = a.tables[types.data()];
    use.types = types;
    if (allocated) {
      ++use.blocks;
      use.bytes += bytes;
    } else if (use.blocks != 0) {
      // A block from before accounting started is not subtracted.
      --use.blocks;
      use.bytes -= std::min(use.bytes, bytes);
    }
  } catch (const std::bad_alloc&) {
    // Accounting is best effort: the allocation it describes succeeded.
  }
}

void entityAllocated(const void* block, size_t bytes) noexcept {
  Accounts& a = accounts();
  std::lock_guard lock(a.mutex);
  if (!memoryAccounting()) return;
  try {
    a.entities[block] = EntityBlock{bytes, false};
  } catch (const std::bad_alloc&) {
  }
}

void entityConstructed(const Node* node) noexcept {
  Accounts& a = accounts();
  std::lock_guard lock(a.mutex);
  auto it = a.entities.find(node);
  if (it != a.entities.end()) it->second.typed = true;
}

void entityFreed(const void* block) noexcept {
  Accounts& a = accounts();
  std::lock_guard lock(a.mutex);
  a.entities.erase(block);
}

}  // namespace detail

}  // namespace Core

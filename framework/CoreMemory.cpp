#include "framework/CoreMemory.h"

#include <algorithm>
#include <new>

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

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "framework/CoreMemory.h"
#include "framework/CoreTable.h"

namespace {

uintptr_t addressOf(const void* p) { return reinterpret_cast<uintptr_t>(p); }

TEST(CoreMemory, LargeBlocksStartOnAHugePage) {
  const size_t bytes = Core::kLargeBlockBytes + 12345;
  void* block = Core::blockAlloc(bytes, 8);
  EXPECT_EQ(addressOf(block) % Core::kLargeBlockBytes, 0u);
  // The whole block is usable.
  std::memset(block, 0x5a, bytes);
  EXPECT_EQ(static_cast<unsigned char*>(block)[bytes - 1], 0x5a);
  Core::blockFree(block, bytes, 8);
}

TEST(CoreMemory, SmallBlocksKeepTheAlignmentAskedFor) {
  for (size_t align : {size_t{1}, size_t{8}, size_t{64}, size_t{4096}}) {
    void* block = Core::blockAlloc(40, align);
    EXPECT_EQ(addressOf(block) % align, 0u) << "alignment " << align;
    std::memset(block, 0, 40);
    Core::blockFree(block, 40, align);
  }
}

TEST(CoreMemory, FreeingNullIsHarmless) { Core::blockFree(nullptr, 100, 8); }

struct Identity {
  uint64_t operator()(uint64_t v) const { return v; }
};

TEST(CoreMemory, TableGrowingPastTheLargeBlockSizeKeepsEveryMember) {
  // 2^18 members of 8 bytes take a block of several megabytes.
  Core::HashTable<uint64_t, uint64_t, Identity> table;
  constexpr uint64_t kCount = uint64_t{1} << 18;
  for (uint64_t i = 0; i < kCount; ++i) table.emplaceNew(i * 7919);
  EXPECT_GE(table.capacity() * (sizeof(uint64_t) + 1), Core::kLargeBlockBytes);
  for (uint64_t i = 0; i < kCount; ++i) ASSERT_NE(table.find(i * 7919), nullptr) << i;
  EXPECT_EQ(table.find(1), nullptr);
}

}  // namespace

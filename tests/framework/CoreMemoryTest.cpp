#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Core.h"
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

struct Widget : Core::Node {
  std::string_view typeName() const override { return "Widget"; }
  uint64_t payload[5] = {};
};

// Turns accounting on for one test and off (forgetting it) afterwards, also when the test fails.
struct AccountingScope {
  AccountingScope() { Core::memoryAccountingIs(true); }
  ~AccountingScope() { Core::memoryAccountingIs(false); }
};

// A copy of the entry named `name` in what memoryUse() reports now, if there is one.
std::optional<Core::MemoryUse> useNamed(std::string_view name) {
  const std::vector<Core::MemoryUse> uses = Core::memoryUse();
  auto it = std::find_if(uses.begin(), uses.end(),
                         [&](const Core::MemoryUse& u) { return u.name == name; });
  if (it == uses.end()) return std::nullopt;
  return *it;
}

TEST(CoreMemory, AccountingCountsLiveEntitiesByTypeName) {
  AccountingScope scope;
  auto a = Core::makePtr<Widget>();
  auto b = Core::makePtr<Widget>();
  std::optional<Core::MemoryUse> use = useNamed("entity Widget");
  ASSERT_TRUE(use.has_value());
  EXPECT_EQ(use->count, 2u);
  EXPECT_EQ(use->bytes, 2 * sizeof(Widget));
  b = nullptr;
  use = useNamed("entity Widget");
  ASSERT_TRUE(use.has_value());
  EXPECT_EQ(use->count, 1u);
  EXPECT_EQ(use->bytes, sizeof(Widget));
}

TEST(CoreMemory, AccountingCountsTableBlocksByKeyAndMemberTypes) {
  AccountingScope scope;
  Core::HashTable<uint64_t, uint64_t, Identity> table;
  for (uint64_t i = 0; i < 100; ++i) table.emplaceNew(i);
  auto tableUse = [] {
    for (const Core::MemoryUse& u : Core::memoryUse()) {
      if (u.name.starts_with("table ") && u.name.find("long") != std::string::npos) return u;
    }
    return Core::MemoryUse{};
  };
  // One live block (the older, smaller ones were freed as the table grew): the members and a
  // control byte each.
  EXPECT_EQ(tableUse().count, 1u);
  EXPECT_EQ(tableUse().bytes, table.capacity() * (sizeof(uint64_t) + 1));
  table.clear();
  EXPECT_EQ(tableUse().bytes, 0u);
}

TEST(CoreMemory, AccountingOffCountsNothing) {
  auto a = Core::makePtr<Widget>();
  Core::HashTable<uint64_t, uint64_t, Identity> table;
  for (uint64_t i = 0; i < 100; ++i) table.emplaceNew(i);
  EXPECT_TRUE(Core::memoryUse().empty());
}

TEST(CoreMemory, EntitiesFromBeforeAccountingAreNotCounted) {
  auto before = Core::makePtr<Widget>();
  AccountingScope scope;
  auto during = Core::makePtr<Widget>();
  before = nullptr;
  std::optional<Core::MemoryUse> use = useNamed("entity Widget");
  ASSERT_TRUE(use.has_value());
  EXPECT_EQ(use->count, 1u);
}

}  // namespace

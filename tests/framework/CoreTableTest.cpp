#include <gtest/gtest.h>

#include <cstdint>

#include "framework/CoreTable.h"

namespace {

struct Identity {
  uint64_t operator()(uint64_t v) const { return v; }
};
using SmallTable = Core::HashTable<uint64_t, uint64_t, Identity>;

TEST(HashTable, OneMemberComingAndGoingKeepsTheSmallestSize) {
  SmallTable table;
  for (uint64_t k = 1; k <= 1000; ++k) {
    ASSERT_NE(table.emplaceNew(k), nullptr);
    ASSERT_NE(table.find(k), nullptr);
    table.erase(table.find(k));
    ASSERT_EQ(table.find(k), nullptr);
  }
  EXPECT_EQ(table.capacity(), 2u);
  EXPECT_TRUE(table.empty());
}

TEST(HashTable, GrowingOutOfTheSmallestSizeAndBackKeepsMembers) {
  SmallTable table;
  table.emplaceNew(7);
  for (uint64_t k = 100; k < 200; ++k) table.emplaceNew(k);
  EXPECT_GT(table.capacity(), 2u);
  EXPECT_NE(table.find(7), nullptr);
  for (uint64_t k = 100; k < 200; ++k) table.erase(table.find(k));
  table.erase(table.find(7));
  // Churn through a table of deleted positions, which rebuilds it (possibly to its smallest size).
  for (uint64_t k = 0; k < 50; ++k) {
    table.emplaceNew(k);
    table.erase(table.find(k));
  }
  table.emplaceNew(42);
  ASSERT_NE(table.find(42), nullptr);
  EXPECT_EQ(table.size(), 1u);
}

TEST(HashTable, ClearingAnInlineTableAllowsReuse) {
  SmallTable table;
  table.emplaceNew(1);
  table.clear();
  EXPECT_EQ(table.find(1), nullptr);
  table.emplaceNew(2);
  table.emplaceNew(3);
  EXPECT_NE(table.find(2), nullptr);
  EXPECT_NE(table.find(3), nullptr);
}

}  // namespace

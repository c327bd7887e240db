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

// A large table is sized to be at most two thirds full, with capacities between the powers of
// two: 4,096 members take 6,144 positions instead of 8,192.
TEST(HashTable, LargeTableIsFilledToTwoThirdsAtMost) {
  SmallTable table;
  for (uint64_t k = 0; k < 4096; ++k) table.emplaceNew(k * 7919);
  EXPECT_EQ(table.capacity(), 6144u);
  for (uint64_t k = 0; k < 4096; ++k) ASSERT_NE(table.find(k * 7919), nullptr) << k;
  EXPECT_EQ(table.find(1), nullptr);
  for (uint64_t k = 4096; k < 4609; ++k) table.emplaceNew(k * 7919);
  EXPECT_EQ(table.capacity(), 8192u);
  for (uint64_t k = 0; k < 4609; ++k) ASSERT_NE(table.find(k * 7919), nullptr) << k;
}

// Small tables keep powers of two, as their layouts (and so the order of dumps) always had.
TEST(HashTable, SmallTableGrowsByPowersOfTwo) {
  SmallTable table;
  for (uint64_t k = 0; k < 1536; ++k) table.emplaceNew(k);
  EXPECT_EQ(table.capacity(), 2048u);
  table.emplaceNew(1536);
  EXPECT_EQ(table.capacity(), 4096u);
}

// Churn through a table whose capacity is not a power of two: probes and the clean-up of deleted
// positions wrap around its end, and every member stays reachable and iterable.
TEST(HashTable, ChurnInAThreeHalvesTableKeepsEveryMemberReachable) {
  SmallTable table;
  for (uint64_t k = 0; k < 3800; ++k) table.emplaceNew(k);
  ASSERT_EQ(table.capacity(), 6144u);
  uint64_t low = 0;
  for (uint64_t k = 3800; k < 40000; ++k) {
    table.erase(table.find(low++));
    table.emplaceNew(k);
    ASSERT_EQ(table.capacity(), 6144u);
  }
  for (uint64_t k = 0; k < low; ++k) ASSERT_EQ(table.find(k), nullptr) << k;
  for (uint64_t k = low; k < 40000; ++k) ASSERT_NE(table.find(k), nullptr) << k;
  size_t members = 0;
  for (size_t i = table.nextOccupied(0); i < table.capacity(); i = table.nextOccupied(i + 1)) {
    ASSERT_GE(table.at(i), low);
    ++members;
  }
  EXPECT_EQ(members, table.size());
  EXPECT_EQ(table.size(), 3800u);
}

}  // namespace

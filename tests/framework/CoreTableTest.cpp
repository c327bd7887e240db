#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <utility>
#include <vector>

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

// A key whose hash the test chooses, so that probes run long.
struct ChosenHashKey {
  uint64_t id;
  uint32_t h;
  uint32_t hash(uint32_t) const { return h; }
  friend bool operator==(const ChosenHashKey&, const ChosenHashKey&) = default;
};
struct KeyOfChosen {
  const ChosenHashKey& operator()(const ChosenHashKey& k) const { return k; }
};
using ChosenTable = Core::HashTable<ChosenHashKey, ChosenHashKey, KeyOfChosen>;

// Same home and same tag for every key: a probe compares each of them in turn.
TEST(HashTable, KeysSharingHomeAndTagAreEachFound) {
  ChosenTable table;
  for (uint64_t id = 0; id < 40; ++id) table.emplaceNew(ChosenHashKey{id, 5});
  ASSERT_GE(table.capacity(), 64u);
  for (uint64_t id = 0; id < 40; ++id) {
    const ChosenHashKey* found = table.find(ChosenHashKey{id, 5});
    ASSERT_NE(found, nullptr) << id;
    EXPECT_EQ(found->id, id);
  }
  EXPECT_EQ(table.find(ChosenHashKey{40, 5}), nullptr);
}

// A hit probes past deleted positions and a miss ends at its chain's first empty position, even
// where a key with the same tag sits further on; a new key takes its chain's first deleted
// position.
TEST(HashTable, ProbesPassDeletedPositionsAndEndAtTheFirstEmpty) {
  ChosenTable table;
  for (uint64_t id = 0; id < 20; ++id) table.emplaceNew(ChosenHashKey{id, 3});
  ASSERT_EQ(table.capacity(), 32u);
  // Same tag as the chain (positions 3 to 22), home two positions past its end.
  table.emplaceNew(ChosenHashKey{100, 25});
  const ChosenHashKey last = table.at(22);
  std::vector<ChosenHashKey> erased;
  for (size_t i = 5; i <= 20; ++i) {
    erased.push_back(table.at(i));
    table.erase(&table.at(i));
  }
  ASSERT_EQ(table.capacity(), 32u);
  EXPECT_EQ(table.find(last), &table.at(22));
  EXPECT_EQ(table.find(ChosenHashKey{100, 25}), &table.at(25));
  EXPECT_EQ(table.find(ChosenHashKey{100, 3}), nullptr);
  for (const ChosenHashKey& key : erased) EXPECT_EQ(table.find(key), nullptr) << key.id;
  const ChosenHashKey* inserted = table.emplaceNew(ChosenHashKey{200, 3});
  EXPECT_EQ(inserted, &table.at(5));
  EXPECT_EQ(table.find(ChosenHashKey{200, 3}), inserted);
}

// A chain starting near the end of the table wraps around to its start: probes and inserts go on
// from position zero, with tags of every kind.
TEST(HashTable, ChainWrappingAroundTheEndIsFoundWithEveryTag) {
  ChosenTable table;
  for (uint64_t id = 0; id < 50; ++id) table.emplaceNew(ChosenHashKey{id, uint32_t(id)});
  const uint32_t capacity = static_cast<uint32_t>(table.capacity());
  ASSERT_EQ(capacity, 128u);
  std::vector<ChosenHashKey> wrapped;
  for (uint32_t k = 0; k < 30; ++k) {
    // Home three positions before the end; the tag is the hash's top seven bits.
    wrapped.push_back(ChosenHashKey{1000 + k, (capacity - 3) | (k << 25)});
    table.emplaceNew(wrapped.back());
  }
  ASSERT_EQ(table.capacity(), capacity);
  for (const ChosenHashKey& key : wrapped) EXPECT_NE(table.find(key), nullptr) << key.id;
  // The fourth wrapped key is the first past the end: it follows the members at 0 to 49.
  EXPECT_EQ(table.find(wrapped[3]), &table.at(50));
  for (uint64_t id = 0; id < 50; ++id) {
    EXPECT_NE(table.find(ChosenHashKey{id, uint32_t(id)}), nullptr) << id;
  }
  EXPECT_EQ(table.find(ChosenHashKey{999, capacity - 3}), nullptr);
  EXPECT_EQ(table.find(ChosenHashKey{999, 0}), nullptr);
}

// Random inserts and erases of the keys 0 to ids - 1, checked against a model after every step
// and, every `checkEvery` steps, by a look-up of every key.
template <class KeyOfId>
void churnAgainstModel(KeyOfId keyOf, uint64_t ids, int steps, int checkEvery) {
  ChosenTable table;
  std::map<uint64_t, ChosenHashKey> model;
  std::mt19937 rng(11);
  for (int step = 0; step < steps; ++step) {
    const uint64_t id = rng() % ids;
    const ChosenHashKey key = keyOf(id);
    if (ChosenHashKey* present = table.find(key)) {
      ASSERT_TRUE(model.count(id)) << step;
      ASSERT_EQ(present->id, id);
      table.erase(present);
      model.erase(id);
    } else {
      ASSERT_FALSE(model.count(id)) << step;
      table.emplaceNew(key);
      model.emplace(id, key);
    }
    ASSERT_EQ(table.size(), model.size());
    if (step % checkEvery != 0) continue;
    for (uint64_t other = 0; other < ids; ++other) {
      const ChosenHashKey* found = table.find(keyOf(other));
      ASSERT_EQ(found != nullptr, model.count(other) == 1) << step << " " << other;
      if (found) {
        ASSERT_EQ(found->id, other);
      }
    }
  }
}

// Keys crowded onto few homes with few tags: probes cross groups of positions, the end of the
// table, deleted positions and false tag matches, through every size the table grows to.
TEST(HashTable, CrowdedKeysUnderRandomChurnAreFoundExactlyWhilePresent) {
  churnAgainstModel(
      [](uint64_t id) {
        // Homes spread over 0 to 300 (so over the end of the smaller sizes), tags 0 to 3.
        const auto h = static_cast<uint32_t>((id * 7919) % 301 | ((id % 4) << 25));
        return ChosenHashKey{id, h};
      },
      600, 20000, 97);
}

// Keys spread over a large table (about 5,000 members in 8,192 positions) under churn: probes
// of every short length run through deleted positions and groups of positions, and the table
// rebuilds as deleted positions pile up.
TEST(HashTable, SpreadKeysUnderRandomChurnInALargeTableAreFoundExactlyWhilePresent) {
  churnAgainstModel(
      [](uint64_t id) {
        const auto spread = static_cast<uint32_t>(id * 2654435761u) & ((1u << 25) - 1);
        return ChosenHashKey{id, spread | static_cast<uint32_t>(id % 4) << 25};
      },
      10000, 100000, 9973);
}

// The table at the level of positions: where each member sits, where deleted positions are, and
// when a rebuild runs, by the rules the table documents (a new member at its chain's first free
// position; an erased one leaves a deleted position unless the next position is empty; a rebuild
// moves the members in position order into an empty block). Layouts decide iteration orders,
// and so dumps and traces: the table must place every member exactly where the model does.
class PositionModel {
 public:
  // After the table inserted `key` and now has `capacity` positions.
  void inserted(const ChosenHashKey& key, size_t capacity) {
    if ((size_ + tombstones_ + 1) * 4 > capacity_ * 3) {
      rebuilt_ = true;
      rebuild(capacity);
    }
    place(key);
  }
  void erased(const ChosenHashKey& key) {
    size_t i = 0;
    while (state_[i] != kMember || members_[i] != key) ++i;
    --size_;
    if (state_[next(i)] != kEmpty) {
      state_[i] = kDeleted;
      ++tombstones_;
      return;
    }
    state_[i] = kEmpty;
    for (size_t j = previous(i); state_[j] == kDeleted; j = previous(j)) {
      state_[j] = kEmpty;
      --tombstones_;
    }
  }
  // Members in position order, with their positions.
  std::vector<std::pair<size_t, ChosenHashKey>> layout() const {
    std::vector<std::pair<size_t, ChosenHashKey>> out;
    for (size_t i = 0; i < capacity_; ++i) {
      if (state_[i] == kMember) out.emplace_back(i, members_[i]);
    }
    return out;
  }
  // Whether a rebuild ran since the last call.
  bool takeRebuilt() { return std::exchange(rebuilt_, false); }

 private:
  enum State : uint8_t { kEmpty, kDeleted, kMember };

  size_t home(uint32_t h) const {
    if ((capacity_ & (capacity_ - 1)) == 0) return h & (capacity_ - 1);
    return static_cast<size_t>((uint64_t{h & ((1u << 25) - 1)} * capacity_) >> 25);
  }
  size_t next(size_t i) const { return i + 1 == capacity_ ? 0 : i + 1; }
  size_t previous(size_t i) const { return (i == 0 ? capacity_ : i) - 1; }
  void place(const ChosenHashKey& key) {
    size_t i = home(key.h);
    while (state_[i] == kMember) i = next(i);
    if (state_[i] == kDeleted) --tombstones_;
    state_[i] = kMember;
    members_[i] = key;
    ++size_;
  }
  void rebuild(size_t capacity) {
    const std::vector<std::pair<size_t, ChosenHashKey>> old = layout();
    capacity_ = capacity;
    state_.assign(capacity, kEmpty);
    members_.assign(capacity, ChosenHashKey{});
    size_ = 0;
    tombstones_ = 0;
    for (const auto& [position, key] : old) place(key);
  }

  size_t capacity_ = 0;
  size_t size_ = 0;
  size_t tombstones_ = 0;
  std::vector<State> state_;
  std::vector<ChosenHashKey> members_;
  bool rebuilt_ = false;
};

std::vector<std::pair<size_t, ChosenHashKey>> layoutOf(const ChosenTable& table) {
  std::vector<std::pair<size_t, ChosenHashKey>> out;
  for (size_t i = table.nextOccupied(0); i < table.capacity(); i = table.nextOccupied(i + 1)) {
    out.emplace_back(i, table.at(i));
  }
  return out;
}

// One key in eight crowded onto the last positions of every size, so that a run of members
// wraps around the end of the table; the others spread.
bool crowded(uint64_t id) { return id % 8 == 1; }
ChosenHashKey wrappingKey(uint64_t id) {
  const uint32_t tag = static_cast<uint32_t>(id % 4) << 25;
  if (!crowded(id)) {
    return ChosenHashKey{id, (static_cast<uint32_t>(id * 2654435761u) & ((1u << 25) - 1)) | tag};
  }
  return ChosenHashKey{id, ((1u << 25) - 1 - static_cast<uint32_t>(id % 6)) | tag};
}

// Keeps `members` of the keys 0 to ids - 1 in the table while replacing a random one per step,
// and checks the table's layout against the model after every rebuild and every `checkEvery`
// steps. Phases of 500 steps alternate between replacing crowded keys by spread ones and the
// reverse: removals inside the crowded run leave deleted positions that spread insertions do
// not reuse, so they pile up until the table rebuilds. Returns the number of rebuilds.
size_t churnLayoutAgainstModel(uint64_t ids, size_t members, int steps, int checkEvery) {
  ChosenTable table;
  PositionModel model;
  // pools[crowded][present]
  std::vector<uint64_t> pools[2][2];
  for (uint64_t id = 0; id < ids; ++id) pools[crowded(id)][id < members].push_back(id);
  for (uint64_t id = 0; id < members; ++id) {
    table.emplaceNew(wrappingKey(id));
    model.inserted(wrappingKey(id), table.capacity());
  }
  // Growing rebuilds move members into a new block: the model's rule.
  EXPECT_EQ(layoutOf(table), model.layout());
  model.takeRebuilt();
  const size_t capacity = table.capacity();
  size_t rebuilds = 0;
  std::mt19937 rng(5);
  // Moves a random member of `from` to `to`, and returns it.
  auto take = [&rng](std::vector<uint64_t>& from, std::vector<uint64_t>& to) {
    std::swap(from[rng() % from.size()], from.back());
    const uint64_t id = from.back();
    from.pop_back();
    to.push_back(id);
    return id;
  };
  for (int step = 0; step < steps; ++step) {
    const bool outCrowded = step / 500 % 2 == 0;
    std::vector<uint64_t>(&outPools)[2] = pools[outCrowded];
    std::vector<uint64_t>(&inPools)[2] = pools[!outCrowded];
    if (outPools[1].empty() || inPools[0].empty()) continue;
    const ChosenHashKey out = wrappingKey(take(outPools[1], outPools[0]));
    const ChosenHashKey in = wrappingKey(take(inPools[0], inPools[1]));
    table.erase(table.find(out));
    model.erased(out);
    table.emplaceNew(in);
    model.inserted(in, table.capacity());
    EXPECT_EQ(table.capacity(), capacity);
    const bool rebuilt = model.takeRebuilt();
    rebuilds += rebuilt;
    if (!rebuilt && step % checkEvery != 0) continue;
    if (layoutOf(table) != model.layout()) {
      ADD_FAILURE() << "layouts differ after step " << step << (rebuilt ? ", a rebuild" : "");
      break;
    }
  }
  return rebuilds;
}

// Under churn at a constant size, with deleted positions piling up until the table rebuilds,
// every member sits where the position model puts it: small tables (powers of two) and large
// ones (three halves of one), with a run of members across the end of the table.
TEST(HashTable, LayoutUnderChurnAndRebuildsFollowsThePositionRules) {
  EXPECT_GE(churnLayoutAgainstModel(600, 63, 20000, 1), 10u);
  EXPECT_GE(churnLayoutAgainstModel(1000, 127, 20000, 1), 10u);
  EXPECT_GE(churnLayoutAgainstModel(9000, 3855, 20000, 997), 5u);
}

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "framework/CoreCollection.h"
#include "framework/CoreReactor.h"
#include "support/ChangeRecorder.h"

namespace {

using Core::AttrId;
using Core::Ptr;

// A test entity with one collection of each kind.
struct Box : Core::Node {
  static constexpr AttrId keysAttr = 1;
  static constexpr AttrId mapAttr = 2;
  Core::KeySet<uint32_t> keys{this, keysAttr};
  Core::Map<uint32_t, std::string> map{this, mapAttr};
};

using KeysRecorder = TestSupport::ChangeRecorder<uint32_t, uint32_t>;
using MapRecorder = TestSupport::ChangeRecorder<uint32_t, Core::MapEntry<uint32_t, std::string>>;

TEST(Collection, EqualInsertPublishesNothing) {
  auto box = Core::makePtr<Box>();
  MapRecorder rec(*box, Box::mapAttr);
  EXPECT_TRUE(box->map.set({1, "a"}));
  EXPECT_FALSE(box->map.set({1, "a"}));
  EXPECT_TRUE(box->map.set({1, "b"}));
  ASSERT_EQ(rec.changes.size(), 2u);
  EXPECT_FALSE(rec.changes[0].oldValue);
  EXPECT_TRUE(rec.changes[1].oldValue && rec.changes[1].newValue);
  EXPECT_EQ(box->map.find(1)->value, "b");
}

// A collection is its owner, its table and its attribute id, and the id sits in the padding at
// the end of the table: every entity pays for a collection attribute by the pointer and the table.
TEST(Collection, AttributeIdTakesNoRoomOfItsOwn) {
  using Inline = Core::KeySet<uint32_t>;
  using OnHeap = Core::Map<uint32_t, std::string>;
  EXPECT_EQ(sizeof(Inline),
            sizeof(void*) + sizeof(Core::HashTable<uint32_t, uint32_t, Core::KeyIdentity>));
  EXPECT_EQ(
      sizeof(OnHeap),
      sizeof(void*) +
          sizeof(
              Core::HashTable<uint32_t, Core::MapEntry<uint32_t, std::string>, Core::KeyOfEntry>));
}

// Growing, emptying and refilling the table leaves the attribute id beside it as it was: every
// change still publishes under its own attribute.
TEST(Collection, ChangesKeepPublishingUnderTheirAttributeWhileTheTableGrows) {
  auto box = Core::makePtr<Box>();
  KeysRecorder keys(*box, Box::keysAttr);
  MapRecorder map(*box, Box::mapAttr);
  for (uint32_t i = 0; i < 100; ++i) {
    box->keys.set(i);
    box->map.set({i, std::to_string(i)});
  }
  box->keys.delAll();
  box->map.del(3);
  box->keys.set(7);
  EXPECT_EQ(keys.changes.size(), 201u);
  EXPECT_EQ(map.changes.size(), 101u);
  EXPECT_TRUE(box->keys.has(7));
  EXPECT_EQ(box->map.size(), 99u);
}

TEST(Collection, DeleteOfAbsentKeyPublishesNothing) {
  auto box = Core::makePtr<Box>();
  KeysRecorder rec(*box, Box::keysAttr);
  EXPECT_FALSE(box->keys.del(7));
  EXPECT_TRUE(rec.changes.empty());
}

TEST(Collection, DeleteAllWithSubscriberPublishesOncePerKey) {
  auto box = Core::makePtr<Box>();
  for (uint32_t i = 0; i < 50; ++i) box->map.set({i, std::to_string(i)});
  MapRecorder rec(*box, Box::mapAttr);
  box->map.delAll();
  EXPECT_TRUE(box->map.empty());
  ASSERT_EQ(rec.changes.size(), 50u);
  std::set<uint32_t> keys;
  for (auto& e : rec.changes) {
    keys.insert(e.key);
    EXPECT_TRUE(e.oldValue);
    EXPECT_FALSE(e.newValue);
  }
  EXPECT_EQ(keys.size(), 50u);
}

TEST(Collection, DeleteAllWhileAHandlerInsertsEndsEmpty) {
  auto box = Core::makePtr<Box>();
  for (uint32_t i = 0; i < 50; ++i) box->keys.set(i);
  KeysRecorder rec(*box, Box::keysAttr);
  // Deleting one of the first ten keys inserts a replacement, growing the table under the walk.
  rec.onChange = [&](const uint32_t& key) {
    if (key < 10 && !box->keys.has(key)) box->keys.set(1000 + key);
  };
  box->keys.delAll();
  EXPECT_TRUE(box->keys.empty());
  std::multiset<uint32_t> deleted;
  size_t inserted = 0;
  for (auto& e : rec.changes) {
    if (e.key >= 1000) ++inserted;
    deleted.insert(e.key);
  }
  // 50 deletions, 10 insertions and the 10 inserted keys' deletions.
  EXPECT_EQ(rec.changes.size(), 70u);
  EXPECT_EQ(inserted, 20u);
  for (uint32_t i = 0; i < 50; ++i) EXPECT_EQ(deleted.count(i), 1u) << "key " << i;
}

TEST(Collection, OwnerDroppedByAHandlerDuringDeleteAllLivesUntilTheCollectionIsEmpty) {
  auto box = Core::makePtr<Box>();
  for (uint32_t i = 0; i < 20; ++i) box->keys.set(i);
  KeysRecorder rec(*box, Box::keysAttr);
  Box* const raw = box.get();
  // The fewest entities alive that any handler saw: the box counts until the sweep ends.
  int64_t liveInHandler = std::numeric_limits<int64_t>::max();
  rec.onChange = [&](const uint32_t&) {
    box = nullptr;
    liveInHandler = std::min(liveInHandler, Core::Node::liveCount());
  };
  const int64_t live = Core::Node::liveCount();
  raw->keys.delAll();
  EXPECT_EQ(rec.changes.size(), 20u);
  EXPECT_EQ(liveInHandler, live);
  EXPECT_EQ(Core::Node::liveCount(), live - 1);
}

TEST(Collection, DeleteAllWithoutSubscriberSweepsSilently) {
  auto box = Core::makePtr<Box>();
  for (uint32_t i = 0; i < 50; ++i) box->keys.set(i);
  int calls = 0;
  {
    KeysRecorder rec(*box, Box::keysAttr);
    rec.onChange = [&](uint32_t) { ++calls; };
    box->keys.set(99);
  }
  box->keys.delAll();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(box->keys.size(), 0u);
}

TEST(Collection, IterationOverASparseTableFindsEverySurvivor) {
  auto box = Core::makePtr<Box>();
  for (uint32_t i = 0; i < 5000; ++i) box->keys.set(i);
  // Long runs of empty and deleted positions between the few members left.
  for (uint32_t i = 0; i < 5000; ++i) {
    if (i % 997 != 0) box->keys.del(i);
  }
  std::set<uint32_t> seen;
  for (auto it = box->keys.begin(); it != box->keys.end(); ++it) seen.insert(*it);
  EXPECT_EQ(seen, (std::set<uint32_t>{0, 997, 1994, 2991, 3988, 4985}));
}

TEST(Collection, IteratingWhileDeletingEveryMemberVisitsEachOnce) {
  auto box = Core::makePtr<Box>();
  constexpr uint32_t kCount = 100000;
  for (uint32_t i = 0; i < kCount; ++i) box->keys.set(i);
  std::vector<uint8_t> visits(kCount, 0);
  for (auto it = box->keys.begin(); it != box->keys.end(); ++it) {
    const uint32_t key = *it;
    ++visits[key];
    box->keys.del(key);
  }
  EXPECT_TRUE(box->keys.empty());
  for (uint32_t i = 0; i < kCount; ++i) ASSERT_EQ(visits[i], 1) << "key " << i;
}

TEST(Collection, HandlerDrainingTheRestUnderAnOuterLoopLeavesNothingTwice) {
  auto box = Core::makePtr<Box>();
  for (uint32_t i = 0; i < 100; ++i) box->keys.set(i);
  KeysRecorder rec(*box, Box::keysAttr);
  // The first deletion's handler drains the whole collection, re-entering del.
  bool draining = false;
  rec.onChange = [&](uint32_t) {
    if (draining) return;
    draining = true;
    for (auto it = box->keys.begin(); it != box->keys.end(); ++it) {
      const uint32_t key = *it;
      box->keys.del(key);
    }
  };
  int outerVisits = 0;
  for (auto it = box->keys.begin(); it != box->keys.end(); ++it) {
    ++outerVisits;
    const uint32_t key = *it;
    box->keys.del(key);
  }
  EXPECT_EQ(outerVisits, 1);
  EXPECT_EQ(rec.changes.size(), 100u);
  EXPECT_TRUE(box->keys.empty());
}

TEST(Collection, NotificationValuesAbsentOutsidePublication) {
  auto box = Core::makePtr<Box>();
  box->map.set({1, "a"});
  auto values =
      Core::getNotifyValues<Core::MapEntry<uint32_t, std::string>>(box.get(), Box::mapAttr);
  EXPECT_FALSE(values.present);
  EXPECT_EQ(values.oldValue, nullptr);
  EXPECT_EQ(values.newValue, nullptr);
}

TEST(Collection, NestedPublicationsAnchorTheirOwnValues) {
  auto box = Core::makePtr<Box>();
  box->map.set({1, "one"});
  box->map.set({2, "two"});
  MapRecorder rec(*box, Box::mapAttr);
  std::vector<std::string> seen;
  rec.onChange = [&](const uint32_t& key) {
    auto values =
        Core::getNotifyValues<Core::MapEntry<uint32_t, std::string>>(box.get(), Box::mapAttr);
    seen.push_back(std::to_string(key) + ":" + (values.oldValue ? values.oldValue->value : "-") +
                   ">" + (values.newValue ? values.newValue->value : "-"));
    // The change of key 1 writes key 2 again; after that inner publication returns, the outer
    // publication's values are visible again.
    if (key == 1) {
      box->map.set({2, "TWO"});
      auto after =
          Core::getNotifyValues<Core::MapEntry<uint32_t, std::string>>(box.get(), Box::mapAttr);
      seen.push_back("after:" + after.newValue->value);
    }
  };
  box->map.set({1, "ONE"});
  EXPECT_EQ(seen, (std::vector<std::string>{"1:one>ONE", "2:two>TWO", "after:ONE"}));
}

TEST(Collection, InsertDuringIterationKeepsEveryMemberReachable) {
  auto box = Core::makePtr<Box>();
  for (uint32_t i = 0; i < 8; ++i) box->keys.set(i);
  // Inserts rebuild the table under the loop: the loop may skip or repeat members, but every
  // member stays in the collection and the loop ends.
  std::set<uint32_t> visited;
  for (auto it = box->keys.begin(); it != box->keys.end(); ++it) {
    const uint32_t key = *it;
    visited.insert(key);
    if (key < 8) box->keys.set(key + 1000);
  }
  for (uint32_t i = 0; i < 8; ++i) EXPECT_TRUE(box->keys.has(i));
  for (uint32_t key : visited) {
    if (key >= 8) continue;
    EXPECT_TRUE(box->keys.has(key + 1000));
  }
  EXPECT_FALSE(visited.empty());
}

struct Child : Core::Node {
  explicit Child(uint32_t id) : id_(id) {}
  uint32_t id() const { return id_; }
  uint32_t id_;
};
struct Parent : Core::Node {
  static constexpr AttrId childAttr = 3;
  Core::ChildMap<uint32_t, Child, &Child::id> child{this, childAttr};
};

TEST(Collection, RemovedChildStaysAliveWhileTheHandlerHoldsIt) {
  auto parent = Core::makePtr<Parent>();
  parent->child.set(Core::makePtr<Child>(5));
  Ptr<Child> kept;
  struct Grab : Core::Subscriber {
    Grab(Parent& p, Ptr<Child>& out) : Subscriber(&Grab::on), parent(&p), out(&out) {
      subscribe(p.publisher());
    }
    static void on(Core::Subscriber& s, AttrId attr, const void*) {
      auto& self = static_cast<Grab&>(s);
      auto values = Core::getNotifyValues<Ptr<Child>>(self.parent, attr);
      if (values.oldValue) *self.out = *values.oldValue;
    }
    Parent* parent;
    Ptr<Child>* out;
  } grab(*parent, kept);
  parent->child.del(5);
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->id(), 5u);
  EXPECT_EQ(kept->useCount(), 1u);
}

TEST(Collection, ChildMapReplacesByIdentityOnly) {
  auto parent = Core::makePtr<Parent>();
  auto a = Core::makePtr<Child>(1);
  TestSupport::ChangeRecorder<uint32_t> rec(*parent, Parent::childAttr);
  EXPECT_TRUE(parent->child.set(a));
  EXPECT_FALSE(parent->child.set(a));
  EXPECT_TRUE(parent->child.set(Core::makePtr<Child>(1)));
  EXPECT_EQ(rec.changes.size(), 2u);
  EXPECT_NE(parent->child.get(1).get(), a.get());
  EXPECT_EQ(parent->child.get(2), nullptr);
}

// A key that counts how often a table hashes it.
struct CountedKey {
  uint32_t id;
  static inline int hashes = 0;
  uint32_t hash(uint32_t seed) const {
    ++hashes;
    return Core::hashOf(id, seed);
  }
  friend bool operator==(const CountedKey&, const CountedKey&) = default;
};

struct CountedBox : Core::Node {
  static constexpr AttrId keysAttr = 1;
  Core::KeySet<CountedKey> keys{this, keysAttr};
};

TEST(Collection, GetOrInsertHashesTheKeyOnceAndPublishesOnlyTheInsertion) {
  auto box = Core::makePtr<CountedBox>();
  TestSupport::ChangeRecorder<CountedKey, CountedKey> rec(*box, CountedBox::keysAttr);
  int creations = 0;
  auto create = [&creations](const CountedKey& key) {
    ++creations;
    return CountedKey{key.id};
  };
  CountedKey::hashes = 0;

  EXPECT_EQ(box->keys.getOrInsert(CountedKey{7}, create), CountedKey{7});
  EXPECT_EQ(CountedKey::hashes, 1);
  EXPECT_EQ(box->keys.getOrInsert(CountedKey{7}, create), CountedKey{7});
  EXPECT_EQ(CountedKey::hashes, 2);

  EXPECT_EQ(creations, 1);
  EXPECT_EQ(box->keys.size(), 1u);
  ASSERT_EQ(rec.changes.size(), 1u);
  EXPECT_FALSE(rec.changes[0].oldValue);
  EXPECT_EQ(rec.changes[0].newValue, CountedKey{7});
}

TEST(Collection, GetOrInsertFindsTheKeyAmongOthersAfterGrowth) {
  auto box = Core::makePtr<Box>();
  for (uint32_t k = 0; k < 100; ++k) {
    EXPECT_EQ(box->keys.getOrInsert(k, [](uint32_t key) { return key; }), k);
  }
  EXPECT_EQ(box->keys.size(), 100u);
  for (uint32_t k = 0; k < 100; ++k) {
    EXPECT_EQ(box->keys.getOrInsert(k,
                                    [](uint32_t) -> uint32_t {
                                      ADD_FAILURE();
                                      return 0;
                                    }),
              k);
  }
  EXPECT_EQ(box->keys.size(), 100u);
}

TEST(CollectionDeathTest, GetOrInsertWhoseCreationChangesTheCollectionIsABrokenInvariant) {
  auto box = Core::makePtr<Box>();
  auto sneaky = [&box](uint32_t key) {
    box->keys.set(key + 1);
    return key;
  };
  EXPECT_DEATH(box->keys.getOrInsert(3, sneaky), "table_.size\\(\\) == sizeBefore");
}

TEST(Collection, TeardownFreesEveryEntity) {
  const int64_t before = Core::Node::liveCount();
  {
    auto parent = Core::makePtr<Parent>();
    for (uint32_t i = 0; i < 100; ++i) parent->child.set(Core::makePtr<Child>(i));
    EXPECT_EQ(Core::Node::liveCount(), before + 101);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

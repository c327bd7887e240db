#include "framework/Store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/KilnMemtab.h"
#include "support/ChangeRecorder.h"

namespace {

using Store::EntityManager;
using ::testing::ElementsAre;

// Two entity types that differ only in their type name, as two tables of the host would.
class FecTable : public Core::Node {
 public:
  static constexpr std::string_view kTypeName = "Test::FecTable";
  std::string_view typeName() const override { return kTypeName; }
};

class ArpTable : public Core::Node {
 public:
  static constexpr std::string_view kTypeName = "Test::ArpTable";
  std::string_view typeName() const override { return kTypeName; }
};

TEST(EntityManager, PublishesAndLooksUpByPath) {
  auto em = EntityManager::EntityManagerIs();
  auto table = Core::makePtr<FecTable>();

  EXPECT_FALSE(em->entityHas("fib/red"));
  EXPECT_EQ(em->entity("fib/red"), nullptr);

  em->entityIs("fib/red", table);

  EXPECT_TRUE(em->entityHas("fib/red"));
  EXPECT_EQ(em->entity("fib/red").get(), table.get());
  EXPECT_EQ(em->entity("fib/blue"), nullptr);
  EXPECT_EQ(em->entityCount(), 1u);
  EXPECT_EQ(em->typeName(), "Store::EntityManager");
}

TEST(EntityManager, ReplaceReleasesTheOldEntity) {
  const int64_t before = Core::Node::liveCount();
  auto em = EntityManager::EntityManagerIs();
  em->entityIs("fib/red", Core::makePtr<FecTable>());
  EXPECT_EQ(Core::Node::liveCount(), before + 2);

  auto replacement = Core::makePtr<ArpTable>();
  em->entityIs("fib/red", replacement);

  EXPECT_EQ(em->entity("fib/red").get(), replacement.get());
  EXPECT_EQ(em->entityCount(), 1u);
  EXPECT_EQ(Core::Node::liveCount(), before + 2);
}

TEST(EntityManager, DeleteRemovesOnlyThatPath) {
  auto em = EntityManager::EntityManagerIs();
  em->entityIs("fib/red", Core::makePtr<FecTable>());
  em->entityIs("fib/blue", Core::makePtr<FecTable>());

  em->entityDel("fib/red");
  em->entityDel("fib/green");

  EXPECT_FALSE(em->entityHas("fib/red"));
  EXPECT_EQ(em->entity("fib/red"), nullptr);
  EXPECT_TRUE(em->entityHas("fib/blue"));
  EXPECT_EQ(em->entityCount(), 1u);

  em->entityDelAll();
  EXPECT_EQ(em->entityCount(), 0u);
}

TEST(EntityManager, NotifiesOncePerActualChange) {
  auto em = EntityManager::EntityManagerIs();
  TestSupport::ChangeRecorder<std::string> recorder(*em, EntityManager::kEntity);
  auto first = Core::makePtr<FecTable>();

  em->entityIs("a", first);
  em->entityIs("a", first);  // same entity: no change
  em->entityIs("a", Core::makePtr<FecTable>());
  em->entityIs("b", first);
  em->entityDel("a");
  em->entityDel("a");  // already gone: no change
  em->entityDelAll();

  EXPECT_THAT(recorder.keys, ElementsAre("a", "a", "b", "a", "b"));
}

TEST(EntityManager, NullEntityIsRejected) {
  auto em = EntityManager::EntityManagerIs();
  EXPECT_THROW(em->entityIs("fib/red", nullptr), Core::NullArgumentError);
  EXPECT_FALSE(em->entityHas("fib/red"));
}

class MountTest : public ::testing::Test {
 protected:
  MountTest() {
    em->entityIs("forwardingGen/vrf/status/red", table);
    mount->handleInitialized();
  }

  EntityManager::Ptr em = EntityManager::EntityManagerIs();
  Core::Ptr<FecTable> table = Core::makePtr<FecTable>();
  KilnMemtab::Mount::Ptr mount = KilnMemtab::Mount::MountIs(em);
};

TEST_F(MountTest, MountsEntityWithMatchingTypeName) {
  EXPECT_EQ(mount->getEntity("forwardingGen/vrf/status/red"), nullptr);

  EXPECT_TRUE(mount->doMount("forwardingGen/vrf/status/red", FecTable::kTypeName, 3));

  auto entity = mount->getEntity("forwardingGen/vrf/status/red");
  EXPECT_EQ(Core::dynamicPtrCast<FecTable>(entity).get(), table.get());
  EXPECT_EQ(Core::dynamicPtrCast<ArpTable>(entity), nullptr);
  EXPECT_EQ(mount->mountCount(), 1u);
}

TEST_F(MountTest, RepeatedMountYieldsTheSameObject) {
  ASSERT_TRUE(mount->doMount("forwardingGen/vrf/status/red", FecTable::kTypeName, 3));
  auto first = mount->getEntity("forwardingGen/vrf/status/red");

  // Even a host that republishes the path does not change what an existing mount shows.
  em->entityIs("forwardingGen/vrf/status/red", Core::makePtr<FecTable>());
  EXPECT_TRUE(mount->doMount("forwardingGen/vrf/status/red", FecTable::kTypeName, 3));

  EXPECT_EQ(mount->getEntity("forwardingGen/vrf/status/red").get(), first.get());
  EXPECT_EQ(first.get(), table.get());
  EXPECT_EQ(mount->mountCount(), 1u);
}

TEST_F(MountTest, WrongTypeNameFails) {
  EXPECT_FALSE(mount->doMount("forwardingGen/vrf/status/red", ArpTable::kTypeName, 3));
  EXPECT_EQ(mount->getEntity("forwardingGen/vrf/status/red"), nullptr);
  EXPECT_EQ(mount->mountCount(), 0u);

  // A mounted path keeps refusing another type.
  ASSERT_TRUE(mount->doMount("forwardingGen/vrf/status/red", FecTable::kTypeName, 3));
  EXPECT_FALSE(mount->doMount("forwardingGen/vrf/status/red", ArpTable::kTypeName, 3));
}

TEST_F(MountTest, MissingPathFails) {
  EXPECT_FALSE(mount->doMount("forwardingGen/vrf/status/blue", FecTable::kTypeName, 3));
  EXPECT_EQ(mount->getEntity("forwardingGen/vrf/status/blue"), nullptr);
}

TEST(MountDeathTest, MountBeforeInitialisationAsserts) {
  auto mount = KilnMemtab::Mount::MountIs(EntityManager::EntityManagerIs());
  EXPECT_DEATH(mount->doMount("any", FecTable::kTypeName, 3), "initialized_");
}

TEST(Mount, NullEntityManagerIsRejected) {
  EXPECT_THROW(KilnMemtab::Mount::MountIs(nullptr), Core::NullArgumentError);
}

TEST(Mount, ReleasingEverythingFreesEveryEntity) {
  const int64_t before = Core::Node::liveCount();
  {
    auto em = EntityManager::EntityManagerIs();
    em->entityIs("fib/red", Core::makePtr<FecTable>());
    em->entityIs("fib/blue", Core::makePtr<ArpTable>());
    auto mount = KilnMemtab::Mount::MountIs(em);
    mount->handleInitialized();
    ASSERT_TRUE(mount->doMount("fib/red", FecTable::kTypeName, 3));
    ASSERT_TRUE(mount->doMount("fib/blue", ArpTable::kTypeName, 3));
    EXPECT_EQ(Core::Node::liveCount(), before + 4);

    // The mount keeps what it mounted alive after the host withdraws it.
    em->entityDelAll();
    EXPECT_EQ(Core::Node::liveCount(), before + 4);
    EXPECT_NE(mount->getEntity("fib/red"), nullptr);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

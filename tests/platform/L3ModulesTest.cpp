#include "platform/L3Modules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "framework/Core.h"
#include "framework/CoreDump.h"
#include "support/ChangeRecorder.h"
#include "support/LiveCountTest.h"

namespace {

using FwdL3Unicast::L3Modules;
using FwdL3Unicast::NextHopMod;
using Netval::EthAddr;
using Netval::IntfId;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using MacEntry = Core::MapEntry<uint32_t, EthAddr>;

using MacRecorder = TestSupport::ChangeRecorder<uint32_t, MacEntry>;
using ModRecorder = TestSupport::ChangeRecorder<IntfId, NextHopMod::Ptr>;

const IntfId kEt1("Ethernet1");
const IntfId kEt2("Ethernet2");
const EthAddr kMacA("00:1c:73:00:00:0a");
const EthAddr kMacB("00:1c:73:00:00:0b");

class NextHopModTest : public TestSupport::LiveCountTest {
 protected:
  NextHopMod::Ptr mod = NextHopMod::NextHopModIs(kEt1);
};

TEST_F(NextHopModTest, PublishesOnceForEachInsertChangeAndDelete) {
  MacRecorder recorder(*mod, NextHopMod::nhIndexToMacAttr);

  EXPECT_TRUE(mod->nhIndexToMacIs(5, kMacA));
  EXPECT_TRUE(mod->nhIndexToMacIs(6, kMacA));
  EXPECT_TRUE(mod->nhIndexToMacIs(5, kMacB));
  EXPECT_TRUE(mod->nhIndexToMacDel(6));

  EXPECT_THAT(recorder.keys, ElementsAre(5u, 6u, 5u, 6u));
  EXPECT_EQ(mod->nhIndexToMacCount(), 1u);
  EXPECT_EQ(mod->nhIndexToMac(5), kMacB);
}

TEST_F(NextHopModTest, EqualInsertPublishesNothing) {
  mod->nhIndexToMacIs(5, kMacA);
  MacRecorder recorder(*mod, NextHopMod::nhIndexToMacAttr);

  EXPECT_FALSE(mod->nhIndexToMacIs(5, kMacA));

  EXPECT_THAT(recorder.changes, IsEmpty());
}

TEST_F(NextHopModTest, DeleteOfAbsentIndexPublishesNothing) {
  mod->nhIndexToMacIs(5, kMacA);
  MacRecorder recorder(*mod, NextHopMod::nhIndexToMacAttr);

  EXPECT_FALSE(mod->nhIndexToMacDel(6));

  EXPECT_THAT(recorder.changes, IsEmpty());
  EXPECT_TRUE(mod->nhIndexToMacHas(5));
}

TEST_F(NextHopModTest, DelAllPublishesEveryIndex) {
  mod->nhIndexToMacIs(5, kMacA);
  mod->nhIndexToMacIs(6, kMacB);
  MacRecorder recorder(*mod, NextHopMod::nhIndexToMacAttr);

  mod->nhIndexToMacDelAll();

  EXPECT_THAT(recorder.keys, UnorderedElementsAre(5u, 6u));
  EXPECT_EQ(mod->nhIndexToMacCount(), 0u);
}

TEST_F(NextHopModTest, ChangeCountMovesOnWithEveryWriteBeforeItsHandlersRun) {
  std::vector<uint64_t> seen;
  auto recorder = TestSupport::recordChanges<uint32_t>(mod.get(), NextHopMod::nhIndexToMacAttr);
  recorder->onChange = [&](uint32_t) { seen.push_back(mod->nhIndexToMacChanges()); };
  const uint64_t start = mod->nhIndexToMacChanges();

  mod->nhIndexToMacIs(5, kMacA);
  mod->nhIndexToMacIs(5, kMacA);  // unchanged
  mod->nhIndexToMacDel(6);        // absent
  mod->nhIndexToMacIs(5, kMacB);
  mod->nhIndexToMacDel(5);
  mod->nhIndexToMacIs(7, kMacA);
  mod->nhIndexToMacDelAll();

  EXPECT_EQ(mod->nhIndexToMacChanges(), start + 7);
  // Each handler already sees its own write counted.
  EXPECT_THAT(seen, ElementsAre(start + 1, start + 4, start + 5, start + 6, start + 7));
}

TEST_F(NextHopModTest, AbsentIndexReadsAsTheZeroMac) {
  mod->nhIndexToMacIs(5, kMacA);

  EXPECT_TRUE(mod->nhIndexToMac(6).isZero());
  EXPECT_FALSE(mod->nhIndexToMacHas(6));
}

TEST_F(NextHopModTest, MacChangeCarriesOldAndNewMac) {
  mod->nhIndexToMacIs(5, kMacA);
  MacRecorder recorder(*mod, NextHopMod::nhIndexToMacAttr);

  mod->nhIndexToMacIs(5, kMacB);

  ASSERT_EQ(recorder.changes.size(), 1u);
  const auto& change = recorder.changes.front();
  ASSERT_TRUE(change.oldValue.has_value());
  ASSERT_TRUE(change.newValue.has_value());
  EXPECT_EQ(*change.oldValue, (MacEntry{5, kMacA}));
  EXPECT_EQ(*change.newValue, (MacEntry{5, kMacB}));
}

TEST_F(NextHopModTest, DeleteCarriesOnlyTheOldMac) {
  mod->nhIndexToMacIs(5, kMacA);
  MacRecorder recorder(*mod, NextHopMod::nhIndexToMacAttr);

  mod->nhIndexToMacDel(5);

  ASSERT_EQ(recorder.changes.size(), 1u);
  const auto& change = recorder.changes.front();
  ASSERT_TRUE(change.oldValue.has_value());
  EXPECT_EQ(*change.oldValue, (MacEntry{5, kMacA}));
  EXPECT_FALSE(change.newValue.has_value());
}

TEST_F(NextHopModTest, InsertCarriesOnlyTheNewMac) {
  MacRecorder recorder(*mod, NextHopMod::nhIndexToMacAttr);

  mod->nhIndexToMacIs(5, kMacA);

  ASSERT_EQ(recorder.changes.size(), 1u);
  const auto& change = recorder.changes.front();
  EXPECT_FALSE(change.oldValue.has_value());
  ASSERT_TRUE(change.newValue.has_value());
  EXPECT_EQ(*change.newValue, (MacEntry{5, kMacA}));
}

TEST_F(NextHopModTest, NoNotificationValuesOutsideAPublication) {
  mod->nhIndexToMacIs(5, kMacA);
  mod->nhIndexToMacIs(5, kMacB);

  auto values = Core::getNotifyValues<MacEntry>(mod.get(), NextHopMod::nhIndexToMacAttr);

  EXPECT_FALSE(values.present);
  EXPECT_EQ(values.oldValue, nullptr);
  EXPECT_EQ(values.newValue, nullptr);
}

TEST_F(NextHopModTest, IterationVisitsEveryProgrammedIndex) {
  mod->nhIndexToMacIs(5, kMacA);
  mod->nhIndexToMacIs(6, kMacB);
  mod->nhIndexToMacIs(7, kMacA);

  std::vector<uint32_t> indices;
  for (const MacEntry& entry : mod->nhIndexToMac()) indices.push_back(entry.key);

  EXPECT_THAT(indices, UnorderedElementsAre(5u, 6u, 7u));
}

TEST_F(NextHopModTest, DumpListsTheTable) {
  mod->nhIndexToMacIs(5, kMacA);
  Core::DumpContext ctx;

  mod->dumpState(ctx, 0);

  EXPECT_EQ(ctx.text(),
            "NextHopMod - Ethernet1\n"
            "  nhIndexToMac: #1\n"
            "    5 -> 00:1c:73:00:00:0a\n");
}

class L3ModulesTest : public TestSupport::LiveCountTest {
 protected:
  L3Modules::Ptr modules = L3Modules::L3ModulesIs();
  NextHopMod::Ptr et1 = NextHopMod::NextHopModIs(kEt1);
  NextHopMod::Ptr et2 = NextHopMod::NextHopModIs(kEt2);
};

TEST_F(L3ModulesTest, InsertPublishesAndIsFoundByInterface) {
  ModRecorder recorder(*modules, L3Modules::nextHopModAttr);

  EXPECT_EQ(modules->nextHopModIs(et1), et1);
  modules->nextHopModIs(et2);

  EXPECT_THAT(recorder.keys, ElementsAre(kEt1, kEt2));
  EXPECT_EQ(modules->nextHopMod(kEt1).get(), et1.get());
  EXPECT_EQ(modules->nextHopModMutable(kEt2), et2);
  EXPECT_TRUE(modules->nextHopModHas(kEt1));
  EXPECT_EQ(modules->nextHopModCount(), 2u);
}

TEST_F(L3ModulesTest, InsertCarriesTheNewModuleOnly) {
  ModRecorder recorder(*modules, L3Modules::nextHopModAttr);

  modules->nextHopModIs(et1);

  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_FALSE(recorder.changes.front().oldValue.has_value());
  EXPECT_EQ(recorder.changes.front().newValue, et1);
}

TEST_F(L3ModulesTest, ReinsertingTheSameModuleIsANoOp) {
  modules->nextHopModIs(et1);
  ModRecorder recorder(*modules, L3Modules::nextHopModAttr);

  EXPECT_EQ(modules->nextHopModIs(et1), et1);

  EXPECT_THAT(recorder.changes, IsEmpty());
  EXPECT_EQ(modules->nextHopModCount(), 1u);
}

TEST(L3ModulesDeathTest, AnotherModuleForAnOccupiedInterfaceAsserts) {
  auto modules = L3Modules::L3ModulesIs();
  modules->nextHopModIs(NextHopMod::NextHopModIs(kEt1));

  EXPECT_DEATH(modules->nextHopModIs(NextHopMod::NextHopModIs(kEt1)),
               "Assertion failed: \"!present \\|\\| \\*present == nextHopMod\" in L3Modules");
}

TEST_F(L3ModulesTest, NullModuleThrows) {
  EXPECT_THROW(modules->nextHopModIs(nullptr), Core::NullArgumentError);
  EXPECT_EQ(modules->nextHopModCount(), 0u);
}

TEST_F(L3ModulesTest, DeletePublishesTheOldModuleAndDeleteOfAbsentPublishesNothing) {
  modules->nextHopModIs(et1);
  ModRecorder recorder(*modules, L3Modules::nextHopModAttr);

  EXPECT_TRUE(modules->nextHopModDel(kEt1));
  EXPECT_FALSE(modules->nextHopModDel(kEt1));
  EXPECT_FALSE(modules->nextHopModDel(kEt2));

  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes.front().key, kEt1);
  EXPECT_EQ(recorder.changes.front().oldValue, et1);
  EXPECT_FALSE(recorder.changes.front().newValue.has_value());
  EXPECT_EQ(modules->nextHopMod(kEt1), nullptr);
}

TEST_F(L3ModulesTest, ModuleIsReplacedByDeleteThenInsert) {
  modules->nextHopModIs(et1);
  auto replacement = NextHopMod::NextHopModIs(kEt1);
  ModRecorder recorder(*modules, L3Modules::nextHopModAttr);

  modules->nextHopModDel(kEt1);
  modules->nextHopModIs(replacement);

  EXPECT_THAT(recorder.keys, ElementsAre(kEt1, kEt1));
  EXPECT_EQ(modules->nextHopModMutable(kEt1), replacement);
}

TEST_F(L3ModulesTest, AbsentInterfaceHasNoModule) {
  modules->nextHopModIs(et1);

  EXPECT_EQ(modules->nextHopMod(kEt2), nullptr);
  EXPECT_EQ(modules->nextHopModMutable(kEt2), nullptr);
  EXPECT_FALSE(modules->nextHopModHas(kEt2));
}

TEST_F(L3ModulesTest, DelAllPublishesEveryInterface) {
  modules->nextHopModIs(et1);
  modules->nextHopModIs(et2);
  ModRecorder recorder(*modules, L3Modules::nextHopModAttr);

  modules->nextHopModDelAll();

  EXPECT_THAT(recorder.keys, UnorderedElementsAre(kEt1, kEt2));
  EXPECT_EQ(modules->nextHopModCount(), 0u);
}

TEST_F(L3ModulesTest, ModuleChangesAreSeenThroughTheDirectory) {
  modules->nextHopModIs(et1);

  modules->nextHopModMutable(kEt1)->nhIndexToMacIs(5, kMacA);

  EXPECT_EQ(modules->nextHopMod(kEt1)->nhIndexToMac(5), kMacA);
}

TEST_F(L3ModulesTest, DumpListsEachModule) {
  modules->nextHopModIs(et1);
  et1->nhIndexToMacIs(7, kMacB);
  Core::DumpContext ctx;

  modules->dumpState(ctx, 0);

  EXPECT_EQ(ctx.text(),
            "L3Modules\n"
            "  nextHopMod: #1\n"
            "    NextHopMod - Ethernet1\n"
            "      nhIndexToMac: #1\n"
            "        7 -> 00:1c:73:00:00:0b\n");
}

TEST(L3ModulesLifetime, EverythingIsFreedWhenDropped) {
  const int64_t before = Core::Node::liveCount();
  {
    auto modules = L3Modules::L3ModulesIs();
    auto mod = modules->nextHopModIs(NextHopMod::NextHopModIs(kEt1));
    modules->nextHopModIs(NextHopMod::NextHopModIs(kEt2));
    mod->nhIndexToMacIs(5, kMacA);
    EXPECT_EQ(Core::Node::liveCount(), before + 3);
    modules->nextHopModDel(kEt1);
    EXPECT_EQ(Core::Node::liveCount(), before + 3);  // `mod` still holds the removed module
    mod = nullptr;
    EXPECT_EQ(Core::Node::liveCount(), before + 2);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

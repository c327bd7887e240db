#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"
#include "support/ChangeRecorder.h"
#include "support/Stage3Fixture.h"
#include "support/TraceCapture.h"

// Stage 3 matching each requested MAC with the first index that programs it, as the
// interface's next-hop table changes.

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using namespace FwdTest::Stage3;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Per-interface matching

TEST_F(ViaNexthopMacToNhIndexSmTest, GroupTakesFirstOfTwoIndexesWithSameMacAtStart) {
  for (std::pair<uint32_t, uint32_t> order : {std::pair{5u, 9u}, std::pair{9u, 5u}}) {
    l3Modules->nextHopModDel(intf("Ethernet1"));
    sm = nullptr;
    NextHopMod::Ptr module = moduleIs("Ethernet1");
    module->nhIndexToMacIs(order.first, mac(kMacA));
    module->nhIndexToMacIs(order.second, mac(kMacA));
    requestIs("10.0.0.1", "Ethernet1", kMacA);
    start();
    EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", firstInTableOrder(*module, {5, 9})}}));
  }
}

TEST_F(ViaNexthopMacToNhIndexSmTest, GroupMovesToNextIndexWithSameMac) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacA);

  StatusLog log(status);
  TestSupport::TraceCapture trace(kFilter);
  module->nhIndexToMacIs(9, mac(kMacA));
  EXPECT_THAT(log.changes(), IsEmpty());
  EXPECT_TRUE(
      trace.contains(kAddStatus + "NhIndex already found for mac : 00:1c:73:00:00:0a..skipping"));
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), 5u);

  module->nhIndexToMacDel(5);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 9}, {"10.0.0.2 Ethernet1", 9}}));
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), 9u);
  EXPECT_TRUE(group("Ethernet1", kMacA)->nhIndexFound());

  log.clear();
  module->nhIndexToMacIs(5, mac(kMacA));
  module->nhIndexToMacDel(5);
  EXPECT_THAT(log.changes(), IsEmpty());
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), 9u);
}

TEST_F(ViaNexthopMacToNhIndexSmTest, LosingLastIndexOfMacWithdrawsGroupStatuses) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacA);

  TestSupport::TraceCapture trace(kFilter);
  module->nhIndexToMacDel(5);
  EXPECT_THAT(statuses(), IsEmpty());
  EXPECT_FALSE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), kInvalid);
  EXPECT_TRUE(
      trace.contains(kHandleNhIndexToMac + "NhIndex 5 deleted for mac : 00:1c:73:00:00:0a"));
  EXPECT_TRUE(trace.contains(kDelStatus + "No nhIndex for nexthop: 10.0.0.1 intfId: Ethernet1"));
  EXPECT_TRUE(trace.contains(kDelStatus + "No nhIndex for nexthop: 10.0.0.2 intfId: Ethernet1"));

  module->nhIndexToMacIs(7, mac(kMacA));
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 7}, {"10.0.0.2 Ethernet1", 7}}));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, MacChangeOnIndexMovesItBetweenGroups) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacB);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));

  StatusLog log(status);
  TestSupport::TraceCapture trace(kFilter);
  module->nhIndexToMacIs(5, mac(kMacB));
  EXPECT_THAT(log.changes(), ElementsAre("del 10.0.0.1 Ethernet1", "set 10.0.0.2 Ethernet1 5"));
  EXPECT_FALSE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_EQ(group("Ethernet1", kMacB)->nhIndex(), 5u);
  const std::vector<std::string> texts = trace.texts();
  ASSERT_GE(texts.size(), 2u);
  EXPECT_EQ(texts.front(), kHandleNhIndexToMac + "NhIndex 5 deleted for mac : 00:1c:73:00:00:0a");
  EXPECT_TRUE(trace.contains(kHandleNhIndexToMac + "NhIndex 5 added for mac : 00:1c:73:00:00:0b"));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, MacChangeOnIndexMovesOldGroupToItsOtherIndex) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacB);
  module->nhIndexToMacIs(6, mac(kMacA));
  module->nhIndexToMacIs(7, mac(kMacB));
  ASSERT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.2 Ethernet1", 7}}));

  // A loses 5 and moves to 6; B already has 7 and keeps it.
  StatusLog log(status);
  TestSupport::TraceCapture trace(kFilter);
  module->nhIndexToMacIs(5, mac(kMacB));
  EXPECT_THAT(log.changes(), ElementsAre("set 10.0.0.1 Ethernet1 6"));
  EXPECT_EQ(group("Ethernet1", kMacB)->nhIndex(), 7u);
  EXPECT_TRUE(
      trace.contains(kAddStatus + "NhIndex already found for mac : 00:1c:73:00:00:0b..skipping"));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, IndexRemovedDuringGroupStatusWriteLeavesNoStatus) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  start();
  for (const char* nexthop : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) {
    requestIs(nexthop, "Ethernet1", kMacA);
  }
  // A client of the status map that sees the first status and has the engine take the index away.
  bool removed = false;
  auto client =
      TestSupport::recordChanges<NexthopIntfId>(status.get(), ViaNexthopMacToNhIndexMap::mapAttr);
  client->onChange = [&](const NexthopIntfId&) {
    if (removed) return;
    removed = true;
    module->nhIndexToMacDel(5);
  };

  module->nhIndexToMacIs(5, mac(kMacA));

  ASSERT_TRUE(removed);
  EXPECT_THAT(statuses(), IsEmpty());
  EXPECT_FALSE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), kInvalid);
}

TEST_F(ViaNexthopMacToNhIndexSmTest, IndexAddedDuringGroupWithdrawalLeavesEveryNexthopStatus) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  start();
  for (const char* nexthop : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) {
    requestIs(nexthop, "Ethernet1", kMacA);
  }
  // A client of the status map that sees the first withdrawal and has the engine program the MAC
  // at another index.
  bool added = false;
  auto client =
      TestSupport::recordChanges<NexthopIntfId>(status.get(), ViaNexthopMacToNhIndexMap::mapAttr);
  client->onChange = [&](const NexthopIntfId&) {
    if (added) return;
    added = true;
    module->nhIndexToMacIs(6, mac(kMacA));
  };

  module->nhIndexToMacDel(5);

  ASSERT_TRUE(added);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 6},
                                   {"10.0.0.2 Ethernet1", 6},
                                   {"10.0.0.3 Ethernet1", 6},
                                   {"10.0.0.4 Ethernet1", 6}}));
  EXPECT_TRUE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), 6u);
}

TEST_F(ViaNexthopMacToNhIndexSmTest, IndexWithUnrequestedMacIsIgnored) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  StatusLog log(status);
  module->nhIndexToMacIs(5, mac(kMacC));
  module->nhIndexToMacDel(5);
  EXPECT_THAT(log.changes(), IsEmpty());
  EXPECT_FALSE(group("Ethernet1", kMacA)->nhIndexFound());
}

TEST_F(ViaNexthopMacToNhIndexSmTest, NexthopJoiningFoundGroupGetsStatusAtOnce) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  StatusLog log(status);
  TestSupport::TraceCapture trace(kFilter);
  requestIs("10.0.0.2", "Ethernet1", kMacA);
  EXPECT_THAT(log.changes(), ElementsAre("set 10.0.0.2 Ethernet1 5"));
  EXPECT_TRUE(trace.contains(kHandleRequester +
                             "Using already found nhIndex : 5 for nexthop: 10.0.0.2 intfId: "
                             "Ethernet1"));

  log.clear();
  trace.clear();
  requestDel("10.0.0.2", "Ethernet1");
  EXPECT_THAT(log.changes(), ElementsAre("del 10.0.0.2 Ethernet1"));
  EXPECT_TRUE(
      trace.contains(kHandleRequester + "Deleting status for nexthop: 10.0.0.2 intfId: Ethernet1"));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, NexthopLeavingUnfoundGroupIsTracedAndWritesNothing) {
  moduleIs("Ethernet1");
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacA);
  StatusLog log(status);
  TestSupport::TraceCapture trace(kFilter);
  requestDel("10.0.0.2", "Ethernet1");
  EXPECT_THAT(log.changes(), IsEmpty());
  EXPECT_TRUE(
      trace.contains(kHandleRequester + "Deleting status for nexthop: 10.0.0.2 intfId: Ethernet1"));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, FoundFlagIsSetBeforeIndex) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  RequesterColl::Ptr watched = group("Ethernet1", kMacA);
  std::vector<std::string> order;
  auto found = TestSupport::recordChanges<bool>(watched.get(), RequesterColl::nhIndexFoundAttr);
  found->onChange = [&order](bool value) { order.push_back(value ? "found" : "not found"); };
  auto index = TestSupport::recordChanges<uint32_t>(watched.get(), RequesterColl::nhIndexAttr);
  index->onChange = [&order](uint32_t value) { order.push_back(std::to_string(value)); };
  module->nhIndexToMacIs(5, mac(kMacA));
  module->nhIndexToMacDel(5);
  EXPECT_THAT(order, ElementsAre("found", "5", "not found", std::to_string(kInvalid)));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, ModuleRemovalKeepsOtherInterfacesEntries) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  moduleIs("Ethernet2")->nhIndexToMacIs(6, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.1", "Ethernet2", kMacA);
  requestIs("10.0.0.2", "Ethernet2", kMacB);

  StatusLog log(status);
  l3Modules->nextHopModDel(intf("Ethernet2"));
  EXPECT_THAT(log.changes(), ElementsAre("del 10.0.0.1 Ethernet2"));
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));
  EXPECT_FALSE(group("Ethernet2", kMacA)->nhIndexFound());
  EXPECT_FALSE(group("Ethernet2", kMacB)->nhIndexFound());
  EXPECT_TRUE(group("Ethernet1", kMacA)->nhIndexFound());
}

TEST_F(ViaNexthopMacToNhIndexSmTest, MachineStartRemovesLeftoverEntriesOfItsInterfaceOnly) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  status->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 77));
  status->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.9", "Ethernet1"), 78));
  status->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet2"), 79));

  StatusLog log(status);
  NextHopMod::Ptr module = NextHopMod::NextHopModIs(intf("Ethernet1"));
  module->nhIndexToMacIs(5, mac(kMacA));
  l3Modules->nextHopModIs(module);
  ASSERT_EQ(log.changes().size(), 3u);
  EXPECT_THAT(std::vector<std::string>(log.changes().begin(), log.changes().begin() + 2),
              ::testing::UnorderedElementsAre("del 10.0.0.1 Ethernet1", "del 10.0.0.9 Ethernet1"));
  EXPECT_EQ(log.changes().back(), "set 10.0.0.1 Ethernet1 5");
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.1 Ethernet2", 79}}));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, FoundIndexIsTracedAtLevelSeven) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  TestSupport::TraceCapture trace("FwdViaNexthopMacToNhIndexSm/9");
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  const std::string expected =
      kAddStatusHelper + "nhIndex : 5 found for mac : 00:1c:73:00:00:0a under intfId : Ethernet1";
  std::vector<uint32_t> levels;
  for (const auto& line : trace.lines()) {
    EXPECT_EQ(line.handle, "FwdViaNexthopMacToNhIndexSm");
    if (line.text == expected) levels.push_back(line.level);
  }
  EXPECT_THAT(levels, ElementsAre(7u));
  for (const auto& line : trace.lines()) {
    if (line.text != expected) {
      EXPECT_EQ(line.level, 8u) << line.text;
    }
  }
}

TEST_F(ViaNexthopMacToNhIndexSmTest, LevelSevenFilterShowsOnlyFoundIndex) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  TestSupport::TraceCapture trace("FwdViaNexthopMacToNhIndexSm/7");
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacA);
  EXPECT_THAT(
      trace.texts(),
      ElementsAre(kAddStatusHelper + "nhIndex : 5 found for mac : 00:1c:73:00:00:0a under intfId : "
                                     "Ethernet1"));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, AddStatusHelperTracesEveryNexthop) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacA);
  TestSupport::TraceCapture trace(kFilter);
  module->nhIndexToMacIs(5, mac(kMacA));
  // One line per nexthop, in the group's iteration order.
  std::vector<std::string> perNexthop;
  for (const Netval::IpGenAddr& nexthop : group("Ethernet1", kMacA)->requesterColl()) {
    perNexthop.push_back(kAddStatusHelper + "nhIndex for nexthop: " + nexthop.toString() +
                         " intfId: Ethernet1 is 5");
  }
  ASSERT_EQ(perNexthop.size(), 2u);
  EXPECT_THAT(
      trace.texts(),
      ElementsAre(kHandleNhIndexToMac + "NhIndex 5 added for mac : 00:1c:73:00:00:0a",
                  kAddStatusHelper + "nhIndex : 5 found for mac : 00:1c:73:00:00:0a under intfId : "
                                     "Ethernet1",
                  perNexthop[0], perNexthop[1]));
}

// Nested watchers

TEST_F(ViaNexthopMacToNhIndexSmTest, ReplacedGroupObjectIsWatchedWithoutNewLookup) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::Ptr nested =
      machine("Ethernet1")->requesterColl(mac(kMacA));
  ASSERT_NE(nested, nullptr);

  TestSupport::TraceCapture trace(kFilter);
  RequesterColl::Ptr replacement = RequesterColl::RequesterCollIs(mac(kMacA));
  request("Ethernet1")->requesterCollIs(replacement);
  EXPECT_EQ(machine("Ethernet1")->requesterColl(mac(kMacA)), nested);
  EXPECT_EQ(nested->requesterColl(), replacement);
  EXPECT_FALSE(replacement->nhIndexFound());
  EXPECT_THAT(trace.texts(), IsEmpty());

  // The watcher now follows the replacement's nexthops.
  replacement->requesterCollIs(ip("10.0.0.3"));
  EXPECT_TRUE(trace.contains(kHandleRequester + "mac : 00:1c:73:00:00:0a, nexthop : 10.0.0.3"));

  trace.clear();
  nested->notifierIs(replacement);
  EXPECT_EQ(nested->requesterColl(), replacement);
  EXPECT_THAT(trace.texts(), IsEmpty());
}

TEST_F(ViaNexthopMacToNhIndexSmTest, MachineStartsWatcherForEveryExistingGroup) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacB);
  requestIs("10.0.0.3", "Ethernet1", kMacC);
  NextHopMod::Ptr module = NextHopMod::NextHopModIs(intf("Ethernet1"));
  module->nhIndexToMacIs(5, mac(kMacA));
  module->nhIndexToMacIs(6, mac(kMacB));
  l3Modules->nextHopModIs(module);
  IntfViaNexthopMacToNhIndexSm::Ptr started = machine("Ethernet1");
  EXPECT_TRUE(started->hasNotificationActive());
  EXPECT_EQ(started->requesterCollCount(), 3u);
  for (std::string_view macText : {kMacA, kMacB, kMacC}) {
    ASSERT_TRUE(started->requesterCollHas(mac(macText)));
    EXPECT_EQ(started->requesterColl(mac(macText))->macAddr(), mac(macText));
    EXPECT_EQ(started->requesterColl(mac(macText))->intfViaNexthopMacToNhIndexSm(), started.get());
    EXPECT_TRUE(started->requesterColl(mac(macText))->hasNotificationActive());
  }
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.2 Ethernet1", 6}}));

  requestDel("10.0.0.3", "Ethernet1");
  EXPECT_FALSE(started->requesterCollHas(mac(kMacC)));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, NestedWatcherWithoutGroupHasZeroMac) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  auto nested = IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::NestedSm_RequesterCollIs(
      group("Ethernet1", kMacA), machine("Ethernet1").get());
  nested->notifierIs(nullptr);
  EXPECT_EQ(nested->macAddr(), Netval::EthAddr());
  EXPECT_EQ(nested->requesterColl(), nullptr);
}

TEST_F(ViaNexthopMacToNhIndexSmTest, WatcherFollowsNexthopsOnlyNotGroupIndex) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  StatusLog log(status);
  TestSupport::TraceCapture trace(kFilter);
  group("Ethernet1", kMacA)->nhIndexIs(7);
  group("Ethernet1", kMacA)->nhIndexFoundIs(false);
  EXPECT_THAT(trace.texts(), IsEmpty());
  EXPECT_THAT(log.changes(), IsEmpty());
}

}  // namespace

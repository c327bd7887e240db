#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"
#include "framework/Core.h"
#include "framework/DualLog.h"
#include "support/DumpText.h"
#include "support/Stage3Fixture.h"
#include "support/TraceCapture.h"

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using namespace FwdTest::Stage3;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using TestSupport::dump;

// getNextHopMacNhIndex

TEST_F(ViaNexthopMacToNhIndexSmTest, MacSearchReturnsFirstMatchInTableOrder) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  for (uint32_t nhIndex = 1; nhIndex <= 12; ++nhIndex) {
    module->nhIndexToMacIs(nhIndex, mac(nhIndex % 3 == 0 ? kMacA : kMacB));
  }
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacA)), firstInTableOrder(*module, {3, 6, 9, 12}));
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacB)),
            firstInTableOrder(*module, {1, 2, 4, 5, 7, 8, 10, 11}));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, MacSearchWithoutMatchOrModuleIsInvalid) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacA)), kInvalid);
  module->nhIndexToMacIs(7, mac(kMacB));
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacA)), kInvalid);
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacB)), 7u);
  EXPECT_EQ(getNextHopMacNhIndex(nullptr, mac(kMacB)), kInvalid);
}

// Request side and machine lifecycle

TEST_F(ViaNexthopMacToNhIndexSmTest, EntryResolvesToIndexOfItsMac) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));
  EXPECT_TRUE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), 5u);
}

TEST_F(ViaNexthopMacToNhIndexSmTest, NexthopsWithSameMacShareOneGroup) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacA);
  RequesterColl::Ptr shared = group("Ethernet1", kMacA);
  EXPECT_EQ(request("Ethernet1")->requesterCollCount(), 1u);
  EXPECT_EQ(shared->requesterCollCount(), 2u);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.2 Ethernet1", 5}}));

  requestDel("10.0.0.1", "Ethernet1");
  EXPECT_EQ(group("Ethernet1", kMacA), shared);
  EXPECT_TRUE(shared->nhIndexFound());
  EXPECT_EQ(shared->nhIndex(), 5u);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.2 Ethernet1", 5}}));

  requestDel("10.0.0.2", "Ethernet1");
  EXPECT_EQ(group("Ethernet1", kMacA), nullptr);
  EXPECT_THAT(statuses(), IsEmpty());
}

TEST_F(ViaNexthopMacToNhIndexSmTest, SameMacOnTwoInterfacesGivesIndependentGroups) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  moduleIs("Ethernet2")->nhIndexToMacIs(8, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.1", "Ethernet2", kMacA);
  ASSERT_NE(group("Ethernet1", kMacA), nullptr);
  ASSERT_NE(group("Ethernet2", kMacA), nullptr);
  EXPECT_NE(group("Ethernet1", kMacA), group("Ethernet2", kMacA));
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.1 Ethernet2", 8}}));

  l3Modules->nextHopModMutable(intf("Ethernet2"))->nhIndexToMacDel(8);
  EXPECT_FALSE(group("Ethernet2", kMacA)->nhIndexFound());
  EXPECT_TRUE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, EntryWithoutModuleWaitsForModule) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacB);
  ASSERT_NE(request("Ethernet1"), nullptr);
  EXPECT_EQ(machine("Ethernet1"), nullptr);
  EXPECT_THAT(statuses(), IsEmpty());

  NextHopMod::Ptr module = NextHopMod::NextHopModIs(intf("Ethernet1"));
  module->nhIndexToMacIs(5, mac(kMacA));
  module->nhIndexToMacIs(6, mac(kMacB));
  l3Modules->nextHopModIs(module);
  ASSERT_NE(machine("Ethernet1"), nullptr);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.2 Ethernet1", 6}}));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, ModuleRemovalDeletesMachineAndReturnRecreatesIt) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  moduleIs("Ethernet2")->nhIndexToMacIs(9, mac(kMacB));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacA);
  requestIs("10.0.0.3", "Ethernet2", kMacB);
  IntfViaNexthopMacToNhIndexSm::Ptr first = machine("Ethernet1");
  ASSERT_NE(first, nullptr);

  l3Modules->nextHopModDel(intf("Ethernet1"));
  EXPECT_EQ(machine("Ethernet1"), nullptr);
  EXPECT_FALSE(first->hasNotificationActive());
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.3 Ethernet2", 9}}));
  ASSERT_NE(group("Ethernet1", kMacA), nullptr);
  EXPECT_FALSE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), kInvalid);
  EXPECT_TRUE(group("Ethernet2", kMacB)->nhIndexFound());
  first = nullptr;

  l3Modules->nextHopModIs(module);
  ASSERT_NE(machine("Ethernet1"), nullptr);
  EXPECT_EQ(
      statuses(),
      (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.2 Ethernet1", 5}, {"10.0.0.3 Ethernet2", 9}}));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, LastEntryOfInterfaceRemovesRequestAndMachine) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacB);
  ASSERT_NE(machine("Ethernet1"), nullptr);

  requestDel("10.0.0.2", "Ethernet1");
  EXPECT_NE(request("Ethernet1"), nullptr);
  EXPECT_NE(machine("Ethernet1"), nullptr);

  StatusLog log(status);
  TestSupport::TraceCapture trace(kFilter);
  requestDel("10.0.0.1", "Ethernet1");
  EXPECT_EQ(request("Ethernet1"), nullptr);
  EXPECT_EQ(machine("Ethernet1"), nullptr);
  EXPECT_THAT(log.changes(), ElementsAre("del 10.0.0.1 Ethernet1"));
  EXPECT_TRUE(trace.contains(kHandleDel + "Deleting request for interface Ethernet1"));
  EXPECT_TRUE(trace.contains(kHandleRequest + "intfId Ethernet1"));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, MacChangeOfEntryMovesNexthopToNewGroup) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  module->nhIndexToMacIs(6, mac(kMacB));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacB);

  StatusLog log(status);
  TestSupport::TraceCapture trace(kFilter);
  requestIs("10.0.0.1", "Ethernet1", kMacB);
  EXPECT_THAT(log.changes(), ElementsAre("del 10.0.0.1 Ethernet1", "set 10.0.0.1 Ethernet1 6"));
  EXPECT_EQ(group("Ethernet1", kMacA), nullptr);
  EXPECT_EQ(group("Ethernet1", kMacB)->requesterCollCount(), 2u);
  const std::vector<std::string> texts = trace.texts();
  const auto del = std::find(texts.begin(), texts.end(),
                             kHandleDel +
                                 "Find nhIndex request deleted - vrf: red nexthop: 10.0.0.1 "
                                 "intfId: Ethernet1 ethaddr 00:1c:73:00:00:0a");
  const auto add = std::find(texts.begin(), texts.end(),
                             kHandleAdd +
                                 "Find nhIndex request added - vrf: red nexthop: 10.0.0.1 "
                                 "intfId: Ethernet1 ethaddr 00:1c:73:00:00:0b");
  ASSERT_NE(del, texts.end());
  ASSERT_NE(add, texts.end());
  EXPECT_LT(del, add);
  EXPECT_TRUE(trace.contains(kHandleRequester +
                             "Using already found nhIndex : 6 for nexthop: 10.0.0.1 intfId: "
                             "Ethernet1"));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, EntryDeletedWhileItsMacChangeIsHandledLeavesNoRequest) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  module->nhIndexToMacIs(6, mac(kMacB));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  ASSERT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));
  // A client of the status map that sees the status withdrawn for the old MAC and has stage 2
  // drop the entry, so that the deletion is delivered while the MAC change is still handled.
  bool deleted = false;
  auto client =
      TestSupport::recordChanges<NexthopIntfId>(status.get(), ViaNexthopMacToNhIndexMap::mapAttr);
  client->onChange = [&](const NexthopIntfId&) {
    if (deleted) return;
    deleted = true;
    requestDel("10.0.0.1", "Ethernet1");
  };

  requestIs("10.0.0.1", "Ethernet1", kMacB);

  ASSERT_TRUE(deleted);
  EXPECT_THAT(statuses(), IsEmpty());
  EXPECT_EQ(request("Ethernet1"), nullptr);
  EXPECT_EQ(machine("Ethernet1"), nullptr);
}

TEST_F(ViaNexthopMacToNhIndexSmTest, StartClearsOldStatusThenReplaysConfig) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  status->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 99));
  status->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.7", "Ethernet3"), 98));
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.2", "Ethernet1", kMacA);

  StatusLog log(status);
  start();
  ASSERT_EQ(log.changes().size(), 4u);
  EXPECT_THAT(std::vector<std::string>(log.changes().begin(), log.changes().begin() + 2),
              ::testing::UnorderedElementsAre("del 10.0.0.1 Ethernet1", "del 10.0.0.7 Ethernet3"));
  EXPECT_THAT(
      std::vector<std::string>(log.changes().begin() + 2, log.changes().end()),
      ::testing::UnorderedElementsAre("set 10.0.0.1 Ethernet1 5", "set 10.0.0.2 Ethernet1 5"));
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.2 Ethernet1", 5}}));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, RepeatedModuleNotificationKeepsMachine) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  IntfViaNexthopMacToNhIndexSm::Ptr first = machine("Ethernet1");
  TestSupport::TraceCapture trace(kFilter);
  sm->handleNexthopMod(intf("Ethernet1"));
  sm->handleIntfViaNexthopMacToNhIndexRequest(intf("Ethernet1"));
  EXPECT_EQ(machine("Ethernet1"), first);
  // No new machine: its start would have traced.
  EXPECT_EQ(trace.count(kMachine + "handleInitialized()"), 0u);
}

TEST_F(ViaNexthopMacToNhIndexSmTest, ModuleReplacedBeforeStageHearsOfItsRemovalGetsANewMachine) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  NextHopMod::Ptr replacement = NextHopMod::NextHopModIs(intf("Ethernet1"));
  replacement->nhIndexToMacIs(7, mac(kMacA));
  // An engine client, subscribed before the stage, that hears of the removal first and hands a
  // new module over: the stage hears of the new module before it hears of the removal.
  bool replaced = false;
  auto client =
      TestSupport::recordChanges<Netval::IntfId>(l3Modules.get(), L3Modules::nextHopModAttr);
  client->onChange = [&](const Netval::IntfId&) {
    if (replaced) return;
    replaced = true;
    l3Modules->nextHopModIs(replacement);
  };
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  ASSERT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));

  l3Modules->nextHopModDel(intf("Ethernet1"));

  ASSERT_TRUE(replaced);
  ASSERT_NE(machine("Ethernet1"), nullptr);
  EXPECT_EQ(machine("Ethernet1")->nextHopMod().get(), replacement.get());
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 7}}));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, ModuleOfInterfaceWithoutRequestStartsNothing) {
  start();
  TestSupport::TraceCapture trace(kFilter);
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  l3Modules->nextHopModDel(intf("Ethernet1"));
  EXPECT_EQ(sm->allIntfViaNexthopMacToNhIndexSm()->smCount(), 0u);
  EXPECT_THAT(trace.texts(),
              ElementsAre(kHandleNexthopMod + "NexthopMod inserted for intfId : Ethernet1",
                          kHandleNexthopMod + "NexthopMod removed for intfId : Ethernet1"));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, StageCleanupClearsStatusAndResetsGroups) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  RequesterColl::Ptr kept = group("Ethernet1", kMacA);
  ASSERT_TRUE(kept->nhIndexFound());

  TestSupport::TraceCapture trace(kFilter);
  sm->hasNotificationActiveIs(false);
  sm = nullptr;
  EXPECT_THAT(statuses(), IsEmpty());
  EXPECT_FALSE(kept->nhIndexFound());
  EXPECT_EQ(kept->nhIndex(), kInvalid);
  EXPECT_THAT(trace.texts(), ElementsAre(kStage + "doCleanup(): vrfName : red",
                                         kMachine + "doCleanup(): intfId Ethernet1",
                                         kNested + "doCleanup(): mac : 00:1c:73:00:00:0a"));
  kept = nullptr;
}

TEST_F(ViaNexthopMacToNhIndexSmTest, SwitchedOffStageIgnoresChanges) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  module->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  sm->hasNotificationActiveIs(false);
  EXPECT_FALSE(machine("Ethernet1")->hasNotificationActive());
  EXPECT_FALSE(machine("Ethernet1")->requesterColl(mac(kMacA))->hasNotificationActive());
  module->nhIndexToMacDel(5);
  requestIs("10.0.0.2", "Ethernet1", kMacA);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));
  sm->hasNotificationActiveIs(true);
  EXPECT_TRUE(machine("Ethernet1")->requesterColl(mac(kMacA))->hasNotificationActive());
}

TEST_F(ViaNexthopMacToNhIndexSmTest, SmIsKeepsMachineBuiltFromSameArguments) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  AllIntfViaNexthopMacToNhIndexSm::Ptr machines = sm->allIntfViaNexthopMacToNhIndexSm();
  IntfViaNexthopMacToNhIndexSm::Ptr first = machine("Ethernet1");
  EXPECT_EQ(machines->smIs(intf("Ethernet1"), request("Ethernet1"), module, status), first);
  EXPECT_EQ(machines->smCount(), 1u);

  NextHopMod::Ptr other = NextHopMod::NextHopModIs(intf("Ethernet1"));
  EXPECT_THROW(machines->smIs(intf("Ethernet1"), request("Ethernet1"), other, status),
               Core::ReinstantiationError);
  EXPECT_THROW(machines->smIs(intf("Ethernet1"), request("Ethernet1"), module,
                              viaNexthopMacToNhIndexMapFactory(vrf("red"))),
               Core::ReinstantiationError);
  EXPECT_EQ(machine("Ethernet1"), first);
}

TEST_F(ViaNexthopMacToNhIndexSmTest, SmDelAllCleansEveryMachine) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  moduleIs("Ethernet2")->nhIndexToMacIs(6, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  requestIs("10.0.0.1", "Ethernet2", kMacA);
  ASSERT_EQ(statuses().size(), 2u);
  sm->allIntfViaNexthopMacToNhIndexSm()->smDelAll();
  EXPECT_EQ(sm->allIntfViaNexthopMacToNhIndexSm()->smCount(), 0u);
  EXPECT_THAT(statuses(), IsEmpty());
  EXPECT_FALSE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_FALSE(group("Ethernet2", kMacA)->nhIndexFound());
  EXPECT_FALSE(sm->allIntfViaNexthopMacToNhIndexSm()->smDel(intf("Ethernet1")));
}

TEST_F(ViaNexthopMacToNhIndexSmTest, FactoryKeepsArgumentsAndStartsActive) {
  start();
  EXPECT_EQ(sm->vrfName(), vrf("red"));
  EXPECT_EQ(sm->config().get(), config.get());
  EXPECT_EQ(sm->l3Modules().get(), l3Modules.get());
  EXPECT_EQ(sm->status(), status);
  EXPECT_TRUE(sm->hasNotificationActive());
  EXPECT_EQ(sm->allIntfViaNexthopMacToNhIndexRequest()->requestCount(), 0u);
}

// Traces of the stage

TEST_F(ViaNexthopMacToNhIndexSmTest, TracesStartAndRequestLifecycle) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  TestSupport::TraceCapture trace(kFilter);
  start();
  EXPECT_THAT(
      trace.texts(),
      ElementsAre(
          kStage + "handleInitialized(): vrfName : red", kStage + "handleConfig(): vrfName : red",
          kHandleAdd + "Find nhIndex request added - vrf: red nexthop: 10.0.0.1 intfId: Ethernet1 "
                       "ethaddr 00:1c:73:00:00:0a",
          kHandleAdd + "New request for interface Ethernet1", kHandleRequest + "intfId Ethernet1",
          kMachine + "handleInitialized(): intfId Ethernet1",
          kNested + "handleInitialized(): mac : 00:1c:73:00:00:0a",
          kNested + "handleInitialized(): Found nhIndex : 5 for mac: 00:1c:73:00:00:0a",
          kAddStatusHelper +
              "nhIndex : 5 found for mac : 00:1c:73:00:00:0a under intfId : Ethernet1",
          kHandleRequester + "mac : 00:1c:73:00:00:0a, nexthop : 10.0.0.1",
          kHandleRequester +
              "Using already found nhIndex : 5 for nexthop: 10.0.0.1 intfId: Ethernet1"));

  trace.clear();
  l3Modules->nextHopModDel(intf("Ethernet1"));
  EXPECT_THAT(trace.texts(),
              ElementsAre(kHandleNexthopMod + "NexthopMod removed for intfId : Ethernet1",
                          kHandleNexthopMod +
                              "Deleting IntfViaNexthopMacToNhIndexSm for intfId : Ethernet1",
                          kMachine + "doCleanup(): intfId Ethernet1",
                          kNested + "doCleanup(): mac : 00:1c:73:00:00:0a"));

  trace.clear();
  moduleIs("Ethernet1");
  EXPECT_THAT(trace.texts(),
              ElementsAre(kHandleNexthopMod + "NexthopMod inserted for intfId : Ethernet1",
                          kHandleNexthopMod +
                              "Creating IntfViaNexthopMacToNhIndexSm for intfId : Ethernet1",
                          kMachine + "handleInitialized(): intfId Ethernet1",
                          kNested + "handleInitialized(): mac : 00:1c:73:00:00:0a"));

  trace.clear();
  requestDel("10.0.0.1", "Ethernet1");
  EXPECT_THAT(
      trace.texts(),
      ElementsAre(kHandleDel + "Find nhIndex request deleted - vrf: red nexthop: 10.0.0.1 "
                               "intfId: Ethernet1 ethaddr 00:1c:73:00:00:0a",
                  kHandleRequester + "mac : 00:1c:73:00:00:0a, nexthop : 10.0.0.1",
                  kHandleRequester + "Deleting status for nexthop: 10.0.0.1 intfId: Ethernet1",
                  kHandleDel + "Deleting request for interface Ethernet1",
                  kHandleRequest + "intfId Ethernet1",
                  // The group's watcher went with the group, before the machine's clean-up.
                  kMachine + "doCleanup(): intfId Ethernet1"));
}

// Dumps of the stage

TEST_F(ViaNexthopMacToNhIndexSmTest, DumpShowsConfigStatusRequestsAndMachines) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_EQ(dump(*sm),
            "ViaNexthopMacToNhIndexSm - red\n"
            "  config\n"
            "    NexthopToViaNexthopMacMap\n"
            "      map: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1, viaNexthop 10.0.0.254, macAddr "
            "00:1c:73:00:00:0a\n"
            "  status\n"
            "    -> FwdL3Unicast::ViaNexthopMacToNhIndexMap\n"
            "  allIntfViaNexthopMacToNhIndexRequest: #1\n"
            "  allIntfViaNexthopMacToNhIndexSm: #1\n"
            "    IntfViaNexthopMacToNhIndexSm - interface Ethernet1\n"
            "      IntfViaNexthopMacToNhIndexRequest - interface Ethernet1\n"
            "        requesterColl: #1\n"
            "          RequesterColl - macAddr 00:1c:73:00:00:0a\n"
            "            nhIndexFound - yes\n"
            "            nhIndex - 5\n"
            "            requesterColl: #1\n"
            "              nexthop - 10.0.0.1\n");
}

TEST_F(ViaNexthopMacToNhIndexSmTest, DumpAtIndentWithoutModulePrintsCountsOnly) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_EQ(dump(*sm, 2),
            "  ViaNexthopMacToNhIndexSm - red\n"
            "    config\n"
            "      NexthopToViaNexthopMacMap\n"
            "        map: #1\n"
            "          interface Ethernet1, nexthop 10.0.0.1, viaNexthop 10.0.0.254, macAddr "
            "00:1c:73:00:00:0a\n"
            "    status\n"
            "      -> FwdL3Unicast::ViaNexthopMacToNhIndexMap\n"
            "    allIntfViaNexthopMacToNhIndexRequest: #1\n"
            "    allIntfViaNexthopMacToNhIndexSm: #0\n");
}

TEST_F(ViaNexthopMacToNhIndexSmTest, NewGroupDumpsNotFoundAndInvalidIndex) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacB));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_EQ(dump(*machine("Ethernet1")),
            "IntfViaNexthopMacToNhIndexSm - interface Ethernet1\n"
            "  IntfViaNexthopMacToNhIndexRequest - interface Ethernet1\n"
            "    requesterColl: #1\n"
            "      RequesterColl - macAddr 00:1c:73:00:00:0a\n"
            "        nhIndexFound - no\n"
            "        nhIndex - 4294967295\n"
            "        requesterColl: #1\n"
            "          nexthop - 10.0.0.1\n");
  EXPECT_THAT(statuses(), IsEmpty());
}

// Assertions of the stage

TEST_F(ViaNexthopMacToNhIndexSmDeathTest, SameNexthopTwiceUnderOneMacAsserts) {
  start();
  sm->handleAdd(entry("10.0.0.1", "Ethernet1", kMacA));
  EXPECT_DEATH(sm->handleAdd(entry("10.0.0.1", "Ethernet1", kMacA)),
               assertionFailure("!macRequester->requesterCollHas( nexthop )", kCommonUnit));
}

TEST_F(ViaNexthopMacToNhIndexSmDeathTest, DeletingEntryOfUnknownInterfaceAsserts) {
  start();
  EXPECT_DEATH(sm->handleDel(entry("10.0.0.1", "Ethernet1", kMacA)), assertionFailure("request"));
}

TEST_F(ViaNexthopMacToNhIndexSmDeathTest, DeletingEntryOfUnknownMacAsserts) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_DEATH(sm->handleDel(entry("10.0.0.1", "Ethernet1", kMacB)),
               assertionFailure("macRequester", kCommonUnit));
}

TEST_F(ViaNexthopMacToNhIndexSmDeathTest, DeletingUnknownNexthopOfGroupAsserts) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_DEATH(sm->handleDel(entry("10.0.0.2", "Ethernet1", kMacA)),
               assertionFailure("macRequester->requesterCollHas( nexthop )", kCommonUnit));
}

TEST_F(ViaNexthopMacToNhIndexSmDeathTest, RequestWithoutL3ModulesAsserts) {
  sm = viaNexthopMacToNhIndexSmFactory(vrf("red"), config, nullptr, status);
  EXPECT_DEATH(requestIs("10.0.0.1", "Ethernet1", kMacA), assertionFailure("l3Modules()"));
}

TEST_F(ViaNexthopMacToNhIndexSmDeathTest, ModuleGoneBetweenLookupsAsserts) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  // The module disappears while its insertion is traced, between the two lookups.
  EXPECT_DEATH(
      {
        DualLog::textSinkIs([this](const DualLog::TextRecord& record) {
          if (record.text.find("NexthopMod inserted") != std::string_view::npos) {
            l3Modules->nextHopModDel(intf("Ethernet1"));
          }
        });
        DualLog::textFilterIs(kFilter);
        moduleIs("Ethernet1");
      },
      assertionFailure("nextHopMod"));
}

}  // namespace

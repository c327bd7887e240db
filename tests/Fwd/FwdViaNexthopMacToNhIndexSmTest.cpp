#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/CoreDump.h"
#include "framework/DualLog.h"
#include "platform/L3Modules.h"
#include "support/FwdTestValues.h"
#include "support/TraceCapture.h"

namespace {

using namespace FwdL3Unicast;
using FwdTest::intf;
using FwdTest::ip;
using FwdTest::mac;
using FwdTest::nhIntf;
using FwdTest::vrf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint32_t kInvalid = NexthopNhIndexResolverConstants::invalidNhIndex();
constexpr std::string_view kMacA = "00:1c:73:00:00:0a";
constexpr std::string_view kMacB = "00:1c:73:00:00:0b";
constexpr std::string_view kMacC = "00:1c:73:00:00:0c";
constexpr std::string_view kCommonUnit = "FwdNexthopNhIndexResolverCommon";
constexpr const char* kFilter = "FwdViaNexthopMacToNhIndexSm/8";

// Function texts of the traced operations, as GCC prints them.
const std::string kStage = "void FwdL3Unicast::ViaNexthopMacToNhIndexSm::";
const std::string kMachine = "void FwdL3Unicast::IntfViaNexthopMacToNhIndexSm::";
const std::string kNested =
    "void FwdL3Unicast::IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::";
const std::string kHandleAdd =
    kStage + "handleAdd(const FwdL3Unicast::NexthopToViaNexthopMacMapEntry&): ";
const std::string kHandleDel =
    kStage + "handleDel(const FwdL3Unicast::NexthopToViaNexthopMacMapEntry&): ";
const std::string kHandleRequest =
    kStage + "handleIntfViaNexthopMacToNhIndexRequest(Netval::IntfId): ";
const std::string kHandleNexthopMod = kStage + "handleNexthopMod(Netval::IntfId): ";
const std::string kAddStatus =
    kMachine + "addStatus(const FwdL3Unicast::RequesterColl::Ptr&, uint32_t): ";
const std::string kAddStatusHelper =
    kMachine + "addStatusHelper(const FwdL3Unicast::RequesterColl::Ptr&, uint32_t): ";
const std::string kDelStatus =
    kMachine + "delStatus(const FwdL3Unicast::RequesterColl::Ptr&, uint32_t): ";
const std::string kHandleNhIndexToMac = kMachine + "handleNhIndexToMac(uint32_t): ";
const std::string kHandleRequester = kNested + "handleRequester(const Netval::IpGenAddr&): ";

// The regular expression of an assertion failure with exactly `expression`, raised in `unit`.
std::string assertionFailure(std::string_view expression,
                             std::string_view unit = "FwdViaNexthopMacToNhIndexSm") {
  std::string escaped;
  for (char c : expression) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) escaped += '\\';
    escaped += c;
  }
  return "Assertion failed: \"" + escaped + "\" in " + std::string(unit) + " line";
}

std::string statusName(const NexthopIntfId& key) {
  return key.nexthop().toString() + " " + key.intfId().name();
}

// The VRF's status map as "nexthop interface" -> nhIndex.
std::map<std::string, uint32_t> statuses(const ViaNexthopMacToNhIndexMap& status) {
  std::map<std::string, uint32_t> out;
  for (const ViaNexthopMacToNhIndexMapEntry& entry : status.map()) {
    out[statusName(entry.nexthopIntfId())] = entry.nhIndex();
  }
  return out;
}

// Every change of a status map in publication order: "set <nexthop> <intf> <nhIndex>" or
// "del <nexthop> <intf>".
class StatusLog {
 public:
  explicit StatusLog(const ViaNexthopMacToNhIndexMap::Ptr& status)
      : recorder_(
            FwdTest::recordKeys<NexthopIntfId>(status.get(), ViaNexthopMacToNhIndexMap::mapAttr)) {
    const ViaNexthopMacToNhIndexMap* map = status.get();
    recorder_->onChange = [this, map](const NexthopIntfId& key) {
      const auto values = Core::getNotifyValues<ViaNexthopMacToNhIndexMapEntry>(
          map, ViaNexthopMacToNhIndexMap::mapAttr);
      if (values.newValue) {
        changes_.push_back("set " + statusName(key) + " " +
                           std::to_string(values.newValue->nhIndex()));
      } else {
        changes_.push_back("del " + statusName(key));
      }
    };
  }
  StatusLog(const StatusLog&) = delete;
  StatusLog& operator=(const StatusLog&) = delete;

  const std::vector<std::string>& changes() const { return changes_; }
  void clear() { changes_.clear(); }

 private:
  Core::Ptr<FwdTest::KeyRecorder<NexthopIntfId>> recorder_;
  std::vector<std::string> changes_;
};

// The table of a module in its iteration order.
std::vector<std::pair<uint32_t, Netval::EthAddr>> tableOrder(const NextHopMod& module) {
  std::vector<std::pair<uint32_t, Netval::EthAddr>> out;
  for (const auto& entry : module.nhIndexToMac()) out.emplace_back(entry.key, entry.value);
  return out;
}

// The index that comes first in the module's iteration order among `candidates`.
uint32_t firstInTableOrder(const NextHopMod& module, std::vector<uint32_t> candidates) {
  for (const auto& [nhIndex, ethAddr] : tableOrder(module)) {
    for (uint32_t candidate : candidates) {
      if (candidate == nhIndex) return nhIndex;
    }
  }
  return kInvalid;
}

std::string dump(const Core::Node& node, uint32_t indent = 0) {
  Core::DumpContext ctx;
  node.dumpState(ctx, indent);
  return ctx.text();
}

// Stage 3 of VRF "red" with the inputs the pipeline and the engine hand it: a stage-2 map that
// the test writes as stage 2 would, the engine's L3 modules and the VRF's status map. Every test
// ends by releasing everything and checking that no entity is left alive.
class Stage3Test : public ::testing::Test {
 protected:
  void TearDown() override {
    sm = nullptr;
    config = nullptr;
    l3Modules = nullptr;
    status = nullptr;
    EXPECT_EQ(Core::Node::liveCount(), liveAtStart_);
  }

  void start() { sm = viaNexthopMacToNhIndexSmFactory(vrf("red"), config, l3Modules, status); }

  NextHopMod::Ptr moduleIs(std::string_view intfName) {
    return l3Modules->nextHopModIs(NextHopMod::NextHopModIs(intf(intfName)));
  }
  // Writes the entry stage 2 would write for (nexthop, interface) once the via has `macText`.
  void requestIs(std::string_view nexthop, std::string_view intfName, std::string_view macText) {
    config->mapIs(
        NexthopToViaNexthopMacMapEntry(nhIntf(nexthop, intfName), ip("10.0.0.254"), mac(macText)));
  }
  void requestDel(std::string_view nexthop, std::string_view intfName) {
    config->mapDel(nhIntf(nexthop, intfName));
  }
  IntfViaNexthopMacToNhIndexRequest::Ptr request(std::string_view intfName) const {
    return sm->allIntfViaNexthopMacToNhIndexRequest()->request(intf(intfName));
  }
  RequesterColl::Ptr group(std::string_view intfName, std::string_view macText) const {
    IntfViaNexthopMacToNhIndexRequest::Ptr record = request(intfName);
    return record ? record->requesterColl(mac(macText)) : nullptr;
  }
  IntfViaNexthopMacToNhIndexSm::Ptr machine(std::string_view intfName) const {
    return sm->allIntfViaNexthopMacToNhIndexSm()->sm(intf(intfName));
  }
  std::map<std::string, uint32_t> statuses() const { return ::statuses(*status); }

  // Counted before the inputs below are built.
  const int64_t liveAtStart_ = Core::Node::liveCount();
  NexthopToViaNexthopMacMap::Ptr config = nexthopToViaNexthopMacMapFactory();
  L3Modules::Ptr l3Modules = L3Modules::L3ModulesIs();
  ViaNexthopMacToNhIndexMap::Ptr status = viaNexthopMacToNhIndexMapFactory(vrf("red"));
  ViaNexthopMacToNhIndexSm::Ptr sm;
};

using Stage3DeathTest = Stage3Test;

using StatusMap = std::map<std::string, uint32_t>;

// getNextHopMacNhIndex

TEST_F(Stage3Test, MacSearchReturnsFirstMatchInTableOrder) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  for (uint32_t nhIndex = 1; nhIndex <= 12; ++nhIndex) {
    module->nhIndexToMacIs(nhIndex, mac(nhIndex % 3 == 0 ? kMacA : kMacB));
  }
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacA)), firstInTableOrder(*module, {3, 6, 9, 12}));
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacB)),
            firstInTableOrder(*module, {1, 2, 4, 5, 7, 8, 10, 11}));
}

TEST_F(Stage3Test, MacSearchWithoutMatchOrModuleIsInvalid) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacA)), kInvalid);
  module->nhIndexToMacIs(7, mac(kMacB));
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacA)), kInvalid);
  EXPECT_EQ(getNextHopMacNhIndex(module, mac(kMacB)), 7u);
  EXPECT_EQ(getNextHopMacNhIndex(nullptr, mac(kMacB)), kInvalid);
}

// Request side and machine lifecycle

TEST_F(Stage3Test, EntryResolvesToIndexOfItsMac) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));
  EXPECT_TRUE(group("Ethernet1", kMacA)->nhIndexFound());
  EXPECT_EQ(group("Ethernet1", kMacA)->nhIndex(), 5u);
}

TEST_F(Stage3Test, NexthopsWithSameMacShareOneGroup) {
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

TEST_F(Stage3Test, SameMacOnTwoInterfacesGivesIndependentGroups) {
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

TEST_F(Stage3Test, EntryWithoutModuleWaitsForModule) {
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

TEST_F(Stage3Test, ModuleRemovalDeletesMachineAndReturnRecreatesIt) {
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

TEST_F(Stage3Test, LastEntryOfInterfaceRemovesRequestAndMachine) {
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

TEST_F(Stage3Test, MacChangeOfEntryMovesNexthopToNewGroup) {
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

TEST_F(Stage3Test, StartClearsOldStatusThenReplaysConfig) {
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

TEST_F(Stage3Test, RepeatedModuleNotificationKeepsMachine) {
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

TEST_F(Stage3Test, ModuleOfInterfaceWithoutRequestStartsNothing) {
  start();
  TestSupport::TraceCapture trace(kFilter);
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  l3Modules->nextHopModDel(intf("Ethernet1"));
  EXPECT_EQ(sm->allIntfViaNexthopMacToNhIndexSm()->smCount(), 0u);
  EXPECT_THAT(trace.texts(),
              ElementsAre(kHandleNexthopMod + "NexthopMod inserted for intfId : Ethernet1",
                          kHandleNexthopMod + "NexthopMod removed for intfId : Ethernet1"));
}

TEST_F(Stage3Test, StageCleanupClearsStatusAndResetsGroups) {
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

TEST_F(Stage3Test, SwitchedOffStageIgnoresChanges) {
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

TEST_F(Stage3Test, SmIsKeepsMachineBuiltFromSameArguments) {
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

TEST_F(Stage3Test, SmDelAllCleansEveryMachine) {
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

TEST_F(Stage3Test, FactoryKeepsArgumentsAndStartsActive) {
  start();
  EXPECT_EQ(sm->vrfName(), vrf("red"));
  EXPECT_EQ(sm->config().get(), config.get());
  EXPECT_EQ(sm->l3Modules().get(), l3Modules.get());
  EXPECT_EQ(sm->status(), status);
  EXPECT_TRUE(sm->hasNotificationActive());
  EXPECT_EQ(sm->allIntfViaNexthopMacToNhIndexRequest()->requestCount(), 0u);
}

// Traces of the stage

TEST_F(Stage3Test, TracesStartAndRequestLifecycle) {
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

TEST_F(Stage3Test, DumpShowsConfigStatusRequestsAndMachines) {
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

TEST_F(Stage3Test, DumpAtIndentWithoutModulePrintsCountsOnly) {
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

TEST_F(Stage3Test, NewGroupDumpsNotFoundAndInvalidIndex) {
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

TEST_F(Stage3DeathTest, SameNexthopTwiceUnderOneMacAsserts) {
  start();
  const NexthopToViaNexthopMacMapEntry entry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"),
                                             mac(kMacA));
  sm->handleAdd(entry);
  EXPECT_DEATH(sm->handleAdd(entry),
               assertionFailure("!macRequester->requesterCollHas( nexthop )", kCommonUnit));
}

TEST_F(Stage3DeathTest, DeletingEntryOfUnknownInterfaceAsserts) {
  start();
  EXPECT_DEATH(sm->handleDel(NexthopToViaNexthopMacMapEntry(nhIntf("10.0.0.1", "Ethernet1"),
                                                            ip("10.0.0.254"), mac(kMacA))),
               assertionFailure("request"));
}

TEST_F(Stage3DeathTest, DeletingEntryOfUnknownMacAsserts) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_DEATH(sm->handleDel(NexthopToViaNexthopMacMapEntry(nhIntf("10.0.0.1", "Ethernet1"),
                                                            ip("10.0.0.254"), mac(kMacB))),
               assertionFailure("macRequester", kCommonUnit));
}

TEST_F(Stage3DeathTest, DeletingUnknownNexthopOfGroupAsserts) {
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  EXPECT_DEATH(sm->handleDel(NexthopToViaNexthopMacMapEntry(nhIntf("10.0.0.2", "Ethernet1"),
                                                            ip("10.0.0.254"), mac(kMacA))),
               assertionFailure("macRequester->requesterCollHas( nexthop )", kCommonUnit));
}

TEST_F(Stage3DeathTest, RequestWithoutL3ModulesAsserts) {
  sm = viaNexthopMacToNhIndexSmFactory(vrf("red"), config, nullptr, status);
  EXPECT_DEATH(requestIs("10.0.0.1", "Ethernet1", kMacA), assertionFailure("l3Modules()"));
}

TEST_F(Stage3DeathTest, ModuleGoneBetweenLookupsAsserts) {
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

// Per-interface matching

TEST_F(Stage3Test, GroupTakesFirstOfTwoIndexesWithSameMacAtStart) {
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

TEST_F(Stage3Test, GroupMovesToNextIndexWithSameMac) {
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

TEST_F(Stage3Test, LosingLastIndexOfMacWithdrawsGroupStatuses) {
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

TEST_F(Stage3Test, MacChangeOnIndexMovesItBetweenGroups) {
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

TEST_F(Stage3Test, MacChangeOnIndexMovesOldGroupToItsOtherIndex) {
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

TEST_F(Stage3Test, IndexWithUnrequestedMacIsIgnored) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  StatusLog log(status);
  module->nhIndexToMacIs(5, mac(kMacC));
  module->nhIndexToMacDel(5);
  EXPECT_THAT(log.changes(), IsEmpty());
  EXPECT_FALSE(group("Ethernet1", kMacA)->nhIndexFound());
}

TEST_F(Stage3Test, NexthopJoiningFoundGroupGetsStatusAtOnce) {
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

TEST_F(Stage3Test, NexthopLeavingUnfoundGroupIsTracedAndWritesNothing) {
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

TEST_F(Stage3Test, FoundFlagIsSetBeforeIndex) {
  NextHopMod::Ptr module = moduleIs("Ethernet1");
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  RequesterColl::Ptr watched = group("Ethernet1", kMacA);
  std::vector<std::string> order;
  auto found = FwdTest::recordKeys<bool>(watched.get(), RequesterColl::nhIndexFoundAttr);
  found->onChange = [&order](bool value) { order.push_back(value ? "found" : "not found"); };
  auto index = FwdTest::recordKeys<uint32_t>(watched.get(), RequesterColl::nhIndexAttr);
  index->onChange = [&order](uint32_t value) { order.push_back(std::to_string(value)); };
  module->nhIndexToMacIs(5, mac(kMacA));
  module->nhIndexToMacDel(5);
  EXPECT_THAT(order, ElementsAre("found", "5", "not found", std::to_string(kInvalid)));
}

TEST_F(Stage3Test, ModuleRemovalKeepsOtherInterfacesEntries) {
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

TEST_F(Stage3Test, MachineStartRemovesLeftoverEntriesOfItsInterfaceOnly) {
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

TEST_F(Stage3Test, FoundIndexIsTracedAtLevelSeven) {
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

TEST_F(Stage3Test, LevelSevenFilterShowsOnlyFoundIndex) {
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

TEST_F(Stage3Test, AddStatusHelperTracesEveryNexthop) {
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

TEST_F(Stage3Test, ReplacedGroupObjectIsWatchedWithoutNewLookup) {
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

TEST_F(Stage3Test, MachineStartsWatcherForEveryExistingGroup) {
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

TEST_F(Stage3Test, NestedWatcherWithoutGroupHasZeroMac) {
  moduleIs("Ethernet1")->nhIndexToMacIs(5, mac(kMacA));
  start();
  requestIs("10.0.0.1", "Ethernet1", kMacA);
  auto nested = IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::NestedSm_RequesterCollIs(
      group("Ethernet1", kMacA), machine("Ethernet1").get());
  nested->notifierIs(nullptr);
  EXPECT_EQ(nested->macAddr(), Netval::EthAddr());
  EXPECT_EQ(nested->requesterColl(), nullptr);
}

TEST_F(Stage3Test, WatcherFollowsNexthopsOnlyNotGroupIndex) {
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

// Assertions of the per-interface machine

class IntfMachineTest : public Stage3Test {
 protected:
  // A machine on its own, built from a request record and module prepared by the test.
  void SetUp() override {
    request_ =
        AllIntfViaNexthopMacToNhIndexRequest::AllIntfViaNexthopMacToNhIndexRequestIs()->requestIs(
            intf("Ethernet1"));
    module_ = moduleIs("Ethernet1");
  }
  void TearDown() override {
    machine_ = nullptr;
    request_ = nullptr;
    module_ = nullptr;
    Stage3Test::TearDown();
  }
  IntfViaNexthopMacToNhIndexSm::Ptr build(const Core::Ptr<const NextHopMod>& module,
                                          const ViaNexthopMacToNhIndexMap::Ptr& map) {
    machine_ = IntfViaNexthopMacToNhIndexSm::IntfViaNexthopMacToNhIndexSmIs(intf("Ethernet1"),
                                                                            request_, module, map);
    return machine_;
  }

  IntfViaNexthopMacToNhIndexRequest::Ptr request_;
  NextHopMod::Ptr module_;
  IntfViaNexthopMacToNhIndexSm::Ptr machine_;
};

using IntfMachineDeathTest = IntfMachineTest;

TEST_F(IntfMachineDeathTest, MachineWithoutRequestAsserts) {
  EXPECT_DEATH(IntfViaNexthopMacToNhIndexSm::IntfViaNexthopMacToNhIndexSmIs(
                   intf("Ethernet1"), nullptr, module_, status),
               assertionFailure("intfViaNexthopMacToNhIndexRequest()"));
}

TEST_F(IntfMachineDeathTest, NullGroupAsserts) {
  build(module_, status);
  EXPECT_DEATH(machine_->addStatus(nullptr, 5), assertionFailure("requester"));
  EXPECT_DEATH(machine_->addStatusHelper(nullptr, 5), assertionFailure("requester"));
  EXPECT_DEATH(machine_->delStatus(nullptr, 5), assertionFailure("requester"));
}

TEST_F(IntfMachineDeathTest, PublishingInvalidIndexAsserts) {
  build(module_, status);
  EXPECT_DEATH(machine_->addStatusHelper(RequesterColl::RequesterCollIs(mac(kMacA)), kInvalid),
               assertionFailure("NexthopNhIndexResolverConstants::invalidNhIndex() != nhIndex"));
}

TEST_F(IntfMachineDeathTest, LosingIndexOfUnfoundGroupAsserts) {
  build(module_, status);
  EXPECT_DEATH(machine_->delStatus(RequesterColl::RequesterCollIs(mac(kMacA)), kInvalid),
               assertionFailure("requester->nhIndexFound()"));
}

TEST_F(IntfMachineDeathTest, TableChangeWithoutModuleAsserts) {
  request_->addRequester(mac(kMacA), ip("10.0.0.1"));
  build(nullptr, status);
  EXPECT_DEATH(machine_->handleMacAdd(mac(kMacA), 5), assertionFailure("nextHopMod()"));
  EXPECT_DEATH(machine_->handleMacDel(mac(kMacA), 5), assertionFailure("nextHopMod()"));
}

TEST_F(IntfMachineDeathTest, WatcherWithoutGroupOrMachineAsserts) {
  build(module_, status);
  using Nested = IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl;
  EXPECT_DEATH(Nested::NestedSm_RequesterCollIs(nullptr, machine_.get()),
               assertionFailure("requesterColl()"));
  EXPECT_DEATH(
      Nested::NestedSm_RequesterCollIs(RequesterColl::RequesterCollIs(mac(kMacA)), nullptr),
      assertionFailure("intfViaNexthopMacToNhIndexSm()"));
}

TEST_F(IntfMachineDeathTest, WatcherEventWithoutGroupAsserts) {
  build(module_, status);
  auto nested = IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::NestedSm_RequesterCollIs(
      RequesterColl::RequesterCollIs(mac(kMacA)), machine_.get());
  nested->notifierIs(nullptr);
  EXPECT_DEATH(nested->handleRequester(ip("10.0.0.1")), assertionFailure("requesterColl()"));
}

TEST_F(IntfMachineDeathTest, FoundGroupWithoutStatusMapAsserts) {
  module_->nhIndexToMacIs(5, mac(kMacA));
  build(module_, nullptr);
  // The new group is found while still empty; its first nexthop needs the status map.
  EXPECT_DEATH(request_->addRequester(mac(kMacA), ip("10.0.0.1")),
               assertionFailure("intfViaNexthopMacToNhIndexSm()->status()"));
}

// The per-interface machine on its own

TEST_F(IntfMachineTest, MachineKeepsArgumentsAndCleansOnlyItsInterface) {
  module_->nhIndexToMacIs(5, mac(kMacA));
  request_->addRequester(mac(kMacA), ip("10.0.0.1"));
  status->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet2"), 3));
  build(module_, status);
  EXPECT_EQ(machine_->intfId(), intf("Ethernet1"));
  EXPECT_EQ(machine_->intfViaNexthopMacToNhIndexRequest(), request_);
  EXPECT_EQ(machine_->nextHopMod().get(), module_.get());
  EXPECT_EQ(machine_->status(), status);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.1 Ethernet2", 3}}));

  machine_->cleanupStatus();
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet2", 3}}));
  EXPECT_TRUE(request_->requesterColl(mac(kMacA))->nhIndexFound());

  machine_->doCleanup();
  EXPECT_FALSE(request_->requesterColl(mac(kMacA))->nhIndexFound());
}

TEST_F(IntfMachineTest, GroupLeftFoundIsRewrittenWithSearchResultAtStart) {
  module_->nhIndexToMacIs(5, mac(kMacA));
  request_->addRequester(mac(kMacA), ip("10.0.0.1"));
  RequesterColl::Ptr stale = request_->requesterColl(mac(kMacA));
  stale->nhIndexFoundIs(true);
  stale->nhIndexIs(99);
  TestSupport::TraceCapture trace(kFilter);
  build(module_, status);
  EXPECT_TRUE(
      trace.contains(kAddStatus + "NhIndex already found for mac : 00:1c:73:00:00:0a..skipping"));
  EXPECT_TRUE(trace.contains(kNested +
                             "handleInitialized(): Found nhIndex : 5 for mac: 00:1c:73:00:00:0a"));
  EXPECT_EQ(stale->nhIndex(), 5u);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));
}

TEST_F(IntfMachineTest, MachineStartMatchesEveryGroupWithFirstIndexOfItsMac) {
  // 64 indexes over 16 MACs, in an order unrelated to the index values; groups for 20 MACs.
  for (uint32_t i = 0; i < 64; ++i)
    module_->nhIndexToMacIs((i * 37) % 101, Netval::EthAddr(i % 16));
  for (uint32_t m = 0; m < 20; ++m) {
    request_->addRequester(Netval::EthAddr(m), Netval::IpGenAddr::ipv4(0x0a000001u + m));
  }
  build(module_, status);
  for (uint32_t m = 0; m < 20; ++m) {
    const uint32_t expected = getNextHopMacNhIndex(module_, Netval::EthAddr(m));
    const RequesterColl::Ptr matched = request_->requesterColl(Netval::EthAddr(m));
    const NexthopIntfId key(Netval::IpGenAddr::ipv4(0x0a000001u + m), intf("Ethernet1"));
    EXPECT_EQ(matched->nhIndex(), expected) << m;
    EXPECT_EQ(matched->nhIndexFound(), m < 16) << m;
    EXPECT_EQ(status->mapHas(key), m < 16) << m;
    if (m < 16) {
      EXPECT_EQ(status->map(key).nhIndex(), expected) << m;
    }
  }
}

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Fwd/FwdViaNexthopToViaNexthopMacSm.h"
#include "framework/CoreDump.h"
#include "platform/Plane.h"
#include "support/ChangeRecorder.h"
#include "support/DumpText.h"
#include "support/FwdTestValues.h"
#include "support/ResolverFixture.h"
#include "support/TraceCapture.h"

namespace {

using namespace FwdL3Unicast;
using Arp::ProactiveArp::ClientConfig;
using Arp::ProactiveArp::ClientEntry;
using namespace FwdTest;
using Plane::NextHopInfo;
using Plane::NextHopKey;
using TestSupport::dump;
using TestSupport::recordChanges;

const std::string kFn = "void FwdL3Unicast::ViaNexthopToViaNexthopMacSm::";
const std::string kInitialized = kFn + "handleInitialized(): ";
const std::string kConfig = kFn + "handleConfig(): ";
const std::string kAdd = kFn + "handleAdd(const FwdL3Unicast::NexthopToViaNexthopMapEntry&): ";
const std::string kDel = kFn + "handleDel(const FwdL3Unicast::NexthopToViaNexthopMapEntry&): ";
const std::string kVia = kFn + "handleViaNexthopRequest(const FwdL3Unicast::NexthopIntfId&): ";
const std::string kNeighbour = kFn + "handleNexthopInfo(const Plane::NextHopKey&): ";
const std::string kCheck = kFn + "checkAndUpdateMac(const Ptr&): ";
const std::string kCleanup = kFn + "doCleanup(): ";

constexpr std::string_view kTraceFilter = "FwdViaNexthopToViaNexthopMacSm/9";

// The egress interface of every via below, and the L2 port its neighbours are learnt on.
constexpr std::string_view kIntf = "Vlan10";
constexpr std::string_view kL2 = "Ethernet7";
constexpr std::string_view kViaA = "10.0.0.254";
constexpr std::string_view kViaB = "10.0.1.254";
constexpr std::string_view kMac1 = "00:1c:73:aa:bb:01";
constexpr std::string_view kMac2 = "00:1c:73:aa:bb:02";

// The plane id given to "red"; proactive ARP knows it as planeVrfIdToArpVrfId(5).
constexpr Plane::VrfId kRedId = 5;
constexpr Vrf::VrfIdMap::VrfId kRedArpId = kRedId + Plane::VrfL3StatusAll::arpVrfIdOffset;

NextHopKey neighbourKey(std::string_view via, std::string_view intfName = kIntf) {
  return NextHopKey(intf(intfName), ip(via));
}

ClientEntry arpEntry(std::string_view via, Vrf::VrfIdMap::VrfId arpVrfId = kRedArpId) {
  return ClientEntry(neighbourKey(via), arpVrfId);
}

NexthopToViaNexthopMacMapEntry output(std::string_view nexthop, std::string_view via,
                                      std::string_view macText) {
  return NexthopToViaNexthopMacMapEntry(nhIntf(nexthop, kIntf), ip(via), mac(macText));
}

// The host around the stages: VRF L3 status, the neighbour table, proactive ARP. Like the root's
// fan-out, every neighbour change is handed to every running stage.
struct Host {
  Plane::VrfL3StatusAll::Ptr vrfStatusAll = Plane::VrfL3StatusAll::VrfL3StatusAllIs();
  Plane::NextHopInfoWrapper::Ptr neighbours = Plane::NextHopInfoWrapper::NextHopInfoWrapperIs();
  ClientConfig::Ptr clientConfig = ClientConfig::ClientConfigIs();
  Plane::ProactiveArpNexthopSm::Ptr proactiveArp =
      Plane::ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(clientConfig);
  std::vector<Core::Ptr<ViaNexthopToViaNexthopMacSm>> stages;
  std::unique_ptr<TestSupport::ChangeRecorder<NextHopKey>> fanOut =
      recordChanges<NextHopKey>(neighbours.get(), Plane::NextHopInfoWrapper::nextHopInfoAttr);
  // Every proactive ARP entry added or removed, and every resolution trigger, in order.
  std::unique_ptr<TestSupport::ChangeRecorder<ClientEntry>> arpChanges =
      recordChanges<ClientEntry>(clientConfig.get(), ClientConfig::entryAttr);
  std::unique_ptr<TestSupport::ChangeRecorder<NextHopKey>> triggers =
      recordChanges<NextHopKey>(clientConfig.get(), ClientConfig::resolutionTriggerAttr);

  Host() {
    fanOut->onChange = [this](const NextHopKey& key) {
      const auto running = stages;
      for (const auto& sm : running) sm->handleNexthopInfo(key);
    };
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  void neighbourIs(std::string_view via, std::string_view l2, std::string_view macText) {
    neighbours->nextHopInfoIs(neighbourKey(via), NextHopInfo(intf(l2), mac(macText)));
  }
  void neighbourDel(std::string_view via) { neighbours->nextHopInfoDel(neighbourKey(via)); }
};

// One VRF's stage 2 with its input map (written here as stage 1 would) and its output map.
struct Stage {
  Host& host;
  L3::VrfName vrfName;
  NexthopToViaNexthopMap::Ptr viaMap = nexthopToViaNexthopMapFactory();
  NexthopToViaNexthopMacMap::Ptr macMap = nexthopToViaNexthopMacMapFactory();
  Core::Ptr<ViaNexthopToViaNexthopMacSm> sm;
  // Keys of the output map in the order they changed.
  std::unique_ptr<TestSupport::ChangeRecorder<NexthopIntfId>> outputChanges =
      recordChanges<NexthopIntfId>(macMap.get(), NexthopToViaNexthopMacMap::mapAttr);

  Stage(Host& h, std::string_view name = "red", Plane::VrfId vrfId = kRedId)
      : host(h), vrfName(vrf(name)) {
    host.vrfStatusAll->vrfIdIs(vrfName, vrfId);
  }
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;
  ~Stage() { stop(); }

  void start() {
    sm = viaNexthopToViaNexthopMacSmFactory(vrfName, viaMap, host.neighbours, host.vrfStatusAll,
                                            host.proactiveArp, macMap);
    host.stages.push_back(sm);
  }
  void stop() {
    std::erase(host.stages, sm);
    sm = nullptr;
  }

  void viaIs(std::string_view nexthop, std::string_view via) {
    viaMap->mapIs(NexthopToViaNexthopMapEntry(nhIntf(nexthop, kIntf), ip(via)));
  }
  void viaDel(std::string_view nexthop) { viaMap->mapDel(nhIntf(nexthop, kIntf)); }

  bool hasOutput(std::string_view nexthop) const { return macMap->mapHas(nhIntf(nexthop, kIntf)); }
  NexthopToViaNexthopMacMapEntry outputOf(std::string_view nexthop) const {
    return macMap->map(nhIntf(nexthop, kIntf));
  }
  ViaNexthopRequest::Ptr record(std::string_view via) const {
    return sm->allViaNexthopRequests()->viaNexthopRequest(nhIntf(via, kIntf));
  }
};

// ---- Construction and initialisation

TEST(ViaNexthopToViaNexthopMacSm, FactoryKeepsItsArgumentsAndComputesArpVrfId) {
  Host host;
  Stage red(host);
  red.start();
  EXPECT_EQ(red.sm->vrfName(), vrf("red"));
  EXPECT_EQ(red.sm->config().get(), red.viaMap.get());
  EXPECT_EQ(red.sm->nextHopInfoWrapper().get(), host.neighbours.get());
  EXPECT_EQ(red.sm->vrfStatusAll().get(), host.vrfStatusAll.get());
  EXPECT_EQ(red.sm->proactiveArpNexthopSm().get(), host.proactiveArp.get());
  EXPECT_EQ(red.sm->status().get(), red.macMap.get());
  EXPECT_EQ(red.sm->arpVrfId(), host.vrfStatusAll->planeVrfIdToArpVrfId(kRedId));
  EXPECT_TRUE(red.sm->hasNotificationActive());
  ASSERT_TRUE(red.sm->allViaNexthopRequests());
  EXPECT_EQ(red.sm->allViaNexthopRequests()->viaNexthopRequestCount(), 0u);
  EXPECT_EQ(red.sm->typeName(), "FwdL3Unicast::ViaNexthopToViaNexthopMacSm");
}

TEST(ViaNexthopToViaNexthopMacSm, InitializationReplaysStageOneMapWithArpAndMacAtOnce) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  red.viaIs("10.0.0.3", kViaB);
  red.start();
  EXPECT_EQ(red.sm->allViaNexthopRequests()->viaNexthopRequestCount(), 2u);
  EXPECT_EQ(red.record(kViaA)->requesterCollCount(), 2u);
  EXPECT_EQ(red.record(kViaA)->macAddr(), mac(kMac1));
  EXPECT_TRUE(red.record(kViaB)->macAddr().isZero());
  EXPECT_EQ(host.clientConfig->entryCount(), 2u);
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA)));
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaB)));
  EXPECT_EQ(red.macMap->mapCount(), 2u);
  EXPECT_EQ(red.outputOf("10.0.0.1"), output("10.0.0.1", kViaA, kMac1));
  EXPECT_EQ(red.outputOf("10.0.0.2"), output("10.0.0.2", kViaA, kMac1));
  EXPECT_FALSE(red.hasOutput("10.0.0.3"));
}

TEST(ViaNexthopToViaNexthopMacSm, InitializationTracesEachStepInOrder) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.viaIs("10.0.0.1", kViaA);
  TestSupport::TraceCapture trace(kTraceFilter);
  red.start();
  EXPECT_EQ(
      trace.texts(),
      (std::vector<std::string>{
          kInitialized + "vrfName : red",
          kConfig + "vrfName red",
          kAdd + "ViaNexthop add for nexthop 10.0.0.1 intfId Vlan10  is 10.0.0.254",
          kAdd + "New viaNexthop to track",
          kVia + "Adding via: 10.0.0.254 on intf: Vlan10 to proArp nexthop with arpVrfId 1005",
          kCheck + "MAC Addr resolved for 10.0.0.254 is 00:1c:73:aa:bb:01 l2Intf is Ethernet7",
          kAdd + "viaNexthop being tracked for 1 nexthops now",
      }));
  for (const auto& line : trace.lines()) {
    EXPECT_EQ(line.level, 8u) << line.text;
    EXPECT_EQ(line.handle, "FwdViaNexthopToViaNexthopMacSm");
  }
}

TEST(ViaNexthopToViaNexthopMacSm, RecreatingStageFirstClearsWhatTheOutputMapHeld) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.viaIs("10.0.0.1", kViaA);
  // Left by an earlier instance: an outdated MAC for a live request and a request now gone.
  red.macMap->mapIs(output("10.0.0.1", kViaA, kMac2));
  red.macMap->mapIs(output("10.0.0.9", kViaB, kMac2));
  red.outputChanges->keys.clear();
  red.start();
  EXPECT_EQ(red.outputChanges->keys.size(), 3u);
  const std::vector<NexthopIntfId> cleared(red.outputChanges->keys.begin(),
                                           red.outputChanges->keys.begin() + 2);
  EXPECT_TRUE(std::is_permutation(
      cleared.begin(), cleared.end(),
      std::vector{nhIntf("10.0.0.1", kIntf), nhIntf("10.0.0.9", kIntf)}.begin()));
  EXPECT_EQ(red.outputChanges->keys.back(), nhIntf("10.0.0.1", kIntf));
  EXPECT_EQ(red.macMap->mapCount(), 1u);
  EXPECT_EQ(red.outputOf("10.0.0.1"), output("10.0.0.1", kViaA, kMac1));
}

TEST(ViaNexthopToViaNexthopMacSm, ArpVrfIdIsKeptWhenThePlaneIdChangesLater) {
  Host host;
  Stage red(host);
  red.start();
  host.vrfStatusAll->vrfIdIs(vrf("red"), 9);
  red.viaIs("10.0.0.1", kViaA);
  EXPECT_EQ(red.sm->arpVrfId(), kRedArpId);
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA, kRedArpId)));
  red.viaDel("10.0.0.1");
  // The removal matched the addition although the plane id moved meanwhile.
  EXPECT_EQ(host.clientConfig->entryCount(), 0u);
}

// ---- Via tracking and proactive ARP

TEST(ViaNexthopToViaNexthopMacSm, NexthopsSharingAViaShareOneRecordAndOneArpEntry) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  EXPECT_EQ(red.sm->allViaNexthopRequests()->viaNexthopRequestCount(), 1u);
  EXPECT_EQ(red.record(kViaA)->requesterCollCount(), 2u);
  EXPECT_EQ(host.arpChanges->keys, std::vector{arpEntry(kViaA)});

  red.viaDel("10.0.0.1");
  ASSERT_TRUE(red.record(kViaA));
  EXPECT_EQ(red.record(kViaA)->requesterCollCount(), 1u);
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA)));
  EXPECT_EQ(host.arpChanges->keys.size(), 1u);

  TestSupport::TraceCapture trace(kTraceFilter);
  red.viaDel("10.0.0.2");
  EXPECT_FALSE(red.sm->allViaNexthopRequests()->viaNexthopRequestHas(nhIntf(kViaA, kIntf)));
  EXPECT_FALSE(host.clientConfig->entryHas(arpEntry(kViaA)));
  EXPECT_EQ(host.arpChanges->keys, (std::vector{arpEntry(kViaA), arpEntry(kViaA)}));
  EXPECT_EQ(trace.texts(),
            (std::vector<std::string>{
                kDel + "ViaNexthop del for nexthop 10.0.0.2 intfId Vlan10  is 10.0.0.254",
                kDel + "viaNexthop being tracked for 0 nexthops now",
                kDel + "Last tracking nexthop removed..stop tracking viaNexthop 10.0.0.254",
                kVia + "Deleting via: 10.0.0.254 on intf: Vlan10 to proArp nexthop with arpVrfId "
                       "1005",
            }));
}

TEST(ViaNexthopToViaNexthopMacSm, SecondRequesterOfTrackedViaIsTracedAsTrackedAlready) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  TestSupport::TraceCapture trace(kTraceFilter);
  red.viaIs("10.0.0.2", kViaA);
  EXPECT_EQ(trace.texts(),
            (std::vector<std::string>{
                kAdd + "ViaNexthop add for nexthop 10.0.0.2 intfId Vlan10  is 10.0.0.254",
                kAdd + "viaNexthop being tracked already",
                kAdd + "viaNexthop being tracked for 2 nexthops now",
            }));
}

TEST(ViaNexthopToViaNexthopMacSm, NewRequesterOfResolvedViaGetsItsEntryInsideHandleAdd) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  const size_t neighbourChanges = host.fanOut->keys.size();
  red.viaIs("10.0.0.2", kViaA);
  EXPECT_EQ(host.fanOut->keys.size(), neighbourChanges);
  EXPECT_EQ(red.outputOf("10.0.0.2"), output("10.0.0.2", kViaA, kMac1));
  EXPECT_EQ(red.macMap->mapCount(), 2u);
}

TEST(ViaNexthopToViaNexthopMacSm, ViaCreatedWithResolvedNeighbourPublishesAtOnce) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  EXPECT_EQ(red.outputOf("10.0.0.1"), output("10.0.0.1", kViaA, kMac1));
  EXPECT_EQ(red.record(kViaA)->macAddr(), mac(kMac1));
}

TEST(ViaNexthopToViaNexthopMacSm, NexthopMovingToAnotherViaLeavesTheOldViaFirst) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  host.neighbourIs(kViaB, kL2, kMac2);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  host.arpChanges->keys.clear();
  red.outputChanges->keys.clear();
  TestSupport::TraceCapture trace(kTraceFilter);

  red.viaIs("10.0.0.1", kViaB);

  EXPECT_EQ(
      trace.texts(),
      (std::vector<std::string>{
          kDel + "ViaNexthop del for nexthop 10.0.0.1 intfId Vlan10  is 10.0.0.254",
          kDel + "viaNexthop being tracked for 0 nexthops now",
          kDel + "Last tracking nexthop removed..stop tracking viaNexthop 10.0.0.254",
          kVia + "Deleting via: 10.0.0.254 on intf: Vlan10 to proArp nexthop with arpVrfId "
                 "1005",
          kAdd + "ViaNexthop add for nexthop 10.0.0.1 intfId Vlan10  is 10.0.1.254",
          kAdd + "New viaNexthop to track",
          kVia + "Adding via: 10.0.1.254 on intf: Vlan10 to proArp nexthop with arpVrfId 1005",
          kCheck + "MAC Addr resolved for 10.0.1.254 is 00:1c:73:aa:bb:02 l2Intf is Ethernet7",
          kAdd + "viaNexthop being tracked for 1 nexthops now",
      }));
  // The old entry is withdrawn before the new one is written.
  EXPECT_EQ(red.outputChanges->keys,
            (std::vector{nhIntf("10.0.0.1", kIntf), nhIntf("10.0.0.1", kIntf)}));
  EXPECT_EQ(red.outputOf("10.0.0.1"), output("10.0.0.1", kViaB, kMac2));
  EXPECT_EQ(host.arpChanges->keys, (std::vector{arpEntry(kViaA), arpEntry(kViaB)}));
  EXPECT_FALSE(red.sm->allViaNexthopRequests()->viaNexthopRequestHas(nhIntf(kViaA, kIntf)));
  EXPECT_EQ(red.record(kViaB)->requesterCollCount(), 1u);
}

TEST(ViaNexthopToViaNexthopMacSm, MoveKeepsOldViaTrackedWhileItHasOtherRequesters) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  red.viaIs("10.0.0.1", kViaB);
  EXPECT_EQ(red.record(kViaA)->requesterCollCount(), 1u);
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA)));
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaB)));
  EXPECT_FALSE(red.hasOutput("10.0.0.1"));
  EXPECT_EQ(red.outputOf("10.0.0.2"), output("10.0.0.2", kViaA, kMac1));
}

TEST(ViaNexthopToViaNexthopMacSm, DeletingNexthopOfUnresolvedViaPublishesNothing) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaDel("10.0.0.1");
  EXPECT_TRUE(red.outputChanges->keys.empty());
  EXPECT_EQ(red.macMap->mapCount(), 0u);
  EXPECT_EQ(host.clientConfig->entryCount(), 0u);
}

TEST(ViaNexthopToViaNexthopMacSm, DeletingNexthopAlwaysRemovesItsOutputEntry) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  red.viaDel("10.0.0.1");
  EXPECT_FALSE(red.hasOutput("10.0.0.1"));
  EXPECT_EQ(red.outputOf("10.0.0.2"), output("10.0.0.2", kViaA, kMac1));
}

TEST(ViaNexthopToViaNexthopMacSm, ResolvedViaLosingItsLastRequesterLeavesNoOutdatedEntry) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  red.viaDel("10.0.0.1");
  red.viaDel("10.0.0.2");
  EXPECT_EQ(red.macMap->mapCount(), 0u);
  EXPECT_EQ(host.clientConfig->entryCount(), 0u);
}

TEST(ViaNexthopToViaNexthopMacSm, DeletedRecordStillListingRequestersHasTheirEntriesWithdrawn) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  ASSERT_EQ(red.macMap->mapCount(), 2u);
  const ViaNexthopRequest::Ptr held = red.record(kViaA);

  red.sm->allViaNexthopRequests()->viaNexthopRequestDel(nhIntf(kViaA, kIntf));

  EXPECT_EQ(red.macMap->mapCount(), 0u);
  EXPECT_FALSE(host.clientConfig->entryHas(arpEntry(kViaA)));
  // The removed record lives on for its holder with its requesters and MAC.
  EXPECT_EQ(held->requesterCollCount(), 2u);
  EXPECT_EQ(held->macAddr(), mac(kMac1));
}

TEST(ViaNexthopToViaNexthopMacSm, TwoVrfsSharingAViaKeepTwoArpEntries) {
  Host host;
  Stage red(host, "red", kRedId);
  Stage blue(host, "blue", 7);
  red.start();
  blue.start();
  host.neighbourIs(kViaA, kL2, kMac1);
  red.viaIs("10.0.0.1", kViaA);
  blue.viaIs("10.0.0.1", kViaA);
  const auto blueArpId = host.vrfStatusAll->planeVrfIdToArpVrfId(7);
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA, kRedArpId)));
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA, blueArpId)));
  EXPECT_EQ(red.outputOf("10.0.0.1"), output("10.0.0.1", kViaA, kMac1));
  EXPECT_EQ(blue.outputOf("10.0.0.1"), output("10.0.0.1", kViaA, kMac1));

  red.viaDel("10.0.0.1");
  EXPECT_FALSE(host.clientConfig->entryHas(arpEntry(kViaA, kRedArpId)));
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA, blueArpId)));
  EXPECT_TRUE(blue.hasOutput("10.0.0.1"));
}

TEST(ViaNexthopToViaNexthopMacSm, StageSwitchedOffIgnoresItsInput) {
  Host host;
  Stage red(host);
  red.start();
  red.sm->hasNotificationActiveIs(false);
  red.viaIs("10.0.0.1", kViaA);
  EXPECT_EQ(red.sm->allViaNexthopRequests()->viaNexthopRequestCount(), 0u);
  EXPECT_EQ(host.clientConfig->entryCount(), 0u);
}

// ---- MAC learning

TEST(ViaNexthopToViaNexthopMacSm, MacWithoutL2IntfTriggersResolutionAndStaysUnresolved) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  TestSupport::TraceCapture trace(kTraceFilter);
  host.neighbourIs(kViaA, "", kMac1);
  EXPECT_EQ(host.triggers->keys, std::vector{neighbourKey(kViaA)});
  EXPECT_EQ(host.clientConfig->resolutionTrigger(neighbourKey(kViaA)), 1u);
  EXPECT_TRUE(red.record(kViaA)->macAddr().isZero());
  EXPECT_FALSE(red.hasOutput("10.0.0.1"));
  EXPECT_EQ(trace.texts(), (std::vector<std::string>{
                               kNeighbour + "vrfName red",
                               kCheck + "MAC Addr NOT resolved for 10.0.0.254, ethAddr received is "
                                        "00:1c:73:aa:bb:01 l2Intf is ",
                           }));
}

TEST(ViaNexthopToViaNexthopMacSm, L2IntfWithZeroMacIsUnresolvedWithoutTrigger) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  TestSupport::TraceCapture trace(kTraceFilter);
  host.neighbourIs(kViaA, kL2, "00:00:00:00:00:00");
  EXPECT_TRUE(host.triggers->keys.empty());
  EXPECT_TRUE(red.record(kViaA)->macAddr().isZero());
  EXPECT_FALSE(red.hasOutput("10.0.0.1"));
  EXPECT_TRUE(trace.contains(kCheck + "MAC Addr NOT resolved for 10.0.0.254, ethAddr received is "
                                      "00:00:00:00:00:00 l2Intf is Ethernet7"));
}

TEST(ViaNexthopToViaNexthopMacSm, NeighbourResolvingLaterPublishesEveryRequester) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  EXPECT_EQ(red.macMap->mapCount(), 0u);
  TestSupport::TraceCapture trace(kTraceFilter);
  host.neighbourIs(kViaA, kL2, kMac1);
  EXPECT_EQ(red.outputOf("10.0.0.1"), output("10.0.0.1", kViaA, kMac1));
  EXPECT_EQ(red.outputOf("10.0.0.2"), output("10.0.0.2", kViaA, kMac1));
  EXPECT_EQ(
      trace.texts(),
      (std::vector<std::string>{
          kNeighbour + "vrfName red",
          kCheck + "MAC Addr resolved for 10.0.0.254 is 00:1c:73:aa:bb:01 l2Intf is Ethernet7",
      }));
}

TEST(ViaNexthopToViaNexthopMacSm, NeighbourRemovedWhileResolvedWithdrawsEveryEntry) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  TestSupport::TraceCapture trace(kTraceFilter);
  host.neighbourDel(kViaA);
  EXPECT_TRUE(red.record(kViaA)->macAddr().isZero());
  EXPECT_EQ(red.macMap->mapCount(), 0u);
  EXPECT_TRUE(host.triggers->keys.empty());
  EXPECT_TRUE(trace.contains(kCheck + "MAC Addr NOT resolved for 10.0.0.254, ethAddr received is "
                                      "00:00:00:00:00:00 l2Intf is "));
  // The via stays tracked: proactive ARP keeps working on it.
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA)));
}

TEST(ViaNexthopToViaNexthopMacSm, LosingTheL2IntfWithdrawsEntriesAndTriggersResolution) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  host.neighbourIs(kViaA, "", kMac1);
  EXPECT_FALSE(red.hasOutput("10.0.0.1"));
  EXPECT_EQ(host.clientConfig->resolutionTrigger(neighbourKey(kViaA)), 1u);
}

TEST(ViaNexthopToViaNexthopMacSm, MacChangeRewritesEveryRequesterWithTheNewMac) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  for (const char* nexthop : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) red.viaIs(nexthop, kViaA);
  red.outputChanges->keys.clear();
  host.neighbourIs(kViaA, kL2, kMac2);
  EXPECT_EQ(red.record(kViaA)->macAddr(), mac(kMac2));
  EXPECT_EQ(red.outputChanges->keys.size(), 3u);
  for (const char* nexthop : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) {
    EXPECT_EQ(red.outputOf(nexthop), output(nexthop, kViaA, kMac2)) << nexthop;
  }
}

TEST(ViaNexthopToViaNexthopMacSm, EveryCheckRewritesEveryRequesterEntry) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  red.viaIs("10.0.0.2", kViaA);
  // Somebody else dropped the entries; the next check for the unchanged neighbour restores them.
  red.macMap->mapDelAll();
  red.sm->handleNexthopInfo(neighbourKey(kViaA));
  EXPECT_EQ(red.outputOf("10.0.0.1"), output("10.0.0.1", kViaA, kMac1));
  EXPECT_EQ(red.outputOf("10.0.0.2"), output("10.0.0.2", kViaA, kMac1));
}

TEST(ViaNexthopToViaNexthopMacSm, NeighbourThatIsNoViaChangesNothing) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  host.neighbourIs(kViaA, kL2, kMac1);
  host.arpChanges->keys.clear();
  red.outputChanges->keys.clear();
  TestSupport::TraceCapture trace(kTraceFilter);
  // Same address on another interface, and another address on the via's interface.
  host.neighbours->nextHopInfoIs(neighbourKey(kViaA, "Vlan20"), NextHopInfo(intf(kL2), mac(kMac2)));
  host.neighbourIs(kViaB, "", kMac2);
  EXPECT_TRUE(red.outputChanges->keys.empty());
  EXPECT_TRUE(host.arpChanges->keys.empty());
  EXPECT_TRUE(host.triggers->keys.empty());
  EXPECT_EQ(red.outputOf("10.0.0.1"), output("10.0.0.1", kViaA, kMac1));
  EXPECT_EQ(trace.texts(),
            (std::vector<std::string>{kNeighbour + "vrfName red", kNeighbour + "vrfName red"}));
}

// ---- Teardown

TEST(ViaNexthopToViaNexthopMacSm, TeardownClearsOutputAndLeavesArpEntries) {
  const int64_t liveAtStart = Core::Node::liveCount();
  {
    Host host;
    Stage red(host);
    host.neighbourIs(kViaA, kL2, kMac1);
    red.start();
    red.viaIs("10.0.0.1", kViaA);
    red.viaIs("10.0.0.2", kViaB);
    ASSERT_EQ(red.macMap->mapCount(), 1u);
    host.arpChanges->keys.clear();
    TestSupport::TraceCapture trace(kTraceFilter);

    red.stop();

    EXPECT_EQ(red.macMap->mapCount(), 0u);
    EXPECT_TRUE(host.arpChanges->keys.empty());
    EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA)));
    EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaB)));
    EXPECT_EQ(trace.texts(), std::vector<std::string>{kCleanup + "vrfName : red"});
    // The input is no longer watched.
    red.viaDel("10.0.0.1");
    EXPECT_EQ(red.viaMap->mapCount(), 1u);
  }
  EXPECT_EQ(Core::Node::liveCount(), liveAtStart);
}

TEST(ViaNexthopToViaNexthopMacSm, ViaCollectionCanBeReleasedAndRecreated) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  const AllViaNexthopRequests::Ptr first = red.sm->allViaNexthopRequests();
  red.sm->allViaNexthopRequestsIs();
  EXPECT_EQ(red.sm->allViaNexthopRequests(), first);
  red.sm->allViaNexthopRequestsDel();
  EXPECT_FALSE(red.sm->allViaNexthopRequests());
  // Released without the stage watching: no removeEntry for the dropped records.
  EXPECT_TRUE(host.clientConfig->entryHas(arpEntry(kViaA)));
  red.sm->allViaNexthopRequestsIs();
  ASSERT_TRUE(red.sm->allViaNexthopRequests());
  EXPECT_EQ(red.sm->allViaNexthopRequests()->viaNexthopRequestCount(), 0u);
}

// ---- Dumps

TEST(ViaNexthopToViaNexthopMacSm, DumpShowsInputsOutputAndVias) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  EXPECT_EQ(dump(*red.sm, 0),
            "ViaNexthopToViaNexthopMacSm - red\n"
            "  arpVrfId 1005\n"
            "  config\n"
            "    NexthopToViaNexthopMap\n"
            "      map: #1\n"
            "        interface Vlan10, nexthop 10.0.0.1, viaNexthop 10.0.0.254\n"
            "  status\n"
            "    NexthopToViaNexthopMacMap\n"
            "      map: #1\n"
            "        interface Vlan10, nexthop 10.0.0.1, viaNexthop 10.0.0.254, macAddr "
            "00:1c:73:aa:bb:01\n"
            "  allViaNexthopRequests: #1\n"
            "    ViaNexthopInfo - interface Vlan10, nexthop 10.0.0.254\n"
            "      requesterColl: #1\n"
            "        nexthop 10.0.0.1\n"
            "      macAddr - 00:1c:73:aa:bb:01\n");
}

TEST(ViaNexthopToViaNexthopMacSm, DumpAtIndentShowsUnknownMacAsNone) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  EXPECT_EQ(dump(*red.sm, 4),
            "    ViaNexthopToViaNexthopMacSm - red\n"
            "      arpVrfId 1005\n"
            "      config\n"
            "        NexthopToViaNexthopMap\n"
            "          map: #1\n"
            "            interface Vlan10, nexthop 10.0.0.1, viaNexthop 10.0.0.254\n"
            "      status\n"
            "        NexthopToViaNexthopMacMap\n"
            "          map: #0\n"
            "      allViaNexthopRequests: #1\n"
            "        ViaNexthopInfo - interface Vlan10, nexthop 10.0.0.254\n"
            "          requesterColl: #1\n"
            "            nexthop 10.0.0.1\n"
            "          macAddr - none\n");
}

TEST(ViaNexthopToViaNexthopMacSm, DumpMarksMapsAlreadyDumped) {
  Host host;
  Stage red(host);
  red.start();
  Core::DumpContext ctx;
  ctx.seenIs(red.viaMap.get());
  red.sm->dumpState(ctx, 0);
  EXPECT_EQ(ctx.text(),
            "ViaNexthopToViaNexthopMacSm - red\n"
            "  arpVrfId 1005\n"
            "  config\n"
            "    (already dumped) FwdL3Unicast::NexthopToViaNexthopMap\n"
            "  status\n"
            "    NexthopToViaNexthopMacMap\n"
            "      map: #0\n"
            "  allViaNexthopRequests: #0\n");
}

// ---- Broken invariants

// ---- Neighbour changes made from inside the stage's own publication

TEST(ViaNexthopToViaNexthopMacSm, MacChangeDuringStatusUpdateLeavesEveryRequesterWithTheNewMac) {
  Host host;
  // Declared before the stage: the stage's teardown still publishes to the client below.
  bool moved = false;
  Stage red(host);
  red.start();
  const std::vector<std::string> nexthops = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"};
  for (const std::string& nexthop : nexthops) red.viaIs(nexthop, kViaA);
  // A client of the output that sees the first entry and moves the neighbour to another MAC.
  red.outputChanges->onChange = [&](const NexthopIntfId&) {
    if (moved) return;
    moved = true;
    host.neighbourIs(kViaA, kL2, kMac2);
  };

  host.neighbourIs(kViaA, kL2, kMac1);

  ASSERT_TRUE(moved);
  EXPECT_EQ(red.record(kViaA)->macAddr(), mac(kMac2));
  for (const std::string& nexthop : nexthops) {
    ASSERT_TRUE(red.hasOutput(nexthop)) << nexthop;
    EXPECT_EQ(red.outputOf(nexthop), output(nexthop, kViaA, kMac2));
  }
}

TEST(ViaNexthopToViaNexthopMacSm, NeighbourResolvedDuringWithdrawalLeavesEveryRequesterPublished) {
  Host host;
  // Declared before the stage: the stage's teardown still publishes to the client below.
  bool relearnt = false;
  Stage red(host);
  red.start();
  const std::vector<std::string> nexthops = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"};
  for (const std::string& nexthop : nexthops) red.viaIs(nexthop, kViaA);
  host.neighbourIs(kViaA, kL2, kMac1);
  // A client of the output that sees the first withdrawal and has the neighbour learnt again.
  red.outputChanges->onChange = [&](const NexthopIntfId&) {
    if (relearnt) return;
    relearnt = true;
    host.neighbourIs(kViaA, kL2, kMac2);
  };

  host.neighbourDel(kViaA);

  ASSERT_TRUE(relearnt);
  EXPECT_EQ(red.record(kViaA)->macAddr(), mac(kMac2));
  for (const std::string& nexthop : nexthops) {
    ASSERT_TRUE(red.hasOutput(nexthop)) << nexthop;
    EXPECT_EQ(red.outputOf(nexthop), output(nexthop, kViaA, kMac2));
  }
}

TEST(ViaNexthopToViaNexthopMacSm, NexthopDeletedWhileItsMoveIsHandledIsLeftWithoutVia) {
  Host host;
  Stage red(host);
  host.neighbourIs(kViaA, kL2, kMac1);
  host.neighbourIs(kViaB, kL2, kMac2);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  ASSERT_TRUE(red.hasOutput("10.0.0.1"));
  // A client of the output that sees the entry leave via A and has stage 1 drop the nexthop, so
  // that the deletion is delivered while the move to via B is still being handled.
  bool deleted = false;
  red.outputChanges->onChange = [&](const NexthopIntfId&) {
    if (deleted) return;
    deleted = true;
    red.viaDel("10.0.0.1");
  };

  red.viaIs("10.0.0.1", kViaB);

  ASSERT_TRUE(deleted);
  EXPECT_FALSE(red.hasOutput("10.0.0.1"));
  EXPECT_EQ(red.sm->allViaNexthopRequests()->viaNexthopRequestCount(), 0u);
  EXPECT_FALSE(host.clientConfig->entryHas(arpEntry(kViaA)));
  EXPECT_FALSE(host.clientConfig->entryHas(arpEntry(kViaB)));
}

TEST(ViaNexthopToViaNexthopMacSmDeathTest, VrfWithoutPlaneIdAsserts) {
  Host host;
  auto viaMap = nexthopToViaNexthopMapFactory();
  auto macMap = nexthopToViaNexthopMacMapFactory();
  EXPECT_DEATH(viaNexthopToViaNexthopMacSmFactory(vrf("red"), viaMap, host.neighbours,
                                                  host.vrfStatusAll, host.proactiveArp, macMap),
               assertionRegex("vrfStatusAll()->vrfIdHas( vrfName() )",
                              "FwdViaNexthopToViaNexthopMacSm", kFn + "handleInitialized()"));
}

TEST(ViaNexthopToViaNexthopMacSmDeathTest, DeleteForUntrackedViaAsserts) {
  Host host;
  Stage red(host);
  red.start();
  // Added while the stage was not listening: its via was never tracked.
  red.sm->hasNotificationActiveIs(false);
  red.viaIs("10.0.0.1", kViaA);
  red.sm->hasNotificationActiveIs(true);
  EXPECT_DEATH(red.viaDel("10.0.0.1"),
               assertionRegex("viaNexthopRequest", "FwdViaNexthopToViaNexthopMacSm",
                              kFn + "handleDel(const FwdL3Unicast::NexthopToViaNexthopMapEntry&)"));
}

TEST(ViaNexthopToViaNexthopMacSmDeathTest, AddingARequesterTwiceAsserts) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  EXPECT_DEATH(red.sm->handleAdd(red.viaMap->map(nhIntf("10.0.0.1", kIntf))),
               assertionRegex("!requesterCollHas( nexthop )", "FwdNexthopNhIndexResolverCommon",
                              "void FwdL3Unicast::ViaNexthopRequest::addRequester"));
}

TEST(ViaNexthopToViaNexthopMacSmDeathTest, RemovingAnAbsentRequesterAsserts) {
  Host host;
  Stage red(host);
  red.start();
  red.viaIs("10.0.0.1", kViaA);
  EXPECT_DEATH(red.sm->handleDel(NexthopToViaNexthopMapEntry(nhIntf("10.0.0.2", kIntf), ip(kViaA))),
               assertionRegex("requesterCollHas( nexthop )", "FwdNexthopNhIndexResolverCommon",
                              "void FwdL3Unicast::ViaNexthopRequest::delRequester"));
}

TEST(ViaNexthopToViaNexthopMacSmDeathTest, EmptyRequestAsserts) {
  Host host;
  Stage red(host);
  red.start();
  EXPECT_DEATH(red.sm->checkAndUpdateMac(nullptr),
               assertionRegex("request", "FwdViaNexthopToViaNexthopMacSm",
                              kFn + "checkAndUpdateMac(const Ptr&)"));
  EXPECT_DEATH(red.sm->updateStatus(nullptr, mac(kMac1)),
               assertionRegex("request", "FwdViaNexthopToViaNexthopMacSm",
                              kFn + "updateStatus(const Ptr&, const Netval::EthAddr&)"));
}

}  // namespace

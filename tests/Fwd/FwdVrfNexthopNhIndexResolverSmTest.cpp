#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "Fwd/FwdVrfNexthopNhIndexResolverSm.h"
#include "framework/CoreDump.h"
#include "support/ChangeRecorder.h"
#include "support/DumpText.h"
#include "support/FwdTestValues.h"
#include "support/ResolverFixture.h"
#include "support/TraceCapture.h"

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using TestSupport::dump;
using TestSupport::recordChanges;

constexpr const char* kHandleInitialized =
    "void FwdL3Unicast::VrfNexthopNhIndexResolverSm::handleInitialized()";
constexpr const char* kHandleNexthopInfo =
    "void FwdL3Unicast::VrfNexthopNhIndexResolverSm::handleNexthopInfo(const Plane::NextHopKey&)";

// Index of the first captured line that starts with `prefix`, or -1.
int firstLineStartingWith(const TestSupport::TraceCapture& trace, std::string_view prefix) {
  const auto texts = trace.texts();
  for (size_t i = 0; i < texts.size(); ++i) {
    if (std::string_view(texts[i]).substr(0, prefix.size()) == prefix) return static_cast<int>(i);
  }
  return -1;
}

// One VRF's pipeline built directly from the host's state, as the root would build it.
class VrfNexthopNhIndexResolverSmTest : public ::testing::Test, public FwdTest::ResolverFixture {
 protected:
  VrfNexthopNhIndexResolverSmTest() { vrfL3StatusIs("red", 1); }

  VrfNexthopNhIndexResolverSm::Ptr pipelineIs() {
    return vrfNexthopNhIndexResolverSmFactory(
        vrf("red"),
        {requests, nexthopVrfConfig, nexthopVrfStatus, forwardingGenStatus, nextHopInfoWrapper,
         vrfStatusAll, l3Modules, proactiveArp, scheduler, results});
  }
  // The routing resolver reports `nexthop` through FEC `fecId`.
  void resolvedIs(std::string_view nexthop, Memtab::Fib::FecId fecId) {
    nexthopVrfStatus->nexthopIs(Routing::NexthopStatusEntry(ip(nexthop), fecId));
  }
  // 10.0.0.1 on Ethernet1 through via 10.0.0.254 (MAC ...:aa) to nhIndex 5, all in place.
  void resolvableRequest() {
    fecIs(100, {{"Ethernet1", "10.0.0.254"}});
    resolvedIs("10.0.0.1", 100);
    neighbourIs("Ethernet1", "10.0.0.254", "00:00:00:00:00:aa");
    nhIndexIs("Ethernet1", 5, "00:00:00:00:00:aa");
    requests->configIs(nhIntf("10.0.0.1", "Ethernet1"));
  }
  uint32_t result(std::string_view nexthop, std::string_view intfName) const {
    const auto k = nhIntf(nexthop, intfName);
    return results->mapHas(k) ? results->map(k).nhIndex()
                              : NexthopNhIndexResolverConstants::invalidNhIndex();
  }

  NexthopIntfIdColl::Ptr requests = nexthopIntfIdCollFactory(vrf("red"));
  Routing::NexthopVrfConfig::Ptr nexthopVrfConfig =
      nexthopConfig->vrfIs(vrf("red"), Routing::fecIdTypeDefault);
  Routing::NexthopVrfStatus::Ptr nexthopVrfStatus = nexthopStatus->vrfIs(vrf("red"));
  Plane::ProactiveArpNexthopSm::Ptr proactiveArp =
      Plane::ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(proactiveArpNexthop);
  ViaNexthopMacToNhIndexMap::Ptr results = viaNexthopMacToNhIndexMapFactory(vrf("red"));
};

TEST_F(VrfNexthopNhIndexResolverSmTest, VrfWithoutRequestsGetsBothMapsAndAllStagesWiredInOrder) {
  const auto sm = pipelineIs();
  ASSERT_TRUE(sm->nexthopToViaNexthopMap());
  ASSERT_TRUE(sm->nexthopToViaNexthopMacMap());
  ASSERT_TRUE(sm->nexthopToViaNexthopSm());
  ASSERT_TRUE(sm->viaNexthopToViaNexthopMacSm());
  ASSERT_TRUE(sm->viaNexthopMacToNhIndexSm());
  EXPECT_EQ(sm->nexthopToViaNexthopMap()->mapCount(), 0u);
  EXPECT_EQ(sm->nexthopToViaNexthopMacMap()->mapCount(), 0u);
  EXPECT_EQ(results->mapCount(), 0u);

  const auto& stage1 = *sm->nexthopToViaNexthopSm();
  EXPECT_EQ(stage1.vrfName(), vrf("red"));
  EXPECT_EQ(stage1.config(), requests);
  EXPECT_EQ(stage1.nexthopVrfConfig(), nexthopVrfConfig);
  EXPECT_EQ(stage1.nexthopVrfStatus(), nexthopVrfStatus);
  EXPECT_EQ(stage1.forwardingGenStatus(), forwardingGenStatus);
  EXPECT_EQ(stage1.scheduler(), scheduler);
  EXPECT_EQ(stage1.status(), sm->nexthopToViaNexthopMap());
  const auto& stage2 = *sm->viaNexthopToViaNexthopMacSm();
  EXPECT_EQ(stage2.config(), sm->nexthopToViaNexthopMap());
  EXPECT_EQ(stage2.nextHopInfoWrapper(), nextHopInfoWrapper);
  EXPECT_EQ(stage2.vrfStatusAll(), vrfStatusAll);
  EXPECT_EQ(stage2.proactiveArpNexthopSm(), proactiveArp);
  EXPECT_EQ(stage2.status(), sm->nexthopToViaNexthopMacMap());
  const auto& stage3 = *sm->viaNexthopMacToNhIndexSm();
  EXPECT_EQ(stage3.config(), sm->nexthopToViaNexthopMacMap());
  EXPECT_EQ(stage3.l3Modules(), l3Modules);
  EXPECT_EQ(stage3.status(), results);
  EXPECT_EQ(sm->proactiveArpNexthopSm(), proactiveArp);
  EXPECT_TRUE(sm->hasNotificationActive());
}

TEST_F(VrfNexthopNhIndexResolverSmTest, StagesStartInPipelineOrderAfterTheTrace) {
  TestSupport::TraceCapture trace("*/8");
  pipelineIs();
  ASSERT_FALSE(trace.lines().empty());
  EXPECT_EQ(trace.texts()[0], std::string(kHandleInitialized) + ": vrfName red");
  EXPECT_EQ(trace.lines()[0].handle, "FwdVrfNexthopNhIndexResolverSm");
  EXPECT_EQ(trace.lines()[0].level, 8u);
  const int stage1 =
      firstLineStartingWith(trace, "void FwdL3Unicast::NexthopToViaNexthopSm::handleInitialized()");
  const int stage2 = firstLineStartingWith(
      trace, "void FwdL3Unicast::ViaNexthopToViaNexthopMacSm::handleInitialized()");
  const int stage3 = firstLineStartingWith(
      trace, "void FwdL3Unicast::ViaNexthopMacToNhIndexSm::handleInitialized()");
  EXPECT_GT(stage1, 0);
  EXPECT_GT(stage2, stage1);
  EXPECT_GT(stage3, stage2);
}

TEST_F(VrfNexthopNhIndexResolverSmTest, EachStageStartsFromWhatUpstreamAlreadyProduced) {
  resolvableRequest();
  const auto sm = pipelineIs();
  EXPECT_TRUE(sm->nexthopToViaNexthopMap()->mapHas(nhIntf("10.0.0.1", "Ethernet1")));
  EXPECT_TRUE(sm->nexthopToViaNexthopMacMap()->mapHas(nhIntf("10.0.0.1", "Ethernet1")));
  EXPECT_EQ(result("10.0.0.1", "Ethernet1"), 5u);
  EXPECT_TRUE(nexthopVrfConfig->nexthopHas(ip("10.0.0.1")));
}

TEST_F(VrfNexthopNhIndexResolverSmTest, SameArgumentsKeepTheStageAndDifferentOnesReplaceIt) {
  resolvableRequest();
  const auto sm = pipelineIs();
  // Not held by the test, so that releasing it destroys it.
  const ViaNexthopToViaNexthopMacSm* const original = sm->viaNexthopToViaNexthopMacSm().get();
  const Core::Ptr<const NexthopToViaNexthopMap> viaMap = sm->nexthopToViaNexthopMap();
  const NexthopToViaNexthopMacMap::Ptr output = sm->nexthopToViaNexthopMacMap();
  ASSERT_EQ(proactiveArpNexthop->entryCount(), 1u);

  TestSupport::TraceCapture trace("*/8");
  EXPECT_EQ(sm->viaNexthopToViaNexthopMacSmIs(vrf("red"), viaMap, nextHopInfoWrapper, vrfStatusAll,
                                              proactiveArp, output)
                .get(),
            original);
  EXPECT_EQ(trace.count("handleInitialized()"), 0u);
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 1u);
  EXPECT_EQ(output->mapCount(), 1u);

  // A different output map: the new stage is stored before the old one goes, whose clean-up
  // empties the old output.
  const NexthopToViaNexthopMacMap::Ptr otherOutput = nexthopToViaNexthopMacMapFactory();
  std::vector<bool> replacedAtCleanup;
  auto oldOutput = recordChanges<NexthopIntfId>(output.get(), NexthopToViaNexthopMacMap::mapAttr);
  oldOutput->onChange = [&](const NexthopIntfId&) {
    replacedAtCleanup.push_back(sm->viaNexthopToViaNexthopMacSm().get() != original);
  };
  const Core::Ptr<ViaNexthopToViaNexthopMacSm> replacement = sm->viaNexthopToViaNexthopMacSmIs(
      vrf("red"), viaMap, nextHopInfoWrapper, vrfStatusAll, proactiveArp, otherOutput);
  EXPECT_NE(replacement.get(), original);
  EXPECT_EQ(sm->viaNexthopToViaNexthopMacSm(), replacement);
  EXPECT_EQ(replacement->status(), otherOutput);
  EXPECT_EQ(replacedAtCleanup, std::vector<bool>{true});
  EXPECT_EQ(output->mapCount(), 0u);
  EXPECT_TRUE(otherOutput->mapHas(nhIntf("10.0.0.1", "Ethernet1")));
}

TEST_F(VrfNexthopNhIndexResolverSmTest, SameArgumentsKeepStagesOneAndThree) {
  const auto sm = pipelineIs();
  const auto stage1 = sm->nexthopToViaNexthopSm();
  const auto stage3 = sm->viaNexthopMacToNhIndexSm();
  EXPECT_EQ(
      sm->nexthopToViaNexthopSmIs(vrf("red"), requests, nexthopVrfConfig, nexthopVrfStatus,
                                  forwardingGenStatus, scheduler, sm->nexthopToViaNexthopMap()),
      stage1);
  EXPECT_EQ(sm->viaNexthopMacToNhIndexSmIs(vrf("red"), sm->nexthopToViaNexthopMacMap(), l3Modules,
                                           results),
            stage3);
  EXPECT_NE(sm->viaNexthopMacToNhIndexSmIs(vrf("blue"), sm->nexthopToViaNexthopMacMap(), l3Modules,
                                           results),
            stage3);
  // The map setters create only when nothing is held.
  const auto viaMap = sm->nexthopToViaNexthopMap();
  EXPECT_EQ(sm->nexthopToViaNexthopMapIs(), viaMap);
  sm->nexthopToViaNexthopMapDel();
  EXPECT_FALSE(sm->nexthopToViaNexthopMap());
  EXPECT_NE(sm->nexthopToViaNexthopMapIs(), viaMap);
}

TEST_F(VrfNexthopNhIndexResolverSmTest, NeighbourChangeOfNoViaIsHandedToStage2WhichIgnoresIt) {
  resolvableRequest();
  const auto sm = pipelineIs();
  const Plane::NextHopKey unused(intf("Ethernet9"), ip("10.9.9.9"));
  TestSupport::TraceCapture trace("*/8");
  sm->handleNexthopInfo(unused);
  EXPECT_EQ(trace.texts(),
            (std::vector<std::string>{
                std::string(kHandleNexthopInfo) + ": vrfName red",
                "void FwdL3Unicast::ViaNexthopToViaNexthopMacSm::handleNexthopInfo(const "
                "Plane::NextHopKey&): vrfName red",
            }));
  EXPECT_EQ(proactiveArpNexthop->resolutionTrigger(unused), 0u);
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 1u);
  EXPECT_EQ(result("10.0.0.1", "Ethernet1"), 5u);
}

TEST_F(VrfNexthopNhIndexResolverSmTest, NeighbourChangeOfAViaReachesStage2) {
  resolvableRequest();
  const auto sm = pipelineIs();
  // The neighbour table changes; only the pipeline's call makes stage 2 look again.
  nextHopInfoWrapper->nextHopInfoIs(
      Plane::NextHopKey(intf("Ethernet1"), ip("10.0.0.254")),
      Plane::NextHopInfo(intf("Ethernet1"), mac("00:00:00:00:00:bb")));
  EXPECT_EQ(sm->nexthopToViaNexthopMacMap()->map(nhIntf("10.0.0.1", "Ethernet1")).macAddr(),
            mac("00:00:00:00:00:aa"));
  sm->handleNexthopInfo(Plane::NextHopKey(intf("Ethernet1"), ip("10.0.0.254")));
  EXPECT_EQ(sm->nexthopToViaNexthopMacMap()->map(nhIntf("10.0.0.1", "Ethernet1")).macAddr(),
            mac("00:00:00:00:00:bb"));
  EXPECT_EQ(result("10.0.0.1", "Ethernet1"), NexthopNhIndexResolverConstants::invalidNhIndex());
}

TEST_F(VrfNexthopNhIndexResolverSmTest,
       DestroyingPipelineClearsOutputsButRemovesNoProactiveArpEntry) {
  resolvableRequest();
  auto sm = pipelineIs();
  const NexthopToViaNexthopMap::Ptr viaMap = sm->nexthopToViaNexthopMap();
  const NexthopToViaNexthopMacMap::Ptr macMap = sm->nexthopToViaNexthopMacMap();
  ASSERT_EQ(macMap->mapCount(), 1u);
  ASSERT_EQ(proactiveArpNexthop->entryCount(), 1u);

  TestSupport::TraceCapture trace("*/8");
  sm = nullptr;
  EXPECT_EQ(viaMap->mapCount(), 0u);
  EXPECT_EQ(macMap->mapCount(), 0u);
  EXPECT_EQ(results->mapCount(), 0u);
  EXPECT_EQ(nexthopVrfConfig->nexthopCount(), 0u);
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 1u);
  // No stage reacted to another's clean-up.
  EXPECT_EQ(trace.count("ViaNexthop del for nexthop "), 0u);
  EXPECT_EQ(trace.count("Deleting via: "), 0u);
  EXPECT_EQ(trace.count("Find nhIndex request deleted"), 0u);
}

TEST_F(VrfNexthopNhIndexResolverSmTest, RootDroppingPipelineRemovesNoProactiveArpEntry) {
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  resolver.run();
  ASSERT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  ASSERT_EQ(proactiveArpNexthop->entryCount(), 1u);

  TestSupport::TraceCapture trace("*/8");
  vrfL3StatusDel("red");
  EXPECT_FALSE(root->allVrfNexthopNhIndexResolverSm()->smHas(vrf("red")));
  EXPECT_EQ(statusDir->statusCount(), 0u);
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 1u);
  EXPECT_EQ(trace.count("ViaNexthop del for nexthop "), 0u);
  EXPECT_EQ(trace.count("Deleting via: "), 0u);
}

TEST_F(VrfNexthopNhIndexResolverSmTest, RemovedPipelineIsSwitchedOffWithItsStages) {
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  resolver.run();
  const VrfNexthopNhIndexResolverSm::Ptr sm =
      root->allVrfNexthopNhIndexResolverSm()->sm(vrf("red"));
  ASSERT_TRUE(sm);
  root->allVrfNexthopNhIndexResolverSm()->smDel(vrf("red"));
  EXPECT_FALSE(root->allVrfNexthopNhIndexResolverSm()->smHas(vrf("red")));
  EXPECT_FALSE(sm->hasNotificationActive());
  EXPECT_FALSE(sm->nexthopToViaNexthopSm()->hasNotificationActive());
  EXPECT_FALSE(sm->viaNexthopToViaNexthopMacSm()->hasNotificationActive());
  EXPECT_FALSE(sm->viaNexthopMacToNhIndexSm()->hasNotificationActive());
}

TEST_F(VrfNexthopNhIndexResolverSmTest, SwitchingNotificationsReachesTheStages) {
  const auto sm = pipelineIs();
  sm->hasNotificationActiveIs(false);
  EXPECT_FALSE(sm->nexthopToViaNexthopSm()->hasNotificationActive());
  EXPECT_FALSE(sm->viaNexthopToViaNexthopMacSm()->hasNotificationActive());
  EXPECT_FALSE(sm->viaNexthopMacToNhIndexSm()->hasNotificationActive());
  requests->configIs(nhIntf("10.0.0.1", "Ethernet1"));
  EXPECT_FALSE(nexthopVrfConfig->nexthopHas(ip("10.0.0.1")));
  sm->hasNotificationActiveIs(true);
  EXPECT_TRUE(sm->nexthopToViaNexthopSm()->hasNotificationActive());
  EXPECT_TRUE(sm->viaNexthopToViaNexthopMacSm()->hasNotificationActive());
  EXPECT_TRUE(sm->viaNexthopMacToNhIndexSm()->hasNotificationActive());
}

TEST_F(VrfNexthopNhIndexResolverSmTest, StageDeletersReleaseAndCleanUp) {
  resolvableRequest();
  const auto sm = pipelineIs();
  ASSERT_EQ(result("10.0.0.1", "Ethernet1"), 5u);
  sm->viaNexthopMacToNhIndexSmDel();
  EXPECT_FALSE(sm->viaNexthopMacToNhIndexSm());
  EXPECT_EQ(results->mapCount(), 0u);
  sm->nexthopToViaNexthopSmDel();
  EXPECT_FALSE(sm->nexthopToViaNexthopSm());
  EXPECT_EQ(nexthopVrfConfig->nexthopCount(), 0u);
  sm->viaNexthopToViaNexthopMacSmDel();
  EXPECT_FALSE(sm->viaNexthopToViaNexthopMacSm());
}

TEST_F(VrfNexthopNhIndexResolverSmTest, DumpIsTheHeaderFollowedByTheStagesAsChildren) {
  resolvableRequest();
  const auto sm = pipelineIs();
  Core::DumpContext stages;
  stages.dumpChild(sm->nexthopToViaNexthopSm().get(), 2);
  stages.dumpChild(sm->viaNexthopToViaNexthopMacSm().get(), 2);
  stages.dumpChild(sm->viaNexthopMacToNhIndexSm().get(), 2);
  EXPECT_EQ(dump(*sm, 0), "VrfNexthopNhIndexResolverSm - red\n" + stages.text());
}

TEST_F(VrfNexthopNhIndexResolverSmTest, DumpShowsHeaderThenTheThreeStages) {
  const auto sm = pipelineIs();
  const std::string text = dump(*sm, 0);
  EXPECT_EQ(text.rfind("VrfNexthopNhIndexResolverSm - red\n  NexthopToViaNexthopSm - red\n", 0), 0u)
      << text;
  const size_t stage2 = text.find("\n  ViaNexthopToViaNexthopMacSm - red\n");
  const size_t stage3 = text.find("\n  ViaNexthopMacToNhIndexSm - red\n");
  ASSERT_NE(stage2, std::string::npos) << text;
  ASSERT_NE(stage3, std::string::npos) << text;
  EXPECT_LT(stage2, stage3);
  EXPECT_EQ(dump(*sm, 4).rfind(
                "    VrfNexthopNhIndexResolverSm - red\n      NexthopToViaNexthopSm - red\n", 0),
            0u);

  sm->nexthopToViaNexthopSmDel();
  sm->viaNexthopToViaNexthopMacSmDel();
  sm->viaNexthopMacToNhIndexSmDel();
  EXPECT_EQ(dump(*sm, 0),
            "VrfNexthopNhIndexResolverSm - red\n"
            "  (null)\n"
            "  (null)\n"
            "  (null)\n");
  EXPECT_EQ(dump(*sm, 2),
            "  VrfNexthopNhIndexResolverSm - red\n"
            "    (null)\n"
            "    (null)\n"
            "    (null)\n");
}

class VrfNexthopNhIndexResolverSmDeathTest : public VrfNexthopNhIndexResolverSmTest {};

TEST_F(VrfNexthopNhIndexResolverSmDeathTest, NeighbourChangeWithoutStage2Aborts) {
  const auto sm = pipelineIs();
  sm->viaNexthopToViaNexthopMacSmDel();
  EXPECT_DEATH(sm->handleNexthopInfo(Plane::NextHopKey(intf("Ethernet1"), ip("10.0.0.254"))),
               assertionRegex("viaNexthopToViaNexthopMacSm()", "FwdVrfNexthopNhIndexResolverSm",
                              kHandleNexthopInfo));
}

}  // namespace

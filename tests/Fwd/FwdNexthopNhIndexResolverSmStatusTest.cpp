#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "support/ChangeRecorder.h"
#include "support/FwdTestValues.h"
#include "support/ResolverFixture.h"
#include "support/TraceCapture.h"

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using TestSupport::recordChanges;

constexpr const char* kPublish =
    "void FwdL3Unicast::NexthopNhIndexResolverSm::NestedSm_VrfStatus::"
    "handleVrfNexthopNhIndexResolverStatus(const FwdL3Unicast::NexthopIntfId&): ";
constexpr const char* kFanOut =
    "void FwdL3Unicast::NexthopNhIndexResolverSm::handleNexthopInfo(const Plane::NextHopKey&): ";
constexpr const char* kPipelineNeighbour =
    "void FwdL3Unicast::VrfNexthopNhIndexResolverSm::handleNexthopInfo(const Plane::NextHopKey&): ";

class NexthopNhIndexResolverSmStatusTest : public ::testing::Test, public FwdTest::ResolverFixture {
 protected:
  // A tracked VRF without pipeline: only the test writes its result map.
  ViaNexthopMacToNhIndexMap::Ptr trackedMap(const char* vrfName) {
    if (!root) rootIs();
    configDir->configIs(key(vrfName, "10.0.0.1", "Ethernet1"));
    return root->allVrfNexthopNhIndexResolverStatusDir()->vrfStatus(vrf(vrfName));
  }
  std::unique_ptr<TestSupport::ChangeRecorder<NexthopNhIndexResolverKey>> recordStatuses() {
    return recordChanges<NexthopNhIndexResolverKey>(statusDir.get(),
                                                    NexthopNhIndexResolverStatusDir::statusAttr);
  }
};

TEST_F(NexthopNhIndexResolverSmStatusTest, ChangedIndexLeavesOneStatusAndNotifiesOnce) {
  const ViaNexthopMacToNhIndexMap::Ptr map = trackedMap("red");
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 5));
  ASSERT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);

  auto statuses = recordStatuses();
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 7));
  EXPECT_EQ(statuses->keys,
            std::vector<NexthopNhIndexResolverKey>{key("red", "10.0.0.1", "Ethernet1")});
  EXPECT_EQ(statusDir->statusCount(), 1u);
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 7u);
}

TEST_F(NexthopNhIndexResolverSmStatusTest, SameIndexAgainNotifiesNothing) {
  const ViaNexthopMacToNhIndexMap::Ptr map = trackedMap("red");
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 5));
  auto statuses = recordStatuses();
  // Re-publishing the same index through the reactor changes nothing either.
  root->vrfStatus(vrf("red"))
      ->handleVrfNexthopNhIndexResolverStatus(nhIntf("10.0.0.1", "Ethernet1"));
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 5));
  EXPECT_TRUE(statuses->keys.empty());
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
}

TEST_F(NexthopNhIndexResolverSmStatusTest, PublishAndDeleteTracesAreExact) {
  const ViaNexthopMacToNhIndexMap::Ptr map = trackedMap("red");
  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 5));
  map->mapDel(nhIntf("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(trace.texts(),
            (std::vector<std::string>{
                std::string(kPublish) +
                    "Publishing resolution for vrfName: red nexthop: 10.0.0.1 intfId: Ethernet1 "
                    "nhIndex=5",
                std::string(kPublish) +
                    "Deleting resolution for vrfName: red nexthop: 10.0.0.1 intfId: Ethernet1",
            }));
  EXPECT_FALSE(statusDir->statusHas(key("red", "10.0.0.1", "Ethernet1")));
}

TEST_F(NexthopNhIndexResolverSmStatusTest, DeletedEntryDeletesItsStatusOnly) {
  const ViaNexthopMacToNhIndexMap::Ptr red = trackedMap("red");
  const ViaNexthopMacToNhIndexMap::Ptr blue = trackedMap("blue");
  red->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 5));
  red->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.2", "Ethernet1"), 6));
  blue->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 5));
  ASSERT_EQ(statusDir->statusCount(), 3u);

  auto statuses = recordStatuses();
  red->mapDel(nhIntf("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(statuses->keys,
            std::vector<NexthopNhIndexResolverKey>{key("red", "10.0.0.1", "Ethernet1")});
  EXPECT_EQ(statusDir->statusCount(), 2u);
  EXPECT_EQ(publishedNhIndex("blue", "10.0.0.1", "Ethernet1"), 5u);
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.2", "Ethernet1"), 6u);
}

TEST_F(NexthopNhIndexResolverSmStatusTest, DeletingNeverPublishedEntryTracesAndNotifiesNothing) {
  const ViaNexthopMacToNhIndexMap::Ptr map = trackedMap("red");
  // Written while the reactor is switched off: never published.
  root->vrfStatus(vrf("red"))->hasNotificationActiveIs(false);
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 5));
  root->vrfStatus(vrf("red"))->hasNotificationActiveIs(true);
  ASSERT_EQ(statusDir->statusCount(), 0u);

  auto statuses = recordStatuses();
  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  map->mapDel(nhIntf("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(trace.count("Deleting resolution for vrfName: red nexthop: 10.0.0.1 intfId: Ethernet1"),
            1u);
  EXPECT_TRUE(statuses->keys.empty());
}

TEST_F(NexthopNhIndexResolverSmStatusTest,
       ResultsOfConstructionArePublishedOnceThePipelineIsRebuilt) {
  // Everything is ready before the root exists: its first pipeline resolves the request while
  // the root is being built, before the status reactors exist.
  vrfL3StatusIs("red", 1);
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  nexthopStatus->vrfIs(vrf("red"))->nexthopIs(Routing::NexthopStatusEntry(ip("10.0.0.1"), 100));
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  rootIs();

  const ViaNexthopMacToNhIndexMap::Ptr map =
      root->allVrfNexthopNhIndexResolverStatusDir()->vrfStatus(vrf("red"));
  ASSERT_TRUE(root->allVrfNexthopNhIndexResolverSm()->sm(vrf("red")));
  EXPECT_EQ(map->map(nhIntf("10.0.0.1", "Ethernet1")).nhIndex(), 5u);
  EXPECT_EQ(statusDir->statusCount(), 0u);

  auto statuses = recordStatuses();
  vrfL3StatusDel("red");  // the pipeline's teardown empties the map: nothing to withdraw
  EXPECT_TRUE(statuses->keys.empty());
  vrfL3StatusIs("red", 1);
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
}

TEST_F(NexthopNhIndexResolverSmStatusTest, StatusReactorFollowsTheMapItIsGiven) {
  const ViaNexthopMacToNhIndexMap::Ptr map = trackedMap("red");
  const auto nested = root->vrfStatus(vrf("red"));
  root->vrfStatusIs(map);
  EXPECT_EQ(root->vrfStatus(vrf("red")), nested);
  EXPECT_EQ(nested->notifier(), map);

  const ViaNexthopMacToNhIndexMap::Ptr other = viaNexthopMacToNhIndexMapFactory(vrf("red"));
  root->vrfStatusIs(other);
  EXPECT_EQ(root->vrfStatus(vrf("red")), nested);
  EXPECT_EQ(nested->notifier(), other);
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 5));
  EXPECT_EQ(statusDir->statusCount(), 0u);
  other->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 6));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 6u);

  EXPECT_THROW(root->vrfStatusIs(nullptr), Core::NullArgumentError);
  EXPECT_THROW(root->allVrfNexthopNhIndexResolverStatusDir()->vrfStatusIs(nullptr),
               Core::NullArgumentError);
}

TEST_F(NexthopNhIndexResolverSmStatusTest, RequestResolvesEndToEndAndUnwinds) {
  vrfL3StatusIs("red", 1);
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  // The resolver answers from the agent's task queue, after the request's handlers returned.
  resolver.scheduleRun(*scheduler);
  EXPECT_EQ(statusDir->statusCount(), 0u);
  scheduler->runUntilIdle();
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);

  configDir->configDel(key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_EQ(statusDir->statusCount(), 0u);
  resolver.run();
  EXPECT_FALSE(nexthopStatus->vrfHas(vrf("red")));
}

TEST_F(NexthopNhIndexResolverSmStatusTest, NeighbourChangeReachesEveryPipeline) {
  vrfL3StatusIs("red", 1);
  vrfL3StatusIs("blue", 2);
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("blue", "10.0.0.1", "Ethernet1"));
  resolver.run();
  ASSERT_EQ(root->allVrfNexthopNhIndexResolverSm()->smCount(), 2u);

  TestSupport::TraceCapture trace("*/8");
  neighbourIs("Ethernet9", "10.9.9.9", "00:00:00:00:00:cc");
  EXPECT_TRUE(trace.contains(std::string(kFanOut) + "Nexthop notification for nexthop : " +
                             Kiln::toText(Plane::NextHopKey(intf("Ethernet9"), ip("10.9.9.9"))) +
                             " mac address : 00:00:00:00:00:cc"));
  EXPECT_EQ(trace.count(std::string(kPipelineNeighbour) + "vrfName red"), 1u);
  EXPECT_EQ(trace.count(std::string(kPipelineNeighbour) + "vrfName blue"), 1u);
  EXPECT_EQ(statusDir->statusCount(), 2u);
}

TEST_F(NexthopNhIndexResolverSmStatusTest, NeighbourChangeWithoutPipelinesOnlyTraces) {
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));  // tracked, not ready
  TestSupport::TraceCapture trace("*/8");
  neighbourIs("Ethernet1", "10.0.0.254", "00:00:00:00:00:aa");
  ASSERT_EQ(trace.lines().size(), 1u);
  EXPECT_EQ(trace.texts()[0].rfind(kFanOut, 0), 0u);
  neighbourDel("Ethernet1", "10.0.0.254");
  EXPECT_EQ(trace.count("mac address : 00:00:00:00:00:00"), 1u);
}

TEST_F(NexthopNhIndexResolverSmStatusTest, NeighbourLearntLaterCompletesTheResolution) {
  vrfL3StatusIs("red", 1);
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  neighbourDel("Ethernet1", "10.0.0.254");
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  resolver.run();
  EXPECT_EQ(statusDir->statusCount(), 0u);

  neighbourIs("Ethernet1", "10.0.0.254", "00:00:00:00:00:aa");
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  neighbourDel("Ethernet1", "10.0.0.254");
  EXPECT_EQ(statusDir->statusCount(), 0u);
}

}  // namespace

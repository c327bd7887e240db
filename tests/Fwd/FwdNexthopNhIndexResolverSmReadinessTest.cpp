#include <gtest/gtest.h>

#include <map>
#include <memory>
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

std::string rootText(const std::string& function, const std::string& message) {
  return "void FwdL3Unicast::NexthopNhIndexResolverSm::" + function +
         "(const L3::VrfName&): " + message;
}
constexpr const char* kInstantiate =
    "void FwdL3Unicast::NexthopNhIndexResolverSm::checkAndInstantiateVrfSm(const L3::VrfName&)";

class NexthopNhIndexResolverSmReadinessTest : public ::testing::Test,
                                              public FwdTest::ResolverFixture {
 protected:
  AllVrfNexthopNhIndexResolverSm& pipelines() { return *root->allVrfNexthopNhIndexResolverSm(); }
  VrfNexthopNhIndexResolverSm::Ptr pipeline(const char* vrfName) {
    return pipelines().sm(vrf(vrfName));
  }
  // A client of the statuses that takes the VRF (plane id 1) down and up again from inside the
  // notification of the next status; sets bounced_.
  std::unique_ptr<TestSupport::ChangeRecorder<NexthopNhIndexResolverKey>> bounceOnNextStatus(
      std::string vrfName) {
    auto client = TestSupport::recordChanges<NexthopNhIndexResolverKey>(
        statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
    client->onChange = [this, vrfName](const NexthopNhIndexResolverKey&) {
      if (bounced_) return;
      bounced_ = true;
      vrfL3StatusDel(vrfName);
      vrfL3StatusIs(vrfName, 1);
    };
    return client;
  }
  bool bounced_ = false;
  // A tracked VRF with a routing status; its pipeline runs once the VRF has an L3 status too.
  void tracked(const char* vrfName) {
    if (!root) rootIs();
    configDir->configIs(key(vrfName, "10.0.0.1", "Ethernet1"));
    resolver.run();
  }
};

TEST_F(NexthopNhIndexResolverSmReadinessTest, PipelineStartsOnceVrfL3StatusArrives) {
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  tracked("red");
  ASSERT_TRUE(nexthopStatus->vrfHas(vrf("red")));
  EXPECT_FALSE(pipeline("red"));
  EXPECT_EQ(statusDir->statusCount(), 0u);

  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  vrfL3StatusIs("red", 1);
  ASSERT_TRUE(pipeline("red"));
  // The new pipeline registered the nexthop; the resolver answers on its next run.
  EXPECT_TRUE(nexthopConfig->vrf(vrf("red"))->nexthopHas(ip("10.0.0.1")));
  resolver.run();
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  ASSERT_GE(trace.lines().size(), 2u);
  EXPECT_EQ(trace.texts()[0], rootText("handleVrfL3Status", "vrf: red status added"));
  EXPECT_EQ(trace.texts()[1],
            std::string(kInstantiate) +
                ": Instantiating VrfNexthopNhIndexResolverSm for vrf: red fecMode: 2");
}

TEST_F(NexthopNhIndexResolverSmReadinessTest,
       LosingVrfL3StatusDropsPipelineAndRegainingRebuildsAllRequests) {
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  resolvableIs("10.0.1.1", "Ethernet2", "10.0.1.254", 101, "00:00:00:00:00:bb", 6);
  vrfL3StatusIs("red", 1);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("red", "10.0.1.1", "Ethernet2"));
  resolver.run();
  ASSERT_EQ(statusDir->statusCount(), 2u);

  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  vrfL3StatusDel("red");
  EXPECT_TRUE(trace.contains(rootText("handleVrfL3Status", "vrf: red status deleted")));
  EXPECT_TRUE(trace.contains(
      rootText("checkAndDestroyVrfSm", "Destroying VrfNexthopNhIndexResolverSm of vrf: red")));
  EXPECT_FALSE(pipeline("red"));
  EXPECT_EQ(statusDir->statusCount(), 0u);
  // The VRF stays tracked.
  EXPECT_EQ(root->allVrfNexthopNhIndexResolverConfigDir()->vrfConfig(vrf("red"))->configCount(),
            2u);
  EXPECT_TRUE(nexthopConfig->vrfHas(vrf("red")));
  EXPECT_TRUE(root->allVrfNexthopNhIndexResolverStatusDir()->vrfStatusHas(vrf("red")));
  EXPECT_TRUE(root->vrfStatus(vrf("red")));

  vrfL3StatusIs("red", 1);
  ASSERT_TRUE(pipeline("red"));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  EXPECT_EQ(publishedNhIndex("red", "10.0.1.1", "Ethernet2"), 6u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, LosingRoutingVrfStatusDropsPipelineUntilItReturns) {
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  vrfL3StatusIs("red", 1);
  tracked("red");
  ASSERT_TRUE(pipeline("red"));

  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  nexthopStatus->vrfDel(vrf("red"));
  EXPECT_EQ(trace.texts().front(),
            rootText("handleNexthopVrfStatus", "nexthopVrfStatus deleted for vrf: red"));
  EXPECT_FALSE(pipeline("red"));
  EXPECT_EQ(statusDir->statusCount(), 0u);

  trace.clear();
  resolver.run();
  EXPECT_EQ(trace.texts().front(),
            rootText("handleNexthopVrfStatus", "nexthopVrfStatus created for vrf: red"));
  EXPECT_TRUE(pipeline("red"));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest,
       VrfBouncedFromInsideAStatusNotificationEndsWithEveryStatusPublished) {
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  resolvableIs("10.0.1.1", "Ethernet2", "10.0.1.254", 101, "00:00:00:00:00:bb", 6);
  vrfL3StatusIs("red", 1);
  tracked("red");
  ASSERT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  // A client of the statuses that sees the next one and takes the VRF down and up again while
  // the pipeline's stages are still publishing it.
  const auto client = bounceOnNextStatus("red");

  configDir->configIs(key("red", "10.0.1.1", "Ethernet2"));
  resolver.run();
  resolver.run();

  ASSERT_TRUE(bounced_);
  ASSERT_TRUE(pipeline("red"));
  EXPECT_TRUE(nexthopConfig->vrf(vrf("red"))->nexthopHas(ip("10.0.0.1")));
  EXPECT_TRUE(nexthopConfig->vrf(vrf("red"))->nexthopHas(ip("10.0.1.1")));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  EXPECT_EQ(publishedNhIndex("red", "10.0.1.1", "Ethernet2"), 6u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, RepeatedReadyNotificationKeepsRunningPipeline) {
  vrfL3StatusIs("red", 1);
  tracked("red");
  const VrfNexthopNhIndexResolverSm::Ptr running = pipeline("red");
  ASSERT_TRUE(running);

  TestSupport::TraceCapture trace("*/8");
  vrfStatusAll->vrfStatusIs(Plane::VrfL3Status(vrf("red"), 7));
  EXPECT_EQ(trace.count("Instantiating VrfNexthopNhIndexResolverSm for vrf: red"), 1u);
  EXPECT_EQ(trace.count("VrfNexthopNhIndexResolverSm::handleInitialized()"), 0u);
  EXPECT_EQ(pipeline("red"), running);
  EXPECT_EQ(pipelines().smCount(), 1u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, DefaultVrfUsesRootTableInEveryFecMode) {
  fecModeStatus->fecModeIs(Memtab::Fib::fecModePerVrf());
  vrfL3StatusIs("default", 1);
  tracked("default");
  ASSERT_TRUE(pipeline("default"));
  EXPECT_EQ(pipeline("default")->forwardingGenStatus(), forwardingGenStatus);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, GlobalFecModeUsesRootTableForEveryVrf) {
  vrfL3StatusIs("red", 1);
  tracked("red");
  ASSERT_TRUE(pipeline("red"));
  EXPECT_EQ(pipeline("red")->forwardingGenStatus(), forwardingGenStatus);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, PerVrfFecModeMountsTheVrfsOwnTable) {
  const Memtab::FibGen::ForwardingStatus::Ptr redTable =
      Memtab::FibGen::ForwardingStatus::ForwardingStatusIs();
  em->entityIs("forwardingGen/vrf/status/red", redTable);
  fecModeStatus->fecModeIs(Memtab::Fib::fecModePerVrf());
  // The FEC exists only in red's own table.
  fecIs(*redTable, 100, {{"Ethernet1", "10.0.0.254"}});
  resolver.routeIs(ip("10.0.0.1"), 100);
  neighbourIs("Ethernet1", "10.0.0.254", "00:00:00:00:00:aa");
  nhIndexIs("Ethernet1", 5, "00:00:00:00:00:aa");
  vrfL3StatusIs("red", 1);
  rootIs();

  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  resolver.run();
  ASSERT_TRUE(pipeline("red"));
  EXPECT_EQ(pipeline("red")->forwardingGenStatus(), redTable);
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  EXPECT_TRUE(
      trace.contains(std::string(kInstantiate) +
                     ": Instantiating VrfNexthopNhIndexResolverSm for vrf: red fecMode: 1"));
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, FailedMountGivesPipelineWithoutTable) {
  fecModeStatus->fecModeIs(Memtab::Fib::fecModePerVrf());
  // Something of another type at the path does not mount as a FEC table either.
  em->entityIs("forwardingGen/vrf/status/blue", Routing::NexthopBacklog::NexthopBacklogIs());
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  vrfL3StatusIs("red", 1);
  vrfL3StatusIs("blue", 2);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("blue", "10.0.0.1", "Ethernet1"));
  resolver.run();
  ASSERT_TRUE(pipeline("red"));
  ASSERT_TRUE(pipeline("blue"));
  EXPECT_FALSE(pipeline("red")->forwardingGenStatus());
  EXPECT_FALSE(pipeline("blue")->forwardingGenStatus());
  EXPECT_EQ(statusDir->statusCount(), 0u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, DestroyWithoutPipelineDoesNothingAndTracesNothing) {
  tracked("red");
  TestSupport::TraceCapture trace("*/9");
  root->checkAndDestroyVrfSm(vrf("red"));
  root->checkAndDestroyVrfSm(vrf("unknown"));
  EXPECT_TRUE(trace.lines().empty());
  EXPECT_TRUE(nexthopConfig->vrfHas(vrf("red")));
  EXPECT_TRUE(root->allVrfNexthopNhIndexResolverConfigDir()->vrfConfigHas(vrf("red")));
}

TEST_F(NexthopNhIndexResolverSmReadinessTest,
       InstantiateWithAPieceMissingDoesNothingAndTracesNothing) {
  tracked("red");            // no L3 status
  vrfL3StatusIs("blue", 2);  // not registered, no routing status
  TestSupport::TraceCapture trace("*/9");
  root->checkAndInstantiateVrfSm(vrf("red"));
  root->checkAndInstantiateVrfSm(vrf("blue"));
  EXPECT_TRUE(trace.lines().empty());
  EXPECT_EQ(pipelines().smCount(), 0u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, PipelineCollectionKeepsSameInputsAndRefusesOthers) {
  vrfL3StatusIs("red", 1);
  tracked("red");
  const VrfNexthopNhIndexResolverSm::Ptr running = pipeline("red");
  ASSERT_TRUE(running);
  const VrfNexthopNhIndexResolverInputs same = vrfNexthopNhIndexResolverInputs(*running);
  EXPECT_EQ(pipelines().smIs(vrf("red"), same), running);

  // Each input alone, replaced by another object of its type, makes another pipeline.
  std::vector<VrfNexthopNhIndexResolverInputs> others(10, same);
  others[0].config = FwdL3Unicast::nexthopIntfIdCollFactory(vrf("red"));
  others[1].nexthopVrfConfig =
      Routing::NexthopVrfConfig::NexthopVrfConfigIs(vrf("red"), Routing::fecIdTypeDefault);
  others[2].nexthopVrfStatus = Routing::NexthopVrfStatus::NexthopVrfStatusIs(vrf("red"));
  others[3].forwardingGenStatus = Memtab::FibGen::ForwardingStatus::ForwardingStatusIs();
  others[4].nextHopInfoWrapper = Plane::NextHopInfoWrapper::NextHopInfoWrapperIs();
  others[5].vrfStatusAll = Plane::VrfL3StatusAll::VrfL3StatusAllIs();
  others[6].l3Modules = FwdL3Unicast::L3Modules::L3ModulesIs();
  others[7].proactiveArpNexthopSm = Plane::ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(
      Arp::ProactiveArp::ClientConfig::ClientConfigIs());
  others[8].scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  others[9].status = FwdL3Unicast::viaNexthopMacToNhIndexMapFactory(vrf("red"));
  for (size_t i = 0; i < others.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_NE(others[i], same);
    EXPECT_THROW(pipelines().smIs(vrf("red"), others[i]), Core::ReinstantiationError);
  }
  EXPECT_EQ(pipeline("red"), running);
}

class NexthopNhIndexResolverSmReadinessDeathTest : public NexthopNhIndexResolverSmReadinessTest {};

TEST_F(NexthopNhIndexResolverSmReadinessDeathTest, ReadyVrfWithoutRequestsAborts) {
  rootIs();
  // Registered behind the root's back: the VRF has no request collection.
  nexthopConfig->vrfIs(vrf("blue"), Routing::fecIdTypeDefault);
  nexthopStatus->vrfIs(vrf("blue"));
  EXPECT_DEATH(vrfL3StatusIs("blue", 2),
               assertionRegex("config", "FwdNexthopNhIndexResolverSm", kInstantiate));
}

TEST_F(NexthopNhIndexResolverSmReadinessDeathTest, ReadyVrfWithoutStatusMapAborts) {
  tracked("red");
  root->allVrfNexthopNhIndexResolverStatusDir()->vrfStatusDel(vrf("red"));
  EXPECT_DEATH(vrfL3StatusIs("red", 1),
               assertionRegex("status", "FwdNexthopNhIndexResolverSm", kInstantiate));
}

TEST_F(NexthopNhIndexResolverSmReadinessDeathTest, UnknownFecModeAbortsForNonDefaultVrf) {
  fecModeStatus->fecModeIs(3);
  tracked("red");
  EXPECT_DEATH(vrfL3StatusIs("red", 1),
               assertionRegex("fecModeStatus()->fecMode() == Memtab::Fib::fecModePerVrf()",
                              "FwdNexthopNhIndexResolverSm", kInstantiate));
}

TEST_F(NexthopNhIndexResolverSmReadinessTest, UnknownFecModeIsFineForDefaultVrf) {
  fecModeStatus->fecModeIs(3);
  tracked("default");
  vrfL3StatusIs("default", 1);
  ASSERT_TRUE(pipeline("default"));
  EXPECT_EQ(pipeline("default")->forwardingGenStatus(), forwardingGenStatus);
}

}  // namespace

// Requests whose vias are resolvable (10.0.0.1 on Ethernet1, 10.0.1.1 on Ethernet2, VRF red),
// and a client of the proactive ARP entries that deletes requests from inside the notification
// of the first entry it sees, while stage 2 is still adding the request that created the via.
class NexthopNhIndexResolverSmNestedArpTest : public NexthopNhIndexResolverSmReadinessTest {
 protected:
  void SetUp() override {
    resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
    resolvableIs("10.0.1.1", "Ethernet2", "10.0.1.254", 101, "00:00:00:00:00:bb", 6);
    vrfL3StatusIs("red", 1);
    rootIs();
  }
  // Adds `added` while the first ARP entry's notification deletes `deleted`.
  void addDeletingOnFirstArpEntry(const NexthopNhIndexResolverKey& added,
                                  std::vector<NexthopNhIndexResolverKey> deleted) {
    bool fired = false;
    auto arpClient = TestSupport::recordChanges<Arp::ProactiveArp::ClientEntry>(
        proactiveArpNexthop.get(), Arp::ProactiveArp::ClientConfig::entryAttr);
    arpClient->onChange = [&](const Arp::ProactiveArp::ClientEntry&) {
      if (fired) return;
      fired = true;
      for (const NexthopNhIndexResolverKey& k : deleted) configDir->configDel(k);
    };
    configDir->configIs(added);
    resolver.run();
    ASSERT_TRUE(fired);
  }
};

TEST_F(NexthopNhIndexResolverSmNestedArpTest,
       LastRequestDeletedWhileItsViaIsAddedLeavesNoProactiveArpEntry) {
  const NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  addDeletingOnFirstArpEntry(k, {k});

  EXPECT_FALSE(pipeline("red"));
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 0u);
  EXPECT_EQ(statusDir->statusCount(), 0u);
}

TEST_F(NexthopNhIndexResolverSmNestedArpTest,
       EveryRequestDeletedWhileANewViaIsAddedLeavesNoProactiveArpEntry) {
  tracked("red");
  ASSERT_EQ(proactiveArpNexthop->entryCount(), 1u);
  const NexthopNhIndexResolverKey k = key("red", "10.0.1.1", "Ethernet2");
  addDeletingOnFirstArpEntry(k, {key("red", "10.0.0.1", "Ethernet1"), k});

  EXPECT_FALSE(pipeline("red"));
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 0u);
  EXPECT_EQ(statusDir->statusCount(), 0u);
}

TEST_F(NexthopNhIndexResolverSmNestedArpTest,
       RequestDeletedWhileItsViaIsAddedLeavesTheOtherRequestsViaInPlace) {
  tracked("red");
  const NexthopNhIndexResolverKey k = key("red", "10.0.1.1", "Ethernet2");
  addDeletingOnFirstArpEntry(k, {k});

  ASSERT_TRUE(pipeline("red"));
  EXPECT_TRUE(proactiveArpNexthop->entryHas(
      Arp::ProactiveArp::ClientEntry(Plane::NextHopKey(intf("Ethernet1"), ip("10.0.0.254")),
                                     1 + Plane::VrfL3StatusAll::arpVrfIdOffset)));
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 1u);
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  EXPECT_EQ(statusDir->statusCount(), 1u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest,
       VrfBouncedByTheFirstStatusOfANewModuleKeepsTheNewPipelinesStatuses) {
  fecIs(100, {{"Ethernet1", "10.0.0.254"}});
  resolver.routeIs(ip("10.0.0.1"), 100);
  resolver.routeIs(ip("10.0.0.2"), 100);
  neighbourIs("Ethernet1", "10.0.0.254", "00:00:00:00:00:aa");
  vrfL3StatusIs("red", 1);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("red", "10.0.0.2", "Ethernet1"));
  resolver.run();
  ASSERT_EQ(statusDir->statusCount(), 0u);
  // A client of the statuses that takes the VRF down and up again on the first one, while the
  // machine of the module that is arriving is still writing its first statuses.
  const auto client = bounceOnNextStatus("red");

  NextHopMod::Ptr module = NextHopMod::NextHopModIs(intf("Ethernet1"));
  module->nhIndexToMacIs(5, mac("00:00:00:00:00:aa"));
  l3Modules->nextHopModIs(module);

  ASSERT_TRUE(bounced_);
  ASSERT_TRUE(pipeline("red"));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.2", "Ethernet1"), 5u);
  EXPECT_EQ(statusDir->statusCount(), 2u);
}

// Two requests on Ethernet1 (10.0.0.1 and 10.0.0.2), through vias whose neighbours have MACs aa
// and bb, and with `thirdSharesAa` a third (10.0.0.3) through a via of its own whose neighbour
// has MAC aa too. A new module with index 5 for aa and 6 for bb then starts the interface's
// machine; on the machine's status number `onStatus`, `disturb` gets the via of the request it
// published first, whose group the machine has already written.
class NexthopNhIndexResolverSmModuleStartTest : public NexthopNhIndexResolverSmReadinessTest {
 protected:
  template <class Disturb>
  std::vector<NexthopNhIndexResolverKey> startModuleDisturbedOnStatus(size_t onStatus,
                                                                      Disturb disturb,
                                                                      bool thirdSharesAa = false) {
    std::map<std::string, std::string> viaOf{{"10.0.0.1", "10.0.0.254"},
                                             {"10.0.0.2", "10.0.0.253"}};
    if (thirdSharesAa) viaOf.emplace("10.0.0.3", "10.0.0.252");
    uint32_t fecId = 100;
    for (const auto& [nexthop, via] : viaOf) {
      fecIs(fecId, {{"Ethernet1", via}});
      resolver.routeIs(ip(nexthop), fecId++);
    }
    neighbourIs("Ethernet1", "10.0.0.254", "00:00:00:00:00:aa");
    neighbourIs("Ethernet1", "10.0.0.253", "00:00:00:00:00:bb");
    if (thirdSharesAa) neighbourIs("Ethernet1", "10.0.0.252", "00:00:00:00:00:aa");
    vrfL3StatusIs("red", 1);
    rootIs();
    for (const auto& [nexthop, via] : viaOf) configDir->configIs(key("red", nexthop, "Ethernet1"));
    resolver.run();
    std::vector<NexthopNhIndexResolverKey> published;
    auto client = TestSupport::recordChanges<NexthopNhIndexResolverKey>(
        statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
    client->onChange = [&](const NexthopNhIndexResolverKey& k) {
      published.push_back(k);
      if (published.size() != onStatus) return;
      disturb(viaOf.at(published.front().nexthop().toString()));
    };

    module_ = NextHopMod::NextHopModIs(intf("Ethernet1"));
    module_->nhIndexToMacIs(5, mac("00:00:00:00:00:aa"));
    module_->nhIndexToMacIs(6, mac("00:00:00:00:00:bb"));
    l3Modules->nextHopModIs(module_);
    return published;
  }
  NextHopMod::Ptr module_;

  // The request published first lost its status and the second kept it.
  void expectFirstLostSecondKept(const std::vector<NexthopNhIndexResolverKey>& published) {
    ASSERT_GE(published.size(), 2u);
    const NexthopNhIndexResolverKey& lost = published[0];
    const NexthopNhIndexResolverKey& kept = published[1];
    ASSERT_NE(lost, kept);
    EXPECT_FALSE(statusDir->statusHas(lost));
    EXPECT_TRUE(statusDir->statusHas(kept));
    EXPECT_EQ(statusDir->statusCount(), 1u);
  }
};

TEST_F(NexthopNhIndexResolverSmModuleStartTest,
       NexthopLeavingItsGroupWhileANewModuleStartsLosesItsStatus) {
  // The via loses its neighbour entry: the request leaves its group for none.
  expectFirstLostSecondKept(startModuleDisturbedOnStatus(
      2, [this](const std::string& via) { neighbourDel("Ethernet1", via); }));
}

TEST_F(NexthopNhIndexResolverSmModuleStartTest,
       NexthopMovingToAGroupWithoutIndexWhileANewModuleStartsLosesItsStatus) {
  // The via's neighbour moves to a MAC the module has no index for: the request joins a group
  // that holds it without an index.
  expectFirstLostSecondKept(startModuleDisturbedOnStatus(
      2, [this](const std::string& via) { neighbourIs("Ethernet1", via, "00:00:00:00:00:cc"); }));
}

TEST_F(NexthopNhIndexResolverSmModuleStartTest,
       NexthopLeavingAGroupThatKeepsAnotherWhileANewModuleStartsLosesItsStatus) {
  // On the start's last status, 10.0.0.1's via loses its neighbour entry: the request leaves
  // group aa, which keeps 10.0.0.3, and no watcher of aa exists yet to withdraw its status.
  const std::vector<NexthopNhIndexResolverKey> published = startModuleDisturbedOnStatus(
      3, [this](const std::string&) { neighbourDel("Ethernet1", "10.0.0.254"); }, true);
  ASSERT_EQ(published.size(), 4u);
  EXPECT_EQ(published.back(), key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_FALSE(statusDir->statusHas(key("red", "10.0.0.1", "Ethernet1")));
  EXPECT_EQ(statusDir->status(key("red", "10.0.0.2", "Ethernet1")).nhIndex(), 6u);
  EXPECT_EQ(statusDir->status(key("red", "10.0.0.3", "Ethernet1")).nhIndex(), 5u);
  EXPECT_EQ(statusDir->statusCount(), 2u);
}

TEST_F(NexthopNhIndexResolverSmModuleStartTest,
       IndexRemappedBeforeTheStartsTableWalkReachesItGivesItsOldMacNothing) {
  // On the first status, the other via's index moves to a MAC no group has, before the start's
  // walk of the table (from a copy) reaches that index.
  const std::vector<NexthopNhIndexResolverKey> published =
      startModuleDisturbedOnStatus(1, [this](const std::string& via) {
        module_->nhIndexToMacIs(via == "10.0.0.254" ? 6 : 5, mac("00:00:00:00:00:cc"));
      });
  ASSERT_EQ(published.size(), 1u);
  const NexthopNhIndexResolverKey& first = published[0];
  EXPECT_EQ(statusDir->status(first).nhIndex(), first.nexthop() == ip("10.0.0.1") ? 5u : 6u);
  EXPECT_EQ(statusDir->statusCount(), 1u);
}

TEST_F(NexthopNhIndexResolverSmNestedArpTest,
       LastRequestDeletedOnItsFirstStatusLeavesNoProactiveArpEntry) {
  const NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  bool fired = false;
  auto client = TestSupport::recordChanges<NexthopNhIndexResolverKey>(
      statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
  client->onChange = [&](const NexthopNhIndexResolverKey&) {
    if (fired) return;
    fired = true;
    configDir->configDel(k);
  };

  configDir->configIs(k);
  resolver.run();

  ASSERT_TRUE(fired);
  EXPECT_FALSE(pipeline("red"));
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 0u);
  EXPECT_EQ(statusDir->statusCount(), 0u);
}

// While one request of a VRF is deleted, a client of its status withdrawal deletes the VRF's
// other (last) request, which takes the VRF down, and requests it again, which tracks the VRF
// anew. The deletion under way then finds its VRF's request collection empty: it must leave the
// VRF tracked afresh alone.
TEST_F(NexthopNhIndexResolverSmNestedArpTest,
       VrfTrackedAnewWhileItsRequestIsDeletedKeepsItsNewPipeline) {
  const NexthopNhIndexResolverKey kept = key("red", "10.0.0.1", "Ethernet1");
  const NexthopNhIndexResolverKey deleted = key("red", "10.0.1.1", "Ethernet2");
  tracked("red");
  configDir->configIs(deleted);
  resolver.run();
  ASSERT_EQ(statusDir->statusCount(), 2u);
  bool fired = false;
  auto client = TestSupport::recordChanges<NexthopNhIndexResolverKey>(
      statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
  client->onChange = [&](const NexthopNhIndexResolverKey&) {
    if (fired) return;
    fired = true;
    configDir->configDel(kept);
    configDir->configIs(kept);
  };

  configDir->configDel(deleted);
  resolver.run();

  ASSERT_TRUE(fired);
  ASSERT_TRUE(pipeline("red"));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  EXPECT_EQ(statusDir->statusCount(), 1u);
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 1u);
}

TEST_F(NexthopNhIndexResolverSmNestedArpTest, VrfTakenDownLeavesTheArpEntriesOfItsRequestedVias) {
  tracked("red");
  ASSERT_EQ(proactiveArpNexthop->entryCount(), 1u);

  vrfL3StatusDel("red");

  EXPECT_FALSE(pipeline("red"));
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 1u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest,
       VrfBouncedWhileAModulesMachineCleansUpKeepsTheNewPipelinesStatuses) {
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  resolver.routeIs(ip("10.0.0.2"), 100);
  vrfL3StatusIs("red", 1);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("red", "10.0.0.2", "Ethernet1"));
  resolver.run();
  ASSERT_EQ(statusDir->statusCount(), 2u);
  // On the first status withdrawn by the module's removal: a new module for the interface, then
  // the VRF down and up again, while the old machine is still withdrawing its statuses.
  bool fired = false;
  auto client = TestSupport::recordChanges<NexthopNhIndexResolverKey>(
      statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
  client->onChange = [&](const NexthopNhIndexResolverKey& k) {
    if (fired || statusDir->statusHas(k)) return;
    fired = true;
    NextHopMod::Ptr replacement = NextHopMod::NextHopModIs(intf("Ethernet1"));
    replacement->nhIndexToMacIs(7, mac("00:00:00:00:00:aa"));
    l3Modules->nextHopModIs(replacement);
    vrfL3StatusDel("red");
    vrfL3StatusIs("red", 1);
  };

  l3Modules->nextHopModDel(intf("Ethernet1"));

  ASSERT_TRUE(fired);
  ASSERT_TRUE(pipeline("red"));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 7u);
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.2", "Ethernet1"), 7u);
  EXPECT_EQ(statusDir->statusCount(), 2u);
}

TEST_F(NexthopNhIndexResolverSmReadinessTest,
       RequestReaddedDeletedAndReaddedFromInsideItsDeletionStaysTracked) {
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  vrfL3StatusIs("red", 1);
  rootIs();
  const NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  configDir->configIs(key("red", "10.0.0.9", "Ethernet2"));
  configDir->configIs(k);
  resolver.run();
  ASSERT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  // When the deletion withdraws the status, the request comes back, goes and comes back again.
  bool fired = false;
  auto client = TestSupport::recordChanges<NexthopNhIndexResolverKey>(
      statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
  client->onChange = [&](const NexthopNhIndexResolverKey& changed) {
    if (fired || changed != k || statusDir->statusHas(k)) return;
    fired = true;
    configDir->configIs(k);
    configDir->configDel(k);
    configDir->configIs(k);
  };

  configDir->configDel(k);
  resolver.run();

  ASSERT_TRUE(fired);
  EXPECT_TRUE(nexthopConfig->vrf(vrf("red"))->nexthopHas(ip("10.0.0.1")));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);
  // Tracked for real: its deletion now withdraws it.
  client = nullptr;
  configDir->configDel(k);
  EXPECT_FALSE(statusDir->statusHas(k));
  EXPECT_FALSE(nexthopConfig->vrf(vrf("red"))->nexthopHas(ip("10.0.0.1")));
}

TEST_F(NexthopNhIndexResolverSmReadinessTest,
       OtherInterfaceOfTheNexthopReaddedFromInsideADeletionStaysTracked) {
  fecIs(100, {{"Ethernet1", "10.0.0.254"}, {"Ethernet2", "10.0.1.254"}});
  resolver.routeIs(ip("10.0.0.1"), 100);
  neighbourIs("Ethernet1", "10.0.0.254", "00:00:00:00:00:aa");
  neighbourIs("Ethernet2", "10.0.1.254", "00:00:00:00:00:bb");
  nhIndexIs("Ethernet1", 5, "00:00:00:00:00:aa");
  nhIndexIs("Ethernet2", 6, "00:00:00:00:00:bb");
  vrfL3StatusIs("red", 1);
  rootIs();
  const NexthopNhIndexResolverKey first = key("red", "10.0.0.1", "Ethernet1");
  const NexthopNhIndexResolverKey second = key("red", "10.0.0.1", "Ethernet2");
  configDir->configIs(key("red", "10.0.0.9", "Ethernet3"));
  configDir->configIs(first);
  configDir->configIs(second);
  resolver.run();
  ASSERT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet2"), 6u);
  // When the first request's deletion withdraws its status, the nexthop's other request goes
  // (its record with it) and comes back (a new record).
  bool fired = false;
  auto client = TestSupport::recordChanges<NexthopNhIndexResolverKey>(
      statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
  client->onChange = [&](const NexthopNhIndexResolverKey& changed) {
    if (fired || changed != first || statusDir->statusHas(first)) return;
    fired = true;
    configDir->configDel(second);
    configDir->configIs(second);
  };

  configDir->configDel(first);
  resolver.run();

  ASSERT_TRUE(fired);
  EXPECT_TRUE(nexthopConfig->vrf(vrf("red"))->nexthopHas(ip("10.0.0.1")));
  EXPECT_FALSE(statusDir->statusHas(first));
  EXPECT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet2"), 6u);
  client = nullptr;
  configDir->configDel(second);
  EXPECT_FALSE(statusDir->statusHas(second));
  EXPECT_FALSE(nexthopConfig->vrf(vrf("red"))->nexthopHas(ip("10.0.0.1")));
}

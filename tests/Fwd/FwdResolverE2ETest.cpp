#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "platform/Memtab.h"
#include "support/E2EWorld.h"
#include "support/FwdTestValues.h"
#include "support/LiveCountTest.h"

// End-to-end behaviour of the resolver: the tests drive only the host's state (requests, routes
// and FEC tables, neighbours, VRF L3 status, next-hop modules) and read only what the module
// publishes (statuses, proactive ARP entries, and where a test is about it, the VRF registration).
namespace {

using E2E::ArpEntries;
using E2E::Statuses;
using E2E::World;
using FwdTest::intf;
using FwdTest::ip;
using FwdTest::key;
using FwdTest::mac;
using FwdTest::vrf;
using Memtab::FibGen::Fec;
using Memtab::FibGen::Via;

constexpr Plane::VrfId kRedId = 2;
constexpr Plane::VrfId kBlueId = 3;
constexpr Plane::VrfId kDefaultId = 1;

constexpr std::string_view kNh1 = "10.0.0.1";
constexpr std::string_view kNh2 = "10.0.0.2";
constexpr std::string_view kNh3 = "10.0.0.3";
constexpr std::string_view kViaA = "10.1.0.1";  // on Ethernet1
constexpr std::string_view kViaB = "10.2.0.1";  // on Ethernet2
constexpr std::string_view kViaC = "10.1.0.2";  // on Ethernet1
constexpr std::string_view kMacA = "00:1c:73:00:00:0a";
constexpr std::string_view kMacB = "00:1c:73:00:00:0b";
constexpr std::string_view kMacC = "00:1c:73:00:00:0c";
constexpr std::string_view kMacD = "00:1c:73:00:00:0d";

Fec fec(Memtab::Fib::FecId id,
        std::initializer_list<std::pair<std::string_view, std::string_view>> vias) {
  std::vector<Via> list;
  for (const auto& [intfName, hop] : vias) list.emplace_back(intf(intfName), ip(hop));
  return Fec(id, std::move(list));
}

// A world with "red" up and a root running over it. Nothing of it outlives a test.
class ResolverE2E : public TestSupport::LiveCountTest {
 protected:
  void SetUp() override {
    world.vrfUp(vrf("red"), kRedId);
    world.rootIs();
    world.settle();
  }

  uint32_t nhIndexOf(std::string_view vrfName, std::string_view nexthop,
                     std::string_view intfName) {
    return world.publishedNhIndex(vrfName, nexthop, intfName);
  }
  bool published(std::string_view vrfName, std::string_view nexthop, std::string_view intfName) {
    return world.statusDir->statusHas(key(vrfName, nexthop, intfName));
  }
  Arp::ProactiveArp::ClientEntry arp(std::string_view vrfName, std::string_view intfName,
                                     std::string_view via) {
    return world.arpEntry(vrf(vrfName), intf(intfName), ip(via));
  }
  // The request (red, 10.0.0.1, Ethernet1) resolving through via A to nhIndex 11.
  void redThroughViaA() {
    world.resolvableIs("red", kNh1, "Ethernet1", kViaA, 1, kMacA, 11);
    world.requestIs(key("red", kNh1, "Ethernet1"));
    world.settle();
  }

  World world;
};

TEST_F(ResolverE2E, RoadOfOneRequestFromRequestToStatusAndBack) {
  const auto k = key("red", kNh1, "Ethernet1");
  world.requestIs(k);
  world.settle();
  EXPECT_TRUE(world.statuses().empty());
  EXPECT_TRUE(world.arpEntries().empty());

  world.routeIs(vrf("red"), ip(kNh1), fec(1, {{"Ethernet1", kViaA}}));
  world.settle();
  EXPECT_TRUE(world.statuses().empty()) << "the via has no neighbour yet";
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("red", "Ethernet1", kViaA)});

  world.neighbourIs("Ethernet1", kViaA, kMacA);
  world.settle();
  EXPECT_TRUE(world.statuses().empty()) << "Ethernet1 has no next-hop table yet";

  world.nhIndexIs("Ethernet1", 11, kMacA);
  world.settle();
  EXPECT_EQ(world.statuses(), (Statuses{{k, 11}}));

  world.requestDel(k);
  world.settle();
  EXPECT_TRUE(world.statuses().empty());
  EXPECT_TRUE(world.arpEntries().empty());
}

TEST_F(ResolverE2E, DirectlyAttachedNexthopIsItsOwnVia) {
  world.routeIs(vrf("red"), ip(kNh1), fec(1, {{"Ethernet1", "0.0.0.0"}}));
  world.neighbourIs("Ethernet1", kNh1, kMacA);
  world.nhIndexIs("Ethernet1", 11, kMacA);
  world.requestIs(key("red", kNh1, "Ethernet1"));
  world.settle();

  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 11u);
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("red", "Ethernet1", kNh1)});
}

TEST_F(ResolverE2E, EcmpViasOnTwoInterfacesGiveOneStatusPerInterface) {
  world.routeIs(vrf("red"), ip(kNh1), fec(1, {{"Ethernet1", kViaA}, {"Ethernet2", kViaB}}));
  world.neighbourIs("Ethernet1", kViaA, kMacA);
  world.neighbourIs("Ethernet2", kViaB, kMacB);
  world.nhIndexIs("Ethernet1", 11, kMacA);
  world.nhIndexIs("Ethernet2", 21, kMacB);
  world.requestIs(key("red", kNh1, "Ethernet1"));
  world.requestIs(key("red", kNh1, "Ethernet2"));
  world.requestIs(key("red", kNh1, "Ethernet3"));  // the FEC has no way out there
  world.settle();

  EXPECT_EQ(world.statuses(),
            (Statuses{{key("red", kNh1, "Ethernet1"), 11}, {key("red", kNh1, "Ethernet2"), 21}}));
  EXPECT_EQ(world.arpEntries(),
            (ArpEntries{arp("red", "Ethernet1", kViaA), arp("red", "Ethernet2", kViaB)}));

  // One leg of the ECMP goes: only its interface's status goes with it.
  world.routeIs(vrf("red"), ip(kNh1), fec(1, {{"Ethernet2", kViaB}}));
  world.settle();
  EXPECT_EQ(world.statuses(), (Statuses{{key("red", kNh1, "Ethernet2"), 21}}));
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("red", "Ethernet2", kViaB)});
}

TEST_F(ResolverE2E, ViaChangeMovesTheStatusAndTheProactiveArpEntry) {
  redThroughViaA();
  world.neighbourIs("Ethernet1", kViaC, kMacC);
  world.nhIndexIs("Ethernet1", 12, kMacC);
  world.settle();
  ASSERT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 11u);

  // The FEC itself changes its via.
  world.fecTable(vrf("red"))->fecIs(fec(1, {{"Ethernet1", kViaC}}));
  world.settle();
  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 12u);
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("red", "Ethernet1", kViaC)});

  // The route moves to another FEC.
  world.routeIs(vrf("red"), ip(kNh1), fec(2, {{"Ethernet1", kViaA}}));
  world.settle();
  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 11u);
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("red", "Ethernet1", kViaA)});

  // No route at all.
  world.resolver.routeDel(vrf("red"), ip(kNh1));
  world.settle();
  EXPECT_TRUE(world.statuses().empty());
  EXPECT_TRUE(world.arpEntries().empty());
}

TEST_F(ResolverE2E, MacMoveFollowsTheNeighbourToItsIndex) {
  redThroughViaA();
  world.nhIndexIs("Ethernet1", 12, kMacB);
  world.settle();

  world.neighbourIs("Ethernet1", kViaA, kMacB);
  world.settle();
  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 12u);

  // A MAC that no index carries: no status, but the via stays under proactive ARP.
  world.neighbourIs("Ethernet1", kViaA, kMacD);
  world.settle();
  EXPECT_FALSE(published("red", kNh1, "Ethernet1"));
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("red", "Ethernet1", kViaA)});

  world.neighbourIs("Ethernet1", kViaA, kMacA);
  world.settle();
  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 11u);
}

TEST_F(ResolverE2E, NhIndexChangesAreFollowedWithoutFlapping) {
  redThroughViaA();
  world.requestIs(key("red", kNh2, "Ethernet1"));
  world.resolver.routeIs(vrf("red"), ip(kNh2), 1);  // the same FEC: the same via A
  world.settle();
  ASSERT_EQ(world.statuses(),
            (Statuses{{key("red", kNh1, "Ethernet1"), 11}, {key("red", kNh2, "Ethernet1"), 11}}));

  // A second index with the MAC in use changes nothing: the first one found stays.
  world.nhIndexIs("Ethernet1", 13, kMacA);
  world.settle();
  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 11u);

  // The index in use goes: every request of the MAC moves to the other one.
  world.nhIndexDel("Ethernet1", 11);
  world.settle();
  EXPECT_EQ(world.statuses(),
            (Statuses{{key("red", kNh1, "Ethernet1"), 13}, {key("red", kNh2, "Ethernet1"), 13}}));

  // The last index with the MAC is reprogrammed to another MAC: the statuses go.
  world.nhIndexIs("Ethernet1", 13, kMacB);
  world.settle();
  EXPECT_TRUE(world.statuses().empty());

  world.nhIndexIs("Ethernet1", 14, kMacA);
  world.settle();
  EXPECT_EQ(world.statuses(),
            (Statuses{{key("red", kNh1, "Ethernet1"), 14}, {key("red", kNh2, "Ethernet1"), 14}}));

  // The module goes and comes back with its table.
  world.moduleDel(intf("Ethernet1"));
  world.settle();
  EXPECT_TRUE(world.statuses().empty());
  world.nhIndexIs("Ethernet1", 15, kMacA);
  world.settle();
  EXPECT_EQ(nhIndexOf("red", kNh2, "Ethernet1"), 15u);
}

TEST_F(ResolverE2E, NeighbourLossAndReturn) {
  redThroughViaA();
  const Plane::NextHopKey neighbour(intf("Ethernet1"), ip(kViaA));

  world.neighbourDel("Ethernet1", kViaA);
  world.settle();
  EXPECT_TRUE(world.statuses().empty());
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("red", "Ethernet1", kViaA)})
      << "the via is still wanted, so proactive ARP keeps working on it";

  // Half learnt: a MAC without an L2 interface asks proactive ARP for a fresh resolution.
  const uint32_t triggers = world.proactiveArpNexthop->resolutionTrigger(neighbour);
  world.neighbourIs(intf("Ethernet1"), ip(kViaA), mac(kMacA), Netval::IntfId());
  world.settle();
  EXPECT_TRUE(world.statuses().empty());
  EXPECT_EQ(world.proactiveArpNexthop->resolutionTrigger(neighbour), triggers + 1);

  // An L2 interface without a MAC is not resolved either.
  world.neighbourIs(intf("Ethernet1"), ip(kViaA), Netval::EthAddr(), intf("Ethernet1"));
  world.settle();
  EXPECT_TRUE(world.statuses().empty());

  world.neighbourIs("Ethernet1", kViaA, kMacA);
  world.settle();
  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 11u);
}

TEST_F(ResolverE2E, VrfL3StatusLossWithdrawsStatusesAndKeepsRequests) {
  redThroughViaA();
  world.resolvableIs("red", kNh2, "Ethernet2", kViaB, 2, kMacB, 21);
  world.requestIs(key("red", kNh2, "Ethernet2"));
  world.settle();
  const Statuses before = world.statuses();
  ASSERT_EQ(before.size(), 2u);

  world.vrfDown(vrf("red"));
  world.settle();
  EXPECT_TRUE(world.statuses().empty());
  EXPECT_EQ(world.configDir->configCount(), 2u);
  EXPECT_EQ(world.arpEntries().size(), 2u) << "a dropped pipeline leaves its entries to the host";

  // A change while the VRF is down is picked up when it comes back.
  world.nhIndexDel("Ethernet2", 21);
  world.nhIndexIs("Ethernet2", 22, kMacB);
  world.vrfUp(vrf("red"), kRedId);
  world.settle();
  EXPECT_EQ(world.statuses(),
            (Statuses{{key("red", kNh1, "Ethernet1"), 11}, {key("red", kNh2, "Ethernet2"), 22}}));
  EXPECT_EQ(world.arpEntries(),
            (ArpEntries{arp("red", "Ethernet1", kViaA), arp("red", "Ethernet2", kViaB)}));
}

TEST_F(ResolverE2E, LastRequestOfAVrfWithdrawsItsRegistration) {
  world.vrfUp(vrf("blue"), kBlueId);
  redThroughViaA();
  world.resolver.routeIs(vrf("blue"), ip(kNh1), 1);
  world.requestIs(key("blue", kNh1, "Ethernet1"));
  world.settle();
  ASSERT_EQ(world.statuses().size(), 2u);
  ASSERT_TRUE(world.nexthopStatus->vrfHas(vrf("red")));

  world.requestDel(key("red", kNh1, "Ethernet1"));
  EXPECT_FALSE(world.nexthopConfig->vrfHas(vrf("red")));
  world.settle();
  EXPECT_FALSE(world.nexthopStatus->vrfHas(vrf("red"))) << "the resolver followed the withdrawal";
  EXPECT_EQ(world.statuses(), (Statuses{{key("blue", kNh1, "Ethernet1"), 11}}));
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("blue", "Ethernet1", kViaA)});

  // The VRF starts afresh with its next request.
  world.requestIs(key("red", kNh1, "Ethernet1"));
  world.settle();
  EXPECT_TRUE(world.nexthopConfig->vrfHas(vrf("red")));
  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 11u);
}

TEST_F(ResolverE2E, WithdrawalAndNewRegistrationBetweenTwoRunsAreBothProcessed) {
  redThroughViaA();
  const Routing::NexthopVrfStatus::Ptr first = world.nexthopStatus->vrf(vrf("red"));
  ASSERT_TRUE(first);
  const size_t withdrawals = world.resolver.withdrawalsDone();
  const size_t registrations = world.resolver.registrationsDone();

  // The last request goes and comes back before the host runs again.
  world.requestDel(key("red", kNh1, "Ethernet1"));
  world.requestIs(key("red", kNh1, "Ethernet1"));
  world.settle();

  EXPECT_EQ(world.resolver.withdrawalsDone(), withdrawals + 1);
  EXPECT_EQ(world.resolver.registrationsDone(), registrations + 1);
  EXPECT_NE(world.nexthopStatus->vrf(vrf("red")), first) << "withdrawn, then created again";
  EXPECT_EQ(nhIndexOf("red", kNh1, "Ethernet1"), 11u);
  EXPECT_EQ(world.arpEntries(), ArpEntries{arp("red", "Ethernet1", kViaA)});
}

// Per-VRF FEC mode: a non-default VRF reads the table the host publishes for it, the default VRF
// reads the global table.
using ResolverE2EFecMode = TestSupport::LiveCountTest;

TEST_F(ResolverE2EFecMode, PerVrfModeReadsTheVrfsMountedTable) {
  World world(Memtab::Fib::fecModePerVrf());
  world.vrfUp(vrf("red"), kRedId);
  world.vrfUp(vrf("default"), kDefaultId);
  world.rootIs();
  world.vrfTable(vrf("red"))->fecIs(fec(1, {{"Ethernet1", kViaA}}));
  world.forwardingGenStatus->fecIs(fec(1, {{"Ethernet1", kViaC}}));
  world.resolver.routeIs(vrf("red"), ip(kNh1), 1);
  world.resolver.routeIs(vrf("default"), ip(kNh1), 1);
  world.neighbourIs("Ethernet1", kViaA, kMacA);
  world.neighbourIs("Ethernet1", kViaC, kMacC);
  world.nhIndexIs("Ethernet1", 11, kMacA);
  world.nhIndexIs("Ethernet1", 12, kMacC);
  world.requestIs(key("red", kNh1, "Ethernet1"));
  world.requestIs(key("default", kNh1, "Ethernet1"));
  world.settle();

  EXPECT_EQ(world.statuses(), (Statuses{{key("red", kNh1, "Ethernet1"), 11},
                                        {key("default", kNh1, "Ethernet1"), 12}}));

  // A change of the global table reaches only the default VRF.
  world.forwardingGenStatus->fecIs(fec(1, {{"Ethernet1", kViaA}}));
  world.settle();
  EXPECT_EQ(world.statuses(), (Statuses{{key("red", kNh1, "Ethernet1"), 11},
                                        {key("default", kNh1, "Ethernet1"), 11}}));
  // And a change of red's table only red.
  world.vrfTable(vrf("red"))->fecIs(fec(1, {{"Ethernet1", kViaC}}));
  world.settle();
  EXPECT_EQ(world.statuses(), (Statuses{{key("red", kNh1, "Ethernet1"), 12},
                                        {key("default", kNh1, "Ethernet1"), 11}}));
}

TEST_F(ResolverE2EFecMode, GlobalModeReadsTheGlobalTableForEveryVrf) {
  World world(Memtab::Fib::fecModeGlobal());
  world.vrfUp(vrf("red"), kRedId);
  world.rootIs();
  // A table published at red's path is not what red reads in this mode.
  world.vrfTable(vrf("red"))->fecIs(fec(1, {{"Ethernet1", kViaA}}));
  world.forwardingGenStatus->fecIs(fec(1, {{"Ethernet1", kViaC}}));
  world.resolver.routeIs(vrf("red"), ip(kNh1), 1);
  world.neighbourIs("Ethernet1", kViaA, kMacA);
  world.neighbourIs("Ethernet1", kViaC, kMacC);
  world.nhIndexIs("Ethernet1", 11, kMacA);
  world.nhIndexIs("Ethernet1", 12, kMacC);
  world.requestIs(key("red", kNh1, "Ethernet1"));
  world.settle();

  EXPECT_EQ(world.statuses(), (Statuses{{key("red", kNh1, "Ethernet1"), 12}}));
}

// Restarts. The topology has no ties (one via per interface, one index per MAC), so a rebuilt
// pipeline must reach exactly the statuses of the one it replaces.
class ResolverE2ERestart : public TestSupport::LiveCountTest {
 protected:
  void SetUp() override {
    world.vrfUp(vrf("red"), kRedId);
    world.vrfUp(vrf("blue"), kBlueId);
    world.rootIs();
    world.resolvableIs("red", kNh1, "Ethernet1", kViaA, 1, kMacA, 11);
    world.resolvableIs("red", kNh2, "Ethernet2", kViaB, 2, kMacB, 21);
    world.resolver.routeIs(vrf("blue"), ip(kNh1), 1);
    world.resolver.routeIs(vrf("blue"), ip(kNh3), 2);
    for (const auto& k : {key("red", kNh1, "Ethernet1"), key("red", kNh2, "Ethernet2"),
                          key("blue", kNh1, "Ethernet1"), key("blue", kNh3, "Ethernet2")}) {
      world.requestIs(k);
    }
    world.settle();
    before = world.statuses();
    arpBefore = world.arpEntries();
    ASSERT_EQ(before.size(), 4u);
    ASSERT_EQ(arpBefore.size(), 4u);
  }

  World world;
  Statuses before;
  ArpEntries arpBefore;
};

TEST_F(ResolverE2ERestart, ConvergesToTheSameStatusesOnceTheResolverRebuildsEachVrf) {
  world.restart();
  EXPECT_TRUE(world.statuses().empty())
      << "results computed while the root is built are not published";

  const size_t withdrawals = world.resolver.withdrawalsDone();
  world.settle();
  EXPECT_EQ(world.resolver.withdrawalsDone(), withdrawals + 2) << "one per VRF";
  EXPECT_EQ(world.statuses(), before);
  EXPECT_EQ(world.arpEntries(), arpBefore);

  // The restarted root keeps following changes.
  world.nhIndexIs("Ethernet1", 12, kMacC);
  world.neighbourIs("Ethernet1", kViaA, kMacC);
  world.settle();
  EXPECT_EQ(world.publishedNhIndex("red", kNh1, "Ethernet1"), 12u);
  EXPECT_EQ(world.publishedNhIndex("blue", kNh1, "Ethernet1"), 12u);
}

TEST_F(ResolverE2ERestart, WithARoutingStatusThatNeverGoesAwayNothingComputedAtStartIsPublished) {
  world.resolver.withdrawalRemovesStatusIs(false);
  world.restart();
  world.settle();

  EXPECT_TRUE(world.statuses().empty());
  // The pipelines did resolve: the new proactive ARP client started empty and has every via.
  EXPECT_EQ(world.arpEntries(), arpBefore);

  // Only what changes afterwards is published.
  world.nhIndexIs("Ethernet2", 22, kMacC);
  world.neighbourIs("Ethernet2", kViaB, kMacC);
  world.settle();
  EXPECT_EQ(world.statuses(),
            (Statuses{{key("red", kNh2, "Ethernet2"), 22}, {key("blue", kNh3, "Ethernet2"), 22}}));

  // With a resolver that takes each VRF's status away and gives it back, a restart publishes
  // everything again.
  world.resolver.withdrawalRemovesStatusIs(true);
  world.restart();
  world.settle();
  EXPECT_EQ(world.statuses(), (Statuses{{key("red", kNh1, "Ethernet1"), 11},
                                        {key("red", kNh2, "Ethernet2"), 22},
                                        {key("blue", kNh1, "Ethernet1"), 11},
                                        {key("blue", kNh3, "Ethernet2"), 22}}));
}

// After the owner's doCleanup and release nothing of the module is alive: the host is back to
// the entities it had before the root was built.
TEST(ResolverE2ELifetime, NoEntityOfTheModuleSurvivesCleanupAndRelease) {
  for (Memtab::Fib::FecMode mode : {Memtab::Fib::fecModeGlobal(), Memtab::Fib::fecModePerVrf()}) {
    SCOPED_TRACE(mode);
    World world(mode);
    world.vrfUp(vrf("red"), kRedId);
    world.vrfUp(vrf("blue"), kBlueId);
    world.resolvableIs("red", kNh1, "Ethernet1", kViaA, 1, kMacA, 11);
    world.resolvableIs("blue", kNh2, "Ethernet2", kViaB, 2, kMacB, 21);
    const int64_t hostOnly = Core::Node::liveCount();

    world.rootIs();
    world.requestIs(key("red", kNh1, "Ethernet1"));
    world.requestIs(key("blue", kNh2, "Ethernet2"));
    world.settle();
    ASSERT_EQ(world.statuses().size(), 2u);
    ASSERT_GT(Core::Node::liveCount(), hostOnly);

    world.rootDel();
    EXPECT_TRUE(world.statuses().empty());
    EXPECT_EQ(world.nexthopConfig->vrfCount(), 0u);
    EXPECT_EQ(Core::Node::liveCount(),
              hostOnly + static_cast<int64_t>(world.registrationEntities()))
        << "only the resolver's status of each withdrawn VRF is left, until it runs";
    world.settle();
    EXPECT_EQ(Core::Node::liveCount(), hostOnly);
  }
}

}  // namespace

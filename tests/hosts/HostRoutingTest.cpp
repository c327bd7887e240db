#include "hosts/HostRouting.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hosts/HostError.h"
#include "support/ChangeRecorder.h"
#include "support/FwdTestValues.h"

namespace {

using FwdTest::intf;
using FwdTest::ip;
using FwdTest::vrf;
using Hosts::HostError;
using Hosts::Prefix;
using Hosts::RoutingResolver;
using Memtab::Fib::FecId;
using Memtab::FibGen::ForwardingStatus;
using Memtab::FibGen::Via;
using Routing::NexthopConfigEntry;

// The resolver with every platform object it serves, and the client's side of the registration.
struct RoutingWorld {
  Hub::TaskScheduler::Ptr scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  Store::EntityManager::Ptr entityManager = Store::EntityManager::EntityManagerIs();
  Routing::NexthopConfig::Ptr nexthopConfig = Routing::NexthopConfig::NexthopConfigIs();
  Routing::NexthopStatus::Ptr nexthopStatus = Routing::NexthopStatus::NexthopStatusIs();
  Memtab::Fib::FecModeStatus::Ptr fecModeStatus = Memtab::Fib::FecModeStatus::FecModeStatusIs();
  ForwardingStatus::Ptr global = ForwardingStatus::ForwardingStatusIs();
  RoutingResolver::Ptr resolver = RoutingResolver::RoutingResolverIs(
      nexthopConfig, nexthopStatus, fecModeStatus, global, entityManager, scheduler);

  // Registers the VRF and the next hops, as the module would, and lets the resolver answer.
  Routing::NexthopVrfStatus::Ptr registered(std::string_view vrfName,
                                            std::vector<std::string_view> nexthops) {
    auto config = nexthopConfig->vrfIs(vrf(vrfName), Routing::fecIdTypeDefault);
    for (std::string_view nexthop : nexthops) config->nexthopIs(NexthopConfigEntry(ip(nexthop)));
    scheduler->runUntilIdle();
    return nexthopStatus->vrf(vrf(vrfName));
  }
};

RoutingResolver::ViaList vias(std::vector<std::pair<std::string_view, std::string_view>> list) {
  RoutingResolver::ViaList out;
  for (const auto& [hop, intfName] : list) out.emplace_back(intf(intfName), ip(hop));
  return out;
}

Prefix prefix(std::string_view text) { return Prefix::fromText(text); }

// The VRF names of the changes a recorder saw, in order.
std::vector<std::string> vrfNames(const TestSupport::ChangeRecorder<L3::VrfName>& recorder) {
  std::vector<std::string> out;
  for (const L3::VrfName& name : recorder.keys) out.emplace_back(name.str());
  return out;
}

TEST(Prefix, ParsesCanonicalIpv4Prefixes) {
  EXPECT_EQ(prefix("10.1.0.0/16").toString(), "10.1.0.0/16");
  EXPECT_EQ(prefix("0.0.0.0/0").length(), 0u);
  EXPECT_TRUE(prefix("10.1.0.0/16").contains(ip("10.1.200.3").v4()));
  EXPECT_FALSE(prefix("10.1.0.0/16").contains(ip("10.2.0.1").v4()));
}

TEST(Prefix, RefusesWhatIsNotACanonicalIpv4Prefix) {
  for (std::string_view bad : {"10.1.0.0", "10.1.0.1/16", "10.1.0.0/33", "10.1.0.0/x", "::1/64",
                               "10.1.0/16", "10.1.0.0/", "10.1.0.0/-1"}) {
    EXPECT_THROW(prefix(bad), HostError) << bad;
  }
  EXPECT_THROW(Prefix(ip("10.0.0.1").v4(), 24), HostError);
  EXPECT_THROW(Prefix(0, 40), HostError);
}

TEST(RoutingResolver, AnswersARegistrationOnlyAfterTheClientReturns) {
  RoutingWorld world;
  world.nexthopConfig->vrfIs(vrf("red"), Routing::fecIdTypeDefault);
  EXPECT_FALSE(world.nexthopStatus->vrfHas(vrf("red")));
  EXPECT_EQ(world.resolver->pendingEvents(), 1u);
  world.scheduler->runUntilIdle();
  EXPECT_TRUE(world.nexthopStatus->vrfHas(vrf("red")));
  EXPECT_TRUE(world.resolver->serves(vrf("red")));
  EXPECT_EQ(world.resolver->pendingEvents(), 0u);
}

TEST(RoutingResolver, NeverCoalescesAWithdrawalAndARegistration) {
  RoutingWorld world;
  world.registered("red", {});
  auto recorder = TestSupport::recordChanges<L3::VrfName>(world.nexthopStatus.get(),
                                                          Routing::NexthopStatus::vrfAttr);
  const auto before = world.nexthopStatus->vrf(vrf("red"));

  world.nexthopConfig->vrfDel(vrf("red"));
  world.nexthopConfig->vrfIs(vrf("red"), Routing::fecIdTypeDefault);
  EXPECT_TRUE(recorder->keys.empty());
  world.scheduler->runUntilIdle();

  // Removed, then created again: a new status object, not the old one kept.
  EXPECT_EQ(vrfNames(*recorder), (std::vector<std::string>{"red", "red"}));
  ASSERT_TRUE(world.nexthopStatus->vrf(vrf("red")));
  EXPECT_NE(world.nexthopStatus->vrf(vrf("red")), before);
}

TEST(RoutingResolver, ProcessesRegistrationsOfSeveralVrfsInOrder) {
  RoutingWorld world;
  std::vector<std::string> seen;
  auto recorder = TestSupport::recordChanges<L3::VrfName>(world.nexthopStatus.get(),
                                                          Routing::NexthopStatus::vrfAttr);
  recorder->onChange = [&](const L3::VrfName& name) {
    seen.push_back((world.nexthopStatus->vrfHas(name) ? "+" : "-") + std::string(name.str()));
  };
  world.nexthopConfig->vrfIs(vrf("red"), Routing::fecIdTypeDefault);
  world.nexthopConfig->vrfIs(vrf("blue"), Routing::fecIdTypeDefault);
  world.nexthopConfig->vrfDel(vrf("red"));
  world.nexthopConfig->vrfIs(vrf("green"), Routing::fecIdTypeDefault);
  world.scheduler->runUntilIdle();
  EXPECT_EQ(seen, (std::vector<std::string>{"+red", "+blue", "-red", "+green"}));
}

TEST(RoutingResolver, ResolvesByLongestPrefixMatch) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("0.0.0.0/0"), vias({{"10.0.0.1", "Ethernet1"}}));
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.2", "Ethernet1"}}));
  world.resolver->routeIs(vrf("red"), prefix("10.1.2.0/24"), vias({{"10.0.0.3", "Ethernet1"}}));
  const auto status = world.registered("red", {"10.1.2.3", "10.1.9.9", "192.0.2.1"});
  ASSERT_TRUE(status);
  const auto fecOf = [&](std::string_view p) {
    return world.resolver->routes().at(vrf("red")).at(prefix(p)).fecId;
  };
  EXPECT_EQ(status->nexthop(ip("10.1.2.3")).fecId(), fecOf("10.1.2.0/24"));
  EXPECT_EQ(status->nexthop(ip("10.1.9.9")).fecId(), fecOf("10.1.0.0/16"));
  EXPECT_EQ(status->nexthop(ip("192.0.2.1")).fecId(), fecOf("0.0.0.0/0"));
  EXPECT_EQ(world.resolver->longestMatch(vrf("red"), ip("10.1.2.3"))->first, prefix("10.1.2.0/24"));
  EXPECT_EQ(world.resolver->longestMatch(vrf("blue"), ip("10.1.2.3")), nullptr);
}

TEST(RoutingResolver, LeavesANextHopWithoutRouteUnresolved) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.2", "Ethernet1"}}));
  const auto status = world.registered("red", {"10.2.0.1"});
  EXPECT_FALSE(status->isNexthopResolved(ip("10.2.0.1")));
  // The route of another VRF does not count.
  world.resolver->routeIs(vrf("blue"), prefix("10.2.0.0/16"), vias({{"10.0.0.2", "Ethernet1"}}));
  EXPECT_FALSE(status->isNexthopResolved(ip("10.2.0.1")));
}

TEST(RoutingResolver, ResolvesNextHopsRegisteredLaterAsTasks) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.2", "Ethernet1"}}));
  const auto status = world.registered("red", {});
  auto config = world.nexthopConfig->vrf(vrf("red"));
  config->nexthopIs(NexthopConfigEntry(ip("10.1.0.1")));
  EXPECT_FALSE(status->isNexthopResolved(ip("10.1.0.1")));
  world.scheduler->runUntilIdle();
  EXPECT_TRUE(status->isNexthopResolved(ip("10.1.0.1")));
  config->nexthopDel(ip("10.1.0.1"));
  world.scheduler->runUntilIdle();
  EXPECT_FALSE(status->isNexthopResolved(ip("10.1.0.1")));
}

TEST(RoutingResolver, RoutesWithTheSameViaSetShareOneFec) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"),
                          vias({{"10.0.0.2", "Ethernet2"}, {"10.0.0.1", "Ethernet1"}}));
  world.resolver->routeIs(vrf("red"), prefix("10.2.0.0/16"),
                          vias({{"10.0.0.1", "Ethernet1"}, {"10.0.0.2", "Ethernet2"}}));
  const auto& routes = world.resolver->routes().at(vrf("red"));
  const FecId shared = routes.at(prefix("10.1.0.0/16")).fecId;
  EXPECT_EQ(routes.at(prefix("10.2.0.0/16")).fecId, shared);
  EXPECT_EQ(world.global->fecCount(), 1u);
  // The FEC lists its vias in one order, whatever order the routes gave.
  ASSERT_TRUE(world.global->fecFind(shared));
  EXPECT_EQ(world.global->fecFind(shared)->via(Memtab::Fib::ViaIndex(0)),
            Via(intf("Ethernet1"), ip("10.0.0.1")));

  world.resolver->routeDel(vrf("red"), prefix("10.1.0.0/16"));
  EXPECT_TRUE(world.global->fecHas(shared));
  world.resolver->routeDel(vrf("red"), prefix("10.2.0.0/16"));
  EXPECT_FALSE(world.global->fecHas(shared));
}

TEST(RoutingResolver, ChangesTheFecOfItsOnlyRouteInPlace) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.1", "Ethernet1"}}));
  const auto status = world.registered("red", {"10.1.0.1"});
  const FecId fecId = status->nexthop(ip("10.1.0.1")).fecId();
  auto statusChanges = TestSupport::recordChanges<Netval::IpGenAddr>(
      status.get(), Routing::NexthopVrfStatus::nexthopAttr);
  auto fecChanges =
      TestSupport::recordChanges<FecId>(world.global.get(), ForwardingStatus::fecAttr);

  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.9", "Ethernet1"}}));
  EXPECT_TRUE(statusChanges->keys.empty());
  EXPECT_EQ(fecChanges->keys, std::vector<FecId>{fecId});
  EXPECT_EQ(world.global->fec(fecId).via(Memtab::Fib::ViaIndex(0)).hop(), ip("10.0.0.9"));
}

TEST(RoutingResolver, MovesNextHopsToAnotherFecWithoutUnresolvingThem) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.1", "Ethernet1"}}));
  world.resolver->routeIs(vrf("red"), prefix("10.9.0.0/16"), vias({{"10.0.0.2", "Ethernet1"}}));
  const auto status = world.registered("red", {"10.1.0.1"});
  std::vector<std::string> problems;
  auto recorder = TestSupport::recordChanges<Netval::IpGenAddr>(
      status.get(), Routing::NexthopVrfStatus::nexthopAttr);
  recorder->onChange = [&](const Netval::IpGenAddr& addr) {
    if (!status->isNexthopResolved(addr)) problems.push_back("unresolved " + addr.toString());
    const FecId fecId = status->nexthop(addr).fecId();
    if (!world.global->fecHas(fecId)) problems.push_back("missing FEC " + std::to_string(fecId));
  };

  // To the FEC of another route, then a more specific route, then back: each is one change.
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.2", "Ethernet1"}}));
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/24"), vias({{"10.0.0.3", "Ethernet1"}}));
  world.resolver->routeDel(vrf("red"), prefix("10.1.0.0/24"));
  EXPECT_EQ(recorder->keys.size(), 3u);
  EXPECT_TRUE(problems.empty()) << problems.front();
  EXPECT_EQ(status->nexthop(ip("10.1.0.1")).fecId(),
            world.resolver->routes().at(vrf("red")).at(prefix("10.9.0.0/16")).fecId);
  // The FECs no route uses are gone.
  EXPECT_EQ(world.global->fecCount(), 1u);
}

TEST(RoutingResolver, KeepsRoutesWhenAVrfIsNotRegistered) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.1", "Ethernet1"}}));
  world.registered("red", {"10.1.0.1"});
  world.nexthopConfig->vrfDel(vrf("red"));
  world.scheduler->runUntilIdle();
  EXPECT_FALSE(world.nexthopStatus->vrfHas(vrf("red")));
  EXPECT_TRUE(world.resolver->routeHas(vrf("red"), prefix("10.1.0.0/16")));
  const auto status = world.registered("red", {"10.1.0.1"});
  EXPECT_TRUE(status->isNexthopResolved(ip("10.1.0.1")));
}

TEST(RoutingResolver, IgnoresNextHopChangesOfAWithdrawnRegistration) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.1", "Ethernet1"}}));
  world.registered("red", {"10.1.0.1"});
  auto oldConfig = world.nexthopConfig->vrf(vrf("red"));
  world.nexthopConfig->vrfDel(vrf("red"));
  auto newConfig = world.nexthopConfig->vrfIs(vrf("red"), Routing::fecIdTypeDefault);
  oldConfig->nexthopIs(NexthopConfigEntry(ip("10.1.0.2")));
  world.scheduler->runUntilIdle();
  const auto status = world.nexthopStatus->vrf(vrf("red"));
  ASSERT_TRUE(status);
  EXPECT_EQ(status->nexthopCount(), 0u);
}

TEST(RoutingResolver, RefusesBadRoutes) {
  RoutingWorld world;
  EXPECT_THROW(world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), {}), HostError);
  EXPECT_THROW(
      world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"),
                              vias({{"10.0.0.1", "Ethernet1"}, {"10.0.0.1", "Ethernet1"}})),
      HostError);
  EXPECT_THROW(world.resolver->routeDel(vrf("red"), prefix("10.1.0.0/16")), HostError);
  EXPECT_EQ(world.global->fecCount(), 0u);
}

TEST(RoutingResolver, KeepsEachVrfsFecsInItsOwnTableInPerVrfMode) {
  RoutingWorld world;
  world.resolver->fecModeIs(Memtab::Fib::fecModePerVrf());
  EXPECT_EQ(world.fecModeStatus->fecMode(), Memtab::Fib::fecModePerVrf());
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.1", "Ethernet1"}}));
  world.resolver->routeIs(vrf("default"), prefix("10.1.0.0/16"), vias({{"10.0.0.1", "Ethernet1"}}));

  const auto published = world.entityManager->entity(RoutingResolver::vrfTablePath(vrf("red")));
  ASSERT_TRUE(published);
  EXPECT_EQ(published->typeName(), "Memtab::FibGen::ForwardingStatus");
  EXPECT_EQ(published.get(), world.resolver->fecTable(vrf("red")).get());
  EXPECT_EQ(world.resolver->fecTable(vrf("red"))->fecCount(), 1u);
  // The default VRF uses the global table and has no table of its own.
  EXPECT_EQ(world.resolver->fecTable(vrf("default")), world.global);
  EXPECT_EQ(world.global->fecCount(), 1u);
  EXPECT_FALSE(world.entityManager->entityHas(RoutingResolver::vrfTablePath(vrf("default"))));
}

TEST(RoutingResolver, PublishesAVrfsTableWhenTheVrfIsRegistered) {
  RoutingWorld world;
  world.resolver->fecModeIs(Memtab::Fib::fecModePerVrf());
  const std::string path = RoutingResolver::vrfTablePath(vrf("blue"));
  world.nexthopConfig->vrfIs(vrf("blue"), Routing::fecIdTypeDefault);
  // Before the resolver answers, so that the client can mount it as soon as it is ready.
  ASSERT_TRUE(world.entityManager->entityHas(path));
  const auto table = world.entityManager->entity(path);
  world.scheduler->runUntilIdle();
  world.nexthopConfig->vrfDel(vrf("blue"));
  world.scheduler->runUntilIdle();
  EXPECT_EQ(world.entityManager->entity(path), table);
}

TEST(RoutingResolver, MovesEveryFecWhenTheModeChanges) {
  RoutingWorld world;
  world.resolver->routeIs(vrf("red"), prefix("10.1.0.0/16"), vias({{"10.0.0.1", "Ethernet1"}}));
  EXPECT_EQ(world.global->fecCount(), 1u);
  world.resolver->fecModeIs(Memtab::Fib::fecModePerVrf());
  EXPECT_EQ(world.global->fecCount(), 0u);
  const FecId fecId = world.resolver->routes().at(vrf("red")).at(prefix("10.1.0.0/16")).fecId;
  EXPECT_TRUE(world.resolver->fecTable(vrf("red"))->fecHas(fecId));
  EXPECT_THROW(world.resolver->fecModeIs(3), HostError);
  EXPECT_THROW(world.resolver->fecModeIs(0), HostError);
}

}  // namespace

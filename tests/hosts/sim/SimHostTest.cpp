#include "hosts/sim/SimHost.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "hosts/HostError.h"
#include "support/FwdTestValues.h"

namespace {

using FwdTest::intf;
using FwdTest::ip;
using FwdTest::key;
using FwdTest::mac;
using FwdTest::vrf;
using Hosts::HostError;
using Hosts::Prefix;
using Plane::NextHopInfo;
using Plane::NextHopKey;
using Sim::SimHost;

Hosts::RoutingResolver::ViaList via(std::string_view hop, std::string_view intfName) {
  return {Memtab::FibGen::Via(intf(intfName), ip(hop))};
}

// A host that records its status lines, with red's 10.1.0.0/16 through 10.0.0.254 on Ethernet1
// fully in place (neighbour, table, nhIndex 17) and no request yet.
struct HostWorld {
  std::vector<std::string> lines;
  SimHost host{[this](const std::string& line) { lines.push_back(line); }};

  HostWorld() {
    host.vrfAdd(vrf("red"));
    host.routeAdd(vrf("red"), Prefix::fromText("10.1.0.0/16"), via("10.0.0.254", "Ethernet1"));
    host.neighAdd(NextHopKey(intf("Ethernet1"), ip("10.0.0.254")),
                  NextHopInfo(intf("Ethernet1"), mac("00:00:00:00:00:01")));
    host.nhTableAdd(intf("Ethernet1"));
    host.nhIndexAdd(intf("Ethernet1"), 17, mac("00:00:00:00:00:01"));
    host.runDue();
  }
};

TEST(SimHost, NarratesEachStatusChangeWithItsVirtualTime) {
  HostWorld world;
  world.host.advance(12);
  world.host.requestAdd(key("red", "10.1.0.1", "Ethernet1"));
  world.host.runDue();
  world.host.nhIndexAdd(intf("Ethernet1"), 18, mac("00:00:00:00:00:01"));
  world.host.nhIndexDel(intf("Ethernet1"), 17);
  world.host.advance(3);
  world.host.requestDel(key("red", "10.1.0.1", "Ethernet1"));
  EXPECT_EQ(world.lines, (std::vector<std::string>{
                             "[12ms] status add red 10.1.0.1 Ethernet1 nhIndex 17",
                             "[12ms] status change red 10.1.0.1 Ethernet1 nhIndex 18",
                             "[15ms] status del red 10.1.0.1 Ethernet1",
                         }));
}

TEST(SimHost, ARequestWaitsForTheResolverToAnswerItsVrf) {
  HostWorld world;
  world.host.requestAdd(key("red", "10.1.0.1", "Ethernet1"));
  // The module has registered the VRF; the resolver answers as a task.
  EXPECT_TRUE(world.host.nexthopConfig()->vrfHas(vrf("red")));
  EXPECT_FALSE(world.host.statusNhIndex(key("red", "10.1.0.1", "Ethernet1")));
  world.host.runDue();
  EXPECT_EQ(world.host.statusNhIndex(key("red", "10.1.0.1", "Ethernet1")), 17u);
}

TEST(SimHost, ConvergesAfterARestart) {
  HostWorld world;
  world.host.requestAdd(key("red", "10.1.0.1", "Ethernet1"));
  world.host.requestAdd(key("red", "10.1.0.2", "Ethernet1"));
  world.host.runDue();
  world.lines.clear();

  world.host.restart();
  EXPECT_EQ(world.host.statusDir()->statusCount(), 0u);
  world.host.runDue();
  EXPECT_EQ(world.host.statusNhIndex(key("red", "10.1.0.1", "Ethernet1")), 17u);
  EXPECT_EQ(world.host.statusNhIndex(key("red", "10.1.0.2", "Ethernet1")), 17u);
  // Withdrawn first, published again once the VRF's routing status came back.
  ASSERT_EQ(world.lines.size(), 4u);
  EXPECT_EQ(world.lines[0].find("[0ms] status del red"), 0u);
  EXPECT_EQ(world.lines[1].find("[0ms] status del red"), 0u);
  EXPECT_EQ(world.lines[2].find("[0ms] status add red"), 0u);
  EXPECT_EQ(world.lines[3].find("[0ms] status add red"), 0u);
}

TEST(SimHost, RefusesBadRequestsBeforeTheModuleSeesThem) {
  HostWorld world;
  world.host.requestAdd(key("red", "10.1.0.1", "Ethernet1"));
  EXPECT_THROW(world.host.requestAdd(key("red", "10.1.0.1", "Ethernet1")), HostError);
  EXPECT_THROW(world.host.requestAdd(key("red", "0.0.0.0", "Ethernet1")), HostError);
  EXPECT_THROW(world.host.requestAdd(key("red", "2001:db8::1", "Ethernet1")), HostError);
  EXPECT_THROW(world.host.requestAdd(FwdL3Unicast::NexthopNhIndexResolverKey(
                   vrf("red"), Netval::IpGenAddr(), intf("Ethernet1"))),
               HostError);
  EXPECT_THROW(world.host.requestDel(key("red", "10.1.0.9", "Ethernet1")), HostError);
  EXPECT_EQ(world.host.configDir()->configCount(), 1u);
}

TEST(SimHost, TakesTheFecModeOnlyBeforeTheFirstRequest) {
  HostWorld world;
  world.host.fecModeIs(Memtab::Fib::fecModePerVrf());
  EXPECT_EQ(world.host.fecModeStatus()->fecMode(), Memtab::Fib::fecModePerVrf());
  EXPECT_THROW(world.host.fecModeIs(5), HostError);
  world.host.requestAdd(key("red", "10.1.0.1", "Ethernet1"));
  world.host.runDue();
  world.host.requestDel(key("red", "10.1.0.1", "Ethernet1"));
  EXPECT_THROW(world.host.fecModeIs(Memtab::Fib::fecModeGlobal()), HostError);
  EXPECT_EQ(world.host.fecModeStatus()->fecMode(), Memtab::Fib::fecModePerVrf());
}

TEST(SimHost, GivesVrfsTheLowestFreeIdAndRefusesClashes) {
  SimHost host;
  host.vrfAdd(vrf("red"));
  host.vrfAdd(vrf("blue"), 3);
  host.vrfAdd(vrf("green"));
  host.vrfAdd(vrf("white"));
  EXPECT_EQ(host.vrfStatusAll()->vrfId(vrf("red")), 1u);
  EXPECT_EQ(host.vrfStatusAll()->vrfId(vrf("green")), 2u);
  EXPECT_EQ(host.vrfStatusAll()->vrfId(vrf("white")), 4u);
  ASSERT_TRUE(host.vrfStatusAll()->vrfStatus(vrf("blue")));
  EXPECT_EQ(host.vrfStatusAll()->vrfStatus(vrf("blue"))->vrfId(), 3u);
  EXPECT_THROW(host.vrfAdd(vrf("red")), HostError);
  EXPECT_THROW(host.vrfAdd(vrf("black"), 3), HostError);
  EXPECT_THROW(host.vrfAdd(vrf("black"), 0), HostError);
  host.vrfDel(vrf("blue"));
  EXPECT_FALSE(host.vrfStatusAll()->vrfIdHas(vrf("blue")));
  EXPECT_FALSE(host.vrfStatusAll()->vrfStatusHas(vrf("blue")));
  EXPECT_THROW(host.vrfDel(vrf("blue")), HostError);
}

TEST(SimHost, RefusesDuplicateAndAbsentHostState) {
  HostWorld world;
  const NextHopKey neighbour(intf("Ethernet1"), ip("10.0.0.254"));
  EXPECT_THROW(world.host.neighAdd(neighbour, NextHopInfo()), HostError);
  world.host.neighDel(neighbour);
  EXPECT_THROW(world.host.neighDel(neighbour), HostError);
  EXPECT_THROW(world.host.routeAdd(vrf("red"), Prefix::fromText("10.1.0.0/16"),
                                   via("10.0.0.253", "Ethernet1")),
               HostError);
  EXPECT_THROW(world.host.routeDel(vrf("red"), Prefix::fromText("10.2.0.0/16")), HostError);
  world.host.routeReplace(vrf("red"), Prefix::fromText("10.1.0.0/16"),
                          via("10.0.0.253", "Ethernet1"));
  EXPECT_EQ(world.host.routing()->routes().at(vrf("red")).at(Prefix::fromText("10.1.0.0/16")).vias,
            via("10.0.0.253", "Ethernet1"));
}

TEST(SimHost, PrintsTheRootsDump) {
  HostWorld world;
  world.host.requestAdd(key("red", "10.1.0.1", "Ethernet1"));
  world.host.runDue();
  const std::string dump = world.host.dump();
  EXPECT_EQ(dump.find("NexthopNhIndexResolverSm\n"), 0u);
  EXPECT_NE(dump.find("interface Ethernet1, nexthop 10.1.0.1, vrfName red"), std::string::npos);
}

TEST(SimHost, FreesEveryEntityWhenDestroyed) {
  const int64_t before = Core::Node::liveCount();
  {
    HostWorld world;
    world.host.requestAdd(key("red", "10.1.0.1", "Ethernet1"));
    world.host.runDue();
    world.host.restart();
    // Left pending on purpose: queued tasks must not keep anything alive.
    world.host.requestAdd(key("red", "10.1.0.2", "Ethernet1"));
    EXPECT_GT(world.host.scheduler()->pending(), 0u);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

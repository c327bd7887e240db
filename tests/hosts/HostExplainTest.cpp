#include "hosts/HostExplain.h"
#include "hosts/sim/SimHost.h"

#include <gtest/gtest.h>

#include <string>

#include "support/FwdTestValues.h"

namespace {

using FwdTest::intf;
using FwdTest::ip;
using FwdTest::key;
using FwdTest::mac;
using FwdTest::vrf;
using Hosts::Prefix;
using Plane::NextHopInfo;
using Plane::NextHopKey;
using Sim::SimHost;

const FwdL3Unicast::NexthopNhIndexResolverKey kRequest = key("red", "10.1.0.1", "Ethernet1");
const NextHopKey kVia(intf("Ethernet1"), ip("10.0.0.254"));

Hosts::RoutingResolver::ViaList via(std::string_view hop, std::string_view intfName) {
  return {Memtab::FibGen::Via(intf(intfName), ip(hop))};
}

// Puts each link of the chain in place in turn and checks what explain blames at each step.
class ExplainTest : public ::testing::Test {
 protected:
  std::string explained() {
    host.runDue();
    return Hosts::explain(host, kRequest);
  }

  SimHost host;
};

TEST_F(ExplainTest, NamesAnUnknownRequest) { EXPECT_EQ(explained(), "no such request"); }

TEST_F(ExplainTest, NamesEveryMissingInputOfAVrf) {
  host.requestAdd(kRequest);
  // Before the resolver has answered the registration.
  EXPECT_EQ(Hosts::explain(host, kRequest),
            "VRF red not ready: no routing VRF status (the resolver has not answered yet), no VRF "
            "L3 status");
  EXPECT_EQ(explained(), "VRF red not ready: no VRF L3 status");
}

TEST_F(ExplainTest, WalksTheChainLinkByLink) {
  host.requestAdd(kRequest);
  host.vrfAdd(vrf("red"));
  EXPECT_EQ(explained(), "next hop 10.1.0.1 unresolved: no route in VRF red covers it");

  host.routeAdd(vrf("red"), Prefix::fromText("10.1.0.0/16"), via("10.0.1.254", "Ethernet2"));
  EXPECT_EQ(explained(), "no via on Ethernet1: FEC 1 has via 10.0.1.254 dev Ethernet2");

  host.routeReplace(vrf("red"), Prefix::fromText("10.1.0.0/16"), via("10.0.0.254", "Ethernet1"));
  EXPECT_EQ(explained(),
            "via 10.0.0.254 on Ethernet1 unresolved: no neighbour entry; proactive ARP probing, 1 "
            "probe sent, no host answers");

  host.neighAdd(kVia, NextHopInfo(intf("Ethernet1"), Netval::EthAddr()));
  EXPECT_EQ(explained(),
            "via 10.0.0.254 on Ethernet1 unresolved: neighbour entry without MAC; proactive ARP "
            "probing, 1 probe sent, no host answers");

  host.hostAdd(kVia, mac("00:00:00:00:00:01"));
  host.neighReplace(kVia, NextHopInfo(Netval::IntfId(), mac("00:00:00:00:00:01")));
  EXPECT_EQ(explained(),
            "via 10.0.0.254 on Ethernet1 unresolved: neighbour entry without L2 interface; "
            "proactive ARP probing, 3 probes sent, reply due");

  host.advance(Sim::ProactiveArpService::defaultArpDelay);
  EXPECT_EQ(explained(), "no next-hop table on Ethernet1 (via 10.0.0.254, MAC 00:00:00:00:00:01)");

  host.nhTableAdd(intf("Ethernet1"));
  host.nhIndexAdd(intf("Ethernet1"), 5, mac("00:00:00:00:00:02"));
  EXPECT_EQ(explained(), "no nhIndex with MAC 00:00:00:00:00:01 on Ethernet1 (via 10.0.0.254)");

  host.nhIndexAdd(intf("Ethernet1"), 6, mac("00:00:00:00:00:01"));
  EXPECT_EQ(explained(), "resolved: via 10.0.0.254, MAC 00:00:00:00:00:01, nhIndex 6");
}

TEST_F(ExplainTest, TellsAProactiveArpEntryFromNone) {
  host.requestAdd(kRequest);
  host.vrfAdd(vrf("red"));
  host.routeAdd(vrf("red"), Prefix::fromText("10.1.0.0/16"), via("10.0.0.254", "Ethernet1"));
  host.hostAdd(kVia, mac("00:00:00:00:00:01"));
  EXPECT_EQ(explained(),
            "via 10.0.0.254 on Ethernet1 unresolved: no neighbour entry; proactive ARP probing, 1 "
            "probe sent, reply due");
  host.advance(1);
  host.hostDel(kVia);
  host.neighDel(kVia);
  EXPECT_EQ(explained(),
            "via 10.0.0.254 on Ethernet1 unresolved: no neighbour entry; proactive ARP probing, 1 "
            "probe sent, no host answers");
  // Withdrawn by a restarted proactive ARP client: no entry until the module asks again.
  host.clientConfig()->entryDelAll();
  EXPECT_EQ(explained(),
            "via 10.0.0.254 on Ethernet1 unresolved: no neighbour entry; no proactive ARP entry");
}

}  // namespace

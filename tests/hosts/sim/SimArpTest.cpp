#include "hosts/sim/SimArp.h"

#include <gtest/gtest.h>

#include "hosts/HostError.h"
#include "support/FwdTestValues.h"

namespace {

using FwdTest::intf;
using FwdTest::ip;
using FwdTest::mac;
using Hosts::HostError;
using Plane::NextHopInfo;
using Plane::NextHopKey;
using Sim::ProactiveArpService;

// Proactive ARP as the module drives it: through a real ProactiveArpNexthopSm client.
struct ArpWorld {
  Hub::TaskScheduler::Ptr scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  Arp::ProactiveArp::ClientConfig::Ptr clientConfig =
      Arp::ProactiveArp::ClientConfig::ClientConfigIs();
  Plane::NextHopInfoWrapper::Ptr neighbours = Plane::NextHopInfoWrapper::NextHopInfoWrapperIs();
  Hosts::ProactiveArpClients::Ptr clients =
      Hosts::ProactiveArpClients::ProactiveArpClientsIs(clientConfig);
  ProactiveArpService::Ptr arp =
      ProactiveArpService::ProactiveArpServiceIs(clients, neighbours, scheduler);
  Plane::ProactiveArpNexthopSm::Ptr client =
      Plane::ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(clientConfig);
};

const NextHopKey kVia(intf("Ethernet1"), ip("10.0.0.254"));
const Netval::EthAddr kMac = mac("00:1c:73:00:00:01");

TEST(ProactiveArpService, AHostAnswersAfterTheArpDelay) {
  ArpWorld world;
  world.arp->arpDelayIs(5);
  world.arp->hostIs(kVia, kMac);
  world.client->addEntry(kVia, 1001);
  EXPECT_TRUE(world.arp->wanted(kVia));
  EXPECT_EQ(world.arp->probeCount(kVia), 1u);
  EXPECT_EQ(world.arp->replyPendingCount(kVia), 1u);
  world.scheduler->advanceBy(4);
  EXPECT_FALSE(world.neighbours->nextHopInfoHas(kVia));
  world.scheduler->advanceBy(1);
  EXPECT_EQ(world.neighbours->nextHopInfo(kVia), NextHopInfo(intf("Ethernet1"), kMac));
  EXPECT_EQ(world.arp->replyPendingCount(kVia), 0u);
}

TEST(ProactiveArpService, NobodyAnswersWithoutAHost) {
  ArpWorld world;
  world.client->addEntry(kVia, 1001);
  world.scheduler->advanceBy(100);
  EXPECT_EQ(world.arp->probeCount(kVia), 1u);
  EXPECT_FALSE(world.neighbours->nextHopInfoHas(kVia));
  // A host on another interface with that address does not answer for this one.
  world.arp->hostIs(NextHopKey(intf("Ethernet2"), ip("10.0.0.254")), kMac);
  world.scheduler->advanceBy(100);
  EXPECT_FALSE(world.neighbours->nextHopInfoHas(kVia));
}

TEST(ProactiveArpService, ProbesAHostThatJoinsWhileTheNeighbourIsWanted) {
  ArpWorld world;
  world.client->addEntry(kVia, 1001);
  world.scheduler->advanceBy(10);
  world.arp->hostIs(kVia, kMac);
  EXPECT_EQ(world.arp->probeCount(kVia), 2u);
  world.scheduler->advanceBy(ProactiveArpService::defaultArpDelay);
  EXPECT_TRUE(world.neighbours->nextHopInfoHas(kVia));
}

TEST(ProactiveArpService, AResolutionTriggerSendsAProbe) {
  ArpWorld world;
  world.arp->hostIs(kVia, kMac);
  world.neighbours->nextHopInfoIs(kVia, NextHopInfo(Netval::IntfId(), kMac));
  world.client->doUpdateTriggerResolution(kVia);
  EXPECT_EQ(world.arp->probeCount(kVia), 1u);
  world.scheduler->advanceBy(ProactiveArpService::defaultArpDelay);
  EXPECT_EQ(world.neighbours->nextHopInfo(kVia).l2Intf(), intf("Ethernet1"));
}

TEST(ProactiveArpService, AHostGoneBeforeItsReplyLeavesNoNeighbour) {
  ArpWorld world;
  world.arp->arpDelayIs(3);
  world.arp->hostIs(kVia, kMac);
  world.client->addEntry(kVia, 1001);
  world.arp->hostDel(kVia);
  world.scheduler->advanceBy(3);
  EXPECT_FALSE(world.neighbours->nextHopInfoHas(kVia));
  EXPECT_EQ(world.arp->replyPendingCount(kVia), 0u);
}

TEST(ProactiveArpService, AWithdrawnEntryKeepsItsNeighbour) {
  ArpWorld world;
  world.arp->hostIs(kVia, kMac);
  world.client->addEntry(kVia, 1001);
  world.scheduler->advanceBy(1);
  world.client->removeEntry(kVia, 1001);
  EXPECT_FALSE(world.arp->wanted(kVia));
  world.scheduler->advanceBy(10);
  EXPECT_TRUE(world.neighbours->nextHopInfoHas(kVia));
  EXPECT_EQ(world.arp->probeCount(kVia), 1u);
}

TEST(ProactiveArpService, RefusesADuplicateHostAndTheDeleteOfAnAbsentOne) {
  ArpWorld world;
  world.arp->hostIs(kVia, kMac);
  EXPECT_THROW(world.arp->hostIs(kVia, mac("00:1c:73:00:00:02")), HostError);
  EXPECT_EQ(world.arp->host(kVia), kMac);
  world.arp->hostDel(kVia);
  EXPECT_THROW(world.arp->hostDel(kVia), HostError);
  EXPECT_FALSE(world.arp->host(kVia));
}

TEST(ProactiveArpService, AQueuedReplyOutlivingTheServiceDoesNothing) {
  ArpWorld world;
  world.arp->hostIs(kVia, kMac);
  world.client->addEntry(kVia, 1001);
  world.client = nullptr;
  world.arp = nullptr;
  world.scheduler->advanceBy(10);
  EXPECT_FALSE(world.neighbours->nextHopInfoHas(kVia));
}

}  // namespace

#include "hosts/HostArp.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/FwdTestValues.h"

namespace {

using Arp::ProactiveArp::ClientEntry;
using FwdTest::intf;
using FwdTest::ip;
using Hosts::ProactiveArpClients;
using Plane::NextHopKey;

// Records what the clients tell a host's ARP service, in order.
class RecordingService : public ProactiveArpClients::Service {
 public:
  void arpEntryIs(const ClientEntry& entry, bool present) override {
    calls.push_back(std::string(present ? "entry+ " : "entry- ") + entry.key().addr().toString() +
                    " vrf " + std::to_string(entry.arpVrfId()));
  }
  void arpResolve(const NextHopKey& key) override {
    calls.push_back("resolve " + key.addr().toString());
  }
  std::vector<std::string> calls;
};

struct ClientsWorld {
  Arp::ProactiveArp::ClientConfig::Ptr clientConfig =
      Arp::ProactiveArp::ClientConfig::ClientConfigIs();
  ProactiveArpClients::Ptr clients = ProactiveArpClients::ProactiveArpClientsIs(clientConfig);
  RecordingService service;
  ClientsWorld() { clients->serviceIs(&service); }
  ~ClientsWorld() { clients->serviceIs(nullptr); }
};

const NextHopKey kVia(intf("Ethernet1"), ip("10.0.0.254"));
const NextHopKey kOther(intf("Ethernet2"), ip("10.0.1.254"));

TEST(ProactiveArpClients, NeighbourStaysWantedWhileAnyVrfWantsIt) {
  ClientsWorld world;
  world.clientConfig->entryIs(ClientEntry(kVia, 1001));
  world.clientConfig->entryIs(ClientEntry(kVia, 1002));
  EXPECT_TRUE(world.clients->wanted(kVia));
  EXPECT_FALSE(world.clients->wanted(kOther));
  EXPECT_EQ(world.clients->wantedBy().at(kVia), (std::set<Vrf::VrfIdMap::VrfId>{1001, 1002}));
  world.clientConfig->entryDel(ClientEntry(kVia, 1001));
  EXPECT_TRUE(world.clients->wanted(kVia));
  world.clientConfig->entryDel(ClientEntry(kVia, 1002));
  EXPECT_FALSE(world.clients->wanted(kVia));
  EXPECT_TRUE(world.clients->wantedBy().empty());
}

TEST(ProactiveArpClients, ServiceHearsEntriesAndTriggersInOrder) {
  ClientsWorld world;
  world.clientConfig->entryIs(ClientEntry(kVia, 1001));
  world.clientConfig->resolutionTriggerIs(kVia, 1);
  world.clientConfig->entryDel(ClientEntry(kVia, 1001));
  // A withdrawn trigger asks for nothing.
  world.clientConfig->resolutionTriggerDel(kVia);
  EXPECT_EQ(world.service.calls,
            (std::vector<std::string>{"entry+ 10.0.0.254 vrf 1001", "resolve 10.0.0.254",
                                      "entry- 10.0.0.254 vrf 1001"}));
}

TEST(ProactiveArpClients, EntriesPresentAtStartAreWantedButNotAnnounced) {
  auto clientConfig = Arp::ProactiveArp::ClientConfig::ClientConfigIs();
  clientConfig->entryIs(ClientEntry(kOther, 7));
  auto clients = ProactiveArpClients::ProactiveArpClientsIs(clientConfig);
  RecordingService service;
  clients->serviceIs(&service);
  EXPECT_TRUE(clients->wanted(kOther));
  EXPECT_TRUE(service.calls.empty());
  clients->serviceIs(nullptr);
  clientConfig->entryDel(ClientEntry(kOther, 7));
  EXPECT_FALSE(clients->wanted(kOther));
  EXPECT_TRUE(service.calls.empty());
}

}  // namespace

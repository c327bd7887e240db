#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string_view>

#include "framework/Core.h"
#include "framework/CoreReactor.h"
#include "platform/Plane.h"

namespace Hosts {

// The host's side of proactive ARP: watches the module's Arp::ProactiveArp::ClientConfig and
// tells the host's ARP service (the simulated hosts on the links, or the kernel's neighbour
// table) what the client wants. Keeps which VRFs want each neighbour; writes nothing itself.
class ProactiveArpClients : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<ProactiveArpClients>;
  using VrfId = Vrf::VrfIdMap::VrfId;

  // What a host does with the client's wishes. Called synchronously, inside the client's change.
  class Service {
   public:
    virtual ~Service() = default;
    // The client added (`present`) or withdrew the entry: the neighbour in one VRF.
    virtual void arpEntryIs(const Arp::ProactiveArp::ClientEntry& entry, bool present) = 0;
    // The client asks for a fresh resolution of the neighbour.
    virtual void arpResolve(const Plane::NextHopKey& key) = 0;
  };

  static Ptr ProactiveArpClientsIs(Core::Ptr<const Arp::ProactiveArp::ClientConfig> clientConfig);

  // The service told of every change from now on; not owned, null for none. It is not told of
  // the entries that exist already: it reads them from wantedBy().
  void serviceIs(Service* service) { service_ = service; }

  // Whether the client asks to keep the neighbour resolved, in any VRF.
  bool wanted(const Plane::NextHopKey& key) const { return wantedBy_.contains(key); }
  // Every wanted neighbour with the VRFs that want it.
  const std::map<Plane::NextHopKey, std::set<VrfId>>& wantedBy() const { return wantedBy_; }
  const Core::Ptr<const Arp::ProactiveArp::ClientConfig>& clientConfig() const {
    return clientConfig_;
  }

  std::string_view typeName() const override { return "Hosts::ProactiveArpClients"; }

 private:
  explicit ProactiveArpClients(Core::Ptr<const Arp::ProactiveArp::ClientConfig> clientConfig);

  void handleEntry(const Arp::ProactiveArp::ClientEntry& entry);
  void handleResolutionTrigger(const Plane::NextHopKey& key);

  Core::Ptr<const Arp::ProactiveArp::ClientConfig> clientConfig_;
  Service* service_ = nullptr;
  std::map<Plane::NextHopKey, std::set<VrfId>> wantedBy_;

  Core::Slot<ProactiveArpClients, Arp::ProactiveArp::ClientEntry, &ProactiveArpClients::handleEntry>
      entrySlot_{this, Arp::ProactiveArp::ClientConfig::entryAttr, clientConfig_.get()};
  Core::Slot<ProactiveArpClients, Plane::NextHopKey, &ProactiveArpClients::handleResolutionTrigger>
      triggerSlot_{this, Arp::ProactiveArp::ClientConfig::resolutionTriggerAttr,
                   clientConfig_.get()};
};

}  // namespace Hosts

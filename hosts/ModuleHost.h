#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "hosts/HostArp.h"
#include "hosts/HostEngine.h"
#include "hosts/HostOutput.h"
#include "hosts/HostRouting.h"
#include "hosts/HostStatusLog.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"

namespace Hosts {

// What every host has around one resolver module: the module's inputs (every platform collection,
// the scheduler, the entity manager), the routing next-hop resolver over per-VRF route tables, the
// forwarding engine's per-interface next-hop tables, the proactive-ARP client bookkeeping, the
// status log and the module's root. A host (the simulator, the Linux kernel) feeds it facts; it
// never runs the scheduler itself. Mutators refuse bad input with HostError before anything
// reaches the module.
class ModuleHost {
 public:
  using Time = Hub::TaskScheduler::Time;

  // Builds the platform state and the host's shared behaviours, but not the root: the host calls
  // start() once its own behaviours are in place. Status lines go to `sink` (none if null).
  explicit ModuleHost(StatusLog::Sink sink = nullptr);
  // Stops the module if it runs; prints nothing more.
  virtual ~ModuleHost();
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  // Creates the module's root from the factory over the host's inputs.
  void start();
  // doCleanup, then drops the root; nothing when it does not run.
  void stop();
  bool running() const { return root_ != nullptr; }
  // The module's life ends and starts again over the same state, as when its agent restarts.
  void restart();

  void statusSinkIs(StatusLog::Sink sink) { statusLog_->sinkIs(std::move(sink)); }
  void statusFormatIs(OutputFormat format) { statusLog_->formatIs(format); }
  // How status lines are stamped; null for the scheduler's time in milliseconds.
  void statusStamperIs(StatusLog::Stamper stamper) { statusLog_->stamperIs(std::move(stamper)); }

  Time now() const { return inputs_.scheduler->now(); }
  // Runs every task due at the current time, including those they queue for it.
  void runDue() { inputs_.scheduler->runUntilIdle(); }

  // The VRF's id (the lowest id no other VRF uses, unless given), then its L3 status; its own FEC
  // table is published first, so the module can mount it as soon as the VRF is up. Throws when the
  // VRF exists, for id 0, an id whose proactive-ARP id would not fit in 32 bits or an id another
  // VRF has.
  void vrfAdd(const L3::VrfName& vrfName, std::optional<Plane::VrfId> vrfId = std::nullopt);
  // Its L3 status, then its id. Throws when the VRF does not exist.
  void vrfDel(const L3::VrfName& vrfName);
  bool vrfHas(const L3::VrfName& vrfName) const;

  // Throws for a mode other than 1 or 2, and once the module has had a request (it reads the
  // mode when it starts a VRF).
  void fecModeIs(Memtab::Fib::FecMode fecMode);

  // Throws for a next hop that is not a non-zero IPv4 address and for a request that exists.
  void requestAdd(const FwdL3Unicast::NexthopNhIndexResolverKey& key);
  // Throws for a key no request may have: a next hop that is not a non-zero IPv4 address.
  static void requestKeyCheck(const FwdL3Unicast::NexthopNhIndexResolverKey& key);
  // Throws when there is no such request.
  void requestDel(const FwdL3Unicast::NexthopNhIndexResolverKey& key);
  bool requestHas(const FwdL3Unicast::NexthopNhIndexResolverKey& key) const {
    return inputs_.configDir->configHas(key);
  }

  // The root's dump at indent 0.
  std::string dump() const;
  // The status published for the request, if any.
  std::optional<uint32_t> statusNhIndex(const FwdL3Unicast::NexthopNhIndexResolverKey& key) const;
  // Whether the module asks proactive ARP to keep the neighbour resolved (in any VRF).
  bool arpWanted(const Plane::NextHopKey& key) const { return arpClients_->wanted(key); }
  // What the host's ARP service is doing for a wanted neighbour, for explain: "proactive ARP
  // probing, 2 probes sent, no host answers".
  virtual std::string arpState(const Plane::NextHopKey& key) const;
  // The host's own fields of a proactive ARP entry in `show arp` (Show::arp()), added to `entry`
  // after its key and arpVrfId: the simulator's probe count, the kernel's neighbour state. None
  // by default.
  virtual void arpShow(const Plane::NextHopKey& key, Json& entry) const;

  const FwdL3Unicast::NexthopNhIndexResolverInputs& inputs() const { return inputs_; }
  const Hub::TaskScheduler::Ptr& scheduler() const { return inputs_.scheduler; }
  const Store::EntityManager::Ptr& entityManager() const { return inputs_.em; }
  const FwdL3Unicast::NexthopNhIndexResolverConfigDir::Ptr& configDir() const {
    return inputs_.configDir;
  }
  const Routing::NexthopConfig::Ptr& nexthopConfig() const { return inputs_.nexthopConfig; }
  const Routing::NexthopStatus::Ptr& nexthopStatus() const { return inputs_.nexthopStatus; }
  const Memtab::Fib::FecModeStatus::Ptr& fecModeStatus() const { return inputs_.fecModeStatus; }
  const Memtab::FibGen::ForwardingStatus::Ptr& forwardingGenStatus() const {
    return inputs_.forwardingGenStatus;
  }
  const Plane::NextHopInfoWrapper::Ptr& nextHopInfoWrapper() const {
    return inputs_.nextHopInfoWrapper;
  }
  const Plane::VrfL3StatusAll::Ptr& vrfStatusAll() const { return inputs_.vrfStatusAll; }
  const FwdL3Unicast::L3Modules::Ptr& l3Modules() const { return inputs_.l3Modules; }
  const Arp::ProactiveArp::ClientConfig::Ptr& clientConfig() const {
    return inputs_.proactiveArpNexthop;
  }
  const FwdL3Unicast::NexthopNhIndexResolverStatusDir::Ptr& statusDir() const {
    return inputs_.statusDir;
  }
  const FwdL3Unicast::NexthopNhIndexResolverSm::Ptr& root() const { return root_; }
  const RoutingResolver::Ptr& routing() const { return routing_; }
  const ForwardingEngine::Ptr& engine() const { return engine_; }
  const ProactiveArpClients::Ptr& arpClients() const { return arpClients_; }

 private:
  FwdL3Unicast::NexthopNhIndexResolverInputs inputs_;
  RoutingResolver::Ptr routing_;
  ProactiveArpClients::Ptr arpClients_;
  ForwardingEngine::Ptr engine_;
  StatusLog::Ptr statusLog_;
  bool requestSeen_ = false;
  // The VRF of each id vrfAdd gave, and no id below lowestFreeVrfId_ is free: finding the next
  // free id costs constant time for VRFs added one after another.
  std::unordered_map<Plane::VrfId, L3::VrfName> vrfOwners_;
  Plane::VrfId lowestFreeVrfId_ = 1;
  FwdL3Unicast::NexthopNhIndexResolverSm::Ptr root_;
};

}  // namespace Hosts

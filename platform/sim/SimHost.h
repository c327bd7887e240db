#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "framework/Store.h"
#include "platform/L3Modules.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"
#include "platform/Routing.h"
#include "platform/sim/SimArp.h"
#include "platform/sim/SimEngine.h"
#include "platform/sim/SimRouting.h"
#include "platform/sim/SimStatusLog.h"

namespace Sim {

// A whole simulated host around one resolver module: owns every platform object the module reads
// or writes, the scheduler (virtual clock), the entity manager, the host's behaviours and the
// module's root. Mutators refuse bad input with SimError before anything reaches the module, and
// never run the scheduler: the caller runs what is due (runDue) or moves the clock (advance).
class SimHost {
 public:
  using Time = Hub::TaskScheduler::Time;

  // Builds the platform state and the module's root; status lines go to `sink` (none if null).
  explicit SimHost(StatusLog::Sink sink = nullptr);
  // Cleans the module up and drops it; prints nothing more.
  ~SimHost();
  SimHost(const SimHost&) = delete;
  SimHost& operator=(const SimHost&) = delete;

  void statusSinkIs(StatusLog::Sink sink) { statusLog_->sinkIs(std::move(sink)); }

  Time now() const { return scheduler_->now(); }
  // Runs every task due at the current time, including those they queue for it.
  void runDue() { scheduler_->runUntilIdle(); }
  // Moves the clock by `delta`, running each task at its own time.
  void advance(Time delta) { scheduler_->advanceBy(delta); }

  // The VRF's id (the lowest id no other VRF uses, unless given), then its L3 status. Throws
  // when the VRF exists, for id 0 or an id another VRF has.
  void vrfAdd(const L3::VrfName& vrfName, std::optional<Plane::VrfId> vrfId = std::nullopt);
  // Its L3 status, then its id. Throws when the VRF does not exist.
  void vrfDel(const L3::VrfName& vrfName);

  // Throws for a mode other than 1 or 2, and once the module has had a request (it reads the
  // mode when it starts a VRF).
  void fecModeIs(Memtab::Fib::FecMode fecMode);

  // Throws when the route exists.
  void routeAdd(const L3::VrfName& vrfName, const Prefix& prefix, RoutingResolver::ViaList vias);
  void routeReplace(const L3::VrfName& vrfName, const Prefix& prefix,
                    RoutingResolver::ViaList vias);
  // Throws when the route does not exist.
  void routeDel(const L3::VrfName& vrfName, const Prefix& prefix);

  // Throws when the neighbour entry exists.
  void neighAdd(const Plane::NextHopKey& key, const Plane::NextHopInfo& info);
  void neighReplace(const Plane::NextHopKey& key, const Plane::NextHopInfo& info);
  // Throws when there is no such neighbour entry.
  void neighDel(const Plane::NextHopKey& key);

  void hostAdd(const Plane::NextHopKey& key, Netval::EthAddr macAddr) {
    arp_->hostIs(key, macAddr);
  }
  void hostDel(const Plane::NextHopKey& key) { arp_->hostDel(key); }
  void arpDelayIs(Time delay) { arp_->arpDelayIs(delay); }

  void nhTableAdd(Netval::IntfId intfId) { engine_->nhTableIs(intfId); }
  void nhTableDel(Netval::IntfId intfId) { engine_->nhTableDel(intfId); }
  void nhIndexAdd(Netval::IntfId intfId, uint32_t nhIndex, Netval::EthAddr macAddr) {
    engine_->nhIndexAdd(intfId, nhIndex, macAddr);
  }
  void nhIndexReplace(Netval::IntfId intfId, uint32_t nhIndex, Netval::EthAddr macAddr) {
    engine_->nhIndexReplace(intfId, nhIndex, macAddr);
  }
  void nhIndexDel(Netval::IntfId intfId, uint32_t nhIndex) { engine_->nhIndexDel(intfId, nhIndex); }
  void autoNhIndexIs(bool on) { engine_->autoNhIndexIs(on); }

  // Throws for a next hop that is not a non-zero IPv4 address and for a request that exists.
  void requestAdd(const FwdL3Unicast::NexthopNhIndexResolverKey& key);
  // Throws when there is no such request.
  void requestDel(const FwdL3Unicast::NexthopNhIndexResolverKey& key);
  bool requestHas(const FwdL3Unicast::NexthopNhIndexResolverKey& key) const {
    return configDir_->configHas(key);
  }

  // The module's life ends and starts again over the same state, as when its agent restarts:
  // doCleanup, release, then a new root from the factory.
  void restart();
  // The root's dump at indent 0.
  std::string dump() const;

  // The status published for the request, if any.
  std::optional<uint32_t> statusNhIndex(const FwdL3Unicast::NexthopNhIndexResolverKey& key) const;
  // Whether the module asks proactive ARP to keep the neighbour resolved (in any VRF).
  bool arpWanted(const Plane::NextHopKey& key) const { return arp_->wanted(key); }

  const Hub::TaskScheduler::Ptr& scheduler() const { return scheduler_; }
  const Store::EntityManager::Ptr& entityManager() const { return entityManager_; }
  const FwdL3Unicast::NexthopNhIndexResolverConfigDir::Ptr& configDir() const { return configDir_; }
  const Routing::NexthopConfig::Ptr& nexthopConfig() const { return nexthopConfig_; }
  const Routing::NexthopStatus::Ptr& nexthopStatus() const { return nexthopStatus_; }
  const Memtab::Fib::FecModeStatus::Ptr& fecModeStatus() const { return fecModeStatus_; }
  const Memtab::FibGen::ForwardingStatus::Ptr& forwardingGenStatus() const {
    return forwardingGenStatus_;
  }
  const Plane::NextHopInfoWrapper::Ptr& nextHopInfoWrapper() const { return nextHopInfoWrapper_; }
  const Plane::VrfL3StatusAll::Ptr& vrfStatusAll() const { return vrfStatusAll_; }
  const FwdL3Unicast::L3Modules::Ptr& l3Modules() const { return l3Modules_; }
  const Arp::ProactiveArp::ClientConfig::Ptr& clientConfig() const { return clientConfig_; }
  const FwdL3Unicast::NexthopNhIndexResolverStatusDir::Ptr& statusDir() const { return statusDir_; }
  const FwdL3Unicast::NexthopNhIndexResolverSm::Ptr& root() const { return root_; }
  const RoutingResolver::Ptr& routing() const { return routing_; }
  const ProactiveArpService::Ptr& arp() const { return arp_; }
  const ForwardingEngine::Ptr& engine() const { return engine_; }

 private:
  FwdL3Unicast::NexthopNhIndexResolverSm::Ptr rootIs() const;

  Hub::TaskScheduler::Ptr scheduler_;
  Store::EntityManager::Ptr entityManager_;
  FwdL3Unicast::NexthopNhIndexResolverConfigDir::Ptr configDir_;
  Routing::NexthopConfig::Ptr nexthopConfig_;
  Routing::NexthopStatus::Ptr nexthopStatus_;
  Memtab::Fib::FecModeStatus::Ptr fecModeStatus_;
  Memtab::FibGen::ForwardingStatus::Ptr forwardingGenStatus_;
  Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper_;
  Plane::VrfL3StatusAll::Ptr vrfStatusAll_;
  FwdL3Unicast::L3Modules::Ptr l3Modules_;
  Arp::ProactiveArp::ClientConfig::Ptr clientConfig_;
  FwdL3Unicast::NexthopNhIndexResolverStatusDir::Ptr statusDir_;

  RoutingResolver::Ptr routing_;
  ProactiveArpService::Ptr arp_;
  ForwardingEngine::Ptr engine_;
  StatusLog::Ptr statusLog_;
  bool requestSeen_ = false;
  FwdL3Unicast::NexthopNhIndexResolverSm::Ptr root_;
};

}  // namespace Sim

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdVrfNexthopNhIndexResolverSm.h"
#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/CoreDump.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Store.h"
#include "platform/L3Modules.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"
#include "platform/Routing.h"

namespace FwdL3Unicast {

// The requests of every tracked VRF, one NexthopIntfIdColl per VRF (never an empty one). Owned
// and written by the root resolver; nothing watches it, but changes publish vrfConfigAttr.
class AllVrfNexthopNhIndexResolverConfigDir : public Core::Node {
 public:
  using Ptr = Core::Ptr<AllVrfNexthopNhIndexResolverConfigDir>;
  using Coll = Core::ChildMap<L3::VrfName, NexthopIntfIdColl, &NexthopIntfIdColl::vrfName>;
  static constexpr Core::AttrId vrfConfigAttr = 1;

  static Ptr AllVrfNexthopNhIndexResolverConfigDirIs() {
    return Ptr(new AllVrfNexthopNhIndexResolverConfigDir);
  }

  // Get-or-create: an existing collection is returned with its members untouched.
  NexthopIntfIdColl::Ptr vrfConfigIs(const L3::VrfName& vrfName);
  bool vrfConfigDel(const L3::VrfName& vrfName) { return vrfConfig_.del(vrfName); }
  void vrfConfigDelAll() { vrfConfig_.delAll(); }
  // The VRF's requests, null when the VRF is not tracked.
  NexthopIntfIdColl::Ptr vrfConfig(const L3::VrfName& vrfName) const {
    return vrfConfig_.get(vrfName);
  }
  bool vrfConfigHas(const L3::VrfName& vrfName) const { return vrfConfig_.has(vrfName); }
  size_t vrfConfigCount() const { return vrfConfig_.size(); }
  // Iteration; deleting during the loop is safe, an insert may reorder it.
  const Coll& vrfConfig() const { return vrfConfig_; }

  std::string_view typeName() const override {
    return "FwdL3Unicast::AllVrfNexthopNhIndexResolverConfigDir";
  }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  AllVrfNexthopNhIndexResolverConfigDir() = default;

  Coll vrfConfig_{this, vrfConfigAttr};
};

// The result map of every tracked VRF (stage 3's output), stored under the map's VRF name.
// Owned and written by the root resolver, which watches vrfStatusAttr to keep one status
// reactor per map.
class AllVrfNexthopNhIndexResolverStatusDir : public Core::Node {
 public:
  using Ptr = Core::Ptr<AllVrfNexthopNhIndexResolverStatusDir>;
  using Coll =
      Core::ChildMap<L3::VrfName, ViaNexthopMacToNhIndexMap, &ViaNexthopMacToNhIndexMap::vrfName>;
  static constexpr Core::AttrId vrfStatusAttr = 1;

  static Ptr AllVrfNexthopNhIndexResolverStatusDirIs() {
    return Ptr(new AllVrfNexthopNhIndexResolverStatusDir);
  }

  // Inserts the map under its own VRF name; a null map throws Core::NullArgumentError.
  void vrfStatusIs(const ViaNexthopMacToNhIndexMap::Ptr& map);
  bool vrfStatusDel(const L3::VrfName& vrfName) { return vrfStatus_.del(vrfName); }
  void vrfStatusDelAll() { vrfStatus_.delAll(); }
  // The VRF's map, null when the VRF is not tracked.
  ViaNexthopMacToNhIndexMap::Ptr vrfStatus(const L3::VrfName& vrfName) const {
    return vrfStatus_.get(vrfName);
  }
  bool vrfStatusHas(const L3::VrfName& vrfName) const { return vrfStatus_.has(vrfName); }
  size_t vrfStatusCount() const { return vrfStatus_.size(); }
  const Coll& vrfStatus() const { return vrfStatus_; }

  std::string_view typeName() const override {
    return "FwdL3Unicast::AllVrfNexthopNhIndexResolverStatusDir";
  }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  AllVrfNexthopNhIndexResolverStatusDir() = default;

  Coll vrfStatus_{this, vrfStatusAttr};
};

// The running pipelines, one per ready VRF. Owned and written by the root resolver; publishes
// smAttr per pipeline created or removed.
class AllVrfNexthopNhIndexResolverSm : public Core::Node {
 public:
  using Ptr = Core::Ptr<AllVrfNexthopNhIndexResolverSm>;
  using Coll = Core::ChildMap<L3::VrfName, VrfNexthopNhIndexResolverSm,
                              &VrfNexthopNhIndexResolverSm::vrfName>;
  static constexpr Core::AttrId smAttr = 1;

  static Ptr AllVrfNexthopNhIndexResolverSmIs() { return Ptr(new AllVrfNexthopNhIndexResolverSm); }

  // The VRF's pipeline: the running one when it was built from these very inputs, a new one
  // when the VRF has none. A pipeline built from other inputs throws Core::ReinstantiationError.
  VrfNexthopNhIndexResolverSm::Ptr smIs(const L3::VrfName& vrfName,
                                        const VrfNexthopNhIndexResolverInputs& inputs);
  // Removes the pipeline, publishes, then switches it off; it is destroyed with the last
  // reference (at once, unless a handler of it is still running).
  bool smDel(const L3::VrfName& vrfName);
  void smDelAll();
  VrfNexthopNhIndexResolverSm::Ptr sm(const L3::VrfName& vrfName) const { return sm_.get(vrfName); }
  bool smHas(const L3::VrfName& vrfName) const { return sm_.has(vrfName); }
  size_t smCount() const { return sm_.size(); }
  // Iteration; deleting during the loop is safe, an insert may reorder it.
  const Coll& sm() const { return sm_; }

  std::string_view typeName() const override {
    return "FwdL3Unicast::AllVrfNexthopNhIndexResolverSm";
  }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  AllVrfNexthopNhIndexResolverSm() = default;

  Coll sm_{this, smAttr};
};

inline AllVrfNexthopNhIndexResolverConfigDir::Ptr allVrfNexthopNhIndexResolverConfigDirFactory() {
  return AllVrfNexthopNhIndexResolverConfigDir::AllVrfNexthopNhIndexResolverConfigDirIs();
}
inline AllVrfNexthopNhIndexResolverStatusDir::Ptr allVrfNexthopNhIndexResolverStatusDirFactory() {
  return AllVrfNexthopNhIndexResolverStatusDir::AllVrfNexthopNhIndexResolverStatusDirIs();
}
inline AllVrfNexthopNhIndexResolverSm::Ptr allVrfNexthopNhIndexResolverSmFactory() {
  return AllVrfNexthopNhIndexResolverSm::AllVrfNexthopNhIndexResolverSmIs();
}

// The module's entry point. Watches the requests (configDir) and keeps them per VRF, registers
// each tracked VRF with the routing next-hop resolver (nexthopConfig), runs a pipeline per VRF
// while the VRF is ready, mirrors the pipelines' results into statusDir and hands every
// neighbour change to every pipeline. The owner calls doCleanup() before dropping it.
class NexthopNhIndexResolverSm : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<NexthopNhIndexResolverSm>;

  // Mirrors one VRF's result map into the root's status collection, entry by entry. Owned by
  // the root, keyed by the map's VRF name; holds the map, not the root.
  class NestedSm_VrfStatus : public Core::Reactor {
   public:
    using Ptr = Core::Ptr<NestedSm_VrfStatus>;

    // Watches `map` with notifications active; existing entries are not replayed.
    static Ptr NestedSm_VrfStatusIs(ViaNexthopMacToNhIndexMap::Ptr map,
                                    NexthopNhIndexResolverSm* owner);

    const L3::VrfName& vrfName() const { return vrfName_; }
    const ViaNexthopMacToNhIndexMap::Ptr& notifier() const { return notifier_; }
    // Watches another map of the same VRF from now on; replays nothing.
    void notifierIs(ViaNexthopMacToNhIndexMap::Ptr map);

    // Sets or deletes the request's status as the map now holds or lacks its entry.
    void handleVrfNexthopNhIndexResolverStatus(const NexthopIntfId& nexthopIntfId);
    // Deletes the status of every entry the map still holds: for a map that is going away.
    void withdrawPublished();

    std::string_view typeName() const override {
      return "FwdL3Unicast::NexthopNhIndexResolverSm::NestedSm_VrfStatus";
    }

   private:
    NestedSm_VrfStatus(ViaNexthopMacToNhIndexMap::Ptr map, NexthopNhIndexResolverSm* owner);

    L3::VrfName vrfName_;
    ViaNexthopMacToNhIndexMap::Ptr notifier_;
    NexthopNhIndexResolverSm* owner_;
    Core::Slot<NestedSm_VrfStatus, NexthopIntfId,
               &NestedSm_VrfStatus::handleVrfNexthopNhIndexResolverStatus>
        mapSlot_{this, ViaNexthopMacToNhIndexMap::mapAttr, notifier_.get()};
  };

  using VrfStatusColl =
      Core::ChildMap<L3::VrfName, NestedSm_VrfStatus, &NestedSm_VrfStatus::vrfName>;
  static constexpr Core::AttrId vrfStatusAttr = 1;

  static Ptr NexthopNhIndexResolverSmIs(
      Core::Ptr<Store::EntityManager> em,
      Core::Ptr<const NexthopNhIndexResolverConfigDir> configDir,
      Core::Ptr<Routing::NexthopConfig> nexthopConfig,
      Core::Ptr<const Routing::NexthopStatus> nexthopStatus,
      Core::Ptr<Memtab::Fib::FecModeStatus> fecModeStatus,
      Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
      Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
      Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
      Core::Ptr<Arp::ProactiveArp::ClientConfig> proactiveArpNexthop,
      Core::Ptr<Hub::TaskScheduler> scheduler,
      Core::Ptr<NexthopNhIndexResolverStatusDir> statusDir);

  // Unsubscribes, drops the status reactors, then releases the attributes in reverse order.
  ~NexthopNhIndexResolverSm() override;

  const Core::Ptr<Store::EntityManager>& em() const { return em_; }
  const Core::Ptr<const NexthopNhIndexResolverConfigDir>& configDir() const { return configDir_; }
  const Core::Ptr<Routing::NexthopConfig>& nexthopConfig() const { return nexthopConfig_; }
  const Core::Ptr<const Routing::NexthopStatus>& nexthopStatus() const { return nexthopStatus_; }
  const Core::Ptr<Memtab::Fib::FecModeStatus>& fecModeStatus() const { return fecModeStatus_; }
  const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus() const {
    return forwardingGenStatus_;
  }
  const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper() const {
    return nextHopInfoWrapper_;
  }
  const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll() const { return vrfStatusAll_; }
  const Core::Ptr<const L3Modules>& l3Modules() const { return l3Modules_; }
  const Core::Ptr<Arp::ProactiveArp::ClientConfig>& proactiveArpNexthop() const {
    return proactiveArpNexthop_;
  }
  const Core::Ptr<Hub::TaskScheduler>& scheduler() const { return scheduler_; }
  const Core::Ptr<NexthopNhIndexResolverStatusDir>& statusDir() const { return statusDir_; }
  const AllVrfNexthopNhIndexResolverConfigDir::Ptr& allVrfNexthopNhIndexResolverConfigDir() const {
    return allVrfNexthopNhIndexResolverConfigDir_;
  }
  const AllVrfNexthopNhIndexResolverStatusDir::Ptr& allVrfNexthopNhIndexResolverStatusDir() const {
    return allVrfNexthopNhIndexResolverStatusDir_;
  }
  const AllVrfNexthopNhIndexResolverSm::Ptr& allVrfNexthopNhIndexResolverSm() const {
    return allVrfNexthopNhIndexResolverSm_;
  }
  const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm() const {
    return proactiveArpNexthopSm_;
  }

  // The status reactors. vrfStatusIs keeps a reactor that watches `map`, re-points one that
  // watches another map of the VRF, or creates one (no replay); a null map throws
  // Core::NullArgumentError. vrfStatusDel switches the VRF's reactor off and drops it.
  void vrfStatusIs(const ViaNexthopMacToNhIndexMap::Ptr& map);
  void vrfStatusDel(const L3::VrfName& vrfName);
  void vrfStatusDelAll();
  NestedSm_VrfStatus::Ptr vrfStatus(const L3::VrfName& vrfName) const {
    return vrfStatus_.get(vrfName);
  }
  size_t vrfStatusCount() const { return vrfStatus_.size(); }

  // Clears what an earlier root published or registered, builds the owned collections and
  // replays every request.
  void handleInitialized();
  void handleConfig();
  // A request added (present in configDir) or deleted (absent). Preconditions: the nexthop is a
  // non-zero IPv4 address; an added request is new; a deleted one was seen.
  void handleConfig(const NexthopNhIndexResolverKey& key);
  void handleNexthopVrfStatus(const L3::VrfName& vrfName);
  void handleVrfL3Status(const L3::VrfName& vrfName);
  // Hands the neighbour change to every pipeline.
  void handleNexthopInfo(const Plane::NextHopKey& nextHopKey);
  // Builds the VRF's pipeline (or keeps the running one) when the routing VRF status, the VRF's
  // registration and its L3 status all exist.
  void checkAndInstantiateVrfSm(const L3::VrfName& vrfName);
  // Drops the VRF's pipeline, if it runs; requests, status map and statuses stay.
  void checkAndDestroyVrfSm(const L3::VrfName& vrfName);
  // Whether `vrfConfig` is still the VRF's request collection (a nested handler may have
  // dropped the VRF and tracked it anew).
  bool vrfConfigCurrent(const L3::VrfName& vrfName, const NexthopIntfIdColl::Ptr& vrfConfig) const;
  // Drops every pipeline, status map, request collection and registration, then the statuses.
  void doCleanup();

  // Also reaches the status reactors.
  void hasNotificationActiveIs(bool active) override;

  std::string_view typeName() const override { return "FwdL3Unicast::NexthopNhIndexResolverSm"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopNhIndexResolverSm(Core::Ptr<Store::EntityManager> em,
                           Core::Ptr<const NexthopNhIndexResolverConfigDir> configDir,
                           Core::Ptr<Routing::NexthopConfig> nexthopConfig,
                           Core::Ptr<const Routing::NexthopStatus> nexthopStatus,
                           Core::Ptr<Memtab::Fib::FecModeStatus> fecModeStatus,
                           Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
                           Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
                           Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll,
                           Core::Ptr<const L3Modules> l3Modules,
                           Core::Ptr<Arp::ProactiveArp::ClientConfig> proactiveArpNexthop,
                           Core::Ptr<Hub::TaskScheduler> scheduler,
                           Core::Ptr<NexthopNhIndexResolverStatusDir> statusDir);

  // Runs the status reactors' life from the root's watch of its status-map collection.
  void handleVrfStatus(const L3::VrfName& vrfName);
  // The FEC table a non-default VRF reads in per-VRF FEC mode, mounted from the entity manager;
  // null when nothing of that type is published at the VRF's path.
  Core::Ptr<const Memtab::FibGen::ForwardingStatus> mountedForwardingStatus(
      const L3::VrfName& vrfName) const;
  // True (and the VRF marked to be looked at again) while the VRF's pipeline is being built or
  // torn down: the handlers that this runs must not build or drop another pipeline of the VRF,
  // since two pipelines of one VRF would write its status map and registrations at once.
  bool pipelineChanging(const L3::VrfName& vrfName);
  // Runs `change` (building or tearing down the VRF's pipeline), then, if a handler that it ran
  // found the VRF's readiness changed, builds or drops the pipeline accordingly.
  template <class Change>
  void pipelineChange(const L3::VrfName& vrfName, Change&& change);

  Core::Ptr<Store::EntityManager> em_;
  Core::Ptr<const NexthopNhIndexResolverConfigDir> configDir_;
  Core::Ptr<Routing::NexthopConfig> nexthopConfig_;
  Core::Ptr<const Routing::NexthopStatus> nexthopStatus_;
  Core::Ptr<Memtab::Fib::FecModeStatus> fecModeStatus_;
  Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus_;
  Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper_;
  Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll_;
  Core::Ptr<const L3Modules> l3Modules_;
  Core::Ptr<Arp::ProactiveArp::ClientConfig> proactiveArpNexthop_;
  Core::Ptr<Hub::TaskScheduler> scheduler_;
  Core::Ptr<NexthopNhIndexResolverStatusDir> statusDir_;
  AllVrfNexthopNhIndexResolverConfigDir::Ptr allVrfNexthopNhIndexResolverConfigDir_;
  AllVrfNexthopNhIndexResolverStatusDir::Ptr allVrfNexthopNhIndexResolverStatusDir_;
  VrfStatusColl vrfStatus_{this, vrfStatusAttr};
  AllVrfNexthopNhIndexResolverSm::Ptr allVrfNexthopNhIndexResolverSm_;
  Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm_;
  // VRFs whose pipeline is being built or torn down, innermost last, and those of them whose
  // readiness a nested handler saw change.
  std::vector<L3::VrfName> pipelinesChanging_;
  std::vector<L3::VrfName> pipelinesToCheck_;
  // Neighbour changes fanned out while a pipeline was being built, for the pipeline built.
  std::vector<Plane::NextHopKey> neighboursMissed_;

  // The input slots subscribe before handleInitialized runs; the status-map slot gets its
  // notifier after handleInitialized, once the collection exists.
  Core::Slot<NexthopNhIndexResolverSm, NexthopNhIndexResolverKey,
             &NexthopNhIndexResolverSm::handleConfig>
      configSlot_{this, NexthopNhIndexResolverConfigDir::configAttr, configDir_.get()};
  Core::Slot<NexthopNhIndexResolverSm, L3::VrfName,
             &NexthopNhIndexResolverSm::handleNexthopVrfStatus>
      nexthopVrfStatusSlot_{this, Routing::NexthopStatus::vrfAttr, nexthopStatus_.get()};
  Core::Slot<NexthopNhIndexResolverSm, Plane::NextHopKey,
             &NexthopNhIndexResolverSm::handleNexthopInfo>
      nextHopInfoSlot_{this, Plane::NextHopInfoWrapper::nextHopInfoAttr, nextHopInfoWrapper_.get()};
  Core::Slot<NexthopNhIndexResolverSm, L3::VrfName, &NexthopNhIndexResolverSm::handleVrfL3Status>
      vrfL3StatusSlot_{this, Plane::VrfL3StatusAll::vrfStatusAttr, vrfStatusAll_.get()};
  Core::Slot<NexthopNhIndexResolverSm, L3::VrfName, &NexthopNhIndexResolverSm::handleVrfStatus>
      vrfStatusDirSlot_{this, AllVrfNexthopNhIndexResolverStatusDir::vrfStatusAttr};
};

// Builds the root (which clears old statuses and registrations and replays every request) and
// switches its notifications on.
NexthopNhIndexResolverSm::Ptr nexthopNhIndexResolverSmFactory(
    Core::Ptr<Store::EntityManager> em, Core::Ptr<const NexthopNhIndexResolverConfigDir> configDir,
    Core::Ptr<Routing::NexthopConfig> nexthopConfig,
    Core::Ptr<const Routing::NexthopStatus> nexthopStatus,
    Core::Ptr<Memtab::Fib::FecModeStatus> fecModeStatus,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
    Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
    Core::Ptr<Arp::ProactiveArp::ClientConfig> proactiveArpNexthop,
    Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<NexthopNhIndexResolverStatusDir> statusDir);

// Every input of the root, as the host holds them: the host writes the requests, the routing
// resolver's state, the FIB, neighbours, VRF status and engine tables, and reads the statuses.
// A host builds one bundle (fresh() makes every collection new and empty) and hands it to each
// root it creates, so that a restarted module sees the same objects.
struct NexthopNhIndexResolverInputs {
  Core::Ptr<Store::EntityManager> em;
  Core::Ptr<NexthopNhIndexResolverConfigDir> configDir;
  Core::Ptr<Routing::NexthopConfig> nexthopConfig;
  Core::Ptr<Routing::NexthopStatus> nexthopStatus;
  Core::Ptr<Memtab::Fib::FecModeStatus> fecModeStatus;
  Core::Ptr<Memtab::FibGen::ForwardingStatus> forwardingGenStatus;
  Core::Ptr<Plane::NextHopInfoWrapper> nextHopInfoWrapper;
  Core::Ptr<Plane::VrfL3StatusAll> vrfStatusAll;
  Core::Ptr<L3Modules> l3Modules;
  Core::Ptr<Arp::ProactiveArp::ClientConfig> proactiveArpNexthop;
  Core::Ptr<Hub::TaskScheduler> scheduler;
  Core::Ptr<NexthopNhIndexResolverStatusDir> statusDir;

  static NexthopNhIndexResolverInputs fresh();
  friend bool operator==(const NexthopNhIndexResolverInputs&,
                         const NexthopNhIndexResolverInputs&) = default;
};

NexthopNhIndexResolverSm::Ptr nexthopNhIndexResolverSmFactory(
    const NexthopNhIndexResolverInputs& inputs);

}  // namespace FwdL3Unicast

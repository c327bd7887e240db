#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "framework/Store.h"
#include "platform/L3Modules.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"
#include "platform/Routing.h"
#include "support/ResolverFixture.h"

// A host around the resolver for end-to-end tests: every input of the root's factory, the
// behaviours of the host that the module relies on (a routing next-hop resolver that acts after
// the module's handlers return, FEC tables, neighbours, VRF L3 status, next-hop modules), and
// reads of the module's two outputs (statuses and proactive ARP entries).
namespace E2E {

// Calls a function with every key that one attribute of a notifier publishes. Holds the
// notifier so that it outlives the subscription.
template <class Key>
class KeyWatch : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<KeyWatch>;
  using Handler = std::function<void(const Key&)>;

  static Ptr KeyWatchIs(Core::Ptr<const Core::Node> notifier, Core::AttrId attr, Handler handler) {
    return Ptr(new KeyWatch(std::move(notifier), attr, std::move(handler)));
  }

  std::string_view typeName() const override { return "E2E::KeyWatch"; }

 private:
  KeyWatch(Core::Ptr<const Core::Node> notifier, Core::AttrId attr, Handler handler)
      : notifier_(std::move(notifier)),
        handler_(std::move(handler)),
        slot_(this, attr, notifier_.get()) {}

  void handleKey(const Key& key) { handler_(key); }

  Core::Ptr<const Core::Node> notifier_;
  Handler handler_;
  Core::Slot<KeyWatch, Key, &KeyWatch::handleKey> slot_;
};

// The host's routing next-hop resolver as the module meets it. It hears VRF and next-hop
// registrations inside the module's handlers but acts on them only afterwards, one scheduler
// task per change in the order the changes happened, never coalesced: a withdrawn VRF
// registration removes the VRF's NexthopVrfStatus, a new one creates it. A registered next hop
// has a status entry while its VRF's route table holds a route for it; route changes made by
// the host (the test) apply at once.
class RoutingResolver {
 public:
  using FecId = Memtab::Fib::FecId;

  RoutingResolver(Routing::NexthopConfig::Ptr nexthopConfig,
                  Routing::NexthopStatus::Ptr nexthopStatus, Hub::TaskScheduler::Ptr scheduler)
      : nexthopConfig_(std::move(nexthopConfig)),
        nexthopStatus_(std::move(nexthopStatus)),
        scheduler_(std::move(scheduler)) {
    vrfWatch_ = KeyWatch<L3::VrfName>::KeyWatchIs(
        nexthopConfig_, Routing::NexthopConfig::vrfAttr,
        [this](const L3::VrfName& vrfName) { handleVrf(vrfName); });
  }
  RoutingResolver(const RoutingResolver&) = delete;
  RoutingResolver& operator=(const RoutingResolver&) = delete;

  void routeIs(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr, FecId fecId) {
    routes_[vrfName][addr] = fecId;
    doResolve(vrfName, addr);
  }
  void routeDel(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) {
    routes_[vrfName].erase(addr);
    doResolve(vrfName, addr);
  }
  // The FEC of the VRF's route for `addr`, 0 when it has none.
  FecId route(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) const {
    auto vrf = routes_.find(vrfName);
    if (vrf == routes_.end()) return 0;
    auto it = vrf->second.find(addr);
    return it == vrf->second.end() ? 0 : it->second;
  }

  // Off plays a resolver that keeps a VRF's status when the registration is withdrawn.
  void withdrawalRemovesStatusIs(bool removes) { withdrawalRemovesStatus_ = removes; }
  // Entities the resolver holds besides the statuses: one watch per registered VRF.
  size_t nexthopWatchCount() const { return nexthopWatch_.size(); }
  // Tasks run so far, per kind; lets a test see that no change was coalesced.
  size_t registrationsDone() const { return registrationsDone_; }
  size_t withdrawalsDone() const { return withdrawalsDone_; }

 private:
  using NexthopVrfConfigPtr = Core::Ptr<Routing::NexthopVrfConfig>;

  // Runs inside the module's handler: only watches and queues.
  void handleVrf(const L3::VrfName& vrfName) {
    auto values = Core::getNotifyValues<NexthopVrfConfigPtr>(nexthopConfig_.get(),
                                                             Routing::NexthopConfig::vrfAttr);
    if (values.oldValue) {
      nexthopWatch_.erase(vrfName);
      scheduler_->schedule([this, vrfName] { doWithdraw(vrfName); });
    }
    if (values.newValue) {
      nexthopWatch_[vrfName] = KeyWatch<Netval::IpGenAddr>::KeyWatchIs(
          *values.newValue, Routing::NexthopVrfConfig::nexthopAttr,
          [this, vrfName](const Netval::IpGenAddr& addr) {
            scheduler_->schedule([this, vrfName, addr] { doResolve(vrfName, addr); });
          });
      scheduler_->schedule([this, vrfName] { doRegister(vrfName); });
    }
  }

  void doRegister(const L3::VrfName& vrfName) {
    ++registrationsDone_;
    Routing::NexthopVrfStatus::Ptr status = nexthopStatus_->vrfIs(vrfName);
    NexthopVrfConfigPtr config = nexthopConfig_->vrf(vrfName);
    if (!config) return;
    std::vector<Netval::IpGenAddr> addrs;
    for (const Routing::NexthopConfigEntry& entry : config->nexthop())
      addrs.push_back(entry.nexthop());
    for (const Netval::IpGenAddr& addr : addrs) doResolve(vrfName, addr);
  }

  void doWithdraw(const L3::VrfName& vrfName) {
    ++withdrawalsDone_;
    if (withdrawalRemovesStatus_) nexthopStatus_->vrfDel(vrfName);
  }

  // Level-triggered: the entry follows the current registration and route.
  void doResolve(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) {
    Routing::NexthopVrfStatus::Ptr status = nexthopStatus_->vrf(vrfName);
    if (!status) return;
    NexthopVrfConfigPtr config = nexthopConfig_->vrf(vrfName);
    const FecId fecId = route(vrfName, addr);
    if (config && config->nexthopHas(addr) && fecId != 0) {
      status->nexthopIs(Routing::NexthopStatusEntry(addr, fecId));
    } else {
      status->nexthopDel(addr);
    }
  }

  Routing::NexthopConfig::Ptr nexthopConfig_;
  Routing::NexthopStatus::Ptr nexthopStatus_;
  Hub::TaskScheduler::Ptr scheduler_;
  std::map<L3::VrfName, std::map<Netval::IpGenAddr, FecId>> routes_;
  bool withdrawalRemovesStatus_ = true;
  size_t registrationsDone_ = 0;
  size_t withdrawalsDone_ = 0;
  std::map<L3::VrfName, KeyWatch<Netval::IpGenAddr>::Ptr> nexthopWatch_;
  KeyWatch<L3::VrfName>::Ptr vrfWatch_;
};

using Statuses = std::map<FwdL3Unicast::NexthopNhIndexResolverKey, uint32_t>;
using ArpEntries = std::set<Arp::ProactiveArp::ClientEntry>;

inline std::string perVrfTablePath(const L3::VrfName& vrfName) {
  return "forwardingGen/vrf/status/" + std::string(vrfName.c_str());
}

// The resolver's inputs (ResolverFixture) with the routing resolver above in place of the
// fixture's reconciling stand-in, typed helpers for the host's state, and reads of the module's
// two outputs. The root can be created, cleaned up and re-created over the same inputs.
class World : public FwdTest::ResolverFixture {
 public:
  explicit World(Memtab::Fib::FecMode fecMode = Memtab::Fib::fecModeGlobal()) {
    fecModeStatus->fecModeIs(fecMode);
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;
  ~World() { rootDel(); }

  using ResolverFixture::neighbourDel;
  using ResolverFixture::neighbourIs;
  using ResolverFixture::nhIndexIs;

  // Drops the root and builds a new one over the same inputs, without letting the host run in
  // between (as an agent restarting the module does).
  void restart() {
    rootDel();
    rootIs();
  }
  // Lets the host run what it queued (the resolver's tasks); returns the number of tasks run.
  size_t settle() { return scheduler->runUntilIdle(); }

  void requestIs(const FwdL3Unicast::NexthopNhIndexResolverKey& key) { configDir->configIs(key); }
  void requestDel(const FwdL3Unicast::NexthopNhIndexResolverKey& key) { configDir->configDel(key); }

  // The FEC table that a pipeline of `vrfName` reads: the VRF's own table in per-VRF FEC mode
  // (except for the default VRF), the global one otherwise.
  Memtab::FibGen::ForwardingStatus::Ptr fecTable(const L3::VrfName& vrfName) {
    if (fecModeStatus->fecMode() != Memtab::Fib::fecModePerVrf() ||
        vrfName == L3::defaultVrfName()) {
      return forwardingGenStatus;
    }
    return vrfTable(vrfName);
  }
  // The VRF's own FEC table, published at its path for the module to mount on first use.
  Memtab::FibGen::ForwardingStatus::Ptr vrfTable(const L3::VrfName& vrfName) {
    auto it = vrfTables_.find(vrfName);
    if (it != vrfTables_.end()) return it->second;
    auto table = Memtab::FibGen::ForwardingStatus::ForwardingStatusIs();
    em->entityIs(perVrfTablePath(vrfName), table);
    vrfTables_.emplace(vrfName, table);
    return table;
  }
  // Puts `fec` in the table that `vrfName` reads and routes `nexthop` through it.
  void routeIs(const L3::VrfName& vrfName, const Netval::IpGenAddr& nexthop,
               const Memtab::FibGen::Fec& fec) {
    fecTable(vrfName)->fecIs(fec);
    resolver.routeIs(vrfName, nexthop, fec.key());
  }

  // Everything the host needs for (vrfName, nexthop, intfName) to resolve to `nhIndex`: a route
  // through FEC `fecId` whose one via is `via` on the interface, the via's neighbour with
  // `macAddr`, and the interface's index for that MAC. Hides the fixture's version, which routes
  // in its stand-in.
  void resolvableIs(std::string_view vrfName, std::string_view nexthop, std::string_view intfName,
                    std::string_view via, Memtab::Fib::FecId fecId, std::string_view macAddr,
                    uint32_t nhIndex) {
    const Memtab::FibGen::Via only(FwdTest::intf(intfName), FwdTest::ip(via));
    routeIs(FwdTest::vrf(vrfName), FwdTest::ip(nexthop), Memtab::FibGen::Fec(fecId, {only}));
    neighbourIs(intfName, via, macAddr);
    nhIndexIs(intfName, nhIndex, macAddr);
  }

  // Neighbours; resolved means a MAC and an L2 interface.
  void neighbourIs(Netval::IntfId intf, const Netval::IpGenAddr& addr, Netval::EthAddr mac,
                   Netval::IntfId l2Intf) {
    nextHopInfoWrapper->nextHopInfoIs(Plane::NextHopKey(intf, addr),
                                      Plane::NextHopInfo(l2Intf, mac));
  }
  void neighbourDel(Netval::IntfId intf, const Netval::IpGenAddr& addr) {
    nextHopInfoWrapper->nextHopInfoDel(Plane::NextHopKey(intf, addr));
  }

  // VRF L3 status. The host gives a VRF its plane id before its status, keeps the id when the
  // status goes, and publishes the VRF's FEC table in per-VRF mode before the VRF comes up.
  void vrfUp(const L3::VrfName& vrfName, Plane::VrfId vrfId) {
    vrfStatusAll->vrfIdIs(vrfName, vrfId);
    if (fecModeStatus->fecMode() == Memtab::Fib::fecModePerVrf()) vrfTable(vrfName);
    vrfStatusAll->vrfStatusIs(Plane::VrfL3Status(vrfName, vrfId));
  }
  void vrfDown(const L3::VrfName& vrfName) { vrfStatusAll->vrfStatusDel(vrfName); }
  Vrf::VrfIdMap::VrfId arpVrfId(const L3::VrfName& vrfName) const {
    return vrfStatusAll->planeVrfIdToArpVrfId(vrfStatusAll->vrfId(vrfName));
  }

  // Next-hop modules of the forwarding engine.
  FwdL3Unicast::NextHopMod::Ptr moduleIs(Netval::IntfId intf) {
    if (auto present = l3Modules->nextHopModMutable(intf)) return present;
    return l3Modules->nextHopModIs(FwdL3Unicast::NextHopMod::NextHopModIs(intf));
  }
  void moduleDel(Netval::IntfId intf) { l3Modules->nextHopModDel(intf); }
  void nhIndexDel(std::string_view intfName, uint32_t nhIndex) {
    if (auto module = l3Modules->nextHopModMutable(FwdTest::intf(intfName))) {
      module->nhIndexToMacDel(nhIndex);
    }
  }

  // The module's two outputs.
  Statuses statuses() const {
    Statuses out;
    for (const FwdL3Unicast::NexthopNhIndexResolverStatus& s : statusDir->status()) {
      out.emplace(s.key(), s.nhIndex());
    }
    return out;
  }
  ArpEntries arpEntries() const {
    ArpEntries out;
    for (const Arp::ProactiveArp::ClientEntry& e : proactiveArpNexthop->entry()) out.insert(e);
    return out;
  }
  Arp::ProactiveArp::ClientEntry arpEntry(const L3::VrfName& vrfName, Netval::IntfId intf,
                                          const Netval::IpGenAddr& via) const {
    return Arp::ProactiveArp::ClientEntry(Plane::NextHopKey(intf, via), arpVrfId(vrfName));
  }

  // Entities that the host holds because of the module's VRF registrations: the resolver's
  // routing status and next-hop watch per VRF.
  size_t registrationEntities() const {
    return nexthopStatus->vrfCount() + resolver.nexthopWatchCount();
  }

  // Hides the fixture's stand-in, which reconciles in one pass and so cannot tell a withdrawal
  // followed by a new registration from no change at all.
  RoutingResolver resolver{nexthopConfig, nexthopStatus, scheduler};

 private:
  std::map<L3::VrfName, Memtab::FibGen::ForwardingStatus::Ptr> vrfTables_;
};

}  // namespace E2E

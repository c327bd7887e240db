#pragma once

#include <cstddef>
#include <cstdint>
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

using Statuses = std::map<FwdL3Unicast::NexthopNhIndexResolverKey, uint32_t>;
using ArpEntries = std::set<Arp::ProactiveArp::ClientEntry>;

inline std::string perVrfTablePath(const L3::VrfName& vrfName) {
  return "forwardingGen/vrf/status/" + std::string(vrfName.c_str());
}

// The resolver's inputs (ResolverFixture) with the routing resolver stand-in following the
// registrations (it acts after the module's handlers return, one task per change, so a
// withdrawal followed by a new registration is not mistaken for no change), typed helpers for
// the host's state, and reads of the module's two outputs. The root can be created, cleaned up
// and re-created over the same inputs.
class World : public FwdTest::ResolverFixture {
 public:
  explicit World(Memtab::Fib::FecMode fecMode = Memtab::Fib::fecModeGlobal()) {
    resolver.followIs(scheduler);
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
  // routing status per VRF.
  size_t registrationEntities() const { return nexthopStatus->vrfCount(); }

 private:
  std::map<L3::VrfName, Memtab::FibGen::ForwardingStatus::Ptr> vrfTables_;
};

}  // namespace E2E

#include "hosts/HostExplain.h"

#include <cstdint>
#include <string>
#include <vector>

#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"
#include "Fwd/FwdVrfNexthopNhIndexResolverSm.h"

namespace Hosts {

namespace {

using FwdL3Unicast::NexthopIntfId;
using FwdL3Unicast::NexthopNhIndexResolverKey;
using FwdL3Unicast::VrfNexthopNhIndexResolverSm;

std::string joined(const std::vector<std::string>& parts) {
  std::string out;
  for (const std::string& part : parts) out += (out.empty() ? "" : ", ") + part;
  return out;
}

std::string notReady(const ModuleHost& host, const L3::VrfName& vrfName) {
  std::vector<std::string> missing;
  if (!host.nexthopStatus()->vrf(vrfName)) {
    missing.push_back(host.routing()->pendingEvents() != 0
                          ? "no routing VRF status (the resolver has not answered yet)"
                          : "no routing VRF status");
  }
  if (!host.nexthopConfig()->vrf(vrfName)) missing.push_back("no VRF registration");
  if (!host.vrfStatusAll()->vrfStatus(vrfName)) missing.push_back("no VRF L3 status");
  if (missing.empty()) return "VRF " + std::string(vrfName.str()) + " is ready but has no pipeline";
  return "VRF " + std::string(vrfName.str()) + " not ready: " + joined(missing);
}

// Stage 1 has no via for the request: the next hop is unresolved or its FEC has no via there.
std::string noVia(const ModuleHost& host, const VrfNexthopNhIndexResolverSm& pipeline,
                  const NexthopNhIndexResolverKey& key) {
  const std::string nexthop = key.nexthop().toString();
  const RoutingResolver::RouteMatch* route =
      host.routing()->longestMatch(key.vrfName(), key.nexthop());
  const Core::Ptr<const Routing::NexthopVrfStatus>& vrfStatus = pipeline.nexthopVrfStatus();
  if (!vrfStatus || !vrfStatus->isNexthopResolved(key.nexthop())) {
    if (!route)
      return "next hop " + nexthop + " unresolved: no route in VRF " +
             std::string(key.vrfName().str()) + " covers it";
    return "next hop " + nexthop + " unresolved: the resolver has not answered yet (route " +
           route->first.toString() + ")";
  }
  const Memtab::Fib::FecId fecId = vrfStatus->nexthop(key.nexthop()).fecId();
  const std::string where = "no via on " + key.intfId().name() + ": FEC " + std::to_string(fecId);
  const auto& table = pipeline.forwardingGenStatus();
  if (!table)
    return where + " is in no FEC table (no table for VRF " + std::string(key.vrfName().str()) +
           ")";
  const Memtab::FibGen::Fec* fec = table->fecFind(fecId);
  if (!fec || fec->viaCount() == 0) return where + " has no via";
  std::vector<std::string> vias;
  for (const Memtab::FibGen::Via& via : fec->vias()) {
    // As show routes prints it: a directly attached via has no address.
    vias.push_back((via.hop().isAddrZero() ? "" : "via " + via.hop().toString() + " ") + "dev " +
                   via.intfId().name());
  }
  return where + " has " + joined(vias);
}

// Stage 2 has no MAC for the via: the neighbour entry is missing or incomplete.
std::string viaUnresolved(const ModuleHost& host, const NexthopNhIndexResolverKey& key,
                          const Netval::IpGenAddr& via) {
  const Plane::NextHopKey neighbour(key.intfId(), via);
  const Plane::NextHopInfo info = host.nextHopInfoWrapper()->nextHopInfo(neighbour);
  std::string why = "no neighbour entry";
  if (host.nextHopInfoWrapper()->nextHopInfoHas(neighbour)) {
    why = info.ethAddr().isZero() ? "neighbour entry without MAC"
                                  : "neighbour entry without L2 interface";
  }
  return "via " + via.toString() + " on " + key.intfId().name() + " unresolved: " + why + "; " +
         host.arpState(neighbour);
}

// Stages 1 and 2 are through: the forwarding engine's table decides.
std::string engineLink(const ModuleHost& host, const VrfNexthopNhIndexResolverSm& pipeline,
                       const NexthopNhIndexResolverKey& key,
                       const FwdL3Unicast::NexthopToViaNexthopMacMapEntry& entry) {
  const std::string chain =
      "via " + entry.viaNexthop().toString() + ", MAC " + entry.macAddr().toString();
  const Core::Ptr<const FwdL3Unicast::NextHopMod> table =
      host.l3Modules()->nextHopMod(key.intfId());
  if (!table) return "no next-hop table on " + key.intfId().name() + " (" + chain + ")";
  const uint32_t found = FwdL3Unicast::getNextHopMacNhIndex(table, entry.macAddr());
  if (found == FwdL3Unicast::NexthopNhIndexResolverConstants::invalidNhIndex()) {
    return "no nhIndex with MAC " + entry.macAddr().toString() + " on " + key.intfId().name() +
           " (via " + entry.viaNexthop().toString() + ")";
  }
  if (const auto published = host.statusNhIndex(key)) {
    return "resolved: " + chain + ", nhIndex " + std::to_string(*published);
  }
  const NexthopIntfId nexthopIntfId(key);
  if (pipeline.status() && pipeline.status()->mapHas(nexthopIntfId)) {
    return "not published: the VRF's result holds nhIndex " +
           std::to_string(pipeline.status()->map(nexthopIntfId).nhIndex()) +
           " but no status reactor has passed it on (" + chain + ")";
  }
  return "not resolved yet: nhIndex " + std::to_string(found) + " has MAC " +
         entry.macAddr().toString() + " (" + chain + ")";
}

}  // namespace

std::string explain(const ModuleHost& host, const NexthopNhIndexResolverKey& key) {
  if (!host.requestHas(key)) return "no such request";
  const auto& pipelines = host.root()->allVrfNexthopNhIndexResolverSm();
  const VrfNexthopNhIndexResolverSm::Ptr pipeline =
      pipelines ? pipelines->sm(key.vrfName()) : nullptr;
  if (!pipeline) return notReady(host, key.vrfName());
  const NexthopIntfId nexthopIntfId(key);
  const auto& viaMap = pipeline->nexthopToViaNexthopMap();
  if (!viaMap || !viaMap->mapHas(nexthopIntfId)) return noVia(host, *pipeline, key);
  const Netval::IpGenAddr via = viaMap->map(nexthopIntfId).viaNexthop();
  const auto& macMap = pipeline->nexthopToViaNexthopMacMap();
  if (!macMap || !macMap->mapHas(nexthopIntfId)) return viaUnresolved(host, key, via);
  return engineLink(host, *pipeline, key, macMap->map(nexthopIntfId));
}

}  // namespace Hosts

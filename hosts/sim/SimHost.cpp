#include "hosts/sim/SimHost.h"

#include <utility>

#include "hosts/HostError.h"

namespace Sim {

namespace {

using Hosts::HostError;

std::string neighText(const Plane::NextHopKey& key) {
  return key.intfId().name() + " " + key.addr().toString();
}

std::string plural(uint32_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace

SimHost::SimHost(Hosts::StatusLog::Sink sink)
    : ModuleHost(std::move(sink)),
      arp_(ProactiveArpService::ProactiveArpServiceIs(arpClients(), nextHopInfoWrapper(),
                                                      scheduler())) {
  start();
}

// The module's clean-up withdraws its ARP entries, which the simulated service still serves.
SimHost::~SimHost() {
  statusSinkIs(nullptr);
  stop();
}

void SimHost::routeAdd(const L3::VrfName& vrfName, const Hosts::Prefix& prefix,
                       Hosts::RoutingResolver::ViaList vias) {
  if (routing()->routeHas(vrfName, prefix)) {
    throw HostError("route " + prefix.toString() + " exists in VRF " + std::string(vrfName.str()) +
                    " (use route replace)");
  }
  routing()->routeIs(vrfName, prefix, std::move(vias));
}

void SimHost::routeReplace(const L3::VrfName& vrfName, const Hosts::Prefix& prefix,
                           Hosts::RoutingResolver::ViaList vias) {
  routing()->routeIs(vrfName, prefix, std::move(vias));
}

void SimHost::routeDel(const L3::VrfName& vrfName, const Hosts::Prefix& prefix) {
  routing()->routeDel(vrfName, prefix);
}

void SimHost::neighAdd(const Plane::NextHopKey& key, const Plane::NextHopInfo& info) {
  if (nextHopInfoWrapper()->nextHopInfoHas(key)) {
    throw HostError("neighbour " + neighText(key) + " exists (use neigh replace)");
  }
  nextHopInfoWrapper()->nextHopInfoIs(key, info);
}

void SimHost::neighReplace(const Plane::NextHopKey& key, const Plane::NextHopInfo& info) {
  nextHopInfoWrapper()->nextHopInfoIs(key, info);
}

void SimHost::neighDel(const Plane::NextHopKey& key) {
  if (!nextHopInfoWrapper()->nextHopInfoDel(key)) {
    throw HostError("no neighbour " + neighText(key));
  }
}

std::string SimHost::arpState(const Plane::NextHopKey& key) const {
  if (!arpWanted(key)) return ModuleHost::arpState(key);
  std::string state = "proactive ARP probing, " + plural(arp_->probeCount(key), "probe") + " sent";
  if (arp_->replyPendingCount(key) != 0) return state + ", reply due";
  return state + (arp_->host(key) ? ", host answers" : ", no host answers");
}

void SimHost::arpShow(const Plane::NextHopKey& key, Hosts::Json& entry) const {
  entry["probes"] = arp_->probeCount(key);
}

void SimHost::advance(Time delta) {
  if (delta > kClockLimit - now()) {
    throw Hosts::HostError("advance " + std::to_string(delta) + " would take the virtual clock (" +
                           std::to_string(now()) + "ms) past its limit of " +
                           std::to_string(kClockLimit) + "ms");
  }
  scheduler()->advanceBy(delta);
}

void SimHost::hostReplace(const Plane::NextHopKey& key, Netval::EthAddr macAddr) {
  if (arp_->host(key)) arp_->hostDel(key);
  arp_->hostIs(key, macAddr);
}

}  // namespace Sim

#include "hosts/ModuleHost.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "framework/CoreDump.h"
#include "hosts/HostError.h"

namespace Hosts {

ModuleHost::ModuleHost(StatusLog::Sink sink)
    : inputs_(FwdL3Unicast::NexthopNhIndexResolverInputs::fresh()),
      routing_(RoutingResolver::RoutingResolverIs(
          inputs_.nexthopConfig, inputs_.nexthopStatus, inputs_.fecModeStatus,
          inputs_.forwardingGenStatus, inputs_.em, inputs_.scheduler)),
      arpClients_(ProactiveArpClients::ProactiveArpClientsIs(inputs_.proactiveArpNexthop)),
      engine_(ForwardingEngine::ForwardingEngineIs(inputs_.l3Modules, inputs_.nextHopInfoWrapper)),
      statusLog_(StatusLog::StatusLogIs(inputs_.statusDir, inputs_.scheduler, std::move(sink))) {}

ModuleHost::~ModuleHost() {
  statusLog_->sinkIs(nullptr);
  stop();
}

void ModuleHost::start() {
  CORE_ASSERT(!root_);
  root_ = FwdL3Unicast::nexthopNhIndexResolverSmFactory(inputs_);
}

void ModuleHost::stop() {
  if (!root_) return;
  root_->doCleanup();
  root_ = nullptr;
}

void ModuleHost::restart() {
  stop();
  start();
}

bool ModuleHost::vrfHas(const L3::VrfName& vrfName) const {
  return inputs_.vrfStatusAll->vrfIdHas(vrfName) || inputs_.vrfStatusAll->vrfStatusHas(vrfName);
}

void ModuleHost::vrfAdd(const L3::VrfName& vrfName, std::optional<Plane::VrfId> vrfId) {
  if (vrfHas(vrfName)) throw HostError("VRF " + std::string(vrfName.str()) + " exists");
  // The proactive-ARP id of a VRF is its id plus the offset, in 32 bits.
  constexpr Plane::VrfId kMaxVrfId =
      std::numeric_limits<Plane::VrfId>::max() - Plane::VrfL3StatusAll::arpVrfIdOffset;
  if (vrfId) {
    if (*vrfId == 0) throw HostError("VRF id 0 is not a VRF's id");
    if (*vrfId > kMaxVrfId) {
      throw HostError("VRF id " + std::to_string(*vrfId) +
                      " is too large: its proactive ARP id would not fit (at most " +
                      std::to_string(kMaxVrfId) + ")");
    }
    if (const auto other = vrfOwners_.find(*vrfId); other != vrfOwners_.end()) {
      throw HostError("VRF id " + std::to_string(*vrfId) + " belongs to VRF " +
                      std::string(other->second.str()));
    }
  } else {
    while (vrfOwners_.contains(lowestFreeVrfId_)) ++lowestFreeVrfId_;
    if (lowestFreeVrfId_ > kMaxVrfId) throw HostError("no free VRF id");
    vrfId = lowestFreeVrfId_;
  }
  vrfOwners_.emplace(*vrfId, vrfName);
  // The client may mount the VRF's FEC table once the VRF is up: publish it first.
  routing_->vrfTableIs(vrfName);
  inputs_.vrfStatusAll->vrfIdIs(vrfName, *vrfId);
  inputs_.vrfStatusAll->vrfStatusIs(Plane::VrfL3Status(vrfName, *vrfId));
}

void ModuleHost::vrfDel(const L3::VrfName& vrfName) {
  if (!vrfHas(vrfName)) throw HostError("no VRF " + std::string(vrfName.str()));
  if (inputs_.vrfStatusAll->vrfIdHas(vrfName)) {
    const Plane::VrfId vrfId = inputs_.vrfStatusAll->vrfId(vrfName);
    vrfOwners_.erase(vrfId);
    lowestFreeVrfId_ = std::min(lowestFreeVrfId_, vrfId);
  }
  inputs_.vrfStatusAll->vrfStatusDel(vrfName);
  inputs_.vrfStatusAll->vrfIdDel(vrfName);
}

void ModuleHost::fecModeIs(Memtab::Fib::FecMode fecMode) {
  if (requestSeen_) throw HostError("fec-mode must come before the first request");
  routing_->fecModeIs(fecMode);
}

void ModuleHost::requestKeyCheck(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  const Netval::IpGenAddr& nexthop = key.nexthop();
  if (nexthop.af() != Netval::AddressFamily::ipv4_ || nexthop.isAddrZero()) {
    throw HostError("next hop " + nexthop.toString() + " is not a non-zero IPv4 address");
  }
}

void ModuleHost::requestAdd(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  requestKeyCheck(key);
  if (requestHas(key)) throw HostError("request " + keyText(key) + " exists");
  requestSeen_ = true;
  inputs_.configDir->configIs(key);
}

void ModuleHost::requestDel(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  if (!requestHas(key)) throw HostError("no request " + keyText(key));
  inputs_.configDir->configDel(key);
}

std::string ModuleHost::dump() const {
  Core::DumpContext ctx;
  if (root_) root_->dumpState(ctx, 0);
  return ctx.text();
}

std::optional<uint32_t> ModuleHost::statusNhIndex(
    const FwdL3Unicast::NexthopNhIndexResolverKey& key) const {
  if (!inputs_.statusDir->statusHas(key)) return std::nullopt;
  return inputs_.statusDir->status(key).nhIndex();
}

std::string ModuleHost::arpState(const Plane::NextHopKey& key) const {
  return arpWanted(key) ? "proactive ARP entry" : "no proactive ARP entry";
}

void ModuleHost::arpShow(const Plane::NextHopKey&, Json&) const {}

}  // namespace Hosts

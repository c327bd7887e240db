#include "platform/sim/SimHost.h"

#include <utility>

#include "framework/CoreDump.h"
#include "platform/sim/SimError.h"

namespace Sim {

namespace {

std::string neighText(const Plane::NextHopKey& key) {
  return key.intfId().name() + " " + key.addr().toString();
}

}  // namespace

SimHost::SimHost(StatusLog::Sink sink)
    : scheduler_(Hub::TaskScheduler::TaskSchedulerIs()),
      entityManager_(Store::EntityManager::EntityManagerIs()),
      configDir_(
          FwdL3Unicast::NexthopNhIndexResolverConfigDir::NexthopNhIndexResolverConfigDirIs()),
      nexthopConfig_(Routing::NexthopConfig::NexthopConfigIs()),
      nexthopStatus_(Routing::NexthopStatus::NexthopStatusIs()),
      fecModeStatus_(Memtab::Fib::FecModeStatus::FecModeStatusIs()),
      forwardingGenStatus_(Memtab::FibGen::ForwardingStatus::ForwardingStatusIs()),
      nextHopInfoWrapper_(Plane::NextHopInfoWrapper::NextHopInfoWrapperIs()),
      vrfStatusAll_(Plane::VrfL3StatusAll::VrfL3StatusAllIs()),
      l3Modules_(FwdL3Unicast::L3Modules::L3ModulesIs()),
      clientConfig_(Arp::ProactiveArp::ClientConfig::ClientConfigIs()),
      statusDir_(
          FwdL3Unicast::NexthopNhIndexResolverStatusDir::NexthopNhIndexResolverStatusDirIs()),
      routing_(RoutingResolver::RoutingResolverIs(nexthopConfig_, nexthopStatus_, fecModeStatus_,
                                                  forwardingGenStatus_, entityManager_,
                                                  scheduler_)),
      arp_(ProactiveArpService::ProactiveArpServiceIs(clientConfig_, nextHopInfoWrapper_,
                                                      scheduler_)),
      engine_(ForwardingEngine::ForwardingEngineIs(l3Modules_, nextHopInfoWrapper_)),
      statusLog_(StatusLog::StatusLogIs(statusDir_, scheduler_, std::move(sink))),
      root_(rootIs()) {}

SimHost::~SimHost() {
  statusLog_->sinkIs(nullptr);
  root_->doCleanup();
  root_ = nullptr;
}

FwdL3Unicast::NexthopNhIndexResolverSm::Ptr SimHost::rootIs() const {
  return FwdL3Unicast::nexthopNhIndexResolverSmFactory(
      entityManager_, configDir_, nexthopConfig_, nexthopStatus_, fecModeStatus_,
      forwardingGenStatus_, nextHopInfoWrapper_, vrfStatusAll_, l3Modules_, clientConfig_,
      scheduler_, statusDir_);
}

void SimHost::vrfAdd(const L3::VrfName& vrfName, std::optional<Plane::VrfId> vrfId) {
  if (vrfStatusAll_->vrfIdHas(vrfName) || vrfStatusAll_->vrfStatusHas(vrfName)) {
    throw SimError("VRF " + vrfName.str() + " exists");
  }
  const auto owner = [&](Plane::VrfId id) -> const L3::VrfName* {
    for (const auto& entry : vrfStatusAll_->vrfId()) {
      if (entry.value == id) return &entry.key;
    }
    return nullptr;
  };
  if (vrfId) {
    if (*vrfId == 0) throw SimError("VRF id 0 is not a VRF's id");
    if (const L3::VrfName* other = owner(*vrfId)) {
      throw SimError("VRF id " + std::to_string(*vrfId) + " belongs to VRF " + other->str());
    }
  } else {
    vrfId = 1;
    while (owner(*vrfId)) ++*vrfId;
  }
  // The client may mount the VRF's FEC table once the VRF is up: publish it first.
  routing_->vrfTableIs(vrfName);
  vrfStatusAll_->vrfIdIs(vrfName, *vrfId);
  vrfStatusAll_->vrfStatusIs(Plane::VrfL3Status(vrfName, *vrfId));
}

void SimHost::vrfDel(const L3::VrfName& vrfName) {
  if (!vrfStatusAll_->vrfIdHas(vrfName) && !vrfStatusAll_->vrfStatusHas(vrfName)) {
    throw SimError("no VRF " + vrfName.str());
  }
  vrfStatusAll_->vrfStatusDel(vrfName);
  vrfStatusAll_->vrfIdDel(vrfName);
}

void SimHost::fecModeIs(Memtab::Fib::FecMode fecMode) {
  if (requestSeen_) throw SimError("fec-mode must come before the first request");
  routing_->fecModeIs(fecMode);
}

void SimHost::routeAdd(const L3::VrfName& vrfName, const Prefix& prefix,
                       RoutingResolver::ViaList vias) {
  if (routing_->routeHas(vrfName, prefix)) {
    throw SimError("route " + prefix.toString() + " exists in VRF " + vrfName.str() +
                   " (use route replace)");
  }
  routing_->routeIs(vrfName, prefix, std::move(vias));
}

void SimHost::routeReplace(const L3::VrfName& vrfName, const Prefix& prefix,
                           RoutingResolver::ViaList vias) {
  routing_->routeIs(vrfName, prefix, std::move(vias));
}

void SimHost::routeDel(const L3::VrfName& vrfName, const Prefix& prefix) {
  routing_->routeDel(vrfName, prefix);
}

void SimHost::neighAdd(const Plane::NextHopKey& key, const Plane::NextHopInfo& info) {
  if (nextHopInfoWrapper_->nextHopInfoHas(key)) {
    throw SimError("neighbour " + neighText(key) + " exists (use neigh replace)");
  }
  nextHopInfoWrapper_->nextHopInfoIs(key, info);
}

void SimHost::neighReplace(const Plane::NextHopKey& key, const Plane::NextHopInfo& info) {
  nextHopInfoWrapper_->nextHopInfoIs(key, info);
}

void SimHost::neighDel(const Plane::NextHopKey& key) {
  if (!nextHopInfoWrapper_->nextHopInfoDel(key)) {
    throw SimError("no neighbour " + neighText(key));
  }
}

void SimHost::requestAdd(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  const Netval::IpGenAddr& nexthop = key.nexthop();
  if (nexthop.af() != Netval::AddressFamily::ipv4_ || nexthop.isAddrZero()) {
    throw SimError("next hop " + nexthop.toString() + " is not a non-zero IPv4 address");
  }
  if (configDir_->configHas(key)) throw SimError("request " + keyText(key) + " exists");
  requestSeen_ = true;
  configDir_->configIs(key);
}

void SimHost::requestDel(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  if (!configDir_->configHas(key)) throw SimError("no request " + keyText(key));
  configDir_->configDel(key);
}

void SimHost::restart() {
  root_->doCleanup();
  root_ = nullptr;
  root_ = rootIs();
}

std::string SimHost::dump() const {
  Core::DumpContext ctx;
  root_->dumpState(ctx, 0);
  return ctx.text();
}

std::optional<uint32_t> SimHost::statusNhIndex(
    const FwdL3Unicast::NexthopNhIndexResolverKey& key) const {
  if (!statusDir_->statusHas(key)) return std::nullopt;
  return statusDir_->status(key).nhIndex();
}

}  // namespace Sim

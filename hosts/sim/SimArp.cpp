#include "hosts/sim/SimArp.h"

#include <string>
#include <utility>

#include "hosts/HostError.h"

namespace Sim {

namespace {

using Hosts::HostError;

std::string keyText(const Plane::NextHopKey& key) {
  return key.intfId().name() + " " + key.addr().toString();
}

}  // namespace

ProactiveArpService::Ptr ProactiveArpService::ProactiveArpServiceIs(
    Hosts::ProactiveArpClients::Ptr clients, Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper,
    Hub::TaskScheduler::Ptr scheduler) {
  return Ptr(new ProactiveArpService(std::move(clients), std::move(nextHopInfoWrapper),
                                     std::move(scheduler)));
}

ProactiveArpService::ProactiveArpService(Hosts::ProactiveArpClients::Ptr clients,
                                         Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper,
                                         Hub::TaskScheduler::Ptr scheduler)
    : clients_(std::move(clients)),
      nextHopInfoWrapper_(std::move(nextHopInfoWrapper)),
      scheduler_(std::move(scheduler)) {
  CORE_ASSERT(clients_ && nextHopInfoWrapper_ && scheduler_);
  clients_->serviceIs(this);
}

ProactiveArpService::~ProactiveArpService() { clients_->serviceIs(nullptr); }

void ProactiveArpService::hostIs(const Plane::NextHopKey& key, Netval::EthAddr macAddr) {
  if (hosts_.contains(key)) throw HostError("host " + keyText(key) + " exists");
  hosts_.emplace(key, macAddr);
  if (wanted(key)) probe(key);
}

void ProactiveArpService::hostDel(const Plane::NextHopKey& key) {
  if (hosts_.erase(key) == 0) throw HostError("no host " + keyText(key));
}

std::optional<Netval::EthAddr> ProactiveArpService::host(const Plane::NextHopKey& key) const {
  const auto found = hosts_.find(key);
  if (found == hosts_.end()) return std::nullopt;
  return found->second;
}

uint32_t ProactiveArpService::probeCount(const Plane::NextHopKey& key) const {
  const auto found = probes_.find(key);
  return found == probes_.end() ? 0 : found->second.sent;
}

uint32_t ProactiveArpService::replyPendingCount(const Plane::NextHopKey& key) const {
  const auto found = probes_.find(key);
  return found == probes_.end() ? 0 : found->second.replyPending;
}

void ProactiveArpService::arpEntryIs(const Arp::ProactiveArp::ClientEntry& entry, bool present) {
  // A withdrawn entry leaves the neighbour as it is, as a real ARP cache does.
  if (present) probe(entry.key());
}

void ProactiveArpService::arpResolve(const Plane::NextHopKey& key) { probe(key); }

void ProactiveArpService::probe(const Plane::NextHopKey& key) {
  Probes& probes = probes_[key];
  ++probes.sent;
  // Only a host on the link answers; the reply is looked up again when it arrives.
  if (!hosts_.contains(key)) return;
  ++probes.replyPending;
  scheduler_->scheduleAt(scheduler_->now() + arpDelay_,
                         [this, alive = std::weak_ptr<char>(alive_), key] {
                           if (!alive.expired()) reply(key);
                         });
}

void ProactiveArpService::reply(const Plane::NextHopKey& key) {
  --probes_[key].replyPending;
  const auto host = hosts_.find(key);
  // The host left the link while the reply was on its way.
  if (host == hosts_.end()) return;
  nextHopInfoWrapper_->nextHopInfoIs(key, Plane::NextHopInfo(key.intfId(), host->second));
}

}  // namespace Sim

#include "hosts/HostArp.h"

#include <utility>

namespace Hosts {

ProactiveArpClients::Ptr ProactiveArpClients::ProactiveArpClientsIs(
    Core::Ptr<const Arp::ProactiveArp::ClientConfig> clientConfig) {
  return Ptr(new ProactiveArpClients(std::move(clientConfig)));
}

ProactiveArpClients::ProactiveArpClients(
    Core::Ptr<const Arp::ProactiveArp::ClientConfig> clientConfig)
    : clientConfig_(std::move(clientConfig)) {
  CORE_ASSERT(clientConfig_);
  for (const Arp::ProactiveArp::ClientEntry& entry : clientConfig_->entry()) {
    wantedBy_[entry.key()].insert(entry.arpVrfId());
  }
}

void ProactiveArpClients::handleEntry(const Arp::ProactiveArp::ClientEntry& entry) {
  const bool present = clientConfig_->entryHas(entry);
  if (present) {
    wantedBy_[entry.key()].insert(entry.arpVrfId());
  } else if (auto found = wantedBy_.find(entry.key()); found != wantedBy_.end()) {
    found->second.erase(entry.arpVrfId());
    if (found->second.empty()) wantedBy_.erase(found);
  }
  if (service_) service_->arpEntryIs(entry, present);
}

void ProactiveArpClients::handleResolutionTrigger(const Plane::NextHopKey& key) {
  if (service_ && clientConfig_->resolutionTriggerHas(key)) service_->arpResolve(key);
}

}  // namespace Hosts

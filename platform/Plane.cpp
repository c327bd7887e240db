#include "platform/Plane.h"

#include "framework/CollectionOps.h"

namespace Plane {

void NextHopInfoWrapper::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NextHopInfoWrapper\n");
  Core::dumpMapEntries(ctx, indent, "nextHopInfo", nextHopInfo_);
}

void VrfL3StatusAll::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "VrfL3StatusAll\n");
  Core::dumpValues(ctx, indent, "vrfStatus", vrfStatus_);
  Core::dumpMapEntries(ctx, indent, "vrfId", vrfId_);
}

ProactiveArpNexthopSm::ProactiveArpNexthopSm(Arp::ProactiveArp::ClientConfig::Ptr clientConfig)
    : clientConfig_(std::move(clientConfig)) {
  // Entries left by an earlier client are no longer wanted by anybody.
  if (clientConfig_) clientConfig_->entryDelAll();
}

void ProactiveArpNexthopSm::addEntry(const NextHopKey& key, Vrf::VrfIdMap::VrfId arpVrfId) {
  if (!clientConfig_) return;
  clientConfig_->entryIs(Arp::ProactiveArp::ClientEntry(key, arpVrfId));
}

void ProactiveArpNexthopSm::removeEntry(const NextHopKey& key, Vrf::VrfIdMap::VrfId arpVrfId) {
  if (!clientConfig_) return;
  clientConfig_->entryDel(Arp::ProactiveArp::ClientEntry(key, arpVrfId));
}

void ProactiveArpNexthopSm::doUpdateTriggerResolution(const NextHopKey& key) {
  if (!clientConfig_) return;
  clientConfig_->resolutionTriggerIs(key, clientConfig_->resolutionTrigger(key) + 1);
}

void ProactiveArpNexthopSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "ProactiveArpNexthopSm\n");
  ctx.line(indent + 2, "clientConfig\n");
  ctx.dumpChildPointer(clientConfig_.get(), indent + 4);
}

}  // namespace Plane

namespace Arp::ProactiveArp {

void ClientConfig::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "ClientConfig\n");
  Core::dumpValues(ctx, indent, "entry", entry_);
  Core::dumpMapEntries(ctx, indent, "resolutionTrigger", resolutionTrigger_);
}

}  // namespace Arp::ProactiveArp

#include "platform/Plane.h"

#include <string>

namespace {

// Prints a collection as its count line at `indent` and one line per member at indent + 2, in
// the collection's own order.
template <class Coll, class MemberText>
void dumpMembers(Core::DumpContext& ctx, uint32_t indent, const char* name, const Coll& coll,
                 MemberText memberText) {
  ctx.line(indent, "%s: #%zu\n", name, coll.size());
  for (const auto& member : coll) {
    const std::string text = memberText(member);
    ctx.line(indent + 2, "%s\n", text.c_str());
  }
}

template <class K, class V>
std::string mapEntryText(const Core::MapEntry<K, V>& entry) {
  return Kiln::toText(entry.key) + " -> " + Kiln::toText(entry.value);
}

}  // namespace

namespace Plane {

void NextHopInfoWrapper::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NextHopInfoWrapper\n");
  dumpMembers(ctx, indent + 2, "nextHopInfo", nextHopInfo_, mapEntryText<NextHopKey, NextHopInfo>);
}

void VrfL3StatusAll::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "VrfL3StatusAll\n");
  dumpMembers(ctx, indent + 2, "vrfStatus", vrfStatus_,
              [](const VrfL3Status& status) { return Kiln::toText(status); });
  dumpMembers(ctx, indent + 2, "vrfId", vrfId_, mapEntryText<L3::VrfName, VrfId>);
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
  dumpMembers(ctx, indent + 2, "entry", entry_,
              [](const ClientEntry& entry) { return Kiln::toText(entry); });
  dumpMembers(ctx, indent + 2, "resolutionTrigger", resolutionTrigger_,
              mapEntryText<Plane::NextHopKey, uint32_t>);
}

}  // namespace Arp::ProactiveArp

#include "hosts/HostEngine.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "hosts/HostError.h"

namespace Hosts {

namespace {

constexpr uint32_t kInvalidNhIndex = 0xFFFFFFFFu;

bool resolved(const Plane::NextHopInfo& info) {
  return !info.ethAddr().isZero() && !info.l2Intf().empty();
}

}  // namespace

ForwardingEngine::Ptr ForwardingEngine::ForwardingEngineIs(
    FwdL3Unicast::L3Modules::Ptr l3Modules,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper) {
  return Ptr(new ForwardingEngine(std::move(l3Modules), std::move(nextHopInfoWrapper)));
}

ForwardingEngine::ForwardingEngine(FwdL3Unicast::L3Modules::Ptr l3Modules,
                                   Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper)
    : l3Modules_(std::move(l3Modules)), nextHopInfoWrapper_(std::move(nextHopInfoWrapper)) {
  CORE_ASSERT(l3Modules_ && nextHopInfoWrapper_);
}

void ForwardingEngine::nhTableIs(Netval::IntfId intfId) {
  if (l3Modules_->nextHopModHas(intfId)) {
    throw HostError("interface " + intfId.name() + " has a next-hop table already");
  }
  l3Modules_->nextHopModIs(FwdL3Unicast::NextHopMod::NextHopModIs(intfId));
  if (autoNhIndex_) programAll(intfId);
}

void ForwardingEngine::nhTableDel(Netval::IntfId intfId) {
  if (!l3Modules_->nextHopModDel(intfId)) {
    throw HostError("interface " + intfId.name() + " has no next-hop table");
  }
  std::erase_if(autoIndex_,
                [intfId](const auto& member) { return member.first.intfId() == intfId; });
}

FwdL3Unicast::NextHopMod::Ptr ForwardingEngine::table(Netval::IntfId intfId) const {
  FwdL3Unicast::NextHopMod::Ptr mod = l3Modules_->nextHopModMutable(intfId);
  if (!mod) throw HostError("interface " + intfId.name() + " has no next-hop table");
  return mod;
}

void ForwardingEngine::checkIndex(uint32_t nhIndex) const {
  if (nhIndex == kInvalidNhIndex) {
    throw HostError("nhIndex " + std::to_string(nhIndex) + " is the invalid index");
  }
}

void ForwardingEngine::nhIndexAdd(Netval::IntfId intfId, uint32_t nhIndex,
                                  Netval::EthAddr macAddr) {
  checkIndex(nhIndex);
  FwdL3Unicast::NextHopMod::Ptr mod = table(intfId);
  if (mod->nhIndexToMacHas(nhIndex)) {
    throw HostError("nhIndex " + std::to_string(nhIndex) + " on " + intfId.name() +
                    " exists (use nhindex replace)");
  }
  mod->nhIndexToMacIs(nhIndex, macAddr);
}

void ForwardingEngine::nhIndexReplace(Netval::IntfId intfId, uint32_t nhIndex,
                                      Netval::EthAddr macAddr) {
  checkIndex(nhIndex);
  FwdL3Unicast::NextHopMod::Ptr mod = table(intfId);
  forgetAuto(intfId, nhIndex);
  mod->nhIndexToMacIs(nhIndex, macAddr);
}

void ForwardingEngine::nhIndexDel(Netval::IntfId intfId, uint32_t nhIndex) {
  FwdL3Unicast::NextHopMod::Ptr mod = table(intfId);
  if (!mod->nhIndexToMacHas(nhIndex)) {
    throw HostError("no nhIndex " + std::to_string(nhIndex) + " on " + intfId.name());
  }
  forgetAuto(intfId, nhIndex);
  mod->nhIndexToMacDel(nhIndex);
}

void ForwardingEngine::forgetAuto(Netval::IntfId intfId, uint32_t nhIndex) {
  std::erase_if(autoIndex_, [&](const auto& member) {
    return member.first.intfId() == intfId && member.second == nhIndex;
  });
}

void ForwardingEngine::autoNhIndexIs(bool on) {
  if (on == autoNhIndex_) return;
  autoNhIndex_ = on;
  if (!on) {
    autoIndex_.clear();
    return;
  }
  for (const auto& module : l3Modules_->nextHopMod()) programAll(module->intfId());
}

uint32_t ForwardingEngine::autoNhIndexOf(const Plane::NextHopKey& key) const {
  const auto found = autoIndex_.find(key);
  return found == autoIndex_.end() ? 0 : found->second;
}

void ForwardingEngine::handleNexthopInfo(const Plane::NextHopKey& key) {
  if (autoNhIndex_) program(key);
}

void ForwardingEngine::program(const Plane::NextHopKey& key) {
  FwdL3Unicast::NextHopMod::Ptr mod = l3Modules_->nextHopModMutable(key.intfId());
  if (!mod) return;
  const Plane::NextHopInfo info = nextHopInfoWrapper_->nextHopInfo(key);
  const auto given = autoIndex_.find(key);
  if (!resolved(info)) {
    if (given == autoIndex_.end()) return;
    const uint32_t nhIndex = given->second;
    autoIndex_.erase(given);
    mod->nhIndexToMacDel(nhIndex);
    return;
  }
  uint32_t nhIndex = given != autoIndex_.end() ? given->second : 1;
  if (given == autoIndex_.end()) {
    while (mod->nhIndexToMacHas(nhIndex)) ++nhIndex;
    autoIndex_.emplace(key, nhIndex);
  }
  mod->nhIndexToMacIs(nhIndex, info.ethAddr());
}

void ForwardingEngine::programAll(Netval::IntfId intfId) {
  std::vector<Plane::NextHopKey> keys;
  for (const auto& entry : nextHopInfoWrapper_->nextHopInfo()) {
    if (entry.key.intfId() == intfId) keys.push_back(entry.key);
  }
  // Neighbours in key order, so that the same state always gets the same indices.
  std::sort(keys.begin(), keys.end());
  for (const Plane::NextHopKey& key : keys) program(key);
}

}  // namespace Hosts

#include "platform/Routing.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "framework/CollectionOps.h"
#include "framework/CoreDump.h"

namespace Routing {

NexthopVrfConfig::Ptr NexthopVrfConfig::NexthopVrfConfigIs(const L3::VrfName& vrfName,
                                                           NexthopStatusFecIdType fecIdType) {
  return Ptr(new NexthopVrfConfig(vrfName, fecIdType));
}

void NexthopVrfConfig::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopVrfConfig - %s\n", vrfName_.c_str());
  ctx.line(indent + 2, "fecIdType: %u\n", static_cast<uint32_t>(fecIdType_));
  Core::dumpValues(ctx, indent, "nexthop", nexthop_);
}

NexthopConfig::Ptr NexthopConfig::NexthopConfigIs() { return Ptr(new NexthopConfig()); }

NexthopVrfConfig::Ptr NexthopConfig::vrfIs(const L3::VrfName& vrfName,
                                           NexthopStatusFecIdType fecIdType) {
  NexthopVrfConfig::Ptr present = vrf_.get(vrfName);
  if (present && present->fecIdType() == fecIdType) return present;
  NexthopVrfConfig::Ptr created = NexthopVrfConfig::NexthopVrfConfigIs(vrfName, fecIdType);
  vrf_.set(created);
  return created;
}

void NexthopConfig::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopConfig\n");
  Core::dumpChildren(ctx, indent, "vrf", vrf_);
}

NexthopVrfStatus::Ptr NexthopVrfStatus::NexthopVrfStatusIs(const L3::VrfName& vrfName) {
  return Ptr(new NexthopVrfStatus(vrfName));
}

void NexthopVrfStatus::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopVrfStatus - %s\n", vrfName_.c_str());
  Core::dumpValues(ctx, indent, "nexthop", nexthop_);
}

NexthopStatus::Ptr NexthopStatus::NexthopStatusIs() { return Ptr(new NexthopStatus()); }

NexthopVrfStatus::Ptr NexthopStatus::vrfIs(const L3::VrfName& vrfName) {
  return Core::childIs(vrf_, vrfName, &NexthopVrfStatus::NexthopVrfStatusIs);
}

void NexthopStatus::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopStatus\n");
  Core::dumpChildren(ctx, indent, "vrf", vrf_);
}

NexthopBacklog::Ptr NexthopBacklog::NexthopBacklogIs() { return Ptr(new NexthopBacklog()); }

void NexthopBacklog::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopBacklog\n");
  Core::dumpValues(ctx, indent, "backlog", backlog_);
}

FibMonitorHelperSm::Ptr FibMonitorHelperSm::FibMonitorHelperSmIs(
    const std::string& clientName, Core::Ptr<const NexthopVrfStatus> nexthopVrfStatus,
    Core::Ptr<NexthopBacklog> nexthopBacklog,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingStatus,
    Core::Ptr<Hub::TaskScheduler> scheduler) {
  return Ptr(new FibMonitorHelperSm(clientName, std::move(nexthopVrfStatus),
                                    std::move(nexthopBacklog), std::move(forwardingStatus),
                                    std::move(scheduler)));
}

FibMonitorHelperSm::FibMonitorHelperSm(
    const std::string& clientName, Core::Ptr<const NexthopVrfStatus> nexthopVrfStatus,
    Core::Ptr<NexthopBacklog> nexthopBacklog,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingStatus,
    Core::Ptr<Hub::TaskScheduler> scheduler)
    : clientName_(clientName),
      nexthopVrfStatus_(std::move(nexthopVrfStatus)),
      nexthopBacklog_(std::move(nexthopBacklog)),
      forwardingStatus_(std::move(forwardingStatus)),
      scheduler_(std::move(scheduler)) {
  handleInitialized();
}

void FibMonitorHelperSm::handleInitialized() { indexAll(); }

void FibMonitorHelperSm::hasNotificationActiveIs(bool active) {
  Core::Reactor::hasNotificationActiveIs(active);
  if (active) indexAll();
}

size_t FibMonitorHelperSm::fecUserCount(Memtab::Fib::FecId fecId) const {
  auto users = addrsOfFec_.find(fecId);
  return users == addrsOfFec_.end() ? 0 : users->second.size();
}

void FibMonitorHelperSm::handleNexthopStatus(const Netval::IpGenAddr& addr) {
  indexDel(addr);
  if (const NexthopStatusEntry* entry = nexthopVrfStatus_->nexthopFind(addr)) {
    indexIs(addr, entry->fecId());
  }
  queue(addr);
}

void FibMonitorHelperSm::handleFec(const Memtab::Fib::FecId& fecId) {
  auto users = addrsOfFec_.find(fecId);
  if (users == addrsOfFec_.end()) return;
  // Backlog handlers run inside queue() and may change the status, and so the index.
  const std::vector<Netval::IpGenAddr> queued(users->second.begin(), users->second.end());
  for (const Netval::IpGenAddr& addr : queued) queue(addr);
}

void FibMonitorHelperSm::indexAll() {
  fecOfAddr_.clear();
  addrsOfFec_.clear();
  if (!nexthopVrfStatus_) return;
  for (const NexthopStatusEntry& entry : nexthopVrfStatus_->nexthop()) {
    indexIs(entry.nexthop(), entry.fecId());
  }
}

void FibMonitorHelperSm::indexIs(const Netval::IpGenAddr& addr, Memtab::Fib::FecId fecId) {
  const bool inserted = fecOfAddr_.emplace(addr, fecId).second;
  CORE_ASSERT(inserted);
  addrsOfFec_[fecId].insert(addr);
}

void FibMonitorHelperSm::indexDel(const Netval::IpGenAddr& addr) {
  auto indexed = fecOfAddr_.find(addr);
  if (indexed == fecOfAddr_.end()) return;
  auto users = addrsOfFec_.find(indexed->second);
  CORE_ASSERT(users != addrsOfFec_.end());
  const size_t erased = users->second.erase(addr);
  CORE_ASSERT(erased == 1);
  if (users->second.empty()) addrsOfFec_.erase(users);
  fecOfAddr_.erase(indexed);
}

void FibMonitorHelperSm::queue(const Netval::IpGenAddr& addr) {
  if (nexthopBacklog_) nexthopBacklog_->backlogIs(addr);
}

void FibMonitorHelperSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "FibMonitorHelperSm - %s\n", clientName_.c_str());
  const std::pair<const char*, const Core::Node*> inputs[] = {
      {"nexthopVrfStatus", nexthopVrfStatus_.get()},
      {"nexthopBacklog", nexthopBacklog_.get()},
      {"forwardingStatus", forwardingStatus_.get()},
      {"scheduler", scheduler_.get()}};
  for (const auto& [name, node] : inputs) {
    ctx.line(indent + 2, "%s\n", name);
    ctx.dumpChildPointer(node, indent + 4);
  }
  std::vector<Memtab::Fib::FecId> fecIds;
  for (const auto& users : addrsOfFec_) fecIds.push_back(users.first);
  std::sort(fecIds.begin(), fecIds.end());
  Core::dumpCount(ctx, indent, "fecUsers", fecIds.size());
  for (Memtab::Fib::FecId fecId : fecIds) {
    std::string addrs;
    for (const Netval::IpGenAddr& addr : addrsOfFec_.at(fecId)) addrs += " " + addr.toString();
    ctx.line(indent + 4, "fec %llu:%s\n", static_cast<unsigned long long>(fecId), addrs.c_str());
  }
}

}  // namespace Routing

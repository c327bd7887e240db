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

namespace {

// The users of a FEC in address order: the order in which a FEC change queues them.
std::vector<Netval::IpGenAddr> inAddressOrder(const std::vector<Netval::IpGenAddr>& addrs) {
  std::vector<Netval::IpGenAddr> sorted(addrs);
  std::sort(sorted.begin(), sorted.end());
  return sorted;
}

}  // namespace

size_t FibMonitorHelperSm::fecUserCount(Memtab::Fib::FecId fecId) const {
  const FecUsers* users = addrsOfFec_.find(fecId);
  return users ? users->addrs.size() : 0;
}

void FibMonitorHelperSm::handleNexthopStatus(const Netval::IpGenAddr& addr) {
  indexDel(addr);
  if (const NexthopStatusEntry* entry = nexthopVrfStatus_->nexthopFind(addr)) {
    indexIs(addr, entry->fecId());
  }
  queue(addr);
}

void FibMonitorHelperSm::handleFec(const Memtab::Fib::FecId& fecId) {
  const FecUsers* users = addrsOfFec_.find(fecId);
  if (!users) return;
  // A copy: backlog handlers run inside queue() and may change the status, and so the index.
  const std::vector<Netval::IpGenAddr> queued = inAddressOrder(users->addrs);
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
  // Each key is hashed once, for its look-up and its insertion.
  const uint32_t addrHash = decltype(fecOfAddr_)::hashKey(addr);
  CORE_ASSERT(!fecOfAddr_.find(addr, addrHash));
  const uint32_t fecHash = decltype(addrsOfFec_)::hashKey(fecId);
  FecUsers* users = addrsOfFec_.find(fecId, fecHash);
  if (!users) users = addrsOfFec_.insertNew(fecHash, FecUsers{fecId, {}});
  fecOfAddr_.insertNew(addrHash,
                       IndexedAddr{addr, static_cast<uint32_t>(users->addrs.size()), fecId});
  users->addrs.push_back(addr);
}

void FibMonitorHelperSm::indexDel(const Netval::IpGenAddr& addr) {
  IndexedAddr* indexed = fecOfAddr_.find(addr);
  if (!indexed) return;
  FecUsers* users = addrsOfFec_.find(indexed->fecId);
  CORE_ASSERT(users);
  std::vector<Netval::IpGenAddr>& addrs = users->addrs;
  const uint32_t position = indexed->position;
  CORE_ASSERT(position < addrs.size() && addrs[position] == addr);
  fecOfAddr_.erase(indexed);
  // The last user takes the freed place.
  if (position + 1 != addrs.size()) {
    addrs[position] = addrs.back();
    IndexedAddr* moved = fecOfAddr_.find(addrs[position]);
    CORE_ASSERT(moved);
    moved->position = position;
  }
  addrs.pop_back();
  if (addrs.empty()) addrsOfFec_.erase(users);
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
  for (size_t i = addrsOfFec_.nextOccupied(0); i < addrsOfFec_.capacity();
       i = addrsOfFec_.nextOccupied(i + 1)) {
    fecIds.push_back(addrsOfFec_.at(i).fecId);
  }
  std::sort(fecIds.begin(), fecIds.end());
  Core::dumpCount(ctx, indent, "fecUsers", fecIds.size());
  for (Memtab::Fib::FecId fecId : fecIds) {
    std::string addrs;
    for (const Netval::IpGenAddr& addr : inAddressOrder(addrsOfFec_.find(fecId)->addrs)) {
      addrs += " " + addr.toString();
    }
    ctx.line(indent + 4, "fec %llu:%s\n", static_cast<unsigned long long>(fecId), addrs.c_str());
  }
}

}  // namespace Routing

#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "framework/Assert.h"
#include "framework/CollectionOps.h"
#include "framework/CoreTable.h"
#include "framework/DualLog.h"

namespace FwdL3Unicast {

namespace {

[[gnu::always_inline]] inline DualLog::Handle& traceHandle() {
  static DualLog::Handle handle("FwdViaNexthopMacToNhIndexSm", false);
  return handle;
}

constexpr uint32_t invalidNhIndex() { return NexthopNhIndexResolverConstants::invalidNhIndex(); }

const Netval::EthAddr& zeroMac() {
  static const Netval::EthAddr zero;
  return zero;
}

using MacEntry = Core::MapEntry<uint32_t, Netval::EthAddr>;

// A nexthop and whether the first group (in the request's order) that holds it has an index.
struct HeldNexthop {
  Netval::IpGenAddr nexthop;
  bool found;
};
struct NexthopOfHeld {
  const Netval::IpGenAddr& operator()(const HeldNexthop& held) const { return held.nexthop; }
};
using HeldNexthops = Core::HashTable<Netval::IpGenAddr, HeldNexthop, NexthopOfHeld>;

}  // namespace

uint32_t getNextHopMacNhIndex(const Core::Ptr<const NextHopMod>& nextHopMod, Netval::EthAddr mac) {
  if (!nextHopMod) return invalidNhIndex();
  for (const MacEntry& entry : nextHopMod->nhIndexToMac()) {
    if (entry.value == mac) return entry.key;
  }
  return invalidNhIndex();
}

IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::NestedSm_RequesterColl(
    const RequesterColl::Ptr& requesterColl,
    IntfViaNexthopMacToNhIndexSm* intfViaNexthopMacToNhIndexSm)
    : requesterColl_(requesterColl), intfViaNexthopMacToNhIndexSm_(intfViaNexthopMacToNhIndexSm) {
  handleInitialized();
}

IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::Ptr
IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::NestedSm_RequesterCollIs(
    const RequesterColl::Ptr& requesterColl,
    IntfViaNexthopMacToNhIndexSm* intfViaNexthopMacToNhIndexSm) {
  return Ptr(new NestedSm_RequesterColl(requesterColl, intfViaNexthopMacToNhIndexSm));
}

const Netval::EthAddr& IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::macAddr() const {
  return requesterColl_ ? requesterColl_->macAddr() : zeroMac();
}

void IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::notifierIs(
    const RequesterColl::Ptr& requesterColl) {
  if (requesterColl == requesterColl_) return;
  requesterColl_ = requesterColl;
  requesterCollSlot_.notifierIs(requesterColl_.get());
}

void IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::handleInitialized() {
  DUALLOG_TRACE(8, "mac : ", macAddr());
  CORE_ASSERT(requesterColl());
  CORE_ASSERT(intfViaNexthopMacToNhIndexSm());
  IntfViaNexthopMacToNhIndexSm& sm = *intfViaNexthopMacToNhIndexSm_;
  const Netval::EthAddr mac = requesterColl_->macAddr();
  const uint32_t nh = sm.searchNhIndex(*requesterColl_);
  if (nh == invalidNhIndex()) return;
  DUALLOG_TRACE(8, "Found nhIndex : ", nh, " for mac: ", mac);
  // Direct, not through addStatus: a group still marked found is rewritten with this result.
  sm.addStatusHelper(requesterColl_, nh);
}

void IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::handleRequester(
    const Netval::IpGenAddr& nexthop) {
  DUALLOG_TRACE(8, "mac : ", macAddr(), ", nexthop : ", nexthop);
  CORE_ASSERT(requesterColl());
  IntfViaNexthopMacToNhIndexSm& sm = *intfViaNexthopMacToNhIndexSm_;
  const NexthopIntfId key(nexthop, sm.intfId());
  if (requesterColl_->requesterCollHas(nexthop)) {
    if (!requesterColl_->nhIndexFound()) return;
    const uint32_t nhIndex = requesterColl_->nhIndex();
    DUALLOG_TRACE(8, "Using already found nhIndex : ", nhIndex, " for nexthop: ", nexthop,
                  " intfId: ", sm.intfId());
    CORE_ASSERT(intfViaNexthopMacToNhIndexSm()->status());
    sm.status()->mapIs(ViaNexthopMacToNhIndexMapEntry(key, nhIndex));
    return;
  }
  DUALLOG_TRACE(8, "Deleting status for nexthop: ", nexthop, " intfId: ", sm.intfId());
  if (sm.status()) sm.status()->mapDel(key);
}

void IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::doCleanup() {
  DUALLOG_TRACE(8, "mac : ", macAddr());
  if (!requesterColl_) return;
  requesterColl_->nhIndexFoundIs(false);
  requesterColl_->nhIndexIs(invalidNhIndex());
  // A status pass of the group under way reads the group again and withdraws what it wrote.
  requesterColl_->statusGenerationIs(requesterColl_->statusGeneration() + 1);
}

IntfViaNexthopMacToNhIndexSm::IntfViaNexthopMacToNhIndexSm(
    Netval::IntfId intfId, const IntfViaNexthopMacToNhIndexRequest::Ptr& request,
    const Core::Ptr<const NextHopMod>& nextHopMod, const ViaNexthopMacToNhIndexMap::Ptr& status)
    : intfId_(intfId),
      intfViaNexthopMacToNhIndexRequest_(request),
      nextHopMod_(nextHopMod),
      status_(status) {}

void IntfViaNexthopMacToNhIndexSm::start() {
  const uint64_t losses = RequesterSet::losses();
  if (intfViaNexthopMacToNhIndexRequest_) {
    for (const RequesterColl::Ptr& group : intfViaNexthopMacToNhIndexRequest_->requesterColl()) {
      if (group->nhIndexFound()) foundBeforeScan_.push_back(group.get());
    }
  }
  handleInitialized();
  // Dropped by a handler of one of its first writes: the groups are the next machine's.
  if (retired_) {
    foundBeforeScan_ = {};
    return;
  }
  scanDecided_ = true;
  for (const RequesterColl::Ptr& group : intfViaNexthopMacToNhIndexRequest_->requesterColl()) {
    requesterCollIs(group);
  }
  scanDecided_ = false;
  foundBeforeScan_ = {};
  // Every status the start wrote came from a group with an index that held its nexthop; only a
  // loss since can have left one unheld.
  if (RequesterSet::losses() != losses) withdrawUnheld();
}

bool IntfViaNexthopMacToNhIndexSm::heldByFoundGroup(const Netval::IpGenAddr& nexthop) const {
  for (const RequesterColl::Ptr& group : intfViaNexthopMacToNhIndexRequest_->requesterColl()) {
    if (group->requesterCollHas(nexthop)) return group->nhIndexFound();
  }
  return false;
}

void IntfViaNexthopMacToNhIndexSm::withdrawUnheld() {
  // A group that lost a nexthop to a handler of the start's own writes had no watcher yet to
  // withdraw that nexthop's status. Nothing is found here unless a start was re-entered.
  std::vector<NexthopIntfId> stale;
  do {
    stale.clear();
    if (retired_ || !status_) return;
    // What heldByFoundGroup answers, for every nexthop in one walk of the groups: asked per
    // status, it would walk them once per status, and a start would take groups x statuses.
    HeldNexthops held;
    for (const RequesterColl::Ptr& group : intfViaNexthopMacToNhIndexRequest_->requesterColl()) {
      for (const Netval::IpGenAddr& nexthop : group->requesterColl()) {
        if (!held.find(nexthop)) held.emplaceNew(HeldNexthop{nexthop, group->nhIndexFound()});
      }
    }
    // Nothing runs while the statuses are read, so the groups stay as `held` saw them.
    for (const ViaNexthopMacToNhIndexMapEntry& entry : status_->map()) {
      const NexthopIntfId& key = entry.nexthopIntfId();
      if (key.intfId() != intfId_) continue;
      const HeldNexthop* holder = held.find(key.nexthop());
      if (!holder || !holder->found) stale.push_back(key);
    }
    for (const NexthopIntfId& key : stale) {
      if (heldByFoundGroup(key.nexthop()) || !status_) continue;
      DUALLOG_TRACE(8, "Deleting status for nexthop: ", key.nexthop(), " intfId: ", intfId_);
      status_->mapDel(key);
    }
  } while (!stale.empty());
}

uint32_t IntfViaNexthopMacToNhIndexSm::searchNhIndex(const RequesterColl& group) const {
  // The table scan gave every group that was not found before it the first index of its MAC in
  // table order (or none): exactly what the search returns, without one walk per group.
  const bool decided = scanDecided_ && std::find(foundBeforeScan_.begin(), foundBeforeScan_.end(),
                                                 &group) == foundBeforeScan_.end();
  if (!decided) return getNextHopMacNhIndex(nextHopMod_, group.macAddr());
  return group.nhIndexFound() ? group.nhIndex() : invalidNhIndex();
}

IntfViaNexthopMacToNhIndexSm::Ptr IntfViaNexthopMacToNhIndexSm::IntfViaNexthopMacToNhIndexSmIs(
    Netval::IntfId intfId, const IntfViaNexthopMacToNhIndexRequest::Ptr& request,
    const Core::Ptr<const NextHopMod>& nextHopMod, const ViaNexthopMacToNhIndexMap::Ptr& status) {
  Ptr sm(new IntfViaNexthopMacToNhIndexSm(intfId, request, nextHopMod, status));
  sm->start();
  return sm;
}

void IntfViaNexthopMacToNhIndexSm::requesterCollIs(const RequesterColl::Ptr& requesterColl) {
  if (NestedSm_RequesterColl::Ptr existing = requesterColl_.get(requesterColl->macAddr())) {
    existing->notifierIs(requesterColl);
    return;
  }
  NestedSm_RequesterColl::Ptr nested =
      NestedSm_RequesterColl::NestedSm_RequesterCollIs(requesterColl, this);
  if (!hasNotificationActive()) nested->hasNotificationActiveIs(false);
  requesterColl_.set(nested);
}

void IntfViaNexthopMacToNhIndexSm::requesterCollDel(Netval::EthAddr macAddr) {
  requesterColl_.del(macAddr);
}

void IntfViaNexthopMacToNhIndexSm::handleRequesterColl(const Netval::EthAddr& macAddr) {
  if (RequesterColl::Ptr group = intfViaNexthopMacToNhIndexRequest_->requesterColl(macAddr)) {
    requesterCollIs(group);
  } else {
    requesterCollDel(macAddr);
  }
}

void IntfViaNexthopMacToNhIndexSm::handleInitialized() {
  DUALLOG_TRACE(8, "intfId ", intfId_);
  CORE_ASSERT(intfViaNexthopMacToNhIndexRequest());
  cleanupStatus();
  handleNhIndexToMac();
}

void IntfViaNexthopMacToNhIndexSm::handleNhIndexToMac() {
  if (!nextHopMod_) return;
  // Without a group no entry matches, so the walk would change nothing (nor could anything it
  // does add a group). That is how an interface's machine usually starts: its request record is
  // published before the record's first group is added.
  if (intfViaNexthopMacToNhIndexRequest_->requesterCollCount() == 0) return;
  // Walked from a copy: a handler of a write may change the table, and an insertion may reorder
  // it under a walk. An entry changed meanwhile reaches the machine through its own
  // notification, so only what the table still holds is matched here.
  std::vector<std::pair<uint32_t, Netval::EthAddr>> entries;
  entries.reserve(nextHopMod_->nhIndexToMac().size());
  for (const MacEntry& entry : nextHopMod_->nhIndexToMac()) {
    entries.emplace_back(entry.key, entry.value);
  }
  const uint64_t changes = nextHopMod_->nhIndexToMacChanges();
  for (const auto& [nhIndex, mac] : entries) {
    // While no handler has changed the table, the copy is what it holds.
    if (nextHopMod_->nhIndexToMacChanges() == changes || tableHolds(nhIndex, mac)) {
      handleMacAdd(mac, nhIndex);
    }
  }
}

bool IntfViaNexthopMacToNhIndexSm::tableHolds(uint32_t nhIndex, Netval::EthAddr mac) const {
  const MacEntry* entry = nextHopMod_->nhIndexToMac().find(nhIndex);
  return entry && entry->value == mac;
}

void IntfViaNexthopMacToNhIndexSm::handleNhIndexToMac(uint32_t nhIndex) {
  const auto values =
      Core::getNotifyValues<MacEntry>(nextHopMod_.get(), NextHopMod::nhIndexToMacAttr);
  if (values.oldValue) {
    const Netval::EthAddr oldMac = values.oldValue->value;
    DUALLOG_TRACE(8, "NhIndex ", nhIndex, " deleted for mac : ", oldMac);
    handleMacDel(oldMac, nhIndex);
  }
  if (values.newValue) {
    const Netval::EthAddr newMac = values.newValue->value;
    DUALLOG_TRACE(8, "NhIndex ", nhIndex, " added for mac : ", newMac);
    // A handler that ran earlier in this publication may have changed the entry again; the
    // change that did so reaches this machine afterwards. Only what the table still holds is
    // matched, so a stale addition never writes an index the table has lost.
    if (tableHolds(nhIndex, newMac)) handleMacAdd(newMac, nhIndex);
  }
}

void IntfViaNexthopMacToNhIndexSm::handleMacAdd(Netval::EthAddr mac, uint32_t nhIndex) {
  const RequesterColl::Ptr group = intfViaNexthopMacToNhIndexRequest_->requesterColl(mac);
  if (!group) return;
  CORE_ASSERT(nextHopMod());
  addStatus(group, nhIndex);
}

void IntfViaNexthopMacToNhIndexSm::handleMacDel(Netval::EthAddr mac, uint32_t nhIndex) {
  const RequesterColl::Ptr group = intfViaNexthopMacToNhIndexRequest_->requesterColl(mac);
  if (!group) return;
  CORE_ASSERT(nextHopMod());
  delStatus(group, nhIndex);
}

// The group's type is written in full in the traced signatures below: a compiler prints a
// parameter's qualifier as written or in full, and only the full form reads the same with all.
void IntfViaNexthopMacToNhIndexSm::addStatus(const FwdL3Unicast::RequesterColl::Ptr& requester,
                                             uint32_t nhIndex) {
  CORE_ASSERT(requester);
  if (requester->nhIndexFound()) {
    DUALLOG_TRACE(8, "NhIndex already found for mac : ", requester->macAddr(), "..skipping");
    return;
  }
  addStatusHelper(requester, nhIndex);
}

void IntfViaNexthopMacToNhIndexSm::addStatusHelper(
    const FwdL3Unicast::RequesterColl::Ptr& requester, uint32_t nhIndex) {
  CORE_ASSERT(NexthopNhIndexResolverConstants::invalidNhIndex() != nhIndex);
  CORE_ASSERT(requester);
  // A handler still running after the machine was dropped: the groups are the next machine's.
  if (retired_) return;
  DUALLOG_TRACE(7, "nhIndex : ", nhIndex, " found for mac : ", requester->macAddr(),
                " under intfId : ", intfId_);
  requester->nhIndexFoundIs(true);
  requester->nhIndexIs(nhIndex);
  // A nexthop that a handler of a write moves out of the group needs nothing more from this
  // pass: the group's watcher withdraws its status and the group it joins writes it (while the
  // machine starts, the watchers it starts later and its withdrawal of unheld statuses do).
  for (RequesterColl::StatusPass pass(*requester); pass.next();) {
    // A pass started again because a handler of a write moved the group writes what it holds now.
    if (pass.again()) {
      writeAgain(*requester, pass.nexthop());
      continue;
    }
    const Netval::IpGenAddr& nexthop = pass.nexthop();
    DUALLOG_TRACE(8, "nhIndex for nexthop: ", nexthop, " intfId: ", intfId_, " is ", nhIndex);
    if (status_)
      status_->mapIs(ViaNexthopMacToNhIndexMapEntry(NexthopIntfId(nexthop, intfId_), nhIndex));
  }
}

void IntfViaNexthopMacToNhIndexSm::delStatus(const FwdL3Unicast::RequesterColl::Ptr& requester,
                                             uint32_t nhIndex) {
  CORE_ASSERT(requester);
  if (retired_ || nhIndex != requester->nhIndex()) return;
  CORE_ASSERT(requester->nhIndexFound());
  // The table already reflects the change, so the lost index is not found again.
  const uint32_t next = getNextHopMacNhIndex(nextHopMod_, requester->macAddr());
  if (next != invalidNhIndex()) {
    addStatusHelper(requester, next);
    return;
  }
  requester->nhIndexFoundIs(false);
  requester->nhIndexIs(invalidNhIndex());
  for (RequesterColl::StatusPass pass(*requester); pass.next();) {
    if (pass.again()) {
      writeAgain(*requester, pass.nexthop());
      continue;
    }
    const Netval::IpGenAddr& nexthop = pass.nexthop();
    DUALLOG_TRACE(8, "No nhIndex for nexthop: ", nexthop, " intfId: ", intfId_);
    if (status_) status_->mapDel(NexthopIntfId(nexthop, intfId_));
  }
}

void IntfViaNexthopMacToNhIndexSm::writeAgain(const RequesterColl& requester,
                                              const Netval::IpGenAddr& nexthop) {
  const NexthopIntfId key(nexthop, intfId_);
  if (requester.nhIndexFound()) {
    const uint32_t nhIndex = requester.nhIndex();
    DUALLOG_TRACE(8, "nhIndex for nexthop: ", nexthop, " intfId: ", intfId_, " is ", nhIndex);
    if (status_) status_->mapIs(ViaNexthopMacToNhIndexMapEntry(key, nhIndex));
  } else {
    DUALLOG_TRACE(8, "No nhIndex for nexthop: ", nexthop, " intfId: ", intfId_);
    if (status_) status_->mapDel(key);
  }
}

void IntfViaNexthopMacToNhIndexSm::cleanupStatus() {
  // The handlers of a removal may write statuses of other interfaces, and an insert reorders the
  // map: the interface's keys are taken first, and taken again until none is left. A handler
  // that retires the whole stage meanwhile cuts the map off (silence()): what it holds then may
  // be a successor's.
  std::vector<NexthopIntfId> keys;
  do {
    keys.clear();
    if (!status_) return;
    for (const ViaNexthopMacToNhIndexMapEntry& entry : status_->map()) {
      if (entry.nexthopIntfId().intfId() == intfId_) keys.push_back(entry.nexthopIntfId());
    }
    for (const NexthopIntfId& key : keys) {
      if (status_) status_->mapDel(key);
    }
  } while (!keys.empty());
}

void IntfViaNexthopMacToNhIndexSm::silence() {
  hasNotificationActiveIs(false);
  retired_ = true;
  status_ = nullptr;
}

void IntfViaNexthopMacToNhIndexSm::doCleanup() {
  DUALLOG_TRACE(8, "intfId ", intfId_);
  cleanupStatus();
  for (const NestedSm_RequesterColl::Ptr& nested : requesterColl_) nested->doCleanup();
}

void IntfViaNexthopMacToNhIndexSm::retire() {
  // Off first, so the machine does not react to its own clean-up.
  hasNotificationActiveIs(false);
  doCleanup();
  retired_ = true;
  status_ = nullptr;
}

void IntfViaNexthopMacToNhIndexSm::hasNotificationActiveIs(bool active) {
  Core::Reactor::hasNotificationActiveIs(active);
  for (const NestedSm_RequesterColl::Ptr& nested : requesterColl_) {
    nested->hasNotificationActiveIs(active);
  }
}

void IntfViaNexthopMacToNhIndexSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "IntfViaNexthopMacToNhIndexSm - interface %s\n", intfId_.name().c_str());
  ctx.dumpChild(intfViaNexthopMacToNhIndexRequest_.get(), indent + 2);
}

AllIntfViaNexthopMacToNhIndexSm::~AllIntfViaNexthopMacToNhIndexSm() { smDelAll(); }

IntfViaNexthopMacToNhIndexSm::Ptr AllIntfViaNexthopMacToNhIndexSm::smIs(
    Netval::IntfId intfId, const IntfViaNexthopMacToNhIndexRequest::Ptr& request,
    const Core::Ptr<const NextHopMod>& nextHopMod, const ViaNexthopMacToNhIndexMap::Ptr& status) {
  if (IntfViaNexthopMacToNhIndexSm::Ptr existing = sm_.get(intfId)) {
    if (existing->intfViaNexthopMacToNhIndexRequest() == request &&
        existing->nextHopMod() == nextHopMod && existing->status() == status) {
      return existing;
    }
    throw Core::ReinstantiationError("AllIntfViaNexthopMacToNhIndexSm::smIs: interface " +
                                     intfId.name() + " has a machine built from other arguments");
  }
  // Held before it starts: a handler of its first writes that drops every machine (the stage
  // being retired) reaches this one too, so that it stops writing into a map that a successor
  // may already fill.
  IntfViaNexthopMacToNhIndexSm::Ptr created(
      new IntfViaNexthopMacToNhIndexSm(intfId, request, nextHopMod, status));
  sm_.set(created);
  created->start();
  return created;
}

bool AllIntfViaNexthopMacToNhIndexSm::smDel(Netval::IntfId intfId) {
  const IntfViaNexthopMacToNhIndexSm::Ptr removed = sm_.get(intfId);
  if (!removed) return false;
  sm_.del(intfId);
  // Reachable while it cleans up, so that a handler of its clean-up that drops every machine
  // silences this one too.
  dropping_.push_back(removed.get());
  removed->retire();
  std::erase(dropping_, removed.get());
  return true;
}

void AllIntfViaNexthopMacToNhIndexSm::smDelAll() {
  for (auto it = sm_.begin(); it != sm_.end(); ++it) {
    const Netval::IntfId intfId = it.key();
    smDel(intfId);
  }
  for (IntfViaNexthopMacToNhIndexSm* machine : dropping_) machine->silence();
}

ViaNexthopMacToNhIndexSm::ViaNexthopMacToNhIndexSm(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMacMap>& config,
    const Core::Ptr<const L3Modules>& l3Modules, const ViaNexthopMacToNhIndexMap::Ptr& status)
    : vrfName_(vrfName), config_(config), l3Modules_(l3Modules), status_(status) {
  handleInitialized();
}

ViaNexthopMacToNhIndexSm::~ViaNexthopMacToNhIndexSm() {
  hasNotificationActiveIs(false);
  if (!retired_) doCleanup();
}

ViaNexthopMacToNhIndexSm::Ptr viaNexthopMacToNhIndexSmFactory(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMacMap>& config,
    const Core::Ptr<const L3Modules>& l3Modules, const ViaNexthopMacToNhIndexMap::Ptr& status) {
  ViaNexthopMacToNhIndexSm::Ptr sm(
      new ViaNexthopMacToNhIndexSm(vrfName, config, l3Modules, status));
  sm->hasNotificationActiveIs(true);
  return sm;
}

void ViaNexthopMacToNhIndexSm::handleInitialized() {
  DUALLOG_TRACE(8, "vrfName : ", vrfName_);
  if (status_) status_->mapDelAll();
  allIntfViaNexthopMacToNhIndexRequest_ =
      AllIntfViaNexthopMacToNhIndexRequest::AllIntfViaNexthopMacToNhIndexRequestIs();
  requestSlot_.notifierIs(allIntfViaNexthopMacToNhIndexRequest_.get());
  allIntfViaNexthopMacToNhIndexSm_ =
      AllIntfViaNexthopMacToNhIndexSm::AllIntfViaNexthopMacToNhIndexSmIs();
  handleConfig();
}

void ViaNexthopMacToNhIndexSm::handleConfig() {
  DUALLOG_TRACE(8, "vrfName : ", vrfName_);
  if (!config_) return;
  follower_.replay(
      *config_, [this](const auto& entry) { handleDel(entry); },
      [this](const auto& entry) { handleAdd(entry); });
}

void ViaNexthopMacToNhIndexSm::handleConfig(const NexthopIntfId& key) {
  // The entry this stage applied leaves its MAC's group before the entry held now joins one.
  follower_.changed(
      *config_, key, [this](const auto& entry) { handleDel(entry); },
      [this](const auto& entry) { handleAdd(entry); });
}

void ViaNexthopMacToNhIndexSm::handleAdd(const NexthopToViaNexthopMacMapEntry& entry) {
  const NexthopIntfId& key = entry.nexthopIntfId();
  DUALLOG_TRACE(8, "Find nhIndex request added - vrf: ", vrfName_, " nexthop: ", key.nexthop(),
                " intfId: ", key.intfId(), " ethaddr ", entry.macAddr());
  IntfViaNexthopMacToNhIndexRequest::Ptr request;
  // Looked up again after the creation: its handlers may have added and removed the interface's
  // last other entry, and with it the record.
  while (!(request = allIntfViaNexthopMacToNhIndexRequest_->request(key.intfId()))) {
    DUALLOG_TRACE(8, "New request for interface ", key.intfId());
    // Notifies handleIntfViaNexthopMacToNhIndexRequest, which may start the machine right away.
    allIntfViaNexthopMacToNhIndexRequest_->requestIs(key.intfId());
  }
  request->addRequester(entry.macAddr(), key.nexthop());
}

void ViaNexthopMacToNhIndexSm::handleDel(const NexthopToViaNexthopMacMapEntry& entry) {
  const NexthopIntfId& key = entry.nexthopIntfId();
  DUALLOG_TRACE(8, "Find nhIndex request deleted - vrf: ", vrfName_, " nexthop: ", key.nexthop(),
                " intfId: ", key.intfId(), " ethaddr ", entry.macAddr());
  const IntfViaNexthopMacToNhIndexRequest::Ptr request =
      allIntfViaNexthopMacToNhIndexRequest_->request(key.intfId());
  CORE_ASSERT(request);
  request->delRequester(entry.macAddr(), key.nexthop());
  // A handler of the removal may have dropped the record and made a new one for the interface.
  if (request->requesterCollCount() != 0 ||
      allIntfViaNexthopMacToNhIndexRequest_->request(key.intfId()) != request) {
    return;
  }
  DUALLOG_TRACE(8, "Deleting request for interface ", key.intfId());
  allIntfViaNexthopMacToNhIndexRequest_->requestDel(key.intfId());
}

void ViaNexthopMacToNhIndexSm::handleIntfViaNexthopMacToNhIndexRequest(Netval::IntfId intfId) {
  DUALLOG_TRACE(8, "intfId ", intfId);
  const IntfViaNexthopMacToNhIndexRequest::Ptr request =
      allIntfViaNexthopMacToNhIndexRequest_->request(intfId);
  if (!request) {
    machineIs(intfId);
    return;
  }
  CORE_ASSERT(l3Modules());
  const Core::Ptr<const NextHopMod> nextHopMod = l3Modules_->nextHopMod(intfId);
  // Without a module the machine waits for handleNexthopMod.
  if (!nextHopMod) return;
  machineIs(intfId);
}

void ViaNexthopMacToNhIndexSm::handleNexthopMod(Netval::IntfId intfId) {
  const IntfViaNexthopMacToNhIndexRequest::Ptr request =
      allIntfViaNexthopMacToNhIndexRequest_->request(intfId);
  Core::Ptr<const NextHopMod> nextHopMod = l3Modules_ ? l3Modules_->nextHopMod(intfId) : nullptr;
  if (!nextHopMod) {
    DUALLOG_TRACE(8, "NexthopMod removed for intfId : ", intfId);
    if (!request) return;
    DUALLOG_TRACE(8, "Deleting IntfViaNexthopMacToNhIndexSm for intfId : ", intfId);
    machineIs(intfId);
    return;
  }
  DUALLOG_TRACE(8, "NexthopMod inserted for intfId : ", intfId);
  if (!request) return;
  // Deliberate: looked up and asserted a second time, although nothing ran since the first.
  nextHopMod = l3Modules_->nextHopMod(intfId);
  CORE_ASSERT(nextHopMod);
  DUALLOG_TRACE(8, "Creating IntfViaNexthopMacToNhIndexSm for intfId : ", intfId);
  // A repeated notification finds the machine already built from the same objects.
  machineIs(intfId);
}

void ViaNexthopMacToNhIndexSm::machineIs(Netval::IntfId intfId) {
  // Starting or dropping a machine writes statuses, whose handlers may replace the request or
  // the module again. A nested call leaves that to the call that is starting or dropping the
  // interface's machine, which looks again once it has: two machines of one interface never
  // write at once.
  if (std::find(machinesChanging_.begin(), machinesChanging_.end(), intfId) !=
      machinesChanging_.end()) {
    return;
  }
  AllIntfViaNexthopMacToNhIndexSm& machines = *allIntfViaNexthopMacToNhIndexSm_;
  struct Changing {
    std::vector<Netval::IntfId>& changing;
    Changing(std::vector<Netval::IntfId>& c, Netval::IntfId intfId) : changing(c) {
      changing.push_back(intfId);
    }
    ~Changing() { changing.pop_back(); }
  };
  while (!retired_) {
    const IntfViaNexthopMacToNhIndexRequest::Ptr request =
        allIntfViaNexthopMacToNhIndexRequest_->request(intfId);
    const Core::Ptr<const NextHopMod> nextHopMod =
        l3Modules_ ? l3Modules_->nextHopMod(intfId) : nullptr;
    const IntfViaNexthopMacToNhIndexSm::Ptr existing = machines.sm(intfId);
    if (existing && existing->intfViaNexthopMacToNhIndexRequest() == request &&
        existing->nextHopMod() == nextHopMod) {
      return;
    }
    if (!existing && !(request && nextHopMod)) return;
    const Changing changing(machinesChanging_, intfId);
    if (existing) {
      // Built on a request or module that a nested handler removed and replaced before this
      // stage heard of the removal.
      machines.smDel(intfId);
    } else {
      machines.smIs(intfId, request, nextHopMod, status_);
    }
  }
}

void ViaNexthopMacToNhIndexSm::doCleanup() {
  DUALLOG_TRACE(8, "vrfName : ", vrfName_);
  if (status_) status_->mapDelAll();
}

void ViaNexthopMacToNhIndexSm::retire() {
  if (retired_) return;
  hasNotificationActiveIs(false);
  retired_ = true;
  doCleanup();
  // What the destructor's release of the machines would do next.
  allIntfViaNexthopMacToNhIndexSm_->smDelAll();
}

void ViaNexthopMacToNhIndexSm::hasNotificationActiveIs(bool active) {
  Core::Reactor::hasNotificationActiveIs(active);
  if (!allIntfViaNexthopMacToNhIndexSm_) return;
  for (const IntfViaNexthopMacToNhIndexSm::Ptr& sm : allIntfViaNexthopMacToNhIndexSm_->sm()) {
    sm->hasNotificationActiveIs(active);
  }
}

void ViaNexthopMacToNhIndexSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "ViaNexthopMacToNhIndexSm - %s\n", vrfName_.c_str());
  ctx.line(indent + 2, "config\n");
  ctx.dumpChild(config_.get(), indent + 4);
  ctx.line(indent + 2, "status\n");
  ctx.dumpChildPointer(status_.get(), indent + 4);
  Core::dumpCount(ctx, indent, "allIntfViaNexthopMacToNhIndexRequest",
                  allIntfViaNexthopMacToNhIndexRequest_
                      ? allIntfViaNexthopMacToNhIndexRequest_->requestCount()
                      : 0);
  if (!allIntfViaNexthopMacToNhIndexSm_) {
    Core::dumpCount(ctx, indent, "allIntfViaNexthopMacToNhIndexSm", 0);
    return;
  }
  Core::dumpChildren(ctx, indent, "allIntfViaNexthopMacToNhIndexSm",
                     allIntfViaNexthopMacToNhIndexSm_->sm());
}

}  // namespace FwdL3Unicast

#include "Fwd/FwdViaNexthopToViaNexthopMacSm.h"

#include <vector>

#include "framework/Assert.h"
#include "framework/CollectionOps.h"
#include "framework/DualLog.h"

namespace FwdL3Unicast {

namespace {

[[gnu::always_inline]] inline DualLog::Handle& traceHandle() {
  static DualLog::Handle handle("FwdViaNexthopToViaNexthopMacSm", false);
  return handle;
}

// The neighbour of a via: its egress interface and its address.
Plane::NextHopKey neighbourKey(const NexthopIntfId& via) {
  return Plane::NextHopKey(via.intfId(), via.nexthop());
}

// A neighbour with a MAC but no L2 interface yet: proactive ARP is asked to resolve it afresh.
bool isHalfResolved(const Plane::NextHopInfo& info) {
  return static_cast<bool>(info) && !info.ethAddr().isZero() && info.l2Intf().empty();
}

// A neighbour whose MAC may be published: a MAC and the L2 interface it was learnt on.
bool isResolved(const Plane::NextHopInfo& info) {
  return static_cast<bool>(info) && !info.ethAddr().isZero() && !info.l2Intf().empty();
}

}  // namespace

ViaNexthopToViaNexthopMacSm::ViaNexthopToViaNexthopMacSm(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMap>& config,
    const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper,
    const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll,
    const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm,
    const Core::Ptr<NexthopToViaNexthopMacMap>& status)
    : vrfName_(vrfName),
      config_(config),
      nextHopInfoWrapper_(nextHopInfoWrapper),
      vrfStatusAll_(vrfStatusAll),
      proactiveArpNexthopSm_(proactiveArpNexthopSm),
      status_(status) {
  handleInitialized();
}

ViaNexthopToViaNexthopMacSm::~ViaNexthopToViaNexthopMacSm() {
  hasNotificationActiveIs(false);
  if (!retired_) doCleanup();
  configSlot_.notifierIs(nullptr);
  // The via slot is already off: dropping the records issues no removeEntry, so the proactive
  // ARP entries of the vias still tracked stay with the platform.
  allViaNexthopRequestsDel();
}

Core::Ptr<ViaNexthopToViaNexthopMacSm> viaNexthopToViaNexthopMacSmFactory(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMap>& config,
    const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper,
    const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll,
    const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm,
    const Core::Ptr<NexthopToViaNexthopMacMap>& status) {
  Core::Ptr<ViaNexthopToViaNexthopMacSm> sm(new ViaNexthopToViaNexthopMacSm(
      vrfName, config, nextHopInfoWrapper, vrfStatusAll, proactiveArpNexthopSm, status));
  sm->hasNotificationActiveIs(true);
  return sm;
}

void ViaNexthopToViaNexthopMacSm::handleInitialized() {
  DUALLOG_TRACE(8, "vrfName : ", vrfName_);
  // Whatever an earlier instance published for this VRF goes before anything is recomputed.
  status_->mapDelAll();
  // clang-format off
  CORE_ASSERT( vrfStatusAll()->vrfIdHas( vrfName() ) );
  // clang-format on
  // Fixed for the stage's life, so that every removeEntry matches its addEntry.
  arpVrfId_ = vrfStatusAll_->planeVrfIdToArpVrfId(vrfStatusAll_->vrfId(vrfName_));
  allViaNexthopRequestsIs();
  handleConfig();
}

void ViaNexthopToViaNexthopMacSm::handleConfig() {
  DUALLOG_TRACE(8, "vrfName ", vrfName_);
  if (!config_) return;
  follower_.replay(
      *config_, [this](const auto& entry) { handleDel(entry); },
      [this](const auto& entry) { handleAdd(entry); });
}

void ViaNexthopToViaNexthopMacSm::handleConfig(const NexthopIntfId& key) {
  // The entry this stage applied leaves its via before the entry the map holds now joins its via.
  follower_.changed(
      *config_, key, [this](const auto& entry) { handleDel(entry); },
      [this](const auto& entry) { handleAdd(entry); });
}

void ViaNexthopToViaNexthopMacSm::handleAdd(const NexthopToViaNexthopMapEntry& mapEntry) {
  const NexthopIntfId& nexthopIntfId = mapEntry.nexthopIntfId();
  const Netval::IpGenAddr& viaNexthop = mapEntry.viaNexthop();
  DUALLOG_TRACE(8, "ViaNexthop add for nexthop ", nexthopIntfId.nexthop(), " intfId ",
                nexthopIntfId.intfId(), "  is ", viaNexthop);
  const NexthopIntfId viaKey(viaNexthop, nexthopIntfId.intfId());
  ViaNexthopRequest::Ptr viaNexthopRequest = allViaNexthopRequests_->viaNexthopRequest(viaKey);
  if (viaNexthopRequest) {
    DUALLOG_TRACE(8, "viaNexthop being tracked already");
  }
  // Looked up again after the creation: its handlers may have added and removed the via's last
  // other requester, and with it the record.
  while (!viaNexthopRequest) {
    DUALLOG_TRACE(8, "New viaNexthop to track");
    // The creation's notification starts proactive ARP and takes the first MAC decision.
    allViaNexthopRequests_->viaNexthopRequestIs(viaKey);
    viaNexthopRequest = allViaNexthopRequests_->viaNexthopRequest(viaKey);
  }
  viaNexthopRequest->addRequester(nexthopIntfId.nexthop());
  // A new requester of a resolved via does not wait for the next neighbour change.
  const Netval::EthAddr macAddr = viaNexthopRequest->macAddr();
  if (!macAddr.isZero()) {
    status_->mapIs(NexthopToViaNexthopMacMapEntry(nexthopIntfId, viaNexthop, macAddr));
  }
  DUALLOG_TRACE(8, "viaNexthop being tracked for ", viaNexthopRequest->requesterCollCount(),
                " nexthops now");
}

void ViaNexthopToViaNexthopMacSm::handleDel(const NexthopToViaNexthopMapEntry& mapEntry) {
  const NexthopIntfId& nexthopIntfId = mapEntry.nexthopIntfId();
  const Netval::IpGenAddr& viaNexthop = mapEntry.viaNexthop();
  DUALLOG_TRACE(8, "ViaNexthop del for nexthop ", nexthopIntfId.nexthop(), " intfId ",
                nexthopIntfId.intfId(), "  is ", viaNexthop);
  const NexthopIntfId viaKey(viaNexthop, nexthopIntfId.intfId());
  const ViaNexthopRequest::Ptr viaNexthopRequest =
      allViaNexthopRequests_->viaNexthopRequest(viaKey);
  CORE_ASSERT(viaNexthopRequest);
  // Resolved or not: removing an absent entry is harmless.
  const uint64_t generation = viaNexthopRequest->statusGeneration();
  status_->mapDel(nexthopIntfId);
  // A handler of the removal may have run a pass over the via's requesters, this one included.
  const bool rewritten = viaNexthopRequest->statusGeneration() != generation;
  viaNexthopRequest->delRequester(nexthopIntfId.nexthop());
  if (rewritten) status_->mapDel(nexthopIntfId);
  const size_t remaining = viaNexthopRequest->requesterCollCount();
  DUALLOG_TRACE(8, "viaNexthop being tracked for ", remaining, " nexthops now");
  if (remaining != 0) return;
  DUALLOG_TRACE(8, "Last tracking nexthop removed..stop tracking viaNexthop ", viaNexthop);
  allViaNexthopRequests_->viaNexthopRequestDel(viaKey);
}

void ViaNexthopToViaNexthopMacSm::handleViaNexthopRequest(const NexthopIntfId& key) {
  const auto values = Core::getNotifyValues<ViaNexthopRequest::Ptr>(
      allViaNexthopRequests_.get(), AllViaNexthopRequests::viaNexthopRequestAttr);
  const Plane::NextHopKey nextHopKey = neighbourKey(key);
  if (values.oldValue) {
    const Ptr previous = *values.oldValue;
    DUALLOG_TRACE(8, "Deleting via: ", key.nexthop(), " on intf: ", key.intfId(),
                  " to proArp nexthop with arpVrfId ", arpVrfId_);
    if (!retired_) proactiveArpNexthopSm_->removeEntry(nextHopKey, arpVrfId_);
    // A record deleted with requesters still listed must not leave their outdated MAC behind.
    updateStatus(previous, Netval::EthAddr());
  }
  if (values.newValue) {
    const Ptr created = *values.newValue;
    DUALLOG_TRACE(8, "Adding via: ", key.nexthop(), " on intf: ", key.intfId(),
                  " to proArp nexthop with arpVrfId ", arpVrfId_);
    if (!retired_) proactiveArpNexthopSm_->addEntry(nextHopKey, arpVrfId_);
    checkAndUpdateMac(created);
  }
}

void ViaNexthopToViaNexthopMacSm::handleNexthopInfo(const Plane::NextHopKey& key) {
  DUALLOG_TRACE(8, "vrfName ", vrfName_);
  const Ptr request =
      allViaNexthopRequests_->viaNexthopRequest(NexthopIntfId(key.addr(), key.intfId()));
  if (!request) return;
  if (isHalfResolved(nextHopInfo(key)) && !retired_) {
    proactiveArpNexthopSm_->doUpdateTriggerResolution(key);
  }
  checkAndUpdateMac(request);
}

void ViaNexthopToViaNexthopMacSm::checkAndUpdateMac(const Ptr& request) {
  CORE_ASSERT(request);
  const NexthopIntfId& via = request->viaNexthopInfo();
  const Plane::NextHopInfo info = nextHopInfo(neighbourKey(via));
  if (isResolved(info)) {
    request->macAddrIs(info.ethAddr());
    DUALLOG_TRACE(8, "MAC Addr resolved for ", via.nexthop(), " is ", info.ethAddr(), " l2Intf is ",
                  info.l2Intf());
  } else {
    request->macAddrIs(Netval::EthAddr());
    DUALLOG_TRACE(8, "MAC Addr NOT resolved for ", via.nexthop(), ", ethAddr received is ",
                  info.ethAddr(), " l2Intf is ", info.l2Intf());
  }
  // Every requester is rewritten, changed MAC or not: an equal entry publishes nothing.
  updateStatus(request, request->macAddr());
}

void ViaNexthopToViaNexthopMacSm::updateStatus(const Ptr& request, const Netval::EthAddr& ethAddr) {
  CORE_ASSERT(request);
  const NexthopIntfId via = request->viaNexthopInfo();
  // A pass started again because a nested handler changed the record (its MAC, its requesters)
  // writes what the record stands for now rather than `ethAddr`.
  for (RequesterSet::StatusPass pass(*request); pass.next();) {
    const Netval::EthAddr mac = pass.again() ? publishedMac(request) : ethAddr;
    const NexthopIntfId key(pass.nexthop(), via.intfId());
    if (mac.isZero()) {
      status_->mapDel(key);
    } else {
      status_->mapIs(NexthopToViaNexthopMacMapEntry(key, via.nexthop(), mac));
    }
  }
}

Netval::EthAddr ViaNexthopToViaNexthopMacSm::publishedMac(const Ptr& request) const {
  const bool tracked = allViaNexthopRequests_ && allViaNexthopRequests_->viaNexthopRequest(
                                                     request->viaNexthopInfo()) == request;
  return tracked ? request->macAddr() : Netval::EthAddr();
}

void ViaNexthopToViaNexthopMacSm::doCleanup() {
  DUALLOG_TRACE(8, "vrfName : ", vrfName_);
  status_->mapDelAll();
}

void ViaNexthopToViaNexthopMacSm::retire(const NexthopIntfIdColl* requests) {
  if (retired_) return;
  hasNotificationActiveIs(false);
  if (requests) releaseUnrequestedVias(*requests);
  retired_ = true;
  doCleanup();
}

void ViaNexthopToViaNexthopMacSm::releaseUnrequestedVias(const NexthopIntfIdColl& requests) {
  if (!allViaNexthopRequests_) return;
  // A via none of whose requesters is still requested is one that a handler dropped the stage
  // from under (the VRF's last request deleted while its via was being added or published):
  // the retired stage will never remove its ARP entry, nor will a successor that does not
  // request the via. No successor exists yet. Vias still requested stay with the platform.
  std::vector<Plane::NextHopKey> unrequested;
  for (const ViaNexthopRequest::Ptr& request : allViaNexthopRequests_->viaNexthopRequest()) {
    const NexthopIntfId& via = request->viaNexthopInfo();
    bool requested = false;
    for (const Netval::IpGenAddr& nexthop : request->requesterColl()) {
      requested = requested || requests.configHas(NexthopIntfId(nexthop, via.intfId()));
    }
    if (!requested) unrequested.push_back(neighbourKey(via));
  }
  // Collected first: a client of the ARP entries may react to each removal.
  for (const Plane::NextHopKey& key : unrequested) {
    proactiveArpNexthopSm_->removeEntry(key, arpVrfId_);
  }
}

void ViaNexthopToViaNexthopMacSm::allViaNexthopRequestsIs() {
  if (allViaNexthopRequests_) return;
  allViaNexthopRequests_ = AllViaNexthopRequests::AllViaNexthopRequestsIs();
  viaNexthopRequestSlot_.notifierIs(allViaNexthopRequests_.get());
}

void ViaNexthopToViaNexthopMacSm::allViaNexthopRequestsDel() {
  viaNexthopRequestSlot_.notifierIs(nullptr);
  allViaNexthopRequests_ = nullptr;
}

Plane::NextHopInfo ViaNexthopToViaNexthopMacSm::nextHopInfo(const Plane::NextHopKey& key) const {
  return nextHopInfoWrapper_ ? nextHopInfoWrapper_->nextHopInfo(key) : Plane::NextHopInfo();
}

void ViaNexthopToViaNexthopMacSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "ViaNexthopToViaNexthopMacSm - %s\n", vrfName_.c_str());
  ctx.line(indent + 2, "arpVrfId %d\n", static_cast<int>(arpVrfId_));
  ctx.line(indent + 2, "config\n");
  ctx.dumpChild(config_.get(), indent + 4);
  ctx.line(indent + 2, "status\n");
  ctx.dumpChild(status_.get(), indent + 4);
  if (!allViaNexthopRequests_) {
    Core::dumpCount(ctx, indent, "allViaNexthopRequests", 0);
    return;
  }
  Core::dumpChildren(ctx, indent, "allViaNexthopRequests",
                     allViaNexthopRequests_->viaNexthopRequest());
}

}  // namespace FwdL3Unicast

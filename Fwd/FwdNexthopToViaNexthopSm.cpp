#include "Fwd/FwdNexthopToViaNexthopSm.h"

#include <algorithm>
#include <utility>

#include "framework/Assert.h"
#include "framework/CollectionOps.h"
#include "framework/DualLog.h"

namespace FwdL3Unicast {

namespace {

[[gnu::always_inline]] inline DualLog::Handle& traceHandle() {
  static DualLog::Handle handle("FwdNexthopToViaNexthopSm", false);
  return handle;
}

// The address of unknown family: no via chosen.
const Netval::IpGenAddr& emptyAddr() {
  static const Netval::IpGenAddr empty;
  return empty;
}

bool isEmpty(const Netval::IpGenAddr& addr) { return addr == emptyAddr(); }

// A via's own address, or the nexthop itself when the via is directly attached (unset family,
// 0.0.0.0 or ::): such a nexthop is its own via.
const Netval::IpGenAddr& viaCandidate(const Netval::IpGenAddr& hop,
                                      const Netval::IpGenAddr& nexthop) {
  const bool hasAddress =
      (hop.af() == Netval::AddressFamily::ipv4_ || hop.af() == Netval::AddressFamily::ipv6_) &&
      !hop.isAddrZero();
  return hasAddress ? hop : nexthop;
}

// Keeps the published via while some via of the FEC on the interface still leads to it;
// otherwise the last candidate in FEC order wins. Stops equal-cost vias from flapping.
void cacheCandidate(IntfViaInfo& info, const Netval::IpGenAddr& candidate) {
  const Netval::IpGenAddr& published = info.viaNexthop();
  if (isEmpty(published) || candidate == published) {
    info.cachedViaNexthopIs(candidate);
  } else if (info.cachedViaNexthop() != published) {
    info.cachedViaNexthopIs(candidate);
  }
}

}  // namespace

void IntfViaInfo::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "IntfViaInfo - interface %s\n", intfId_.name().c_str());
  const std::string via = isEmpty(viaNexthop_) ? std::string("none") : viaNexthop_.toString();
  ctx.line(indent + 2, "viaNexthop - %s\n", via.c_str());
}

IntfViaInfo::Ptr NexthopRequest::intfViaInfoIs(Netval::IntfId intfId) {
  return Core::childIs(intfViaInfo_, intfId, &IntfViaInfo::IntfViaInfoIs);
}

void NexthopRequest::addIntfId(Netval::IntfId intfId) {
  IntfViaInfo::Ptr info = intfViaInfoIs(intfId);
  CORE_ASSERT(info);
  info->viaNexthopIs(emptyAddr());
  info->cachedViaNexthopIs(emptyAddr());
}

void NexthopRequest::delIntfId(Netval::IntfId intfId) {
  // The usual case, a present interface, takes one look-up.
  if (intfViaInfoDel(intfId)) return;
  // Get-or-create on purpose: removing an interface never added needs no check by the caller.
  IntfViaInfo::Ptr info = intfViaInfoIs(intfId);
  CORE_ASSERT(info);
  intfViaInfoDel(intfId);
}

void NexthopRequest::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopRequest - nexthop %s\n", nexthop_.toString().c_str());
  Core::dumpChildren(ctx, indent, "intfViaInfo", intfViaInfo_);
}

NexthopRequest::Ptr AllNexthopRequests::requestIs(const Netval::IpGenAddr& nexthop) {
  return Core::childIs(request_, nexthop, &NexthopRequest::NexthopRequestIs);
}

NexthopToViaNexthopSm::Ptr NexthopToViaNexthopSm::NexthopToViaNexthopSmIs(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopIntfIdColl>& config,
    const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig,
    const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
    const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus,
    const Core::Ptr<Hub::TaskScheduler>& scheduler,
    const Core::Ptr<NexthopToViaNexthopMap>& status) {
  return Ptr(new NexthopToViaNexthopSm(vrfName, config, nexthopVrfConfig, nexthopVrfStatus,
                                       forwardingGenStatus, scheduler, status));
}

NexthopToViaNexthopSm::Ptr nexthopToViaNexthopSmFactory(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopIntfIdColl>& config,
    const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig,
    const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
    const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus,
    const Core::Ptr<Hub::TaskScheduler>& scheduler,
    const Core::Ptr<NexthopToViaNexthopMap>& status) {
  NexthopToViaNexthopSm::Ptr sm = NexthopToViaNexthopSm::NexthopToViaNexthopSmIs(
      vrfName, config, nexthopVrfConfig, nexthopVrfStatus, forwardingGenStatus, scheduler, status);
  sm->hasNotificationActiveIs(true);
  return sm;
}

NexthopToViaNexthopSm::NexthopToViaNexthopSm(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopIntfIdColl>& config,
    const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig,
    const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
    const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus,
    const Core::Ptr<Hub::TaskScheduler>& scheduler, const Core::Ptr<NexthopToViaNexthopMap>& status)
    : vrfName_(vrfName),
      config_(config),
      nexthopVrfConfig_(nexthopVrfConfig),
      nexthopVrfStatus_(nexthopVrfStatus),
      forwardingGenStatus_(forwardingGenStatus),
      scheduler_(scheduler),
      status_(status) {
  handleInitialized();
}

NexthopToViaNexthopSm::~NexthopToViaNexthopSm() {
  hasNotificationActiveIs(false);
  if (!retired_) doCleanup();
  configSlot_.notifierIs(nullptr);
  backlogSlot_.notifierIs(nullptr);
  if (fibMonitorHelperSm_) fibMonitorHelperSm_->hasNotificationActiveIs(false);
}

void NexthopToViaNexthopSm::handleInitialized() {
  DUALLOG_TRACE(8, "vrfName ", vrfName_);
  CORE_ASSERT(scheduler() != nullptr);
  CORE_ASSERT(status());
  status_->mapDelAll();
  allNexthopRequestsIs();
  nexthopBacklogIs(Routing::NexthopBacklog::NexthopBacklogIs());
  // "ie" is the client name the resolver knows this module by.
  fibMonitorHelperSmIs("ie", nexthopVrfStatus_, nexthopBacklog_, forwardingGenStatus_, scheduler_);
  handleConfig();
}

void NexthopToViaNexthopSm::handleConfig() {
  DUALLOG_TRACE(8, "vrfName ", vrfName_);
  if (!config_) return;
  for (const NexthopIntfId nexthopIntfId : config_->config()) handleConfig(nexthopIntfId);
}

void NexthopToViaNexthopSm::handleConfig(const NexthopIntfId& changed) {
  // A change of a request whose nexthop's record is being changed is applied once that returns,
  // against what was applied: two interleaved changes of one record would each act on a state
  // the other had moved (a removal finding the record it looked up dropped and replaced, say).
  if (configChangeDeferred(changed)) return;
  ConfigChange change{changed.nexthop(), {}};
  const FrameLink<ConfigChange> link(configChanging_, change);
  NexthopIntfId next = changed;
  do {
    const NexthopIntfId nexthopIntfId = next;
    const Netval::IpGenAddr nh = nexthopIntfId.nexthop();
    const Netval::IntfId intf = nexthopIntfId.intfId();
    NexthopRequest::Ptr request = allNexthopRequests_->request(nh);
    if (config_ && config_->configHas(nexthopIntfId)) {
      DUALLOG_TRACE(8, "Resolve request added - vrf: ", vrfName_, " nexthop: ", nh,
                    " intfId: ", intf);
      if (!request) {
        DUALLOG_TRACE(8, "New nexthop to track : ", nh);
        request = allNexthopRequests_->requestIs(nh);
        // Registered once, with the first interface; withdrawn with the last.
        if (!retired_) nexthopVrfConfig_->nexthopIs(Routing::NexthopConfigEntry(nh));
      } else {
        DUALLOG_TRACE(8, "Nexthop being tracked already");
      }
      request->addIntfId(intf);
      DUALLOG_TRACE(8, "Nexthop being tracked for ", request->intfViaInfoCount(),
                    " interfaces now");
      // A new interface gets its via from the current resolution, without waiting for the backlog.
      reviewNexthopRequest(request);
    } else {
      DUALLOG_TRACE(8, "Resolve request deleted - vrf: ", vrfName_, " nexthop: ", nh,
                    " intfId: ", intf);
      CORE_ASSERT(request);
      request->delIntfId(intf);
      status_->mapDel(nexthopIntfId);
      const size_t remaining = request->intfViaInfoCount();
      DUALLOG_TRACE(8, "Nexthop being tracked for ", remaining, " interfaces now");
      if (remaining == 0) {
        if (!retired_) nexthopVrfConfig_->nexthopDel(nh);
        allNexthopRequests_->requestDel(nh);
        DUALLOG_TRACE(8, "Last tracking interface removed..stop tracking nexthop ", nh);
      }
    }
    DUALLOG_TRACE(8, "Total number of nexthops tracked for vrf ", vrfName_, " are ",
                  nexthopVrfConfig_->nexthopCount());
  } while (configChangeNext(change, next));
}

bool NexthopToViaNexthopSm::configChangeDeferred(const NexthopIntfId& key) {
  for (ConfigChange* running = configChanging_; running; running = running->outer) {
    if (running->nexthop != key.nexthop()) continue;
    if (std::find(running->deferred.begin(), running->deferred.end(), key) ==
        running->deferred.end()) {
      running->deferred.push_back(key);
    }
    return true;
  }
  return false;
}

bool NexthopToViaNexthopSm::configChangeNext(ConfigChange& change, NexthopIntfId& next) {
  while (!change.deferred.empty()) {
    const NexthopIntfId key = change.deferred.front();
    change.deferred.erase(change.deferred.begin());
    const NexthopRequest::Ptr request = allNexthopRequests_->request(change.nexthop);
    const bool applied = request && request->intfViaInfoHas(key.intfId());
    const bool wanted = config_ && config_->configHas(key);
    if (applied != wanted) {
      next = key;
      return true;
    }
  }
  return false;
}

void NexthopToViaNexthopSm::handleNexthopBacklog() {
  DUALLOG_TRACE(8, "vrfName: ", vrfName_);
  // Re-entered by the removals below and by whatever their handlers queue: the walk under way
  // takes that up, so the nested call has nothing to do.
  if (drainingBacklog_) return;
  // Held for the walk: a handler may drop the stage's own reference.
  const Routing::NexthopBacklog::Ptr backlog = nexthopBacklog_;
  if (!backlog) return;
  struct Draining {
    bool& flag;
    explicit Draining(bool& f) : flag(f) { flag = true; }
    ~Draining() { flag = false; }
  } draining(drainingBacklog_);
  const Routing::NexthopBacklog::BacklogColl& addrs = backlog->backlog();
  // An address queued during the walk may land behind it or reorder it: walk until none is left.
  while (!addrs.empty()) {
    for (auto it = addrs.begin(); it != addrs.end(); ++it) {
      // Copied: the removal below destroys the member the iterator points at.
      const Netval::IpGenAddr addr = *it;
      DUALLOG_TRACE(8, "Backlog nexthopResolver addr: ", addr);
      backlog->backlogDel(addr);
      handleNexthopStatus(addr);
    }
  }
}

void NexthopToViaNexthopSm::handleNexthopStatus(const Netval::IpGenAddr& addr) {
  const NexthopRequest::Ptr request = allNexthopRequests_->request(addr);
  if (!request) return;
  DUALLOG_TRACE(8, "Proceeding to reviewNexthopRequest for nexthop ", addr);
  reviewNexthopRequest(request);
}

void NexthopToViaNexthopSm::fecCopy(Memtab::Fib::FecId fecId) {
  static const Memtab::FibGen::Fec viaLess;
  // A failed mount upstream leaves no table: it reads as a table without FECs.
  if (!forwardingGenStatus_) {
    fec_ = viaLess;
    return;
  }
  try {
    forwardingGenStatus_->fecInto(fecId, fec_);
  } catch (const Memtab::FibGen::CorruptionError& error) {
    forwardingGenStatus_->doCorruptionDetected(error.what());
    fec_ = viaLess;
  }
}

// The record's type is written in full: a compiler prints a template argument of a traced
// signature as written or in full, and only the full form reads the same with all.
void NexthopToViaNexthopSm::reviewNexthopRequest(
    const Core::Ptr<FwdL3Unicast::NexthopRequest>& request) {
  const Netval::IpGenAddr nh = request->nexthop();
  const uint64_t generation = request->reviewGeneration() + 1;
  request->reviewGenerationIs(generation);
  // Empty between reviews; a review this one runs inside may have left scratch values, which
  // would bias the tie-break towards vias the FEC no longer has.
  for (const IntfViaInfo::Ptr& info : request->intfViaInfo()) info->cachedViaNexthopIs(emptyAddr());
  // One look-up serves both the resolved test and the FEC id.
  const Routing::NexthopStatusEntry* entry =
      nexthopVrfStatus_ ? nexthopVrfStatus_->nexthopFind(nh) : nullptr;
  if (entry) {
    const Memtab::Fib::FecId fecId = entry->fecId();
    fecCopy(fecId);
    const Memtab::FibGen::Fec& fec = fec_;
    const size_t viaCount = fec.viaCount();
    DUALLOG_TRACE(8, "Addr resolved for ", nh, " fec id: ", fecId, " number of via: ", viaCount);
    for (uint32_t i = 0; i < viaCount; ++i) {
      const Memtab::FibGen::Via& via = fec.via(Memtab::Fib::ViaIndex(i));
      const Netval::IntfId intf = via.intfId();
      // Formatted in place: this runs for every via of every review.
      DUALLOG_TRACE(8, "viaNexthop: ", via.hop(), ", IntfId: ", Netval::IntfShortName(intf));
      const IntfViaInfo::Ptr info = request->intfViaInfo(intf);
      if (!info) continue;
      const Netval::IpGenAddr& candidate = viaCandidate(via.hop(), nh);
      DUALLOG_TRACE(8, "Via found for nexthop ", nh, " through interface ", intf,
                    " and viaNexthop ", candidate);
      cacheCandidate(*info, candidate);
    }
  }
  for (const IntfViaInfo::Ptr& info : request->intfViaInfo()) {
    info->viaNexthopIs(info->cachedViaNexthop());
    info->cachedViaNexthopIs(emptyAddr());
    // Copied: the publication's handlers may change the collection under the loop.
    const Netval::IntfId intfId = info->intfId();
    const Netval::IpGenAddr viaNexthop = info->viaNexthop();
    if (isEmpty(viaNexthop)) {
      DUALLOG_TRACE(8, "No via found for nexthop ", nh, " through interface ", intfId);
    }
    reviewNexthop(nh, intfId, viaNexthop);
    // A review started by a handler of this publication has published every interface anew.
    if (request->reviewGeneration() != generation) return;
  }
}

void NexthopToViaNexthopSm::reviewNexthop(const Netval::IpGenAddr& nexthop, Netval::IntfId intfId,
                                          const Netval::IpGenAddr& viaNexthop) {
  DUALLOG_TRACE(8, "ViaNexthop info for nexthop ", nexthop, " intfId ", intfId, "  is ",
                viaNexthop);
  const NexthopIntfId key(nexthop, intfId);
  if (isEmpty(viaNexthop)) {
    status_->mapDel(key);
    return;
  }
  // Set on every review; the map notifies only when the entry changes.
  status_->mapIs(NexthopToViaNexthopMapEntry(key, viaNexthop));
}

void NexthopToViaNexthopSm::doCleanup() {
  DUALLOG_TRACE(8, "vrfName ", vrfName_);
  nexthopVrfConfig_->nexthopDelAll();
  if (nexthopBacklog_) nexthopBacklog_->backlogDelAll();
  nexthopBacklogDel();
  status_->mapDelAll();
}

void NexthopToViaNexthopSm::retire() {
  if (retired_) return;
  hasNotificationActiveIs(false);
  if (fibMonitorHelperSm_) fibMonitorHelperSm_->hasNotificationActiveIs(false);
  retired_ = true;
  doCleanup();
}

void NexthopToViaNexthopSm::allNexthopRequestsIs() {
  if (!allNexthopRequests_) allNexthopRequests_ = AllNexthopRequests::AllNexthopRequestsIs();
}

void NexthopToViaNexthopSm::nexthopBacklogIs(const Core::Ptr<Routing::NexthopBacklog>& backlog) {
  backlogSlot_.notifierIs(backlog.get());
  nexthopBacklog_ = backlog;
}

void NexthopToViaNexthopSm::nexthopBacklogDel() {
  backlogSlot_.notifierIs(nullptr);
  nexthopBacklog_ = nullptr;
}

void NexthopToViaNexthopSm::fibMonitorHelperSmIs(
    const std::string& clientName,
    const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
    const Core::Ptr<Routing::NexthopBacklog>& nexthopBacklog,
    const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingStatus,
    const Core::Ptr<Hub::TaskScheduler>& scheduler) {
  const Routing::FibMonitorHelperSm::Ptr& held = fibMonitorHelperSm_;
  const bool same = held && held->clientName() == clientName &&
                    held->nexthopVrfStatus() == nexthopVrfStatus &&
                    held->nexthopBacklog() == nexthopBacklog &&
                    held->forwardingStatus() == forwardingStatus && held->scheduler() == scheduler;
  if (!same) {
    fibMonitorHelperSm_ = Routing::FibMonitorHelperSm::FibMonitorHelperSmIs(
        clientName, nexthopVrfStatus, nexthopBacklog, forwardingStatus, scheduler);
  }
  fibMonitorHelperSm_->hasNotificationActiveIs(true);
}

void NexthopToViaNexthopSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopToViaNexthopSm - %s\n", vrfName_.c_str());
  ctx.line(indent + 2, "config\n");
  ctx.dumpChild(config_.get(), indent + 4);
  ctx.line(indent + 2, "status\n");
  ctx.genericDump(*status_, indent + 4);
  if (!allNexthopRequests_) {
    Core::dumpCount(ctx, indent, "allNexthopRequests", 0);
    return;
  }
  Core::dumpChildren(ctx, indent, "allNexthopRequests", allNexthopRequests_->request());
}

}  // namespace FwdL3Unicast

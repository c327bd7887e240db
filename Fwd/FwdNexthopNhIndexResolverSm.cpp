#include "Fwd/FwdNexthopNhIndexResolverSm.h"

#include <algorithm>
#include <string>
#include <utility>

#include "framework/Assert.h"
#include "framework/CollectionOps.h"
#include "framework/DualLog.h"
#include "framework/KilnMemtab.h"

namespace FwdL3Unicast {

namespace {

[[gnu::always_inline]] inline DualLog::Handle& traceHandle() {
  static DualLog::Handle handle("FwdNexthopNhIndexResolverSm", false);
  return handle;
}

// Where the host publishes a VRF's own FEC table in per-VRF FEC mode.
constexpr std::string_view kVrfForwardingStatusPath = "forwardingGen/vrf/status/";
constexpr std::string_view kForwardingStatusType = "Memtab::FibGen::ForwardingStatus";
constexpr uint32_t kForwardingStatusMountInfo = 3;

}  // namespace

NexthopIntfIdColl::Ptr AllVrfNexthopNhIndexResolverConfigDir::vrfConfigIs(
    const L3::VrfName& vrfName) {
  return Core::childIs(vrfConfig_, vrfName, &nexthopIntfIdCollFactory);
}

void AllVrfNexthopNhIndexResolverConfigDir::dumpState(Core::DumpContext& ctx,
                                                      uint32_t indent) const {
  ctx.line(indent, "AllVrfNexthopNhIndexResolverConfigDir\n");
  Core::dumpChildren(ctx, indent, "vrfConfig", vrfConfig_);
}

void AllVrfNexthopNhIndexResolverStatusDir::vrfStatusIs(const ViaNexthopMacToNhIndexMap::Ptr& map) {
  if (!map) {
    throw Core::NullArgumentError(
        "FwdL3Unicast::AllVrfNexthopNhIndexResolverStatusDir::vrfStatusIs: null map");
  }
  vrfStatus_.set(map);
}

void AllVrfNexthopNhIndexResolverStatusDir::dumpState(Core::DumpContext& ctx,
                                                      uint32_t indent) const {
  ctx.line(indent, "AllVrfNexthopNhIndexResolverStatusDir\n");
  Core::dumpChildren(ctx, indent, "vrfStatus", vrfStatus_);
}

VrfNexthopNhIndexResolverSm::Ptr AllVrfNexthopNhIndexResolverSm::smIs(
    const L3::VrfName& vrfName, const VrfNexthopNhIndexResolverInputs& inputs) {
  if (VrfNexthopNhIndexResolverSm::Ptr existing = sm_.get(vrfName)) {
    if (vrfNexthopNhIndexResolverInputs(*existing) == inputs) return existing;
    throw Core::ReinstantiationError("FwdL3Unicast::AllVrfNexthopNhIndexResolverSm::smIs: vrf " +
                                     std::string(vrfName.str()) +
                                     " already has a pipeline built from other inputs");
  }
  VrfNexthopNhIndexResolverSm::Ptr created = vrfNexthopNhIndexResolverSmFactory(vrfName, inputs);
  sm_.set(created);
  return created;
}

bool AllVrfNexthopNhIndexResolverSm::smDel(const L3::VrfName& vrfName) {
  const VrfNexthopNhIndexResolverSm::Ptr removed = sm_.get(vrfName);
  if (!removed) return false;
  sm_.del(vrfName);
  // Retired now, not when the last reference goes: a handler still running may hold the
  // pipeline, and a successor for the VRF may be built before that handler returns.
  removed->retire();
  return true;
}

void AllVrfNexthopNhIndexResolverSm::smDelAll() {
  for (auto it = sm_.begin(); it != sm_.end(); ++it) {
    const L3::VrfName vrfName = it.key();
    smDel(vrfName);
  }
}

void AllVrfNexthopNhIndexResolverSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "AllVrfNexthopNhIndexResolverSm\n");
  Core::dumpChildren(ctx, indent, "sm", sm_);
}

NexthopNhIndexResolverSm::NestedSm_VrfStatus::NestedSm_VrfStatus(ViaNexthopMacToNhIndexMap::Ptr map,
                                                                 NexthopNhIndexResolverSm* owner)
    : vrfName_(map->vrfName()), notifier_(std::move(map)), owner_(owner) {}

NexthopNhIndexResolverSm::NestedSm_VrfStatus::Ptr
NexthopNhIndexResolverSm::NestedSm_VrfStatus::NestedSm_VrfStatusIs(
    ViaNexthopMacToNhIndexMap::Ptr map, NexthopNhIndexResolverSm* owner) {
  return Ptr(new NestedSm_VrfStatus(std::move(map), owner));
}

void NexthopNhIndexResolverSm::NestedSm_VrfStatus::notifierIs(ViaNexthopMacToNhIndexMap::Ptr map) {
  mapSlot_.notifierIs(map.get());
  notifier_ = std::move(map);
}

void NexthopNhIndexResolverSm::NestedSm_VrfStatus::handleVrfNexthopNhIndexResolverStatus(
    const NexthopIntfId& nexthopIntfId) {
  const NexthopNhIndexResolverKey key(notifier_->vrfName(), nexthopIntfId);
  const NexthopNhIndexResolverStatusDir::Ptr& statusDir = owner_->statusDir();
  if (const ViaNexthopMacToNhIndexMapEntry* entry = notifier_->map().find(nexthopIntfId)) {
    DUALLOG_TRACE(8, "Publishing resolution for vrfName: ", key.vrfName(),
                  " nexthop: ", key.nexthop(), " intfId: ", key.intfId(),
                  " nhIndex=", entry->nhIndex());
    if (statusDir) statusDir->statusIs(NexthopNhIndexResolverStatus(key, entry->nhIndex()));
    return;
  }
  DUALLOG_TRACE(8, "Deleting resolution for vrfName: ", key.vrfName(), " nexthop: ", key.nexthop(),
                " intfId: ", key.intfId());
  statusDir->statusDel(key);
}

void NexthopNhIndexResolverSm::NestedSm_VrfStatus::withdrawPublished() {
  // Empty unless the VRF's last request went while a stage was still applying an earlier
  // change: the entries left then would never reach this reactor again.
  std::vector<NexthopIntfId> left;
  for (const ViaNexthopMacToNhIndexMapEntry& entry : notifier_->map()) {
    left.push_back(entry.nexthopIntfId());
  }
  const NexthopNhIndexResolverStatusDir::Ptr& statusDir = owner_->statusDir();
  for (const NexthopIntfId& nexthopIntfId : left) {
    const NexthopNhIndexResolverKey key(vrfName_, nexthopIntfId);
    DUALLOG_TRACE(8, "Deleting resolution for vrfName: ", key.vrfName(),
                  " nexthop: ", key.nexthop(), " intfId: ", key.intfId());
    if (statusDir) statusDir->statusDel(key);
  }
}

void NexthopNhIndexResolverSm::vrfStatusIs(const ViaNexthopMacToNhIndexMap::Ptr& map) {
  if (!map) {
    throw Core::NullArgumentError("FwdL3Unicast::NexthopNhIndexResolverSm::vrfStatusIs: null map");
  }
  if (const NestedSm_VrfStatus::Ptr existing = vrfStatus_.get(map->vrfName())) {
    existing->notifierIs(map);
    return;
  }
  vrfStatus_.set(NestedSm_VrfStatus::NestedSm_VrfStatusIs(map, this));
}

void NexthopNhIndexResolverSm::vrfStatusDel(const L3::VrfName& vrfName) {
  const NestedSm_VrfStatus::Ptr removed = vrfStatus_.get(vrfName);
  if (!removed) return;
  removed->hasNotificationActiveIs(false);
  removed->withdrawPublished();
  vrfStatus_.del(vrfName);
}

void NexthopNhIndexResolverSm::vrfStatusDelAll() {
  for (auto it = vrfStatus_.begin(); it != vrfStatus_.end(); ++it) {
    const L3::VrfName vrfName = it.key();
    vrfStatusDel(vrfName);
  }
}

void NexthopNhIndexResolverSm::handleVrfStatus(const L3::VrfName& vrfName) {
  if (ViaNexthopMacToNhIndexMap::Ptr map =
          allVrfNexthopNhIndexResolverStatusDir_->vrfStatus(vrfName)) {
    vrfStatusIs(map);
  } else {
    vrfStatusDel(vrfName);
  }
}

void NexthopNhIndexResolverSm::handleNexthopInfo(const Plane::NextHopKey& nextHopKey) {
  const Netval::EthAddr macAddr = nextHopInfoWrapper_->nextHopInfo(nextHopKey).ethAddr();
  DUALLOG_TRACE(8, "Nexthop notification for nexthop : ", nextHopKey, " mac address : ", macAddr);
  const AllVrfNexthopNhIndexResolverSm::Coll& pipelines = allVrfNexthopNhIndexResolverSm_->sm();
  // A pipeline being built is not in the collection yet: it is handed the key once it is.
  if (!pipelinesChanging_.empty()) neighboursMissed_.push_back(nextHopKey);
  // The names first: a pipeline's reaction may drop and rebuild a VRF's pipeline, and the
  // insertion may reorder the collection under a walk, which would then skip pipelines.
  std::vector<L3::VrfName> vrfNames;
  vrfNames.reserve(pipelines.size());
  for (auto it = pipelines.begin(); it != pipelines.end(); ++it) vrfNames.push_back(it.key());
  for (const L3::VrfName& vrfName : vrfNames) {
    // Looked up again by name: an earlier pipeline's reaction may have dropped this one.
    if (const VrfNexthopNhIndexResolverSm::Ptr sm = allVrfNexthopNhIndexResolverSm_->sm(vrfName)) {
      sm->handleNexthopInfo(nextHopKey);
    }
  }
}

NexthopNhIndexResolverSm::NexthopNhIndexResolverSm(
    Core::Ptr<Store::EntityManager> em, Core::Ptr<const NexthopNhIndexResolverConfigDir> configDir,
    Core::Ptr<Routing::NexthopConfig> nexthopConfig,
    Core::Ptr<const Routing::NexthopStatus> nexthopStatus,
    Core::Ptr<Memtab::Fib::FecModeStatus> fecModeStatus,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
    Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
    Core::Ptr<Arp::ProactiveArp::ClientConfig> proactiveArpNexthop,
    Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<NexthopNhIndexResolverStatusDir> statusDir)
    : em_(std::move(em)),
      configDir_(std::move(configDir)),
      nexthopConfig_(std::move(nexthopConfig)),
      nexthopStatus_(std::move(nexthopStatus)),
      fecModeStatus_(std::move(fecModeStatus)),
      forwardingGenStatus_(std::move(forwardingGenStatus)),
      nextHopInfoWrapper_(std::move(nextHopInfoWrapper)),
      vrfStatusAll_(std::move(vrfStatusAll)),
      l3Modules_(std::move(l3Modules)),
      proactiveArpNexthop_(std::move(proactiveArpNexthop)),
      scheduler_(std::move(scheduler)),
      statusDir_(std::move(statusDir)) {
  handleInitialized();
  // Results already in the maps are not replayed: they are published once a pipeline rebuilds
  // them.
  const AllVrfNexthopNhIndexResolverStatusDir::Coll& maps =
      allVrfNexthopNhIndexResolverStatusDir_->vrfStatus();
  for (auto it = maps.begin(); it != maps.end(); ++it) {
    const ViaNexthopMacToNhIndexMap::Ptr map = *it;
    vrfStatusIs(map);
  }
  vrfStatusDirSlot_.notifierIs(allVrfNexthopNhIndexResolverStatusDir_.get());
}

NexthopNhIndexResolverSm::Ptr NexthopNhIndexResolverSm::NexthopNhIndexResolverSmIs(
    Core::Ptr<Store::EntityManager> em, Core::Ptr<const NexthopNhIndexResolverConfigDir> configDir,
    Core::Ptr<Routing::NexthopConfig> nexthopConfig,
    Core::Ptr<const Routing::NexthopStatus> nexthopStatus,
    Core::Ptr<Memtab::Fib::FecModeStatus> fecModeStatus,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
    Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
    Core::Ptr<Arp::ProactiveArp::ClientConfig> proactiveArpNexthop,
    Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<NexthopNhIndexResolverStatusDir> statusDir) {
  return Ptr(new NexthopNhIndexResolverSm(
      std::move(em), std::move(configDir), std::move(nexthopConfig), std::move(nexthopStatus),
      std::move(fecModeStatus), std::move(forwardingGenStatus), std::move(nextHopInfoWrapper),
      std::move(vrfStatusAll), std::move(l3Modules), std::move(proactiveArpNexthop),
      std::move(scheduler), std::move(statusDir)));
}

NexthopNhIndexResolverSm::Ptr nexthopNhIndexResolverSmFactory(
    Core::Ptr<Store::EntityManager> em, Core::Ptr<const NexthopNhIndexResolverConfigDir> configDir,
    Core::Ptr<Routing::NexthopConfig> nexthopConfig,
    Core::Ptr<const Routing::NexthopStatus> nexthopStatus,
    Core::Ptr<Memtab::Fib::FecModeStatus> fecModeStatus,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
    Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
    Core::Ptr<Arp::ProactiveArp::ClientConfig> proactiveArpNexthop,
    Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<NexthopNhIndexResolverStatusDir> statusDir) {
  NexthopNhIndexResolverSm::Ptr root = NexthopNhIndexResolverSm::NexthopNhIndexResolverSmIs(
      std::move(em), std::move(configDir), std::move(nexthopConfig), std::move(nexthopStatus),
      std::move(fecModeStatus), std::move(forwardingGenStatus), std::move(nextHopInfoWrapper),
      std::move(vrfStatusAll), std::move(l3Modules), std::move(proactiveArpNexthop),
      std::move(scheduler), std::move(statusDir));
  root->hasNotificationActiveIs(true);
  return root;
}

NexthopNhIndexResolverSm::Ptr nexthopNhIndexResolverSmFactory(
    const NexthopNhIndexResolverInputs& inputs) {
  return nexthopNhIndexResolverSmFactory(
      inputs.em, inputs.configDir, inputs.nexthopConfig, inputs.nexthopStatus, inputs.fecModeStatus,
      inputs.forwardingGenStatus, inputs.nextHopInfoWrapper, inputs.vrfStatusAll, inputs.l3Modules,
      inputs.proactiveArpNexthop, inputs.scheduler, inputs.statusDir);
}

NexthopNhIndexResolverInputs NexthopNhIndexResolverInputs::fresh() {
  return {Store::EntityManager::EntityManagerIs(),
          nexthopNhIndexResolverConfigDirFactory(),
          Routing::NexthopConfig::NexthopConfigIs(),
          Routing::NexthopStatus::NexthopStatusIs(),
          Memtab::Fib::FecModeStatus::FecModeStatusIs(),
          Memtab::FibGen::ForwardingStatus::ForwardingStatusIs(),
          Plane::NextHopInfoWrapper::NextHopInfoWrapperIs(),
          Plane::VrfL3StatusAll::VrfL3StatusAllIs(),
          L3Modules::L3ModulesIs(),
          Arp::ProactiveArp::ClientConfig::ClientConfigIs(),
          Hub::TaskScheduler::TaskSchedulerIs(),
          nexthopNhIndexResolverStatusDirFactory()};
}

NexthopNhIndexResolverSm::~NexthopNhIndexResolverSm() {
  hasNotificationActiveIs(false);
  vrfStatus_.delAll();
}

void NexthopNhIndexResolverSm::handleInitialized() {
  DUALLOG_TRACE(8, "");
  statusDir_->statusDelAll();
  proactiveArpNexthopSm_ =
      Plane::ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(proactiveArpNexthop_);
  nexthopConfig_->vrfDelAll();
  allVrfNexthopNhIndexResolverConfigDir_ = allVrfNexthopNhIndexResolverConfigDirFactory();
  allVrfNexthopNhIndexResolverStatusDir_ = allVrfNexthopNhIndexResolverStatusDirFactory();
  allVrfNexthopNhIndexResolverSm_ = allVrfNexthopNhIndexResolverSmFactory();
  handleConfig();
}

void NexthopNhIndexResolverSm::handleConfig() {
  DUALLOG_TRACE(8, "");
  const Core::KeySet<NexthopNhIndexResolverKey>& requests = configDir_->config();
  for (auto it = requests.begin(); it != requests.end(); ++it) {
    // A copy: the handlers this request runs may change the collection.
    const NexthopNhIndexResolverKey key = it.key();
    handleConfig(key);
  }
}

void NexthopNhIndexResolverSm::handleConfig(const NexthopNhIndexResolverKey& key) {
  // clang-format off
  CORE_ASSERT( ( key.nexthop().af() == Netval::AddressFamily::ipv4_ ) && ( !key.nexthop().isAddrZero() ) );
  // clang-format on
  const L3::VrfName& vrfName = key.vrfName();
  NexthopIntfIdColl::Ptr vrfConfig = allVrfNexthopNhIndexResolverConfigDir_->vrfConfig(vrfName);
  const NexthopIntfId nexthopIntfId(key.nexthop(), key.intfId());

  if (configDir_->configHas(key)) {
    DUALLOG_TRACE(8, "Resolve request added - vrf: ", vrfName, " nexthop: ", key.nexthop(),
                  " intfId: ", key.intfId());
    if (!vrfConfig) {
      DUALLOG_TRACE(8, "New vrf to track: ", vrfName);
      vrfConfig = allVrfNexthopNhIndexResolverConfigDir_->vrfConfigIs(vrfName);
      // clang-format off
      CORE_ASSERT( !allVrfNexthopNhIndexResolverStatusDir()->vrfStatusHas( key.vrfName() ) );
      // clang-format on
      allVrfNexthopNhIndexResolverStatusDir_->vrfStatusIs(
          viaNexthopMacToNhIndexMapFactory(vrfName));
      // clang-format off
      CORE_ASSERT( !nexthopConfig()->vrfHas( key.vrfName() ) );
      // clang-format on
      nexthopConfig_->vrfIs(vrfName, Routing::fecIdTypeDefault);
      checkAndInstantiateVrfSm(vrfName);
    }
    // clang-format off
    CORE_ASSERT( !vrfConfig->configHas( nexthopIntfId ) );
    // clang-format on
    // Deliberate: unreachable after the assertion, but the duplicate-request trace stays.
    if (vrfConfig->configHas(nexthopIntfId)) DUALLOG_TRACE(8, "Duplicate Resolve request");
    vrfConfig->configIs(nexthopIntfId);
    return;
  }

  DUALLOG_TRACE(8, "Resolve request delete - vrf: ", vrfName, " nexthop: ", key.nexthop(),
                " intfId: ", key.intfId());
  CORE_ASSERT(vrfConfig);
  // clang-format off
  CORE_ASSERT( vrfConfig->configHas( nexthopIntfId ) );
  // clang-format on
  vrfConfig->configDel(nexthopIntfId);
  // Handlers of the removal may have taken the VRF down and tracked it anew, with a request
  // collection of its own: the VRF is then theirs, whatever this one now holds. The count is
  // tested first: it spares most removals the look-up of the VRF.
  if (vrfConfig->configCount() != 0 || !vrfConfigCurrent(vrfName, vrfConfig)) return;
  DUALLOG_TRACE(8, "Last nexthop for the vrf ", vrfName, "  being deleted ");
  checkAndDestroyVrfSm(vrfName);
  if (!vrfConfigCurrent(vrfName, vrfConfig)) return;
  // A handler of the teardown requested the VRF again: it stays tracked.
  if (vrfConfig->configCount() != 0) {
    checkAndInstantiateVrfSm(vrfName);
    return;
  }
  nexthopConfig_->vrfDel(vrfName);
  allVrfNexthopNhIndexResolverStatusDir_->vrfStatusDel(vrfName);
  allVrfNexthopNhIndexResolverConfigDir_->vrfConfigDel(vrfName);
}

bool NexthopNhIndexResolverSm::vrfConfigCurrent(const L3::VrfName& vrfName,
                                                const NexthopIntfIdColl::Ptr& vrfConfig) const {
  return allVrfNexthopNhIndexResolverConfigDir_->vrfConfig(vrfName) == vrfConfig;
}

void NexthopNhIndexResolverSm::handleNexthopVrfStatus(const L3::VrfName& vrfName) {
  if (nexthopStatus_->vrf(vrfName)) {
    DUALLOG_TRACE(8, "nexthopVrfStatus created for vrf: ", vrfName);
    checkAndInstantiateVrfSm(vrfName);
  } else {
    DUALLOG_TRACE(8, "nexthopVrfStatus deleted for vrf: ", vrfName);
    checkAndDestroyVrfSm(vrfName);
  }
}

void NexthopNhIndexResolverSm::handleVrfL3Status(const L3::VrfName& vrfName) {
  if (vrfStatusAll_->vrfStatus(vrfName)) {
    DUALLOG_TRACE(8, "vrf: ", vrfName, " status added");
    checkAndInstantiateVrfSm(vrfName);
  } else {
    DUALLOG_TRACE(8, "vrf: ", vrfName, " status deleted");
    checkAndDestroyVrfSm(vrfName);
  }
}

Core::Ptr<const Memtab::FibGen::ForwardingStatus> NexthopNhIndexResolverSm::mountedForwardingStatus(
    const L3::VrfName& vrfName) const {
  const KilnMemtab::Mount::Ptr mount = KilnMemtab::Mount::MountIs(em_);
  mount->handleInitialized();
  std::string path(kVrfForwardingStatusPath);
  path += vrfName.str();
  mount->doMount(path, kForwardingStatusType, kForwardingStatusMountInfo);
  return Core::dynamicPtrCast<const Memtab::FibGen::ForwardingStatus>(mount->getEntity(path));
}

bool NexthopNhIndexResolverSm::pipelineChanging(const L3::VrfName& vrfName) {
  if (std::find(pipelinesChanging_.begin(), pipelinesChanging_.end(), vrfName) ==
      pipelinesChanging_.end()) {
    return false;
  }
  if (std::find(pipelinesToCheck_.begin(), pipelinesToCheck_.end(), vrfName) ==
      pipelinesToCheck_.end()) {
    pipelinesToCheck_.push_back(vrfName);
  }
  return true;
}

template <class Change>
void NexthopNhIndexResolverSm::pipelineChange(const L3::VrfName& vrfName, Change&& change) {
  struct Changing {
    std::vector<L3::VrfName>& changing;
    ~Changing() { changing.pop_back(); }
  };
  const size_t missedBefore = neighboursMissed_.size();
  {
    pipelinesChanging_.push_back(vrfName);
    const Changing changing{pipelinesChanging_};
    change();
  }
  if (neighboursMissed_.size() != missedBefore) {
    // By index: the pipeline's reactions may add keys (and so reallocate).
    if (const VrfNexthopNhIndexResolverSm::Ptr built =
            allVrfNexthopNhIndexResolverSm_->sm(vrfName)) {
      for (size_t i = missedBefore; i < neighboursMissed_.size(); ++i) {
        const Plane::NextHopKey key = neighboursMissed_[i];
        built->handleNexthopInfo(key);
      }
    }
  }
  if (pipelinesChanging_.empty()) neighboursMissed_.clear();
  if (std::erase(pipelinesToCheck_, vrfName) == 0) return;
  if (nexthopStatus_->vrf(vrfName) && nexthopConfig_->vrf(vrfName) &&
      vrfStatusAll_->vrfStatus(vrfName)) {
    checkAndInstantiateVrfSm(vrfName);
  } else {
    checkAndDestroyVrfSm(vrfName);
  }
}

void NexthopNhIndexResolverSm::checkAndInstantiateVrfSm(const L3::VrfName& vrfName) {
  if (pipelineChanging(vrfName)) return;
  const Routing::NexthopVrfStatus::Ptr nexthopVrfStatus = nexthopStatus_->vrf(vrfName);
  const Routing::NexthopVrfConfig::Ptr nexthopVrfConfig = nexthopConfig_->vrf(vrfName);
  if (!nexthopVrfStatus || !nexthopVrfConfig || !vrfStatusAll_->vrfStatus(vrfName)) return;
  DUALLOG_TRACE(8, "Instantiating VrfNexthopNhIndexResolverSm for vrf: ", vrfName,
                " fecMode: ", fecModeStatus_->fecMode());

  const NexthopIntfIdColl::Ptr config = allVrfNexthopNhIndexResolverConfigDir_->vrfConfig(vrfName);
  CORE_ASSERT(config);
  const ViaNexthopMacToNhIndexMap::Ptr status =
      allVrfNexthopNhIndexResolverStatusDir_->vrfStatus(vrfName);
  CORE_ASSERT(status);

  Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingStatus = forwardingGenStatus_;
  if (vrfName.str() != L3::defaultVrf &&
      fecModeStatus_->fecMode() != Memtab::Fib::fecModeGlobal()) {
    CORE_ASSERT(fecModeStatus()->fecMode() == Memtab::Fib::fecModePerVrf());
    forwardingStatus = mountedForwardingStatus(vrfName);
  }
  const VrfNexthopNhIndexResolverInputs inputs{config,
                                               nexthopVrfConfig,
                                               nexthopVrfStatus,
                                               forwardingStatus,
                                               nextHopInfoWrapper_,
                                               vrfStatusAll_,
                                               l3Modules_,
                                               proactiveArpNexthopSm_,
                                               scheduler_,
                                               status};
  const VrfNexthopNhIndexResolverSm::Ptr running = allVrfNexthopNhIndexResolverSm_->sm(vrfName);
  if (running && !(vrfNexthopNhIndexResolverInputs(*running) == inputs)) {
    // Built on inputs that a nested handler replaced (the VRF untracked and tracked again) before
    // the root heard of it: dropped, then everything is looked up afresh.
    checkAndDestroyVrfSm(vrfName);
    checkAndInstantiateVrfSm(vrfName);
    return;
  }
  pipelineChange(vrfName, [&] { allVrfNexthopNhIndexResolverSm_->smIs(vrfName, inputs); });
}

void NexthopNhIndexResolverSm::checkAndDestroyVrfSm(const L3::VrfName& vrfName) {
  if (pipelineChanging(vrfName)) return;
  if (!allVrfNexthopNhIndexResolverSm_->sm(vrfName)) return;
  DUALLOG_TRACE(8, "Destroying VrfNexthopNhIndexResolverSm of vrf: ", vrfName);
  pipelineChange(vrfName, [&] { allVrfNexthopNhIndexResolverSm_->smDel(vrfName); });
}

void NexthopNhIndexResolverSm::doCleanup() {
  DUALLOG_TRACE(8, "");
  allVrfNexthopNhIndexResolverSm_->smDelAll();
  allVrfNexthopNhIndexResolverStatusDir_->vrfStatusDelAll();
  allVrfNexthopNhIndexResolverConfigDir_->vrfConfigDelAll();
  nexthopConfig_->vrfDelAll();
  proactiveArpNexthopSm_ = nullptr;
  statusDir_->statusDelAll();
}

void NexthopNhIndexResolverSm::hasNotificationActiveIs(bool active) {
  Core::Reactor::hasNotificationActiveIs(active);
  for (const NestedSm_VrfStatus::Ptr& nested : vrfStatus_) nested->hasNotificationActiveIs(active);
}

void NexthopNhIndexResolverSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopNhIndexResolverSm\n");
  ctx.line(indent + 2, "configDir\n");
  ctx.dumpChild(configDir_.get(), indent + 4);
  ctx.line(indent + 2, "statusDir\n");
  ctx.dumpChildPointer(statusDir_.get(), indent + 4);
  Core::dumpCount(ctx, indent, "allVrfNexthopNhIndexResolverConfigDir",
                  allVrfNexthopNhIndexResolverConfigDir_->vrfConfigCount());
  Core::dumpChildren(ctx, indent, "allVrfNexthopNhIndexResolverSm",
                     allVrfNexthopNhIndexResolverSm_->sm());
}

}  // namespace FwdL3Unicast

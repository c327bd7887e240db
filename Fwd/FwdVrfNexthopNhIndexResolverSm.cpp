#include "Fwd/FwdVrfNexthopNhIndexResolverSm.h"

#include <utility>

#include "framework/Assert.h"
#include "framework/DualLog.h"

namespace FwdL3Unicast {

namespace {

[[gnu::always_inline]] inline DualLog::Handle& traceHandle() {
  static DualLog::Handle handle("FwdVrfNexthopNhIndexResolverSm", false);
  return handle;
}

// Whether a stage's stored argument is the very object given (a stage may store it read-only).
template <class Held, class Given>
bool same(const Core::Ptr<Held>& held, const Core::Ptr<Given>& given) {
  return held.get() == given.get();
}

// Stores the stage that `build` makes and only then lets the previous one go.
template <class Stage, class Build>
const Core::Ptr<Stage>& replaceStage(Core::Ptr<Stage>& held, Build build) {
  Core::Ptr<Stage> previous = std::exchange(held, build());
  return held;
}

// Switches the stage off and has it clean up before releasing it, so that it does not react to
// what the release of the other stages changes, and so that a handler of it still running (which
// keeps it alive past the release) touches nothing that a successor pipeline writes.
template <class Stage>
void retireStage(const Core::Ptr<Stage>& held) {
  if (held) held->retire();
}

template <class Stage>
void releaseStage(Core::Ptr<Stage>& held) {
  retireStage(held);
  held = nullptr;
}

template <class Stage>
void stageActiveIs(const Core::Ptr<Stage>& stage, bool active) {
  if (stage) stage->hasNotificationActiveIs(active);
}

}  // namespace

VrfNexthopNhIndexResolverSm::VrfNexthopNhIndexResolverSm(
    const L3::VrfName& vrfName, Core::Ptr<const NexthopIntfIdColl> config,
    Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig,
    Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
    Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
    Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm,
    Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<ViaNexthopMacToNhIndexMap> status)
    : vrfName_(vrfName),
      config_(std::move(config)),
      nexthopVrfConfig_(std::move(nexthopVrfConfig)),
      nexthopVrfStatus_(std::move(nexthopVrfStatus)),
      forwardingGenStatus_(std::move(forwardingGenStatus)),
      nextHopInfoWrapper_(std::move(nextHopInfoWrapper)),
      vrfStatusAll_(std::move(vrfStatusAll)),
      l3Modules_(std::move(l3Modules)),
      proactiveArpNexthopSm_(std::move(proactiveArpNexthopSm)),
      scheduler_(std::move(scheduler)),
      status_(std::move(status)) {
  handleInitialized();
}

VrfNexthopNhIndexResolverSm::Ptr VrfNexthopNhIndexResolverSm::VrfNexthopNhIndexResolverSmIs(
    const L3::VrfName& vrfName, Core::Ptr<const NexthopIntfIdColl> config,
    Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig,
    Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
    Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
    Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm,
    Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<ViaNexthopMacToNhIndexMap> status) {
  return Ptr(new VrfNexthopNhIndexResolverSm(
      vrfName, std::move(config), std::move(nexthopVrfConfig), std::move(nexthopVrfStatus),
      std::move(forwardingGenStatus), std::move(nextHopInfoWrapper), std::move(vrfStatusAll),
      std::move(l3Modules), std::move(proactiveArpNexthopSm), std::move(scheduler),
      std::move(status)));
}

VrfNexthopNhIndexResolverSm::Ptr vrfNexthopNhIndexResolverSmFactory(
    const L3::VrfName& vrfName, Core::Ptr<const NexthopIntfIdColl> config,
    Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig,
    Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
    Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
    Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm,
    Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<ViaNexthopMacToNhIndexMap> status) {
  VrfNexthopNhIndexResolverSm::Ptr sm = VrfNexthopNhIndexResolverSm::VrfNexthopNhIndexResolverSmIs(
      vrfName, std::move(config), std::move(nexthopVrfConfig), std::move(nexthopVrfStatus),
      std::move(forwardingGenStatus), std::move(nextHopInfoWrapper), std::move(vrfStatusAll),
      std::move(l3Modules), std::move(proactiveArpNexthopSm), std::move(scheduler),
      std::move(status));
  sm->hasNotificationActiveIs(true);
  return sm;
}

VrfNexthopNhIndexResolverSm::Ptr vrfNexthopNhIndexResolverSmFactory(
    const L3::VrfName& vrfName, const VrfNexthopNhIndexResolverInputs& inputs) {
  return vrfNexthopNhIndexResolverSmFactory(
      vrfName, inputs.config, inputs.nexthopVrfConfig, inputs.nexthopVrfStatus,
      inputs.forwardingGenStatus, inputs.nextHopInfoWrapper, inputs.vrfStatusAll, inputs.l3Modules,
      inputs.proactiveArpNexthopSm, inputs.scheduler, inputs.status);
}

VrfNexthopNhIndexResolverInputs vrfNexthopNhIndexResolverInputs(
    const VrfNexthopNhIndexResolverSm& sm) {
  return {sm.config(),
          sm.nexthopVrfConfig(),
          sm.nexthopVrfStatus(),
          sm.forwardingGenStatus(),
          sm.nextHopInfoWrapper(),
          sm.vrfStatusAll(),
          sm.l3Modules(),
          sm.proactiveArpNexthopSm(),
          sm.scheduler(),
          sm.status()};
}

VrfNexthopNhIndexResolverSm::~VrfNexthopNhIndexResolverSm() {
  hasNotificationActiveIs(false);
  nexthopToViaNexthopMapDel();
  nexthopToViaNexthopMacMapDel();
  nexthopToViaNexthopSmDel();
  viaNexthopToViaNexthopMacSmDel();
  viaNexthopMacToNhIndexSmDel();
}

void VrfNexthopNhIndexResolverSm::retire() {
  hasNotificationActiveIs(false);
  retireStage(nexthopToViaNexthopSm_);
  if (viaNexthopToViaNexthopMacSm_) viaNexthopToViaNexthopMacSm_->retire(config_.get());
  retireStage(viaNexthopMacToNhIndexSm_);
}

const Core::Ptr<NexthopToViaNexthopMap>& VrfNexthopNhIndexResolverSm::nexthopToViaNexthopMapIs() {
  if (!nexthopToViaNexthopMap_) nexthopToViaNexthopMap_ = nexthopToViaNexthopMapFactory();
  return nexthopToViaNexthopMap_;
}

const Core::Ptr<NexthopToViaNexthopMacMap>&
VrfNexthopNhIndexResolverSm::nexthopToViaNexthopMacMapIs() {
  if (!nexthopToViaNexthopMacMap_) nexthopToViaNexthopMacMap_ = nexthopToViaNexthopMacMapFactory();
  return nexthopToViaNexthopMacMap_;
}

const Core::Ptr<NexthopToViaNexthopSm>& VrfNexthopNhIndexResolverSm::nexthopToViaNexthopSmIs(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopIntfIdColl>& config,
    const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig,
    const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
    const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus,
    const Core::Ptr<Hub::TaskScheduler>& scheduler,
    const Core::Ptr<NexthopToViaNexthopMap>& status) {
  const Core::Ptr<NexthopToViaNexthopSm>& held = nexthopToViaNexthopSm_;
  if (held && held->vrfName() == vrfName && same(held->config(), config) &&
      same(held->nexthopVrfConfig(), nexthopVrfConfig) &&
      same(held->nexthopVrfStatus(), nexthopVrfStatus) &&
      same(held->forwardingGenStatus(), forwardingGenStatus) &&
      same(held->scheduler(), scheduler) && same(held->status(), status)) {
    return held;
  }
  return replaceStage(nexthopToViaNexthopSm_, [&] {
    return nexthopToViaNexthopSmFactory(vrfName, config, nexthopVrfConfig, nexthopVrfStatus,
                                        forwardingGenStatus, scheduler, status);
  });
}

void VrfNexthopNhIndexResolverSm::nexthopToViaNexthopSmDel() {
  releaseStage(nexthopToViaNexthopSm_);
}

const Core::Ptr<ViaNexthopToViaNexthopMacSm>&
VrfNexthopNhIndexResolverSm::viaNexthopToViaNexthopMacSmIs(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMap>& config,
    const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper,
    const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll,
    const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm,
    const Core::Ptr<NexthopToViaNexthopMacMap>& status) {
  const Core::Ptr<ViaNexthopToViaNexthopMacSm>& held = viaNexthopToViaNexthopMacSm_;
  if (held && held->vrfName() == vrfName && same(held->config(), config) &&
      same(held->nextHopInfoWrapper(), nextHopInfoWrapper) &&
      same(held->vrfStatusAll(), vrfStatusAll) &&
      same(held->proactiveArpNexthopSm(), proactiveArpNexthopSm) && same(held->status(), status)) {
    return held;
  }
  return replaceStage(viaNexthopToViaNexthopMacSm_, [&] {
    return viaNexthopToViaNexthopMacSmFactory(vrfName, config, nextHopInfoWrapper, vrfStatusAll,
                                              proactiveArpNexthopSm, status);
  });
}

void VrfNexthopNhIndexResolverSm::viaNexthopToViaNexthopMacSmDel() {
  releaseStage(viaNexthopToViaNexthopMacSm_);
}

const Core::Ptr<ViaNexthopMacToNhIndexSm>& VrfNexthopNhIndexResolverSm::viaNexthopMacToNhIndexSmIs(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMacMap>& config,
    const Core::Ptr<const L3Modules>& l3Modules,
    const Core::Ptr<ViaNexthopMacToNhIndexMap>& status) {
  const Core::Ptr<ViaNexthopMacToNhIndexSm>& held = viaNexthopMacToNhIndexSm_;
  if (held && held->vrfName() == vrfName && same(held->config(), config) &&
      same(held->l3Modules(), l3Modules) && same(held->status(), status)) {
    return held;
  }
  return replaceStage(viaNexthopMacToNhIndexSm_, [&] {
    return viaNexthopMacToNhIndexSmFactory(vrfName, config, l3Modules, status);
  });
}

void VrfNexthopNhIndexResolverSm::viaNexthopMacToNhIndexSmDel() {
  releaseStage(viaNexthopMacToNhIndexSm_);
}

void VrfNexthopNhIndexResolverSm::handleInitialized() {
  // Deliberate: the signature is written by hand; this trace's text is fixed, not the compiler's.
  DUALLOG_TRACE_FN(8, "void FwdL3Unicast::VrfNexthopNhIndexResolverSm::handleInitialized()",
                   "vrfName ", vrfName_);
  nexthopToViaNexthopMapIs();
  nexthopToViaNexthopMacMapIs();
  nexthopToViaNexthopSmIs(vrfName_, config_, nexthopVrfConfig_, nexthopVrfStatus_,
                          forwardingGenStatus_, scheduler_, nexthopToViaNexthopMap_);
  viaNexthopToViaNexthopMacSmIs(vrfName_, nexthopToViaNexthopMap_, nextHopInfoWrapper_,
                                vrfStatusAll_, proactiveArpNexthopSm_, nexthopToViaNexthopMacMap_);
  viaNexthopMacToNhIndexSmIs(vrfName_, nexthopToViaNexthopMacMap_, l3Modules_, status_);
}

void VrfNexthopNhIndexResolverSm::handleNexthopInfo(const Plane::NextHopKey& key) {
  // Deliberate: the signature is written by hand; this trace's text is fixed, not the compiler's.
  DUALLOG_TRACE_FN(
      8,
      "void FwdL3Unicast::VrfNexthopNhIndexResolverSm::handleNexthopInfo(const Plane::NextHopKey&)",
      "vrfName ", vrfName_);
  CORE_ASSERT(viaNexthopToViaNexthopMacSm());
  // Held for the call: the stage may make changes that end up dropping this pipeline.
  const Core::Ptr<ViaNexthopToViaNexthopMacSm> stage = viaNexthopToViaNexthopMacSm_;
  stage->handleNexthopInfo(key);
}

void VrfNexthopNhIndexResolverSm::hasNotificationActiveIs(bool active) {
  Core::Reactor::hasNotificationActiveIs(active);
  stageActiveIs(nexthopToViaNexthopSm_, active);
  stageActiveIs(viaNexthopToViaNexthopMacSm_, active);
  stageActiveIs(viaNexthopMacToNhIndexSm_, active);
}

void VrfNexthopNhIndexResolverSm::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "VrfNexthopNhIndexResolverSm - %s\n", vrfName_.c_str());
  ctx.dumpChild(nexthopToViaNexthopSm_.get(), indent + 2);
  ctx.dumpChild(viaNexthopToViaNexthopMacSm_.get(), indent + 2);
  ctx.dumpChild(viaNexthopMacToNhIndexSm_.get(), indent + 2);
}

}  // namespace FwdL3Unicast

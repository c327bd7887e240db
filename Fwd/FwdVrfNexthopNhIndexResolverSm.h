#pragma once

#include <cstdint>
#include <string_view>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdNexthopToViaNexthopSm.h"
#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"
#include "Fwd/FwdViaNexthopToViaNexthopMacSm.h"
#include "framework/Core.h"
#include "framework/CoreDump.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "platform/L3Modules.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"
#include "platform/Routing.h"

namespace FwdL3Unicast {

// The resolution pipeline of one VRF: the two hand-over maps and the three stages, from the
// VRF's requests (config) to its result map (status). Created and dropped by the root resolver;
// publishes nothing itself and reacts only to the neighbour changes the root hands it. Switching
// its notifications off switches its stages off too, so that none reacts to another's teardown.
class VrfNexthopNhIndexResolverSm : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<VrfNexthopNhIndexResolverSm>;

  static Ptr VrfNexthopNhIndexResolverSmIs(
      const L3::VrfName& vrfName, Core::Ptr<const NexthopIntfIdColl> config,
      Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig,
      Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus,
      Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
      Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
      Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
      Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm,
      Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<ViaNexthopMacToNhIndexMap> status);

  // Switches itself and its stages off, releases the maps, then stages 1, 2 and 3 (each retired
  // as it goes), then the inputs: no stage sees the clean-up of another.
  ~VrfNexthopNhIndexResolverSm() override;
  // Switches itself and its stages off and retires stages 1, 2 and 3 in turn, which clean up;
  // they stay held until the pipeline goes. For an owner that drops the pipeline while a
  // handler may still hold it: what the pipeline wrote is gone once this returns, but for the
  // proactive ARP entries of vias that a request of the VRF still needs.
  void retire();

  const L3::VrfName& vrfName() const { return vrfName_; }
  const Core::Ptr<const NexthopIntfIdColl>& config() const { return config_; }
  const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig() const { return nexthopVrfConfig_; }
  const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus() const {
    return nexthopVrfStatus_;
  }
  const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus() const {
    return forwardingGenStatus_;
  }
  const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper() const {
    return nextHopInfoWrapper_;
  }
  const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll() const { return vrfStatusAll_; }
  const Core::Ptr<const L3Modules>& l3Modules() const { return l3Modules_; }
  const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm() const {
    return proactiveArpNexthopSm_;
  }
  const Core::Ptr<Hub::TaskScheduler>& scheduler() const { return scheduler_; }
  const Core::Ptr<ViaNexthopMacToNhIndexMap>& status() const { return status_; }

  const Core::Ptr<NexthopToViaNexthopMap>& nexthopToViaNexthopMap() const {
    return nexthopToViaNexthopMap_;
  }
  const Core::Ptr<NexthopToViaNexthopMacMap>& nexthopToViaNexthopMacMap() const {
    return nexthopToViaNexthopMacMap_;
  }
  const Core::Ptr<NexthopToViaNexthopSm>& nexthopToViaNexthopSm() const {
    return nexthopToViaNexthopSm_;
  }
  const Core::Ptr<ViaNexthopToViaNexthopMacSm>& viaNexthopToViaNexthopMacSm() const {
    return viaNexthopToViaNexthopMacSm_;
  }
  const Core::Ptr<ViaNexthopMacToNhIndexSm>& viaNexthopMacToNhIndexSm() const {
    return viaNexthopMacToNhIndexSm_;
  }

  // The map setters create an empty map only when none is held.
  const Core::Ptr<NexthopToViaNexthopMap>& nexthopToViaNexthopMapIs();
  void nexthopToViaNexthopMapDel() { nexthopToViaNexthopMap_ = nullptr; }
  const Core::Ptr<NexthopToViaNexthopMacMap>& nexthopToViaNexthopMacMapIs();
  void nexthopToViaNexthopMacMapDel() { nexthopToViaNexthopMacMap_ = nullptr; }

  // The stage setters keep a held stage built from the same arguments (VRF name equal, every
  // reference the same object); otherwise they build a new one through its factory, store it,
  // and only then release the previous one. The deleters retire the stage (switched off and
  // cleaned up), then release it.
  const Core::Ptr<NexthopToViaNexthopSm>& nexthopToViaNexthopSmIs(
      const L3::VrfName& vrfName, const Core::Ptr<const NexthopIntfIdColl>& config,
      const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig,
      const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
      const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus,
      const Core::Ptr<Hub::TaskScheduler>& scheduler,
      const Core::Ptr<NexthopToViaNexthopMap>& status);
  void nexthopToViaNexthopSmDel();
  const Core::Ptr<ViaNexthopToViaNexthopMacSm>& viaNexthopToViaNexthopMacSmIs(
      const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMap>& config,
      const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper,
      const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll,
      const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm,
      const Core::Ptr<NexthopToViaNexthopMacMap>& status);
  void viaNexthopToViaNexthopMacSmDel();
  const Core::Ptr<ViaNexthopMacToNhIndexSm>& viaNexthopMacToNhIndexSmIs(
      const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMacMap>& config,
      const Core::Ptr<const L3Modules>& l3Modules,
      const Core::Ptr<ViaNexthopMacToNhIndexMap>& status);
  void viaNexthopMacToNhIndexSmDel();

  // Builds the maps, then stages 1, 2 and 3, each after the one upstream of it has initialised.
  void handleInitialized();
  // A neighbour change, handed on to stage 2 (which ignores keys that are none of its vias).
  // Precondition: stage 2 exists.
  void handleNexthopInfo(const Plane::NextHopKey& key);

  // Also reaches the three stages.
  void hasNotificationActiveIs(bool active) override;

  std::string_view typeName() const override { return "FwdL3Unicast::VrfNexthopNhIndexResolverSm"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  VrfNexthopNhIndexResolverSm(const L3::VrfName& vrfName, Core::Ptr<const NexthopIntfIdColl> config,
                              Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig,
                              Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus,
                              Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
                              Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
                              Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll,
                              Core::Ptr<const L3Modules> l3Modules,
                              Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm,
                              Core::Ptr<Hub::TaskScheduler> scheduler,
                              Core::Ptr<ViaNexthopMacToNhIndexMap> status);

  // Inputs, in constructor order; if handleInitialized throws, C++ member unwinding releases
  // the owned attributes and then these, each in reverse declaration order.
  L3::VrfName vrfName_;
  Core::Ptr<const NexthopIntfIdColl> config_;
  Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig_;
  Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus_;
  Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus_;
  Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper_;
  Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll_;
  Core::Ptr<const L3Modules> l3Modules_;
  Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm_;
  Core::Ptr<Hub::TaskScheduler> scheduler_;
  Core::Ptr<ViaNexthopMacToNhIndexMap> status_;
  // Owned, filled by handleInitialized.
  Core::Ptr<NexthopToViaNexthopMap> nexthopToViaNexthopMap_;
  Core::Ptr<NexthopToViaNexthopMacMap> nexthopToViaNexthopMacMap_;
  Core::Ptr<NexthopToViaNexthopSm> nexthopToViaNexthopSm_;
  Core::Ptr<ViaNexthopToViaNexthopMacSm> viaNexthopToViaNexthopMacSm_;
  Core::Ptr<ViaNexthopMacToNhIndexSm> viaNexthopMacToNhIndexSm_;
};

// Every input of one VRF's pipeline except its name, as the root hands them over; two pipelines
// of a VRF are the same pipeline only when all of these are the same objects.
struct VrfNexthopNhIndexResolverInputs {
  Core::Ptr<const NexthopIntfIdColl> config;
  Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig;
  Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus;
  Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus;
  Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper;
  Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll;
  Core::Ptr<const L3Modules> l3Modules;
  Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm;
  Core::Ptr<Hub::TaskScheduler> scheduler;
  Core::Ptr<ViaNexthopMacToNhIndexMap> status;

  friend bool operator==(const VrfNexthopNhIndexResolverInputs&,
                         const VrfNexthopNhIndexResolverInputs&) = default;
};

// The inputs the pipeline was built from.
VrfNexthopNhIndexResolverInputs vrfNexthopNhIndexResolverInputs(
    const VrfNexthopNhIndexResolverSm& sm);

// Builds the pipeline (which initialises it) and switches its notifications on.
VrfNexthopNhIndexResolverSm::Ptr vrfNexthopNhIndexResolverSmFactory(
    const L3::VrfName& vrfName, const VrfNexthopNhIndexResolverInputs& inputs);
VrfNexthopNhIndexResolverSm::Ptr vrfNexthopNhIndexResolverSmFactory(
    const L3::VrfName& vrfName, Core::Ptr<const NexthopIntfIdColl> config,
    Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig,
    Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus,
    Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus,
    Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper,
    Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll, Core::Ptr<const L3Modules> l3Modules,
    Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm,
    Core::Ptr<Hub::TaskScheduler> scheduler, Core::Ptr<ViaNexthopMacToNhIndexMap> status);

}  // namespace FwdL3Unicast

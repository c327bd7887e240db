#pragma once

#include <cstdint>
#include <string_view>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/CoreDump.h"
#include "framework/CoreReactor.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "platform/Plane.h"

namespace FwdL3Unicast {

// Stage 2 of a VRF's pipeline: groups the requested nexthops of stage 1's map by via, keeps
// proactive ARP resolving every via that has a requester, learns each via's MAC from the
// neighbour table and writes one NexthopToViaNexthopMacMap entry per requester of a resolved via.
// Watches `config` and its own via collection; neighbour changes come in via handleNexthopInfo.
class ViaNexthopToViaNexthopMacSm : public Core::Reactor {
  // A via record, as the MAC decision takes it. Private so that nobody mistakes it for a
  // pointer to the stage itself; the traced signatures print it as "const Ptr&".
  using Ptr = Core::Ptr<ViaNexthopRequest>;

 public:
  // The arpVrfId held until handleInitialized computes the VRF's real one.
  static constexpr Vrf::VrfIdMap::VrfId invalidArpVrfId = 0xffffff;

  ~ViaNexthopToViaNexthopMacSm() override;

  const L3::VrfName& vrfName() const { return vrfName_; }
  const Core::Ptr<const NexthopToViaNexthopMap>& config() const { return config_; }
  const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper() const {
    return nextHopInfoWrapper_;
  }
  const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll() const { return vrfStatusAll_; }
  const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm() const {
    return proactiveArpNexthopSm_;
  }
  const Core::Ptr<NexthopToViaNexthopMacMap>& status() const { return status_; }
  Vrf::VrfIdMap::VrfId arpVrfId() const { return arpVrfId_; }
  // The tracked vias; null only after allViaNexthopRequestsDel().
  const AllViaNexthopRequests::Ptr& allViaNexthopRequests() const { return allViaNexthopRequests_; }

  // Clears the output, fixes arpVrfId (the VRF must have a plane id), creates the via
  // collection and replays every entry of `config`.
  void handleInitialized();
  // Feeds every entry of `config` to handleAdd.
  void handleConfig();
  // One changed key of `config`: the entry applied before leaves its via before the entry held
  // now joins its via.
  void handleConfig(const NexthopIntfId& key);
  // Makes the entry's nexthop a requester of its via, tracking the via if it is new.
  void handleAdd(const NexthopToViaNexthopMapEntry& mapEntry);
  // Withdraws the entry's output and requester slot; the via goes with its last requester.
  // Precondition: the entry's via is tracked and lists the nexthop.
  void handleDel(const NexthopToViaNexthopMapEntry& mapEntry);
  // A via record came or went: starts or stops proactive ARP for it.
  void handleViaNexthopRequest(const NexthopIntfId& key);
  // A neighbour changed; ignored unless it is one of this VRF's vias.
  void handleNexthopInfo(const Plane::NextHopKey& key);
  // Re-decides the via's MAC from the neighbour table and republishes all its requesters.
  void checkAndUpdateMac(const Ptr& request);
  // Writes (non-zero MAC) or withdraws (zero MAC) the output entry of every requester. When a
  // handler of a write changes the record, the requesters are written again from the record.
  void updateStatus(const Ptr& request, const Netval::EthAddr& ethAddr);
  // Empties the output map; proactive ARP entries are left to the platform.
  void doCleanup();
  // For an owner that drops the stage while a handler of it may still be running (the handler
  // keeps it alive): switches it off, cleans up now, and from then on leaves alone proactive ARP,
  // which a successor built for the same VRF. The destructor then cleans up nothing. Given the
  // VRF's requests as they are now, it first removes the ARP entries of the vias none of them
  // needs any more.
  void retire(const NexthopIntfIdColl* requests = nullptr);

  // Creates and watches the via collection unless one is held.
  void allViaNexthopRequestsIs();
  // Stops watching and releases the via collection (and with it every record).
  void allViaNexthopRequestsDel();

  std::string_view typeName() const override { return "FwdL3Unicast::ViaNexthopToViaNexthopMacSm"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  friend Core::Ptr<ViaNexthopToViaNexthopMacSm> viaNexthopToViaNexthopMacSmFactory(
      const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMap>& config,
      const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper,
      const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll,
      const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm,
      const Core::Ptr<NexthopToViaNexthopMacMap>& status);

  ViaNexthopToViaNexthopMacSm(const L3::VrfName& vrfName,
                              const Core::Ptr<const NexthopToViaNexthopMap>& config,
                              const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper,
                              const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll,
                              const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm,
                              const Core::Ptr<NexthopToViaNexthopMacMap>& status);

  // Removes the proactive ARP entry of every tracked via none of whose requesters is in
  // `requests`.
  void releaseUnrequestedVias(const NexthopIntfIdColl& requests);
  // The MAC the requesters of `request` are to carry: its MAC while it is tracked, none after.
  Netval::EthAddr publishedMac(const Ptr& request) const;
  // The neighbour entry of `key`, the default entry when there is none.
  Plane::NextHopInfo nextHopInfo(const Plane::NextHopKey& key) const;

  L3::VrfName vrfName_;
  Core::Ptr<const NexthopToViaNexthopMap> config_;
  Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper_;
  Core::Ptr<const Plane::VrfL3StatusAll> vrfStatusAll_;
  Core::Ptr<Plane::ProactiveArpNexthopSm> proactiveArpNexthopSm_;
  Core::Ptr<NexthopToViaNexthopMacMap> status_;
  Vrf::VrfIdMap::VrfId arpVrfId_ = invalidArpVrfId;
  AllViaNexthopRequests::Ptr allViaNexthopRequests_;
  // Set by retire(): proactive ARP entries belong to whoever runs the VRF now.
  bool retired_ = false;
  // Applies the changes of `config` through handleDel and handleAdd.
  StageMapFollower<NexthopToViaNexthopMapEntry> follower_;

  Core::Slot<ViaNexthopToViaNexthopMacSm, NexthopIntfId, &ViaNexthopToViaNexthopMacSm::handleConfig>
      configSlot_{this, NexthopToViaNexthopMap::mapAttr, config_.get()};
  Core::Slot<ViaNexthopToViaNexthopMacSm, NexthopIntfId,
             &ViaNexthopToViaNexthopMacSm::handleViaNexthopRequest>
      viaNexthopRequestSlot_{this, AllViaNexthopRequests::viaNexthopRequestAttr};
};

// Builds stage 2 of `vrfName`'s pipeline (replaying `config` at once) with notifications on.
Core::Ptr<ViaNexthopToViaNexthopMacSm> viaNexthopToViaNexthopMacSmFactory(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMap>& config,
    const Core::Ptr<const Plane::NextHopInfoWrapper>& nextHopInfoWrapper,
    const Core::Ptr<const Plane::VrfL3StatusAll>& vrfStatusAll,
    const Core::Ptr<Plane::ProactiveArpNexthopSm>& proactiveArpNexthopSm,
    const Core::Ptr<NexthopToViaNexthopMacMap>& status);

}  // namespace FwdL3Unicast

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/CoreDump.h"
#include "framework/CoreReactor.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "platform/L3Modules.h"

// Stage 3 of a VRF's pipeline: (interface, MAC) -> the forwarding engine's next-hop index.
namespace FwdL3Unicast {

// The first nhIndex of the module's table (in the table's own iteration order) whose MAC is
// `mac`, or invalidNhIndex when none carries it or there is no module. A linear walk.
uint32_t getNextHopMacNhIndex(const Core::Ptr<const NextHopMod>& nextHopMod, Netval::EthAddr mac);

// Matches one interface's MAC groups against its next-hop module's table and writes one status
// entry per waiting nexthop into the VRF's map. Runs while the interface has both a request
// record and a NextHopMod; writes the groups' nhIndex/nhIndexFound and the status map.
class IntfViaNexthopMacToNhIndexSm : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<IntfViaNexthopMacToNhIndexSm>;
  static constexpr Core::AttrId requesterCollAttr = 1;

  // Follows the nexthop set of one group and writes or withdraws the status of each nexthop
  // that enters or leaves it. Owned by the machine, which it reaches through a plain pointer.
  class NestedSm_RequesterColl : public Core::Reactor {
   public:
    using Ptr = Core::Ptr<NestedSm_RequesterColl>;
    // Watches `requesterColl` from construction; runs the initial lookup for the group.
    static Ptr NestedSm_RequesterCollIs(const RequesterColl::Ptr& requesterColl,
                                        IntfViaNexthopMacToNhIndexSm* intfViaNexthopMacToNhIndexSm);

    const RequesterColl::Ptr& requesterColl() const { return requesterColl_; }
    IntfViaNexthopMacToNhIndexSm* intfViaNexthopMacToNhIndexSm() const {
      return intfViaNexthopMacToNhIndexSm_;
    }
    // The watched group's MAC; the zero MAC while no group is set. Keys the machine's map.
    const Netval::EthAddr& macAddr() const;

    // Watches another group object (the same MAC) without a new initial lookup.
    void notifierIs(const RequesterColl::Ptr& requesterColl);

    void handleInitialized();
    void handleRequester(const Netval::IpGenAddr& nexthop);
    // Returns the group to not found, so a later machine matches it afresh.
    void doCleanup();

    std::string_view typeName() const override {
      return "FwdL3Unicast::IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl";
    }

   private:
    NestedSm_RequesterColl(const RequesterColl::Ptr& requesterColl,
                           IntfViaNexthopMacToNhIndexSm* intfViaNexthopMacToNhIndexSm);

    RequesterColl::Ptr requesterColl_;
    IntfViaNexthopMacToNhIndexSm* intfViaNexthopMacToNhIndexSm_;
    Core::Slot<NestedSm_RequesterColl, Netval::IpGenAddr, &NestedSm_RequesterColl::handleRequester>
        requesterCollSlot_{this, RequesterColl::requesterCollAttr, requesterColl_.get()};
  };

  using RequesterCollMap =
      Core::ChildMap<Netval::EthAddr, NestedSm_RequesterColl, &NestedSm_RequesterColl::macAddr>;

  // Stores the arguments, subscribes, resets the interface's statuses, scans the table, then
  // starts one nested watcher per group already in the request. Active from construction.
  static Ptr IntfViaNexthopMacToNhIndexSmIs(Netval::IntfId intfId,
                                            const IntfViaNexthopMacToNhIndexRequest::Ptr& request,
                                            const Core::Ptr<const NextHopMod>& nextHopMod,
                                            const ViaNexthopMacToNhIndexMap::Ptr& status);

  const Netval::IntfId& intfId() const { return intfId_; }
  const IntfViaNexthopMacToNhIndexRequest::Ptr& intfViaNexthopMacToNhIndexRequest() const {
    return intfViaNexthopMacToNhIndexRequest_;
  }
  const Core::Ptr<const NextHopMod>& nextHopMod() const { return nextHopMod_; }
  const ViaNexthopMacToNhIndexMap::Ptr& status() const { return status_; }
  // For the owner that drops the machine: switches it off and cleans up, after which a handler
  // of it still running changes neither a group nor a status any more.
  void retire();
  // Switches the machine off and cuts it from the status map without cleaning up: for a
  // machine whose clean-up is under way when its whole stage goes.
  void silence();

  // The nested watchers, one per group of the request, keyed by MAC.
  NestedSm_RequesterColl::Ptr requesterColl(Netval::EthAddr macAddr) const {
    return requesterColl_.get(macAddr);
  }
  bool requesterCollHas(Netval::EthAddr macAddr) const { return requesterColl_.has(macAddr); }
  size_t requesterCollCount() const { return requesterColl_.size(); }
  const RequesterCollMap& requesterColl() const { return requesterColl_; }
  // A group entered the request: starts its watcher, or re-points the one kept for its MAC.
  void requesterCollIs(const RequesterColl::Ptr& requesterColl);
  // A group left the request: drops its watcher.
  void requesterCollDel(Netval::EthAddr macAddr);

  void handleInitialized();
  void handleNhIndexToMac();
  void handleNhIndexToMac(uint32_t nhIndex);
  void handleMacAdd(Netval::EthAddr mac, uint32_t nhIndex);
  void handleMacDel(Netval::EthAddr mac, uint32_t nhIndex);
  // First found wins: a group that already has an index ignores further ones.
  void addStatus(const RequesterColl::Ptr& requester, uint32_t nhIndex);
  // Marks the group found at `nhIndex` and (re)writes the status of every nexthop in it.
  void addStatusHelper(const RequesterColl::Ptr& requester, uint32_t nhIndex);
  // The table lost `nhIndex` for the group's MAC: move the group to the next index with that
  // MAC, or withdraw its statuses.
  void delStatus(const RequesterColl::Ptr& requester, uint32_t nhIndex);
  // Withdraws every status entry of this interface (only this one) from the VRF's map.
  void cleanupStatus();
  // Withdraws the interface's statuses and returns every watched group to not found.
  void doCleanup();

  // Reaches the nested watchers too.
  void hasNotificationActiveIs(bool active) override;

  std::string_view typeName() const override {
    return "FwdL3Unicast::IntfViaNexthopMacToNhIndexSm";
  }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  friend class AllIntfViaNexthopMacToNhIndexSm;

  IntfViaNexthopMacToNhIndexSm(Netval::IntfId intfId,
                               const IntfViaNexthopMacToNhIndexRequest::Ptr& request,
                               const Core::Ptr<const NextHopMod>& nextHopMod,
                               const ViaNexthopMacToNhIndexMap::Ptr& status);
  // Resets the interface's statuses, scans the table, then starts one nested watcher per group
  // already in the request (none once a handler of its writes has retired the machine).
  void start();
  // Withdraws every status of this interface whose nexthop no found group holds any more.
  void withdrawUnheld();
  // Whether a group of the request holds `nexthop` and has an index.
  bool heldByFoundGroup(const Netval::IpGenAddr& nexthop) const;
  // Whether the module's table maps `nhIndex` to `mac` now.
  bool tableHolds(uint32_t nhIndex, Netval::EthAddr mac) const;

  // Writes the nexthop's status from the group as it is now (its index while found, none
  // otherwise): what a pass of addStatusHelper or delStatus writes once a handler of one of its
  // writes has changed the group.
  void writeAgain(const RequesterColl& requester, const Netval::IpGenAddr& nexthop);
  // Routes a group's arrival or departure in the request to requesterCollIs/requesterCollDel.
  void handleRequesterColl(const Netval::EthAddr& macAddr);
  // getNextHopMacNhIndex for the group's MAC; while the constructor starts the watchers it takes
  // the outcome of the table scan it just ran instead of walking the table again.
  uint32_t searchNhIndex(const RequesterColl& group) const;

  Netval::IntfId intfId_;
  IntfViaNexthopMacToNhIndexRequest::Ptr intfViaNexthopMacToNhIndexRequest_;
  Core::Ptr<const NextHopMod> nextHopMod_;
  ViaNexthopMacToNhIndexMap::Ptr status_;
  bool retired_ = false;
  RequesterCollMap requesterColl_{this, requesterCollAttr};
  // Set while the constructor starts the watchers of the groups the table scan has seen.
  bool scanDecided_ = false;
  // Groups marked found before the scan (the scan skipped them): these still need a search.
  std::vector<const RequesterColl*> foundBeforeScan_;
  Core::Slot<IntfViaNexthopMacToNhIndexSm, Netval::EthAddr,
             &IntfViaNexthopMacToNhIndexSm::handleRequesterColl>
      requestSlot_{this, IntfViaNexthopMacToNhIndexRequest::requesterCollAttr,
                   intfViaNexthopMacToNhIndexRequest_.get()};
  Core::Slot<IntfViaNexthopMacToNhIndexSm, uint32_t,
             &IntfViaNexthopMacToNhIndexSm::handleNhIndexToMac>
      nextHopModSlot_{this, NextHopMod::nhIndexToMacAttr, nextHopMod_.get()};
};

// The per-interface machines of one VRF, keyed by interface. Owned by ViaNexthopMacToNhIndexSm;
// a machine leaves through smDel/smDelAll or with this container, and runs its clean-up then.
class AllIntfViaNexthopMacToNhIndexSm : public Core::Node {
 public:
  using Ptr = Core::Ptr<AllIntfViaNexthopMacToNhIndexSm>;
  using SmMap = Core::ChildMap<Netval::IntfId, IntfViaNexthopMacToNhIndexSm,
                               &IntfViaNexthopMacToNhIndexSm::intfId>;
  static constexpr Core::AttrId smAttr = 1;

  static Ptr AllIntfViaNexthopMacToNhIndexSmIs() {
    return Ptr(new AllIntfViaNexthopMacToNhIndexSm);
  }
  // Cleans up every machine still held.
  ~AllIntfViaNexthopMacToNhIndexSm() override;

  // The interface's machine: the existing one when it was built from the same request, module
  // and status objects, else a new one. An existing machine built from other objects throws
  // Core::ReinstantiationError.
  IntfViaNexthopMacToNhIndexSm::Ptr smIs(Netval::IntfId intfId,
                                         const IntfViaNexthopMacToNhIndexRequest::Ptr& request,
                                         const Core::Ptr<const NextHopMod>& nextHopMod,
                                         const ViaNexthopMacToNhIndexMap::Ptr& status);
  // Removes the machine, switches it off and runs its clean-up. False when there is none.
  bool smDel(Netval::IntfId intfId);
  void smDelAll();
  IntfViaNexthopMacToNhIndexSm::Ptr sm(Netval::IntfId intfId) const { return sm_.get(intfId); }
  bool smHas(Netval::IntfId intfId) const { return sm_.has(intfId); }
  size_t smCount() const { return sm_.size(); }
  const SmMap& sm() const { return sm_; }

  std::string_view typeName() const override {
    return "FwdL3Unicast::AllIntfViaNexthopMacToNhIndexSm";
  }

 private:
  AllIntfViaNexthopMacToNhIndexSm() = default;

  SmMap sm_{this, smAttr};
  // Machines removed from sm_ whose clean-up is still running (innermost last).
  std::vector<IntfViaNexthopMacToNhIndexSm*> dropping_;
};

// Stage 3 of one VRF: groups the entries of NexthopToViaNexthopMacMap per interface and MAC
// and runs one IntfViaNexthopMacToNhIndexSm per interface that has requests and a NextHopMod.
// The machines write `status`; this stage only clears it (at start and at clean-up).
class ViaNexthopMacToNhIndexSm : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<ViaNexthopMacToNhIndexSm>;

  // Runs doCleanup: a stage that goes leaves no status behind.
  ~ViaNexthopMacToNhIndexSm() override;

  const L3::VrfName& vrfName() const { return vrfName_; }
  const Core::Ptr<const NexthopToViaNexthopMacMap>& config() const { return config_; }
  const Core::Ptr<const L3Modules>& l3Modules() const { return l3Modules_; }
  const ViaNexthopMacToNhIndexMap::Ptr& status() const { return status_; }
  const AllIntfViaNexthopMacToNhIndexRequest::Ptr& allIntfViaNexthopMacToNhIndexRequest() const {
    return allIntfViaNexthopMacToNhIndexRequest_;
  }
  const AllIntfViaNexthopMacToNhIndexSm::Ptr& allIntfViaNexthopMacToNhIndexSm() const {
    return allIntfViaNexthopMacToNhIndexSm_;
  }

  void handleInitialized();
  void handleConfig();
  // A changed entry is handled as the deletion of the entry applied before, then the addition
  // of the entry held now.
  void handleConfig(const NexthopIntfId& key);
  void handleAdd(const NexthopToViaNexthopMacMapEntry& entry);
  // Precondition: the entry's interface has a request record holding the entry.
  void handleDel(const NexthopToViaNexthopMacMapEntry& entry);
  void handleIntfViaNexthopMacToNhIndexRequest(Netval::IntfId intfId);
  void handleNexthopMod(Netval::IntfId intfId);
  void doCleanup();
  // For an owner that drops the stage while a handler of it may still be running (the handler
  // keeps it alive): switches it off, cleans up now, and from then on leaves alone the VRF's status
  // map, which a successor built for the same VRF writes. The destructor then cleans up nothing.
  void retire();

  // Reaches the per-interface machines too.
  void hasNotificationActiveIs(bool active) override;

  std::string_view typeName() const override { return "FwdL3Unicast::ViaNexthopMacToNhIndexSm"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  friend Ptr viaNexthopMacToNhIndexSmFactory(const L3::VrfName&,
                                             const Core::Ptr<const NexthopToViaNexthopMacMap>&,
                                             const Core::Ptr<const L3Modules>&,
                                             const ViaNexthopMacToNhIndexMap::Ptr&);
  ViaNexthopMacToNhIndexSm(const L3::VrfName& vrfName,
                           const Core::Ptr<const NexthopToViaNexthopMacMap>& config,
                           const Core::Ptr<const L3Modules>& l3Modules,
                           const ViaNexthopMacToNhIndexMap::Ptr& status);

  // Brings the interface's machine in line with its request record and its module as they are
  // now: built on both while both exist, none otherwise.
  void machineIs(Netval::IntfId intfId);

  L3::VrfName vrfName_;
  Core::Ptr<const NexthopToViaNexthopMacMap> config_;
  Core::Ptr<const L3Modules> l3Modules_;
  ViaNexthopMacToNhIndexMap::Ptr status_;
  AllIntfViaNexthopMacToNhIndexRequest::Ptr allIntfViaNexthopMacToNhIndexRequest_;
  AllIntfViaNexthopMacToNhIndexSm::Ptr allIntfViaNexthopMacToNhIndexSm_;
  // Applies the changes of `config` through handleDel and handleAdd.
  StageMapFollower<NexthopToViaNexthopMacMapEntry> follower_;
  // Set by retire(): no machine is started any more.
  bool retired_ = false;
  // Interfaces whose machine machineIs is starting or dropping, innermost last.
  std::vector<Netval::IntfId> machinesChanging_;
  Core::Slot<ViaNexthopMacToNhIndexSm, NexthopIntfId, &ViaNexthopMacToNhIndexSm::handleConfig>
      configSlot_{this, NexthopToViaNexthopMacMap::mapAttr, config_.get()};
  Core::Slot<ViaNexthopMacToNhIndexSm, Netval::IntfId, &ViaNexthopMacToNhIndexSm::handleNexthopMod>
      l3ModulesSlot_{this, L3Modules::nextHopModAttr, l3Modules_.get()};
  // Pointed at the request records once handleInitialized has created them.
  Core::Slot<ViaNexthopMacToNhIndexSm, Netval::IntfId,
             &ViaNexthopMacToNhIndexSm::handleIntfViaNexthopMacToNhIndexRequest>
      requestSlot_{this, AllIntfViaNexthopMacToNhIndexRequest::requestAttr};
};

// Builds the stage (its constructor runs handleInitialized), then switches its notifications on.
ViaNexthopMacToNhIndexSm::Ptr viaNexthopMacToNhIndexSmFactory(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopToViaNexthopMacMap>& config,
    const Core::Ptr<const L3Modules>& l3Modules, const ViaNexthopMacToNhIndexMap::Ptr& status);

}  // namespace FwdL3Unicast

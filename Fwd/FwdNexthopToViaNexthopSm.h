#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/CoreDump.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "platform/Memtab.h"
#include "platform/Routing.h"

// Stage 1 of the per-VRF pipeline: tracks the requested nexthops, registers them with the routing
// nexthop resolver, and publishes per (nexthop, interface) the via that the resolver's FEC offers
// on that interface.
namespace FwdL3Unicast {

// One requested interface of one tracked nexthop: the via published for the pair (the empty
// address while there is none) and the scratch value of the review under way (empty between
// reviews). Written by NexthopToViaNexthopSm only; publishes nothing.
class IntfViaInfo : public Core::Node {
 public:
  using Ptr = Core::Ptr<IntfViaInfo>;
  static Ptr IntfViaInfoIs(Netval::IntfId intfId) { return Ptr(new IntfViaInfo(intfId)); }

  // A reference, because the owning collection reads its key through it.
  const Netval::IntfId& intfId() const { return intfId_; }

  const Netval::IpGenAddr& viaNexthop() const { return viaNexthop_; }
  void viaNexthopIs(const Netval::IpGenAddr& viaNexthop) { viaNexthop_ = viaNexthop; }
  const Netval::IpGenAddr& cachedViaNexthop() const { return cachedViaNexthop_; }
  void cachedViaNexthopIs(const Netval::IpGenAddr& cachedViaNexthop) {
    cachedViaNexthop_ = cachedViaNexthop;
  }

  std::string_view typeName() const override { return "FwdL3Unicast::IntfViaInfo"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit IntfViaInfo(Netval::IntfId intfId) : intfId_(intfId) {}

  Netval::IntfId intfId_;
  Netval::IpGenAddr viaNexthop_;
  Netval::IpGenAddr cachedViaNexthop_;
};

// One tracked nexthop address and the interfaces it is requested on, one IntfViaInfo each.
// Written by NexthopToViaNexthopSm, which removes the record with its last interface.
// intfViaInfo publishes intfViaInfoAttr per interface added or removed.
class NexthopRequest : public Core::Node {
 public:
  using Ptr = Core::Ptr<NexthopRequest>;
  using IntfViaInfoColl = Core::ChildMap<Netval::IntfId, IntfViaInfo, &IntfViaInfo::intfId>;
  static constexpr Core::AttrId intfViaInfoAttr = 1;

  static Ptr NexthopRequestIs(const Netval::IpGenAddr& nexthop) {
    return Ptr(new NexthopRequest(nexthop));
  }

  const Netval::IpGenAddr& nexthop() const { return nexthop_; }

  // The interface's record, or null.
  IntfViaInfo::Ptr intfViaInfo(Netval::IntfId intfId) const { return intfViaInfo_.get(intfId); }
  // Get-or-create: an existing record is returned unchanged.
  IntfViaInfo::Ptr intfViaInfoIs(Netval::IntfId intfId);
  bool intfViaInfoDel(Netval::IntfId intfId) { return intfViaInfo_.del(intfId); }
  void intfViaInfoDelAll() { intfViaInfo_.delAll(); }
  bool intfViaInfoHas(Netval::IntfId intfId) const { return intfViaInfo_.has(intfId); }
  // The number of interfaces the nexthop is requested on.
  size_t intfViaInfoCount() const { return intfViaInfo_.size(); }
  // Iteration; deleting members during a loop is safe, inserting may reorder it.
  const IntfViaInfoColl& intfViaInfo() const { return intfViaInfo_; }

  // Counts the reviews of this nexthop started so far. A review compares it after each
  // publication: a review started inside one of its publications has published every interface
  // from newer state, and the outer one stops there.
  uint64_t reviewGeneration() const { return reviewGeneration_; }
  void reviewGenerationIs(uint64_t reviewGeneration) { reviewGeneration_ = reviewGeneration; }

  // Records the interface and resets its via state (also when it was recorded already), so that
  // the next review computes its via afresh.
  void addIntfId(Netval::IntfId intfId);
  // Removes the interface; an interface never added is created and removed again, so callers
  // need not check membership first.
  void delIntfId(Netval::IntfId intfId);

  std::string_view typeName() const override { return "FwdL3Unicast::NexthopRequest"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit NexthopRequest(const Netval::IpGenAddr& nexthop) : nexthop_(nexthop) {}

  Netval::IpGenAddr nexthop_;
  uint64_t reviewGeneration_ = 0;
  IntfViaInfoColl intfViaInfo_{this, intfViaInfoAttr};
};

// Every tracked nexthop of one VRF, one NexthopRequest each. Owned and written by
// NexthopToViaNexthopSm; publishes requestAttr per record added or removed. Dumped by its owner.
class AllNexthopRequests : public Core::Node {
 public:
  using Ptr = Core::Ptr<AllNexthopRequests>;
  using RequestColl = Core::ChildMap<Netval::IpGenAddr, NexthopRequest, &NexthopRequest::nexthop>;
  static constexpr Core::AttrId requestAttr = 1;

  static Ptr AllNexthopRequestsIs() { return Ptr(new AllNexthopRequests); }

  // The nexthop's record, or null.
  NexthopRequest::Ptr request(const Netval::IpGenAddr& nexthop) const {
    return request_.get(nexthop);
  }
  // Get-or-create: an existing record is returned unchanged, with its interfaces.
  NexthopRequest::Ptr requestIs(const Netval::IpGenAddr& nexthop);
  bool requestDel(const Netval::IpGenAddr& nexthop) { return request_.del(nexthop); }
  void requestDelAll() { request_.delAll(); }
  bool requestHas(const Netval::IpGenAddr& nexthop) const { return request_.has(nexthop); }
  size_t requestCount() const { return request_.size(); }
  // Iteration; deleting members during a loop is safe, inserting may reorder it.
  const RequestColl& request() const { return request_; }

  std::string_view typeName() const override { return "FwdL3Unicast::AllNexthopRequests"; }

 private:
  AllNexthopRequests() = default;

  RequestColl request_{this, requestAttr};
};

// Stage 1 of one VRF. Watches the VRF's requests (config) and registers each distinct nexthop in
// the resolver's nexthopVrfConfig; drains the backlog that its FIB monitor fills when a nexthop's
// resolution or FEC changes; writes per request the chosen via into `status`. Built by
// nexthopToViaNexthopSmFactory; its inputs never change after construction.
class NexthopToViaNexthopSm : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<NexthopToViaNexthopSm>;

  // Always creates: keeping an existing stage built from equal arguments is the owner's choice,
  // made through the argument accessors below.
  static Ptr NexthopToViaNexthopSmIs(
      const L3::VrfName& vrfName, const Core::Ptr<const NexthopIntfIdColl>& config,
      const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig,
      const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
      const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus,
      const Core::Ptr<Hub::TaskScheduler>& scheduler,
      const Core::Ptr<NexthopToViaNexthopMap>& status);
  // Withdraws every registration and empties the output (see doCleanup) before it goes.
  ~NexthopToViaNexthopSm() override;

  const L3::VrfName& vrfName() const { return vrfName_; }
  const Core::Ptr<const NexthopIntfIdColl>& config() const { return config_; }
  const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig() const { return nexthopVrfConfig_; }
  const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus() const {
    return nexthopVrfStatus_;
  }
  const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus() const {
    return forwardingGenStatus_;
  }
  const Core::Ptr<Hub::TaskScheduler>& scheduler() const { return scheduler_; }
  const Core::Ptr<NexthopToViaNexthopMap>& status() const { return status_; }
  const Core::Ptr<Routing::NexthopBacklog>& nexthopBacklog() const { return nexthopBacklog_; }
  const Core::Ptr<Routing::FibMonitorHelperSm>& fibMonitorHelperSm() const {
    return fibMonitorHelperSm_;
  }
  const Core::Ptr<AllNexthopRequests>& allNexthopRequests() const { return allNexthopRequests_; }

  // Empties the output, creates the records, the backlog and the FIB monitor, then replays
  // every request present. Run once, by the constructor.
  void handleInitialized();
  // Runs handleConfig(key) for every present request: adds, never removes.
  void handleConfig();
  // One request added (present in config) or removed (absent). A removal for a nexthop that is
  // not tracked is a broken invariant.
  void handleConfig(const NexthopIntfId& nexthopIntfId);
  // Whether the record of `key`'s nexthop is being changed by an outer handleConfig, which then
  // looks at `key` again (kept in its deferred list).
  bool configChangeDeferred(const NexthopIntfId& key);
  // Drains the backlog: each address is removed before it is handled, so an address queued again
  // while it is handled is handled again. Each removal re-enters this handler through the
  // backlog's notification; that nested call only traces and returns, and the one drain under
  // way takes up whatever was queued meanwhile, so the depth does not grow with the backlog.
  void handleNexthopBacklog();
  // Reviews the nexthop if it is tracked; an address without a record is consumed silently.
  void handleNexthopStatus(const Netval::IpGenAddr& addr);
  // Chooses a via per requested interface from the nexthop's current FEC and publishes it. The
  // FEC is copied once; the cost is linear in its via count plus the requested interfaces. A
  // review of the same nexthop started from inside a publication supersedes this one.
  void reviewNexthopRequest(const Core::Ptr<NexthopRequest>& request);
  // Publishes the via of one (nexthop, interface), or removes the entry for the empty address.
  void reviewNexthop(const Netval::IpGenAddr& nexthop, Netval::IntfId intfId,
                     const Netval::IpGenAddr& viaNexthop);
  // Withdraws every registration of the VRF, drops the backlog and empties the output. The
  // records and the FIB monitor stay until the object goes.
  void doCleanup();
  // For an owner that drops the stage while a handler of it may still be running (the handler
  // keeps it alive): switches it off, cleans up now, and from then on leaves alone the routing
  // registrations a successor built for the same VRF. The destructor then cleans up nothing.
  void retire();

  // Keeps the records held, creating empty ones when there are none.
  void allNexthopRequestsIs();
  void allNexthopRequestsDel() { allNexthopRequests_ = nullptr; }
  // Moves the backlog subscription to `backlog` without running the handler.
  void nexthopBacklogIs(const Core::Ptr<Routing::NexthopBacklog>& backlog);
  void nexthopBacklogDel();
  // Keeps the FIB monitor held when it was built from equal arguments, otherwise replaces it;
  // then switches the monitor's notifications on.
  void fibMonitorHelperSmIs(
      const std::string& clientName,
      const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
      const Core::Ptr<Routing::NexthopBacklog>& nexthopBacklog,
      const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingStatus,
      const Core::Ptr<Hub::TaskScheduler>& scheduler);
  void fibMonitorHelperSmDel() { fibMonitorHelperSm_ = nullptr; }

  std::string_view typeName() const override { return "FwdL3Unicast::NexthopToViaNexthopSm"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopToViaNexthopSm(
      const L3::VrfName& vrfName, const Core::Ptr<const NexthopIntfIdColl>& config,
      const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig,
      const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
      const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus,
      const Core::Ptr<Hub::TaskScheduler>& scheduler,
      const Core::Ptr<NexthopToViaNexthopMap>& status);

  // The backlog slot's handler: any change of the backlog starts a drain.
  void handleBacklogChange(const Netval::IpGenAddr&) { handleNexthopBacklog(); }
  // Copies the FEC into fec_, or the via-less default FEC when the table is absent or its read is
  // corrupt (reported to the table).
  void fecCopy(Memtab::Fib::FecId fecId);

  L3::VrfName vrfName_;
  Core::Ptr<const NexthopIntfIdColl> config_;
  Core::Ptr<Routing::NexthopVrfConfig> nexthopVrfConfig_;
  Core::Ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus_;
  Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingGenStatus_;
  Core::Ptr<Hub::TaskScheduler> scheduler_;
  Core::Ptr<NexthopToViaNexthopMap> status_;
  Core::Ptr<Routing::NexthopBacklog> nexthopBacklog_;
  Core::Ptr<Routing::FibMonitorHelperSm> fibMonitorHelperSm_;
  Core::Ptr<AllNexthopRequests> allNexthopRequests_;
  // The FEC of the review under way, kept between reviews so that each copy reuses its storage.
  // Read only before the review publishes, so a nested review may overwrite it.
  Memtab::FibGen::Fec fec_;
  // Set while handleNexthopBacklog walks the backlog.
  bool drainingBacklog_ = false;
  // A nexthop whose record a handleConfig call is changing, with the requests of that nexthop
  // that nested notifications changed meanwhile. Each lives on its call's stack (FrameLink): the
  // innermost is configChanging_, and a handful are ever linked.
  struct ConfigChange {
    Netval::IpGenAddr nexthop;
    std::vector<NexthopIntfId> deferred;
    ConfigChange* outer = nullptr;
  };
  ConfigChange* configChanging_ = nullptr;
  // The next request deferred into `change` whose applied state differs from the wanted one, in
  // `next`; false when none is left.
  bool configChangeNext(ConfigChange& change, NexthopIntfId& next);
  // Set by retire(): the registrations belong to whoever runs the VRF now.
  bool retired_ = false;

  Core::Slot<NexthopToViaNexthopSm, NexthopIntfId, &NexthopToViaNexthopSm::handleConfig>
      configSlot_{this, NexthopIntfIdColl::configAttr, config_.get()};
  Core::Slot<NexthopToViaNexthopSm, Netval::IpGenAddr, &NexthopToViaNexthopSm::handleBacklogChange>
      backlogSlot_{this, Routing::NexthopBacklog::backlogAttr};
};

// Builds stage 1 for one VRF (the constructor stores the arguments, subscribes to config and
// runs handleInitialized) and switches its notifications on. `scheduler` and `status` must not be
// null; a null FEC table reads as a table without FECs.
NexthopToViaNexthopSm::Ptr nexthopToViaNexthopSmFactory(
    const L3::VrfName& vrfName, const Core::Ptr<const NexthopIntfIdColl>& config,
    const Core::Ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig,
    const Core::Ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus,
    const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingGenStatus,
    const Core::Ptr<Hub::TaskScheduler>& scheduler,
    const Core::Ptr<NexthopToViaNexthopMap>& status);

}  // namespace FwdL3Unicast

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/CoreReactor.h"
#include "framework/CoreTable.h"
#include "framework/Hub.h"
#include "framework/Kiln.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "platform/Memtab.h"

// The host's routing next-hop resolver: the next hops that clients ask it to resolve, its
// per-VRF results, and the FIB monitor that tells a client which next hops need a new look.
namespace Routing {

// How the resolver reports FECs; clients register with the default type.
enum NexthopStatusFecIdType : uint32_t { fecIdTypeDefault = 0 };

// One next hop a client asks the resolver to resolve; the address is the whole entry and its key.
class NexthopConfigEntry : public Kiln::Value<NexthopConfigEntry> {
 public:
  static constexpr std::string_view kilnTypeName = "Routing::NexthopConfigEntry";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("nexthop", &NexthopConfigEntry::nexthop_));
  }

  NexthopConfigEntry() = default;
  explicit NexthopConfigEntry(const Netval::IpGenAddr& nexthop) : nexthop_(nexthop) {}

  const Netval::IpGenAddr& nexthop() const { return nexthop_; }

 private:
  Netval::IpGenAddr nexthop_;
};

// The next hops one VRF's client asks the resolver to resolve. Written by the client (the
// module), read by the host's resolver; publishes nexthopAttr per address added or removed.
class NexthopVrfConfig : public Core::Node {
 public:
  using Ptr = Core::Ptr<NexthopVrfConfig>;
  using NexthopColl = Core::Collection<Netval::IpGenAddr, NexthopConfigEntry,
                                       Core::KeyBy<&NexthopConfigEntry::nexthop>>;
  static constexpr Core::AttrId nexthopAttr = 1;

  static Ptr NexthopVrfConfigIs(const L3::VrfName& vrfName,
                                NexthopStatusFecIdType fecIdType = fecIdTypeDefault);

  const L3::VrfName& vrfName() const { return vrfName_; }
  NexthopStatusFecIdType fecIdType() const { return fecIdType_; }

  bool nexthopIs(const NexthopConfigEntry& entry) { return nexthop_.set(entry); }
  bool nexthopDel(const Netval::IpGenAddr& addr) { return nexthop_.del(addr); }
  void nexthopDelAll() { nexthop_.delAll(); }
  bool nexthopHas(const Netval::IpGenAddr& addr) const { return nexthop_.has(addr); }
  // The entry, or the default (unset) entry when absent.
  NexthopConfigEntry nexthop(const Netval::IpGenAddr& addr) const { return nexthop_.get(addr); }
  size_t nexthopCount() const { return nexthop_.size(); }
  const NexthopColl& nexthop() const { return nexthop_; }  // iteration

  std::string_view typeName() const override { return "Routing::NexthopVrfConfig"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopVrfConfig(const L3::VrfName& vrfName, NexthopStatusFecIdType fecIdType)
      : vrfName_(vrfName), fecIdType_(fecIdType) {}

  L3::VrfName vrfName_;
  NexthopStatusFecIdType fecIdType_;
  NexthopColl nexthop_{this, nexthopAttr};
};

// Every VRF registered with the resolver. Written by the client (the module); publishes vrfAttr
// per VRF created, replaced or removed (notification values: NexthopVrfConfig::Ptr).
class NexthopConfig : public Core::Node {
 public:
  using Ptr = Core::Ptr<NexthopConfig>;
  using VrfColl = Core::ChildMap<L3::VrfName, NexthopVrfConfig, &NexthopVrfConfig::vrfName>;
  static constexpr Core::AttrId vrfAttr = 1;

  static Ptr NexthopConfigIs();

  // Get-or-create: returns the VRF's config when it has that FEC id type; otherwise creates a
  // new, empty one (replacing any with another type) and publishes.
  NexthopVrfConfig::Ptr vrfIs(const L3::VrfName& vrfName, NexthopStatusFecIdType fecIdType);
  // The same with the FEC id type as its number, for callers that pass 0.
  NexthopVrfConfig::Ptr vrfIs(const L3::VrfName& vrfName, uint32_t fecIdType) {
    return vrfIs(vrfName, static_cast<NexthopStatusFecIdType>(fecIdType));
  }
  NexthopVrfConfig::Ptr vrf(const L3::VrfName& vrfName) const { return vrf_.get(vrfName); }
  bool vrfDel(const L3::VrfName& vrfName) { return vrf_.del(vrfName); }
  void vrfDelAll() { vrf_.delAll(); }
  bool vrfHas(const L3::VrfName& vrfName) const { return vrf_.has(vrfName); }
  size_t vrfCount() const { return vrf_.size(); }
  const VrfColl& vrf() const { return vrf_; }  // iteration

  std::string_view typeName() const override { return "Routing::NexthopConfig"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopConfig() = default;

  VrfColl vrf_{this, vrfAttr};
};

// The resolver's answer for one next hop: the FEC it resolves through.
class NexthopStatusEntry : public Kiln::Value<NexthopStatusEntry> {
 public:
  static constexpr std::string_view kilnTypeName = "Routing::NexthopStatusEntry";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("nexthop", &NexthopStatusEntry::nexthop_),
                           Kiln::attr("fecId", &NexthopStatusEntry::fecId_));
  }

  NexthopStatusEntry() = default;
  NexthopStatusEntry(const Netval::IpGenAddr& nexthop, Memtab::Fib::FecId fecId)
      : nexthop_(nexthop), fecId_(fecId) {}

  const Netval::IpGenAddr& nexthop() const { return nexthop_; }
  Memtab::Fib::FecId fecId() const { return fecId_; }

 private:
  Netval::IpGenAddr nexthop_;
  Memtab::Fib::FecId fecId_ = 0;
};

// The resolver's results for one VRF: an entry per resolved next hop. Written by the host's
// resolver; publishes nexthopAttr per address resolved, re-resolved or unresolved
// (notification values: NexthopStatusEntry).
class NexthopVrfStatus : public Core::Node {
 public:
  using Ptr = Core::Ptr<NexthopVrfStatus>;
  using NexthopColl = Core::Collection<Netval::IpGenAddr, NexthopStatusEntry,
                                       Core::KeyBy<&NexthopStatusEntry::nexthop>>;
  static constexpr Core::AttrId nexthopAttr = 1;

  static Ptr NexthopVrfStatusIs(const L3::VrfName& vrfName);

  const L3::VrfName& vrfName() const { return vrfName_; }

  bool nexthopIs(const NexthopStatusEntry& entry) { return nexthop_.set(entry); }
  bool nexthopDel(const Netval::IpGenAddr& addr) { return nexthop_.del(addr); }
  void nexthopDelAll() { nexthop_.delAll(); }
  bool nexthopHas(const Netval::IpGenAddr& addr) const { return nexthop_.has(addr); }
  // The entry, or the default entry (FEC id 0) when the address is not resolved.
  NexthopStatusEntry nexthop(const Netval::IpGenAddr& addr) const { return nexthop_.get(addr); }
  // The stored entry, null when absent; invalidated by the next change of the collection.
  const NexthopStatusEntry* nexthopFind(const Netval::IpGenAddr& addr) const {
    return nexthop_.find(addr);
  }
  size_t nexthopCount() const { return nexthop_.size(); }
  const NexthopColl& nexthop() const { return nexthop_; }  // iteration

  bool isNexthopResolved(const Netval::IpGenAddr& addr) const { return nexthop_.has(addr); }

  std::string_view typeName() const override { return "Routing::NexthopVrfStatus"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit NexthopVrfStatus(const L3::VrfName& vrfName) : vrfName_(vrfName) {}

  L3::VrfName vrfName_;
  NexthopColl nexthop_{this, nexthopAttr};
};

// The resolver's results of every VRF. Written by the host; publishes vrfAttr per VRF created or
// removed (notification values: NexthopVrfStatus::Ptr).
class NexthopStatus : public Core::Node {
 public:
  using Ptr = Core::Ptr<NexthopStatus>;
  using VrfColl = Core::ChildMap<L3::VrfName, NexthopVrfStatus, &NexthopVrfStatus::vrfName>;
  static constexpr Core::AttrId vrfAttr = 1;

  static Ptr NexthopStatusIs();

  // Get-or-create; publishes only when it creates.
  NexthopVrfStatus::Ptr vrfIs(const L3::VrfName& vrfName);
  NexthopVrfStatus::Ptr vrf(const L3::VrfName& vrfName) const { return vrf_.get(vrfName); }
  bool vrfDel(const L3::VrfName& vrfName) { return vrf_.del(vrfName); }
  void vrfDelAll() { vrf_.delAll(); }
  bool vrfHas(const L3::VrfName& vrfName) const { return vrf_.has(vrfName); }
  size_t vrfCount() const { return vrf_.size(); }
  const VrfColl& vrf() const { return vrf_; }  // iteration

  std::string_view typeName() const override { return "Routing::NexthopStatus"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopStatus() = default;

  VrfColl vrf_{this, vrfAttr};
};

// The queue of next hops whose resolution or FEC changed since the client last looked. Filled by
// the FIB monitor, drained by the client; publishes backlogAttr per address queued or removed.
// An address sits in it at most once, however often it changed.
class NexthopBacklog : public Core::Node {
 public:
  using Ptr = Core::Ptr<NexthopBacklog>;
  using BacklogColl = Core::KeySet<Netval::IpGenAddr>;
  static constexpr Core::AttrId backlogAttr = 1;

  static Ptr NexthopBacklogIs();

  bool backlogIs(const Netval::IpGenAddr& addr) { return backlog_.set(addr); }
  bool backlogDel(const Netval::IpGenAddr& addr) { return backlog_.del(addr); }
  void backlogDelAll() { backlog_.delAll(); }
  bool backlogHas(const Netval::IpGenAddr& addr) const { return backlog_.has(addr); }
  size_t backlogCount() const { return backlog_.size(); }
  // Iteration; deleting the current member during the loop is safe.
  const BacklogColl& backlog() const { return backlog_; }

  std::string_view typeName() const override { return "Routing::NexthopBacklog"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopBacklog() = default;

  BacklogColl backlog_{this, backlogAttr};
};

// The routing library's FIB monitor for one client and VRF. Queues into the backlog, at once,
// every address whose status entry is added, changed or removed, and every address whose entry
// points at a FEC that is set or removed (found through a FEC -> addresses index kept from the
// status changes). Null status or FEC table inputs are allowed: nothing is watched. At
// construction, and when switched back on, it indexes the existing entries and queues nothing.
class FibMonitorHelperSm : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<FibMonitorHelperSm>;

  static Ptr FibMonitorHelperSmIs(
      const std::string& clientName, Core::Ptr<const NexthopVrfStatus> nexthopVrfStatus,
      Core::Ptr<NexthopBacklog> nexthopBacklog,
      Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingStatus,
      Core::Ptr<Hub::TaskScheduler> scheduler);

  const std::string& clientName() const { return clientName_; }
  const Core::Ptr<const NexthopVrfStatus>& nexthopVrfStatus() const { return nexthopVrfStatus_; }
  const Core::Ptr<NexthopBacklog>& nexthopBacklog() const { return nexthopBacklog_; }
  const Core::Ptr<const Memtab::FibGen::ForwardingStatus>& forwardingStatus() const {
    return forwardingStatus_;
  }
  const Core::Ptr<Hub::TaskScheduler>& scheduler() const { return scheduler_; }

  // Switching on re-reads the status collection into the index (changes missed while off are
  // not queued).
  void hasNotificationActiveIs(bool active) override;

  // The number of addresses indexed under the FEC.
  size_t fecUserCount(Memtab::Fib::FecId fecId) const;

  std::string_view typeName() const override { return "Routing::FibMonitorHelperSm"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  // An indexed address: its FEC and its position in that FEC's user list (for O(1) removal).
  struct IndexedAddr {
    Netval::IpGenAddr addr;
    uint32_t position;
    Memtab::Fib::FecId fecId;
  };
  struct AddrOf {
    const Netval::IpGenAddr& operator()(const IndexedAddr& indexed) const { return indexed.addr; }
  };
  // The addresses whose status entry points at one FEC, unordered; sorted when queued or dumped.
  struct FecUsers {
    Memtab::Fib::FecId fecId;
    std::vector<Netval::IpGenAddr> addrs;
  };
  struct FecIdOf {
    const Memtab::Fib::FecId& operator()(const FecUsers& users) const { return users.fecId; }
  };

  FibMonitorHelperSm(const std::string& clientName,
                     Core::Ptr<const NexthopVrfStatus> nexthopVrfStatus,
                     Core::Ptr<NexthopBacklog> nexthopBacklog,
                     Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingStatus,
                     Core::Ptr<Hub::TaskScheduler> scheduler);

  void handleInitialized();
  void handleNexthopStatus(const Netval::IpGenAddr& addr);
  void handleFec(const Memtab::Fib::FecId& fecId);

  void indexAll();
  void indexIs(const Netval::IpGenAddr& addr, Memtab::Fib::FecId fecId);
  void indexDel(const Netval::IpGenAddr& addr);
  void queue(const Netval::IpGenAddr& addr);

  std::string clientName_;
  Core::Ptr<const NexthopVrfStatus> nexthopVrfStatus_;
  Core::Ptr<NexthopBacklog> nexthopBacklog_;
  Core::Ptr<const Memtab::FibGen::ForwardingStatus> forwardingStatus_;
  Core::Ptr<Hub::TaskScheduler> scheduler_;

  // Both directions of "the status entry of addr points at fecId", in flat tables: one entry per
  // resolved address costs no allocation of its own.
  Core::HashTable<Netval::IpGenAddr, IndexedAddr, AddrOf> fecOfAddr_;
  Core::HashTable<Memtab::Fib::FecId, FecUsers, FecIdOf> addrsOfFec_;

  Core::Slot<FibMonitorHelperSm, Netval::IpGenAddr, &FibMonitorHelperSm::handleNexthopStatus>
      statusSlot_{this, NexthopVrfStatus::nexthopAttr, nexthopVrfStatus_.get()};
  Core::Slot<FibMonitorHelperSm, Memtab::Fib::FecId, &FibMonitorHelperSm::handleFec> fecSlot_{
      this, Memtab::FibGen::ForwardingStatus::fecAttr, forwardingStatus_.get()};
};

}  // namespace Routing

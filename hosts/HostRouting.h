#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Core.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "framework/Store.h"
#include "platform/Memtab.h"
#include "platform/Routing.h"

namespace Hosts {

// An IPv4 prefix in canonical form: no address bit is set past the length.
class Prefix {
 public:
  Prefix() = default;
  // Throws HostError when length > 32 or an address bit past the length is set.
  Prefix(uint32_t addr, uint32_t length);
  // "10.0.0.0/24"; throws HostError naming the text when it is not a canonical IPv4 prefix.
  static Prefix fromText(std::string_view text);

  uint32_t addr() const { return addr_; }
  uint32_t length() const { return length_; }
  bool contains(uint32_t addr) const { return (addr & mask(length_)) == addr_; }
  std::string toString() const;

  static uint32_t mask(uint32_t length) { return length == 0 ? 0 : ~uint32_t{0} << (32 - length); }

  friend auto operator<=>(const Prefix&, const Prefix&) = default;

 private:
  uint32_t addr_ = 0;
  uint32_t length_ = 0;
};

namespace detail {
class NexthopVrfConfigWatch;
}

// The host's routing next-hop resolver: per-VRF route tables (independent of VRF status), one FEC
// per distinct via set in the table of the FEC mode, and a Routing::NexthopVrfStatus for every VRF
// registered in Routing::NexthopConfig, whose registered next hops it resolves by longest-prefix
// match. Watches the registrations; writes the statuses, the FEC tables and the entity manager.
class RoutingResolver : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<RoutingResolver>;
  using ViaList = std::vector<Memtab::FibGen::Via>;
  struct Route {
    ViaList vias;  // sorted, without duplicates
    Memtab::Fib::FecId fecId = 0;
  };
  using RouteTable = std::map<Prefix, Route>;
  using RouteMatch = RouteTable::value_type;

  static Ptr RoutingResolverIs(Core::Ptr<const Routing::NexthopConfig> nexthopConfig,
                               Routing::NexthopStatus::Ptr nexthopStatus,
                               Memtab::Fib::FecModeStatus::Ptr fecModeStatus,
                               Memtab::FibGen::ForwardingStatus::Ptr forwardingGenStatus,
                               Store::EntityManager::Ptr entityManager,
                               Hub::TaskScheduler::Ptr scheduler);
  ~RoutingResolver() override;

  // Creates or replaces the route. The vias are sorted, so the same set always makes the same
  // FEC. Applies at once and atomically for the client: a new FEC or status entry is written
  // before the old one is removed, so a next hop never looks unresolved in between. Throws
  // HostError for an empty via list or a via given twice.
  void routeIs(const L3::VrfName& vrfName, const Prefix& prefix, ViaList vias);
  // Throws HostError when the VRF has no such route.
  void routeDel(const L3::VrfName& vrfName, const Prefix& prefix);
  bool routeHas(const L3::VrfName& vrfName, const Prefix& prefix) const;
  // Every VRF's route table, by VRF name.
  const std::map<L3::VrfName, RouteTable>& routes() const { return routes_; }
  // The most specific route of the VRF containing `addr`; null when none does (or `addr` is not
  // IPv4).
  const RouteMatch* longestMatch(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) const;

  // Moves every FEC to the tables of the new mode under new ids. Throws HostError for a mode
  // other than 1 (per VRF) or 2 (global). Resolved next hops are rewritten but not atomically,
  // so the host changes the mode only before its client has next hops.
  void fecModeIs(Memtab::Fib::FecMode fecMode);
  Memtab::Fib::FecMode fecMode() const { return fecModeStatus_->fecMode(); }
  // The FEC table the VRF's routes use in the current mode.
  Memtab::FibGen::ForwardingStatus::Ptr fecTable(const L3::VrfName& vrfName);
  // Creates the VRF's own FEC table and publishes it in the entity manager at
  // vrfTablePath(vrfName), unless it exists; the table stays for the host's life, so a mount
  // always finds the same object. The default VRF has none: it always uses the global table.
  void vrfTableIs(const L3::VrfName& vrfName);
  static std::string vrfTablePath(const L3::VrfName& vrfName);

  // Whether a registration of the VRF has been processed and not withdrawn since.
  bool serves(const L3::VrfName& vrfName) const { return served_.contains(vrfName); }
  // Registration changes seen and not yet processed.
  size_t pendingEvents() const { return pendingEvents_; }

  std::string_view typeName() const override { return "Hosts::RoutingResolver"; }

 private:
  friend class detail::NexthopVrfConfigWatch;
  struct Served {
    Core::Ptr<const Routing::NexthopVrfConfig> config;
    Routing::NexthopVrfStatus::Ptr status;
    Core::Ptr<detail::NexthopVrfConfigWatch> watch;
  };
  struct FecIndex {
    std::map<ViaList, Memtab::Fib::FecId> bySet;
    std::map<Memtab::Fib::FecId, uint32_t> routeCount;
  };

  RoutingResolver(Core::Ptr<const Routing::NexthopConfig> nexthopConfig,
                  Routing::NexthopStatus::Ptr nexthopStatus,
                  Memtab::Fib::FecModeStatus::Ptr fecModeStatus,
                  Memtab::FibGen::ForwardingStatus::Ptr forwardingGenStatus,
                  Store::EntityManager::Ptr entityManager, Hub::TaskScheduler::Ptr scheduler);

  // Registration changes are answered the way the real resolver answers them: after the client's
  // handler returns, as scheduler tasks, one per change, in order and never coalesced (a
  // withdrawal followed by a registration removes the VRF's status and creates it again).
  void handleVrf(const L3::VrfName& vrfName);
  void handleNexthop(const L3::VrfName& vrfName, const Routing::NexthopVrfConfig* config,
                     const Netval::IpGenAddr& addr);
  // Queues `work` as one task that runs only while this resolver lives.
  template <class Work>
  void queue(Work work);
  void processRegistration(const L3::VrfName& vrfName,
                           Core::Ptr<const Routing::NexthopVrfConfig> config);
  void processNexthop(const L3::VrfName& vrfName, const Routing::NexthopVrfConfig* config,
                      const Netval::IpGenAddr& addr);

  void resolve(const Served& served, const L3::VrfName& vrfName, const Netval::IpGenAddr& addr);
  void resolveAll(const L3::VrfName& vrfName);

  Memtab::Fib::FecId fecAcquire(const Memtab::FibGen::ForwardingStatus::Ptr& table,
                                const ViaList& vias);
  void fecRelease(const Memtab::FibGen::ForwardingStatus::Ptr& table, Memtab::Fib::FecId fecId);

  Core::Ptr<const Routing::NexthopConfig> nexthopConfig_;
  Routing::NexthopStatus::Ptr nexthopStatus_;
  Memtab::Fib::FecModeStatus::Ptr fecModeStatus_;
  Memtab::FibGen::ForwardingStatus::Ptr forwardingGenStatus_;
  Store::EntityManager::Ptr entityManager_;
  Hub::TaskScheduler::Ptr scheduler_;

  std::map<L3::VrfName, RouteTable> routes_;
  // The prefix lengths each VRF's table holds, bit L for length L, so that a longest-prefix match
  // looks up only those lengths. Keyed by the table, which never moves inside routes_.
  std::map<const RouteTable*, uint64_t> prefixLengths_;
  std::map<L3::VrfName, Memtab::FibGen::ForwardingStatus::Ptr> vrfTables_;
  std::map<const Memtab::FibGen::ForwardingStatus*, FecIndex> fecIndex_;
  Memtab::Fib::FecId nextFecId_ = 1;
  std::map<L3::VrfName, Served> served_;
  size_t pendingEvents_ = 0;
  // Queued tasks hold only a weak reference to it, so a task outliving the resolver does nothing.
  std::shared_ptr<char> alive_ = std::make_shared<char>();

  Core::Slot<RoutingResolver, L3::VrfName, &RoutingResolver::handleVrf> vrfSlot_{
      this, Routing::NexthopConfig::vrfAttr, nexthopConfig_.get()};
};

namespace detail {

// Watches one registered VRF's next hops for the resolver (which owns it; the back pointer is
// not counted) and hands each changed address to it.
class NexthopVrfConfigWatch : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<NexthopVrfConfigWatch>;
  static Ptr NexthopVrfConfigWatchIs(RoutingResolver* owner, const L3::VrfName& vrfName,
                                     Core::Ptr<const Routing::NexthopVrfConfig> config) {
    return Ptr(new NexthopVrfConfigWatch(owner, vrfName, std::move(config)));
  }
  std::string_view typeName() const override { return "Hosts::detail::NexthopVrfConfigWatch"; }

 private:
  NexthopVrfConfigWatch(RoutingResolver* owner, const L3::VrfName& vrfName,
                        Core::Ptr<const Routing::NexthopVrfConfig> config)
      : owner_(owner), vrfName_(vrfName), config_(std::move(config)) {}

  void handleNexthop(const Netval::IpGenAddr& addr) {
    owner_->handleNexthop(vrfName_, config_.get(), addr);
  }

  RoutingResolver* owner_;
  L3::VrfName vrfName_;
  Core::Ptr<const Routing::NexthopVrfConfig> config_;
  Core::Slot<NexthopVrfConfigWatch, Netval::IpGenAddr, &NexthopVrfConfigWatch::handleNexthop> slot_{
      this, Routing::NexthopVrfConfig::nexthopAttr, config_.get()};
};

}  // namespace detail

}  // namespace Hosts

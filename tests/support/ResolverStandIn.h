#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/Core.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "platform/Memtab.h"
#include "platform/Routing.h"
#include "support/ChangeRecorder.h"

namespace TestSupport {

// Plays the host's routing next-hop resolver: makes NexthopStatus follow NexthopConfig and its
// route tables, one shared by all VRFs and one per VRF (a VRF's own route wins). A registered
// VRF has a NexthopVrfStatus; a registered next hop has a status entry with its route's FEC
// while a route table holds one. It acts in one of two ways:
// - By hand (the default): nothing happens by itself; run() (called by the test after a change,
//   or queued with scheduleRun()) brings NexthopStatus in line with everything in one pass.
// - Following (followIs): it hears VRF and next-hop registrations inside the module's handlers
//   and acts on them only afterwards, one scheduler task per change in the order the changes
//   happened, never coalesced; a withdrawn VRF registration removes the VRF's status (unless
//   withdrawalRemovesStatusIs(false)), a new one creates it. Route changes apply at once.
class ResolverStandIn {
 public:
  using FecId = Memtab::Fib::FecId;

  ResolverStandIn(Routing::NexthopConfig::Ptr nexthopConfig,
                  Routing::NexthopStatus::Ptr nexthopStatus)
      : nexthopConfig_(std::move(nexthopConfig)), nexthopStatus_(std::move(nexthopStatus)) {}
  ResolverStandIn(const ResolverStandIn&) = delete;
  ResolverStandIn& operator=(const ResolverStandIn&) = delete;

  // Routes of the table shared by all VRFs.
  void routeIs(const Netval::IpGenAddr& addr, FecId fecId) { routes_[addr] = fecId; }
  void routeDel(const Netval::IpGenAddr& addr) { routes_.erase(addr); }
  // Routes of the VRF's own table.
  void routeIs(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr, FecId fecId) {
    vrfRoutes_[std::string(vrfName.str())][addr] = fecId;
    if (following()) doResolve(vrfName, addr);
  }
  void routeDel(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) {
    vrfRoutes_[std::string(vrfName.str())].erase(addr);
    if (following()) doResolve(vrfName, addr);
  }
  // The FEC of the route for `addr` that `vrfName` uses, 0 when it has none.
  FecId route(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) const {
    const FecId* fecId = routeOf(vrfName, addr);
    return fecId ? *fecId : 0;
  }

  // Brings NexthopStatus in line with NexthopConfig and the route tables. Creating a VRF status
  // may build a pipeline that registers addresses: each VRF's registrations are read after its
  // status exists.
  void run() {
    std::vector<L3::VrfName> withdrawn;
    for (const Routing::NexthopVrfStatus::Ptr& vrfStatus : nexthopStatus_->vrf()) {
      if (!nexthopConfig_->vrfHas(vrfStatus->vrfName())) withdrawn.push_back(vrfStatus->vrfName());
    }
    for (const L3::VrfName& vrfName : withdrawn) nexthopStatus_->vrfDel(vrfName);

    std::vector<L3::VrfName> registered;
    for (const Routing::NexthopVrfConfig::Ptr& vrfConfig : nexthopConfig_->vrf()) {
      registered.push_back(vrfConfig->vrfName());
    }
    for (const L3::VrfName& vrfName : registered) {
      if (!nexthopConfig_->vrfHas(vrfName)) continue;
      const Routing::NexthopVrfStatus::Ptr vrfStatus = nexthopStatus_->vrfIs(vrfName);
      if (const Routing::NexthopVrfConfig::Ptr vrfConfig = nexthopConfig_->vrf(vrfName)) {
        resolve(*vrfConfig, *vrfStatus);
      }
    }
  }
  // Queues run() on the scheduler; the stand-in must outlive the task.
  void scheduleRun(Hub::TaskScheduler& scheduler) {
    scheduler.schedule([this] { run(); });
  }

  // From now on, follows the registrations through tasks on `scheduler`, which must not run
  // tasks after the stand-in is gone.
  void followIs(Hub::TaskScheduler::Ptr scheduler) {
    scheduler_ = std::move(scheduler);
    vrfWatch_ = std::make_unique<ChangeRecorder<L3::VrfName>>(*nexthopConfig_,
                                                              Routing::NexthopConfig::vrfAttr);
    vrfWatch_->onChange = [this](const L3::VrfName& vrfName) { handleVrf(vrfName); };
  }
  bool following() const { return scheduler_ != nullptr; }
  // Off plays a resolver that keeps a VRF's status when the registration is withdrawn.
  void withdrawalRemovesStatusIs(bool removes) { withdrawalRemovesStatus_ = removes; }
  // Tasks run so far, per kind; lets a test see that no change was coalesced.
  size_t registrationsDone() const { return registrationsDone_; }
  size_t withdrawalsDone() const { return withdrawalsDone_; }

 private:
  using NexthopVrfConfigPtr = Core::Ptr<Routing::NexthopVrfConfig>;
  using NexthopWatch = ChangeRecorder<Netval::IpGenAddr>;

  const FecId* routeOf(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) const {
    if (auto table = vrfRoutes_.find(vrfName.str()); table != vrfRoutes_.end()) {
      if (auto found = table->second.find(addr); found != table->second.end()) {
        return &found->second;
      }
    }
    auto found = routes_.find(addr);
    return found == routes_.end() ? nullptr : &found->second;
  }

  void resolve(const Routing::NexthopVrfConfig& vrfConfig, Routing::NexthopVrfStatus& vrfStatus) {
    std::vector<Netval::IpGenAddr> unresolved;
    for (const Routing::NexthopStatusEntry& entry : vrfStatus.nexthop()) {
      if (!vrfConfig.nexthopHas(entry.nexthop()) ||
          !routeOf(vrfConfig.vrfName(), entry.nexthop())) {
        unresolved.push_back(entry.nexthop());
      }
    }
    for (const Netval::IpGenAddr& addr : unresolved) vrfStatus.nexthopDel(addr);

    std::vector<Netval::IpGenAddr> addrs;
    for (const Routing::NexthopConfigEntry& entry : vrfConfig.nexthop()) {
      addrs.push_back(entry.nexthop());
    }
    for (const Netval::IpGenAddr& addr : addrs) {
      if (const FecId* fecId = routeOf(vrfConfig.vrfName(), addr)) {
        vrfStatus.nexthopIs(Routing::NexthopStatusEntry(addr, *fecId));
      }
    }
  }

  // Following: runs inside the module's handler, so it only watches and queues.
  void handleVrf(const L3::VrfName& vrfName) {
    auto values = Core::getNotifyValues<NexthopVrfConfigPtr>(nexthopConfig_.get(),
                                                             Routing::NexthopConfig::vrfAttr);
    if (values.oldValue) {
      nexthopWatch_.erase(vrfName);
      scheduler_->schedule([this, vrfName] { doWithdraw(vrfName); });
    }
    if (values.newValue) {
      auto watch =
          std::make_unique<NexthopWatch>(**values.newValue, Routing::NexthopVrfConfig::nexthopAttr);
      watch->onChange = [this, vrfName](const Netval::IpGenAddr& addr) {
        scheduler_->schedule([this, vrfName, addr] { doResolve(vrfName, addr); });
      };
      nexthopWatch_[vrfName] = std::move(watch);
      scheduler_->schedule([this, vrfName] { doRegister(vrfName); });
    }
  }

  void doRegister(const L3::VrfName& vrfName) {
    ++registrationsDone_;
    Routing::NexthopVrfStatus::Ptr status = nexthopStatus_->vrfIs(vrfName);
    NexthopVrfConfigPtr config = nexthopConfig_->vrf(vrfName);
    if (!config) return;
    std::vector<Netval::IpGenAddr> addrs;
    for (const Routing::NexthopConfigEntry& entry : config->nexthop())
      addrs.push_back(entry.nexthop());
    for (const Netval::IpGenAddr& addr : addrs) doResolve(vrfName, addr);
  }

  void doWithdraw(const L3::VrfName& vrfName) {
    ++withdrawalsDone_;
    if (withdrawalRemovesStatus_) nexthopStatus_->vrfDel(vrfName);
  }

  // Level-triggered: the entry follows the current registration and route.
  void doResolve(const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) {
    Routing::NexthopVrfStatus::Ptr status = nexthopStatus_->vrf(vrfName);
    if (!status) return;
    NexthopVrfConfigPtr config = nexthopConfig_->vrf(vrfName);
    const FecId* fecId = routeOf(vrfName, addr);
    if (config && config->nexthopHas(addr) && fecId) {
      status->nexthopIs(Routing::NexthopStatusEntry(addr, *fecId));
    } else {
      status->nexthopDel(addr);
    }
  }

  Routing::NexthopConfig::Ptr nexthopConfig_;
  Routing::NexthopStatus::Ptr nexthopStatus_;
  std::map<Netval::IpGenAddr, FecId> routes_;
  std::map<std::string, std::map<Netval::IpGenAddr, FecId>, std::less<>> vrfRoutes_;
  Hub::TaskScheduler::Ptr scheduler_;
  bool withdrawalRemovesStatus_ = true;
  size_t registrationsDone_ = 0;
  size_t withdrawalsDone_ = 0;
  std::map<L3::VrfName, std::unique_ptr<NexthopWatch>> nexthopWatch_;
  std::unique_ptr<ChangeRecorder<L3::VrfName>> vrfWatch_;
};

}  // namespace TestSupport

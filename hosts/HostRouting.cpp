#include "hosts/HostRouting.h"

#include <algorithm>
#include <utility>

#include "framework/Kiln.h"
#include "hosts/HostError.h"

namespace Hosts {

Prefix::Prefix(uint32_t addr, uint32_t length) : addr_(addr), length_(length) {
  if (length > 32) throw HostError("prefix length " + std::to_string(length) + " is over 32");
  if ((addr & mask(length)) != addr) {
    throw HostError("prefix " + toString() + " has address bits set past its length");
  }
}

Prefix Prefix::fromText(std::string_view text) {
  const auto bad = [&](std::string_view why) {
    return HostError("bad prefix '" + std::string(text) + "': " + std::string(why));
  };
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) throw bad("expected ADDRESS/LENGTH");
  Netval::IpGenAddr addr;
  try {
    addr = Netval::IpGenAddr::fromText(text.substr(0, slash));
  } catch (const Kiln::ParseError&) {
    throw bad("not an IPv4 address");
  }
  if (addr.af() != Netval::AddressFamily::ipv4_) throw bad("not an IPv4 address");
  const std::string_view lengthText = text.substr(slash + 1);
  if (lengthText.empty() || lengthText.size() > 2 ||
      (lengthText.size() > 1 && lengthText[0] == '0') ||
      !std::all_of(lengthText.begin(), lengthText.end(),
                   [](char c) { return c >= '0' && c <= '9'; })) {
    throw bad("length is not a number from 0 to 32");
  }
  const uint32_t length = static_cast<uint32_t>(std::stoul(std::string(lengthText)));
  if (length > 32) throw bad("length is not a number from 0 to 32");
  if ((addr.v4() & mask(length)) != addr.v4()) throw bad("address bits set past the length");
  return Prefix(addr.v4(), length);
}

std::string Prefix::toString() const {
  return Netval::IpGenAddr::ipv4(addr_).toString() + "/" + std::to_string(length_);
}

RoutingResolver::Ptr RoutingResolver::RoutingResolverIs(
    Core::Ptr<const Routing::NexthopConfig> nexthopConfig,
    Routing::NexthopStatus::Ptr nexthopStatus, Memtab::Fib::FecModeStatus::Ptr fecModeStatus,
    Memtab::FibGen::ForwardingStatus::Ptr forwardingGenStatus,
    Store::EntityManager::Ptr entityManager, Hub::TaskScheduler::Ptr scheduler) {
  return Ptr(new RoutingResolver(std::move(nexthopConfig), std::move(nexthopStatus),
                                 std::move(fecModeStatus), std::move(forwardingGenStatus),
                                 std::move(entityManager), std::move(scheduler)));
}

RoutingResolver::RoutingResolver(Core::Ptr<const Routing::NexthopConfig> nexthopConfig,
                                 Routing::NexthopStatus::Ptr nexthopStatus,
                                 Memtab::Fib::FecModeStatus::Ptr fecModeStatus,
                                 Memtab::FibGen::ForwardingStatus::Ptr forwardingGenStatus,
                                 Store::EntityManager::Ptr entityManager,
                                 Hub::TaskScheduler::Ptr scheduler)
    : nexthopConfig_(std::move(nexthopConfig)),
      nexthopStatus_(std::move(nexthopStatus)),
      fecModeStatus_(std::move(fecModeStatus)),
      forwardingGenStatus_(std::move(forwardingGenStatus)),
      entityManager_(std::move(entityManager)),
      scheduler_(std::move(scheduler)) {
  CORE_ASSERT(nexthopConfig_ && nexthopStatus_ && fecModeStatus_ && forwardingGenStatus_);
  CORE_ASSERT(entityManager_ && scheduler_);
}

RoutingResolver::~RoutingResolver() = default;

void RoutingResolver::routeIs(const L3::VrfName& vrfName, const Prefix& prefix, ViaList vias) {
  if (vias.empty()) throw HostError("route " + prefix.toString() + " needs at least one via");
  std::sort(vias.begin(), vias.end());
  if (auto twice = std::adjacent_find(vias.begin(), vias.end()); twice != vias.end()) {
    throw HostError("route " + prefix.toString() + " lists via " + twice->hop().toString() +
                    " dev " + twice->intfId().name() + " twice");
  }
  if (vias.size() > Memtab::FibGen::Fec::maxVia) {
    throw HostError("route " + prefix.toString() + " has more than " +
                    std::to_string(Memtab::FibGen::Fec::maxVia) + " vias");
  }
  const Memtab::FibGen::ForwardingStatus::Ptr table = fecTable(vrfName);
  RouteTable& vrfRoutes = routes_[vrfName];
  const auto present = vrfRoutes.find(prefix);
  if (present != vrfRoutes.end()) {
    Route& route = present->second;
    if (route.vias == vias) return;
    FecIndex& index = fecIndex_[table.get()];
    // The route is the FEC's only user and no FEC has the new vias yet: change the FEC itself,
    // so the status entries keep their FEC id and the FIB monitor queues exactly its users.
    if (index.routeCount[route.fecId] == 1 && !index.bySet.contains(vias)) {
      index.bySet.erase(route.vias);
      index.bySet[vias] = route.fecId;
      route.vias = std::move(vias);
      table->fecIs(Memtab::FibGen::Fec(route.fecId, route.vias));
      return;
    }
  }
  const Memtab::Fib::FecId newFecId = fecAcquire(table, vias);
  const Memtab::Fib::FecId oldFecId = present != vrfRoutes.end() ? present->second.fecId : 0;
  vrfRoutes[prefix] = Route{std::move(vias), newFecId};
  prefixLengths_[&vrfRoutes] |= uint64_t{1} << prefix.length();
  resolveAll(vrfName);
  if (oldFecId != 0) fecRelease(table, oldFecId);
}

void RoutingResolver::routeDel(const L3::VrfName& vrfName, const Prefix& prefix) {
  auto vrfRoutes = routes_.find(vrfName);
  if (vrfRoutes == routes_.end() || !vrfRoutes->second.contains(prefix)) {
    throw HostError("no route " + prefix.toString() + " in VRF " + std::string(vrfName.str()));
  }
  const auto route = vrfRoutes->second.find(prefix);
  const Memtab::Fib::FecId fecId = route->second.fecId;
  vrfRoutes->second.erase(route);
  uint64_t& lengths = prefixLengths_[&vrfRoutes->second];
  lengths = 0;
  for (const auto& [left, _] : vrfRoutes->second) lengths |= uint64_t{1} << left.length();
  resolveAll(vrfName);
  fecRelease(fecTable(vrfName), fecId);
}

bool RoutingResolver::routeHas(const L3::VrfName& vrfName, const Prefix& prefix) const {
  const auto vrfRoutes = routes_.find(vrfName);
  return vrfRoutes != routes_.end() && vrfRoutes->second.contains(prefix);
}

const RoutingResolver::RouteMatch* RoutingResolver::longestMatch(
    const L3::VrfName& vrfName, const Netval::IpGenAddr& addr) const {
  const auto vrfRoutes = routes_.find(vrfName);
  if (vrfRoutes == routes_.end() || addr.af() != Netval::AddressFamily::ipv4_) return nullptr;
  const auto present = prefixLengths_.find(&vrfRoutes->second);
  const uint64_t lengths = present == prefixLengths_.end() ? 0 : present->second;
  for (uint32_t length = 33; length-- > 0;) {
    if ((lengths >> length & 1) == 0) continue;
    const auto route = vrfRoutes->second.find(Prefix(addr.v4() & Prefix::mask(length), length));
    if (route != vrfRoutes->second.end()) return &*route;
  }
  return nullptr;
}

void RoutingResolver::fecModeIs(Memtab::Fib::FecMode fecMode) {
  if (fecMode != Memtab::Fib::fecModePerVrf() && fecMode != Memtab::Fib::fecModeGlobal()) {
    throw HostError("FEC mode " + std::to_string(fecMode) +
                    " is neither 1 (per VRF) nor 2 (global)");
  }
  if (fecMode == this->fecMode()) return;
  fecModeStatus_->fecModeIs(fecMode);
  forwardingGenStatus_->fecDelAll();
  for (auto& [vrfName, table] : vrfTables_) table->fecDelAll();
  fecIndex_.clear();
  for (auto& [vrfName, vrfRoutes] : routes_) {
    const Memtab::FibGen::ForwardingStatus::Ptr table = fecTable(vrfName);
    for (auto& [prefix, route] : vrfRoutes) route.fecId = fecAcquire(table, route.vias);
  }
  for (const auto& [vrfName, served] : served_) resolveAll(vrfName);
}

Memtab::FibGen::ForwardingStatus::Ptr RoutingResolver::fecTable(const L3::VrfName& vrfName) {
  if (vrfName == L3::defaultVrfName() || fecMode() != Memtab::Fib::fecModePerVrf()) {
    return forwardingGenStatus_;
  }
  vrfTableIs(vrfName);
  return vrfTables_.at(vrfName);
}

void RoutingResolver::vrfTableIs(const L3::VrfName& vrfName) {
  if (vrfName == L3::defaultVrfName() || vrfTables_.contains(vrfName)) return;
  auto table = Memtab::FibGen::ForwardingStatus::ForwardingStatusIs();
  entityManager_->entityIs(vrfTablePath(vrfName), table);
  vrfTables_.emplace(vrfName, std::move(table));
}

std::string RoutingResolver::vrfTablePath(const L3::VrfName& vrfName) {
  return "forwardingGen/vrf/status/" + std::string(vrfName.str());
}

void RoutingResolver::handleVrf(const L3::VrfName& vrfName) {
  using ConfigPtr = Core::Ptr<Routing::NexthopVrfConfig>;
  const auto values =
      Core::getNotifyValues<ConfigPtr>(nexthopConfig_.get(), Routing::NexthopConfig::vrfAttr);
  Core::Ptr<const Routing::NexthopVrfConfig> config =
      values.present ? (values.newValue ? *values.newValue : ConfigPtr())
                     : nexthopConfig_->vrf(vrfName);
  // The client may mount the VRF's FEC table as soon as the resolver answers: have it ready.
  if (config) vrfTableIs(vrfName);
  queue([this, vrfName, config = std::move(config)]() mutable {
    processRegistration(vrfName, std::move(config));
  });
}

void RoutingResolver::handleNexthop(const L3::VrfName& vrfName,
                                    const Routing::NexthopVrfConfig* config,
                                    const Netval::IpGenAddr& addr) {
  queue([this, vrfName, config, addr] { processNexthop(vrfName, config, addr); });
}

template <class Work>
void RoutingResolver::queue(Work work) {
  ++pendingEvents_;
  scheduler_->schedule(
      [this, alive = std::weak_ptr<char>(alive_), work = std::move(work)]() mutable {
        if (alive.expired()) return;
        --pendingEvents_;
        work();
      });
}

void RoutingResolver::processRegistration(const L3::VrfName& vrfName,
                                          Core::Ptr<const Routing::NexthopVrfConfig> config) {
  if (served_.erase(vrfName) != 0) nexthopStatus_->vrfDel(vrfName);
  if (!config) return;
  auto watch = detail::NexthopVrfConfigWatch::NexthopVrfConfigWatchIs(this, vrfName, config);
  served_[vrfName] = Served{std::move(config), nullptr, std::move(watch)};
  served_[vrfName].status = nexthopStatus_->vrfIs(vrfName);
  resolveAll(vrfName);
}

void RoutingResolver::processNexthop(const L3::VrfName& vrfName,
                                     const Routing::NexthopVrfConfig* config,
                                     const Netval::IpGenAddr& addr) {
  const auto served = served_.find(vrfName);
  // A change of a registration withdrawn since is answered by the withdrawal.
  if (served == served_.end() || served->second.config.get() != config) return;
  resolve(served->second, vrfName, addr);
}

void RoutingResolver::resolve(const Served& served, const L3::VrfName& vrfName,
                              const Netval::IpGenAddr& addr) {
  const RouteMatch* match = served.config->nexthopHas(addr) ? longestMatch(vrfName, addr) : nullptr;
  if (match) {
    served.status->nexthopIs(Routing::NexthopStatusEntry(addr, match->second.fecId));
  } else {
    served.status->nexthopDel(addr);
  }
}

void RoutingResolver::resolveAll(const L3::VrfName& vrfName) {
  const auto served = served_.find(vrfName);
  if (served == served_.end()) return;
  // Copy the addresses first: writing a status entry runs the client, which may change the
  // registrations under the loop.
  std::vector<Netval::IpGenAddr> addrs;
  for (const auto& entry : served->second.config->nexthop()) addrs.push_back(entry.nexthop());
  for (const auto& entry : served->second.status->nexthop()) addrs.push_back(entry.nexthop());
  const Served keep = served->second;
  for (const Netval::IpGenAddr& addr : addrs) resolve(keep, vrfName, addr);
}

Memtab::Fib::FecId RoutingResolver::fecAcquire(const Memtab::FibGen::ForwardingStatus::Ptr& table,
                                               const ViaList& vias) {
  FecIndex& index = fecIndex_[table.get()];
  auto [found, inserted] = index.bySet.try_emplace(vias, nextFecId_);
  if (inserted) {
    ++nextFecId_;
    table->fecIs(Memtab::FibGen::Fec(found->second, vias));
  }
  ++index.routeCount[found->second];
  return found->second;
}

void RoutingResolver::fecRelease(const Memtab::FibGen::ForwardingStatus::Ptr& table,
                                 Memtab::Fib::FecId fecId) {
  FecIndex& index = fecIndex_[table.get()];
  const auto count = index.routeCount.find(fecId);
  CORE_ASSERT(count != index.routeCount.end() && count->second > 0);
  if (--count->second != 0) return;
  index.routeCount.erase(count);
  std::erase_if(index.bySet, [fecId](const auto& member) { return member.second == fecId; });
  table->fecDel(fecId);
}

}  // namespace Hosts

#include "hosts/linux/LinuxHost.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <sstream>
#include <tuple>
#include <utility>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/DualLog.h"
#include "framework/Kiln.h"
#include "hosts/HostError.h"

namespace Hosts::Linux {

namespace {

[[gnu::always_inline]] inline DualLog::Handle& traceHandle() {
  static DualLog::Handle handle("LinuxHost", false);
  return handle;
}

Netval::IpGenAddr ipv4(uint32_t hostOrder) { return Netval::IpGenAddr::ipv4(hostOrder); }

bool foreignNeighbour(const Neighbour& n) {
  // Someone's static entry, or one another program wrote: resolved without us, never ours to
  // touch.
  return (n.state & (NUD_PERMANENT | NUD_NOARP)) != 0 ||
         (n.protocol != 0 && n.protocol != kOwnProtocol);
}

}  // namespace

// One VRF's namespace: its mirror, and what of it the module's inputs hold.
struct LinuxHost::Space : MirrorListener {
  LinuxHost& host;
  L3::VrfName vrf;
  std::string netnsName;
  std::optional<Netns> netns;
  std::unique_ptr<KernelMirror> mirror;
  uint64_t pastResyncs = 0;  // of mirrors dropped with a lost namespace
  uint64_t pastRefused = 0;

  std::map<int32_t, Netval::IntfId> intfs;  // accepted interfaces
  std::set<Netval::IntfId> tables;          // engine tables made (interface up)
  std::map<uint32_t, std::pair<Netval::IntfId, Netval::EthAddr>> engineEntries;
  std::map<Neighbour::Key, Plane::NextHopKey> fedNeighbours;
  std::map<Prefix, RoutingResolver::ViaList> fedRoutes;
  std::map<uint32_t, std::set<Prefix>> routesByNhId;
  bool ready = false;

  Space(LinuxHost& h, L3::VrfName v, std::string n)
      : host(h), vrf(std::move(v)), netnsName(std::move(n)) {}

  const KernelState& state() const { return mirror->state(); }
  bool open() const { return mirror != nullptr; }

  Netval::IntfId intf(int32_t ifindex) const {
    auto it = intfs.find(ifindex);
    return it == intfs.end() ? Netval::IntfId() : it->second;
  }
  int32_t ifindexOf(Netval::IntfId id) const {
    for (const auto& [ifindex, intf] : intfs) {
      if (intf == id) return ifindex;
    }
    return 0;
  }
  const Link* link(int32_t ifindex) const {
    auto it = state().links.find(ifindex);
    return it == state().links.end() ? nullptr : &it->second;
  }
  const Neighbour* neighbour(int32_t ifindex, uint32_t dst) const {
    auto it = state().neighbours.find({ifindex, dst});
    return it == state().neighbours.end() ? nullptr : &it->second;
  }

  // Interfaces.
  void linkChanged(const Link* before, const Link* after) override {
    if (before && (!after || before->name != after->name)) unaccept(before->ifindex);
    if (after && (!before || before->name != after->name)) accept(*after);
    if (after) tableFollows(*after);
    // Bridge membership, names and states feed neighbours and routes: look at them again.
    refreshNeighbours([](const Neighbour&) { return true; });
    refreshAllRoutes();
    updateReadiness();
  }

  void accept(const Link& link) {
    if (link.loopback) return;
    Netval::IntfId id;
    try {
      id = Netval::IntfId::fromKernelName(link.name);
    } catch (const Kiln::ParseError& e) {
      host.warn(std::string(e.what()) + " in " + where() + ": left out");
      return;
    }
    auto [it, fresh] = host.owner_.emplace(id, this);
    if (!fresh) {
      const std::string text = "interface name " + link.name + " of " + where() +
                               " clashes with the same name in " + it->second->where();
      if (host.starting_) {
        host.startErrors_.push_back(text);
      } else {
        host.warn(text + ": left out");
      }
      return;
    }
    intfs[link.ifindex] = id;
    DUALLOG_TRACE(8, "vrf ", vrf, " interface ", id, " ifindex ", link.ifindex);
  }

  void unaccept(int32_t ifindex) {
    auto it = intfs.find(ifindex);
    if (it == intfs.end()) return;
    const Netval::IntfId id = it->second;
    tableDel(id);
    for (auto n = fedNeighbours.begin(); n != fedNeighbours.end();) {
      if (n->first.ifindex == ifindex) {
        host.nextHopInfoWrapper()->nextHopInfoDel(n->second);
        n = fedNeighbours.erase(n);
      } else {
        ++n;
      }
    }
    intfs.erase(it);
    host.owner_.erase(id);
  }

  // A device's next-hop table exists while the device is accepted and up.
  void tableFollows(const Link& link) {
    const Netval::IntfId id = intf(link.ifindex);
    if (id.empty()) return;
    if (link.up && !tables.contains(id)) {
      host.engine()->nhTableIs(id);
      tables.insert(id);
      for (const auto& [nhId, nh] : state().nexthops) {
        if (nh.oif == link.ifindex) refreshEngine(nhId);
      }
    } else if (!link.up) {
      tableDel(id);
    }
  }

  void tableDel(Netval::IntfId id) {
    if (!tables.erase(id)) return;
    // The table's entries go with it.
    for (auto e = engineEntries.begin(); e != engineEntries.end();) {
      e = e->second.first == id ? engineEntries.erase(e) : std::next(e);
    }
    host.engine()->nhTableDel(id);
  }

  void updateReadiness() {
    bool up = false;
    if (open()) {
      for (const auto& [ifindex, id] : intfs) {
        const Link* l = link(ifindex);
        if (l && l->up) up = true;
      }
    }
    if (up == ready) return;
    ready = up;
    DUALLOG_TRACE(8, "vrf ", vrf, up ? " ready" : " not ready");
    if (up) {
      host.vrfAdd(vrf);
    } else {
      if (auto arpVrfId = host.arpVrfIdOf(vrf)) host.dropArpEntries(*arpVrfId);
      host.vrfDel(vrf);
    }
  }

  // Forwarding engine: one entry per single nexthop object with a resolved gateway.
  void nexthopChanged(const Nexthop* before, const Nexthop* after) override {
    const uint32_t id = before ? before->id : after->id;
    refreshEngine(id);
    std::set<uint32_t> users{id};
    for (const auto& [groupId, nh] : state().nexthops) {
      for (const auto& member : nh.group) {
        if (member.id == id) users.insert(groupId);
      }
    }
    for (uint32_t user : users) refreshRoutesUsing(user);
  }

  void refreshEngine(uint32_t id) {
    std::optional<std::pair<Netval::IntfId, Netval::EthAddr>> want;
    auto it = state().nexthops.find(id);
    if (it != state().nexthops.end() &&
        id != FwdL3Unicast::NexthopNhIndexResolverConstants::invalidNhIndex()) {
      const Nexthop& nh = it->second;
      const Netval::IntfId dev = intf(nh.oif);
      if (!nh.isGroup() && !nh.blackhole && !nh.fdb && nh.gateway != 0 && !dev.empty() &&
          tables.contains(dev)) {
        const Neighbour* n = neighbour(nh.oif, nh.gateway);
        if (n && n->hasMac()) want = std::make_pair(dev, *n->lladdr);
      }
    }
    auto have = engineEntries.find(id);
    if (have != engineEntries.end() && (!want || have->second.first != want->first)) {
      host.engine()->nhIndexDel(have->second.first, id);
      engineEntries.erase(have);
      have = engineEntries.end();
    }
    if (want && (have == engineEntries.end() || have->second != *want)) {
      host.engine()->nhIndexReplace(want->first, id, want->second);
      engineEntries[id] = *want;
    }
  }

  // Neighbours.
  void fdbChanged(const FdbEntry* before, const FdbEntry* after) override {
    const int32_t bridge = before ? before->bridge : after->bridge;
    if (bridge == 0) return;
    refreshNeighbours([&](const Neighbour& n) { return bridgeOf(n.ifindex) == bridge; });
  }

  // The bridge behind a device: itself when it is one, the device under a VLAN that is one.
  int32_t bridgeOf(int32_t ifindex) const {
    const Link* l = link(ifindex);
    if (!l) return 0;
    if (l->isBridge()) return ifindex;
    if (l->kind == "vlan") {
      const Link* lower = link(l->lower);
      if (lower && lower->isBridge()) return l->lower;
    }
    return 0;
  }

  // The L2 interface of a neighbour with MAC `mac` on `ifindex`; empty when unknown.
  Netval::IntfId l2Intf(int32_t ifindex, Netval::EthAddr mac) const {
    const int32_t bridge = bridgeOf(ifindex);
    if (bridge == 0) return intf(ifindex);
    const Link* dev = link(ifindex);
    const uint16_t vlan = dev && dev->kind == "vlan" ? dev->vlanId : 0;
    for (const auto& [key, fdb] : state().fdb) {
      if (fdb.bridge != bridge || fdb.mac != mac || fdb.port == bridge) continue;
      if (fdb.flags & NTF_SELF) continue;
      if (fdb.vlan != 0 && fdb.vlan != vlan) continue;
      return intf(fdb.port);
    }
    return Netval::IntfId();
  }

  void neighbourChanged(const Neighbour* before, const Neighbour* after) override {
    const Neighbour& n = before ? *before : *after;
    feedNeighbour(n.key());
    for (const auto& [id, nh] : state().nexthops) {
      if (nh.oif == n.ifindex && nh.gateway == n.dst) refreshEngine(id);
    }
  }

  void feedNeighbour(const Neighbour::Key& key) {
    const Neighbour* n = neighbour(key.ifindex, key.dst);
    const Netval::IntfId dev = intf(key.ifindex);
    auto fed = fedNeighbours.find(key);
    if (!n || dev.empty()) {
      if (fed != fedNeighbours.end()) {
        host.nextHopInfoWrapper()->nextHopInfoDel(fed->second);
        fedNeighbours.erase(fed);
      }
      return;
    }
    const Plane::NextHopKey nhKey(dev, ipv4(key.dst));
    const Netval::EthAddr mac = n->hasMac() ? *n->lladdr : Netval::EthAddr();
    const Netval::IntfId l2 = mac.isZero() ? dev : l2Intf(key.ifindex, mac);
    host.nextHopInfoWrapper()->nextHopInfoIs(nhKey, Plane::NextHopInfo(l2, mac));
    fedNeighbours[key] = nhKey;
  }

  template <class Which>
  void refreshNeighbours(Which which) {
    if (!open()) return;
    std::vector<Neighbour::Key> keys;
    for (const auto& [key, n] : state().neighbours) {
      if (which(n)) keys.push_back(key);
    }
    for (auto it = fedNeighbours.begin(); it != fedNeighbours.end();) {
      // Entries whose interface is gone are dropped by feedNeighbour.
      auto next = std::next(it);
      if (!state().neighbours.contains(it->first)) feedNeighbour(it->first);
      it = next;
    }
    for (const auto& key : keys) feedNeighbour(key);
  }

  // Routes.
  void routeChanged(const Route* before, const Route* after) override {
    const Route& r = before ? *before : *after;
    if (r.table != RT_TABLE_MAIN) return;
    feedPrefix(Prefix(r.dst, r.dstLen));
  }

  void refreshRoutesUsing(uint32_t nhId) {
    auto it = routesByNhId.find(nhId);
    if (it == routesByNhId.end()) return;
    const std::set<Prefix> prefixes = it->second;
    for (const Prefix& p : prefixes) feedPrefix(p);
  }

  void refreshAllRoutes() {
    if (!open()) return;
    std::set<Prefix> prefixes;
    for (const auto& [key, r] : state().routes) {
      if (key.table == RT_TABLE_MAIN) prefixes.insert(Prefix(key.dst, key.dstLen));
    }
    for (const auto& [p, vias] : fedRoutes) prefixes.insert(p);
    for (const Prefix& p : prefixes) feedPrefix(p);
  }

  void addVia(RoutingResolver::ViaList& vias, int32_t oif, uint32_t gateway) const {
    const Netval::IntfId dev = intf(oif);
    if (dev.empty()) return;
    vias.emplace_back(dev, ipv4(gateway));
  }

  void viasOfNexthop(uint32_t id, RoutingResolver::ViaList& vias, int depth = 0) const {
    auto it = state().nexthops.find(id);
    if (it == state().nexthops.end() || depth > 1) return;
    const Nexthop& nh = it->second;
    if (nh.isGroup()) {
      for (const auto& member : nh.group) viasOfNexthop(member.id, vias, depth + 1);
    } else if (!nh.blackhole && !nh.fdb && !nh.ipv6Gateway && nh.oif != 0) {
      addVia(vias, nh.oif, nh.gateway);
    }
  }

  // The route the kernel uses for the prefix: the main table's lowest metric of TOS 0.
  const Route* bestRoute(const Prefix& p) const {
    auto it = state().routes.lower_bound(
        Route::Key{RT_TABLE_MAIN, p.addr(), static_cast<uint8_t>(p.length()), 0, 0});
    if (it == state().routes.end()) return nullptr;
    const Route::Key& k = it->first;
    if (k.table != RT_TABLE_MAIN || k.dst != p.addr() || k.dstLen != p.length() || k.tos != 0) {
      return nullptr;
    }
    return &it->second;
  }

  void feedPrefix(const Prefix& p) {
    RoutingResolver::ViaList vias;
    uint32_t nhId = 0;
    if (const Route* r = open() ? bestRoute(p) : nullptr; r && r->type == RTN_UNICAST) {
      nhId = r->nhId;
      if (nhId != 0) {
        viasOfNexthop(nhId, vias);
      } else {
        for (const RouteNexthop& hop : r->hops) addVia(vias, hop.oif, hop.gateway);
      }
    }
    std::sort(vias.begin(), vias.end(), [](const auto& a, const auto& b) {
      return std::make_pair(a.intfId(), a.hop()) < std::make_pair(b.intfId(), b.hop());
    });
    vias.erase(std::unique(vias.begin(), vias.end()), vias.end());
    for (auto& [id, prefixes] : routesByNhId) prefixes.erase(p);
    if (nhId != 0) routesByNhId[nhId].insert(p);
    auto fed = fedRoutes.find(p);
    if (vias.empty()) {
      if (fed != fedRoutes.end()) {
        host.routing()->routeDel(vrf, p);
        fedRoutes.erase(fed);
      }
      return;
    }
    if (fed != fedRoutes.end() && fed->second == vias) return;
    host.routing()->routeIs(vrf, p, vias);
    fedRoutes[p] = std::move(vias);
  }

  std::string where() const {
    return "VRF " + std::string(vrf.str()) + " (" +
           (netnsName.empty() ? std::string("own namespace") : "namespace " + netnsName) + ")";
  }

  // Forgets everything the module's inputs hold of this space (the mirror already told the
  // removals); used when the namespace is lost.
  void forget() {
    for (auto it = intfs.begin(); it != intfs.end();) {
      auto next = std::next(it);
      unaccept(it->first);
      it = next;
    }
    for (const auto& [p, vias] : fedRoutes) host.routing()->routeDel(vrf, p);
    fedRoutes.clear();
    routesByNhId.clear();
    updateReadiness();
  }
};

LinuxHost::LinuxHost(EventLoop& loop, LinuxHostConfig config, StatusLog::Sink sink)
    : ModuleHost(std::move(sink)), loop_(loop), config_(std::move(config)) {
  if (config_.programIdMin == 0 || config_.programIdMin > config_.programIdMax ||
      config_.programIdMax == FwdL3Unicast::NexthopNhIndexResolverConstants::invalidNhIndex()) {
    throw HostError("bad nexthop id range " + std::to_string(config_.programIdMin) + "-" +
                    std::to_string(config_.programIdMax));
  }
  fecModeIs(config_.fecMode);
  loop_.schedulerIs(scheduler());
  arpClients()->serviceIs(this);
  spaces_.push_back(std::make_unique<Space>(*this, L3::VrfName("default"), config_.defaultNetns));
  for (const auto& [vrf, netns] : config_.vrfNetns) {
    if (vrf == "default") throw HostError("VRF default is the default namespace's");
    spaces_.push_back(std::make_unique<Space>(*this, L3::VrfName(vrf), netns));
  }
  try {
    for (auto& space : spaces_) {
      if (space->netnsName.empty()) {
        space->netns = Netns::own();
      } else if (space.get() == spaces_.front().get()) {
        space->netns = Netns::named(space->netnsName);
      } else {
        space->netns = Netns::namedIfPresent(space->netnsName);
      }
      if (space->netns) open(*space);
    }
  } catch (const NetlinkError& e) {
    cleanup();
    throw HostError(e.what());
  }
  starting_ = false;
  if (!startErrors_.empty()) {
    std::string text = startErrors_.front();
    cleanup();
    throw HostError(text);
  }
  for (auto& space : spaces_) {
    if (space->open()) adoptLeftovers(*space);
  }
  start();
  later(config_.leftoverGraceMs, [this] { sweepLeftovers(); });
  later(config_.netnsCheckMs, [this] { checkNamespaces(); });
}

LinuxHost::~LinuxHost() {
  // Nothing more is printed once the host goes.
  statusSinkIs(nullptr);
  cleanup();
}

template <class Work>
void LinuxHost::later(Hub::TaskScheduler::Time delayMs, Work work) {
  std::weak_ptr<char> alive = alive_;
  scheduler()->scheduleAt(scheduler()->now() + delayMs, [alive, work = std::move(work)] {
    if (!alive.expired()) work();
  });
}

void LinuxHost::warn(const std::string& text) const {
  DUALLOG_TRACE(8, "warning: ", text);
  if (config_.warn) {
    config_.warn(text);
  } else {
    std::cerr << "warning: " << text << '\n';
  }
}

void LinuxHost::open(Space& space) {
  space.mirror = std::make_unique<KernelMirror>(*space.netns, &space);
  space.mirror->start();
  loop_.fdIs(space.mirror->fd(), [this, &space] {
    try {
      space.mirror->readEvents();
    } catch (const NetlinkError& e) {
      // The socket failed (its namespace may be going): read everything again.
      warn(space.where() + ": " + e.what());
      lose(space);
    }
  });
}

void LinuxHost::lose(Space& space) {
  if (!space.mirror) return;
  DUALLOG_TRACE(8, "lost ", space.where());
  loop_.fdDel(space.mirror->fd());
  space.mirror->clear();
  space.forget();
  space.pastResyncs += space.mirror->counters().resyncs;
  space.pastRefused += space.mirror->counters().refused;
  space.mirror.reset();
  space.netns.reset();
  ++netnsResyncs_;
}

void LinuxHost::checkNamespaces() {
  for (auto& space : spaces_) {
    if (space->netnsName.empty()) continue;
    if (space->open() && !space->netns->stillNamed()) lose(*space);
    if (!space->open()) {
      try {
        space->netns = Netns::namedIfPresent(space->netnsName);
        if (space->netns) {
          open(*space);
          ++netnsResyncs_;
          for (const auto& [key, vrfs] : arpClients()->wantedBy()) serve(key);
        }
      } catch (const NetlinkError& e) {
        warn(space->where() + ": " + e.what());
        space->mirror.reset();
        space->netns.reset();
      }
    }
  }
  later(config_.netnsCheckMs, [this] { checkNamespaces(); });
}

void LinuxHost::resync() {
  for (auto& space : spaces_) {
    if (space->open()) space->mirror->resync();
  }
}

uint64_t LinuxHost::resyncCount() const {
  uint64_t n = netnsResyncs_;
  for (const auto& space : spaces_) {
    n += space->pastResyncs + (space->mirror ? space->mirror->counters().resyncs : 0);
  }
  return n;
}

uint64_t LinuxHost::refusedCount() const {
  uint64_t n = 0;
  for (const auto& space : spaces_) {
    n += space->pastRefused + (space->mirror ? space->mirror->counters().refused : 0);
  }
  return n;
}

const KernelState* LinuxHost::kernelState(const L3::VrfName& vrfName) const {
  for (const auto& space : spaces_) {
    if (space->vrf == vrfName) return space->open() ? &space->state() : nullptr;
  }
  return nullptr;
}

LinuxHost::Space* LinuxHost::spaceOf(Netval::IntfId intf) const {
  auto it = owner_.find(intf);
  return it == owner_.end() ? nullptr : it->second;
}

std::optional<Vrf::VrfIdMap::VrfId> LinuxHost::arpVrfIdOf(const L3::VrfName& vrfName) const {
  if (!vrfStatusAll()->vrfIdHas(vrfName)) return std::nullopt;
  return vrfStatusAll()->planeVrfIdToArpVrfId(vrfStatusAll()->vrfId(vrfName));
}

void LinuxHost::dropArpEntries(Vrf::VrfIdMap::VrfId arpVrfId) {
  std::vector<Arp::ProactiveArp::ClientEntry> gone;
  for (const auto& entry : clientConfig()->entry()) {
    if (entry.arpVrfId() == arpVrfId) gone.push_back(entry);
  }
  for (const auto& entry : gone) clientConfig()->entryDel(entry);
}

void LinuxHost::arpEntryIs(const Arp::ProactiveArp::ClientEntry& entry, bool present) {
  DUALLOG_TRACE(8, "proactive ARP ", entry.key().intfId(), " ", entry.key().addr(),
                present ? " wanted" : " withdrawn", " arpVrfId ", entry.arpVrfId());
  if (!present) {
    if (!arpClients()->wanted(entry.key())) unwantedLater(entry.key());
    return;
  }
  bool live = false;
  for (const auto& space : spaces_) {
    if (space->ready && arpVrfIdOf(space->vrf) == entry.arpVrfId()) live = true;
  }
  if (!live) {
    // Nothing probes for a VRF that is not up: the entry goes once the client's change is done.
    const auto dead = entry;
    later(0, [this, dead] { clientConfig()->entryDel(dead); });
    return;
  }
  serve(entry.key());
}

void LinuxHost::arpResolve(const Plane::NextHopKey& key) {
  // A managed entry is refreshed by the kernel; asking again makes it send a probe now, which
  // also lets a bridge learn the neighbour's port.
  Space* space = spaceOf(key.intfId());
  if (!space || !space->open() || !ownedNeighbours_.contains(key)) return;
  const int32_t ifindex = space->ifindexOf(key.intfId());
  const int rc = space->mirror->write(
      managedNeighbourAdd(ifindex, key.addr().v4(), space->mirror->requests().nextSeq()));
  if (rc != 0)
    warn("cannot refresh neighbour " + key.addr().toString() + ": " + std::strerror(-rc));
}

void LinuxHost::serve(const Plane::NextHopKey& key) {
  Space* space = spaceOf(key.intfId());
  if (!space || !space->open() || !arpClients()->wanted(key)) return;
  const int32_t ifindex = space->ifindexOf(key.intfId());
  const uint32_t dst = key.addr().v4();
  const Neighbour* n = space->neighbour(ifindex, dst);
  // What the host added it knows without the mirror, which may not have heard of a write yet.
  if (!ownedNeighbours_.contains(key) && !(n && foreignNeighbour(*n))) {
    const int rc = space->mirror->write(
        managedNeighbourAdd(ifindex, dst, space->mirror->requests().nextSeq()));
    if (rc == 0) {
      ownedNeighbours_.insert(key);
    } else {
      warn("cannot add a managed neighbour " + key.addr().toString() + " on " +
           key.intfId().name() + ": " + std::strerror(-rc));
    }
  }
  if (!config_.programming) return;
  if (programmed_.contains(key)) return;
  std::set<uint32_t> taken;
  for (const auto& [id, nh] : space->state().nexthops) taken.insert(id);
  for (const auto& [k, id] : programmed_) taken.insert(id);
  uint32_t id = config_.programIdMin;
  while (id <= config_.programIdMax && taken.contains(id)) ++id;
  if (id > config_.programIdMax) {
    warn("no free nexthop id left for " + key.addr().toString());
    return;
  }
  const int rc =
      space->mirror->write(nexthopAdd(id, ifindex, dst, space->mirror->requests().nextSeq()));
  if (rc != 0) {
    warn("cannot add nexthop object " + std::to_string(id) + ": " + std::strerror(-rc));
    return;
  }
  programmed_[key] = id;
  DUALLOG_TRACE(8, "programmed nexthop ", id, " via ", key.addr(), " dev ", key.intfId());
}

void LinuxHost::unwantedLater(const Plane::NextHopKey& key) {
  later(config_.unwantedGraceMs, [this, key] {
    if (arpClients()->wanted(key)) return;
    Space* space = spaceOf(key.intfId());
    const int32_t ifindex = space ? space->ifindexOf(key.intfId()) : 0;
    const uint32_t dst = key.addr().v4();
    if (ownedNeighbours_.erase(key) && space && space->open()) {
      const Neighbour* n = space->neighbour(ifindex, dst);
      if (n && n->protocol == kOwnProtocol) {
        space->mirror->write(neighbourDel(ifindex, dst, space->mirror->requests().nextSeq()));
      }
    }
    auto programmed = programmed_.find(key);
    if (programmed != programmed_.end()) {
      const uint32_t id = programmed->second;
      programmed_.erase(programmed);
      if (space && space->open()) {
        auto nh = space->state().nexthops.find(id);
        if (nh != space->state().nexthops.end() && nh->second.protocol == kOwnProtocol) {
          space->mirror->write(nexthopDel(id, space->mirror->requests().nextSeq()));
        }
      }
    }
  });
}

void LinuxHost::adoptLeftovers(Space& space) {
  for (const auto& [key, n] : space.state().neighbours) {
    const Netval::IntfId dev = space.intf(key.ifindex);
    if (n.protocol == kOwnProtocol && !dev.empty()) {
      ownedNeighbours_.insert(Plane::NextHopKey(dev, ipv4(key.dst)));
    }
  }
  for (const auto& [id, nh] : space.state().nexthops) {
    const Netval::IntfId dev = space.intf(nh.oif);
    if (nh.protocol != kOwnProtocol || dev.empty() || nh.isGroup() || nh.gateway == 0) continue;
    const Plane::NextHopKey key(dev, ipv4(nh.gateway));
    if (config_.programming && !programmed_.contains(key)) {
      programmed_[key] = id;
    } else {
      // A second object for the same via, or one left by programming mode that is now off.
      space.mirror->write(nexthopDel(id, space.mirror->requests().nextSeq()));
    }
  }
}

void LinuxHost::sweepLeftovers() {
  std::set<Plane::NextHopKey> keys(ownedNeighbours_.begin(), ownedNeighbours_.end());
  for (const auto& [key, id] : programmed_) keys.insert(key);
  for (const auto& key : keys) {
    if (!arpClients()->wanted(key)) unwantedLater(key);
  }
}

void LinuxHost::cleanup() {
  if (cleanedUp_) return;
  cleanedUp_ = true;
  stop();
  arpClients()->serviceIs(nullptr);
  for (auto& space : spaces_) {
    if (!space->open()) continue;
    loop_.fdDel(space->mirror->fd());
    try {
      for (auto it = ownedNeighbours_.begin(); it != ownedNeighbours_.end();) {
        if (spaceOf(it->intfId()) != space.get()) {
          ++it;
          continue;
        }
        const int32_t ifindex = space->ifindexOf(it->intfId());
        const Neighbour* n = space->neighbour(ifindex, it->addr().v4());
        if (n && n->protocol == kOwnProtocol) {
          space->mirror->write(
              neighbourDel(ifindex, it->addr().v4(), space->mirror->requests().nextSeq()));
        }
        it = ownedNeighbours_.erase(it);
      }
      for (auto it = programmed_.begin(); it != programmed_.end();) {
        if (spaceOf(it->first.intfId()) != space.get()) {
          ++it;
          continue;
        }
        auto nh = space->state().nexthops.find(it->second);
        if (nh != space->state().nexthops.end() && nh->second.protocol == kOwnProtocol) {
          space->mirror->write(nexthopDel(it->second, space->mirror->requests().nextSeq()));
        }
        it = programmed_.erase(it);
      }
    } catch (const NetlinkError& e) {
      warn(space->where() + ": clean-up: " + e.what());
    }
  }
  ownedNeighbours_.clear();
  programmed_.clear();
  alive_.reset();
  if (loop_.scheduler() == scheduler()) loop_.schedulerIs(nullptr);
}

std::optional<uint32_t> LinuxHost::programmedId(const Plane::NextHopKey& key) const {
  auto it = programmed_.find(key);
  if (it == programmed_.end()) return std::nullopt;
  return it->second;
}

std::string LinuxHost::arpState(const Plane::NextHopKey& key) const {
  Space* space = spaceOf(key.intfId());
  if (!space || !space->open()) return "interface not in any mapped namespace";
  const Neighbour* n = space->neighbour(space->ifindexOf(key.intfId()), key.addr().v4());
  std::string text = ownedNeighbours_.contains(key) ? "managed neighbour entry of the host"
                                                    : "no managed entry of the host";
  if (!n) return text + ", no kernel entry";
  std::ostringstream os;
  os << text << ", kernel state 0x" << std::hex << n->state;
  return os.str();
}

void LinuxHost::arpShow(const Plane::NextHopKey& key, Hosts::Json& entry) const {
  entry["managed"] = ownedNeighbours_.contains(key);
  Space* space = spaceOf(key.intfId());
  const Neighbour* n = space && space->open()
                           ? space->neighbour(space->ifindexOf(key.intfId()), key.addr().v4())
                           : nullptr;
  entry["kernelState"] = n ? Hosts::Json(neighbourStateText(n->state)) : Hosts::Json(nullptr);
}

std::string LinuxHost::hostDump() const {
  std::ostringstream os;
  os << "LinuxHost\n";
  os << "  resyncs: " << resyncCount() << "\n  refused: " << refusedCount() << '\n';
  os << "  ownedNeighbours: #" << ownedNeighbours_.size() << '\n';
  os << "  programmed: #" << programmed_.size() << '\n';
  for (const auto& space : spaces_) {
    os << "  " << space->where() << (space->open() ? " open" : " closed")
       << (space->ready ? " ready" : "") << '\n';
    os << "    interfaces: #" << space->intfs.size() << '\n';
    for (const auto& [ifindex, id] : space->intfs) {
      os << "      " << id << " ifindex " << ifindex << (space->tables.contains(id) ? " table" : "")
         << '\n';
    }
    os << "    routes: #" << space->fedRoutes.size() << '\n';
    os << "    neighbours: #" << space->fedNeighbours.size() << '\n';
    os << "    nhIndexes: #" << space->engineEntries.size() << '\n';
    if (space->mirror) {
      const auto& c = space->mirror->counters();
      os << "    notifications: " << c.notifications << " linkRefreshes: " << c.linkRefreshes
         << '\n';
    }
  }
  return os.str();
}

}  // namespace Hosts::Linux

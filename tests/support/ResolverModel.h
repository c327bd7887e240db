#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "platform/L3Modules.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"
#include "support/ChangeRecorder.h"
#include "support/E2EWorld.h"

// A model of the whole resolver for randomized and fuzz tests. Host changes over a small universe
// (3 VRFs, 4 interfaces, 8 next hops, 6 vias, 4 MACs) are applied one at a time, the host runs
// what it queued, and an oracle computed from scratch from the host's state checks the statuses
// and the proactive ARP entries after every step. The choices come from a seeded generator (the
// model test) or from the bytes of an input (the fuzz target).
//
// In the re-entrant mode some of the changes are made by a host that reacts to the module's
// outputs synchronously: an observer of the status collection and of the proactive ARP entries
// performs the next random change from inside the notification, while the module's handlers are
// still on the stack. The oracle is checked once every step has returned.
namespace Model {

using Arp::ProactiveArp::ClientEntry;
using E2E::ArpEntries;
using FwdL3Unicast::NexthopNhIndexResolverKey;
using Memtab::FibGen::Fec;
using Memtab::FibGen::Via;
using Netval::EthAddr;
using Netval::IntfId;
using Netval::IpGenAddr;

// The universe every operation draws from.
struct Universe {
  std::array<L3::VrfName, 3> vrfs{L3::VrfName("default"), L3::VrfName("red"), L3::VrfName("blue")};
  std::array<Plane::VrfId, 3> vrfIds{1, 2, 3};
  std::array<IntfId, 4> intfs{IntfId("Ethernet1"), IntfId("Ethernet2"), IntfId("Ethernet3"),
                              IntfId("Ethernet4")};
  std::array<IpGenAddr, 8> nexthops{};
  std::array<IpGenAddr, 6> vias{};
  std::array<EthAddr, 4> macs{EthAddr(0x001c73000001), EthAddr(0x001c73000002),
                              EthAddr(0x001c73000003), EthAddr(0x001c73000004)};
  static constexpr uint32_t kFecIds = 5;     // FEC ids 1..5 in every table
  static constexpr uint32_t kNhIndexes = 6;  // nhIndexes 1..6 on every interface

  Universe() {
    for (uint32_t i = 0; i < nexthops.size(); ++i) nexthops[i] = IpGenAddr::ipv4(0x0a000001 + i);
    for (uint32_t i = 0; i < vias.size(); ++i) vias[i] = IpGenAddr::ipv4(0x0a010001 + i);
  }
};

// Where the operations' choices come from.
class Choices {
 public:
  virtual ~Choices() = default;
  // A number in [0, n), n > 0.
  virtual uint32_t below(uint32_t n) = 0;
  bool chance(uint32_t percent) { return below(100) < percent; }
  template <class T, size_t N>
  const T& pick(const std::array<T, N>& items) {
    return items[below(N)];
  }
};

// splitmix64: a fixed generator, so that a seed replays the same run everywhere.
class Rng : public Choices {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  uint32_t below(uint32_t n) override { return static_cast<uint32_t>(next() % n); }

 private:
  uint64_t state_;
};

// Choices read from bytes, one byte each, 0 once they are used up.
class ByteChoices : public Choices {
 public:
  ByteChoices(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint32_t below(uint32_t n) override { return exhausted() ? 0 : data_[pos_++] % n; }
  bool exhausted() const { return pos_ >= size_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// One run of the model: the world, the operations and the oracle. The host's starting state
// draws its choices from `setup`, the operations from `steps` (both may be one source); `log`
// hears each operation as one line of text. `reentrant` selects the re-entrant mode.
class Run {
 public:
  using Log = std::function<void(const std::string&)>;

  Run(Choices& setup, Choices& steps, Memtab::Fib::FecMode fecMode, bool reentrant, Log log)
      : choices_(&setup), world_(fecMode), log_(std::move(log)), reentrant_(reentrant) {
    hostIs();
    choices_ = &steps;
    if (reentrant_) watchOutputs();
    hostEntities_ = Core::Node::liveCount();
    hostModules_ = world_.l3Modules->nextHopModCount();
    world_.rootIs();
    world_.settle();
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // One random operation, then the host settles and the oracle checks its outputs: what does not
  // hold, empty when everything does.
  std::string step() {
    bool restarted = false;
    // Changes left for the observers to make from inside the module's notifications.
    nestedLeft_ = reentrant_ && choices_->chance(60) ? 1 + choices_->below(3) : 0;

    const uint32_t roll = choices_->below(100);
    if (roll >= kRestartRolls.first && roll < kRestartRolls.second) {
      nestedLeft_ = 0;
      std::string failure = restart();
      if (!failure.empty()) return failure;
      restarted = true;
    } else {
      hostChange(roll);
    }
    world_.settle();
    nestedLeft_ = 0;
    // A VRF taken down from inside a notification may have its pipeline dropped only once the
    // change under way (its pipeline being built, say) is done, with the entries it added by then.
    for (const L3::VrfName& vrfName : takenDown_) leftoversOf(vrfName);
    takenDown_.clear();

    if (restarted) leftovers_.clear();  // the new proactive ARP client started empty
    return check();
  }

  // Cleans the root up and releases it: what the module left behind, empty when nothing.
  std::string finish() {
    world_.rootDel();
    return checkNothingOfTheModuleAlive();
  }

 private:
  // The rolls of a step that restart the module; every other roll of 0..99 is a host change.
  static constexpr std::pair<uint32_t, uint32_t> kRestartRolls{92, 94};

  // One change of the host, chosen by a roll of 0..99 outside kRestartRolls.
  void hostChange(uint32_t roll) {
    if (roll < 22) {
      requestToggle();
    } else if (roll < 32) {
      routeChange();
    } else if (roll < 42) {
      fecChange();
    } else if (roll < 60) {
      neighbourChange();
    } else if (roll < 78) {
      nhIndexChange();
    } else if (roll < 84) {
      moduleToggle();
    } else if (roll < kRestartRolls.first) {
      vrfToggle();
    } else {
      requestToggle();
    }
  }

  // Subscribes the re-entrant host to the module's outputs.
  void watchOutputs() {
    statusWatch_ = TestSupport::recordChanges<NexthopNhIndexResolverKey>(
        world_.statusDir.get(), FwdL3Unicast::NexthopNhIndexResolverStatusDir::statusAttr);
    statusWatch_->onChange = [this](const NexthopNhIndexResolverKey&) { nestedChange(); };
    arpWatch_ = TestSupport::recordChanges<ClientEntry>(world_.proactiveArpNexthop.get(),
                                                        Arp::ProactiveArp::ClientConfig::entryAttr);
    arpWatch_->onChange = [this](const ClientEntry&) { nestedChange(); };
  }

  // Runs inside a notification of the module: makes the next change of the step, if one is left,
  // at most two notifications deep.
  void nestedChange() {
    if (nestedLeft_ == 0 || nestedDepth_ >= 2) return;
    --nestedLeft_;
    ++nestedDepth_;
    log_("from inside a module notification (depth " + std::to_string(nestedDepth_) + "):");
    // Any change of the host but a restart, which drops the module whose handler is running.
    hostChange(choices_->below(kRestartRolls.first));
    --nestedDepth_;
  }

  // A host that already has most of what resolution needs, so that random changes keep a good
  // share of the requests resolved: every FEC of every table, most routes and neighbours, and
  // most interfaces' modules.
  void hostIs() {
    for (const L3::VrfName& vrfName : u_.vrfs) {
      world_.vrfTable(vrfName);  // published in both modes: in global mode nobody reads them
      world_.vrfStatusAll->vrfIdIs(vrfName, vrfId(vrfName));
      if (choices_->chance(75)) world_.vrfUp(vrfName, vrfId(vrfName));
    }
    for (uint32_t fecId = 1; fecId <= Universe::kFecIds; ++fecId) {
      fecIs(world_.forwardingGenStatus, "global", fecId);
      for (const L3::VrfName& vrfName : u_.vrfs) {
        fecIs(world_.vrfTable(vrfName), text(vrfName), fecId);
      }
    }
    for (const L3::VrfName& vrfName : u_.vrfs) {
      for (const IpGenAddr& nh : u_.nexthops) {
        if (choices_->chance(75)) {
          world_.resolver.routeIs(vrfName, nh, 1 + choices_->below(Universe::kFecIds));
        }
      }
    }
    for (IntfId intf : u_.intfs) {
      for (const IpGenAddr& via : u_.vias) {
        if (choices_->chance(70)) world_.neighbourIs(intf, via, choices_->pick(u_.macs), intf);
      }
      if (choices_->chance(80)) moduleAdd(intf);
    }
  }

  void requestToggle() {
    // Drawn one at a time: the order in which a call's arguments are evaluated is the compiler's
    // (GCC's last to first, clang's first to last), and a seed must replay the same run with
    // every compiler. Last to first, as the seeds run so far drew them.
    const IntfId& intf = choices_->pick(u_.intfs);
    const IpGenAddr& nexthop = choices_->pick(u_.nexthops);
    const L3::VrfName& vrfName = choices_->pick(u_.vrfs);
    const NexthopNhIndexResolverKey k(vrfName, nexthop, intf);
    if (world_.configDir->configHas(k)) {
      log_("request del " + text(k));
      world_.requestDel(k);
    } else {
      log_("request add " + text(k));
      world_.requestIs(k);
    }
  }

  void routeChange() {
    const L3::VrfName& vrfName = choices_->pick(u_.vrfs);
    const IpGenAddr& nh = choices_->pick(u_.nexthops);
    if (choices_->chance(25)) {
      log_("route del " + text(vrfName) + " " + text(nh));
      world_.resolver.routeDel(vrfName, nh);
      return;
    }
    const uint32_t fecId = 1 + choices_->below(Universe::kFecIds);
    log_("route " + text(vrfName) + " " + text(nh) + " fec " + std::to_string(fecId));
    world_.resolver.routeIs(vrfName, nh, fecId);
  }

  // A FEC of the global table or of one VRF's own table.
  void fecChange() {
    const uint32_t which = choices_->below(u_.vrfs.size() + 1);
    const bool global = which == u_.vrfs.size();
    Memtab::FibGen::ForwardingStatus::Ptr table =
        global ? world_.forwardingGenStatus : world_.vrfTable(u_.vrfs[which]);
    const std::string tableName = global ? "global" : text(u_.vrfs[which]);
    const uint32_t fecId = 1 + choices_->below(Universe::kFecIds);
    if (choices_->chance(15)) {
      log_("fec del " + tableName + " " + std::to_string(fecId));
      table->fecDel(fecId);
      return;
    }
    fecIs(table, tableName, fecId);
  }

  // Mostly one to four vias, on distinct interfaces but now and then two on one interface (a
  // tie); a via without a hop is a directly attached route, through which the next hop is its
  // own via.
  void fecIs(const Memtab::FibGen::ForwardingStatus::Ptr& table, const std::string& tableName,
             uint32_t fecId) {
    std::vector<Via> vias;
    const uint32_t count = choices_->chance(8) ? 0 : 1 + choices_->below(4);
    const uint32_t firstIntf = choices_->below(u_.intfs.size());
    for (uint32_t i = 0; i < count; ++i) {
      const IntfId intf = choices_->chance(10) ? choices_->pick(u_.intfs)
                                               : u_.intfs[(firstIntf + i) % u_.intfs.size()];
      const IpGenAddr hop = choices_->chance(12) ? IpGenAddr::ipv4(0) : choices_->pick(u_.vias);
      vias.emplace_back(intf, hop);
    }
    const Fec fec(fecId, std::move(vias));
    std::ostringstream os;
    os << fec;
    log_("fec " + tableName + " " + os.str());
    table->fecIs(fec);
  }

  void neighbourChange() {
    const IntfId intf = choices_->pick(u_.intfs);
    const IpGenAddr addr =
        choices_->chance(80) ? choices_->pick(u_.vias) : choices_->pick(u_.nexthops);
    const uint32_t kind = choices_->below(100);
    if (kind < 12) {
      log_("neighbour del " + text(intf) + " " + text(addr));
      world_.neighbourDel(intf, addr);
      return;
    }
    EthAddr mac = choices_->pick(u_.macs);
    IntfId l2Intf = intf;
    if (kind < 20) l2Intf = IntfId();  // MAC learnt, L2 interface not yet
    if (kind >= 96) mac = EthAddr();   // L2 interface without a MAC
    log_("neighbour " + text(intf) + " " + text(addr) + " mac " + mac.toString() + " l2 " +
         l2Intf.name());
    world_.neighbourIs(intf, addr, mac, l2Intf);
  }

  void nhIndexChange() { nhIndexChange(choices_->pick(u_.intfs)); }
  void nhIndexChange(IntfId intf) {
    FwdL3Unicast::NextHopMod::Ptr module = world_.l3Modules->nextHopModMutable(intf);
    if (!module) return moduleToggle(intf);
    const uint32_t nhIndex = 1 + choices_->below(Universe::kNhIndexes);
    if (choices_->chance(20)) {
      log_("nhIndex del " + text(intf) + " " + std::to_string(nhIndex));
      module->nhIndexToMacDel(nhIndex);
      return;
    }
    const EthAddr mac = choices_->pick(u_.macs);
    log_("nhIndex " + text(intf) + " " + std::to_string(nhIndex) + " mac " + mac.toString());
    module->nhIndexToMacIs(nhIndex, mac);
  }

  void moduleToggle() { moduleToggle(choices_->pick(u_.intfs)); }
  void moduleToggle(IntfId intf) {
    if (world_.l3Modules->nextHopModHas(intf)) {
      if (choices_->chance(50)) {  // modules are present more often than not
        log_("module stays " + text(intf));
        return;
      }
      log_("module del " + text(intf));
      world_.moduleDel(intf);
    } else {
      moduleAdd(intf);
    }
  }
  // The engine programs a few indexes before it hands the module over.
  void moduleAdd(IntfId intf) {
    auto module = FwdL3Unicast::NextHopMod::NextHopModIs(intf);
    std::string programmed;
    for (uint32_t i = 2 + choices_->below(4); i > 0; --i) {
      const uint32_t nhIndex = 1 + choices_->below(Universe::kNhIndexes);
      const EthAddr mac = choices_->pick(u_.macs);
      module->nhIndexToMacIs(nhIndex, mac);
      programmed += " " + std::to_string(nhIndex) + "=" + mac.toString();
    }
    log_("module add " + text(intf) + programmed);
    world_.l3Modules->nextHopModIs(module);
  }

  // A VRF taken down drops its pipeline, which leaves its proactive ARP entries to the platform.
  void vrfToggle() {
    const L3::VrfName& vrfName = choices_->pick(u_.vrfs);
    if (world_.vrfStatusAll->vrfStatusHas(vrfName)) {
      if (choices_->chance(50)) {  // VRFs are up more often than down
        log_("vrf stays up " + text(vrfName));
        return;
      }
      log_("vrf down " + text(vrfName));
      leftoversOf(vrfName);
      takenDown_.push_back(vrfName);
      world_.vrfDown(vrfName);
      return;
    }
    log_("vrf up " + text(vrfName));
    world_.vrfUp(vrfName, vrfId(vrfName));
  }

  // The VRF's proactive ARP entries, as a pipeline dropped now would leave them.
  void leftoversOf(const L3::VrfName& vrfName) {
    const uint32_t arpVrfId = world_.arpVrfId(vrfName);
    for (const ClientEntry& e : world_.arpEntries()) {
      if (e.arpVrfId() == arpVrfId) leftovers_.insert(e);
    }
  }

  std::string restart() {
    log_("restart");
    world_.rootDel();
    std::string failure = checkNothingOfTheModuleAlive();
    if (!failure.empty()) return failure;
    world_.rootIs();
    return {};
  }

  // VRFs whose pipeline runs once the host has settled: tracked (it has requests, so it is
  // registered and the resolver has given it its status) and L3 up.
  std::set<L3::VrfName> running() const {
    std::set<L3::VrfName> out;
    for (const NexthopNhIndexResolverKey& k : world_.configDir->config()) {
      if (world_.vrfStatusAll->vrfStatusHas(k.vrfName())) out.insert(k.vrfName());
    }
    return out;
  }

  // The vias the request's FEC offers on the request's interface.
  std::set<IpGenAddr> candidates(const NexthopNhIndexResolverKey& k) {
    std::set<IpGenAddr> out;
    const Memtab::Fib::FecId fecId = world_.resolver.route(k.vrfName(), k.nexthop());
    if (fecId == 0) return out;
    const Fec* fec = world_.fecTable(k.vrfName())->fecFind(fecId);
    if (!fec) return out;
    for (const Via& via : fec->vias()) {
      if (via.intfId() != k.intfId()) continue;
      const bool hasHop = (via.hop().af() == Netval::AddressFamily::ipv4_ ||
                           via.hop().af() == Netval::AddressFamily::ipv6_) &&
                          !via.hop().isAddrZero();
      out.insert(hasHop ? via.hop() : k.nexthop());
    }
    return out;
  }

  // The neighbour's MAC when it is resolved (a MAC and an L2 interface), none otherwise.
  std::optional<EthAddr> resolvedMac(IntfId intf, const IpGenAddr& addr) const {
    const Plane::NextHopInfo info =
        world_.nextHopInfoWrapper->nextHopInfo(Plane::NextHopKey(intf, addr));
    if (info == Plane::NextHopInfo() || info.ethAddr().isZero() || info.l2Intf().empty()) {
      return std::nullopt;
    }
    return info.ethAddr();
  }

  bool macHasIndex(IntfId intf, EthAddr mac) const {
    Core::Ptr<const FwdL3Unicast::NextHopMod> module = world_.l3Modules->nextHopMod(intf);
    if (!module) return false;
    for (const auto& entry : module->nhIndexToMac()) {
      if (entry.value == mac) return true;
    }
    return false;
  }

  std::string check() {
    std::ostringstream errors;
    checkStatuses(errors);
    checkArp(errors);
    return errors.str();
  }

  // A status exists exactly when the request's chain (via on its interface, resolved neighbour,
  // an index with that MAC) exists; with several vias on the interface the module may publish
  // through any of them, so the status must exist when all of them lead to an index, must not
  // when none does. Its index carries the MAC of one of the vias that lead to an index.
  void checkStatuses(std::ostringstream& errors) {
    const E2E::Statuses published = world_.statuses();
    const std::set<L3::VrfName> up = running();
    for (const NexthopNhIndexResolverKey& k : world_.configDir->config()) {
      std::set<EthAddr> usable;
      size_t complete = 0;
      const std::set<IpGenAddr> vias =
          up.contains(k.vrfName()) ? candidates(k) : std::set<IpGenAddr>();
      for (const IpGenAddr& via : vias) {
        const std::optional<EthAddr> mac = resolvedMac(k.intfId(), via);
        if (!mac || !macHasIndex(k.intfId(), *mac)) continue;
        ++complete;
        usable.insert(*mac);
      }
      auto it = published.find(k);
      const bool mustExist = !vias.empty() && complete == vias.size();
      if (it == published.end()) {
        if (mustExist) errors << "missing status for " << k << "\n";
        continue;
      }
      if (complete == 0) {
        errors << "status " << k << " nhIndex " << it->second << " without a complete chain\n";
        continue;
      }
      Core::Ptr<const FwdL3Unicast::NextHopMod> module = world_.l3Modules->nextHopMod(k.intfId());
      if (!module->nhIndexToMacHas(it->second) ||
          !usable.contains(module->nhIndexToMac(it->second))) {
        errors << "status " << k << " nhIndex " << it->second
               << " does not carry the MAC of a via of the request\n";
      }
    }
    for (const auto& [k, nhIndex] : published) {
      if (!world_.configDir->configHas(k)) errors << "status without request: " << k << "\n";
    }
  }

  // Every via with requesters in a running pipeline has its entry (with several vias on one
  // interface, at least one of them has); an entry that no running pipeline can want is one a
  // dropped pipeline left behind, or an error.
  void checkArp(std::ostringstream& errors) {
    const ArpEntries entries = world_.arpEntries();
    ArpEntries possible;
    ArpEntries required;
    const std::set<L3::VrfName> up = running();
    for (const NexthopNhIndexResolverKey& k : world_.configDir->config()) {
      if (!up.contains(k.vrfName())) continue;
      const uint32_t arpVrfId = world_.arpVrfId(k.vrfName());
      const std::set<IpGenAddr> vias = candidates(k);
      bool any = false;
      for (const IpGenAddr& via : vias) {
        const ClientEntry e(Plane::NextHopKey(k.intfId(), via), arpVrfId);
        possible.insert(e);
        if (vias.size() == 1) required.insert(e);
        any = any || entries.contains(e);
      }
      if (!vias.empty() && !any) errors << "no proactive ARP entry for any via of " << k << "\n";
    }
    for (const ClientEntry& e : required) {
      if (!entries.contains(e)) errors << "missing proactive ARP entry " << e << "\n";
    }
    for (const ClientEntry& e : entries) {
      if (!possible.contains(e) && !leftovers_.contains(e)) {
        errors << "proactive ARP entry " << e << " outlived its last requester\n";
      }
    }
    // An entry that a running pipeline now surely tracks will be removed with its last requester.
    ArpEntries stillLeft;
    for (const ClientEntry& e : leftovers_) {
      if (entries.contains(e) && !required.contains(e)) stillLeft.insert(e);
    }
    leftovers_ = std::move(stillLeft);
  }

  // After doCleanup and release, the host holds only its own entities plus, until its resolver
  // runs, the status of each withdrawn VRF.
  std::string checkNothingOfTheModuleAlive() const {
    const int64_t expected =
        hostEntities_ + static_cast<int64_t>(world_.l3Modules->nextHopModCount()) -
        static_cast<int64_t>(hostModules_) + static_cast<int64_t>(world_.registrationEntities());
    if (world_.statusDir->statusCount() != 0 || world_.nexthopConfig->vrfCount() != 0) {
      return "the root's cleanup left statuses or registrations behind\n";
    }
    if (Core::Node::liveCount() != expected) {
      return "after cleanup and release " + std::to_string(Core::Node::liveCount()) +
             " entities are alive, expected " + std::to_string(expected) + "\n";
    }
    return {};
  }

  Plane::VrfId vrfId(const L3::VrfName& vrfName) const {
    for (size_t i = 0; i < u_.vrfs.size(); ++i) {
      if (u_.vrfs[i] == vrfName) return u_.vrfIds[i];
    }
    return 0;
  }

  template <class T>
  static std::string text(const T& value) {
    std::ostringstream os;
    os << value;
    return os.str();
  }

  Universe u_;
  Choices* choices_;
  E2E::World world_;
  Log log_;
  const bool reentrant_;
  size_t nestedLeft_ = 0;
  size_t nestedDepth_ = 0;
  std::unique_ptr<TestSupport::ChangeRecorder<NexthopNhIndexResolverKey>> statusWatch_;
  std::unique_ptr<TestSupport::ChangeRecorder<ClientEntry>> arpWatch_;
  ArpEntries leftovers_;
  // VRFs taken down during the step under way.
  std::vector<L3::VrfName> takenDown_;
  int64_t hostEntities_ = 0;
  size_t hostModules_ = 0;
};

}  // namespace Model

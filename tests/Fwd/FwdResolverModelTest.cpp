#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
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

// Randomized model-based test of the whole resolver. Random host changes over a small universe
// (3 VRFs, 4 interfaces, 8 next hops, 6 vias, 4 MACs) are applied one at a time, the host runs
// what it queued, and an oracle computed from scratch from the host's state checks the statuses
// and the proactive ARP entries after every step.
//
// In the re-entrant mode some of the changes are made by a host that reacts to the module's
// outputs synchronously: an observer of the status collection and of the proactive ARP entries
// performs the next random change (any but a restart) from inside the notification, while the
// module's handlers are still on the stack. The oracle is checked once every step has returned.
//
//   FWD_MODEL_SEEDS=N  number of seeds (1..N), default 3
//   FWD_MODEL_STEPS=N  steps per seed, default 3000
//   FWD_MODEL_SEED=N   run only seed N (replays a failure exactly)
namespace {

using Arp::ProactiveArp::ClientEntry;
using E2E::ArpEntries;
using E2E::World;
using FwdL3Unicast::NexthopNhIndexResolverKey;
using Memtab::FibGen::Fec;
using Memtab::FibGen::Via;
using Netval::EthAddr;
using Netval::IntfId;
using Netval::IpGenAddr;

constexpr size_t kDefaultSeeds = 3;
constexpr size_t kDefaultSteps = 3000;

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

// splitmix64: a fixed generator, so that a seed replays the same run everywhere.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
  bool chance(uint32_t percent) { return below(100) < percent; }
  template <class T, size_t N>
  const T& pick(const std::array<T, N>& items) {
    return items[below(N)];
  }

 private:
  uint64_t state_;
};

// The operation log, kept where a signal handler can print it: the last kTail lines of the run
// under way, and the seed and step. A module assertion or a sanitizer report ends the process,
// and the handler then prints what is needed to replay it.
struct FailureContext {
  static constexpr size_t kTail = 24;
  static constexpr size_t kLine = 160;
  uint64_t seed = 0;
  size_t step = 0;
  size_t lines = 0;
  std::array<std::array<char, kLine>, kTail> tail{};

  void log(const std::string& text) {
    auto& line = tail[lines++ % kTail];
    std::snprintf(line.data(), kLine, "  step %zu: %s", step, text.c_str());
  }
  // Calls `f` with each line of the tail, oldest first.
  template <class F>
  void forEachLine(F f) const {
    for (size_t i = lines > kTail ? lines - kTail : 0; i < lines; ++i) f(tail[i % kTail].data());
  }
  std::string tailText() const {
    std::string out;
    forEachLine([&out](const char* line) { (out += line) += '\n'; });
    return out;
  }
  std::string replay() const {
    return "FWD_MODEL_SEED=" + std::to_string(seed) + " FWD_MODEL_STEPS=" + std::to_string(step);
  }
};

FailureContext context;

void writeText(const char* text) {
  ssize_t ignored = ::write(STDERR_FILENO, text, std::strlen(text));
  (void)ignored;
}

// Async-signal-safe enough for a dying process: formats into a stack buffer and writes.
void printContext() {
  char head[160];
  std::snprintf(head, sizeof head,
                "\nresolver model: seed %llu step %zu (replay: FWD_MODEL_SEED=%llu "
                "FWD_MODEL_STEPS=%zu)\noperation log tail:\n",
                static_cast<unsigned long long>(context.seed), context.step,
                static_cast<unsigned long long>(context.seed), context.step);
  writeText(head);
  context.forEachLine([](const char* line) {
    writeText(line);
    writeText("\n");
  });
}

extern "C" void onAbort(int) {
  printContext();
  std::signal(SIGABRT, SIG_DFL);
  std::raise(SIGABRT);
}

extern "C" void onSanitizerDeath() { printContext(); }

// Present only when the test runs under a sanitizer.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

// One seed's run: the world, the operations and the oracle.
class ModelRun {
 public:
  ModelRun(uint64_t seed, bool reentrant)
      : rng_(seed),
        world_(seed % 2 ? Memtab::Fib::fecModePerVrf() : Memtab::Fib::fecModeGlobal()),
        reentrant_(reentrant) {
    hostIs();
    if (reentrant_) watchOutputs();
    hostEntities_ = Core::Node::liveCount();
    hostModules_ = world_.l3Modules->nextHopModCount();
    world_.rootIs();
    world_.settle();
  }

  // Runs `steps` steps; returns the first failure, empty when every step held.
  std::string run(size_t steps) {
    for (size_t i = 1; i <= steps; ++i) {
      context.step = i;
      std::string failure;
      try {
        failure = step();
      } catch (const std::exception& e) {
        failure = std::string("exception: ") + e.what() + "\n";
      }
      if (!failure.empty()) return failure;
    }
    context.log("final doCleanup and release");
    world_.rootDel();
    return checkNothingOfTheModuleAlive();
  }

 private:
  // A host that already has most of what resolution needs, so that random changes keep a good
  // share of the requests resolved: every FEC of every table, most routes and neighbours, and
  // most interfaces' modules.
  void hostIs() {
    for (const L3::VrfName& vrfName : u_.vrfs) {
      world_.vrfTable(vrfName);  // published in both modes: in global mode nobody reads them
      world_.vrfStatusAll->vrfIdIs(vrfName, vrfId(vrfName));
      if (rng_.chance(75)) world_.vrfUp(vrfName, vrfId(vrfName));
    }
    for (uint32_t fecId = 1; fecId <= Universe::kFecIds; ++fecId) {
      fecIs(world_.forwardingGenStatus, "global", fecId);
      for (const L3::VrfName& vrfName : u_.vrfs) {
        fecIs(world_.vrfTable(vrfName), text(vrfName), fecId);
      }
    }
    for (const L3::VrfName& vrfName : u_.vrfs) {
      for (const IpGenAddr& nh : u_.nexthops) {
        if (rng_.chance(75)) {
          world_.resolver.routeIs(vrfName, nh, 1 + rng_.below(Universe::kFecIds));
        }
      }
    }
    for (IntfId intf : u_.intfs) {
      for (const IpGenAddr& via : u_.vias) {
        if (rng_.chance(70)) world_.neighbourIs(intf, via, rng_.pick(u_.macs), intf);
      }
      if (rng_.chance(80)) moduleAdd(intf);
    }
  }

  std::string step() {
    bool restarted = false;
    // Changes left for the observers to make from inside the module's notifications.
    nestedLeft_ = reentrant_ && rng_.chance(60) ? 1 + rng_.below(3) : 0;

    const uint32_t roll = rng_.below(100);
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

    if (restarted) leftovers_.clear();  // the new proactive ARP client started empty
    return check();
  }

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
    context.log("from inside a module notification (depth " + std::to_string(nestedDepth_) + "):");
    // Any change of the host but a restart, which drops the module whose handler is running.
    hostChange(rng_.below(kRestartRolls.first));
    --nestedDepth_;
  }

  void requestToggle() {
    const NexthopNhIndexResolverKey k(rng_.pick(u_.vrfs), rng_.pick(u_.nexthops),
                                      rng_.pick(u_.intfs));
    if (world_.configDir->configHas(k)) {
      context.log("request del " + text(k));
      world_.requestDel(k);
    } else {
      context.log("request add " + text(k));
      world_.requestIs(k);
    }
  }

  void routeChange() {
    const L3::VrfName& vrfName = rng_.pick(u_.vrfs);
    const IpGenAddr& nh = rng_.pick(u_.nexthops);
    if (rng_.chance(25)) {
      context.log("route del " + text(vrfName) + " " + text(nh));
      world_.resolver.routeDel(vrfName, nh);
      return;
    }
    const uint32_t fecId = 1 + rng_.below(Universe::kFecIds);
    context.log("route " + text(vrfName) + " " + text(nh) + " fec " + std::to_string(fecId));
    world_.resolver.routeIs(vrfName, nh, fecId);
  }

  // A FEC of the global table or of one VRF's own table.
  void fecChange() {
    const uint32_t which = rng_.below(u_.vrfs.size() + 1);
    const bool global = which == u_.vrfs.size();
    Memtab::FibGen::ForwardingStatus::Ptr table =
        global ? world_.forwardingGenStatus : world_.vrfTable(u_.vrfs[which]);
    const std::string tableName = global ? "global" : text(u_.vrfs[which]);
    const uint32_t fecId = 1 + rng_.below(Universe::kFecIds);
    if (rng_.chance(15)) {
      context.log("fec del " + tableName + " " + std::to_string(fecId));
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
    const uint32_t count = rng_.chance(8) ? 0 : 1 + rng_.below(4);
    const uint32_t firstIntf = rng_.below(u_.intfs.size());
    for (uint32_t i = 0; i < count; ++i) {
      const IntfId intf =
          rng_.chance(10) ? rng_.pick(u_.intfs) : u_.intfs[(firstIntf + i) % u_.intfs.size()];
      const IpGenAddr hop = rng_.chance(12) ? IpGenAddr::ipv4(0) : rng_.pick(u_.vias);
      vias.emplace_back(intf, hop);
    }
    const Fec fec(fecId, std::move(vias));
    std::ostringstream os;
    os << fec;
    context.log("fec " + tableName + " " + os.str());
    table->fecIs(fec);
  }

  void neighbourChange() {
    const IntfId intf = rng_.pick(u_.intfs);
    const IpGenAddr addr = rng_.chance(80) ? rng_.pick(u_.vias) : rng_.pick(u_.nexthops);
    const uint32_t kind = rng_.below(100);
    if (kind < 12) {
      context.log("neighbour del " + text(intf) + " " + text(addr));
      world_.neighbourDel(intf, addr);
      return;
    }
    EthAddr mac = rng_.pick(u_.macs);
    IntfId l2Intf = intf;
    if (kind < 20) l2Intf = IntfId();  // MAC learnt, L2 interface not yet
    if (kind >= 96) mac = EthAddr();   // L2 interface without a MAC
    context.log("neighbour " + text(intf) + " " + text(addr) + " mac " + mac.toString() + " l2 " +
                l2Intf.name());
    world_.neighbourIs(intf, addr, mac, l2Intf);
  }

  void nhIndexChange() { nhIndexChange(rng_.pick(u_.intfs)); }
  void nhIndexChange(IntfId intf) {
    FwdL3Unicast::NextHopMod::Ptr module = world_.l3Modules->nextHopModMutable(intf);
    if (!module) return moduleToggle(intf);
    const uint32_t nhIndex = 1 + rng_.below(Universe::kNhIndexes);
    if (rng_.chance(20)) {
      context.log("nhIndex del " + text(intf) + " " + std::to_string(nhIndex));
      module->nhIndexToMacDel(nhIndex);
      return;
    }
    const EthAddr mac = rng_.pick(u_.macs);
    context.log("nhIndex " + text(intf) + " " + std::to_string(nhIndex) + " mac " + mac.toString());
    module->nhIndexToMacIs(nhIndex, mac);
  }

  void moduleToggle() { moduleToggle(rng_.pick(u_.intfs)); }
  void moduleToggle(IntfId intf) {
    if (world_.l3Modules->nextHopModHas(intf)) {
      if (rng_.chance(50)) {  // modules are present more often than not
        context.log("module stays " + text(intf));
        return;
      }
      context.log("module del " + text(intf));
      world_.moduleDel(intf);
    } else {
      moduleAdd(intf);
    }
  }
  // The engine programs a few indexes before it hands the module over.
  void moduleAdd(IntfId intf) {
    auto module = FwdL3Unicast::NextHopMod::NextHopModIs(intf);
    std::string programmed;
    for (uint32_t i = 2 + rng_.below(4); i > 0; --i) {
      const uint32_t nhIndex = 1 + rng_.below(Universe::kNhIndexes);
      const EthAddr mac = rng_.pick(u_.macs);
      module->nhIndexToMacIs(nhIndex, mac);
      programmed += " " + std::to_string(nhIndex) + "=" + mac.toString();
    }
    context.log("module add " + text(intf) + programmed);
    world_.l3Modules->nextHopModIs(module);
  }

  // A VRF taken down drops its pipeline, which leaves its proactive ARP entries to the platform.
  void vrfToggle() {
    const L3::VrfName& vrfName = rng_.pick(u_.vrfs);
    if (world_.vrfStatusAll->vrfStatusHas(vrfName)) {
      if (rng_.chance(50)) {  // VRFs are up more often than down
        context.log("vrf stays up " + text(vrfName));
        return;
      }
      context.log("vrf down " + text(vrfName));
      const uint32_t arpVrfId = world_.arpVrfId(vrfName);
      for (const ClientEntry& e : world_.arpEntries()) {
        if (e.arpVrfId() == arpVrfId) leftovers_.insert(e);
      }
      world_.vrfDown(vrfName);
      return;
    }
    context.log("vrf up " + text(vrfName));
    world_.vrfUp(vrfName, vrfId(vrfName));
  }

  std::string restart() {
    context.log("restart");
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
  Rng rng_;
  World world_;
  const bool reentrant_;
  size_t nestedLeft_ = 0;
  size_t nestedDepth_ = 0;
  std::unique_ptr<TestSupport::ChangeRecorder<NexthopNhIndexResolverKey>> statusWatch_;
  std::unique_ptr<TestSupport::ChangeRecorder<ClientEntry>> arpWatch_;
  ArpEntries leftovers_;
  int64_t hostEntities_ = 0;
  size_t hostModules_ = 0;
};

// Reads a positive count from the environment; a malformed value is reported, not guessed.
std::optional<uint64_t> envCount(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) return std::nullopt;
  uint64_t out = 0;
  const char* end = value + std::strlen(value);
  auto [ptr, ec] = std::from_chars(value, end, out);
  if (ec != std::errc() || ptr != end) {
    throw std::invalid_argument(std::string(name) + ": not a number: '" + value + "'");
  }
  return out;
}

// Runs every seed the environment asks for; FAILs with the seed, the step and the log tail.
void runSeeds(bool reentrant) {
  std::vector<uint64_t> seeds;
  size_t steps = kDefaultSteps;
  try {
    steps = envCount("FWD_MODEL_STEPS").value_or(kDefaultSteps);
    if (auto only = envCount("FWD_MODEL_SEED")) {
      seeds.push_back(*only);
    } else {
      const uint64_t count = envCount("FWD_MODEL_SEEDS").value_or(kDefaultSeeds);
      for (uint64_t s = 1; s <= count; ++s) seeds.push_back(s);
    }
  } catch (const std::invalid_argument& e) {
    FAIL() << e.what();
  }

  std::signal(SIGABRT, onAbort);
  if (__sanitizer_set_death_callback) __sanitizer_set_death_callback(onSanitizerDeath);

  for (uint64_t seed : seeds) {
    context = FailureContext();
    context.seed = seed;
    const std::string failure = ModelRun(seed, reentrant).run(steps);
    ASSERT_TRUE(failure.empty()) << (reentrant ? "re-entrant run, " : "") << "seed " << seed
                                 << " step " << context.step << " (replay: " << context.replay()
                                 << ")\n"
                                 << failure << "operation log tail:\n"
                                 << context.tailText();
  }
  std::signal(SIGABRT, SIG_DFL);
}

TEST(ResolverModel, RandomHostChangesKeepStatusesAndProactiveArpConsistent) { runSeeds(false); }

TEST(ResolverModel, ChangesMadeFromInsideModuleNotificationsKeepStatusesAndArpConsistent) {
  runSeeds(true);
}

}  // namespace

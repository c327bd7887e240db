// The resolver end to end at scale: 64 VRFs x 4,096 requests (262,144), 16 interfaces and 64
// vias per VRF (64 requests share each via), every neighbour resolved, 256 nhIndex entries per
// interface. Measures, per request, adding every request until every status is published and
// deleting them all again, the cost of one via's MAC change, and the peak memory per request;
// next to it, a plain baseline that computes the same statuses with three std::unordered_map
// look-ups per request. Each runs with the ring trace on (as in production; text trace off) and
// with it off (suffix _RingOff).
//
// BM_E2E_MemoryBreakdown prints where the memory of the first (cold) add goes, by entity type and
// by table type, per request and per VRF, host included (the framework's memory accounting).
// The _1M runs repeat add and delete at 256 VRFs x 4,096 requests (1,048,576); they take several
// GiB and a minute, so they run only when a --benchmark_filter names them (e.g. =_1M).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "bench/BenchMeasured.h"
#include "framework/Core.h"
#include "framework/CoreMemory.h"
#include "framework/CoreReactor.h"
#include "framework/DualLog.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "framework/RingLog.h"
#include "framework/Store.h"
#include "platform/L3Modules.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"
#include "platform/Routing.h"

namespace {

// Every operator new of the binary goes through here: live and peak bytes (as requested, without
// this accounting's own header or malloc's overhead) and the number of allocations.
struct AllocStats {
  size_t live = 0;
  size_t peak = 0;
  size_t count = 0;
};
AllocStats allocStats;

// The size of a block sits just before it, in a header that keeps the block's alignment.
constexpr size_t headerFor(size_t align) {
  return align > alignof(std::max_align_t) ? align : alignof(std::max_align_t);
}

void* countedAlloc(size_t size, size_t align = alignof(std::max_align_t)) noexcept {
  const size_t header = headerFor(align);
  void* raw = align > alignof(std::max_align_t)
                  ? std::aligned_alloc(align, (size + header + align - 1) / align * align)
                  : std::malloc(size + header);
  if (!raw) return nullptr;
  auto* block = static_cast<unsigned char*>(raw) + header;
  reinterpret_cast<size_t*>(block)[-1] = size;
  allocStats.live += size;
  if (allocStats.live > allocStats.peak) allocStats.peak = allocStats.live;
  ++allocStats.count;
  return block;
}

void countedFree(void* p, size_t align = alignof(std::max_align_t)) noexcept {
  if (!p) return;
  auto* block = static_cast<unsigned char*>(p);
  allocStats.live -= reinterpret_cast<size_t*>(block)[-1];
  std::free(block - headerFor(align));
}

void* countedAllocOrThrow(size_t size, size_t align = alignof(std::max_align_t)) {
  if (void* p = countedAlloc(size, align)) return p;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(size_t size) { return countedAllocOrThrow(size); }
void* operator new[](size_t size) { return countedAllocOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return countedAlloc(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return countedAlloc(size); }
void* operator new(size_t size, std::align_val_t align) {
  return countedAllocOrThrow(size, static_cast<size_t>(align));
}
void* operator new[](size_t size, std::align_val_t align) {
  return countedAllocOrThrow(size, static_cast<size_t>(align));
}
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, size_t) noexcept { countedFree(p); }
void operator delete[](void* p, size_t) noexcept { countedFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete(void* p, std::align_val_t align) noexcept {
  countedFree(p, static_cast<size_t>(align));
}
void operator delete[](void* p, std::align_val_t align) noexcept {
  countedFree(p, static_cast<size_t>(align));
}
void operator delete(void* p, size_t, std::align_val_t align) noexcept {
  countedFree(p, static_cast<size_t>(align));
}
void operator delete[](void* p, size_t, std::align_val_t align) noexcept {
  countedFree(p, static_cast<size_t>(align));
}

namespace {

using FwdL3Unicast::NexthopNhIndexResolverKey;
using Netval::EthAddr;
using Netval::IntfId;
using Netval::IpGenAddr;

constexpr uint32_t kVrfs = 64;
constexpr uint32_t kVrfsAtMillion = 256;
constexpr uint32_t kRequestsPerVrf = 4096;
constexpr uint32_t kIntfsPerVrf = 16;
constexpr uint32_t kViasPerVrf = 64;
constexpr uint32_t kIndexesPerIntf = 256;
// Where an interface's table carries its vias' MACs, and the second MAC of its first via (the
// MAC change toggles between the two); every other entry carries a MAC that nobody asks for.
constexpr uint32_t kViaSlotStride = 60;
constexpr uint32_t kMovedMacSlot = 250;

L3::VrfName vrfName(uint32_t v) { return L3::VrfName("vrf" + std::to_string(v)); }
// Interfaces are not shared between VRFs: VRF v owns Ethernet(16v + 1) .. Ethernet(16v + 16).
// Interface numbers stop at 4095; past them (VRFs 256 and up) the names take a second part.
IntfId intfOf(uint32_t v, uint32_t i) {
  constexpr uint32_t kMaxNumber = 4095;
  constexpr uint32_t kSubNumbers = 200;
  const uint32_t n = v * kIntfsPerVrf + i + 1;
  if (n <= kMaxNumber) return IntfId("Ethernet" + std::to_string(n));
  return IntfId("Ethernet" + std::to_string(n / kSubNumbers) + "/" +
                std::to_string(n % kSubNumbers + 1));
}
// Via j of a VRF leaves through interface j % 16, so each interface has four vias.
uint32_t viaIntf(uint32_t j) { return j % kIntfsPerVrf; }
IpGenAddr viaAddr(uint32_t v, uint32_t j) {
  return IpGenAddr::ipv4(0x0a000000u | v << 16 | j << 8 | 254);
}
EthAddr viaMac(uint32_t v, uint32_t j) {
  return EthAddr(0x020000000000ull | uint64_t(v) << 16 | j << 8);
}
EthAddr movedMac(uint32_t v, uint32_t i) {
  return EthAddr(0x060000000000ull | uint64_t(v) << 16 | i << 8);
}
// Request k of a VRF goes to next hop 11.0.0.0 + k, through via k % 64. VRFs reuse the addresses.
IpGenAddr nexthopAddr(uint32_t k) { return IpGenAddr::ipv4(0x0b000000u + k); }
uint32_t viaOfRequest(uint32_t k) { return k % kViasPerVrf; }
Memtab::Fib::FecId fecOf(uint32_t v, uint32_t j) { return uint64_t(v) * kViasPerVrf + j + 1; }
uint32_t nhIndexOf(uint32_t v, uint32_t i, uint32_t slot) {
  return (v * kIntfsPerVrf + i) * kIndexesPerIntf + slot + 1;
}
NexthopNhIndexResolverKey requestKey(uint32_t v, uint32_t k) {
  return NexthopNhIndexResolverKey(vrfName(v), nexthopAddr(k), intfOf(v, viaIntf(viaOfRequest(k))));
}

// The host's routing next-hop resolver, reduced to what the module needs here. It acts on a VRF
// registration after the module's handler returns (a scheduler task): the VRF's status appears
// and every routed address of the VRF gets its entry; a withdrawal removes the status.
class BenchResolver : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<BenchResolver>;
  using Routes = std::vector<Routing::NexthopStatusEntry>;

  static Ptr BenchResolverIs(Routing::NexthopConfig::Ptr config, Routing::NexthopStatus::Ptr status,
                             Hub::TaskScheduler::Ptr scheduler,
                             std::map<L3::VrfName, Routes> routes) {
    return Ptr(new BenchResolver(std::move(config), std::move(status), std::move(scheduler),
                                 std::move(routes)));
  }

  std::string_view typeName() const override { return "BenchResolver"; }

 private:
  BenchResolver(Routing::NexthopConfig::Ptr config, Routing::NexthopStatus::Ptr status,
                Hub::TaskScheduler::Ptr scheduler, std::map<L3::VrfName, Routes> routes)
      : config_(std::move(config)),
        status_(std::move(status)),
        scheduler_(std::move(scheduler)),
        routes_(std::move(routes)) {}

  void handleVrf(const L3::VrfName& name) {
    const bool registered = config_->vrfHas(name);
    scheduler_->schedule([this, name, registered] {
      if (!registered) {
        status_->vrfDel(name);
        return;
      }
      Routing::NexthopVrfStatus::Ptr vrfStatus = status_->vrfIs(name);
      for (const Routing::NexthopStatusEntry& entry : routes_[name]) vrfStatus->nexthopIs(entry);
    });
  }

  Routing::NexthopConfig::Ptr config_;
  Routing::NexthopStatus::Ptr status_;
  Hub::TaskScheduler::Ptr scheduler_;
  std::map<L3::VrfName, Routes> routes_;
  Core::Slot<BenchResolver, L3::VrfName, &BenchResolver::handleVrf> vrfSlot_{
      this, Routing::NexthopConfig::vrfAttr, config_.get()};
};

// The baseline's keys and hashes: what a plain implementation would write, one splitmix
// finaliser over the packed fields (the bench's addresses are all IPv4).
uint64_t mix(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}
uint64_t vrfHash(const L3::VrfName& vrf) { return std::hash<std::string_view>()(vrf.str()); }

struct VrfNexthop {
  L3::VrfName vrf;
  IpGenAddr nexthop;
  bool operator==(const VrfNexthop&) const = default;
};
struct IntfAddr {
  IntfId intf;
  IpGenAddr addr;
  bool operator==(const IntfAddr&) const = default;
};
struct IntfMac {
  IntfId intf;
  EthAddr mac;
  bool operator==(const IntfMac&) const = default;
};
struct PlainHash {
  size_t operator()(const VrfNexthop& k) const { return mix(vrfHash(k.vrf) ^ k.nexthop.v4()); }
  size_t operator()(const IntfAddr& k) const {
    return mix(uint64_t(k.intf.id()) << 32 | k.addr.v4());
  }
  size_t operator()(const IntfMac& k) const {
    return mix(k.mac.value() ^ uint64_t(k.intf.id()) << 48);
  }
  size_t operator()(const NexthopNhIndexResolverKey& k) const {
    return mix(vrfHash(k.vrfName()) ^ (uint64_t(k.intfId().id()) << 32 | k.nexthop().v4()));
  }
};
using BaselineStatuses = std::unordered_map<NexthopNhIndexResolverKey, uint32_t, PlainHash>;

// One line of the memory breakdown: what the cold add added to one entity or table type.
struct MemoryItem {
  std::string name;
  int64_t count = 0;
  int64_t bytes = 0;
};

// The host with every input in place and a root over it, built once per size for all benchmarks.
class BenchWorld {
 public:
  static BenchWorld& instance(uint32_t vrfs = kVrfs) {
    static std::map<uint32_t, std::unique_ptr<BenchWorld>> worlds;
    std::unique_ptr<BenchWorld>& world = worlds[vrfs];
    if (!world) world.reset(new BenchWorld(vrfs));
    return *world;
  }

  uint32_t vrfs() const { return vrfs_; }
  uint32_t requests() const { return vrfs_ * kRequestsPerVrf; }

  void addAll() {
    for (uint32_t v = 0; v < vrfs_; ++v) {
      for (uint32_t k = 0; k < kRequestsPerVrf; ++k)
        in_.configDir->configIs(keys_[v * kRequestsPerVrf + k]);
    }
    in_.scheduler->runUntilIdle();
  }
  void deleteAll() {
    in_.configDir->configDelAll();
    in_.scheduler->runUntilIdle();
  }
  // As an agent withdrawing its VRFs one after the other: the order the requests were added.
  void deleteInAddOrder() {
    for (const NexthopNhIndexResolverKey& key : keys_) in_.configDir->configDel(key);
    in_.scheduler->runUntilIdle();
  }
  size_t statusCount() const { return in_.statusDir->statusCount(); }
  uint32_t published(const NexthopNhIndexResolverKey& key) const {
    return in_.statusDir->status(key).nhIndex();
  }

  // Moves the first via of VRF 0 between its two MACs; returns the index its requests now get.
  uint32_t moveMac() {
    macMoved_ = !macMoved_;
    const EthAddr mac = macMoved_ ? movedMac(0, viaIntf(0)) : viaMac(0, 0);
    in_.nextHopInfoWrapper->nextHopInfoIs(Plane::NextHopKey(intfOf(0, viaIntf(0)), viaAddr(0, 0)),
                                          Plane::NextHopInfo(intfOf(0, viaIntf(0)), mac));
    return macMoved_ ? nhIndexOf(0, viaIntf(0), kMovedMacSlot) : nhIndexOf(0, viaIntf(0), 0);
  }

  // The baseline: the same statuses from the same inputs, as three hash look-ups per request.
  size_t baseline(BaselineStatuses& out) const {
    for (const NexthopNhIndexResolverKey& key : keys_) {
      const IntfAddr& via = baseRoute_.at(VrfNexthop{key.vrfName(), key.nexthop()});
      const EthAddr mac = baseNeighbour_.at(via);
      out.emplace(key, baseIndex_.at(IntfMac{key.intfId(), mac}));
    }
    return out.size();
  }

  const std::vector<NexthopNhIndexResolverKey>& keys() const { return keys_; }
  double hostBytesPerRequest() const { return hostBytesPerRequest_; }
  double coldBytesPerRequest() const { return coldBytesPerRequest_; }
  // The cold add's growth by entity and table type, largest first, and its total (live bytes
  // after the add less before it).
  const std::vector<MemoryItem>& memoryBreakdown() const { return memoryBreakdown_; }
  int64_t coldBytes() const { return coldBytes_; }

 private:
  // Accounting runs from before the inputs exist until the cold add is measured.
  struct AccountingStart {
    AccountingStart() { Core::memoryAccountingIs(true); }
  };

  explicit BenchWorld(uint32_t vrfs) : vrfs_(vrfs) {
    DualLog::textFilterIs("");
    std::map<L3::VrfName, BenchResolver::Routes> routes;
    for (uint32_t v = 0; v < vrfs_; ++v) {
      const L3::VrfName name = vrfName(v);
      in_.vrfStatusAll->vrfIdIs(name, v + 1);
      in_.vrfStatusAll->vrfStatusIs(Plane::VrfL3Status(name, v + 1));
      for (uint32_t j = 0; j < kViasPerVrf; ++j) {
        const IntfId intf = intfOf(v, viaIntf(j));
        in_.forwardingGenStatus->fecIs(
            Memtab::FibGen::Fec(fecOf(v, j), {Memtab::FibGen::Via(intf, viaAddr(v, j))}));
        in_.nextHopInfoWrapper->nextHopInfoIs(Plane::NextHopKey(intf, viaAddr(v, j)),
                                              Plane::NextHopInfo(intf, viaMac(v, j)));
        baseNeighbour_.emplace(IntfAddr{intf, viaAddr(v, j)}, viaMac(v, j));
      }
      for (uint32_t i = 0; i < kIntfsPerVrf; ++i) tableIs(v, i);
      for (uint32_t k = 0; k < kRequestsPerVrf; ++k) {
        const uint32_t j = viaOfRequest(k);
        routes[name].emplace_back(nexthopAddr(k), fecOf(v, j));
        keys_.push_back(requestKey(v, k));
        baseRoute_.emplace(VrfNexthop{name, nexthopAddr(k)},
                           IntfAddr{intfOf(v, viaIntf(j)), viaAddr(v, j)});
      }
    }
    hostBytesPerRequest_ = hostBytesPerRequest(routes);
    resolver_ = BenchResolver::BenchResolverIs(in_.nexthopConfig, in_.nexthopStatus, in_.scheduler,
                                               std::move(routes));
    root_ = FwdL3Unicast::nexthopNhIndexResolverSmFactory(in_);
    in_.scheduler->runUntilIdle();
    const std::vector<Core::MemoryUse> before = Core::memoryUse();
    const size_t liveBefore = allocStats.live;
    coldBytesPerRequest_ = peakBytesPerRequest();
    coldBytes_ = int64_t(allocStats.live) - int64_t(liveBefore);
    memoryBreakdown_ = growth(before, Core::memoryUse());
    Core::memoryAccountingIs(false);
    deleteAll();
  }

  // What each entity and table type gained from `before` to `after`.
  static std::vector<MemoryItem> growth(const std::vector<Core::MemoryUse>& before,
                                        const std::vector<Core::MemoryUse>& after) {
    std::map<std::string, MemoryItem> items;
    for (const Core::MemoryUse& use : after) {
      MemoryItem& item = items[use.name];
      item.name = use.name;
      item.count += int64_t(use.count);
      item.bytes += int64_t(use.bytes);
    }
    for (const Core::MemoryUse& use : before) {
      MemoryItem& item = items[use.name];
      item.name = use.name;
      item.count -= int64_t(use.count);
      item.bytes -= int64_t(use.bytes);
    }
    std::vector<MemoryItem> out;
    for (auto& [name, item] : items) {
      if (item.bytes != 0 || item.count != 0) out.push_back(std::move(item));
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const MemoryItem& a, const MemoryItem& b) { return a.bytes > b.bytes; });
    return out;
  }

  // The peak of live bytes while every request is added and published, per request. The first
  // time also grows every table of the module and the host; later times reuse some of them.
  double peakBytesPerRequest() {
    const size_t liveBefore = allocStats.live;
    allocStats.peak = allocStats.live;
    addAll();
    return double(allocStats.peak - liveBefore) / requests();
  }

  // What the host itself holds per request once every request is published: the request in
  // its collection and the resolver's status entry of its next hop. Measured apart, on copies.
  double hostBytesPerRequest(const std::map<L3::VrfName, BenchResolver::Routes>& routes) const {
    const size_t before = allocStats.live;
    auto requestDir = FwdL3Unicast::nexthopNhIndexResolverConfigDirFactory();
    for (const NexthopNhIndexResolverKey& key : keys_) requestDir->configIs(key);
    auto statuses = Routing::NexthopStatus::NexthopStatusIs();
    for (const auto& [name, entries] : routes) {
      Routing::NexthopVrfStatus::Ptr vrfStatus = statuses->vrfIs(name);
      for (const Routing::NexthopStatusEntry& entry : entries) vrfStatus->nexthopIs(entry);
    }
    return double(allocStats.live - before) / requests();
  }

  // Slot s of interface i: the MAC of the interface's via s / 60 at 0, 60, 120 and 180, the
  // moved MAC of its first via at 250, a MAC that nobody asks for elsewhere.
  void tableIs(uint32_t v, uint32_t i) {
    auto module = FwdL3Unicast::NextHopMod::NextHopModIs(intfOf(v, i));
    for (uint32_t slot = 0; slot < kIndexesPerIntf; ++slot) {
      EthAddr mac(0x0a0000000000ull | uint64_t(nhIndexOf(v, i, slot)));
      if (slot % kViaSlotStride == 0 && slot / kViaSlotStride < kViasPerVrf / kIntfsPerVrf) {
        mac = viaMac(v, i + slot / kViaSlotStride * kIntfsPerVrf);
      } else if (slot == kMovedMacSlot) {
        mac = movedMac(v, i);
      }
      module->nhIndexToMacIs(nhIndexOf(v, i, slot), mac);
      baseIndex_.emplace(IntfMac{intfOf(v, i), mac}, nhIndexOf(v, i, slot));
    }
    in_.l3Modules->nextHopModIs(module);
  }

  uint32_t vrfs_;
  AccountingStart accountingStart_;
  // Every input of the root, fresh and empty.
  FwdL3Unicast::NexthopNhIndexResolverInputs in_ =
      FwdL3Unicast::NexthopNhIndexResolverInputs::fresh();
  BenchResolver::Ptr resolver_;
  FwdL3Unicast::NexthopNhIndexResolverSm::Ptr root_;

  std::vector<NexthopNhIndexResolverKey> keys_;
  double hostBytesPerRequest_ = 0;
  double coldBytesPerRequest_ = 0;
  int64_t coldBytes_ = 0;
  std::vector<MemoryItem> memoryBreakdown_;
  bool macMoved_ = false;
  std::unordered_map<VrfNexthop, IntfAddr, PlainHash> baseRoute_;
  std::unordered_map<IntfAddr, EthAddr, PlainHash> baseNeighbour_;
  std::unordered_map<IntfMac, uint32_t, PlainHash> baseIndex_;
};

// Ring trace into a temporary file for the life of one benchmark run, or no ring at all.
class RingScope {
 public:
  explicit RingScope(bool ring) {
    RingLog::close();
    if (!ring) return;
    path_ = (std::filesystem::temp_directory_path() /
             ("E2EBench-" + std::to_string(getpid()) + ".ring"))
                .string();
    RingLog::open(path_);
  }
  RingScope(const RingScope&) = delete;
  RingScope& operator=(const RingScope&) = delete;
  ~RingScope() {
    RingLog::close();
    if (!path_.empty()) std::filesystem::remove(path_);
  }

 private:
  std::string path_;
};

benchmark::Counter perRequest(double requestsPerIteration) {
  return benchmark::Counter(requestsPerIteration, benchmark::Counter::kIsRate |
                                                      benchmark::Counter::kInvert |
                                                      benchmark::Counter::kIsIterationInvariant);
}

void requireAllPublished(benchmark::State& state, const BenchWorld& world) {
  if (world.statusCount() != world.requests()) {
    state.SkipWithError(("published " + std::to_string(world.statusCount()) + " statuses of " +
                         std::to_string(world.requests()))
                            .c_str());
  }
}

void addRequests(benchmark::State& state, bool ring, uint32_t vrfs = kVrfs) {
  BenchWorld& world = BenchWorld::instance(vrfs);
  const uint32_t requests = world.requests();
  RingScope scope(ring);
  double warmBytes = 0;
  double allocations = 0;
  for (auto _ : state) {
    const size_t liveBefore = allocStats.live;
    const size_t countBefore = allocStats.count;
    allocStats.peak = allocStats.live;
    Bench::timedWork(requests, [&] { world.addAll(); });
    state.PauseTiming();
    warmBytes = std::max(warmBytes, double(allocStats.peak - liveBefore) / requests);
    allocations = std::max(allocations, double(allocStats.count - countBefore) / requests);
    requireAllPublished(state, world);
    world.deleteAll();
    state.ResumeTiming();
  }
  state.counters["time_per_request"] = perRequest(requests);
  Bench::unitsTimedReport(state);
  // Peak memory from a fresh start (every table grows), then with the tables a previous run left.
  state.counters["bytes_per_request"] = world.coldBytesPerRequest();
  state.counters["warm_bytes_per_request"] = warmBytes;
  // Of which the host's own share (requests and resolver entries); the rest is the module's.
  state.counters["host_bytes_per_request"] = world.hostBytesPerRequest();
  state.counters["allocs_per_request"] = allocations;
}

void baseline(benchmark::State& state, bool) {
  BenchWorld& world = BenchWorld::instance();
  {
    // The baseline computes what the module publishes.
    BaselineStatuses statuses;
    world.baseline(statuses);
    world.addAll();
    for (const NexthopNhIndexResolverKey& key : world.keys()) {
      if (world.published(key) != statuses.at(key)) {
        state.SkipWithError("the baseline and the module disagree");
        break;
      }
    }
    world.deleteAll();
  }
  double bytes = 0;
  for (auto _ : state) {
    const size_t liveBefore = allocStats.live;
    allocStats.peak = allocStats.live;
    BaselineStatuses statuses;
    Bench::timedWork(world.requests(), [&] { benchmark::DoNotOptimize(world.baseline(statuses)); });
    bytes = double(allocStats.peak - liveBefore) / world.requests();
    // As for the module, tearing the statuses down is not part of computing them.
    state.PauseTiming();
    statuses = {};
    state.ResumeTiming();
  }
  state.counters["time_per_request"] = perRequest(world.requests());
  Bench::unitsTimedReport(state);
  state.counters["bytes_per_request"] = bytes;
}

void macChange(benchmark::State& state, bool ring) {
  BenchWorld& world = BenchWorld::instance();
  world.addAll();
  requireAllPublished(state, world);
  RingScope scope(ring);
  uint32_t expected = 0;
  for (auto _ : state) expected = world.moveMac();
  // Every request through the via follows it.
  for (uint32_t k = 0; k < kRequestsPerVrf; k += kViasPerVrf) {
    if (world.published(requestKey(0, k)) != expected) {
      state.SkipWithError("a request did not follow the MAC change");
      break;
    }
  }
  state.counters["time_per_change"] = perRequest(1);
  state.counters["time_per_request"] = perRequest(kRequestsPerVrf / kViasPerVrf);
  world.deleteAll();
}

// Deletes every request either VRF by VRF, in the order they were added, or all at once through
// the request collection's delete-all, whose hash order scatters consecutive deletions over
// every VRF's pipeline (and so over far more memory).
void deleteRequests(benchmark::State& state, bool ring, bool inAddOrder = true,
                    uint32_t vrfs = kVrfs) {
  BenchWorld& world = BenchWorld::instance(vrfs);
  RingScope scope(ring);
  for (auto _ : state) {
    state.PauseTiming();
    world.addAll();
    requireAllPublished(state, world);
    state.ResumeTiming();
    Bench::timedWork(world.requests(), [&] {
      if (inAddOrder) {
        world.deleteInAddOrder();
      } else {
        world.deleteAll();
      }
    });
  }
  if (world.statusCount() != 0) state.SkipWithError("statuses left after deleting every request");
  state.counters["time_per_request"] = perRequest(world.requests());
  Bench::unitsTimedReport(state);
}

// Prints the cold add's memory by entity and table type: per request and per VRF, with the
// count of entities or of table blocks each VRF added (a table shared by every VRF grows its one
// block, so it adds none). What the accounting does not attribute (strings and vectors inside
// entities, publisher lists, the host's own maps) is the remainder of the total.
void memoryBreakdown(benchmark::State& state) {
  const BenchWorld& world = BenchWorld::instance();
  const double requests = world.requests();
  const double vrfs = world.vrfs();
  for (auto _ : state) {
  }
  std::printf(
      "Memory of the cold add, %u VRFs x %u requests (%.0f bytes per request, host "
      "included):\n",
      world.vrfs(), kRequestsPerVrf, double(world.coldBytes()) / requests);
  std::printf("%14s %12s %12s %10s  %s\n", "bytes/request", "bytes/VRF", "count/VRF", "share",
              "entity or table (key -> member)");
  int64_t attributed = 0;
  auto row = [&](double bytes, double count, const std::string& name) {
    std::printf("%14.1f %12.0f %12.1f %9.1f%%  %s\n", bytes / requests, bytes / vrfs, count / vrfs,
                100.0 * bytes / double(world.coldBytes()), name.c_str());
  };
  for (const MemoryItem& item : world.memoryBreakdown()) {
    row(double(item.bytes), double(item.count), item.name);
    attributed += item.bytes;
  }
  row(double(world.coldBytes() - attributed), 0, "not attributed (strings, vectors, lists)");
  std::fflush(stdout);
  state.counters["bytes_per_request"] = double(world.coldBytes()) / requests;
  state.counters["attributed_bytes_per_request"] = double(attributed) / requests;
}

void BM_E2E_AddRequests(benchmark::State& state) { addRequests(state, true); }
void BM_E2E_MemoryBreakdown(benchmark::State& state) { memoryBreakdown(state); }
void BM_E2E_AddRequests_1M(benchmark::State& state) { addRequests(state, true, kVrfsAtMillion); }
void BM_E2E_DeleteRequests_1M(benchmark::State& state) {
  deleteRequests(state, true, true, kVrfsAtMillion);
}
void BM_E2E_DeleteRequestsHashOrder_1M(benchmark::State& state) {
  deleteRequests(state, true, false, kVrfsAtMillion);
}
void BM_E2E_AddRequests_RingOff(benchmark::State& state) { addRequests(state, false); }
// The baseline writes no trace; its _RingOff twin is there for side-by-side reading.
void BM_E2E_Baseline(benchmark::State& state) { baseline(state, true); }
void BM_E2E_Baseline_RingOff(benchmark::State& state) { baseline(state, false); }
void BM_E2E_MacChange(benchmark::State& state) { macChange(state, true); }
void BM_E2E_MacChange_RingOff(benchmark::State& state) { macChange(state, false); }
void BM_E2E_DeleteRequests(benchmark::State& state) { deleteRequests(state, true); }
void BM_E2E_DeleteRequests_RingOff(benchmark::State& state) { deleteRequests(state, false); }
void BM_E2E_DeleteRequestsHashOrder(benchmark::State& state) { deleteRequests(state, true, false); }
void BM_E2E_DeleteRequestsHashOrder_RingOff(benchmark::State& state) {
  deleteRequests(state, false, false);
}

// Whole-population runs take about a second each: a few iterations are enough.
BENCHMARK(BM_E2E_AddRequests)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_AddRequests_RingOff)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_MemoryBreakdown)->Iterations(1);
BENCHMARK(BM_E2E_Baseline)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_Baseline_RingOff)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_MacChange)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_E2E_MacChange_RingOff)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_E2E_DeleteRequests)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_DeleteRequests_RingOff)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_DeleteRequestsHashOrder)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_DeleteRequestsHashOrder_RingOff)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_AddRequests_1M)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_DeleteRequests_1M)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_E2E_DeleteRequestsHashOrder_1M)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

// Runs every benchmark but the _1M ones, unless a --benchmark_filter names what to run.
int main(int argc, char** argv) {
  bool filtered = false;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]).starts_with("--benchmark_filter")) filtered = true;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (!filtered) benchmark::SetBenchmarkFilter("-_1M");
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

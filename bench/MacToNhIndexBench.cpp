// Stage 3 (MAC -> nhIndex) on its hot paths, each next to a baseline that does only the status
// writes the operation cannot avoid. Compare BM_Stage3<Case> with BM_Stage3<Case>Baseline: the
// ratio is the stage's own cost (group lookups, MAC searches, group updates, traces switched off).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"
#include "bench/BenchMeasured.h"
#include "framework/Core.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "platform/L3Modules.h"

namespace {

using namespace FwdL3Unicast;

const L3::VrfName& vrfRed() {
  static const L3::VrfName name("red");
  return name;
}
const Netval::IntfId& ethernet1() {
  static const Netval::IntfId intfId("Ethernet1");
  return intfId;
}
Netval::IpGenAddr nexthop(uint32_t i) { return Netval::IpGenAddr::ipv4(0x0a000000u + i + 1); }
Netval::EthAddr macOf(uint32_t i) { return Netval::EthAddr(0x001c73000000ull + i); }

// A stage of VRF "red" whose Ethernet1 has a next-hop module and `requests` entries written as
// stage 2 would write them, the i-th with MAC macOfRequest(i).
struct Stage {
  template <class MacOfRequest>
  Stage(uint32_t requests, MacOfRequest macOfRequest) {
    for (uint32_t i = 0; i < requests; ++i) {
      config->mapIs(NexthopToViaNexthopMacMapEntry(NexthopIntfId(nexthop(i), ethernet1()),
                                                   nexthop(100000), macOfRequest(i)));
    }
    sm = viaNexthopMacToNhIndexSmFactory(vrfRed(), config, l3Modules, status);
  }

  NexthopToViaNexthopMacMap::Ptr config = nexthopToViaNexthopMacMapFactory();
  L3Modules::Ptr l3Modules = L3Modules::L3ModulesIs();
  ViaNexthopMacToNhIndexMap::Ptr status = viaNexthopMacToNhIndexMapFactory(vrfRed());
  NextHopMod::Ptr module = NextHopMod::NextHopModIs(ethernet1());
  ViaNexthopMacToNhIndexSm::Ptr sm;
};

constexpr uint32_t kGroupSize = 1000;

// nhIndex 5 carries the MAC of a group of 1,000 next hops; each iteration moves it to another
// MAC (the group withdraws its 1,000 statuses) and back (the group writes them again).
void BM_Stage3MacChangeGroupOf1000(benchmark::State& state) {
  Stage stage(kGroupSize, [](uint32_t) { return macOf(0); });
  stage.module->nhIndexToMacIs(5, macOf(0));
  stage.l3Modules->nextHopModIs(stage.module);
  if (stage.status->mapCount() != kGroupSize) state.SkipWithError("group not resolved");
  Bench::timedLoop(state, [&] {
    stage.module->nhIndexToMacIs(5, macOf(1));
    stage.module->nhIndexToMacIs(5, macOf(0));
  });
  Bench::unitsTimedReport(state);
  if (stage.status->mapCount() != kGroupSize) state.SkipWithError("group lost its statuses");
  state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(BM_Stage3MacChangeGroupOf1000);

// The status writes of the same two MAC changes, alone.
void BM_Stage3MacChangeGroupOf1000Baseline(benchmark::State& state) {
  ViaNexthopMacToNhIndexMap::Ptr status = viaNexthopMacToNhIndexMapFactory(vrfRed());
  std::vector<NexthopIntfId> keys;
  for (uint32_t i = 0; i < kGroupSize; ++i) keys.emplace_back(nexthop(i), ethernet1());
  for (const NexthopIntfId& key : keys) status->mapIs(ViaNexthopMacToNhIndexMapEntry(key, 5));
  Bench::timedLoop(state, [&] {
    for (const NexthopIntfId& key : keys) status->mapDel(key);
    for (const NexthopIntfId& key : keys) status->mapIs(ViaNexthopMacToNhIndexMapEntry(key, 5));
  });
  Bench::unitsTimedReport(state);
  state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(BM_Stage3MacChangeGroupOf1000Baseline);

constexpr uint32_t kTableSize = 4096;
constexpr uint32_t kGroups = 1024;

// Ethernet1 has 1,024 groups of one next hop each (MACs 0, 4, 8, ...) and a module whose
// 4,096 indexes carry MACs 0..4095. Each iteration inserts the module, which starts the
// interface's machine (status clean-up, table scan, one watcher and MAC search per group);
// removing it again is not timed.
void BM_Stage3MachineStart4096x1024(benchmark::State& state) {
  Stage stage(kGroups, [](uint32_t i) { return macOf(4 * i); });
  for (uint32_t nhIndex = 0; nhIndex < kTableSize; ++nhIndex) {
    stage.module->nhIndexToMacIs(nhIndex, macOf(nhIndex));
  }
  for (auto _ : state) {
    Bench::timedWork(1, [&] { stage.l3Modules->nextHopModIs(stage.module); });
    state.PauseTiming();
    if (stage.status->mapCount() != kGroups) state.SkipWithError("groups not resolved");
    stage.l3Modules->nextHopModDel(ethernet1());
    state.ResumeTiming();
  }
  Bench::unitsTimedReport(state);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Stage3MachineStart4096x1024)->Unit(benchmark::kMicrosecond);

// The 1,024 status writes of one machine start, alone.
void BM_Stage3MachineStart4096x1024Baseline(benchmark::State& state) {
  ViaNexthopMacToNhIndexMap::Ptr status = viaNexthopMacToNhIndexMapFactory(vrfRed());
  std::vector<NexthopIntfId> keys;
  for (uint32_t i = 0; i < kGroups; ++i) keys.emplace_back(nexthop(i), ethernet1());
  for (auto _ : state) {
    Bench::timedWork(1, [&] {
      for (uint32_t i = 0; i < kGroups; ++i) {
        status->mapIs(ViaNexthopMacToNhIndexMapEntry(keys[i], 4 * i));
      }
    });
    state.PauseTiming();
    status->mapDelAll();
    state.ResumeTiming();
  }
  Bench::unitsTimedReport(state);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Stage3MachineStart4096x1024Baseline)->Unit(benchmark::kMicrosecond);

}  // namespace

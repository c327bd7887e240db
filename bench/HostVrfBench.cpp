// Adding VRFs without an id: the host picks the lowest free one. Measured per VRF for hosts that
// end with 1,000 and 4,000 VRFs; the cost per VRF should not grow with the count.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "framework/L3VrfName.h"
#include "hosts/sim/SimHost.h"

namespace {

void BM_VrfAddWithoutId(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  std::vector<L3::VrfName> names;
  for (size_t i = 0; i < count; ++i) names.emplace_back("vrf" + std::to_string(i));
  for (auto _ : state) {
    state.PauseTiming();
    {
      Sim::SimHost host;
      state.ResumeTiming();
      for (const L3::VrfName& name : names) host.vrfAdd(name);
      host.runDue();
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * count));
}
BENCHMARK(BM_VrfAddWithoutId)->Arg(1000)->Arg(4000)->Unit(benchmark::kMillisecond);

}  // namespace

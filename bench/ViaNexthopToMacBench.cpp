// Cost of a neighbour change in stage 2: proportional to the nexthops sharing the changed via,
// and a constant two lookups for a neighbour that is no via of the VRF.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "Fwd/FwdViaNexthopToViaNexthopMacSm.h"
#include "bench/BenchMeasured.h"
#include "platform/Plane.h"

namespace {

using namespace FwdL3Unicast;

const Netval::IntfId kIntf("Vlan10");
const Netval::IntfId kL2("Ethernet7");
const Netval::IpGenAddr kVia = Netval::IpGenAddr::ipv4(0x0a0000fe);       // 10.0.0.254
const Netval::IpGenAddr kStranger = Netval::IpGenAddr::ipv4(0x0a0001fe);  // 10.0.1.254
const Netval::EthAddr kMacs[2] = {Netval::EthAddr(0x001c73aabb01), Netval::EthAddr(0x001c73aabb02)};

// One VRF's stage 2 with `sharers` requested nexthops behind one resolved via.
struct Bed {
  Plane::VrfL3StatusAll::Ptr vrfStatusAll = Plane::VrfL3StatusAll::VrfL3StatusAllIs();
  Plane::NextHopInfoWrapper::Ptr neighbours = Plane::NextHopInfoWrapper::NextHopInfoWrapperIs();
  Plane::ProactiveArpNexthopSm::Ptr proactiveArp =
      Plane::ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(
          Arp::ProactiveArp::ClientConfig::ClientConfigIs());
  NexthopToViaNexthopMap::Ptr viaMap = nexthopToViaNexthopMapFactory();
  NexthopToViaNexthopMacMap::Ptr macMap = nexthopToViaNexthopMacMapFactory();
  Core::Ptr<ViaNexthopToViaNexthopMacSm> sm;

  explicit Bed(int64_t sharers) {
    const L3::VrfName vrfName("red");
    vrfStatusAll->vrfIdIs(vrfName, 5);
    neighbours->nextHopInfoIs(Plane::NextHopKey(kIntf, kVia), Plane::NextHopInfo(kL2, kMacs[0]));
    for (int64_t i = 0; i < sharers; ++i) {
      const auto nexthop = Netval::IpGenAddr::ipv4(0x0b000001 + static_cast<uint32_t>(i));
      viaMap->mapIs(NexthopToViaNexthopMapEntry(NexthopIntfId(nexthop, kIntf), kVia));
    }
    sm = viaNexthopToViaNexthopMacSmFactory(vrfName, viaMap, neighbours, vrfStatusAll, proactiveArp,
                                            macMap);
  }

  // The host changes the neighbour's MAC and the pipeline hands the key to the stage.
  void macChange(const Netval::IpGenAddr& addr, uint64_t round) {
    const Plane::NextHopKey key(kIntf, addr);
    neighbours->nextHopInfoIs(key, Plane::NextHopInfo(kL2, kMacs[round & 1]));
    sm->handleNexthopInfo(key);
  }
};

void BM_Stage2NeighbourChangeShared(benchmark::State& state) {
  Bed bed(state.range(0));
  uint64_t round = 1;
  Bench::timedLoop(state, [&] { bed.macChange(kVia, round++); });
  Bench::unitsTimedReport(state);
  if (bed.macMap->mapCount() != static_cast<size_t>(state.range(0))) {
    state.SkipWithError("not every sharer has its entry");
  }
  state.SetComplexityN(state.range(0));
  state.counters["entries/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(state.range(0)),
      benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Stage2NeighbourChangeShared)->Arg(1)->Arg(64)->Arg(1024)->Complexity(benchmark::oN);

void BM_Stage2NeighbourChangeNotAVia(benchmark::State& state) {
  // A busy VRF: the changed neighbour is none of its vias, so its size must not matter.
  Bed bed(1024);
  uint64_t round = 0;
  Bench::timedLoop(state, [&] { bed.macChange(kStranger, round++); });
  Bench::unitsTimedReport(state);
  if (bed.macMap->mapCount() != 1024) state.SkipWithError("output changed");
}
BENCHMARK(BM_Stage2NeighbourChangeNotAVia);

}  // namespace

#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "framework/Core.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "framework/Store.h"
#include "platform/L3Modules.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"
#include "platform/Routing.h"
#include "support/FwdTestValues.h"
#include "support/ResolverStandIn.h"

// The twelve inputs of the root resolver as real platform objects, the stand-in for the host's
// routing next-hop resolver, and short helpers that put the host's state in place.
namespace FwdTest {

// Every input of nexthopNhIndexResolverSmFactory, fresh and empty (FEC mode global), plus the
// routing resolver stand-in. Use it as a member or as a base of a test fixture.
class ResolverFixture : public FwdL3Unicast::NexthopNhIndexResolverInputs {
 public:
  ResolverFixture() : NexthopNhIndexResolverInputs(NexthopNhIndexResolverInputs::fresh()) {}

  const FwdL3Unicast::NexthopNhIndexResolverInputs& inputs() const { return *this; }

  TestSupport::ResolverStandIn resolver{nexthopConfig, nexthopStatus};

  // The root built by rootIs(), null before and after rootDel().
  FwdL3Unicast::NexthopNhIndexResolverSm::Ptr root;

  const FwdL3Unicast::NexthopNhIndexResolverSm::Ptr& rootIs() {
    root = FwdL3Unicast::nexthopNhIndexResolverSmFactory(inputs());
    return root;
  }
  // What the host does when it stops the module: doCleanup, then drop the root.
  void rootDel() {
    if (!root) return;
    root->doCleanup();
    root = nullptr;
  }

  // The VRF's L3 layer exists with that plane id (the id first: a pipeline reads it on start).
  void vrfL3StatusIs(std::string_view vrfName, Plane::VrfId vrfId) {
    vrfStatusAll->vrfIdIs(vrf(vrfName), vrfId);
    vrfStatusAll->vrfStatusIs(Plane::VrfL3Status(vrf(vrfName), vrfId));
  }
  void vrfL3StatusDel(std::string_view vrfName) {
    vrfStatusAll->vrfStatusDel(vrf(vrfName));
    vrfStatusAll->vrfIdDel(vrf(vrfName));
  }

  // A FEC of the root's table with the given (interface, hop) vias.
  void fecIs(Memtab::Fib::FecId fecId,
             std::initializer_list<std::pair<std::string_view, std::string_view>> vias) {
    fecIs(*forwardingGenStatus, fecId, vias);
  }
  static void fecIs(Memtab::FibGen::ForwardingStatus& table, Memtab::Fib::FecId fecId,
                    std::initializer_list<std::pair<std::string_view, std::string_view>> vias) {
    std::vector<Memtab::FibGen::Via> list;
    for (const auto& [intfName, hop] : vias) list.emplace_back(intf(intfName), ip(hop));
    table.fecIs(Memtab::FibGen::Fec(fecId, std::move(list)));
  }

  // The neighbour (interface, address) is fully resolved: learnt on that interface with `macAddr`.
  void neighbourIs(std::string_view intfName, std::string_view addr, std::string_view macAddr) {
    nextHopInfoWrapper->nextHopInfoIs(Plane::NextHopKey(intf(intfName), ip(addr)),
                                      Plane::NextHopInfo(intf(intfName), mac(macAddr)));
  }
  void neighbourDel(std::string_view intfName, std::string_view addr) {
    nextHopInfoWrapper->nextHopInfoDel(Plane::NextHopKey(intf(intfName), ip(addr)));
  }

  // The interface's next-hop module (created when it has none) programs nhIndex -> macAddr.
  FwdL3Unicast::NextHopMod::Ptr nhIndexIs(std::string_view intfName, uint32_t nhIndex,
                                          std::string_view macAddr) {
    FwdL3Unicast::NextHopMod::Ptr mod = l3Modules->nextHopModMutable(intf(intfName));
    if (!mod) mod = l3Modules->nextHopModIs(FwdL3Unicast::NextHopMod::NextHopModIs(intf(intfName)));
    mod->nhIndexToMacIs(nhIndex, mac(macAddr));
    return mod;
  }

  // Everything the host needs for `nexthop` on `intfName` to resolve to `nhIndex` in every VRF:
  // a route to FEC `fecId` whose via is `via` on the interface, the via's neighbour entry with
  // `macAddr`, and the interface's next-hop index for that MAC.
  void resolvableIs(std::string_view nexthop, std::string_view intfName, std::string_view via,
                    Memtab::Fib::FecId fecId, std::string_view macAddr, uint32_t nhIndex) {
    fecIs(fecId, {{intfName, via}});
    resolver.routeIs(ip(nexthop), fecId);
    neighbourIs(intfName, via, macAddr);
    nhIndexIs(intfName, nhIndex, macAddr);
  }

  // The published index of a request, or invalidNhIndex when it has no status.
  uint32_t publishedNhIndex(std::string_view vrfName, std::string_view nexthop,
                            std::string_view intfName) const {
    const auto k = key(vrfName, nexthop, intfName);
    if (!statusDir->statusHas(k))
      return FwdL3Unicast::NexthopNhIndexResolverConstants::invalidNhIndex();
    return statusDir->status(k).nhIndex();
  }
};

// `text` as a POSIX extended regular expression that matches it literally (for EXPECT_DEATH).
inline std::string literalRegex(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

// What CORE_ASSERT prints for `expression` failing in `function` of source unit `unit`, any line.
inline std::string assertionRegex(std::string_view expression, std::string_view unit,
                                  std::string_view function) {
  return literalRegex("Assertion failed: \"" + std::string(expression) + "\" in " +
                      std::string(unit) + " line ") +
         "[0-9]+" + literalRegex(", function " + std::string(function));
}

}  // namespace FwdTest

// Builds the resolver the way a hosting agent does, from the installed headers and libraries
// only, adds one request and checks that its VRF got registered with the routing resolver.
#include <cstdio>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "framework/Store.h"
#include "platform/L3Modules.h"
#include "platform/Memtab.h"
#include "platform/Plane.h"
#include "platform/Routing.h"

namespace {

int fail(const char* what) {
  std::fprintf(stderr, "fwd-install-consumer: %s\n", what);
  return 1;
}

}  // namespace

int main() {
  using namespace FwdL3Unicast;
  const auto configDir = nexthopNhIndexResolverConfigDirFactory();
  const auto nexthopConfig = Routing::NexthopConfig::NexthopConfigIs();
  const auto statusDir = nexthopNhIndexResolverStatusDirFactory();
  auto root = nexthopNhIndexResolverSmFactory(
      Store::EntityManager::EntityManagerIs(), configDir, nexthopConfig,
      Routing::NexthopStatus::NexthopStatusIs(), Memtab::Fib::FecModeStatus::FecModeStatusIs(),
      Memtab::FibGen::ForwardingStatus::ForwardingStatusIs(),
      Plane::NextHopInfoWrapper::NextHopInfoWrapperIs(), Plane::VrfL3StatusAll::VrfL3StatusAllIs(),
      L3Modules::L3ModulesIs(), Arp::ProactiveArp::ClientConfig::ClientConfigIs(),
      Hub::TaskScheduler::TaskSchedulerIs(), statusDir);

  const L3::VrfName red("red");
  configDir->configIs(
      NexthopNhIndexResolverKey(red, Netval::IpGenAddr("10.0.0.1"), Netval::IntfId("Ethernet1")));
  if (!nexthopConfig->vrfHas(red)) return fail("the request's VRF is not registered");
  if (!root->allVrfNexthopNhIndexResolverConfigDir()->vrfConfigHas(red)) {
    return fail("the request is not tracked");
  }

  root->doCleanup();
  root = nullptr;
  if (nexthopConfig->vrfHas(red)) return fail("the registration survived doCleanup");
  std::puts("fwd-install-consumer: ok");
  return 0;
}

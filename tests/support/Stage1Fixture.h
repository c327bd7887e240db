#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdNexthopToViaNexthopSm.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "platform/Memtab.h"
#include "platform/Routing.h"
#include "support/FwdTestValues.h"
#include "support/ResolverFixture.h"
#include "support/TraceCapture.h"

// Stage 1 of one VRF on its real inputs, and the texts its trace statements start with: what the
// stage 1 test files share.
namespace FwdTest {

// The inputs of one VRF's stage 1, held as the per-VRF pipeline holds them, and the stage.
struct Stage1 {
  L3::VrfName vrfName{"red"};
  FwdL3Unicast::NexthopIntfIdColl::Ptr config =
      FwdL3Unicast::NexthopIntfIdColl::NexthopIntfIdCollIs(vrfName);
  Routing::NexthopVrfConfig::Ptr nexthopVrfConfig =
      Routing::NexthopVrfConfig::NexthopVrfConfigIs(vrfName);
  Routing::NexthopVrfStatus::Ptr nexthopVrfStatus =
      Routing::NexthopVrfStatus::NexthopVrfStatusIs(vrfName);
  Memtab::FibGen::ForwardingStatus::Ptr fecTable =
      Memtab::FibGen::ForwardingStatus::ForwardingStatusIs();
  Hub::TaskScheduler::Ptr scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  FwdL3Unicast::NexthopToViaNexthopMap::Ptr status =
      FwdL3Unicast::NexthopToViaNexthopMap::NexthopToViaNexthopMapIs();
  FwdL3Unicast::NexthopToViaNexthopSm::Ptr sm;

  FwdL3Unicast::NexthopToViaNexthopSm& start() {
    sm = FwdL3Unicast::nexthopToViaNexthopSmFactory(vrfName, config, nexthopVrfConfig,
                                                    nexthopVrfStatus, fecTable, scheduler, status);
    return *sm;
  }

  void request(std::string_view nexthop, std::string_view intfName) {
    config->configIs(nhIntf(nexthop, intfName));
  }
  void unrequest(std::string_view nexthop, std::string_view intfName) {
    config->configDel(nhIntf(nexthop, intfName));
  }
  void resolve(std::string_view nexthop, Memtab::Fib::FecId fecId) {
    nexthopVrfStatus->nexthopIs(Routing::NexthopStatusEntry(ip(nexthop), fecId));
  }
  void unresolve(std::string_view nexthop) { nexthopVrfStatus->nexthopDel(ip(nexthop)); }
  // Sets the FEC's vias, each (interface name, via address).
  void fec(Memtab::Fib::FecId fecId,
           std::initializer_list<std::pair<std::string_view, std::string_view>> vias) {
    ResolverFixture::fecIs(*fecTable, fecId, vias);
  }

  bool hasVia(std::string_view nexthop, std::string_view intfName) const {
    return status->mapHas(nhIntf(nexthop, intfName));
  }
  Netval::IpGenAddr via(std::string_view nexthop, std::string_view intfName) const {
    return status->map(nhIntf(nexthop, intfName)).viaNexthop();
  }
  bool registered(std::string_view nexthop) const {
    return nexthopVrfConfig->nexthopHas(ip(nexthop));
  }
};

// The trace of stage 1: its handle, the text each statement starts with (the function's
// signature and ": "), and the stage's own lines of a capture.
namespace Stage1Trace {

inline constexpr std::string_view kHandle = "FwdNexthopToViaNexthopSm";

inline std::string at(std::string_view function) {
  return "void FwdL3Unicast::NexthopToViaNexthopSm::" + std::string(function) + ": ";
}
inline const std::string kInit = at("handleInitialized()");
inline const std::string kConfigAll = at("handleConfig()");
inline const std::string kConfig = at("handleConfig(const FwdL3Unicast::NexthopIntfId&)");
inline const std::string kBacklog = at("handleNexthopBacklog()");
inline const std::string kStatus = at("handleNexthopStatus(const Netval::IpGenAddr&)");
inline const std::string kReview =
    at("reviewNexthopRequest(const Core::Ptr<FwdL3Unicast::NexthopRequest>&)");
inline const std::string kPublish =
    at("reviewNexthop(const Netval::IpGenAddr&, Netval::IntfId, const Netval::IpGenAddr&)");
inline const std::string kCleanup = at("doCleanup()");

// The stage's own trace lines, in order.
inline std::vector<std::string> stageTexts(const TestSupport::TraceCapture& capture) {
  std::vector<std::string> texts;
  for (const auto& line : capture.lines()) {
    if (line.handle == kHandle) texts.push_back(line.text);
  }
  return texts;
}

inline size_t countOf(const std::vector<std::string>& texts, const std::string& text) {
  return static_cast<size_t>(std::count(texts.begin(), texts.end(), text));
}

}  // namespace Stage1Trace

}  // namespace FwdTest

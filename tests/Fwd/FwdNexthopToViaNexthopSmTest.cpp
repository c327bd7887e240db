#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fwd/FwdNexthopToViaNexthopSm.h"
#include "framework/CoreDump.h"
#include "framework/Hub.h"
#include "platform/Memtab.h"
#include "platform/Routing.h"
#include "support/FwdTestValues.h"
#include "support/TraceCapture.h"

namespace {

using FwdL3Unicast::NexthopIntfId;
using FwdL3Unicast::NexthopIntfIdColl;
using FwdL3Unicast::NexthopToViaNexthopMap;
using FwdL3Unicast::NexthopToViaNexthopSm;
using FwdTest::intf;
using FwdTest::ip;
using FwdTest::nhIntf;
using Memtab::FibGen::Fec;
using Memtab::FibGen::Via;

constexpr std::string_view kHandle = "FwdNexthopToViaNexthopSm";

// The text a trace statement of stage 1 starts with: the function's signature and ": ".
std::string at(std::string_view function) {
  return "void FwdL3Unicast::NexthopToViaNexthopSm::" + std::string(function) + ": ";
}
const std::string kInit = at("handleInitialized()");
const std::string kConfigAll = at("handleConfig()");
const std::string kConfig = at("handleConfig(const FwdL3Unicast::NexthopIntfId&)");
const std::string kBacklog = at("handleNexthopBacklog()");
const std::string kStatus = at("handleNexthopStatus(const Netval::IpGenAddr&)");
const std::string kReview =
    at("reviewNexthopRequest(const Core::Ptr<FwdL3Unicast::NexthopRequest>&)");
const std::string kPublish =
    at("reviewNexthop(const Netval::IpGenAddr&, Netval::IntfId, const Netval::IpGenAddr&)");
const std::string kCleanup = at("doCleanup()");

// The stage's own trace lines, in order.
std::vector<std::string> stageTexts(const TestSupport::TraceCapture& capture) {
  std::vector<std::string> texts;
  for (const auto& line : capture.lines()) {
    if (line.handle == kHandle) texts.push_back(line.text);
  }
  return texts;
}

size_t countOf(const std::vector<std::string>& texts, const std::string& text) {
  return static_cast<size_t>(std::count(texts.begin(), texts.end(), text));
}

// The inputs of one VRF's stage 1, held as the per-VRF pipeline holds them, and the stage.
struct Stage1 {
  L3::VrfName vrfName{"red"};
  NexthopIntfIdColl::Ptr config = NexthopIntfIdColl::NexthopIntfIdCollIs(vrfName);
  Routing::NexthopVrfConfig::Ptr nexthopVrfConfig =
      Routing::NexthopVrfConfig::NexthopVrfConfigIs(vrfName);
  Routing::NexthopVrfStatus::Ptr nexthopVrfStatus =
      Routing::NexthopVrfStatus::NexthopVrfStatusIs(vrfName);
  Memtab::FibGen::ForwardingStatus::Ptr fecTable =
      Memtab::FibGen::ForwardingStatus::ForwardingStatusIs();
  Hub::TaskScheduler::Ptr scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  NexthopToViaNexthopMap::Ptr status = NexthopToViaNexthopMap::NexthopToViaNexthopMapIs();
  NexthopToViaNexthopSm::Ptr sm;

  NexthopToViaNexthopSm& start() {
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
    std::vector<Via> built;
    for (const auto& [intfName, hop] : vias) built.emplace_back(intf(intfName), ip(hop));
    fecTable->fecIs(Fec(fecId, std::move(built)));
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

// ---- Construction, registration and the request handlers ----

TEST(NexthopToViaNexthopSm, AccessorsReturnTheConstructorArguments) {
  Stage1 s;
  NexthopToViaNexthopSm& sm = s.start();
  EXPECT_EQ(sm.vrfName(), s.vrfName);
  EXPECT_EQ(sm.config().get(), s.config.get());
  EXPECT_EQ(sm.nexthopVrfConfig(), s.nexthopVrfConfig);
  EXPECT_EQ(sm.nexthopVrfStatus().get(), s.nexthopVrfStatus.get());
  EXPECT_EQ(sm.forwardingGenStatus().get(), s.fecTable.get());
  EXPECT_EQ(sm.scheduler(), s.scheduler);
  EXPECT_EQ(sm.status(), s.status);
  EXPECT_TRUE(sm.hasNotificationActive());
}

TEST(NexthopToViaNexthopSm, InitialisationBuildsBacklogAndMonitorForClientIe) {
  Stage1 s;
  NexthopToViaNexthopSm& sm = s.start();
  ASSERT_TRUE(sm.nexthopBacklog());
  ASSERT_TRUE(sm.fibMonitorHelperSm());
  ASSERT_TRUE(sm.allNexthopRequests());
  const Routing::FibMonitorHelperSm& monitor = *sm.fibMonitorHelperSm();
  EXPECT_EQ(monitor.clientName(), "ie");
  EXPECT_EQ(monitor.nexthopVrfStatus().get(), s.nexthopVrfStatus.get());
  EXPECT_EQ(monitor.nexthopBacklog(), sm.nexthopBacklog());
  EXPECT_EQ(monitor.forwardingStatus().get(), s.fecTable.get());
  EXPECT_EQ(monitor.scheduler(), s.scheduler);
  EXPECT_TRUE(monitor.hasNotificationActive());
}

TEST(NexthopToViaNexthopSm, InitialisationEmptiesTheOutputMap) {
  Stage1 s;
  s.status->mapIs({nhIntf("10.0.0.9", "Ethernet9"), ip("10.9.9.9")});
  s.status->mapIs({nhIntf("10.0.0.1", "Ethernet1"), ip("10.1.1.1")});
  s.start();
  EXPECT_EQ(s.status->mapCount(), 0u);
}

TEST(NexthopToViaNexthopSm, InitialisationReplaysPresentRequestsAgainstTheCurrentResolution) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  s.request("10.0.0.1", "Ethernet1");
  s.request("10.0.0.2", "Ethernet1");
  // A stale entry of a request that no longer exists goes with the initial clean-up.
  s.status->mapIs({nhIntf("10.0.0.9", "Ethernet9"), ip("10.9.9.9")});

  TestSupport::TraceCapture capture;
  s.start();

  EXPECT_EQ(s.nexthopVrfConfig->nexthopCount(), 2u);
  EXPECT_EQ(s.status->mapCount(), 1u);
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
  const std::vector<std::string> texts = stageTexts(capture);
  ASSERT_GE(texts.size(), 2u);
  EXPECT_EQ(texts[0], kInit + "vrfName red");
  EXPECT_EQ(texts[1], kConfigAll + "vrfName red");
  EXPECT_EQ(countOf(texts, kConfig + "Resolve request added - vrf: red nexthop: 10.0.0.1 intfId: "
                                     "Ethernet1"),
            1u);
  EXPECT_EQ(countOf(texts, kConfig + "Resolve request added - vrf: red nexthop: 10.0.0.2 intfId: "
                                     "Ethernet1"),
            1u);
  EXPECT_EQ(texts.back(), kConfig + "Total number of nexthops tracked for vrf red are 2");
}

TEST(NexthopToViaNexthopSm, AddingARequestTracesEachStepInOrder) {
  Stage1 s;
  s.start();
  TestSupport::TraceCapture capture;
  s.request("10.0.0.1", "Ethernet1");
  const std::vector<std::string> expected = {
      kConfig + "Resolve request added - vrf: red nexthop: 10.0.0.1 intfId: Ethernet1",
      kConfig + "New nexthop to track : 10.0.0.1",
      kConfig + "Nexthop being tracked for 1 interfaces now",
      kReview + "No via found for nexthop 10.0.0.1 through interface Ethernet1",
      kPublish + "ViaNexthop info for nexthop 10.0.0.1 intfId Ethernet1  is unset",
      kConfig + "Total number of nexthops tracked for vrf red are 1",
  };
  EXPECT_EQ(stageTexts(capture), expected);
  for (const auto& line : capture.lines()) {
    if (line.handle == kHandle) {
      EXPECT_EQ(line.level, 8u) << line.text;
    }
  }
}

TEST(NexthopToViaNexthopSm, DeletingTheLastInterfaceTracesEachStepInOrder) {
  Stage1 s;
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  TestSupport::TraceCapture capture;
  s.unrequest("10.0.0.1", "Ethernet1");
  const std::vector<std::string> expected = {
      kConfig + "Resolve request deleted - vrf: red nexthop: 10.0.0.1 intfId: Ethernet1",
      kConfig + "Nexthop being tracked for 0 interfaces now",
      kConfig + "Last tracking interface removed..stop tracking nexthop 10.0.0.1",
      kConfig + "Total number of nexthops tracked for vrf red are 0",
  };
  EXPECT_EQ(stageTexts(capture), expected);
}

TEST(NexthopToViaNexthopSm, TwoInterfacesRegisterTheNexthopOnceAndTheLastWithdrawsIt) {
  Stage1 s;
  NexthopToViaNexthopSm& sm = s.start();
  auto recorder = FwdTest::recordKeys<Netval::IpGenAddr>(s.nexthopVrfConfig.get(),
                                                         Routing::NexthopVrfConfig::nexthopAttr);
  TestSupport::TraceCapture capture;
  s.request("10.0.0.1", "Ethernet1");
  s.request("10.0.0.1", "Ethernet2");
  EXPECT_EQ(recorder->keys, std::vector<Netval::IpGenAddr>{ip("10.0.0.1")});
  EXPECT_EQ(s.nexthopVrfConfig->nexthopCount(), 1u);
  EXPECT_EQ(countOf(stageTexts(capture), kConfig + "Nexthop being tracked already"), 1u);
  EXPECT_EQ(sm.allNexthopRequests()->request(ip("10.0.0.1"))->intfViaInfoCount(), 2u);

  capture.clear();
  s.unrequest("10.0.0.1", "Ethernet1");
  EXPECT_TRUE(s.registered("10.0.0.1"));
  EXPECT_EQ(countOf(stageTexts(capture), kConfig + "Nexthop being tracked for 1 interfaces now"),
            1u);
  EXPECT_EQ(capture.count("Last tracking interface removed"), 0u);

  s.unrequest("10.0.0.1", "Ethernet2");
  EXPECT_FALSE(s.registered("10.0.0.1"));
  EXPECT_FALSE(sm.allNexthopRequests()->requestHas(ip("10.0.0.1")));
  EXPECT_EQ(recorder->keys, (std::vector<Netval::IpGenAddr>{ip("10.0.0.1"), ip("10.0.0.1")}));
}

TEST(NexthopToViaNexthopSm, DeletingOneInterfaceRemovesOnlyItsPublishedVia) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet2", "10.2.2.2"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  s.request("10.0.0.1", "Ethernet2");
  ASSERT_TRUE(s.hasVia("10.0.0.1", "Ethernet1"));
  s.unrequest("10.0.0.1", "Ethernet1");
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet2"), ip("10.2.2.2"));
}

TEST(NexthopToViaNexthopSm, ReaddingATrackedInterfaceResetsItsViaBeforeTheReview) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  // A second equal-cost via: the published one stays while the FEC still leads to it.
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet1", "10.1.1.2"}});
  ASSERT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));

  TestSupport::TraceCapture capture;
  sm.handleConfig(nhIntf("10.0.0.1", "Ethernet1"));

  EXPECT_EQ(countOf(stageTexts(capture), kConfig + "Nexthop being tracked already"), 1u);
  // Without the reset the tie-break would have kept 10.1.1.1; afresh, the last match wins.
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.2"));
  EXPECT_EQ(s.nexthopVrfConfig->nexthopCount(), 1u);
}

TEST(NexthopToViaNexthopSm, SwitchedOffStageIgnoresRequests) {
  Stage1 s;
  NexthopToViaNexthopSm& sm = s.start();
  sm.hasNotificationActiveIs(false);
  s.request("10.0.0.1", "Ethernet1");
  EXPECT_EQ(s.nexthopVrfConfig->nexthopCount(), 0u);
  sm.hasNotificationActiveIs(true);
  EXPECT_EQ(s.nexthopVrfConfig->nexthopCount(), 0u);
  s.request("10.0.0.2", "Ethernet1");
  EXPECT_TRUE(s.registered("10.0.0.2"));
}

// ---- The backlog ----

TEST(NexthopToViaNexthopSm, ResolutionChangeIsReviewedAtOnceThroughTheBacklog) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  ASSERT_FALSE(s.hasVia("10.0.0.1", "Ethernet1"));

  TestSupport::TraceCapture capture;
  s.resolve("10.0.0.1", 7);

  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
  EXPECT_EQ(sm.nexthopBacklog()->backlogCount(), 0u);
  const std::vector<std::string> texts = stageTexts(capture);
  EXPECT_EQ(countOf(texts, kBacklog + "Backlog nexthopResolver addr: 10.0.0.1"), 1u);
  EXPECT_EQ(countOf(texts, kStatus + "Proceeding to reviewNexthopRequest for nexthop 10.0.0.1"),
            1u);
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts.front(), kBacklog + "vrfName: red");
}

TEST(NexthopToViaNexthopSm, DrainingABacklogOfNAddressesHandlesEachExactlyOnce) {
  Stage1 s;
  constexpr int kCount = 12;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  std::vector<std::string> nexthops;
  for (int i = 1; i <= kCount; ++i) {
    nexthops.push_back("10.0.0." + std::to_string(i));
    s.resolve(nexthops.back(), 7);
    s.request(nexthops.back(), "Ethernet1");
  }
  NexthopToViaNexthopSm& sm = s.start();
  // While the stage is off the monitor keeps queueing: the FEC change fills the backlog.
  sm.hasNotificationActiveIs(false);
  s.fec(7, {{"Ethernet1", "10.1.1.2"}});
  sm.hasNotificationActiveIs(true);
  ASSERT_EQ(sm.nexthopBacklog()->backlogCount(), static_cast<size_t>(kCount));

  TestSupport::TraceCapture capture;
  sm.handleNexthopBacklog();

  EXPECT_EQ(sm.nexthopBacklog()->backlogCount(), 0u);
  const std::vector<std::string> texts = stageTexts(capture);
  for (const std::string& nexthop : nexthops) {
    EXPECT_EQ(countOf(texts, kBacklog + "Backlog nexthopResolver addr: " + nexthop), 1u);
    EXPECT_EQ(countOf(texts, kStatus + "Proceeding to reviewNexthopRequest for nexthop " + nexthop),
              1u);
    EXPECT_EQ(s.via(nexthop, "Ethernet1"), ip("10.1.1.2"));
  }
  // Every removal re-entered the drain through the backlog's notification.
  EXPECT_EQ(countOf(texts, kBacklog + "vrfName: red"), static_cast<size_t>(kCount + 1));
}

TEST(NexthopToViaNexthopSm, AddressQueuedWhileHandledIsHandledAgain) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  // The first review of the drain moves the FEC on, which queues the address again.
  bool moved = false;
  auto mover = FwdTest::recordKeys<NexthopIntfId>(s.status.get(), NexthopToViaNexthopMap::mapAttr);
  mover->onChange = [&](const NexthopIntfId&) {
    if (moved) return;
    moved = true;
    s.fec(7, {{"Ethernet1", "10.1.1.3"}});
  };
  TestSupport::TraceCapture capture;
  s.fec(7, {{"Ethernet1", "10.1.1.2"}});
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.3"));
  EXPECT_EQ(sm.nexthopBacklog()->backlogCount(), 0u);
  EXPECT_EQ(capture.count("Proceeding to reviewNexthopRequest for nexthop 10.0.0.1"), 2u);
}

TEST(NexthopToViaNexthopSm, FecChangeReviewsOnlyTheNexthopsResolvedThroughIt) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.fec(8, {{"Ethernet1", "10.8.8.8"}});
  s.resolve("10.0.0.1", 7);
  s.resolve("10.0.0.2", 7);
  s.resolve("10.0.0.3", 8);
  s.start();
  for (const char* nexthop : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) s.request(nexthop, "Ethernet1");

  TestSupport::TraceCapture capture;
  s.fec(7, {{"Ethernet1", "10.1.1.2"}});

  EXPECT_EQ(capture.count("Proceeding to reviewNexthopRequest"), 2u);
  EXPECT_EQ(capture.count("Proceeding to reviewNexthopRequest for nexthop 10.0.0.3"), 0u);
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.2"));
  EXPECT_EQ(s.via("10.0.0.2", "Ethernet1"), ip("10.1.1.2"));
  EXPECT_EQ(s.via("10.0.0.3", "Ethernet1"), ip("10.8.8.8"));
}

TEST(NexthopToViaNexthopSm, BacklogAddressWithoutRecordIsConsumedWithoutTrace) {
  Stage1 s;
  NexthopToViaNexthopSm& sm = s.start();
  TestSupport::TraceCapture capture;
  sm.nexthopBacklog()->backlogIs(ip("10.0.0.7"));
  EXPECT_EQ(sm.nexthopBacklog()->backlogCount(), 0u);
  EXPECT_EQ(capture.count(kBacklog + "Backlog nexthopResolver addr: 10.0.0.7"), 1u);
  EXPECT_EQ(capture.count(kStatus), 0u);
  EXPECT_EQ(capture.count(kReview), 0u);
  EXPECT_EQ(s.status->mapCount(), 0u);
}

TEST(NexthopToViaNexthopSm, AddressLeftInTheBacklogAfterItsLastInterfaceIsConsumed) {
  Stage1 s;
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  sm.hasNotificationActiveIs(false);
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  sm.hasNotificationActiveIs(true);
  s.unrequest("10.0.0.1", "Ethernet1");
  ASSERT_TRUE(sm.nexthopBacklog()->backlogHas(ip("10.0.0.1")));

  TestSupport::TraceCapture capture;
  sm.handleNexthopBacklog();
  EXPECT_EQ(sm.nexthopBacklog()->backlogCount(), 0u);
  EXPECT_EQ(capture.count(kStatus), 0u);
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet1"));
}

// ---- Member management ----

TEST(NexthopToViaNexthopSm, NexthopBacklogIsMovesTheSubscriptionWithoutRunningTheHandler) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  s.resolve("10.0.0.2", 7);
  NexthopToViaNexthopSm& sm = s.start();
  Routing::NexthopBacklog::Ptr old = sm.nexthopBacklog();
  Routing::NexthopBacklog::Ptr replacement = Routing::NexthopBacklog::NexthopBacklogIs();
  replacement->backlogIs(ip("10.0.0.1"));

  TestSupport::TraceCapture capture;
  sm.nexthopBacklogIs(replacement);
  EXPECT_EQ(sm.nexthopBacklog(), replacement);
  EXPECT_EQ(capture.count(kBacklog), 0u);
  EXPECT_TRUE(replacement->backlogHas(ip("10.0.0.1")));

  old->backlogIs(ip("10.0.0.2"));
  EXPECT_TRUE(old->backlogHas(ip("10.0.0.2")));
  EXPECT_EQ(capture.count(kBacklog), 0u);

  replacement->backlogIs(ip("10.0.0.3"));
  EXPECT_EQ(replacement->backlogCount(), 0u);

  sm.nexthopBacklogDel();
  EXPECT_FALSE(sm.nexthopBacklog());
  capture.clear();
  replacement->backlogIs(ip("10.0.0.4"));
  EXPECT_EQ(capture.count(kBacklog), 0u);
}

TEST(NexthopToViaNexthopSm, FibMonitorHelperSmIsKeepsAMonitorBuiltFromEqualArguments) {
  Stage1 s;
  NexthopToViaNexthopSm& sm = s.start();
  const Routing::FibMonitorHelperSm::Ptr first = sm.fibMonitorHelperSm();
  first->hasNotificationActiveIs(false);
  sm.fibMonitorHelperSmIs("ie", s.nexthopVrfStatus, sm.nexthopBacklog(), s.fecTable, s.scheduler);
  EXPECT_EQ(sm.fibMonitorHelperSm(), first);
  EXPECT_TRUE(first->hasNotificationActive());

  sm.fibMonitorHelperSmIs("other", s.nexthopVrfStatus, sm.nexthopBacklog(), s.fecTable,
                          s.scheduler);
  EXPECT_NE(sm.fibMonitorHelperSm(), first);
  EXPECT_EQ(sm.fibMonitorHelperSm()->clientName(), "other");

  const Routing::FibMonitorHelperSm::Ptr second = sm.fibMonitorHelperSm();
  sm.fibMonitorHelperSmIs("other", s.nexthopVrfStatus, sm.nexthopBacklog(), nullptr, s.scheduler);
  EXPECT_NE(sm.fibMonitorHelperSm(), second);
  EXPECT_FALSE(sm.fibMonitorHelperSm()->forwardingStatus());

  sm.fibMonitorHelperSmDel();
  EXPECT_FALSE(sm.fibMonitorHelperSm());
}

TEST(NexthopToViaNexthopSm, AllNexthopRequestsIsKeepsTheHeldRecords) {
  Stage1 s;
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  const FwdL3Unicast::AllNexthopRequests::Ptr held = sm.allNexthopRequests();
  sm.allNexthopRequestsIs();
  EXPECT_EQ(sm.allNexthopRequests(), held);
  EXPECT_EQ(held->requestCount(), 1u);
  sm.allNexthopRequestsDel();
  EXPECT_FALSE(sm.allNexthopRequests());
  sm.allNexthopRequestsIs();
  ASSERT_TRUE(sm.allNexthopRequests());
  EXPECT_EQ(sm.allNexthopRequests()->requestCount(), 0u);
}

// ---- Clean-up and teardown ----

TEST(NexthopToViaNexthopSm, DoCleanupWithdrawsRegistrationsDropsTheBacklogAndEmptiesTheOutput) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  s.request("10.0.0.2", "Ethernet1");
  sm.hasNotificationActiveIs(false);
  s.fec(7, {{"Ethernet1", "10.1.1.2"}});
  ASSERT_EQ(sm.nexthopBacklog()->backlogCount(), 1u);
  const Routing::NexthopBacklog::Ptr backlog = sm.nexthopBacklog();

  TestSupport::TraceCapture capture;
  sm.doCleanup();

  EXPECT_EQ(stageTexts(capture), std::vector<std::string>{kCleanup + "vrfName red"});
  EXPECT_EQ(s.nexthopVrfConfig->nexthopCount(), 0u);
  EXPECT_EQ(backlog->backlogCount(), 0u);
  EXPECT_FALSE(sm.nexthopBacklog());
  EXPECT_EQ(s.status->mapCount(), 0u);
  // The records and the monitor go with the object, not here.
  EXPECT_EQ(sm.allNexthopRequests()->requestCount(), 2u);
  EXPECT_TRUE(sm.fibMonitorHelperSm());
}

TEST(NexthopToViaNexthopSm, TeardownLeavesNoLiveEntityAndWithdrawsEveryRegistration) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet2", "10.2.2.2"}});
  s.resolve("10.0.0.1", 7);
  s.resolve("10.0.0.2", 7);
  const int64_t before = Core::Node::liveCount();
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  s.request("10.0.0.1", "Ethernet2");
  s.request("10.0.0.2", "Ethernet2");
  s.request("10.0.0.3", "Ethernet1");
  ASSERT_EQ(s.nexthopVrfConfig->nexthopCount(), 3u);
  ASSERT_EQ(s.status->mapCount(), 3u);
  ASSERT_GT(Core::Node::liveCount(), before);

  TestSupport::TraceCapture capture;
  s.sm = nullptr;

  EXPECT_EQ(Core::Node::liveCount(), before);
  EXPECT_EQ(s.nexthopVrfConfig->nexthopCount(), 0u);
  EXPECT_EQ(s.status->mapCount(), 0u);
  EXPECT_EQ(stageTexts(capture), std::vector<std::string>{kCleanup + "vrfName red"});
  // Nothing reacts any more: the inputs are no longer watched.
  EXPECT_FALSE(s.config->hasSubscribers());
  EXPECT_FALSE(s.nexthopVrfStatus->hasSubscribers());
  EXPECT_FALSE(s.fecTable->hasSubscribers());
  s.request("10.0.0.4", "Ethernet1");
  s.fec(7, {{"Ethernet1", "10.1.1.3"}});
  EXPECT_EQ(s.nexthopVrfConfig->nexthopCount(), 0u);
  EXPECT_EQ(s.status->mapCount(), 0u);
}

// ---- Dump ----

TEST(NexthopToViaNexthopSm, DumpShowsConfigStatusAndEveryRequest) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");

  Core::DumpContext ctx;
  sm.dumpState(ctx, 0);
  EXPECT_EQ(ctx.text(),
            "NexthopToViaNexthopSm - red\n"
            "  config\n"
            "    NexthopIntfIdColl - red\n"
            "      config: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1\n"
            "  status\n"
            "    FwdL3Unicast::NexthopToViaNexthopMap\n"
            "  allNexthopRequests: #1\n"
            "    NexthopRequest - nexthop 10.0.0.1\n"
            "      intfViaInfo: #1\n"
            "        IntfViaInfo - interface Ethernet1\n"
            "          viaNexthop - 10.1.1.1\n");

  Core::DumpContext indented;
  sm.dumpState(indented, 2);
  EXPECT_EQ(indented.text().substr(0, 30), "  NexthopToViaNexthopSm - red\n");
  EXPECT_NE(indented.text().find("\n    allNexthopRequests: #1\n"), std::string::npos);
}

// ---- Via selection ----

TEST(NexthopToViaNexthopSm, LastMatchingViaWinsWhenNothingIsPublishedYet) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet1", "10.1.1.2"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.2"));
}

TEST(NexthopToViaNexthopSm, PublishedViaStaysWhileTheFecStillLeadsToIt) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  ASSERT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));

  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet1", "10.1.1.2"}});
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
  // The published via wins wherever it sits in the FEC.
  s.fec(7, {{"Ethernet1", "10.1.1.2"}, {"Ethernet1", "10.1.1.1"}, {"Ethernet1", "10.1.1.3"}});
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
  sm.handleNexthopStatus(ip("10.0.0.1"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
  // Between reviews the scratch value is empty.
  EXPECT_EQ(sm.allNexthopRequests()
                ->request(ip("10.0.0.1"))
                ->intfViaInfo(intf("Ethernet1"))
                ->cachedViaNexthop(),
            Netval::IpGenAddr());
}

TEST(NexthopToViaNexthopSm, PublishedViaRemovedFromTheFecMovesToARemainingOne) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet1", "10.1.1.2"}});
  ASSERT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));

  s.fec(7, {{"Ethernet1", "10.1.1.2"}});
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.2"));
}

TEST(NexthopToViaNexthopSm, EachRequestedInterfaceGetsTheViaOnThatInterface) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet2", "10.2.2.2"}, {"Ethernet3", "10.3.3.3"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  s.request("10.0.0.1", "Ethernet2");
  s.request("10.0.0.1", "Ethernet4");
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet2"), ip("10.2.2.2"));
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet3"));
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet4"));
}

TEST(NexthopToViaNexthopSm, ViaOnAnUnrequestedInterfaceIsTracedAndOtherwiseIgnored) {
  Stage1 s;
  s.fec(7, {{"Ethernet2", "10.2.2.2"}, {"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  TestSupport::TraceCapture capture;
  s.request("10.0.0.1", "Ethernet1");
  const std::vector<std::string> texts = stageTexts(capture);
  EXPECT_EQ(countOf(texts, kReview + "viaNexthop: 10.2.2.2, IntfId: Et2"), 1u);
  EXPECT_EQ(capture.count("through interface Ethernet2"), 0u);
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet2"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
  EXPECT_EQ(s.status->mapCount(), 1u);
}

TEST(NexthopToViaNexthopSm, DirectlyAttachedViaPublishesTheNexthopItself) {
  for (const char* hop : {"0.0.0.0", "::", "unset"}) {
    SCOPED_TRACE(hop);
    Stage1 s;
    s.fec(7, {{"Ethernet1", hop}});
    s.resolve("10.0.0.1", 7);
    s.start();
    TestSupport::TraceCapture capture;
    s.request("10.0.0.1", "Ethernet1");
    EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.0.0.1"));
    EXPECT_EQ(
        capture.count(kReview + "Via found for nexthop 10.0.0.1 through interface Ethernet1 and "
                                "viaNexthop 10.0.0.1"),
        1u);
  }
}

TEST(NexthopToViaNexthopSm, Ipv6ViaIsPublishedAsItIs) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "fe80::1"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("fe80::1"));
}

TEST(NexthopToViaNexthopSm, UnresolvedNexthopRemovesTheEntriesOfAllItsInterfaces) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet2", "10.2.2.2"}});
  s.resolve("10.0.0.1", 7);
  s.resolve("10.0.0.2", 7);
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  s.request("10.0.0.1", "Ethernet2");
  s.request("10.0.0.2", "Ethernet1");
  ASSERT_EQ(s.status->mapCount(), 3u);

  TestSupport::TraceCapture capture;
  s.unresolve("10.0.0.1");

  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet1"));
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet2"));
  EXPECT_EQ(s.via("10.0.0.2", "Ethernet1"), ip("10.1.1.1"));
  const std::vector<std::string> texts = stageTexts(capture);
  EXPECT_EQ(
      countOf(texts, kReview + "No via found for nexthop 10.0.0.1 through interface Ethernet1"),
      1u);
  EXPECT_EQ(
      countOf(texts, kReview + "No via found for nexthop 10.0.0.1 through interface Ethernet2"),
      1u);
  EXPECT_EQ(capture.count("Addr resolved for"), 0u);
  EXPECT_TRUE(s.registered("10.0.0.1"));
}

TEST(NexthopToViaNexthopSm, MissingFecEndsWithoutVia) {
  Stage1 s;
  s.resolve("10.0.0.1", 9);
  s.start();
  TestSupport::TraceCapture capture;
  s.request("10.0.0.1", "Ethernet1");
  EXPECT_EQ(capture.count(kReview + "Addr resolved for 10.0.0.1 fec id: 9 number of via: 0"), 1u);
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet1"));
}

TEST(NexthopToViaNexthopSm, NullFecTableReadsAsATableWithoutFecs) {
  Stage1 s;
  s.fecTable = nullptr;
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  EXPECT_FALSE(sm.fibMonitorHelperSm()->forwardingStatus());
  TestSupport::TraceCapture capture;
  s.request("10.0.0.1", "Ethernet1");
  EXPECT_EQ(capture.count(kReview + "Addr resolved for 10.0.0.1 fec id: 7 number of via: 0"), 1u);
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet1"));
  EXPECT_TRUE(s.registered("10.0.0.1"));
}

TEST(NexthopToViaNexthopSm, CorruptFecReadIsReportedAndEndsWithoutVia) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  ASSERT_TRUE(s.hasVia("10.0.0.1", "Ethernet1"));

  s.fecTable->corruptReadsIs(true);
  std::string message;
  try {
    s.fecTable->fec(7);
  } catch (const Memtab::FibGen::CorruptionError& error) {
    message = error.what();
  }
  ASSERT_FALSE(message.empty());
  TestSupport::TraceCapture capture;
  sm.handleNexthopStatus(ip("10.0.0.1"));

  EXPECT_EQ(s.fecTable->corruptionCount(), 1u);
  EXPECT_EQ(s.fecTable->lastCorruption(), message);
  EXPECT_FALSE(s.hasVia("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(capture.count(kReview + "Addr resolved for 10.0.0.1 fec id: 7 number of via: 0"), 1u);

  // The next clean read finds the via again.
  s.fecTable->corruptReadsIs(false);
  sm.handleNexthopStatus(ip("10.0.0.1"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
  EXPECT_EQ(s.fecTable->corruptionCount(), 1u);
}

TEST(NexthopToViaNexthopSm, ReviewTracesTheMainMessagesExactly) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet2", "10.2.2.2"}});
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  TestSupport::TraceCapture capture;
  s.resolve("10.0.0.1", 7);
  const std::vector<std::string> expected = {
      kBacklog + "vrfName: red",
      kBacklog + "Backlog nexthopResolver addr: 10.0.0.1",
      kBacklog + "vrfName: red",
      kStatus + "Proceeding to reviewNexthopRequest for nexthop 10.0.0.1",
      kReview + "Addr resolved for 10.0.0.1 fec id: 7 number of via: 2",
      kReview + "viaNexthop: 10.1.1.1, IntfId: Et1",
      kReview +
          "Via found for nexthop 10.0.0.1 through interface Ethernet1 and viaNexthop 10.1.1.1",
      kReview + "viaNexthop: 10.2.2.2, IntfId: Et2",
      kPublish + "ViaNexthop info for nexthop 10.0.0.1 intfId Ethernet1  is 10.1.1.1",
  };
  EXPECT_EQ(stageTexts(capture), expected);
}

TEST(NexthopToViaNexthopSm, UnchangedReviewPublishesNothing) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  auto recorder =
      FwdTest::recordKeys<NexthopIntfId>(s.status.get(), NexthopToViaNexthopMap::mapAttr);
  sm.handleNexthopStatus(ip("10.0.0.1"));
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet2", "10.2.2.2"}});
  EXPECT_TRUE(recorder->keys.empty());
  s.fec(7, {{"Ethernet1", "10.1.1.5"}});
  EXPECT_EQ(recorder->keys, std::vector<NexthopIntfId>{nhIntf("10.0.0.1", "Ethernet1")});
}

// A FEC of n vias on Ethernet2, except the last one, which is on Ethernet1.
Fec fecWithLastViaOnEthernet1(Memtab::Fib::FecId fecId, uint32_t n) {
  std::vector<Via> vias;
  for (uint32_t i = 0; i + 1 < n; ++i) {
    vias.emplace_back(intf("Ethernet2"), Netval::IpGenAddr::ipv4(0x0a020000u + i + 1));
  }
  vias.emplace_back(intf("Ethernet1"), ip("10.9.9.9"));
  return Fec(fecId, std::move(vias));
}

TEST(NexthopToViaNexthopSm, FullFecOf600ViasIsWalkedToItsLastIndex) {
  Stage1 s;
  s.fecTable->fecIs(fecWithLastViaOnEthernet1(7, 600));
  s.resolve("10.0.0.1", 7);
  s.start();
  TestSupport::TraceCapture capture;
  s.request("10.0.0.1", "Ethernet1");
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.9.9.9"));
  EXPECT_EQ(capture.count(kReview + "Addr resolved for 10.0.0.1 fec id: 7 number of via: 600"), 1u);
  EXPECT_EQ(capture.count(kReview + "viaNexthop: "), 600u);
}

TEST(NexthopToViaNexthopSm, ViaCountOrIndexBeyondTheArrayRaisesTheRangeError) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  s.request("10.0.0.1", "Ethernet1");

  try {
    s.fecTable->fecIs(fecWithLastViaOnEthernet1(7, 601));
    ADD_FAILURE() << "a FEC of 601 vias was built";
  } catch (const Kiln::RangeError& error) {
    EXPECT_STREQ(error.what(), "Kiln::Array::count > maxCount() not allowed");
  }
  Fec fec(7);
  EXPECT_THROW(fec.viaCountIs(601), Kiln::RangeError);
  EXPECT_THROW(fec.backupViaCountIs(129), Kiln::RangeError);
  try {
    Memtab::Fib::ViaIndex index(600);
    ADD_FAILURE() << "via index " << index.value() << " was built";
  } catch (const Kiln::RangeError& error) {
    EXPECT_STREQ(error.what(),
                 "Memtab::Fib::ViaIndex::value < Memtab::Fib::ViaIndex::min or > "
                 "Memtab::Fib::ViaIndex::max not allowed");
  }
  // The table never took the oversized FEC: the published via is the old one.
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.1"));
}

// ---- Assertions ----

TEST(NexthopToViaNexthopSmDeathTest, NullSchedulerFailsTheAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Stage1 s;
  s.scheduler = nullptr;
  EXPECT_DEATH(
      s.start(),
      "Assertion failed: \"scheduler\\(\\) != nullptr\" in FwdNexthopToViaNexthopSm line "
      "[0-9]+, function void FwdL3Unicast::NexthopToViaNexthopSm::handleInitialized\\(\\)");
}

TEST(NexthopToViaNexthopSmDeathTest, NullStatusFailsTheAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Stage1 s;
  s.status = nullptr;
  EXPECT_DEATH(s.start(),
               "Assertion failed: \"status\\(\\)\" in FwdNexthopToViaNexthopSm line [0-9]+, "
               "function void FwdL3Unicast::NexthopToViaNexthopSm::handleInitialized\\(\\)");
}

TEST(NexthopToViaNexthopSmDeathTest, DeletionOfAnUntrackedNexthopFailsTheAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Stage1 s;
  NexthopToViaNexthopSm& sm = s.start();
  EXPECT_DEATH(sm.handleConfig(nhIntf("10.0.0.1", "Ethernet1")),
               "Assertion failed: \"request\" in FwdNexthopToViaNexthopSm line [0-9]+, function "
               "void FwdL3Unicast::NexthopToViaNexthopSm::handleConfig\\(const "
               "FwdL3Unicast::NexthopIntfId&\\)");
}

}  // namespace

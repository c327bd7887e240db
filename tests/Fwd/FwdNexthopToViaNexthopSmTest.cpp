#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Fwd/FwdNexthopToViaNexthopSm.h"
#include "framework/CoreDump.h"
#include "support/ChangeRecorder.h"
#include "support/Stage1Fixture.h"
#include "support/TraceCapture.h"

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using namespace FwdTest::Stage1Trace;

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
  auto recorder = TestSupport::recordChanges<Netval::IpGenAddr>(
      s.nexthopVrfConfig.get(), Routing::NexthopVrfConfig::nexthopAttr);
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

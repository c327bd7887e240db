#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ChangeRecorder.h"
#include "support/Stage1Fixture.h"
#include "support/TraceCapture.h"

// Stage 1 draining the backlog its FIB monitor fills.

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using namespace FwdTest::Stage1Trace;

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

TEST(NexthopToViaNexthopSm, DrainReviewsEachAddressBeforeTakingTheNext) {
  Stage1 s;
  constexpr int kCount = 12;
  NexthopToViaNexthopSm& sm = s.start();
  // Queued while the stage is off, as the FIB monitor would.
  sm.hasNotificationActiveIs(false);
  for (int i = 1; i <= kCount; ++i) {
    const std::string nexthop = "10.0.0." + std::to_string(i);
    s.request(nexthop, "Ethernet1");
    sm.handleConfig(nhIntf(nexthop, "Ethernet1"));
    sm.nexthopBacklog()->backlogIs(ip(nexthop));
  }
  sm.hasNotificationActiveIs(true);
  ASSERT_EQ(sm.nexthopBacklog()->backlogCount(), static_cast<size_t>(kCount));

  TestSupport::TraceCapture capture;
  sm.handleNexthopBacklog();

  // Each address taken from the backlog is reviewed before the next one is taken: the drain is
  // one loop, not one nested drain per removed address.
  const std::string taken = kBacklog + "Backlog nexthopResolver addr: ";
  const std::string reviewed = kStatus + "Proceeding to reviewNexthopRequest for nexthop ";
  std::vector<std::string> order;
  for (const std::string& text : stageTexts(capture)) {
    if (text.starts_with(taken)) order.push_back("take " + text.substr(taken.size()));
    if (text.starts_with(reviewed)) order.push_back("review " + text.substr(reviewed.size()));
  }
  ASSERT_EQ(order.size(), static_cast<size_t>(2 * kCount));
  for (size_t i = 0; i < order.size(); i += 2) {
    ASSERT_TRUE(order[i].starts_with("take ")) << order[i];
    EXPECT_EQ(order[i + 1], "review " + order[i].substr(5));
  }
  EXPECT_EQ(sm.nexthopBacklog()->backlogCount(), 0u);
}

TEST(NexthopToViaNexthopSm, AddressQueuedWhileHandledIsHandledAgain) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}});
  s.resolve("10.0.0.1", 7);
  NexthopToViaNexthopSm& sm = s.start();
  s.request("10.0.0.1", "Ethernet1");
  // The first review of the drain moves the FEC on, which queues the address again.
  bool moved = false;
  auto mover =
      TestSupport::recordChanges<NexthopIntfId>(s.status.get(), NexthopToViaNexthopMap::mapAttr);
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

}  // namespace

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/ChangeRecorder.h"
#include "support/Stage1Fixture.h"
#include "support/TraceCapture.h"

// Stage 1 choosing the via of each requested interface from the nexthop's FEC.

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using namespace FwdTest::Stage1Trace;
using Memtab::FibGen::Fec;
using Memtab::FibGen::Via;

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
      TestSupport::recordChanges<NexthopIntfId>(s.status.get(), NexthopToViaNexthopMap::mapAttr);
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

// ---- Reviews nested inside a publication ----

// A client of the stage's map that, on the first change it sees, changes the host once more from
// inside the notification.
struct NestedChange {
  std::unique_ptr<TestSupport::ChangeRecorder<NexthopIntfId>> client;
  bool done = false;

  NestedChange(Stage1& s, std::function<void()> change)
      : client(TestSupport::recordChanges<NexthopIntfId>(s.status.get(),
                                                         NexthopToViaNexthopMap::mapAttr)) {
    client->onChange = [this, change = std::move(change)](const NexthopIntfId&) {
      if (done) return;
      done = true;
      change();
    };
  }
  NestedChange(const NestedChange&) = delete;
  NestedChange& operator=(const NestedChange&) = delete;
};

TEST(NexthopToViaNexthopSm, NestedViaReviewKeepsOtherInterfacesVia) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet2", "10.2.2.1"}, {"Ethernet3", "10.3.3.1"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  for (const char* intfName : {"Ethernet1", "Ethernet2", "Ethernet3"}) {
    s.request("10.0.0.1", intfName);
  }
  // The FEC moves on again while the review of its first change is publishing.
  NestedChange nested(s, [&s] {
    s.fec(7, {{"Ethernet1", "10.1.1.3"}, {"Ethernet2", "10.2.2.2"}, {"Ethernet3", "10.3.3.2"}});
  });

  s.fec(7, {{"Ethernet1", "10.1.1.2"}, {"Ethernet2", "10.2.2.2"}, {"Ethernet3", "10.3.3.2"}});

  ASSERT_TRUE(nested.done);
  ASSERT_TRUE(s.hasVia("10.0.0.1", "Ethernet1"));
  ASSERT_TRUE(s.hasVia("10.0.0.1", "Ethernet2"));
  ASSERT_TRUE(s.hasVia("10.0.0.1", "Ethernet3"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.3"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet2"), ip("10.2.2.2"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet3"), ip("10.3.3.2"));
}

TEST(NexthopToViaNexthopSm, InterfaceRequestedFromInsideAReviewKeepsOtherInterfacesVia) {
  Stage1 s;
  s.fec(7, {{"Ethernet1", "10.1.1.1"}, {"Ethernet2", "10.2.2.1"}, {"Ethernet3", "10.3.3.1"}});
  s.resolve("10.0.0.1", 7);
  s.start();
  s.request("10.0.0.1", "Ethernet1");
  s.request("10.0.0.1", "Ethernet2");
  // A client that asks for the same nexthop on one more interface once it sees a via move: the
  // new interface's review runs inside the review that is publishing.
  NestedChange nested(s, [&s] { s.request("10.0.0.1", "Ethernet3"); });

  s.fec(7, {{"Ethernet1", "10.1.1.2"}, {"Ethernet2", "10.2.2.2"}, {"Ethernet3", "10.3.3.1"}});

  ASSERT_TRUE(nested.done);
  ASSERT_TRUE(s.hasVia("10.0.0.1", "Ethernet1"));
  ASSERT_TRUE(s.hasVia("10.0.0.1", "Ethernet2"));
  ASSERT_TRUE(s.hasVia("10.0.0.1", "Ethernet3"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet1"), ip("10.1.1.2"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet2"), ip("10.2.2.2"));
  EXPECT_EQ(s.via("10.0.0.1", "Ethernet3"), ip("10.3.3.1"));
}

}  // namespace

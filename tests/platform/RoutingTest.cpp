#include "platform/Routing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "framework/CoreDump.h"
#include "support/ChangeRecorder.h"

namespace {

using Memtab::Fib::FecId;
using Memtab::FibGen::Fec;
using Memtab::FibGen::ForwardingStatus;
using Memtab::FibGen::Via;
using Netval::IntfId;
using Netval::IpGenAddr;
using Routing::FibMonitorHelperSm;
using Routing::NexthopBacklog;
using Routing::NexthopConfig;
using Routing::NexthopConfigEntry;
using Routing::NexthopStatus;
using Routing::NexthopStatusEntry;
using Routing::NexthopVrfConfig;
using Routing::NexthopVrfStatus;

using AddrRecorder = TestSupport::ChangeRecorder<IpGenAddr, IpGenAddr>;
using ConfigEntryRecorder = TestSupport::ChangeRecorder<IpGenAddr, NexthopConfigEntry>;
using StatusEntryRecorder = TestSupport::ChangeRecorder<IpGenAddr, NexthopStatusEntry>;
using VrfConfigRecorder = TestSupport::ChangeRecorder<L3::VrfName, NexthopVrfConfig::Ptr>;
using VrfStatusRecorder = TestSupport::ChangeRecorder<L3::VrfName, NexthopVrfStatus::Ptr>;

IpGenAddr addr(const char* text) { return IpGenAddr(text); }

std::set<IpGenAddr> sorted(std::vector<IpGenAddr> addrs) { return {addrs.begin(), addrs.end()}; }

std::set<IpGenAddr> backlogOf(const NexthopBacklog& backlog) {
  std::set<IpGenAddr> out;
  for (const IpGenAddr& queued : backlog.backlog()) out.insert(queued);
  return out;
}

const L3::VrfName red("red");
const L3::VrfName blue("blue");

TEST(NexthopConfigEntry, IsBuiltFromTheAddressAlone) {
  const NexthopConfigEntry entry(addr("10.0.0.1"));
  EXPECT_EQ(entry.nexthop(), addr("10.0.0.1"));
  EXPECT_EQ(entry.toString(), "{nexthop=10.0.0.1}");
  EXPECT_FALSE(NexthopConfigEntry());
}

TEST(NexthopVrfConfig, AddPublishesOncePerNewAddress) {
  auto config = NexthopVrfConfig::NexthopVrfConfigIs(red, Routing::fecIdTypeDefault);
  ConfigEntryRecorder recorder(*config, NexthopVrfConfig::nexthopAttr);

  EXPECT_TRUE(config->nexthopIs(NexthopConfigEntry(addr("10.0.0.1"))));
  EXPECT_FALSE(config->nexthopIs(NexthopConfigEntry(addr("10.0.0.1"))));
  EXPECT_TRUE(config->nexthopIs(NexthopConfigEntry(addr("10.0.0.2"))));

  EXPECT_EQ(recorder.keys, (std::vector<IpGenAddr>{addr("10.0.0.1"), addr("10.0.0.2")}));
  EXPECT_FALSE(recorder.changes[0].oldValue);
  EXPECT_EQ(recorder.changes[0].newValue, NexthopConfigEntry(addr("10.0.0.1")));
  EXPECT_EQ(config->nexthopCount(), 2u);
  EXPECT_TRUE(config->nexthopHas(addr("10.0.0.2")));
  EXPECT_EQ(config->nexthop(addr("10.0.0.2")).nexthop(), addr("10.0.0.2"));
  EXPECT_EQ(config->nexthop(addr("10.0.0.3")), NexthopConfigEntry());
}

TEST(NexthopVrfConfig, DeletePublishesOnceAndDeleteOfAbsentPublishesNothing) {
  auto config = NexthopVrfConfig::NexthopVrfConfigIs(red);
  config->nexthopIs(NexthopConfigEntry(addr("10.0.0.1")));
  ConfigEntryRecorder recorder(*config, NexthopVrfConfig::nexthopAttr);

  EXPECT_FALSE(config->nexthopDel(addr("10.0.0.9")));
  EXPECT_TRUE(recorder.changes.empty());
  EXPECT_TRUE(config->nexthopDel(addr("10.0.0.1")));

  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].oldValue, NexthopConfigEntry(addr("10.0.0.1")));
  EXPECT_FALSE(recorder.changes[0].newValue);
  EXPECT_EQ(config->nexthopCount(), 0u);
}

TEST(NexthopVrfConfig, DeleteAllPublishesOncePerAddress) {
  auto config = NexthopVrfConfig::NexthopVrfConfigIs(red);
  for (const char* text : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) {
    config->nexthopIs(NexthopConfigEntry(addr(text)));
  }
  ConfigEntryRecorder recorder(*config, NexthopVrfConfig::nexthopAttr);

  config->nexthopDelAll();

  EXPECT_EQ(sorted(recorder.keys),
            (std::set<IpGenAddr>{addr("10.0.0.1"), addr("10.0.0.2"), addr("10.0.0.3")}));
  EXPECT_EQ(recorder.changes.size(), 3u);
  EXPECT_EQ(config->nexthopCount(), 0u);
}

TEST(NexthopConfig, VrfIsCreatesOnceAndPublishesOnCreate) {
  auto config = NexthopConfig::NexthopConfigIs();
  VrfConfigRecorder recorder(*config, NexthopConfig::vrfAttr);

  auto created = config->vrfIs(red, Routing::fecIdTypeDefault);
  auto again = config->vrfIs(red, 0);

  ASSERT_TRUE(created);
  EXPECT_EQ(again, created);
  EXPECT_EQ(created->vrfName(), red);
  EXPECT_EQ(created->fecIdType(), Routing::fecIdTypeDefault);
  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].key, red);
  EXPECT_FALSE(recorder.changes[0].oldValue);
  EXPECT_EQ(recorder.changes[0].newValue, created);
  EXPECT_EQ(config->vrf(red), created);
  EXPECT_EQ(config->vrf(blue), nullptr);
  EXPECT_TRUE(config->vrfHas(red));
  EXPECT_EQ(config->vrfCount(), 1u);
}

TEST(NexthopConfig, VrfIsWithAnotherFecIdTypeReplacesTheVrf) {
  auto config = NexthopConfig::NexthopConfigIs();
  auto first = config->vrfIs(red, Routing::fecIdTypeDefault);
  VrfConfigRecorder recorder(*config, NexthopConfig::vrfAttr);

  auto second = config->vrfIs(red, static_cast<Routing::NexthopStatusFecIdType>(1));

  EXPECT_NE(second, first);
  EXPECT_EQ(config->vrf(red), second);
  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].oldValue, first);
  EXPECT_EQ(recorder.changes[0].newValue, second);
}

TEST(NexthopConfig, DeletesPublishOncePerVrfAndNothingForAbsent) {
  auto config = NexthopConfig::NexthopConfigIs();
  config->vrfIs(red, Routing::fecIdTypeDefault);
  config->vrfIs(blue, Routing::fecIdTypeDefault);
  config->vrfIs(L3::defaultVrfName(), Routing::fecIdTypeDefault);
  VrfConfigRecorder recorder(*config, NexthopConfig::vrfAttr);

  EXPECT_FALSE(config->vrfDel(L3::VrfName("green")));
  EXPECT_TRUE(config->vrfDel(red));
  EXPECT_EQ(recorder.keys, std::vector<L3::VrfName>{red});
  config->vrfDelAll();

  EXPECT_EQ(recorder.changes.size(), 3u);
  EXPECT_EQ(config->vrfCount(), 0u);
}

TEST(NexthopVrfStatus, ResolvingPublishesTheEntry) {
  auto status = NexthopVrfStatus::NexthopVrfStatusIs(red);
  StatusEntryRecorder recorder(*status, NexthopVrfStatus::nexthopAttr);
  const NexthopStatusEntry entry(addr("10.0.0.1"), 7);

  EXPECT_TRUE(status->nexthopIs(entry));
  EXPECT_FALSE(status->nexthopIs(entry));

  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].key, addr("10.0.0.1"));
  EXPECT_FALSE(recorder.changes[0].oldValue);
  EXPECT_EQ(recorder.changes[0].newValue, entry);
  EXPECT_TRUE(status->isNexthopResolved(addr("10.0.0.1")));
  EXPECT_EQ(status->nexthop(addr("10.0.0.1")).fecId(), 7u);
  EXPECT_EQ(status->vrfName(), red);
}

TEST(NexthopVrfStatus, FecChangePublishesOldAndNewEntry) {
  auto status = NexthopVrfStatus::NexthopVrfStatusIs(red);
  status->nexthopIs(NexthopStatusEntry(addr("10.0.0.1"), 7));
  StatusEntryRecorder recorder(*status, NexthopVrfStatus::nexthopAttr);

  EXPECT_TRUE(status->nexthopIs(NexthopStatusEntry(addr("10.0.0.1"), 8)));

  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].oldValue->fecId(), 7u);
  EXPECT_EQ(recorder.changes[0].newValue->fecId(), 8u);
}

TEST(NexthopVrfStatus, UnresolvedAddressReadsAsDefaultEntryWithFecIdZero) {
  auto status = NexthopVrfStatus::NexthopVrfStatusIs(red);
  EXPECT_FALSE(status->isNexthopResolved(addr("10.0.0.1")));
  EXPECT_FALSE(status->nexthopHas(addr("10.0.0.1")));
  EXPECT_EQ(status->nexthop(addr("10.0.0.1")).fecId(), 0u);
  EXPECT_EQ(status->nexthopFind(addr("10.0.0.1")), nullptr);
}

TEST(NexthopVrfStatus, DeletesPublishOncePerAddressAndNothingForAbsent) {
  auto status = NexthopVrfStatus::NexthopVrfStatusIs(red);
  status->nexthopIs(NexthopStatusEntry(addr("10.0.0.1"), 7));
  status->nexthopIs(NexthopStatusEntry(addr("10.0.0.2"), 7));
  status->nexthopIs(NexthopStatusEntry(addr("10.0.0.3"), 8));
  StatusEntryRecorder recorder(*status, NexthopVrfStatus::nexthopAttr);

  EXPECT_FALSE(status->nexthopDel(addr("10.0.0.9")));
  EXPECT_TRUE(status->nexthopDel(addr("10.0.0.1")));
  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].oldValue, NexthopStatusEntry(addr("10.0.0.1"), 7));
  EXPECT_FALSE(recorder.changes[0].newValue);
  status->nexthopDelAll();

  EXPECT_EQ(recorder.changes.size(), 3u);
  EXPECT_FALSE(status->isNexthopResolved(addr("10.0.0.3")));
}

TEST(NexthopStatus, VrfIsIsGetOrCreateAndPublishesOnCreateOnly) {
  auto status = NexthopStatus::NexthopStatusIs();
  VrfStatusRecorder recorder(*status, NexthopStatus::vrfAttr);

  auto created = status->vrfIs(red);
  auto again = status->vrfIs(red);

  EXPECT_EQ(again, created);
  EXPECT_EQ(status->vrf(red), created);
  EXPECT_EQ(status->vrf(blue), nullptr);
  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].newValue, created);

  EXPECT_FALSE(status->vrfDel(blue));
  EXPECT_TRUE(status->vrfDel(red));
  EXPECT_EQ(recorder.changes.size(), 2u);
  EXPECT_EQ(recorder.changes[1].oldValue, created);
  EXPECT_FALSE(status->vrfHas(red));
}

TEST(NexthopStatus, DeleteAllPublishesOncePerVrf) {
  auto status = NexthopStatus::NexthopStatusIs();
  status->vrfIs(red);
  status->vrfIs(blue);
  VrfStatusRecorder recorder(*status, NexthopStatus::vrfAttr);

  status->vrfDelAll();

  EXPECT_EQ(recorder.changes.size(), 2u);
  EXPECT_EQ(status->vrfCount(), 0u);
}

TEST(NexthopBacklog, QueuesAnAddressOnceAndPublishesPerChange) {
  auto backlog = NexthopBacklog::NexthopBacklogIs();
  AddrRecorder recorder(*backlog, NexthopBacklog::backlogAttr);

  EXPECT_TRUE(backlog->backlogIs(addr("10.0.0.1")));
  EXPECT_FALSE(backlog->backlogIs(addr("10.0.0.1")));
  EXPECT_TRUE(backlog->backlogIs(addr("10.0.0.2")));
  EXPECT_FALSE(backlog->backlogDel(addr("10.0.0.9")));
  EXPECT_TRUE(backlog->backlogDel(addr("10.0.0.1")));

  EXPECT_EQ(recorder.keys,
            (std::vector<IpGenAddr>{addr("10.0.0.1"), addr("10.0.0.2"), addr("10.0.0.1")}));
  EXPECT_FALSE(recorder.changes[2].newValue);
  EXPECT_EQ(backlog->backlogCount(), 1u);
  EXPECT_TRUE(backlog->backlogHas(addr("10.0.0.2")));

  backlog->backlogIs(addr("10.0.0.3"));
  recorder.changes.clear();
  backlog->backlogDelAll();
  EXPECT_EQ(recorder.changes.size(), 2u);
  EXPECT_EQ(backlog->backlogCount(), 0u);
}

// One VRF's resolver state with two FECs and two users each, and a monitor built on it.
class FibMonitor : public ::testing::Test {
 protected:
  static constexpr FecId fec1 = 1;
  static constexpr FecId fec2 = 2;

  void SetUp() override {
    for (const char* text : {"10.1.0.1", "10.1.0.2"}) resolve(text, fec1);
    for (const char* text : {"10.2.0.1", "10.2.0.2"}) resolve(text, fec2);
    table->fecIs(Fec(fec1, {Via(IntfId("Ethernet1"), addr("10.0.1.254"))}));
    table->fecIs(Fec(fec2, {Via(IntfId("Ethernet2"), addr("10.0.2.254"))}));
    monitor = FibMonitorHelperSm::FibMonitorHelperSmIs("ie", status, backlog, table, scheduler);
  }

  void resolve(const char* text, FecId fecId) {
    status->nexthopIs(NexthopStatusEntry(addr(text), fecId));
  }
  // A new version of the FEC, which notifies its users.
  void touch(FecId fecId) {
    Fec fec = table->fec(fecId);
    fec.viaIs(Memtab::Fib::ViaIndex(static_cast<uint32_t>(fec.viaCount())),
              Via(IntfId("Ethernet3"), addr("10.0.3.254")));
    table->fecIs(fec);
  }
  std::set<IpGenAddr> drain() {
    std::set<IpGenAddr> queued = backlogOf(*backlog);
    backlog->backlogDelAll();
    return queued;
  }

  NexthopVrfStatus::Ptr status = NexthopVrfStatus::NexthopVrfStatusIs(red);
  NexthopBacklog::Ptr backlog = NexthopBacklog::NexthopBacklogIs();
  ForwardingStatus::Ptr table = ForwardingStatus::ForwardingStatusIs();
  Hub::TaskScheduler::Ptr scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  FibMonitorHelperSm::Ptr monitor;
};

TEST_F(FibMonitor, ConstructionIndexesExistingEntriesAndQueuesNothing) {
  EXPECT_EQ(backlog->backlogCount(), 0u);
  EXPECT_EQ(monitor->fecUserCount(fec1), 2u);
  EXPECT_EQ(monitor->fecUserCount(fec2), 2u);
  EXPECT_EQ(monitor->fecUserCount(3), 0u);
}

TEST_F(FibMonitor, KeepsItsArguments) {
  EXPECT_EQ(monitor->clientName(), "ie");
  EXPECT_EQ(monitor->nexthopVrfStatus().get(), status.get());
  EXPECT_EQ(monitor->nexthopBacklog(), backlog);
  EXPECT_EQ(monitor->forwardingStatus().get(), table.get());
  EXPECT_EQ(monitor->scheduler(), scheduler);
  EXPECT_EQ(monitor->typeName(), "Routing::FibMonitorHelperSm");
}

TEST_F(FibMonitor, StatusChangesQueueExactlyTheChangedAddress) {
  resolve("10.3.0.1", fec1);
  EXPECT_EQ(drain(), std::set<IpGenAddr>{addr("10.3.0.1")});

  resolve("10.3.0.1", fec1);
  EXPECT_EQ(drain(), std::set<IpGenAddr>{});

  resolve("10.1.0.1", fec2);
  EXPECT_EQ(drain(), std::set<IpGenAddr>{addr("10.1.0.1")});
}

TEST_F(FibMonitor, FecChangeQueuesOnlyThatFecsUsers) {
  touch(fec1);
  EXPECT_EQ(drain(), (std::set<IpGenAddr>{addr("10.1.0.1"), addr("10.1.0.2")}));

  touch(fec2);
  EXPECT_EQ(drain(), (std::set<IpGenAddr>{addr("10.2.0.1"), addr("10.2.0.2")}));
}

TEST_F(FibMonitor, EqualFecQueuesNothing) {
  table->fecIs(table->fec(fec1));
  EXPECT_EQ(backlog->backlogCount(), 0u);
}

TEST_F(FibMonitor, FecOfNoUserQueuesNothing) {
  table->fecIs(Fec(3, {Via(IntfId("Ethernet1"), addr("10.0.1.254"))}));
  EXPECT_EQ(backlog->backlogCount(), 0u);
}

TEST_F(FibMonitor, FecRemovalQueuesItsUsers) {
  table->fecDel(fec2);
  EXPECT_EQ(drain(), (std::set<IpGenAddr>{addr("10.2.0.1"), addr("10.2.0.2")}));
}

TEST_F(FibMonitor, FecUsersAreQueuedInAddressOrder) {
  AddrRecorder recorder(*backlog, NexthopBacklog::backlogAttr);
  touch(fec1);
  EXPECT_EQ(recorder.keys, (std::vector<IpGenAddr>{addr("10.1.0.1"), addr("10.1.0.2")}));
}

TEST_F(FibMonitor, MovedAddressFollowsItsNewFec) {
  resolve("10.1.0.1", fec2);
  EXPECT_EQ(drain(), std::set<IpGenAddr>{addr("10.1.0.1")});
  EXPECT_EQ(monitor->fecUserCount(fec1), 1u);
  EXPECT_EQ(monitor->fecUserCount(fec2), 3u);

  touch(fec1);
  EXPECT_EQ(drain(), std::set<IpGenAddr>{addr("10.1.0.2")});

  touch(fec2);
  EXPECT_EQ(drain(), (std::set<IpGenAddr>{addr("10.1.0.1"), addr("10.2.0.1"), addr("10.2.0.2")}));
}

TEST_F(FibMonitor, UnresolvedAddressIsQueuedAndUnindexed) {
  status->nexthopDel(addr("10.1.0.1"));
  EXPECT_EQ(drain(), std::set<IpGenAddr>{addr("10.1.0.1")});
  EXPECT_EQ(monitor->fecUserCount(fec1), 1u);

  touch(fec1);
  EXPECT_EQ(drain(), std::set<IpGenAddr>{addr("10.1.0.2")});

  status->nexthopDel(addr("10.1.0.2"));
  drain();
  touch(fec1);
  EXPECT_EQ(drain(), std::set<IpGenAddr>{});
  EXPECT_EQ(monitor->fecUserCount(fec1), 0u);
}

TEST_F(FibMonitor, ClientDrainingInsideTheNotificationSeesEveryUser) {
  // As the module does: each queued address is taken out and handled before the next arrives.
  AddrRecorder recorder(*backlog, NexthopBacklog::backlogAttr);
  std::vector<IpGenAddr> handled;
  recorder.onChange = [&](const IpGenAddr& queued) {
    if (!backlog->backlogHas(queued)) return;
    backlog->backlogDel(queued);
    handled.push_back(queued);
  };

  touch(fec2);

  EXPECT_EQ(handled, (std::vector<IpGenAddr>{addr("10.2.0.1"), addr("10.2.0.2")}));
  EXPECT_EQ(backlog->backlogCount(), 0u);
}

TEST_F(FibMonitor, SwitchedOffQueuesNothing) {
  monitor->hasNotificationActiveIs(false);

  resolve("10.3.0.1", fec1);
  touch(fec1);
  table->fecDel(fec2);
  status->nexthopDel(addr("10.2.0.1"));

  EXPECT_EQ(backlog->backlogCount(), 0u);
  EXPECT_FALSE(monitor->hasNotificationActive());
}

TEST_F(FibMonitor, SwitchedBackOnIndexesChangesMadeWhileOff) {
  monitor->hasNotificationActiveIs(false);
  resolve("10.1.0.1", fec2);
  monitor->hasNotificationActiveIs(true);
  EXPECT_EQ(backlog->backlogCount(), 0u);

  touch(fec1);
  EXPECT_EQ(drain(), std::set<IpGenAddr>{addr("10.1.0.2")});
  touch(fec2);
  EXPECT_EQ(drain(), (std::set<IpGenAddr>{addr("10.1.0.1"), addr("10.2.0.1"), addr("10.2.0.2")}));
}

TEST_F(FibMonitor, NullStatusAndTableWatchNothing) {
  auto other = NexthopBacklog::NexthopBacklogIs();
  auto idle = FibMonitorHelperSm::FibMonitorHelperSmIs("ie", nullptr, other, nullptr, nullptr);

  resolve("10.3.0.1", fec1);
  touch(fec1);
  idle->hasNotificationActiveIs(false);
  idle->hasNotificationActiveIs(true);

  EXPECT_EQ(other->backlogCount(), 0u);
  EXPECT_EQ(idle->nexthopVrfStatus(), nullptr);
  EXPECT_EQ(idle->forwardingStatus(), nullptr);
  EXPECT_EQ(idle->fecUserCount(fec1), 0u);
}

TEST_F(FibMonitor, NullBacklogQueuesNothing) {
  auto blind = FibMonitorHelperSm::FibMonitorHelperSmIs("ie", status, nullptr, table, scheduler);

  resolve("10.3.0.1", fec1);
  touch(fec1);

  EXPECT_EQ(blind->fecUserCount(fec1), 3u);
  EXPECT_EQ(blind->nexthopBacklog(), nullptr);
}

TEST_F(FibMonitor, DumpShowsInputsAndFecUsers) {
  Core::DumpContext ctx;
  monitor->dumpState(ctx, 0);
  EXPECT_EQ(ctx.text(),
            "FibMonitorHelperSm - ie\n"
            "  nexthopVrfStatus\n"
            "    -> Routing::NexthopVrfStatus\n"
            "  nexthopBacklog\n"
            "    -> Routing::NexthopBacklog\n"
            "  forwardingStatus\n"
            "    -> Memtab::FibGen::ForwardingStatus\n"
            "  scheduler\n"
            "    -> Hub::TaskScheduler\n"
            "  fecUsers: #2\n"
            "    fec 1: 10.1.0.1 10.1.0.2\n"
            "    fec 2: 10.2.0.1 10.2.0.2\n");
}

TEST(RoutingDump, VrfConfigDumpsItsNexthops) {
  auto config = NexthopConfig::NexthopConfigIs();
  config->vrfIs(red, Routing::fecIdTypeDefault)->nexthopIs(NexthopConfigEntry(addr("10.0.0.1")));
  Core::DumpContext ctx;

  config->dumpState(ctx, 0);

  EXPECT_EQ(ctx.text(),
            "NexthopConfig\n"
            "  vrf: #1\n"
            "    NexthopVrfConfig - red\n"
            "      fecIdType: 0\n"
            "      nexthop: #1\n"
            "        {nexthop=10.0.0.1}\n");
}

TEST(RoutingLifetime, EverythingIsFreed) {
  const int64_t before = Core::Node::liveCount();
  {
    auto config = NexthopConfig::NexthopConfigIs();
    auto nexthopStatus = NexthopStatus::NexthopStatusIs();
    auto backlog = NexthopBacklog::NexthopBacklogIs();
    auto table = ForwardingStatus::ForwardingStatusIs();
    auto scheduler = Hub::TaskScheduler::TaskSchedulerIs();
    config->vrfIs(red, Routing::fecIdTypeDefault)->nexthopIs(NexthopConfigEntry(addr("10.0.0.1")));
    auto vrfStatus = nexthopStatus->vrfIs(red);
    vrfStatus->nexthopIs(NexthopStatusEntry(addr("10.0.0.1"), 1));
    auto monitor =
        FibMonitorHelperSm::FibMonitorHelperSmIs("ie", vrfStatus, backlog, table, scheduler);
    table->fecIs(Fec(1));
    EXPECT_EQ(backlog->backlogCount(), 1u);
    // config, its VRF, status, its VRF, backlog, table, scheduler, monitor.
    EXPECT_EQ(Core::Node::liveCount(), before + 8);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

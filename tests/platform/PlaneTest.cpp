#include "platform/Plane.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "framework/Core.h"
#include "framework/CoreDump.h"
#include "framework/Kiln.h"
#include "support/ChangeRecorder.h"
#include "support/FwdTestValues.h"
#include "support/LiveCountTest.h"

namespace {

using Arp::ProactiveArp::ClientConfig;
using Arp::ProactiveArp::ClientEntry;
using Netval::EthAddr;
using Netval::IntfId;
using Netval::IpGenAddr;
using Plane::NextHopInfo;
using Plane::NextHopInfoWrapper;
using Plane::NextHopKey;
using Plane::ProactiveArpNexthopSm;
using Plane::VrfL3Status;
using Plane::VrfL3StatusAll;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using TestSupport::recordChanges;

const IntfId kEt1("Ethernet1");
const IntfId kEt2("Ethernet2");
const NextHopKey kNeighbourA(kEt1, IpGenAddr("10.0.0.254"));
const NextHopKey kNeighbourB(kEt2, IpGenAddr("10.0.1.254"));
const NextHopInfo kResolvedA(IntfId("Ethernet1"), EthAddr("00:1c:73:00:00:01"));
const NextHopInfo kMovedA(IntfId("Ethernet1"), EthAddr("00:1c:73:00:00:02"));

class NextHopInfoWrapperTest : public TestSupport::LiveCountTest {};

TEST_F(NextHopInfoWrapperTest, PublishesOnceForEachInsertChangeAndDelete) {
  auto wrapper = NextHopInfoWrapper::NextHopInfoWrapperIs();
  auto recorder = recordChanges<NextHopKey>(wrapper.get(), NextHopInfoWrapper::nextHopInfoAttr);

  EXPECT_TRUE(wrapper->nextHopInfoIs(kNeighbourA, kResolvedA));
  EXPECT_TRUE(wrapper->nextHopInfoIs(kNeighbourB, kResolvedA));
  EXPECT_TRUE(wrapper->nextHopInfoIs(kNeighbourA, kMovedA));
  EXPECT_TRUE(wrapper->nextHopInfoDel(kNeighbourB));

  EXPECT_THAT(recorder->keys, ElementsAre(kNeighbourA, kNeighbourB, kNeighbourA, kNeighbourB));
  EXPECT_EQ(wrapper->nextHopInfo(kNeighbourA), kMovedA);
  EXPECT_EQ(wrapper->nextHopInfoCount(), 1u);
}

TEST_F(NextHopInfoWrapperTest, EqualInsertPublishesNothing) {
  auto wrapper = NextHopInfoWrapper::NextHopInfoWrapperIs();
  wrapper->nextHopInfoIs(kNeighbourA, kResolvedA);
  auto recorder = recordChanges<NextHopKey>(wrapper.get(), NextHopInfoWrapper::nextHopInfoAttr);

  EXPECT_FALSE(wrapper->nextHopInfoIs(kNeighbourA, kResolvedA));

  EXPECT_THAT(recorder->keys, IsEmpty());
}

TEST_F(NextHopInfoWrapperTest, DeleteOfAbsentKeyPublishesNothing) {
  auto wrapper = NextHopInfoWrapper::NextHopInfoWrapperIs();
  wrapper->nextHopInfoIs(kNeighbourA, kResolvedA);
  auto recorder = recordChanges<NextHopKey>(wrapper.get(), NextHopInfoWrapper::nextHopInfoAttr);

  EXPECT_FALSE(wrapper->nextHopInfoDel(kNeighbourB));

  EXPECT_THAT(recorder->keys, IsEmpty());
  EXPECT_TRUE(wrapper->nextHopInfoHas(kNeighbourA));
}

TEST_F(NextHopInfoWrapperTest, DelAllPublishesEveryKey) {
  auto wrapper = NextHopInfoWrapper::NextHopInfoWrapperIs();
  wrapper->nextHopInfoIs(kNeighbourA, kResolvedA);
  wrapper->nextHopInfoIs(kNeighbourB, kResolvedA);
  auto recorder = recordChanges<NextHopKey>(wrapper.get(), NextHopInfoWrapper::nextHopInfoAttr);

  wrapper->nextHopInfoDelAll();

  EXPECT_THAT(recorder->keys, UnorderedElementsAre(kNeighbourA, kNeighbourB));
  EXPECT_EQ(wrapper->nextHopInfoCount(), 0u);
}

TEST_F(NextHopInfoWrapperTest, AbsentNeighbourReadsAsTheDefaultInfo) {
  auto wrapper = NextHopInfoWrapper::NextHopInfoWrapperIs();
  wrapper->nextHopInfoIs(kNeighbourA, kResolvedA);

  EXPECT_EQ(wrapper->nextHopInfo(kNeighbourB), NextHopInfo());
  EXPECT_FALSE(wrapper->nextHopInfoHas(kNeighbourB));
  EXPECT_FALSE(static_cast<bool>(wrapper->nextHopInfo(kNeighbourB)));
}

TEST_F(NextHopInfoWrapperTest, ChangeCarriesOldAndNewInfoAsNotificationValues) {
  auto wrapper = NextHopInfoWrapper::NextHopInfoWrapperIs();
  wrapper->nextHopInfoIs(kNeighbourA, kResolvedA);
  using Entry = Core::MapEntry<NextHopKey, NextHopInfo>;
  std::vector<NextHopInfo> oldInfos;
  std::vector<NextHopInfo> newInfos;
  auto recorder = recordChanges<NextHopKey>(wrapper.get(), NextHopInfoWrapper::nextHopInfoAttr);
  recorder->onChange = [&](const NextHopKey&) {
    auto values = Core::getNotifyValues<Entry>(wrapper.get(), NextHopInfoWrapper::nextHopInfoAttr);
    ASSERT_TRUE(values.oldValue && values.newValue);
    oldInfos.push_back(values.oldValue->value);
    newInfos.push_back(values.newValue->value);
  };

  wrapper->nextHopInfoIs(kNeighbourA, kMovedA);

  EXPECT_THAT(oldInfos, ElementsAre(kResolvedA));
  EXPECT_THAT(newInfos, ElementsAre(kMovedA));
}

TEST_F(NextHopInfoWrapperTest, DumpListsEveryNeighbour) {
  auto wrapper = NextHopInfoWrapper::NextHopInfoWrapperIs();
  wrapper->nextHopInfoIs(kNeighbourA, kResolvedA);
  Core::DumpContext ctx;

  wrapper->dumpState(ctx, 0);

  EXPECT_EQ(ctx.text(),
            "NextHopInfoWrapper\n"
            "  nextHopInfo: #1\n"
            "    {intfId=Ethernet1, addr=10.0.0.254} -> "
            "{l2Intf=Ethernet1, ethAddr=00:1c:73:00:00:01}\n");
}

class VrfL3StatusAllTest : public TestSupport::LiveCountTest {};

const L3::VrfName kRed("red");
const L3::VrfName kBlue("blue");

TEST_F(VrfL3StatusAllTest, VrfStatusPublishesOncePerChangeAndNothingForNoChange) {
  auto all = VrfL3StatusAll::VrfL3StatusAllIs();
  auto statuses = recordChanges<L3::VrfName>(all.get(), VrfL3StatusAll::vrfStatusAttr);
  auto ids = recordChanges<L3::VrfName>(all.get(), VrfL3StatusAll::vrfIdAttr);

  EXPECT_TRUE(all->vrfStatusIs(VrfL3Status(kRed, 5)));
  EXPECT_FALSE(all->vrfStatusIs(VrfL3Status(kRed, 5)));
  EXPECT_TRUE(all->vrfStatusIs(VrfL3Status(kRed, 6)));
  EXPECT_TRUE(all->vrfStatusDel(kRed));
  EXPECT_FALSE(all->vrfStatusDel(kRed));

  EXPECT_THAT(statuses->keys, ElementsAre(kRed, kRed, kRed));
  EXPECT_THAT(ids->keys, IsEmpty());
}

TEST_F(VrfL3StatusAllTest, VrfIdPublishesOncePerChangeAndNothingForNoChange) {
  auto all = VrfL3StatusAll::VrfL3StatusAllIs();
  auto statuses = recordChanges<L3::VrfName>(all.get(), VrfL3StatusAll::vrfStatusAttr);
  auto ids = recordChanges<L3::VrfName>(all.get(), VrfL3StatusAll::vrfIdAttr);

  EXPECT_TRUE(all->vrfIdIs(kRed, 5));
  EXPECT_FALSE(all->vrfIdIs(kRed, 5));
  EXPECT_TRUE(all->vrfIdIs(kBlue, 7));
  EXPECT_TRUE(all->vrfIdDel(kRed));
  EXPECT_FALSE(all->vrfIdDel(kRed));

  EXPECT_THAT(ids->keys, ElementsAre(kRed, kBlue, kRed));
  EXPECT_THAT(statuses->keys, IsEmpty());
}

TEST_F(VrfL3StatusAllTest, LookupsReturnNullOrZeroForAnUnknownVrf) {
  auto all = VrfL3StatusAll::VrfL3StatusAllIs();
  all->vrfStatusIs(VrfL3Status(kRed, 5));
  all->vrfIdIs(kRed, 5);

  ASSERT_NE(all->vrfStatus(kRed), nullptr);
  EXPECT_EQ(*all->vrfStatus(kRed), VrfL3Status(kRed, 5));
  EXPECT_TRUE(all->vrfStatusHas(kRed));
  EXPECT_EQ(all->vrfId(kRed), 5u);
  EXPECT_TRUE(all->vrfIdHas(kRed));

  EXPECT_EQ(all->vrfStatus(kBlue), nullptr);
  EXPECT_FALSE(all->vrfStatusHas(kBlue));
  EXPECT_EQ(all->vrfId(kBlue), 0u);
  EXPECT_FALSE(all->vrfIdHas(kBlue));
}

TEST_F(VrfL3StatusAllTest, StatusAndIdAreIndependentCollections) {
  auto all = VrfL3StatusAll::VrfL3StatusAllIs();
  all->vrfStatusIs(VrfL3Status(kRed, 5));

  EXPECT_FALSE(all->vrfIdHas(kRed));
  all->vrfIdIs(kBlue, 9);
  EXPECT_FALSE(all->vrfStatusHas(kBlue));
  EXPECT_EQ(all->vrfStatusCount(), 1u);
  EXPECT_EQ(all->vrfIdCount(), 1u);
}

TEST_F(VrfL3StatusAllTest, ArpVrfIdIsThePlaneIdShiftedByTheOffset) {
  auto all = VrfL3StatusAll::VrfL3StatusAllIs();

  EXPECT_EQ(all->planeVrfIdToArpVrfId(0), VrfL3StatusAll::arpVrfIdOffset);
  EXPECT_EQ(all->planeVrfIdToArpVrfId(5), 5u + VrfL3StatusAll::arpVrfIdOffset);
  EXPECT_NE(all->planeVrfIdToArpVrfId(5), all->planeVrfIdToArpVrfId(6));
}

TEST_F(VrfL3StatusAllTest, DumpListsStatusesAndIds) {
  auto all = VrfL3StatusAll::VrfL3StatusAllIs();
  all->vrfStatusIs(VrfL3Status(kRed, 5));
  all->vrfIdIs(kRed, 5);
  Core::DumpContext ctx;

  all->dumpState(ctx, 2);

  EXPECT_EQ(ctx.text(),
            "  VrfL3StatusAll\n"
            "    vrfStatus: #1\n"
            "      {vrfName=\"red\", vrfId=5}\n"
            "    vrfId: #1\n"
            "      red -> 5\n");
}

class ProactiveArpTest : public TestSupport::LiveCountTest {
 protected:
  ClientConfig::Ptr config = ClientConfig::ClientConfigIs();
};

TEST_F(ProactiveArpTest, ClientConfigEntryPublishesOncePerChange) {
  auto entries = recordChanges<ClientEntry>(config.get(), ClientConfig::entryAttr);
  const ClientEntry entry(kNeighbourA, 1005);

  EXPECT_TRUE(config->entryIs(entry));
  EXPECT_FALSE(config->entryIs(entry));
  EXPECT_TRUE(config->entryDel(entry));
  EXPECT_FALSE(config->entryDel(entry));

  EXPECT_THAT(entries->keys, ElementsAre(entry, entry));
}

TEST_F(ProactiveArpTest, ClientConfigResolutionTriggerPublishesOncePerChange) {
  auto triggers = recordChanges<NextHopKey>(config.get(), ClientConfig::resolutionTriggerAttr);

  EXPECT_TRUE(config->resolutionTriggerIs(kNeighbourA, 1));
  EXPECT_FALSE(config->resolutionTriggerIs(kNeighbourA, 1));
  EXPECT_TRUE(config->resolutionTriggerDel(kNeighbourA));
  EXPECT_FALSE(config->resolutionTriggerDel(kNeighbourA));

  EXPECT_THAT(triggers->keys, ElementsAre(kNeighbourA, kNeighbourA));
  EXPECT_EQ(config->resolutionTrigger(kNeighbourA), 0u);
}

TEST_F(ProactiveArpTest, NewClientEmptiesItsClientConfig) {
  config->entryIs(ClientEntry(kNeighbourA, 1005));
  config->entryIs(ClientEntry(kNeighbourB, 1005));
  auto entries = recordChanges<ClientEntry>(config.get(), ClientConfig::entryAttr);

  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);

  EXPECT_EQ(config->entryCount(), 0u);
  EXPECT_THAT(entries->keys,
              UnorderedElementsAre(ClientEntry(kNeighbourA, 1005), ClientEntry(kNeighbourB, 1005)));
  EXPECT_EQ(sm->clientConfig(), config);
}

TEST_F(ProactiveArpTest, AddEntryWritesTheEntryOnce) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);
  auto entries = recordChanges<ClientEntry>(config.get(), ClientConfig::entryAttr);

  sm->addEntry(kNeighbourA, 1005);
  sm->addEntry(kNeighbourA, 1005);

  EXPECT_TRUE(config->entryHas(ClientEntry(kNeighbourA, 1005)));
  EXPECT_EQ(config->entryCount(), 1u);
  EXPECT_THAT(entries->keys, ElementsAre(ClientEntry(kNeighbourA, 1005)));
}

TEST_F(ProactiveArpTest, RemoveEntryOfAbsentEntryChangesNothing) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);
  sm->addEntry(kNeighbourA, 1005);
  auto entries = recordChanges<ClientEntry>(config.get(), ClientConfig::entryAttr);

  sm->removeEntry(kNeighbourB, 1005);
  sm->removeEntry(kNeighbourA, 1006);

  EXPECT_THAT(entries->keys, IsEmpty());
  EXPECT_TRUE(config->entryHas(ClientEntry(kNeighbourA, 1005)));
}

TEST_F(ProactiveArpTest, RemoveEntryRemovesOnlyThatVrfsEntry) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);
  sm->addEntry(kNeighbourA, 1005);
  sm->addEntry(kNeighbourA, 1006);
  auto entries = recordChanges<ClientEntry>(config.get(), ClientConfig::entryAttr);

  sm->removeEntry(kNeighbourA, 1005);

  EXPECT_THAT(entries->keys, ElementsAre(ClientEntry(kNeighbourA, 1005)));
  EXPECT_FALSE(config->entryHas(ClientEntry(kNeighbourA, 1005)));
  EXPECT_TRUE(config->entryHas(ClientEntry(kNeighbourA, 1006)));
}

TEST_F(ProactiveArpTest, TwoVrfsSharingAViaKeepTwoEntries) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);

  sm->addEntry(kNeighbourA, 1005);
  sm->addEntry(kNeighbourA, 1006);

  EXPECT_EQ(config->entryCount(), 2u);
  EXPECT_TRUE(config->entryHas(ClientEntry(kNeighbourA, 1005)));
  EXPECT_TRUE(config->entryHas(ClientEntry(kNeighbourA, 1006)));
}

TEST_F(ProactiveArpTest, DroppingTheClientLeavesItsEntries) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);
  sm->addEntry(kNeighbourA, 1005);
  auto entries = recordChanges<ClientEntry>(config.get(), ClientConfig::entryAttr);

  sm = nullptr;

  EXPECT_THAT(entries->keys, IsEmpty());
  EXPECT_TRUE(config->entryHas(ClientEntry(kNeighbourA, 1005)));
}

TEST_F(ProactiveArpTest, TriggerResolutionIncrementsTheCountAndPublishes) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);
  auto triggers = recordChanges<NextHopKey>(config.get(), ClientConfig::resolutionTriggerAttr);

  sm->doUpdateTriggerResolution(kNeighbourA);
  sm->doUpdateTriggerResolution(kNeighbourA);
  sm->doUpdateTriggerResolution(kNeighbourB);

  EXPECT_EQ(config->resolutionTrigger(kNeighbourA), 2u);
  EXPECT_EQ(config->resolutionTrigger(kNeighbourB), 1u);
  EXPECT_THAT(triggers->keys, ElementsAre(kNeighbourA, kNeighbourA, kNeighbourB));
}

TEST_F(ProactiveArpTest, TriggerResolutionDoesNotTouchTheEntries) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);
  auto entries = recordChanges<ClientEntry>(config.get(), ClientConfig::entryAttr);

  sm->doUpdateTriggerResolution(kNeighbourA);

  EXPECT_THAT(entries->keys, IsEmpty());
  EXPECT_EQ(config->entryCount(), 0u);
}

TEST_F(ProactiveArpTest, ClientWithoutConfigDoesNothing) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(nullptr);

  sm->addEntry(kNeighbourA, 1005);
  sm->removeEntry(kNeighbourA, 1005);
  sm->doUpdateTriggerResolution(kNeighbourA);

  EXPECT_EQ(sm->clientConfig(), nullptr);
}

TEST_F(ProactiveArpTest, DumpShowsTheClientConfigAsAReference) {
  auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);
  Core::DumpContext ctx;

  sm->dumpState(ctx, 0);

  EXPECT_EQ(ctx.text(),
            "ProactiveArpNexthopSm\n"
            "  clientConfig\n"
            "    -> Arp::ProactiveArp::ClientConfig\n");
}

TEST_F(ProactiveArpTest, ClientConfigDumpListsEntriesAndTriggers) {
  config->entryIs(ClientEntry(kNeighbourA, 1005));
  config->resolutionTriggerIs(kNeighbourA, 3);
  Core::DumpContext ctx;

  config->dumpState(ctx, 0);

  EXPECT_EQ(ctx.text(),
            "ClientConfig\n"
            "  entry: #1\n"
            "    {key={intfId=Ethernet1, addr=10.0.0.254}, arpVrfId=1005}\n"
            "  resolutionTrigger: #1\n"
            "    {intfId=Ethernet1, addr=10.0.0.254} -> 3\n");
}

template <class T>
T parsed(const std::string& text) {
  return T(text.data(), text.data() + text.size());
}

TEST(PlaneValueText, NextHopKeyRoundTrips) {
  EXPECT_EQ(Kiln::toText(kNeighbourA), "{intfId=Ethernet1, addr=10.0.0.254}");
  EXPECT_EQ(parsed<NextHopKey>(Kiln::toText(kNeighbourA)), kNeighbourA);
  EXPECT_EQ(parsed<NextHopKey>(Kiln::toText(NextHopKey())), NextHopKey());
}

TEST(PlaneValueText, NextHopInfoRoundTrips) {
  EXPECT_EQ(Kiln::toText(kResolvedA), "{l2Intf=Ethernet1, ethAddr=00:1c:73:00:00:01}");
  EXPECT_EQ(parsed<NextHopInfo>(Kiln::toText(kResolvedA)), kResolvedA);
  EXPECT_EQ(parsed<NextHopInfo>(Kiln::toText(NextHopInfo())), NextHopInfo());
}

TEST(PlaneValueText, VrfL3StatusRoundTrips) {
  const VrfL3Status status(kRed, 42);
  EXPECT_EQ(Kiln::toText(status), "{vrfName=\"red\", vrfId=42}");
  EXPECT_EQ(parsed<VrfL3Status>(Kiln::toText(status)), status);
}

TEST(PlaneValueText, ClientEntryRoundTrips) {
  const ClientEntry entry(kNeighbourB, 1007);
  EXPECT_EQ(Kiln::toText(entry), "{key={intfId=Ethernet2, addr=10.0.1.254}, arpVrfId=1007}");
  EXPECT_EQ(parsed<ClientEntry>(Kiln::toText(entry)), entry);
}

TEST(PlaneValueText, MalformedTextThrowsParseError) {
  EXPECT_THROW(parsed<NextHopKey>("{intfId=Ethernet1}"), Kiln::ParseError);
  EXPECT_THROW(parsed<NextHopInfo>("{l2Intf=Ethernet1, ethAddr=zz}"), Kiln::ParseError);
  EXPECT_THROW(parsed<ClientEntry>("{key={intfId=Ethernet1, addr=10.0.0.1}, arpVrfId=x}"),
               Kiln::ParseError);
}

TEST(PlaneValueText, OverlongVrfNameThrowsRangeError) {
  const std::string text = "{vrfName=\"" + std::string(101, 'v') + "\", vrfId=1}";
  EXPECT_THROW(parsed<VrfL3Status>(text), Kiln::RangeError);
}

TEST(PlaneValues, KeysCompareByInterfaceThenAddress) {
  const NextHopKey low(kEt1, IpGenAddr("10.0.0.9"));
  const NextHopKey high(kEt2, IpGenAddr("10.0.0.1"));
  EXPECT_LT(low, high);
  EXPECT_NE(low.hash(0), NextHopKey(kEt1, IpGenAddr("10.0.0.8")).hash(0));
  EXPECT_TRUE(static_cast<bool>(low));
  EXPECT_FALSE(static_cast<bool>(NextHopKey()));
}

TEST(PlaneLifetime, EverythingIsFreedWhenDropped) {
  const int64_t before = Core::Node::liveCount();
  {
    auto wrapper = NextHopInfoWrapper::NextHopInfoWrapperIs();
    auto all = VrfL3StatusAll::VrfL3StatusAllIs();
    auto config = ClientConfig::ClientConfigIs();
    auto sm = ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(config);
    wrapper->nextHopInfoIs(kNeighbourA, kResolvedA);
    all->vrfStatusIs(VrfL3Status(kRed, 1));
    all->vrfIdIs(kRed, 1);
    sm->addEntry(kNeighbourA, 1001);
    sm->doUpdateTriggerResolution(kNeighbourA);
    EXPECT_EQ(Core::Node::liveCount(), before + 4);
    config = nullptr;  // the client still holds its configuration
    EXPECT_EQ(Core::Node::liveCount(), before + 4);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

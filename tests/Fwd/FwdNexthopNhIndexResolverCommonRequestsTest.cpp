#include <gtest/gtest.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/CoreDump.h"
#include "support/ChangeRecorder.h"
#include "support/DumpText.h"
#include "support/FwdTestValues.h"

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using TestSupport::dump;
using TestSupport::recordChanges;

// Stage 2's record of one via, and stage 3's request record of one interface.
ViaNexthopRequest::Ptr viaRecord(std::string_view via, std::string_view intfName) {
  return ViaNexthopRequest::ViaNexthopRequestIs(nhIntf(via, intfName));
}
IntfViaNexthopMacToNhIndexRequest::Ptr intfRequest(std::string_view intfName) {
  return IntfViaNexthopMacToNhIndexRequest::IntfViaNexthopMacToNhIndexRequestIs(intf(intfName));
}

TEST(ViaNexthopRequest, StartsWithoutRequestersOrMac) {
  auto via = viaRecord("10.0.0.254", "Ethernet1");
  EXPECT_EQ(via->viaNexthopInfo(), nhIntf("10.0.0.254", "Ethernet1"));
  EXPECT_EQ(via->requesterCollCount(), 0u);
  EXPECT_TRUE(via->macAddr().isZero());
  EXPECT_EQ(via->typeName(), "FwdL3Unicast::ViaNexthopRequest");
}

TEST(ViaNexthopRequest, AddAndDelRequesterKeepCount) {
  auto via = viaRecord("10.0.0.254", "Ethernet1");
  auto recorder = recordChanges<Netval::IpGenAddr>(via.get(), ViaNexthopRequest::requesterCollAttr);
  via->addRequester(ip("10.0.0.1"));
  via->addRequester(ip("10.0.0.2"));
  EXPECT_EQ(via->requesterCollCount(), 2u);
  EXPECT_TRUE(via->requesterCollHas(ip("10.0.0.1")));
  via->delRequester(ip("10.0.0.1"));
  EXPECT_EQ(via->requesterCollCount(), 1u);
  EXPECT_FALSE(via->requesterCollHas(ip("10.0.0.1")));
  EXPECT_EQ(recorder->keys, (std::vector{ip("10.0.0.1"), ip("10.0.0.2"), ip("10.0.0.1")}));
}

TEST(ViaNexthopRequest, RequesterCollFamilyIsIdempotent) {
  auto via = viaRecord("10.0.0.254", "Ethernet1");
  EXPECT_TRUE(via->requesterCollIs(ip("10.0.0.1")));
  EXPECT_FALSE(via->requesterCollIs(ip("10.0.0.1")));
  EXPECT_FALSE(via->requesterCollDel(ip("10.0.0.2")));
  via->requesterCollIs(ip("10.0.0.2"));
  via->requesterCollDelAll();
  EXPECT_EQ(via->requesterCollCount(), 0u);
}

TEST(ViaNexthopRequestDeathTest, AddingSameNexthopTwiceAsserts) {
  auto via = viaRecord("10.0.0.254", "Ethernet1");
  via->addRequester(ip("10.0.0.1"));
  EXPECT_DEATH(via->addRequester(ip("10.0.0.1")),
               "Assertion failed: \"!requesterCollHas\\( nexthop \\)\" in "
               "FwdNexthopNhIndexResolverCommon line [0-9]+, function void "
               "FwdL3Unicast::ViaNexthopRequest::addRequester");
}

TEST(ViaNexthopRequestDeathTest, RemovingUnknownNexthopAsserts) {
  auto via = viaRecord("10.0.0.254", "Ethernet1");
  EXPECT_DEATH(via->delRequester(ip("10.0.0.1")),
               "Assertion failed: \"requesterCollHas\\( nexthop \\)\" in "
               "FwdNexthopNhIndexResolverCommon line");
}

TEST(ViaNexthopRequest, MacChangePublishesOnceAndEqualMacNothing) {
  auto via = viaRecord("10.0.0.254", "Ethernet1");
  auto recorder = recordChanges<Netval::EthAddr>(via.get(), ViaNexthopRequest::macAddrAttr);
  via->macAddrIs(mac("00:1c:73:aa:bb:cc"));
  via->macAddrIs(mac("00:1c:73:aa:bb:cc"));
  EXPECT_EQ(via->macAddr(), mac("00:1c:73:aa:bb:cc"));
  EXPECT_EQ(recorder->keys, std::vector{mac("00:1c:73:aa:bb:cc")});
}

TEST(ViaNexthopRequest, UnknownMacDumpsNone) {
  auto via = viaRecord("10.0.0.254", "Ethernet1");
  via->addRequester(ip("10.0.0.1"));
  EXPECT_EQ(dump(*via, 0),
            "ViaNexthopInfo - interface Ethernet1, nexthop 10.0.0.254\n"
            "  requesterColl: #1\n"
            "    nexthop 10.0.0.1\n"
            "  macAddr - none\n");
  EXPECT_EQ(dump(*via, 4),
            "    ViaNexthopInfo - interface Ethernet1, nexthop 10.0.0.254\n"
            "      requesterColl: #1\n"
            "        nexthop 10.0.0.1\n"
            "      macAddr - none\n");
}

TEST(ViaNexthopRequest, KnownMacDumpsItsTextForm) {
  auto via = viaRecord("10.0.0.254", "Ethernet1");
  via->macAddrIs(mac("00:1c:73:aa:bb:cc"));
  EXPECT_EQ(dump(*via, 0),
            "ViaNexthopInfo - interface Ethernet1, nexthop 10.0.0.254\n"
            "  requesterColl: #0\n"
            "  macAddr - 00:1c:73:aa:bb:cc\n");
  EXPECT_EQ(dump(*via, 4),
            "    ViaNexthopInfo - interface Ethernet1, nexthop 10.0.0.254\n"
            "      requesterColl: #0\n"
            "      macAddr - 00:1c:73:aa:bb:cc\n");
}

TEST(AllViaNexthopRequests, CreationPublishesOnceWithNewRecord) {
  auto all = allViaNexthopRequestsFactory();
  auto recorder =
      recordChanges<NexthopIntfId>(all.get(), AllViaNexthopRequests::viaNexthopRequestAttr);
  const NexthopIntfId via = nhIntf("10.0.0.254", "Ethernet1");
  const ViaNexthopRequest* anchoredNew = nullptr;
  bool anchoredOld = true;
  recorder->onChange = [&](const NexthopIntfId& key) {
    auto values = Core::getNotifyValues<ViaNexthopRequest::Ptr>(
        all.get(), AllViaNexthopRequests::viaNexthopRequestAttr);
    ASSERT_TRUE(values.present);
    anchoredOld = values.oldValue != nullptr;
    anchoredNew = values.newValue ? values.newValue->get() : nullptr;
    EXPECT_EQ(all->viaNexthopRequest(key).get(), anchoredNew);
  };

  ViaNexthopRequest::Ptr created = all->viaNexthopRequestIs(via);
  ASSERT_TRUE(created);
  EXPECT_EQ(created->viaNexthopInfo(), via);
  EXPECT_EQ(recorder->keys, std::vector{via});
  EXPECT_FALSE(anchoredOld);
  EXPECT_EQ(anchoredNew, created.get());
  EXPECT_FALSE(Core::getNotifyValues<ViaNexthopRequest::Ptr>(
                   all.get(), AllViaNexthopRequests::viaNexthopRequestAttr)
                   .present);
}

TEST(AllViaNexthopRequests, ExistingKeyReturnsSameRecordUntouchedAndPublishesNothing) {
  auto all = allViaNexthopRequestsFactory();
  const NexthopIntfId via = nhIntf("10.0.0.254", "Ethernet1");
  ViaNexthopRequest::Ptr first = all->viaNexthopRequestIs(via);
  first->addRequester(ip("10.0.0.1"));
  first->macAddrIs(mac("00:1c:73:aa:bb:cc"));
  auto recorder =
      recordChanges<NexthopIntfId>(all.get(), AllViaNexthopRequests::viaNexthopRequestAttr);

  ViaNexthopRequest::Ptr again = all->viaNexthopRequestIs(via);
  EXPECT_EQ(again, first);
  EXPECT_TRUE(again->requesterCollHas(ip("10.0.0.1")));
  EXPECT_EQ(again->macAddr(), mac("00:1c:73:aa:bb:cc"));
  EXPECT_TRUE(recorder->keys.empty());
  EXPECT_EQ(all->viaNexthopRequestCount(), 1u);
}

TEST(AllViaNexthopRequests, DelOfAbsentKeyChangesNothing) {
  auto all = allViaNexthopRequestsFactory();
  all->viaNexthopRequestIs(nhIntf("10.0.0.254", "Ethernet1"));
  auto recorder =
      recordChanges<NexthopIntfId>(all.get(), AllViaNexthopRequests::viaNexthopRequestAttr);
  EXPECT_FALSE(all->viaNexthopRequestDel(nhIntf("10.0.0.254", "Ethernet2")));
  EXPECT_TRUE(recorder->keys.empty());
  EXPECT_EQ(all->viaNexthopRequestCount(), 1u);
  EXPECT_EQ(all->viaNexthopRequest(nhIntf("10.0.0.254", "Ethernet2")), nullptr);
}

TEST(AllViaNexthopRequests, RemovedRecordHeldByReceiverKeepsItsState) {
  auto all = allViaNexthopRequestsFactory();
  const NexthopIntfId via = nhIntf("10.0.0.254", "Ethernet1");
  {
    ViaNexthopRequest::Ptr record = all->viaNexthopRequestIs(via);
    record->addRequester(ip("10.0.0.1"));
    record->addRequester(ip("10.0.0.2"));
    record->macAddrIs(mac("00:1c:73:aa:bb:cc"));
  }
  auto recorder =
      recordChanges<NexthopIntfId>(all.get(), AllViaNexthopRequests::viaNexthopRequestAttr);
  ViaNexthopRequest::Ptr held;
  recorder->onChange = [&](const NexthopIntfId&) {
    auto values = Core::getNotifyValues<ViaNexthopRequest::Ptr>(
        all.get(), AllViaNexthopRequests::viaNexthopRequestAttr);
    ASSERT_NE(values.oldValue, nullptr);
    EXPECT_EQ(values.newValue, nullptr);
    held = *values.oldValue;
  };

  EXPECT_TRUE(all->viaNexthopRequestDel(via));
  EXPECT_EQ(all->viaNexthopRequest(via), nullptr);
  ASSERT_TRUE(held);
  EXPECT_EQ(held->useCount(), 1u);
  EXPECT_EQ(held->requesterCollCount(), 2u);
  EXPECT_EQ(held->macAddr(), mac("00:1c:73:aa:bb:cc"));
  const int64_t live = Core::Node::liveCount();
  held = nullptr;
  EXPECT_EQ(Core::Node::liveCount(), live - 1);
}

TEST(AllViaNexthopRequests, DelAllPublishesOncePerRecord) {
  auto all = allViaNexthopRequestsFactory();
  all->viaNexthopRequestIs(nhIntf("10.0.0.254", "Ethernet1"));
  all->viaNexthopRequestIs(nhIntf("10.0.0.253", "Ethernet1"));
  all->viaNexthopRequestIs(nhIntf("10.0.0.254", "Ethernet2"));
  auto recorder =
      recordChanges<NexthopIntfId>(all.get(), AllViaNexthopRequests::viaNexthopRequestAttr);
  all->viaNexthopRequestDelAll();
  EXPECT_EQ(all->viaNexthopRequestCount(), 0u);
  EXPECT_EQ(std::set(recorder->keys.begin(), recorder->keys.end()),
            (std::set{nhIntf("10.0.0.254", "Ethernet1"), nhIntf("10.0.0.253", "Ethernet1"),
                      nhIntf("10.0.0.254", "Ethernet2")}));
  EXPECT_EQ(recorder->keys.size(), 3u);
}

TEST(AllViaNexthopRequests, DestructionDeletesEachRecordWithNotification) {
  const int64_t before = Core::Node::liveCount();
  auto all = allViaNexthopRequestsFactory();
  all->viaNexthopRequestIs(nhIntf("10.0.0.254", "Ethernet1"))->addRequester(ip("10.0.0.1"));
  all->viaNexthopRequestIs(nhIntf("10.0.0.253", "Ethernet1"))->addRequester(ip("10.0.0.2"));
  auto recorder =
      recordChanges<NexthopIntfId>(all.get(), AllViaNexthopRequests::viaNexthopRequestAttr);
  size_t requestersSeen = 0;
  // `all` is already null while the collection is destroyed: look it up through a raw pointer.
  const Core::Node* raw = all.get();
  recorder->onChange = [&, raw](const NexthopIntfId&) {
    auto values = Core::getNotifyValues<ViaNexthopRequest::Ptr>(
        raw, AllViaNexthopRequests::viaNexthopRequestAttr);
    ASSERT_NE(values.oldValue, nullptr);
    requestersSeen += (*values.oldValue)->requesterCollCount();
  };

  all = nullptr;
  EXPECT_EQ(recorder->keys.size(), 2u);
  EXPECT_EQ(requestersSeen, 2u);
  recorder = nullptr;
  EXPECT_EQ(Core::Node::liveCount(), before);
}

TEST(AllViaNexthopRequests, IterationCanDeleteTheCurrentRecord) {
  auto all = allViaNexthopRequestsFactory();
  for (int i = 1; i <= 10; ++i)
    all->viaNexthopRequestIs(nhIntf("10.0.0." + std::to_string(i), "Ethernet1"));
  size_t visited = 0;
  for (auto it = all->viaNexthopRequest().begin(); it != all->viaNexthopRequest().end(); ++it) {
    const NexthopIntfId key = it.key();
    ++visited;
    all->viaNexthopRequestDel(key);
  }
  EXPECT_EQ(visited, 10u);
  EXPECT_EQ(all->viaNexthopRequestCount(), 0u);
}

TEST(RequesterColl, StartsNotFoundWithInvalidIndex) {
  auto group = RequesterColl::RequesterCollIs(mac("00:1c:73:aa:bb:cc"));
  EXPECT_EQ(group->macAddr(), mac("00:1c:73:aa:bb:cc"));
  EXPECT_FALSE(group->nhIndexFound());
  EXPECT_EQ(group->nhIndex(), NexthopNhIndexResolverConstants::invalidNhIndex());
  EXPECT_EQ(group->requesterCollCount(), 0u);
  EXPECT_EQ(group->typeName(), "FwdL3Unicast::RequesterColl");
}

TEST(RequesterColl, SettersPublishOnlyChanges) {
  auto group = RequesterColl::RequesterCollIs(mac("00:1c:73:aa:bb:cc"));
  auto indexes = recordChanges<uint32_t>(group.get(), RequesterColl::nhIndexAttr);
  auto founds = recordChanges<bool>(group.get(), RequesterColl::nhIndexFoundAttr);

  group->nhIndexIs(NexthopNhIndexResolverConstants::invalidNhIndex());
  group->nhIndexFoundIs(false);
  EXPECT_TRUE(indexes->keys.empty());
  EXPECT_TRUE(founds->keys.empty());

  group->nhIndexFoundIs(true);
  group->nhIndexIs(7);
  group->nhIndexIs(7);
  group->nhIndexFoundIs(true);
  EXPECT_TRUE(group->nhIndexFound());
  EXPECT_EQ(group->nhIndex(), 7u);
  EXPECT_EQ(indexes->keys, std::vector<uint32_t>{7});
  EXPECT_EQ(founds->keys, std::vector<bool>{true});
}

// Whether `change` moved RequesterSet::losses() on.
template <class Change>
bool countsALoss(Change change) {
  const uint64_t before = RequesterSet::losses();
  change();
  return RequesterSet::losses() != before;
}

TEST(RequesterColl, LosingANexthopOrTheIndexCountsALoss) {
  auto group = RequesterColl::RequesterCollIs(mac("00:1c:73:aa:bb:cc"));
  EXPECT_FALSE(countsALoss([&] { group->requesterCollIs(ip("10.0.0.1")); }));
  EXPECT_FALSE(countsALoss([&] { group->requesterCollIs(ip("10.0.0.2")); }));
  EXPECT_FALSE(countsALoss([&] { group->nhIndexFoundIs(true); }));
  EXPECT_FALSE(countsALoss([&] { group->nhIndexIs(7); }));
  EXPECT_TRUE(countsALoss([&] { group->requesterCollDel(ip("10.0.0.1")); }));
  EXPECT_TRUE(countsALoss([&] { group->nhIndexFoundIs(false); }));
  EXPECT_TRUE(countsALoss([&] { group->requesterCollDelAll(); }));
  EXPECT_EQ(group->requesterCollCount(), 0u);
}

TEST(IntfViaNexthopMacToNhIndexRequest, GroupLeavingOrReplacedCountsALoss) {
  auto request = intfRequest("Ethernet1");
  const Netval::EthAddr m = mac("00:1c:73:aa:bb:cc");
  EXPECT_FALSE(countsALoss([&] { request->requesterCollIs(RequesterColl::RequesterCollIs(m)); }));
  EXPECT_FALSE(
      countsALoss([&] { request->addRequester(mac("00:00:00:00:00:01"), ip("10.0.0.1")); }));
  EXPECT_TRUE(countsALoss([&] { request->requesterCollIs(RequesterColl::RequesterCollIs(m)); }));
  EXPECT_TRUE(countsALoss([&] { request->requesterCollDel(m); }));
  EXPECT_TRUE(countsALoss([&] { request->requesterCollDelAll(); }));
  EXPECT_EQ(request->requesterCollCount(), 0u);
}

TEST(RequesterColl, FreshGroupDumpsNotFoundAndAllOnesIndex) {
  auto group = RequesterColl::RequesterCollIs(mac("00:1c:73:aa:bb:cc"));
  group->requesterCollIs(ip("10.0.0.1"));
  EXPECT_EQ(dump(*group, 0),
            "RequesterColl - macAddr 00:1c:73:aa:bb:cc\n"
            "  nhIndexFound - no\n"
            "  nhIndex - 4294967295\n"
            "  requesterColl: #1\n"
            "    nexthop - 10.0.0.1\n");
  group->nhIndexFoundIs(true);
  group->nhIndexIs(12);
  EXPECT_EQ(dump(*group, 4),
            "    RequesterColl - macAddr 00:1c:73:aa:bb:cc\n"
            "      nhIndexFound - yes\n"
            "      nhIndex - 12\n"
            "      requesterColl: #1\n"
            "        nexthop - 10.0.0.1\n");
}

TEST(IntfViaNexthopMacToNhIndexRequest, NewGroupIsAnnouncedEmptyBeforeItsFirstNexthop) {
  auto request = intfRequest("Ethernet1");
  auto groups = recordChanges<Netval::EthAddr>(
      request.get(), IntfViaNexthopMacToNhIndexRequest::requesterCollAttr);
  std::vector<std::string> events;
  std::unique_ptr<TestSupport::ChangeRecorder<Netval::IpGenAddr>> nexthops;
  groups->onChange = [&](const Netval::EthAddr& macAddr) {
    RequesterColl::Ptr group = request->requesterColl(macAddr);
    ASSERT_TRUE(group);
    events.push_back("group with " + std::to_string(group->requesterCollCount()));
    nexthops = recordChanges<Netval::IpGenAddr>(group.get(), RequesterColl::requesterCollAttr);
    nexthops->onChange = [&](const Netval::IpGenAddr& nexthop) {
      events.push_back("nexthop " + nexthop.toString());
    };
  };

  request->addRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.1"));
  EXPECT_EQ(events, (std::vector<std::string>{"group with 0", "nexthop 10.0.0.1"}));
  RequesterColl::Ptr group = request->requesterColl(mac("00:1c:73:aa:bb:cc"));
  ASSERT_TRUE(group);
  EXPECT_FALSE(group->nhIndexFound());
  EXPECT_EQ(group->nhIndex(), NexthopNhIndexResolverConstants::invalidNhIndex());
}

TEST(IntfViaNexthopMacToNhIndexRequest, NexthopsOfOneMacShareOneGroup) {
  auto request = intfRequest("Ethernet1");
  const Netval::EthAddr m = mac("00:1c:73:aa:bb:cc");
  request->addRequester(m, ip("10.0.0.1"));
  RequesterColl::Ptr group = request->requesterColl(m);
  group->nhIndexFoundIs(true);
  group->nhIndexIs(5);
  request->addRequester(m, ip("10.0.0.2"));
  EXPECT_EQ(request->requesterCollCount(), 1u);
  EXPECT_EQ(request->requesterColl(m), group);
  EXPECT_EQ(group->requesterCollCount(), 2u);
  EXPECT_EQ(group->nhIndex(), 5u);

  request->delRequester(m, ip("10.0.0.1"));
  EXPECT_EQ(request->requesterColl(m), group);
  EXPECT_TRUE(group->nhIndexFound());
  EXPECT_EQ(group->nhIndex(), 5u);

  auto groups = recordChanges<Netval::EthAddr>(
      request.get(), IntfViaNexthopMacToNhIndexRequest::requesterCollAttr);
  request->delRequester(m, ip("10.0.0.2"));
  EXPECT_EQ(request->requesterColl(m), nullptr);
  EXPECT_FALSE(request->requesterCollHas(m));
  EXPECT_EQ(groups->keys, std::vector{m});
  EXPECT_EQ(group->requesterCollCount(), 0u);
}

TEST(IntfViaNexthopMacToNhIndexRequest, SameMacOnTwoInterfacesGivesTwoGroups) {
  auto all = allIntfViaNexthopMacToNhIndexRequestFactory();
  const Netval::EthAddr m = mac("00:1c:73:aa:bb:cc");
  all->requestIs(intf("Ethernet1"))->addRequester(m, ip("10.0.0.1"));
  all->requestIs(intf("Ethernet2"))->addRequester(m, ip("10.0.0.1"));
  RequesterColl::Ptr one = all->request(intf("Ethernet1"))->requesterColl(m);
  RequesterColl::Ptr two = all->request(intf("Ethernet2"))->requesterColl(m);
  ASSERT_TRUE(one);
  ASSERT_TRUE(two);
  EXPECT_NE(one, two);
  one->nhIndexFoundIs(true);
  one->nhIndexIs(3);
  EXPECT_FALSE(two->nhIndexFound());
  all->request(intf("Ethernet1"))->delRequester(m, ip("10.0.0.1"));
  EXPECT_EQ(all->request(intf("Ethernet2"))->requesterColl(m), two);
}

TEST(IntfViaNexthopMacToNhIndexRequest, NullGroupThrows) {
  auto request = intfRequest("Ethernet1");
  EXPECT_THROW(request->requesterCollIs(nullptr), Core::NullArgumentError);
  EXPECT_EQ(request->requesterCollCount(), 0u);
}

TEST(IntfViaNexthopMacToNhIndexRequest, GroupFamilyInsertsReplacesAndDeletes) {
  auto request = intfRequest("Ethernet1");
  const Netval::EthAddr m = mac("00:1c:73:aa:bb:cc");
  auto first = RequesterColl::RequesterCollIs(m);
  auto second = RequesterColl::RequesterCollIs(m);
  EXPECT_TRUE(request->requesterCollIs(first));
  EXPECT_FALSE(request->requesterCollIs(first));
  EXPECT_TRUE(request->requesterCollIs(second));
  EXPECT_EQ(request->requesterColl(m), second);
  request->requesterCollIs(RequesterColl::RequesterCollIs(mac("00:00:00:00:00:01")));
  EXPECT_EQ(request->requesterCollCount(), 2u);
  EXPECT_TRUE(request->requesterCollDel(m));
  EXPECT_FALSE(request->requesterCollDel(m));
  request->requesterCollDelAll();
  EXPECT_EQ(request->requesterCollCount(), 0u);
}

TEST(IntfViaNexthopMacToNhIndexRequestDeathTest, AddingNexthopTwiceUnderOneMacAsserts) {
  auto request = intfRequest("Ethernet1");
  request->addRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.1"));
  EXPECT_DEATH(request->addRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.1")),
               "Assertion failed: \"!macRequester->requesterCollHas\\( nexthop \\)\" in "
               "FwdNexthopNhIndexResolverCommon line [0-9]+, function void "
               "FwdL3Unicast::IntfViaNexthopMacToNhIndexRequest::addRequester");
}

TEST(IntfViaNexthopMacToNhIndexRequestDeathTest, RemovingFromUnknownMacAsserts) {
  auto request = intfRequest("Ethernet1");
  EXPECT_DEATH(request->delRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.1")),
               "Assertion failed: \"macRequester\" in FwdNexthopNhIndexResolverCommon line "
               "[0-9]+, function void FwdL3Unicast::IntfViaNexthopMacToNhIndexRequest::"
               "delRequester");
}

TEST(IntfViaNexthopMacToNhIndexRequestDeathTest, RemovingUnknownNexthopAsserts) {
  auto request = intfRequest("Ethernet1");
  request->addRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.1"));
  EXPECT_DEATH(request->delRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.2")),
               "Assertion failed: \"macRequester->requesterCollHas\\( nexthop \\)\" in "
               "FwdNexthopNhIndexResolverCommon line");
}

TEST(IntfViaNexthopMacToNhIndexRequest, DumpsGroupsAtIndentZeroAndFour) {
  auto request = intfRequest("Ethernet1");
  request->addRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.1"));
  EXPECT_EQ(dump(*request, 0),
            "IntfViaNexthopMacToNhIndexRequest - interface Ethernet1\n"
            "  requesterColl: #1\n"
            "    RequesterColl - macAddr 00:1c:73:aa:bb:cc\n"
            "      nhIndexFound - no\n"
            "      nhIndex - 4294967295\n"
            "      requesterColl: #1\n"
            "        nexthop - 10.0.0.1\n");
  EXPECT_EQ(dump(*request, 4),
            "    IntfViaNexthopMacToNhIndexRequest - interface Ethernet1\n"
            "      requesterColl: #1\n"
            "        RequesterColl - macAddr 00:1c:73:aa:bb:cc\n"
            "          nhIndexFound - no\n"
            "          nhIndex - 4294967295\n"
            "          requesterColl: #1\n"
            "            nexthop - 10.0.0.1\n");
}

TEST(IntfViaNexthopMacToNhIndexRequest, GroupAlreadyDumpedPrintsDuplicateMarker) {
  auto request = intfRequest("Ethernet1");
  request->addRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.1"));
  Core::DumpContext ctx;
  ctx.seenIs(request->requesterColl(mac("00:1c:73:aa:bb:cc")).get());
  request->dumpState(ctx, 0);
  EXPECT_EQ(ctx.text(), std::string("IntfViaNexthopMacToNhIndexRequest - interface Ethernet1\n"
                                    "  requesterColl: #1\n"
                                    "    ") +
                            Core::DumpContext::kDuplicateMarker + "FwdL3Unicast::RequesterColl\n");
}

TEST(AllIntfViaNexthopMacToNhIndexRequest, RequestIsCreatesOnceAndPublishesOnlyCreation) {
  auto all = AllIntfViaNexthopMacToNhIndexRequest::AllIntfViaNexthopMacToNhIndexRequestIs();
  auto recorder =
      recordChanges<Netval::IntfId>(all.get(), AllIntfViaNexthopMacToNhIndexRequest::requestAttr);
  const IntfViaNexthopMacToNhIndexRequest* anchoredNew = nullptr;
  recorder->onChange = [&](const Netval::IntfId&) {
    auto values = Core::getNotifyValues<IntfViaNexthopMacToNhIndexRequest::Ptr>(
        all.get(), AllIntfViaNexthopMacToNhIndexRequest::requestAttr);
    ASSERT_TRUE(values.present);
    EXPECT_EQ(values.oldValue, nullptr);
    anchoredNew = values.newValue ? values.newValue->get() : nullptr;
  };

  EXPECT_EQ(all->request(intf("Ethernet1")), nullptr);
  auto created = all->requestIs(intf("Ethernet1"));
  ASSERT_TRUE(created);
  EXPECT_EQ(created->intfId(), intf("Ethernet1"));
  EXPECT_EQ(created->requesterCollCount(), 0u);
  EXPECT_EQ(anchoredNew, created.get());
  EXPECT_EQ(all->requestIs(intf("Ethernet1")), created);
  EXPECT_EQ(all->request(intf("Ethernet1")), created);
  EXPECT_EQ(recorder->keys, std::vector{intf("Ethernet1")});
  EXPECT_EQ(all->requestCount(), 1u);
}

TEST(AllIntfViaNexthopMacToNhIndexRequest, DelAndDelAllPublishPerRecord) {
  auto all = allIntfViaNexthopMacToNhIndexRequestFactory();
  all->requestIs(intf("Ethernet1"));
  all->requestIs(intf("Ethernet2"));
  all->requestIs(intf("Ethernet3"));
  auto recorder =
      recordChanges<Netval::IntfId>(all.get(), AllIntfViaNexthopMacToNhIndexRequest::requestAttr);
  EXPECT_FALSE(all->requestDel(intf("Ethernet4")));
  EXPECT_TRUE(all->requestDel(intf("Ethernet1")));
  EXPECT_EQ(recorder->keys, std::vector{intf("Ethernet1")});
  all->requestDelAll();
  EXPECT_EQ(recorder->keys.size(), 3u);
  EXPECT_EQ(all->requestCount(), 0u);
}

TEST(RequestRecords, ReleasingEverythingFreesEverything) {
  const int64_t before = Core::Node::liveCount();
  {
    auto vias = allViaNexthopRequestsFactory();
    auto via = vias->viaNexthopRequestIs(nhIntf("10.0.0.254", "Ethernet1"));
    via->addRequester(ip("10.0.0.1"));
    via->macAddrIs(mac("00:1c:73:aa:bb:cc"));
    auto requests = allIntfViaNexthopMacToNhIndexRequestFactory();
    requests->requestIs(intf("Ethernet1"))->addRequester(mac("00:1c:73:aa:bb:cc"), ip("10.0.0.1"));
    requests->requestIs(intf("Ethernet1"))->addRequester(mac("00:1c:73:aa:bb:cd"), ip("10.0.0.2"));
    auto watcher = recordChanges<Netval::IntfId>(requests.get(),
                                                 AllIntfViaNexthopMacToNhIndexRequest::requestAttr);
    // 2 collections, 1 via, 1 interface record, 2 groups (the watcher is no entity).
    EXPECT_EQ(Core::Node::liveCount(), before + 6);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

#include <gtest/gtest.h>

#include <string>

#include "Fwd/FwdNexthopToViaNexthopSm.h"
#include "framework/CoreDump.h"
#include "support/DumpText.h"
#include "support/FwdTestValues.h"

namespace {

using FwdL3Unicast::AllNexthopRequests;
using FwdL3Unicast::IntfViaInfo;
using FwdL3Unicast::NexthopRequest;
using namespace FwdTest;
using TestSupport::dump;

const Netval::IpGenAddr kEmpty;

TEST(IntfViaInfo, StartsWithBothAddressesEmpty) {
  IntfViaInfo::Ptr info = IntfViaInfo::IntfViaInfoIs(intf("Ethernet1"));
  EXPECT_EQ(info->intfId(), intf("Ethernet1"));
  EXPECT_EQ(info->viaNexthop(), kEmpty);
  EXPECT_EQ(info->cachedViaNexthop(), kEmpty);
}

TEST(IntfViaInfo, DumpShowsTheChosenViaButNotTheCachedOne) {
  IntfViaInfo::Ptr info = IntfViaInfo::IntfViaInfoIs(intf("Ethernet1"));
  info->viaNexthopIs(ip("10.1.1.2"));
  info->cachedViaNexthopIs(ip("10.1.1.3"));
  EXPECT_EQ(dump(*info, 2),
            "  IntfViaInfo - interface Ethernet1\n"
            "    viaNexthop - 10.1.1.2\n");
}

TEST(IntfViaInfo, DumpShowsNoneForTheEmptyAddressOnly) {
  IntfViaInfo::Ptr info = IntfViaInfo::IntfViaInfoIs(intf("Ethernet1"));
  EXPECT_EQ(dump(*info, 0), "IntfViaInfo - interface Ethernet1\n  viaNexthop - none\n");
  // 0.0.0.0 is an address, not the absence of one.
  info->viaNexthopIs(ip("0.0.0.0"));
  EXPECT_EQ(dump(*info, 0), "IntfViaInfo - interface Ethernet1\n  viaNexthop - 0.0.0.0\n");
}

TEST(NexthopRequest, AddIntfIdOnRecordedInterfaceKeepsOneEntryAndResetsItsVia) {
  NexthopRequest::Ptr request = NexthopRequest::NexthopRequestIs(ip("10.0.0.1"));
  request->addIntfId(intf("Ethernet1"));
  IntfViaInfo::Ptr info = request->intfViaInfo(intf("Ethernet1"));
  ASSERT_TRUE(info);
  info->viaNexthopIs(ip("10.1.1.1"));
  info->cachedViaNexthopIs(ip("10.1.1.2"));

  request->addIntfId(intf("Ethernet1"));

  EXPECT_EQ(request->intfViaInfoCount(), 1u);
  EXPECT_EQ(request->intfViaInfo(intf("Ethernet1")), info);
  EXPECT_EQ(info->viaNexthop(), kEmpty);
  EXPECT_EQ(info->cachedViaNexthop(), kEmpty);
}

TEST(NexthopRequest, DelIntfIdOfInterfaceNeverAddedChangesNothing) {
  NexthopRequest::Ptr request = NexthopRequest::NexthopRequestIs(ip("10.0.0.1"));
  request->addIntfId(intf("Ethernet1"));
  IntfViaInfo::Ptr info = request->intfViaInfo(intf("Ethernet1"));
  info->viaNexthopIs(ip("10.1.1.1"));

  request->delIntfId(intf("Ethernet2"));

  EXPECT_EQ(request->intfViaInfoCount(), 1u);
  EXPECT_FALSE(request->intfViaInfoHas(intf("Ethernet2")));
  EXPECT_EQ(request->intfViaInfo(intf("Ethernet1")), info);
  EXPECT_EQ(info->viaNexthop(), ip("10.1.1.1"));
}

TEST(NexthopRequest, LastDelIntfIdLeavesNoInterface) {
  NexthopRequest::Ptr request = NexthopRequest::NexthopRequestIs(ip("10.0.0.1"));
  request->addIntfId(intf("Ethernet1"));
  request->addIntfId(intf("Ethernet2"));
  request->delIntfId(intf("Ethernet1"));
  EXPECT_EQ(request->intfViaInfoCount(), 1u);
  request->delIntfId(intf("Ethernet2"));
  EXPECT_EQ(request->intfViaInfoCount(), 0u);
  EXPECT_FALSE(request->intfViaInfo(intf("Ethernet2")));
}

TEST(NexthopRequest, IntfViaInfoIsReturnsTheExistingRecordUnchanged) {
  NexthopRequest::Ptr request = NexthopRequest::NexthopRequestIs(ip("10.0.0.1"));
  IntfViaInfo::Ptr created = request->intfViaInfoIs(intf("Ethernet1"));
  created->viaNexthopIs(ip("10.1.1.1"));
  IntfViaInfo::Ptr again = request->intfViaInfoIs(intf("Ethernet1"));
  EXPECT_EQ(again, created);
  EXPECT_EQ(again->viaNexthop(), ip("10.1.1.1"));
  EXPECT_EQ(request->intfViaInfoCount(), 1u);
}

TEST(NexthopRequest, DumpOfOneInterfaceWithoutViaAtIndentZeroGivesFourLines) {
  NexthopRequest::Ptr request = NexthopRequest::NexthopRequestIs(ip("10.0.0.1"));
  request->addIntfId(intf("Ethernet1"));
  EXPECT_EQ(dump(*request, 0),
            "NexthopRequest - nexthop 10.0.0.1\n"
            "  intfViaInfo: #1\n"
            "    IntfViaInfo - interface Ethernet1\n"
            "      viaNexthop - none\n");
}

TEST(NexthopRequest, DumpAtIndentPrefixesEveryLine) {
  NexthopRequest::Ptr request = NexthopRequest::NexthopRequestIs(ip("10.0.0.1"));
  request->addIntfId(intf("Ethernet1"));
  request->intfViaInfo(intf("Ethernet1"))->viaNexthopIs(ip("10.1.1.2"));
  EXPECT_EQ(dump(*request, 4),
            "    NexthopRequest - nexthop 10.0.0.1\n"
            "      intfViaInfo: #1\n"
            "        IntfViaInfo - interface Ethernet1\n"
            "          viaNexthop - 10.1.1.2\n");
}

TEST(NexthopRequest, DumpOfAnInterfaceAlreadyDumpedPrintsTheDuplicateMarker) {
  NexthopRequest::Ptr request = NexthopRequest::NexthopRequestIs(ip("10.0.0.1"));
  request->addIntfId(intf("Ethernet1"));
  Core::DumpContext ctx;
  ctx.dumpChild(request->intfViaInfo(intf("Ethernet1")).get(), 0);
  request->dumpState(ctx, 0);
  EXPECT_NE(ctx.text().find(std::string("    ") + Core::DumpContext::kDuplicateMarker +
                            "FwdL3Unicast::IntfViaInfo\n"),
            std::string::npos)
      << ctx.text();
}

TEST(AllNexthopRequests, RequestIsReturnsTheExistingRecordWithItsInterfaces) {
  AllNexthopRequests::Ptr all = AllNexthopRequests::AllNexthopRequestsIs();
  NexthopRequest::Ptr created = all->requestIs(ip("10.0.0.1"));
  created->addIntfId(intf("Ethernet1"));
  NexthopRequest::Ptr again = all->requestIs(ip("10.0.0.1"));
  EXPECT_EQ(again, created);
  EXPECT_EQ(again->intfViaInfoCount(), 1u);
  EXPECT_EQ(all->requestCount(), 1u);
  EXPECT_EQ(all->request(ip("10.0.0.1")), created);
  EXPECT_FALSE(all->request(ip("10.0.0.2")));
}

TEST(AllNexthopRequests, RequestDelReleasesTheRecordAndItsInterfaces) {
  const int64_t before = Core::Node::liveCount();
  {
    AllNexthopRequests::Ptr all = AllNexthopRequests::AllNexthopRequestsIs();
    all->requestIs(ip("10.0.0.1"))->addIntfId(intf("Ethernet1"));
    all->requestIs(ip("10.0.0.2"))->addIntfId(intf("Ethernet2"));
    const int64_t withBoth = Core::Node::liveCount();
    EXPECT_TRUE(all->requestDel(ip("10.0.0.1")));
    EXPECT_FALSE(all->requestDel(ip("10.0.0.1")));
    EXPECT_EQ(Core::Node::liveCount(), withBoth - 2);
    all->requestDelAll();
    EXPECT_EQ(all->requestCount(), 0u);
    EXPECT_EQ(Core::Node::liveCount(), before + 1);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

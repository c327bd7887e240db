#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverSm.h"
#include "framework/CoreDump.h"
#include "support/ChangeRecorder.h"
#include "support/DumpText.h"
#include "support/FwdTestValues.h"
#include "support/ResolverFixture.h"
#include "support/TraceCapture.h"

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using TestSupport::dump;
using TestSupport::recordChanges;

constexpr const char* kRoot = "void FwdL3Unicast::NexthopNhIndexResolverSm::";
constexpr const char* kHandleConfigKey =
    "void FwdL3Unicast::NexthopNhIndexResolverSm::handleConfig(const "
    "FwdL3Unicast::NexthopNhIndexResolverKey&)";

std::string rootText(const std::string& function, const std::string& message) {
  return kRoot + function + ": " + message;
}
std::string handleConfigText(const std::string& message) {
  return std::string(kHandleConfigKey) + ": " + message;
}
// The death-test pattern of `expression` failing in handleConfig(key).
std::string handleConfigAssertion(std::string_view expression) {
  return assertionRegex(expression, "FwdNexthopNhIndexResolverSm", kHandleConfigKey);
}

// Index of the first captured line equal to `text`, or -1.
int lineOf(const TestSupport::TraceCapture& trace, const std::string& text) {
  const auto texts = trace.texts();
  for (size_t i = 0; i < texts.size(); ++i) {
    if (texts[i] == text) return static_cast<int>(i);
  }
  return -1;
}

class NexthopNhIndexResolverSmTest : public ::testing::Test, public FwdTest::ResolverFixture {
 protected:
  AllVrfNexthopNhIndexResolverConfigDir& vrfConfigs() {
    return *root->allVrfNexthopNhIndexResolverConfigDir();
  }
  AllVrfNexthopNhIndexResolverStatusDir& vrfMaps() {
    return *root->allVrfNexthopNhIndexResolverStatusDir();
  }
  AllVrfNexthopNhIndexResolverSm& pipelines() { return *root->allVrfNexthopNhIndexResolverSm(); }
};

TEST_F(NexthopNhIndexResolverSmTest, RequestForUnreadyVrfIsStoredRegisteredAndNotPublished) {
  rootIs();
  auto published = recordChanges<NexthopNhIndexResolverKey>(
      statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));

  const NexthopIntfIdColl::Ptr requests = vrfConfigs().vrfConfig(vrf("red"));
  ASSERT_TRUE(requests);
  EXPECT_EQ(requests->configCount(), 1u);
  EXPECT_TRUE(requests->configHas(nhIntf("10.0.0.1", "Ethernet1")));
  const ViaNexthopMacToNhIndexMap::Ptr map = vrfMaps().vrfStatus(vrf("red"));
  ASSERT_TRUE(map);
  EXPECT_EQ(map->mapCount(), 0u);
  ASSERT_TRUE(root->vrfStatus(vrf("red")));
  EXPECT_EQ(root->vrfStatus(vrf("red"))->notifier(), map);
  ASSERT_TRUE(nexthopConfig->vrf(vrf("red")));
  EXPECT_EQ(nexthopConfig->vrf(vrf("red"))->fecIdType(), Routing::fecIdTypeDefault);
  EXPECT_EQ(pipelines().smCount(), 0u);
  EXPECT_TRUE(published->keys.empty());
  EXPECT_EQ(statusDir->statusCount(), 0u);
}

TEST_F(NexthopNhIndexResolverSmTest, RequestTracesAreExact) {
  rootIs();
  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configDel(key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_EQ(
      trace.texts(),
      (std::vector<std::string>{
          handleConfigText("Resolve request added - vrf: red nexthop: 10.0.0.1 intfId: Ethernet1"),
          handleConfigText("New vrf to track: red"),
          handleConfigText("Resolve request delete - vrf: red nexthop: 10.0.0.1 intfId: Ethernet1"),
          handleConfigText("Last nexthop for the vrf red  being deleted "),
      }));
  for (const auto& line : trace.lines()) EXPECT_EQ(line.level, 8u);
}

TEST_F(NexthopNhIndexResolverSmTest,
       DeletingOnlyRequestUnwindsVrfInOrderAndLaterRequestStartsAfresh) {
  vrfL3StatusIs("red", 1);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  resolver.run();
  ASSERT_TRUE(pipelines().sm(vrf("red")));

  // What is still there when the registration and then the status map go.
  std::vector<bool> atWithdrawal;
  auto registrations =
      recordChanges<L3::VrfName>(nexthopConfig.get(), Routing::NexthopConfig::vrfAttr);
  registrations->onChange = [&](const L3::VrfName&) {
    atWithdrawal = {pipelines().smHas(vrf("red")), vrfMaps().vrfStatusHas(vrf("red")),
                    vrfConfigs().vrfConfigHas(vrf("red"))};
  };
  std::vector<bool> atMapDeletion;
  auto maps = recordChanges<L3::VrfName>(root->allVrfNexthopNhIndexResolverStatusDir().get(),
                                         AllVrfNexthopNhIndexResolverStatusDir::vrfStatusAttr);
  maps->onChange = [&](const L3::VrfName&) {
    atMapDeletion = {nexthopConfig->vrfHas(vrf("red")), vrfConfigs().vrfConfigHas(vrf("red")),
                     root->vrfStatus(vrf("red")) != nullptr};
  };

  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  configDir->configDel(key("red", "10.0.0.1", "Ethernet1"));

  EXPECT_EQ(atWithdrawal, (std::vector<bool>{false, true, true}));
  EXPECT_EQ(atMapDeletion, (std::vector<bool>{false, true, false}));
  EXPECT_FALSE(pipelines().smHas(vrf("red")));
  EXPECT_FALSE(nexthopConfig->vrfHas(vrf("red")));
  EXPECT_FALSE(vrfMaps().vrfStatusHas(vrf("red")));
  EXPECT_FALSE(vrfConfigs().vrfConfigHas(vrf("red")));
  EXPECT_EQ(root->vrfStatusCount(), 0u);
  const int last = lineOf(trace, handleConfigText("Last nexthop for the vrf red  being deleted "));
  const int destroying =
      lineOf(trace, rootText("checkAndDestroyVrfSm(const L3::VrfName&)",
                             "Destroying VrfNexthopNhIndexResolverSm of vrf: red"));
  ASSERT_GE(last, 0);
  EXPECT_GT(destroying, last);

  trace.clear();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_EQ(trace.count("New vrf to track: red"), 1u);
  EXPECT_TRUE(nexthopConfig->vrfHas(vrf("red")));
  EXPECT_TRUE(vrfMaps().vrfStatusHas(vrf("red")));
}

TEST_F(NexthopNhIndexResolverSmTest, SecondRequestOfVrfJoinsItsCollectionWithoutNewRegistration) {
  rootIs();
  auto registrations =
      recordChanges<L3::VrfName>(nexthopConfig.get(), Routing::NexthopConfig::vrfAttr);
  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("red", "10.0.0.1", "Ethernet2"));

  EXPECT_EQ(registrations->keys, std::vector<L3::VrfName>{vrf("red")});
  EXPECT_EQ(trace.count("New vrf to track: "), 1u);
  const NexthopIntfIdColl::Ptr requests = vrfConfigs().vrfConfig(vrf("red"));
  ASSERT_TRUE(requests);
  EXPECT_EQ(requests->configCount(), 2u);
  EXPECT_TRUE(requests->configHas(nhIntf("10.0.0.1", "Ethernet2")));

  // Deleting one of the two keeps the VRF.
  configDir->configDel(key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_EQ(trace.count("Last nexthop for the vrf "), 0u);
  EXPECT_TRUE(nexthopConfig->vrfHas(vrf("red")));
  EXPECT_EQ(requests->configCount(), 1u);
}

TEST_F(NexthopNhIndexResolverSmTest, ConstructionClearsExistingStatusesBeforeAnythingElse) {
  statusDir->statusIs(NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet1"), 5));
  nexthopConfig->vrfIs(vrf("stale"), Routing::fecIdTypeDefault);
  Plane::ProactiveArpNexthopSm::ProactiveArpNexthopSmIs(proactiveArpNexthop)
      ->addEntry(Plane::NextHopKey(FwdTest::intf("Ethernet1"), ip("10.0.0.254")), 1001);
  configDir->configIs(key("red", "10.0.0.2", "Ethernet1"));

  // State of the other outputs when the old status goes.
  std::vector<size_t> atDeletion;
  auto statuses = recordChanges<NexthopNhIndexResolverKey>(
      statusDir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
  statuses->onChange = [&](const NexthopNhIndexResolverKey&) {
    atDeletion = {nexthopConfig->vrfCount(), proactiveArpNexthop->entryCount()};
  };
  rootIs();

  EXPECT_EQ(statuses->keys,
            std::vector<NexthopNhIndexResolverKey>{key("red", "10.0.0.1", "Ethernet1")});
  EXPECT_EQ(atDeletion, (std::vector<size_t>{1, 1}));
  EXPECT_EQ(statusDir->statusCount(), 0u);
  // A new proactive ARP client starts empty, old registrations are withdrawn, requests replayed.
  EXPECT_EQ(proactiveArpNexthop->entryCount(), 0u);
  EXPECT_FALSE(nexthopConfig->vrfHas(vrf("stale")));
  EXPECT_TRUE(nexthopConfig->vrfHas(vrf("red")));
  EXPECT_TRUE(root->proactiveArpNexthopSm());
  EXPECT_EQ(root->proactiveArpNexthopSm()->clientConfig(), proactiveArpNexthop);
}

TEST_F(NexthopNhIndexResolverSmTest, ConstructionReplaysEveryRequestWithItsTraces) {
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("blue", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("blue", "10.0.0.2", "Ethernet2"));
  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  rootIs();

  ASSERT_GE(trace.lines().size(), 2u);
  EXPECT_EQ(trace.texts()[0], rootText("handleInitialized()", ""));
  EXPECT_EQ(trace.texts()[1], rootText("handleConfig()", ""));
  EXPECT_EQ(trace.count("Resolve request added - vrf: "), 3u);
  EXPECT_EQ(trace.count("New vrf to track: "), 2u);
  EXPECT_EQ(vrfConfigs().vrfConfigCount(), 2u);
  EXPECT_EQ(vrfConfigs().vrfConfig(vrf("blue"))->configCount(), 2u);
  EXPECT_EQ(nexthopConfig->vrfCount(), 2u);
  EXPECT_EQ(vrfMaps().vrfStatusCount(), 2u);
  // The status reactors are created once the root's collections exist.
  EXPECT_EQ(root->vrfStatusCount(), 2u);
}

TEST_F(NexthopNhIndexResolverSmTest, DoCleanupDropsPipelinesMapsRequestsRegistrationsAndStatuses) {
  vrfL3StatusIs("red", 1);
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  configDir->configIs(key("blue", "10.0.0.1", "Ethernet1"));
  resolver.run();
  ASSERT_EQ(publishedNhIndex("red", "10.0.0.1", "Ethernet1"), 5u);

  TestSupport::TraceCapture trace("FwdNexthopNhIndexResolverSm/8");
  root->doCleanup();

  EXPECT_EQ(trace.texts().front(), rootText("doCleanup()", ""));
  // The pipeline's teardown withdraws its results through the still-present status reactor.
  EXPECT_EQ(trace.count("Deleting resolution for vrfName: red nexthop: 10.0.0.1 intfId: Ethernet1"),
            1u);
  EXPECT_EQ(pipelines().smCount(), 0u);
  EXPECT_EQ(vrfMaps().vrfStatusCount(), 0u);
  EXPECT_EQ(root->vrfStatusCount(), 0u);
  EXPECT_EQ(vrfConfigs().vrfConfigCount(), 0u);
  EXPECT_EQ(nexthopConfig->vrfCount(), 0u);
  EXPECT_FALSE(root->proactiveArpNexthopSm());
  EXPECT_EQ(statusDir->statusCount(), 0u);
}

TEST_F(NexthopNhIndexResolverSmTest, SwitchingNotificationsOffReachesStatusReactors) {
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  root->hasNotificationActiveIs(false);
  EXPECT_FALSE(root->vrfStatus(vrf("red"))->hasNotificationActive());
  // Switched off, the root ignores new requests.
  configDir->configIs(key("blue", "10.0.0.1", "Ethernet1"));
  EXPECT_FALSE(vrfConfigs().vrfConfigHas(vrf("blue")));
  root->hasNotificationActiveIs(true);
  EXPECT_TRUE(root->vrfStatus(vrf("red"))->hasNotificationActive());
}

TEST_F(NexthopNhIndexResolverSmTest, DumpShowsRequestsStatusPointerAndCounts) {
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_EQ(dump(*root, 0),
            "NexthopNhIndexResolverSm\n"
            "  configDir\n"
            "    NexthopNhIndexResolverConfigDir\n"
            "      config: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1, vrfName red\n"
            "  statusDir\n"
            "    -> FwdL3Unicast::NexthopNhIndexResolverStatusDir\n"
            "  allVrfNexthopNhIndexResolverConfigDir: #1\n"
            "  allVrfNexthopNhIndexResolverSm: #0\n");
  EXPECT_EQ(dump(*root, 2),
            "  NexthopNhIndexResolverSm\n"
            "    configDir\n"
            "      NexthopNhIndexResolverConfigDir\n"
            "        config: #1\n"
            "          interface Ethernet1, nexthop 10.0.0.1, vrfName red\n"
            "    statusDir\n"
            "      -> FwdL3Unicast::NexthopNhIndexResolverStatusDir\n"
            "    allVrfNexthopNhIndexResolverConfigDir: #1\n"
            "    allVrfNexthopNhIndexResolverSm: #0\n");
}

TEST_F(NexthopNhIndexResolverSmTest, DumpShowsEachPipelineAsOwnedChild) {
  vrfL3StatusIs("red", 1);
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  resolver.run();
  const VrfNexthopNhIndexResolverSm::Ptr pipeline = pipelines().sm(vrf("red"));
  ASSERT_TRUE(pipeline);
  Core::DumpContext pipelineCtx;
  pipelineCtx.dumpChild(pipeline.get(), 4);
  EXPECT_EQ(pipelineCtx.text().rfind("    VrfNexthopNhIndexResolverSm - red\n", 0), 0u);

  EXPECT_EQ(dump(*root, 0),
            "NexthopNhIndexResolverSm\n"
            "  configDir\n"
            "    NexthopNhIndexResolverConfigDir\n"
            "      config: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1, vrfName red\n"
            "  statusDir\n"
            "    -> FwdL3Unicast::NexthopNhIndexResolverStatusDir\n"
            "  allVrfNexthopNhIndexResolverConfigDir: #1\n"
            "  allVrfNexthopNhIndexResolverSm: #1\n" +
                pipelineCtx.text());
}

TEST_F(NexthopNhIndexResolverSmTest, TeardownLeavesNoEntityOfTheModuleAlive) {
  vrfL3StatusIs("red", 1);
  vrfL3StatusIs("blue", 2);
  resolvableIs("10.0.0.1", "Ethernet1", "10.0.0.254", 100, "00:00:00:00:00:aa", 5);
  resolvableIs("10.0.1.1", "Ethernet2", "10.0.1.254", 101, "00:00:00:00:00:bb", 6);
  const int64_t before = Core::Node::liveCount();
  {
    rootIs();
    configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
    configDir->configIs(key("red", "10.0.1.1", "Ethernet2"));
    configDir->configIs(key("blue", "10.0.0.1", "Ethernet1"));
    resolver.run();
    ASSERT_EQ(statusDir->statusCount(), 3u);
    EXPECT_GT(Core::Node::liveCount(), before);
    rootDel();
  }
  // The host's resolver follows the withdrawn registrations.
  resolver.run();
  EXPECT_EQ(nexthopStatus->vrfCount(), 0u);
  EXPECT_EQ(Core::Node::liveCount(), before);
}

TEST(AllVrfNexthopNhIndexResolverConfigDir, VrfConfigIsReturnsExistingCollectionUntouched) {
  const auto dir = allVrfNexthopNhIndexResolverConfigDirFactory();
  const NexthopIntfIdColl::Ptr red = dir->vrfConfigIs(vrf("red"));
  red->configIs(nhIntf("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(dir->vrfConfigIs(vrf("red")), red);
  EXPECT_EQ(red->configCount(), 1u);
  EXPECT_EQ(dir->vrfConfig(vrf("red")), red);
  EXPECT_FALSE(dir->vrfConfig(vrf("blue")));
  EXPECT_EQ(dump(*dir, 0),
            "AllVrfNexthopNhIndexResolverConfigDir\n"
            "  vrfConfig: #1\n"
            "    NexthopIntfIdColl - red\n"
            "      config: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1\n");
  EXPECT_TRUE(dir->vrfConfigDel(vrf("red")));
  EXPECT_EQ(dir->vrfConfigCount(), 0u);
}

TEST(AllVrfNexthopNhIndexResolverStatusDir, MapsAreStoredUnderTheirVrfName) {
  const auto dir = allVrfNexthopNhIndexResolverStatusDirFactory();
  auto changes =
      recordChanges<L3::VrfName>(dir.get(), AllVrfNexthopNhIndexResolverStatusDir::vrfStatusAttr);
  const auto red = viaNexthopMacToNhIndexMapFactory(vrf("red"));
  dir->vrfStatusIs(red);
  dir->vrfStatusIs(red);
  EXPECT_EQ(dir->vrfStatus(vrf("red")), red);
  EXPECT_THROW(dir->vrfStatusIs(nullptr), Core::NullArgumentError);
  dir->vrfStatusDelAll();
  EXPECT_FALSE(dir->vrfStatusHas(vrf("red")));
  EXPECT_EQ(changes->keys, (std::vector<L3::VrfName>{vrf("red"), vrf("red")}));
}

// Assertions. Each runs in a child process.
class NexthopNhIndexResolverSmDeathTest : public NexthopNhIndexResolverSmTest {};

TEST_F(NexthopNhIndexResolverSmDeathTest, NonIpv4NexthopAborts) {
  rootIs();
  EXPECT_DEATH(configDir->configIs(key("red", "2001:db8::1", "Ethernet1")),
               handleConfigAssertion("( key.nexthop().af() == Netval::AddressFamily::ipv4_ ) && ( "
                                     "!key.nexthop().isAddrZero() )"));
}

TEST_F(NexthopNhIndexResolverSmDeathTest, ZeroNexthopAborts) {
  rootIs();
  EXPECT_DEATH(configDir->configIs(key("red", "0.0.0.0", "Ethernet1")),
               handleConfigAssertion("( key.nexthop().af() == Netval::AddressFamily::ipv4_ ) && ( "
                                     "!key.nexthop().isAddrZero() )"));
}

TEST_F(NexthopNhIndexResolverSmDeathTest, DuplicateRequestAborts) {
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_DEATH(root->handleConfig(key("red", "10.0.0.1", "Ethernet1")),
               handleConfigAssertion("!vrfConfig->configHas( nexthopIntfId )"));
}

TEST_F(NexthopNhIndexResolverSmDeathTest, DeletionForUnknownVrfAborts) {
  rootIs();
  EXPECT_DEATH(root->handleConfig(key("red", "10.0.0.1", "Ethernet1")),
               handleConfigAssertion("vrfConfig"));
}

TEST_F(NexthopNhIndexResolverSmDeathTest, DeletionOfUnknownRequestOfTrackedVrfAborts) {
  rootIs();
  configDir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_DEATH(root->handleConfig(key("red", "10.0.0.2", "Ethernet1")),
               handleConfigAssertion("vrfConfig->configHas( nexthopIntfId )"));
}

TEST_F(NexthopNhIndexResolverSmDeathTest, FirstRequestOfVrfWithStatusMapAborts) {
  rootIs();
  vrfMaps().vrfStatusIs(viaNexthopMacToNhIndexMapFactory(vrf("red")));
  EXPECT_DEATH(configDir->configIs(key("red", "10.0.0.1", "Ethernet1")),
               handleConfigAssertion("!allVrfNexthopNhIndexResolverStatusDir()->vrfStatusHas( "
                                     "key.vrfName() )"));
}

TEST_F(NexthopNhIndexResolverSmDeathTest, FirstRequestOfRegisteredVrfAborts) {
  rootIs();
  nexthopConfig->vrfIs(vrf("red"), Routing::fecIdTypeDefault);
  EXPECT_DEATH(configDir->configIs(key("red", "10.0.0.1", "Ethernet1")),
               handleConfigAssertion("!nexthopConfig()->vrfHas( key.vrfName() )"));
}

}  // namespace

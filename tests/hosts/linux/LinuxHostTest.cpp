#include "hosts/linux/LinuxHost.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hosts/HostError.h"
#include "support/TestNetns.h"

// The Linux host against a real kernel, inside namespaces the tests make: a host namespace with
// veth links to peer namespaces whose addresses answer ARP. Every wait runs the event loop
// until a condition holds or a few seconds pass.
namespace {

using namespace Hosts::Linux;
using FwdL3Unicast::NexthopNhIndexResolverKey;
using TestSupport::TestNetns;

constexpr int kWaitMs = 5000;

Netval::IntfId intf(const std::string& name) { return Netval::IntfId::fromKernelName(name); }

NexthopNhIndexResolverKey request(const std::string& vrf, const std::string& nexthop,
                                  const std::string& dev) {
  return NexthopNhIndexResolverKey(L3::VrfName(vrf), Netval::IpGenAddr(nexthop), intf(dev));
}

class LinuxHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!TestNetns::available(&why)) GTEST_SKIP() << why;
    h_ = std::make_unique<TestNetns>("h");
    p_ = std::make_unique<TestNetns>("p");
  }
  void TearDown() override { host_.reset(); }

  // The host namespace h, with h0 192.0.2.1/24 linked to p0 192.0.2.2/24 in the peer p.
  void linkPeer() { h().vethTo(p(), "h0", "192.0.2.1/24", "p0", "192.0.2.2/24"); }

  LinuxHost& startHost(LinuxHostConfig config = {}) {
    if (config.defaultNetns.empty()) config.defaultNetns = h().name();
    config.warn = [this](const std::string& text) { warnings_.push_back(text); };
    host_ = std::make_unique<LinuxHost>(loop_, std::move(config));
    return *host_;
  }

  bool waitFor(const std::function<bool()>& done, int ms = kWaitMs) {
    return loop_.runUntil(done, ms);
  }
  bool waitStatus(const NexthopNhIndexResolverKey& key, std::optional<uint32_t> nhIndex) {
    return waitFor([&] { return host_->statusNhIndex(key) == nhIndex; });
  }
  std::string statusText(const NexthopNhIndexResolverKey& key) const {
    auto s = host_->statusNhIndex(key);
    return s ? std::to_string(*s) : "none";
  }

  TestNetns& h() { return *h_; }
  TestNetns& p() { return *p_; }
  LinuxHost& host() { return *host_; }

  EventLoop loop_;
  std::unique_ptr<TestNetns> h_;
  std::unique_ptr<TestNetns> p_;
  std::unique_ptr<LinuxHost> host_;
  std::vector<std::string> warnings_;
};

// Sends one UDP datagram from inside `ns` to `dst`: the sender resolves `dst` by ARP first.
void sendFrom(const TestNetns& ns, const std::string& dst) {
  int fd = -1;
  Netns::named(ns.name()).run([&] { fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
  ASSERT_GE(fd, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);
  inet_pton(AF_INET, dst.c_str(), &to.sin_addr);
  const char byte = 0;
  sendto(fd, &byte, 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  close(fd);
}

// What the kernel of `ns` holds with our protocol, read by a fresh mirror.
struct OwnLeftovers {
  size_t neighbours = 0;
  size_t nexthops = 0;
};
OwnLeftovers ownLeftovers(const TestNetns& ns) {
  struct Quiet : MirrorListener {
    void linkChanged(const Link*, const Link*) override {}
    void nexthopChanged(const Nexthop*, const Nexthop*) override {}
    void fdbChanged(const FdbEntry*, const FdbEntry*) override {}
    void neighbourChanged(const Neighbour*, const Neighbour*) override {}
    void routeChanged(const Route*, const Route*) override {}
  } quiet;
  Netns netns = Netns::named(ns.name());
  KernelMirror mirror(netns, &quiet);
  mirror.start();
  OwnLeftovers own;
  for (const auto& [key, n] : mirror.state().neighbours)
    own.neighbours += n.protocol == kOwnProtocol;
  for (const auto& [id, nh] : mirror.state().nexthops) own.nexthops += nh.protocol == kOwnProtocol;
  return own;
}

TEST_F(LinuxHostTest, RoadOfOneRequest) {
  linkPeer();
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  h().ip("nexthop add id 17 via 192.0.2.2 dev h0");
  startHost();
  const auto key = request("default", "203.0.113.1", "h0");
  host().requestAdd(key);
  EXPECT_TRUE(waitStatus(key, 17)) << statusText(key) << '\n' << host().hostDump();
  EXPECT_TRUE(host().arpWanted(Plane::NextHopKey(intf("h0"), Netval::IpGenAddr("192.0.2.2"))));
}

TEST_F(LinuxHostTest, EcmpWithTwoPeers) {
  linkPeer();
  TestNetns q("q");
  h().vethTo(q, "h1", "198.51.100.1/24", "q0", "198.51.100.2/24");
  h().ip("route add 203.0.113.0/24 nexthop via 192.0.2.2 dev h0 nexthop via 198.51.100.2 dev h1");
  h().ip("nexthop add id 21 via 192.0.2.2 dev h0");
  h().ip("nexthop add id 22 via 198.51.100.2 dev h1");
  startHost();
  const auto viaH0 = request("default", "203.0.113.1", "h0");
  const auto viaH1 = request("default", "203.0.113.1", "h1");
  host().requestAdd(viaH0);
  host().requestAdd(viaH1);
  EXPECT_TRUE(waitStatus(viaH0, 21)) << statusText(viaH0);
  EXPECT_TRUE(waitStatus(viaH1, 22)) << statusText(viaH1);
}

TEST_F(LinuxHostTest, PeerMacChangeSettlesOnTheSameNexthopId) {
  linkPeer();
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  h().ip("nexthop add id 17 via 192.0.2.2 dev h0");
  // Another gateway on the same link with a MAC of its own: its object must never be taken.
  h().ip("neigh add 192.0.2.3 dev h0 lladdr 02:00:00:00:00:99 nud permanent");
  h().ip("nexthop add id 18 via 192.0.2.3 dev h0");
  startHost();
  const auto key = request("default", "203.0.113.1", "h0");
  host().requestAdd(key);
  ASSERT_TRUE(waitStatus(key, 17)) << statusText(key);
  const Plane::NextHopKey via(intf("h0"), Netval::IpGenAddr("192.0.2.2"));
  const Netval::EthAddr before = host().nextHopInfoWrapper()->nextHopInfo(via).ethAddr();
  const Netval::EthAddr moved("02:00:00:00:0b:07");
  ASSERT_NE(before, moved);
  p().ip("link set p0 address 02:00:00:00:0b:07");
  // The peer asks for the host's address from its new MAC; the host's kernel learns it.
  p().ip("neigh flush dev p0");
  ASSERT_TRUE(waitFor([&] {
    sendFrom(p(), "192.0.2.1");
    return host().nextHopInfoWrapper()->nextHopInfo(via).ethAddr() == moved;
  }));
  EXPECT_TRUE(waitStatus(key, 17)) << statusText(key);
  EXPECT_EQ(host().statusNhIndex(key), std::optional<uint32_t>(17));
}

TEST_F(LinuxHostTest, NexthopObjectRemovedAndAddedAgain) {
  linkPeer();
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  h().ip("nexthop add id 17 via 192.0.2.2 dev h0");
  startHost();
  const auto key = request("default", "203.0.113.1", "h0");
  host().requestAdd(key);
  ASSERT_TRUE(waitStatus(key, 17)) << statusText(key);
  h().ip("nexthop del id 17");
  EXPECT_TRUE(waitStatus(key, std::nullopt)) << statusText(key);
  h().ip("nexthop add id 17 via 192.0.2.2 dev h0");
  EXPECT_TRUE(waitStatus(key, 17)) << statusText(key);
}

TEST_F(LinuxHostTest, RouteRemovedWithdrawsTheStatusUntilItIsBack) {
  linkPeer();
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  h().ip("nexthop add id 17 via 192.0.2.2 dev h0");
  startHost();
  const auto key = request("default", "203.0.113.1", "h0");
  host().requestAdd(key);
  ASSERT_TRUE(waitStatus(key, 17)) << statusText(key);
  h().ip("route del 203.0.113.0/24");
  EXPECT_TRUE(waitStatus(key, std::nullopt)) << statusText(key);
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  EXPECT_TRUE(waitStatus(key, 17)) << statusText(key);
}

TEST_F(LinuxHostTest, RoutesThroughNexthopObjectsAndGroups) {
  linkPeer();
  TestNetns q("q");
  h().vethTo(q, "h1", "198.51.100.1/24", "q0", "198.51.100.2/24");
  h().ip("nexthop add id 31 via 192.0.2.2 dev h0");
  h().ip("nexthop add id 32 via 198.51.100.2 dev h1");
  h().ip("nexthop add id 40 group 31/32");
  h().ip("route add 203.0.113.0/24 nhid 31");
  h().ip("route add 198.18.0.0/24 nhid 40");
  startHost();
  const auto single = request("default", "203.0.113.1", "h0");
  const auto groupH0 = request("default", "198.18.0.1", "h0");
  const auto groupH1 = request("default", "198.18.0.1", "h1");
  for (const auto& key : {single, groupH0, groupH1}) host().requestAdd(key);
  EXPECT_TRUE(waitStatus(single, 31)) << statusText(single);
  EXPECT_TRUE(waitStatus(groupH0, 31)) << statusText(groupH0);
  EXPECT_TRUE(waitStatus(groupH1, 32)) << statusText(groupH1);
  // The group loses a member: the kernel tells of the group, not of the route.
  h().ip("nexthop replace id 40 group 31");
  EXPECT_TRUE(waitStatus(groupH1, std::nullopt)) << statusText(groupH1);
  EXPECT_EQ(host().statusNhIndex(groupH0), std::optional<uint32_t>(31));
}

TEST_F(LinuxHostTest, SecondVrfInItsOwnNamespace) {
  linkPeer();
  TestNetns red("red");
  TestNetns redPeer("rp");
  red.vethTo(redPeer, "r0", "198.51.100.1/24", "rp0", "198.51.100.2/24");
  red.ip("route add 203.0.113.0/24 via 198.51.100.2 dev r0");
  red.ip("nexthop add id 51 via 198.51.100.2 dev r0");
  LinuxHostConfig config;
  config.vrfNetns["red"] = red.name();
  config.fecMode = Memtab::Fib::fecModePerVrf();
  startHost(config);
  EXPECT_TRUE(host().vrfHas(L3::VrfName("red")));
  const auto key = request("red", "203.0.113.1", "r0");
  host().requestAdd(key);
  EXPECT_TRUE(waitStatus(key, 51)) << statusText(key);
  // The same prefix in the default VRF knows nothing of red's route.
  EXPECT_FALSE(host().routing()->routeHas(L3::VrfName("default"),
                                          Hosts::Prefix::fromText("203.0.113.0/24")));
}

TEST_F(LinuxHostTest, ProgrammingModeKeepsANexthopObjectPerVia) {
  linkPeer();
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  LinuxHostConfig config;
  config.programming = true;
  startHost(config);
  const auto key = request("default", "203.0.113.1", "h0");
  host().requestAdd(key);
  EXPECT_TRUE(waitStatus(key, 1000000)) << statusText(key);
  const KernelState* kernel = host().kernelState(L3::VrfName("default"));
  ASSERT_NE(kernel, nullptr);
  ASSERT_TRUE(kernel->nexthops.contains(1000000));
  EXPECT_EQ(kernel->nexthops.at(1000000).protocol, kOwnProtocol);
  // The via is no longer wanted: its object goes.
  host().requestDel(key);
  EXPECT_TRUE(waitFor([&] { return !kernel->nexthops.contains(1000000); }));
  EXPECT_EQ(host().programmedCount(), 0u);
}

TEST_F(LinuxHostTest, RestartedModuleConvergesToTheSameStatuses) {
  linkPeer();
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  h().ip("route add 198.18.0.0/24 via 192.0.2.2 dev h0");
  LinuxHostConfig config;
  config.programming = true;
  startHost(config);
  const auto a = request("default", "203.0.113.1", "h0");
  const auto b = request("default", "198.18.0.9", "h0");
  host().requestAdd(a);
  host().requestAdd(b);
  ASSERT_TRUE(waitStatus(a, 1000000)) << statusText(a);
  ASSERT_TRUE(waitStatus(b, 1000000)) << statusText(b);
  host().restart();
  EXPECT_TRUE(waitStatus(a, 1000000)) << statusText(a);
  EXPECT_TRUE(waitStatus(b, 1000000)) << statusText(b);
  EXPECT_EQ(host().programmedCount(), 1u);
}

TEST_F(LinuxHostTest, CleanupLeavesNothingOfOursBehind) {
  linkPeer();
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  // Someone else's entries, which the clean-up must leave alone.
  h().ip("neigh add 192.0.2.7 dev h0 lladdr 02:00:00:00:00:07 nud permanent");
  h().ip("nexthop add id 7 via 192.0.2.7 dev h0");
  LinuxHostConfig config;
  config.programming = true;
  startHost(config);
  const auto key = request("default", "203.0.113.1", "h0");
  host().requestAdd(key);
  ASSERT_TRUE(waitStatus(key, 1000000)) << statusText(key);
  const OwnLeftovers during = ownLeftovers(h());
  EXPECT_EQ(during.neighbours, 1u);
  EXPECT_EQ(during.nexthops, 1u);
  host().cleanup();
  const OwnLeftovers after = ownLeftovers(h());
  EXPECT_EQ(after.neighbours, 0u);
  EXPECT_EQ(after.nexthops, 0u);
  EXPECT_EQ(h().ipStatus("nexthop get id 7"), 0);
  EXPECT_EQ(h().ipStatus("neigh get 192.0.2.7 dev h0"), 0);
}

TEST_F(LinuxHostTest, InterfaceNameClashAtStartIsAnError) {
  TestNetns other("o");
  h().ip("link add c0 type veth peer name c1");
  other.ip("link add c0 type veth peer name c2");
  LinuxHostConfig config;
  config.vrfNetns["blue"] = other.name();
  try {
    startHost(config);
    FAIL() << "no clash reported";
  } catch (const Hosts::HostError& e) {
    EXPECT_NE(std::string(e.what()).find("interface name c0"), std::string::npos) << e.what();
  }
}

TEST_F(LinuxHostTest, InterfaceNameClashAtRunTimeLeavesTheLaterOneOut) {
  linkPeer();
  TestNetns other("o");
  other.ip("link add x0 type veth peer name x1");
  other.ip("link set x0 up");
  LinuxHostConfig config;
  config.vrfNetns["blue"] = other.name();
  startHost(config);
  ASSERT_TRUE(host().vrfHas(L3::VrfName("blue")));
  other.ip("link add h0 type veth peer name x2");
  other.ip("link set h0 up");
  EXPECT_TRUE(waitFor([&] { return !warnings_.empty(); }));
  ASSERT_FALSE(warnings_.empty());
  EXPECT_NE(warnings_.front().find("interface name h0"), std::string::npos) << warnings_.front();
  // h0 stays the default VRF's.
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  h().ip("nexthop add id 17 via 192.0.2.2 dev h0");
  const auto key = request("default", "203.0.113.1", "h0");
  host().requestAdd(key);
  EXPECT_TRUE(waitStatus(key, 17)) << statusText(key);
}

TEST_F(LinuxHostTest, ResyncWhenNothingChangedChangesNothing) {
  linkPeer();
  h().ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
  h().ip("nexthop add id 17 via 192.0.2.2 dev h0");
  startHost();
  std::vector<std::string> lines;
  host().statusSinkIs([&](const std::string& line) { lines.push_back(line); });
  const auto key = request("default", "203.0.113.1", "h0");
  host().requestAdd(key);
  ASSERT_TRUE(waitStatus(key, 17)) << statusText(key);
  const size_t linesBefore = lines.size();
  const std::string dumpBefore = host().dump();
  const uint64_t resyncsBefore = host().resyncCount();
  host().resync();
  waitFor([] { return false; }, 200);
  EXPECT_EQ(host().resyncCount(), resyncsBefore + 1);
  EXPECT_EQ(lines.size(), linesBefore);
  EXPECT_EQ(host().dump(), dumpBefore);
  EXPECT_EQ(host().statusNhIndex(key), std::optional<uint32_t>(17));
}

}  // namespace

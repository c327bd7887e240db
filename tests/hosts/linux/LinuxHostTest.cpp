#include "hosts/linux/LinuxHost.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

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

}  // namespace

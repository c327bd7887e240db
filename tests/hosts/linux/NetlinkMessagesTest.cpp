#include "hosts/linux/NetlinkMessages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

// Messages recorded from a kernel by netlink-record (see data/make-malformed.py for the broken
// ones). Each file is read into a buffer of exactly its size, so that AddressSanitizer catches
// any read past what the kernel sent.
namespace {

using namespace Hosts::Linux;
using ::testing::HasSubstr;

std::vector<char> dataFile(const std::string& name) {
  const std::string path = std::string(FWD_NETLINK_DATA_DIR) + "/" + name;
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in) << "cannot open " << path;
  return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

// Every message of the file, parsed.
std::vector<std::optional<Message>> parseFile(const std::string& name) {
  const std::vector<char> buf = dataFile(name);
  std::vector<std::optional<Message>> out;
  forEachMessage(buf.data(), buf.size(),
                 [&](const nlmsghdr* nlh) { out.push_back(parseMessage(nlh)); });
  return out;
}

// The one message of the file, which must be one the host uses.
template <class T>
T parseOne(const std::string& name, bool del = false) {
  auto messages = parseFile(name);
  EXPECT_EQ(messages.size(), 1u) << name;
  if (messages.size() != 1 || !messages[0]) {
    ADD_FAILURE() << name << " holds no message the host uses";
    return T{};
  }
  EXPECT_EQ(messages[0]->del, del) << name;
  const T* fact = std::get_if<T>(&messages[0]->fact);
  if (!fact) {
    ADD_FAILURE() << name << " holds another kind of message";
    return T{};
  }
  return *fact;
}

std::string refusal(const std::string& name) {
  try {
    parseFile(name);
  } catch (const NetlinkError& e) {
    return e.what();
  }
  return "accepted";
}

uint32_t ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return uint32_t(a) << 24 | uint32_t(b) << 16 | uint32_t(c) << 8 | d;
}

TEST(NetlinkMessages, NeighbourStatesAreNamedAsIpNeighNamesThem) {
  EXPECT_EQ(neighbourStateText(NUD_REACHABLE), "REACHABLE");
  EXPECT_EQ(neighbourStateText(NUD_STALE), "STALE");
  EXPECT_EQ(neighbourStateText(NUD_INCOMPLETE), "INCOMPLETE");
  EXPECT_EQ(neighbourStateText(NUD_FAILED), "FAILED");
  EXPECT_EQ(neighbourStateText(NUD_PERMANENT | NUD_NOARP), "NOARP|PERMANENT");
  EXPECT_EQ(neighbourStateText(NUD_NONE), "NONE");
}

TEST(NetlinkMessages, VethLinkIsUpWithItsAddress) {
  const Link link = parseOne<Link>("link-veth.bin");
  EXPECT_EQ(link.ifindex, 2);
  EXPECT_EQ(link.name, "va");
  EXPECT_TRUE(link.up);
  EXPECT_FALSE(link.loopback);
  EXPECT_EQ(link.mac, Netval::EthAddr::fromText("02:00:00:00:0a:01"));
  EXPECT_EQ(link.kind, "veth");
  EXPECT_EQ(link.master, 0);
}

TEST(NetlinkMessages, BridgeAndItsPort) {
  const Link bridge = parseOne<Link>("link-bridge.bin");
  EXPECT_EQ(bridge.name, "br0");
  EXPECT_TRUE(bridge.isBridge());
  const Link port = parseOne<Link>("link-bridge-port.bin");
  EXPECT_EQ(port.name, "vx");
  EXPECT_EQ(port.master, bridge.ifindex);
  EXPECT_FALSE(port.isBridge());
}

TEST(NetlinkMessages, LoopbackDownAndDeletedLinks) {
  EXPECT_TRUE(parseOne<Link>("link-loopback.bin").loopback);
  const Link down = parseOne<Link>("link-down.bin");
  EXPECT_EQ(down.name, "vc");
  EXPECT_FALSE(down.up);
  EXPECT_EQ(parseOne<Link>("link-del.bin", true).name, "vx");
}

TEST(NetlinkMessages, BridgePortDetailsAreNotALink) {
  auto messages = parseFile("link-af-bridge.bin");
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_FALSE(messages[0].has_value());
}

TEST(NetlinkMessages, RouteWithGateway) {
  const Route r = parseOne<Route>("route-gateway.bin");
  EXPECT_EQ(r.table, uint32_t{RT_TABLE_MAIN});
  EXPECT_EQ(r.dst, ip(203, 0, 113, 0));
  EXPECT_EQ(r.dstLen, 24);
  EXPECT_EQ(r.type, RTN_UNICAST);
  EXPECT_EQ(r.nhId, 0u);
  EXPECT_THAT(r.hops, ::testing::ElementsAre(RouteNexthop{ip(192, 0, 2, 2), 2}));
}

TEST(NetlinkMessages, DirectlyAttachedRouteHasNoGateway) {
  const Route r = parseOne<Route>("route-connected.bin");
  EXPECT_EQ(r.dst, ip(192, 0, 2, 0));
  EXPECT_THAT(r.hops, ::testing::ElementsAre(RouteNexthop{0, 2}));
}

TEST(NetlinkMessages, MultipathRouteHasEveryHop) {
  const Route r = parseOne<Route>("route-multipath.bin");
  EXPECT_EQ(r.dst, ip(203, 0, 113, 128));
  EXPECT_EQ(r.dstLen, 25);
  EXPECT_THAT(r.hops, ::testing::ElementsAre(RouteNexthop{ip(192, 0, 2, 2), 2},
                                             RouteNexthop{ip(198, 51, 100, 2), 3}));
}

TEST(NetlinkMessages, RoutesThroughNexthopObjectsCarryTheirId) {
  const Route single = parseOne<Route>("route-nhid.bin");
  EXPECT_EQ(single.nhId, 11u);
  EXPECT_THAT(single.hops, ::testing::ElementsAre(RouteNexthop{ip(192, 0, 2, 2), 2}));
  const Route group = parseOne<Route>("route-nhid-group.bin");
  EXPECT_EQ(group.nhId, 20u);
  EXPECT_EQ(group.hops.size(), 2u);
}

TEST(NetlinkMessages, RouteTypesAndTables) {
  EXPECT_EQ(parseOne<Route>("route-blackhole.bin").type, RTN_BLACKHOLE);
  EXPECT_TRUE(parseOne<Route>("route-blackhole.bin").hops.empty());
  EXPECT_EQ(parseOne<Route>("route-unreachable.bin").type, RTN_UNREACHABLE);
  const Route local = parseOne<Route>("route-local.bin");
  EXPECT_EQ(local.type, RTN_LOCAL);
  EXPECT_EQ(local.table, uint32_t{RT_TABLE_LOCAL});
  EXPECT_EQ(parseOne<Route>("route-del.bin", true).dst, ip(203, 0, 113, 0));
}

TEST(NetlinkMessages, ADumpBufferHoldsManyMessages) {
  auto messages = parseFile("dump-routes.bin");
  ASSERT_EQ(messages.size(), 8u);
  for (const auto& m : messages) {
    ASSERT_TRUE(m.has_value());
    EXPECT_TRUE(std::holds_alternative<Route>(m->fact));
  }
}

TEST(NetlinkMessages, ManagedNeighbourCarriesOurProtocol) {
  const Neighbour n = parseOne<Neighbour>("neigh-managed.bin");
  EXPECT_EQ(n.ifindex, 2);
  EXPECT_EQ(n.dst, ip(192, 0, 2, 2));
  EXPECT_EQ(n.state, NUD_REACHABLE);
  EXPECT_EQ(n.extFlags, uint32_t{NTF_EXT_MANAGED});
  EXPECT_EQ(n.protocol, kOwnProtocol);
  EXPECT_TRUE(n.hasMac());
  EXPECT_EQ(*n.lladdr, Netval::EthAddr::fromText("02:00:00:00:0b:01"));
}

TEST(NetlinkMessages, NeighbourMacOnlyInAUsableState) {
  const Neighbour permanent = parseOne<Neighbour>("neigh-permanent.bin");
  EXPECT_EQ(permanent.state, NUD_PERMANENT);
  EXPECT_TRUE(permanent.hasMac());
  const Neighbour failed = parseOne<Neighbour>("neigh-failed.bin");
  EXPECT_EQ(failed.state, NUD_FAILED);
  EXPECT_FALSE(failed.hasMac());
  EXPECT_EQ(parseOne<Neighbour>("neigh-del.bin", true).dst, ip(198, 51, 100, 9));
}

TEST(NetlinkMessages, Ipv6NeighboursAreNotUsed) {
  auto messages = parseFile("neigh-ipv6.bin");
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_FALSE(messages[0].has_value());
}

TEST(NetlinkMessages, FdbEntriesNameTheirPortAndBridge) {
  const FdbEntry learnt = parseOne<FdbEntry>("fdb-learnt.bin");
  EXPECT_EQ(learnt.port, 6);
  EXPECT_EQ(learnt.bridge, 4);
  EXPECT_EQ(learnt.state, NUD_REACHABLE);
  const FdbEntry self = parseOne<FdbEntry>("fdb-self.bin");
  EXPECT_EQ(self.bridge, 0);
  EXPECT_TRUE(self.flags & NTF_SELF);
  EXPECT_EQ(parseOne<FdbEntry>("fdb-del.bin", true).mac, learnt.mac);
}

TEST(NetlinkMessages, NexthopObjects) {
  const Nexthop gw = parseOne<Nexthop>("nexthop-gateway.bin");
  EXPECT_EQ(gw.id, 11u);
  EXPECT_EQ(gw.gateway, ip(192, 0, 2, 2));
  EXPECT_EQ(gw.oif, 2);
  EXPECT_FALSE(gw.isGroup());
  EXPECT_FALSE(gw.blackhole);
  const Nexthop group = parseOne<Nexthop>("nexthop-group.bin");
  EXPECT_EQ(group.id, 20u);
  EXPECT_THAT(group.group,
              ::testing::ElementsAre(NexthopGroupMember{11, 1}, NexthopGroupMember{12, 1}));
  EXPECT_TRUE(parseOne<Nexthop>("nexthop-blackhole.bin").blackhole);
  EXPECT_EQ(parseOne<Nexthop>("nexthop-del.bin", true).id, 12u);
}

TEST(NetlinkMessages, TruncatedBuffersAreRefused) {
  EXPECT_THAT(refusal("truncated-header.bin"), HasSubstr("truncated netlink message"));
  EXPECT_THAT(refusal("truncated-message.bin"), HasSubstr("truncated netlink message"));
  EXPECT_THAT(refusal("truncated-attribute.bin"), HasSubstr("truncated attribute"));
  EXPECT_THAT(refusal("short-header.bin"), HasSubstr("shorter than its header"));
}

TEST(NetlinkMessages, ALengthPastTheBufferIsRefusedEvenWhenItWrapsAsSigned) {
  // A good message, then a header whose length reads as -1 when taken as a signed int.
  std::vector<char> buf = dataFile("link-veth.bin");
  const size_t good = buf.size();
  buf.resize(good + sizeof(nlmsghdr) + 8, '\0');
  nlmsghdr bad{};
  bad.nlmsg_len = 0xffffffffu;
  bad.nlmsg_type = RTM_NEWLINK;
  std::memcpy(buf.data() + good, &bad, sizeof bad);
  size_t seen = 0;
  EXPECT_THROW(forEachMessage(buf.data(), buf.size(), [&](const nlmsghdr*) { ++seen; }),
               NetlinkError);
  EXPECT_EQ(seen, 1u);
}

TEST(NetlinkMessages, MalformedAttributesAreRefused) {
  EXPECT_EQ(refusal("bad-attribute-length.bin"),
            "route message: attribute 4 has a bad payload of 2 bytes");
  EXPECT_THAT(refusal("link-name-unterminated.bin"), HasSubstr("attribute 3 has a bad payload"));
  EXPECT_THAT(refusal("multipath-overlong-entry.bin"), HasSubstr("multipath entry of 48 bytes"));
  EXPECT_EQ(refusal("nexthop-group-odd.bin"), "nexthop message: group of 12 bytes");
  EXPECT_EQ(refusal("nexthop-without-id.bin"), "nexthop message without id");
  EXPECT_EQ(refusal("neigh-short-dst.bin"), "neighbour message without a 4-byte destination");
}

// The cuts of a message that leave a valid shorter one: the end of its fixed header and the end
// of each top-level attribute, with or without its padding.
std::set<size_t> validCuts(const std::vector<char>& msg, size_t attrsStart) {
  std::set<size_t> cuts{attrsStart};
  size_t off = attrsStart;
  while (off + sizeof(nlattr) <= msg.size()) {
    nlattr attr;
    std::memcpy(&attr, msg.data() + off, sizeof attr);
    for (size_t end = off + attr.nla_len; end <= off + NLA_ALIGN(attr.nla_len); ++end) {
      cuts.insert(end);
    }
    off += NLA_ALIGN(attr.nla_len);
  }
  return cuts;
}

TEST(NetlinkMessages, MessagesCutAnywhereAreRefusedWithoutReadingPastTheCut) {
  // The length field is made to match the cut. A cut inside the fixed header or inside an
  // attribute must be refused; under AddressSanitizer any read past the cut fails the test.
  struct Case {
    const char* name;
    size_t attrsStart;
  };
  for (auto [name, attrsStart] : {Case{"route-multipath.bin", NLMSG_HDRLEN + sizeof(rtmsg)},
                                  Case{"link-veth.bin", NLMSG_HDRLEN + sizeof(ifinfomsg)},
                                  Case{"nexthop-group.bin", NLMSG_HDRLEN + sizeof(nhmsg)},
                                  Case{"neigh-managed.bin", NLMSG_HDRLEN + sizeof(ndmsg)},
                                  Case{"fdb-learnt.bin", NLMSG_HDRLEN + sizeof(ndmsg)}}) {
    const std::vector<char> whole = dataFile(name);
    const std::set<size_t> valid = validCuts(whole, attrsStart);
    for (size_t cut = sizeof(nlmsghdr); cut < whole.size(); ++cut) {
      std::vector<char> part(whole.begin(), whole.begin() + static_cast<long>(cut));
      reinterpret_cast<nlmsghdr*>(part.data())->nlmsg_len = static_cast<uint32_t>(cut);
      bool refused = false;
      try {
        forEachMessage(part.data(), part.size(), [](const nlmsghdr* nlh) { parseMessage(nlh); });
      } catch (const NetlinkError&) {
        refused = true;
      }
      if (!valid.contains(cut)) {
        EXPECT_TRUE(refused) << name << " cut at " << cut;
      }
    }
  }
}

TEST(NetlinkMessages, ManagedNeighbourRequestReadsBackAsOurs) {
  const Request r = managedNeighbourAdd(7, ip(192, 0, 2, 9), 42);
  EXPECT_EQ(r.header()->nlmsg_seq, 42u);
  EXPECT_TRUE(r.header()->nlmsg_flags & NLM_F_ACK);
  auto m = parseMessage(r.header());
  ASSERT_TRUE(m.has_value());
  const auto& n = std::get<Neighbour>(m->fact);
  EXPECT_EQ(n.ifindex, 7);
  EXPECT_EQ(n.dst, ip(192, 0, 2, 9));
  EXPECT_EQ(n.extFlags, uint32_t{NTF_EXT_MANAGED});
  EXPECT_EQ(n.protocol, kOwnProtocol);
  EXPECT_TRUE(parseMessage(neighbourDel(7, ip(192, 0, 2, 9), 43).header())->del);
}

TEST(NetlinkMessages, NexthopRequestReadsBackAsOurs) {
  auto m = parseMessage(nexthopAdd(1000001, 3, ip(198, 51, 100, 2), 5).header());
  ASSERT_TRUE(m.has_value());
  const auto& nh = std::get<Nexthop>(m->fact);
  EXPECT_EQ(nh.id, 1000001u);
  EXPECT_EQ(nh.oif, 3);
  EXPECT_EQ(nh.gateway, ip(198, 51, 100, 2));
  EXPECT_EQ(nh.protocol, kOwnProtocol);
  auto del = parseMessage(nexthopDel(1000001, 6).header());
  ASSERT_TRUE(del.has_value());
  EXPECT_TRUE(del->del);
  EXPECT_EQ(std::get<Nexthop>(del->fact).id, 1000001u);
}

}  // namespace

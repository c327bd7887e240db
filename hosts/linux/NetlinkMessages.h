#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "framework/Netval.h"

struct nlmsghdr;

// The rtnetlink messages the Linux host reads and writes, as plain values. Parsers take raw
// bytes from the kernel, which is input we do not control: every length is checked before use,
// every attribute is validated against its type (libmnl), and anything malformed is refused
// with NetlinkError naming what is wrong. Builders write the requests the host sends.
namespace Hosts::Linux {

// A message or a buffer of messages that cannot be used; the text says why.
struct NetlinkError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The protocol value of everything the host writes into the kernel (neighbour entries, nexthop
// objects). It is no RTPROT_* value the kernel or a known routing daemon uses, so entries that
// carry it are ours: a restarted host finds its leftovers by it and leaves every other entry
// alone.
inline constexpr uint8_t kOwnProtocol = 0xfa;

// An interface (RTM_NEWLINK / RTM_DELLINK).
struct Link {
  int32_t ifindex = 0;
  std::string name;
  uint32_t flags = 0;  // IFF_*
  bool up = false;     // administratively up (IFF_UP)
  bool loopback = false;
  Netval::EthAddr mac;  // zero when the device has no 6-byte address
  int32_t master = 0;   // the bridge or VRF device it is enslaved to, 0 if none
  int32_t lower = 0;    // IFLA_LINK: the device a VLAN (or veth peer index) sits on, 0 if none
  std::string kind;     // IFLA_INFO_KIND: "bridge", "vlan", "veth", ... ("" when absent)
  uint16_t vlanId = 0;  // for kind "vlan"
  bool isBridge() const { return kind == "bridge"; }
  friend bool operator==(const Link&, const Link&) = default;
};

// One next hop of a route.
struct RouteNexthop {
  uint32_t gateway = 0;  // host order; 0 for a directly attached route
  int32_t oif = 0;
  friend bool operator==(const RouteNexthop&, const RouteNexthop&) = default;
  friend auto operator<=>(const RouteNexthop&, const RouteNexthop&) = default;
};

// An IPv4 route (RTM_NEWROUTE / RTM_DELROUTE).
struct Route {
  uint32_t table = 0;  // RTA_TABLE when present, else rtm_table
  uint32_t dst = 0;    // host order
  uint8_t dstLen = 0;
  uint8_t tos = 0;
  uint8_t type = 0;  // RTN_*
  uint8_t protocol = 0;
  uint8_t scope = 0;
  uint32_t priority = 0;           // RTA_PRIORITY (metric)
  uint32_t nhId = 0;               // RTA_NH_ID: the route uses that nexthop object or group
  std::vector<RouteNexthop> hops;  // RTA_GATEWAY/RTA_OIF, or each RTA_MULTIPATH entry
  // Identity in a table: the kernel keeps one route per (table, dst/len, tos, priority).
  struct Key {
    uint32_t table = 0;
    uint32_t dst = 0;
    uint8_t dstLen = 0;
    uint8_t tos = 0;
    uint32_t priority = 0;
    friend auto operator<=>(const Key&, const Key&) = default;
  };
  Key key() const { return {table, dst, dstLen, tos, priority}; }
  friend bool operator==(const Route&, const Route&) = default;
};

// An IPv4 neighbour entry (RTM_NEWNEIGH / RTM_DELNEIGH of family AF_INET).
// A neighbour state (NUD_*) as `ip neigh` names it: "REACHABLE", "STALE|NOARP" for several,
// "NONE" for none.
std::string neighbourStateText(uint16_t state);

struct Neighbour {
  int32_t ifindex = 0;
  uint32_t dst = 0;       // host order
  uint16_t state = 0;     // NUD_*
  uint8_t flags = 0;      // NTF_*
  uint32_t extFlags = 0;  // NDA_FLAGS_EXT (NTF_EXT_MANAGED)
  uint8_t protocol = 0;   // NDA_PROTOCOL, 0 when absent
  std::optional<Netval::EthAddr> lladdr;
  // Whether the entry's link-layer address is usable (REACHABLE, STALE, DELAY, PROBE, PERMANENT,
  // NOARP) and present.
  bool hasMac() const;
  struct Key {
    int32_t ifindex = 0;
    uint32_t dst = 0;
    friend auto operator<=>(const Key&, const Key&) = default;
  };
  Key key() const { return {ifindex, dst}; }
  friend bool operator==(const Neighbour&, const Neighbour&) = default;
};

// A bridge forwarding database entry (RTM_NEWNEIGH / RTM_DELNEIGH of family AF_BRIDGE).
struct FdbEntry {
  int32_t port = 0;    // ndm_ifindex: the bridge port (or the bridge itself for its own MAC)
  int32_t bridge = 0;  // NDA_MASTER, 0 when absent
  Netval::EthAddr mac;
  uint16_t vlan = 0;  // NDA_VLAN, 0 when absent
  uint16_t state = 0;
  uint8_t flags = 0;
  struct Key {
    int32_t port = 0;
    uint64_t mac = 0;
    uint16_t vlan = 0;
    friend auto operator<=>(const Key&, const Key&) = default;
  };
  Key key() const { return {port, mac.value(), vlan}; }
  friend bool operator==(const FdbEntry&, const FdbEntry&) = default;
};

// A member of a nexthop group.
struct NexthopGroupMember {
  uint32_t id = 0;
  uint16_t weight = 1;  // the kernel's weight + 1
  friend bool operator==(const NexthopGroupMember&, const NexthopGroupMember&) = default;
};

// A nexthop object (RTM_NEWNEXTHOP / RTM_DELNEXTHOP).
struct Nexthop {
  uint32_t id = 0;
  uint8_t family = 0;  // AF_INET, AF_INET6 or AF_UNSPEC (groups, blackholes)
  uint8_t protocol = 0;
  uint32_t flags = 0;  // RTNH_F_*
  bool blackhole = false;
  bool fdb = false;
  int32_t oif = 0;
  uint32_t gateway = 0;  // host order, IPv4 only; 0 when absent or IPv6
  bool ipv6Gateway = false;
  std::vector<NexthopGroupMember> group;
  bool isGroup() const { return !group.empty(); }
  friend bool operator==(const Nexthop&, const Nexthop&) = default;
};

// One parsed message: what it says and whether it adds (or replaces) or deletes.
using Fact = std::variant<Link, Route, Neighbour, FdbEntry, Nexthop>;
struct Message {
  uint16_t type = 0;  // RTM_*
  bool del = false;
  Fact fact;
};

// Parses one rtnetlink message. nullopt for a message the host does not use (another address
// family, another message type, IPv6 routes); NetlinkError for one that is malformed. `nlh`
// must cover nlh->nlmsg_len bytes (forEachMessage checks that).
std::optional<Message> parseMessage(const nlmsghdr* nlh);

// Calls `fn` for every message in a buffer read from a netlink socket, after checking that
// each lies wholly inside the buffer; NetlinkError for a truncated buffer. NLMSG_DONE,
// NLMSG_NOOP and NLMSG_OVERRUN are passed on too, so the caller sees where a dump ends.
void forEachMessage(const void* buf, size_t len, const std::function<void(const nlmsghdr*)>& fn);

// The error code (a negative errno, 0 for an ack) of an NLMSG_ERROR message; NetlinkError when
// it is too short.
int errorCode(const nlmsghdr* nlh);

// One request message in a buffer of its own (no allocation).
class Request {
 public:
  static constexpr size_t kCapacity = 256;
  // A header of `type` with `flags` (NLM_F_REQUEST is added) and sequence number `seq`.
  Request(uint16_t type, uint16_t flags, uint32_t seq);
  nlmsghdr* header() { return reinterpret_cast<nlmsghdr*>(buf_); }
  const nlmsghdr* header() const { return reinterpret_cast<const nlmsghdr*>(buf_); }
  uint32_t seq() const;
  const void* data() const { return buf_; }
  size_t size() const;

 private:
  alignas(4) char buf_[kCapacity] = {};
};

// Requests. `seq` is the sequence number the answer will carry.
// A dump of `type` (RTM_GETLINK, RTM_GETROUTE, RTM_GETNEIGH, RTM_GETNEXTHOP) for `family`.
Request dumpRequest(uint16_t type, uint8_t family, uint32_t seq);
// A neighbour entry with the managed flag on (ifindex, dst), carrying kOwnProtocol: the kernel
// then keeps it resolved. Creates it or turns an existing entry into it.
Request managedNeighbourAdd(int32_t ifindex, uint32_t dst, uint32_t seq);
Request neighbourDel(int32_t ifindex, uint32_t dst, uint32_t seq);
// A nexthop object `id`: via `gateway` dev `ifindex`, carrying kOwnProtocol.
Request nexthopAdd(uint32_t id, int32_t ifindex, uint32_t gateway, uint32_t seq);
Request nexthopDel(uint32_t id, uint32_t seq);

// Text forms for traces and errors.
std::string ipv4Text(uint32_t hostOrder);
std::string messageTypeName(uint16_t type);

}  // namespace Hosts::Linux

#pragma once

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "hosts/linux/NetlinkMessages.h"
#include "support/TestNetns.h"

// The benchmarks' world of 10,000 routes over 64 peers: a host namespace with one veth link to a
// peer namespace holding 64 addresses, 64 nexthop objects (one per peer) and 10,000 /32 routes.
// Only 198.18.0.0/15 is used.
namespace TestSupport {

inline constexpr int kRoutes = 10000;
inline constexpr int kPeers = 64;

// 198.19.0.0/24 is the link; peer i is 198.19.0.(2 + i). Route i is 198.18.(i / 256).(i % 256)/32
// via peer i % 64; nexthop object i + 1 is via peer i.
inline constexpr uint32_t kLink = 0xc6130000;     // 198.19.0.0
inline constexpr uint32_t kRoutes0 = 0xc6120000;  // 198.18.0.0

inline std::string addr(uint32_t hostOrder) { return Hosts::Linux::ipv4Text(hostOrder); }

// Runs `ip -n NS -batch` over the lines.
inline void ipBatch(const TestNetns& ns, const std::vector<std::string>& lines) {
  const std::string path = "/tmp/" + ns.name() + ".batch";
  {
    std::ofstream out(path);
    for (const auto& l : lines) out << l << '\n';
  }
  std::string err;
  const int rc = runCommand({"ip", "-n", ns.name(), "-batch", path}, &err);
  std::remove(path.c_str());
  if (rc != 0) throw std::runtime_error("ip -batch: " + err);
}

struct RouteWorld {
  // One world for the whole process, made on first use; null, with the reason in `why`, when
  // this process cannot make namespaces.
  static RouteWorld* shared(std::string* why) {
    if (!TestNetns::available(why)) return nullptr;
    static std::unique_ptr<RouteWorld> world = std::make_unique<RouteWorld>();
    return world.get();
  }

  std::unique_ptr<TestNetns> h = std::make_unique<TestNetns>("bh");
  std::unique_ptr<TestNetns> p = std::make_unique<TestNetns>("bp");

  RouteWorld() {
    h->vethTo(*p, "bh0", addr(kLink + 1) + "/24", "bp0", "");
    std::vector<std::string> peerLines, hostLines;
    for (int i = 0; i < kPeers; ++i) {
      peerLines.push_back("addr add " + addr(kLink + 2 + i) + "/24 dev bp0");
      hostLines.push_back("nexthop add id " + std::to_string(i + 1) + " via " +
                          addr(kLink + 2 + i) + " dev bh0");
    }
    ipBatch(*p, peerLines);
    for (int i = 0; i < kRoutes; ++i) {
      hostLines.push_back("route add " + addr(kRoutes0 + i) + "/32 via " +
                          addr(kLink + 2 + i % kPeers) + " dev bh0");
    }
    ipBatch(*h, hostLines);
  }

  // The peers' neighbour entries, as the kernel would have them after ARP.
  void peersResolved() const {
    std::vector<std::string> lines;
    for (int i = 0; i < kPeers; ++i) {
      char mac[18];
      std::snprintf(mac, sizeof mac, "02:00:00:00:01:%02x", i);
      lines.push_back("neigh replace " + addr(kLink + 2 + i) + " dev bh0 lladdr " + mac +
                      " nud permanent");
    }
    ipBatch(*h, lines);
  }
};

}  // namespace TestSupport

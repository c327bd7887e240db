// Records rtnetlink messages of a network namespace as files, one message per file, for the
// parser's tests: first the dumps of links, IPv4 routes, neighbours, bridge fdb entries and
// nexthop objects, then, for the given number of seconds, the notifications that arrive.
//
//   netlink-record NETNS OUTDIR [SECONDS]
//
// Files are named NNN-TYPE.bin (NNN in arrival order, TYPE as RTM_NEWROUTE) and hold the
// message's bytes exactly as the kernel sent them.
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "hosts/linux/NetlinkMessages.h"
#include "hosts/linux/NetlinkSocket.h"

using namespace Hosts::Linux;

namespace {

int counter = 0;

void save(const std::string& dir, const nlmsghdr* nlh) {
  char prefix[16];
  std::snprintf(prefix, sizeof prefix, "%03d-", counter++);
  const std::string path = dir + "/" + prefix + messageTypeName(nlh->nlmsg_type) + ".bin";
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(nlh), nlh->nlmsg_len);
  if (!out) throw NetlinkError("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::cerr << "usage: netlink-record NETNS OUTDIR [SECONDS]\n";
    return 2;
  }
  try {
    const std::string dir = argv[2];
    const int seconds = argc == 4 ? std::stoi(argv[3]) : 0;
    Netns netns = Netns::named(argv[1]);
    NetlinkSocket events(netns, {RTNLGRP_LINK, RTNLGRP_IPV4_ROUTE, RTNLGRP_NEIGH, RTNLGRP_NEXTHOP},
                         1 << 20);
    NetlinkSocket requests(netns, {}, 1 << 20);
    struct Dump {
      uint16_t type;
      uint8_t family;
    };
    for (Dump d :
         {Dump{RTM_GETLINK, AF_UNSPEC}, Dump{RTM_GETROUTE, AF_INET}, Dump{RTM_GETNEIGH, AF_INET},
          Dump{RTM_GETNEIGH, AF_BRIDGE}, Dump{RTM_GETNEXTHOP, AF_UNSPEC}}) {
      const int rc = requests.transact(dumpRequest(d.type, d.family, requests.nextSeq()),
                                       [&](const nlmsghdr* nlh) { save(dir, nlh); });
      if (rc != 0) throw NetlinkError("dump failed: " + std::to_string(rc));
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::vector<char> buf;
    while (std::chrono::steady_clock::now() < end) {
      pollfd p{events.fd(), POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      while (events.read(buf) == NetlinkSocket::ReadResult::data) {
        forEachMessage(buf.data(), buf.size(), [&](const nlmsghdr* nlh) { save(dir, nlh); });
      }
    }
  } catch (const NetlinkError& e) {
    std::cerr << "netlink-record: " << e.what() << '\n';
    return 1;
  }
  return 0;
}

#pragma once

#include <string>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "hosts/ModuleHost.h"

namespace Hosts {

// Why a request is or is not resolved: walks the chain from the request to its status, reading
// the pipeline's own maps and the host's state, and names the first link that holds it back
// (VRF not ready and which of its three inputs is missing, next hop unresolved, no via on the
// interface, via neighbour unresolved and whether proactive ARP probes it, no next-hop table,
// no nhIndex with the MAC) or, when nothing does, the via, MAC and nhIndex. One line, without the
// request itself: "no next-hop table on Ethernet1 (via 10.0.0.254, MAC 00:00:00:00:00:01)".
std::string explain(const ModuleHost& host, const FwdL3Unicast::NexthopNhIndexResolverKey& key);

}  // namespace Hosts

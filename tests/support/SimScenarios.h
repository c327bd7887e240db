#pragma once

#include <string>

// Scenario text shared by the simulator's tests.
namespace SimScenarios {

// A VRF "red" whose 10.1.0.0/16 resolves 10.1.0.1 on Ethernet1 to nhIndex 17.
inline const std::string kResolved =
    "vrf add red\n"
    "route add red 10.1.0.0/16 via 10.0.0.254 dev Ethernet1\n"
    "neigh add Ethernet1 10.0.0.254 lladdr 00:00:00:00:00:01\n"
    "nh-table add Ethernet1\n"
    "nhindex add Ethernet1 17 00:00:00:00:00:01\n"
    "request add red 10.1.0.1 Ethernet1\n";

}  // namespace SimScenarios

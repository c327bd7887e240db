#pragma once

#include <stdexcept>

// The hosts: what plays the operating system around the resolver module. This namespace holds
// what every host shares; each host (the simulator, the Linux kernel) feeds it from its own facts.
namespace Hosts {

// Raised by a host for input it refuses (an unknown VRF, a duplicate route, the delete of
// something absent). The message names the offending item and never carries a place: the caller
// that read the input adds FILE:LINE.
struct HostError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace Hosts

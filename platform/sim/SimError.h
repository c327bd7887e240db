#pragma once

#include <stdexcept>

// The simulated host: plays the operating system around the resolver module for tests and tools.
namespace Sim {

// Raised by the simulated host for input it refuses (an unknown VRF, a duplicate route, the
// delete of something absent). The message names the offending item and never carries a place:
// the caller that read the input adds FILE:LINE.
struct SimError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace Sim

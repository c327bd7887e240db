#pragma once

#include <string_view>

#include "framework/Kiln.h"

// VRF names of the host's L3 layer.
namespace L3 {

// A VRF name of at most 100 bytes; longer text throws Kiln::RangeError.
using VrfName = Kiln::String<100>;

inline constexpr std::string_view defaultVrf = "default";

inline const VrfName& defaultVrfName() {
  static const VrfName name(defaultVrf);
  return name;
}

}  // namespace L3

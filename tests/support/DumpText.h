#pragma once

#include <cstdint>
#include <string>

#include "framework/Core.h"
#include "framework/CoreDump.h"

namespace TestSupport {

// What `node` writes through its own dumpState at `indent`, into a fresh context.
inline std::string dump(const Core::Node& node, uint32_t indent = 0) {
  Core::DumpContext ctx;
  node.dumpState(ctx, indent);
  return ctx.text();
}

}  // namespace TestSupport

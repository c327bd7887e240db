#include "platform/L3Modules.h"

#include <string>

#include "framework/CollectionOps.h"

namespace FwdL3Unicast {

void NextHopMod::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  const std::string intfName = intfId_.name();
  ctx.line(indent, "NextHopMod - %s\n", intfName.c_str());
  Core::dumpMapEntries(ctx, indent, "nhIndexToMac", nhIndexToMac_);
}

NextHopMod::Ptr L3Modules::nextHopModIs(NextHopMod::Ptr nextHopMod) {
  if (!nextHopMod) {
    throw Core::NullArgumentError("FwdL3Unicast::L3Modules::nextHopModIs: null module");
  }
  const NextHopMod::Ptr* present = nextHopMod_.find(nextHopMod->intfId());
  CORE_ASSERT(!present || *present == nextHopMod);
  nextHopMod_.set(nextHopMod);
  return nextHopMod;
}

void L3Modules::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "L3Modules\n");
  Core::dumpChildren(ctx, indent, "nextHopMod", nextHopMod_);
}

}  // namespace FwdL3Unicast

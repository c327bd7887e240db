#include "platform/L3Modules.h"

#include <string>

namespace FwdL3Unicast {

void NextHopMod::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  const std::string intfName = intfId_.name();
  ctx.line(indent, "NextHopMod - %s\n", intfName.c_str());
  ctx.line(indent + 2, "nhIndexToMac: #%zu\n", nhIndexToMac_.size());
  for (const auto& [nhIndex, ethAddr] : nhIndexToMac_) {
    const std::string mac = ethAddr.toString();
    ctx.line(indent + 4, "%u -> %s\n", nhIndex, mac.c_str());
  }
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
  ctx.line(indent + 2, "nextHopMod: #%zu\n", nextHopMod_.size());
  for (const NextHopMod::Ptr& nextHopMod : nextHopMod_) ctx.dumpChild(nextHopMod.get(), indent + 4);
}

}  // namespace FwdL3Unicast

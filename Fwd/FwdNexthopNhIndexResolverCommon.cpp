#include "Fwd/FwdNexthopNhIndexResolverCommon.h"

#include <string>

#include "framework/Assert.h"
#include "framework/CollectionOps.h"

namespace FwdL3Unicast {

namespace {

std::string text(const Netval::IpGenAddr& addr) { return addr.toString(); }
std::string text(Netval::IntfId intfId) { return intfId.name(); }
std::string text(Netval::EthAddr macAddr) { return macAddr.toString(); }

// nhIndex is printed signed on purpose: the dumps show what the forwarding engine's tools show.
int32_t signedIndex(uint32_t nhIndex) { return static_cast<int32_t>(nhIndex); }

// Stores `value` and notifies `attr` with a pointer to it, unless it is unchanged.
template <class V>
void attributeIs(const Core::Node& node, Core::AttrId attr, V& stored, V value) {
  if (stored == value) return;
  stored = value;
  node.notify(attr, &stored);
}

}  // namespace

void NexthopNhIndexResolverConfigDir::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopNhIndexResolverConfigDir\n");
  Core::dumpMembers(
      ctx, indent, "config", config(), [&ctx](const NexthopNhIndexResolverKey& key, uint32_t at) {
        ctx.line(at, "interface %s, nexthop %s, vrfName %s\n", text(key.intfId()).c_str(),
                 text(key.nexthop()).c_str(), key.vrfName().c_str());
      });
}

void NexthopNhIndexResolverStatusDir::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopNhIndexResolverStatusDir\n");
  Core::dumpMembers(ctx, indent, "status", status_,
                    [&ctx](const NexthopNhIndexResolverStatus& status, uint32_t at) {
                      const NexthopNhIndexResolverKey& key = status.key();
                      ctx.line(at, "interface %s, nexthop %s, vrfName %s, nhIndex %d\n",
                               text(key.intfId()).c_str(), text(key.nexthop()).c_str(),
                               key.vrfName().c_str(), signedIndex(status.nhIndex()));
                    });
}

void NexthopIntfIdColl::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopIntfIdColl - %s\n", vrfName_.c_str());
  Core::dumpMembers(ctx, indent, "config", config(), [&ctx](const NexthopIntfId& key, uint32_t at) {
    ctx.line(at, "interface %s, nexthop %s\n", text(key.intfId()).c_str(),
             text(key.nexthop()).c_str());
  });
}

void NexthopToViaNexthopMap::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopToViaNexthopMap\n");
  Core::dumpMembers(
      ctx, indent, "map", map(), [&ctx](const NexthopToViaNexthopMapEntry& entry, uint32_t at) {
        const NexthopIntfId& key = entry.nexthopIntfId();
        ctx.line(at, "interface %s, nexthop %s, viaNexthop %s\n", text(key.intfId()).c_str(),
                 text(key.nexthop()).c_str(), text(entry.viaNexthop()).c_str());
      });
}

void NexthopToViaNexthopMacMap::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "NexthopToViaNexthopMacMap\n");
  Core::dumpMembers(ctx, indent, "map", map(),
                    [&ctx](const NexthopToViaNexthopMacMapEntry& entry, uint32_t at) {
                      const NexthopIntfId& key = entry.nexthopIntfId();
                      ctx.line(at, "interface %s, nexthop %s, viaNexthop %s, macAddr %s\n",
                               text(key.intfId()).c_str(), text(key.nexthop()).c_str(),
                               text(entry.viaNexthop()).c_str(), text(entry.macAddr()).c_str());
                    });
}

void ViaNexthopMacToNhIndexMap::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "ViaNexthopMacToNhIndexMap - %s\n", vrfName_.c_str());
  Core::dumpMembers(
      ctx, indent, "map", map(), [&ctx](const ViaNexthopMacToNhIndexMapEntry& entry, uint32_t at) {
        const NexthopIntfId& key = entry.nexthopIntfId();
        ctx.line(at, "interface %s, nexthop %s, nhIndex %d\n", text(key.intfId()).c_str(),
                 text(key.nexthop()).c_str(), signedIndex(entry.nhIndex()));
      });
}

void ViaNexthopRequest::macAddrIs(Netval::EthAddr macAddr) {
  attributeIs(*this, macAddrAttr, macAddr_, macAddr);
}

void ViaNexthopRequest::addRequester(const Netval::IpGenAddr& nexthop) {
  // clang-format off
  CORE_ASSERT( !requesterCollHas( nexthop ) );
  // clang-format on
  requesterCollIs(nexthop);
}

void ViaNexthopRequest::delRequester(const Netval::IpGenAddr& nexthop) {
  // clang-format off
  CORE_ASSERT( requesterCollHas( nexthop ) );
  // clang-format on
  requesterCollDel(nexthop);
}

void ViaNexthopRequest::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  // Named after the key attribute, not the class: the via is what the reader looks for.
  ctx.line(indent, "ViaNexthopInfo - interface %s, nexthop %s\n",
           text(viaNexthopInfo_.intfId()).c_str(), text(viaNexthopInfo_.nexthop()).c_str());
  Core::dumpMembers(ctx, indent, "requesterColl", requesterColl(),
                    [&ctx](const Netval::IpGenAddr& nexthop, uint32_t at) {
                      ctx.line(at, "nexthop %s\n", text(nexthop).c_str());
                    });
  ctx.line(indent + 2, "macAddr - %s\n", macAddr_.isZero() ? "none" : text(macAddr_).c_str());
}

AllViaNexthopRequests::~AllViaNexthopRequests() {
  // The node is already marked as being destroyed (Node::destroy), so handlers that take a
  // reference to it while they hear these deletions cannot destroy it a second time.
  viaNexthopRequestDelAll();
}

ViaNexthopRequest::Ptr AllViaNexthopRequests::viaNexthopRequestIs(const NexthopIntfId& key) {
  return Core::childIs(viaNexthopRequest_, key, &ViaNexthopRequest::ViaNexthopRequestIs);
}

void RequesterColl::nhIndexFoundIs(bool nhIndexFound) {
  if (!nhIndexFound) lossIs();
  attributeIs(*this, nhIndexFoundAttr, nhIndexFound_, nhIndexFound);
}

void RequesterColl::nhIndexIs(uint32_t nhIndex) {
  attributeIs(*this, nhIndexAttr, nhIndex_, nhIndex);
}

void RequesterColl::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "RequesterColl - macAddr %s\n", text(macAddr_).c_str());
  ctx.line(indent + 2, "nhIndexFound - %s\n", nhIndexFound_ ? "yes" : "no");
  ctx.line(indent + 2, "nhIndex - %u\n", nhIndex_);
  Core::dumpMembers(ctx, indent, "requesterColl", requesterColl(),
                    [&ctx](const Netval::IpGenAddr& nexthop, uint32_t at) {
                      ctx.line(at, "nexthop - %s\n", text(nexthop).c_str());
                    });
}

bool IntfViaNexthopMacToNhIndexRequest::requesterCollIs(const RequesterColl::Ptr& group) {
  if (!group) {
    throw Core::NullArgumentError(
        "IntfViaNexthopMacToNhIndexRequest::requesterCollIs: null RequesterColl");
  }
  // A group filed under a MAC that has one replaces it, with whatever the old one held.
  if (requesterColl_.has(group->macAddr())) RequesterSet::lossIs();
  return requesterColl_.set(group);
}

void IntfViaNexthopMacToNhIndexRequest::addRequester(Netval::EthAddr macAddr,
                                                     const Netval::IpGenAddr& nexthop) {
  RequesterColl::Ptr macRequester = requesterColl(macAddr);
  if (macRequester) {
    // clang-format off
    CORE_ASSERT( !macRequester->requesterCollHas( nexthop ) );
    // clang-format on
  } else {
    // Watchers see the new group empty first and its first nexthop as a change of its own.
    macRequester = RequesterColl::RequesterCollIs(macAddr);
    requesterCollIs(macRequester);
  }
  macRequester->requesterCollIs(nexthop);
}

void IntfViaNexthopMacToNhIndexRequest::delRequester(Netval::EthAddr macAddr,
                                                     const Netval::IpGenAddr& nexthop) {
  RequesterColl::Ptr macRequester = requesterColl(macAddr);
  // clang-format off
  CORE_ASSERT( macRequester );
  CORE_ASSERT( macRequester->requesterCollHas( nexthop ) );
  // clang-format on
  macRequester->requesterCollDel(nexthop);
  // A group is never left empty; its found index goes with it. A handler of the removal may
  // have emptied and dropped the group and filed a new one under the MAC: that one stays.
  if (macRequester->requesterCollCount() == 0 && requesterColl(macAddr) == macRequester) {
    requesterCollDel(macAddr);
  }
}

void IntfViaNexthopMacToNhIndexRequest::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "IntfViaNexthopMacToNhIndexRequest - interface %s\n", text(intfId_).c_str());
  Core::dumpChildren(ctx, indent, "requesterColl", requesterColl_);
}

IntfViaNexthopMacToNhIndexRequest::Ptr AllIntfViaNexthopMacToNhIndexRequest::requestIs(
    Netval::IntfId intfId) {
  return Core::childIs(request_, intfId,
                       &IntfViaNexthopMacToNhIndexRequest::IntfViaNexthopMacToNhIndexRequestIs);
}

}  // namespace FwdL3Unicast

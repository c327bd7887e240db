#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "support/ChangeRecorder.h"

// Short builders for the values the resolver's tests pass around.
namespace FwdTest {

inline Netval::IpGenAddr ip(std::string_view text) { return Netval::IpGenAddr(text); }
inline Netval::IntfId intf(std::string_view name) { return Netval::IntfId(name); }
inline Netval::EthAddr mac(std::string_view text) { return Netval::EthAddr(text); }
inline L3::VrfName vrf(std::string_view name) { return L3::VrfName(name); }

inline FwdL3Unicast::NexthopIntfId nhIntf(std::string_view nexthop, std::string_view intfName) {
  return FwdL3Unicast::NexthopIntfId(ip(nexthop), intf(intfName));
}
inline FwdL3Unicast::NexthopNhIndexResolverKey key(std::string_view vrfName,
                                                   std::string_view nexthop,
                                                   std::string_view intfName) {
  return FwdL3Unicast::NexthopNhIndexResolverKey(vrf(vrfName), ip(nexthop), intf(intfName));
}

}  // namespace FwdTest

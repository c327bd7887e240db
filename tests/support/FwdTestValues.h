#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/CoreReactor.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"

// Short builders for the values the resolver's tests pass around, and a reactor that records
// the keys a notifier publishes.
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

// Watches one attribute of one notifier and records every key published for it, in order.
// `onChange`, when set, runs inside the publication (after the key is recorded).
template <class Key>
class KeyRecorder : public Core::Reactor {
 public:
  static Core::Ptr<KeyRecorder> KeyRecorderIs(const Core::Node* notifier, Core::AttrId attr) {
    return Core::Ptr<KeyRecorder>(new KeyRecorder(notifier, attr));
  }

  std::vector<Key> keys;
  std::function<void(const Key&)> onChange;

 private:
  KeyRecorder(const Core::Node* notifier, Core::AttrId attr) : slot_(this, attr, notifier) {}

  void handleKey(const Key& key) {
    keys.push_back(key);
    if (onChange) onChange(key);
  }

  Core::Slot<KeyRecorder, Key, &KeyRecorder::handleKey> slot_;
};

template <class Key>
Core::Ptr<KeyRecorder<Key>> recordKeys(const Core::Node* notifier, Core::AttrId attr) {
  return KeyRecorder<Key>::KeyRecorderIs(notifier, attr);
}

}  // namespace FwdTest

#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "framework/Core.h"

namespace TestSupport {

namespace detail {
// The notification values of one change, copied (they only live for the publication).
template <class Member>
struct ChangeValues {
  std::optional<Member> oldValue;
  std::optional<Member> newValue;
};
template <>
struct ChangeValues<void> {};
}  // namespace detail

// Records every change that one attribute of a notifier publishes: the keys in publication order
// and, when `Member` is given, the notification values anchored at that moment. Other attributes
// are ignored, as a reactor's slot ignores them. `onChange` runs inside the publication (after
// the change is recorded), as a client's handler would. A plain subscriber, not an entity: it
// does not count in Core::Node::liveCount() and does not keep the notifier alive.
template <class Key, class Member = void>
class ChangeRecorder : public Core::Subscriber {
 public:
  struct Change : detail::ChangeValues<Member> {
    Key key;
  };

  ChangeRecorder(const Core::Node& notifier, Core::AttrId attr)
      : Subscriber(&ChangeRecorder::record), notifier_(&notifier), attr_(attr) {
    subscribe(notifier.publisher());
  }

  std::vector<Key> keys;
  std::vector<Change> changes;
  std::function<void(const Key&)> onChange;

 private:
  static void record(Core::Subscriber& subscriber, Core::AttrId attr, const void* key) {
    auto& self = static_cast<ChangeRecorder&>(subscriber);
    if (attr != self.attr_) return;
    const Key& changed = *static_cast<const Key*>(key);
    Change change{};
    change.key = changed;
    if constexpr (!std::is_void_v<Member>) {
      const auto values = Core::getNotifyValues<Member>(self.notifier_, attr);
      EXPECT_TRUE(values.present);
      change.oldValue = copyOf(values.oldValue);
      change.newValue = copyOf(values.newValue);
    }
    self.keys.push_back(changed);
    self.changes.push_back(std::move(change));
    if (self.onChange) self.onChange(changed);
  }

  template <class V>
  static std::optional<V> copyOf(const V* value) {
    return value ? std::optional<V>(*value) : std::nullopt;
  }

  const Core::Node* notifier_;
  Core::AttrId attr_;
};

// A recorder on the heap, for tests that keep it in a variable or return it.
template <class Key, class Member = void>
std::unique_ptr<ChangeRecorder<Key, Member>> recordChanges(const Core::Node* notifier,
                                                           Core::AttrId attr) {
  return std::make_unique<ChangeRecorder<Key, Member>>(*notifier, attr);
}

}  // namespace TestSupport

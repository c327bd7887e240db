#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <vector>

#include "framework/Core.h"

namespace TestSupport {

// Records every publication of one attribute of an entity, with the notification values anchored
// at that moment (copied, since they only live for the publication). `onChange` runs inside the
// publication, as a client's handler would. A plain subscriber, not an entity: it does not count
// in Core::Node::liveCount().
template <class Key, class Member>
class ChangeRecorder : public Core::Subscriber {
 public:
  struct Change {
    Key key;
    std::optional<Member> oldValue;
    std::optional<Member> newValue;
  };

  ChangeRecorder(const Core::Node& node, Core::AttrId attr)
      : Subscriber(&ChangeRecorder::record), node_(&node), attr_(attr) {
    subscribe(node.publisher());
  }

  // The keys of the recorded changes, in publication order.
  std::vector<Key> keys() const {
    std::vector<Key> out;
    for (const Change& change : changes) out.push_back(change.key);
    return out;
  }

  std::vector<Change> changes;
  std::function<void(const Key&)> onChange;

 private:
  static void record(Core::Subscriber& subscriber, Core::AttrId attr, const void* key) {
    auto& self = static_cast<ChangeRecorder&>(subscriber);
    EXPECT_EQ(attr, self.attr_);
    const auto values = Core::getNotifyValues<Member>(self.node_, attr);
    EXPECT_TRUE(values.present);
    const Key& changed = *static_cast<const Key*>(key);
    self.changes.push_back({changed, copyOf(values.oldValue), copyOf(values.newValue)});
    if (self.onChange) self.onChange(changed);
  }

  static std::optional<Member> copyOf(const Member* value) {
    return value ? std::optional<Member>(*value) : std::nullopt;
  }

  const Core::Node* node_;
  Core::AttrId attr_;
};

}  // namespace TestSupport

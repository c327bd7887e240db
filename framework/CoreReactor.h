#pragma once

#include <algorithm>
#include <vector>

#include "framework/Core.h"

namespace Core {

class Reactor;

// One notifiee slot of a reactor: a subscription to a notifier's publisher that forwards changes
// of one watched attribute. Subscribed while the reactor's notifications are active and the
// notifier is set.
class SlotBase : public Subscriber {
 public:
  SlotBase(const SlotBase&) = delete;
  SlotBase& operator=(const SlotBase&) = delete;
  ~SlotBase();

  // Re-points the slot at another notifier (or none); replays nothing.
  void notifierIs(const Node* notifier);
  const Node* notifier() const { return notifier_; }
  AttrId attr() const { return attr_; }

 protected:
  SlotBase(Reactor* owner, AttrId attr, const Node* notifier, Dispatch dispatch);
  Reactor* owner() const { return owner_; }

 private:
  friend class Reactor;
  void activeIs(bool active);

  Reactor* owner_;
  AttrId attr_;
  const Node* notifier_;
};

// A reactor: an entity that watches notifier entities through its slots. Declare the slots as
// the last members so that they subscribe after the inputs are stored and are removed first
// when the reactor is destroyed (or when its constructor throws).
class Reactor : public Node {
 public:
  bool hasNotificationActive() const { return active_; }
  // Subscribes (on) or unsubscribes (off) every slot of this reactor; reactors that own nested
  // reactors extend it to reach them. Switching on replays nothing.
  virtual void hasNotificationActiveIs(bool active);

 protected:
  Reactor() = default;

 private:
  friend class SlotBase;
  std::vector<SlotBase*> slots_;
  bool active_ = true;
};

// A slot whose handler is a member function of the owner taking the changed key.
// Example: Slot<Root, NexthopNhIndexResolverKey, &Root::handleConfig>.
template <class Owner, class Key, auto Handler>
class Slot : public SlotBase {
 public:
  Slot(Owner* owner, AttrId attr, const Node* notifier = nullptr)
      : SlotBase(owner, attr, notifier, &Slot::dispatch) {}

 private:
  static void dispatch(Subscriber& subscriber, AttrId attr, const void* key) {
    auto& self = static_cast<Slot&>(subscriber);
    if (attr != self.attr()) return;
    Owner* owner = static_cast<Owner*>(self.owner());
    if (!owner->hasNotificationActive()) return;
    KeepAlive keep(owner);
    (owner->*Handler)(*static_cast<const Key*>(key));
  }
};

}  // namespace Core

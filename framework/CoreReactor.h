#pragma once

#include <algorithm>
#include <vector>

#include "framework/Core.h"

// The reactive model
//
// State lives in entities (Core::Node, held through Core::Ptr). An entity that others watch is a
// notifier: each insert, change or delete of a member of one of its keyed collections publishes
// one change on the entity's Publisher, carrying the collection's attribute id and a pointer to
// the member's key (an insert of an equal member publishes nothing).
//
// A reactor (Reactor, classes named ...Sm) watches notifiers through slots, one Slot per watched
// collection. A slot ignores every other attribute and calls the reactor's per-key handler with
// the key, e.g. handleConfig(key).
//
// Handlers are level-triggered: they receive only the key, look it up in the notifier and treat
// present as added-or-changed, absent as deleted. A notification does not promise that the value
// changed. Handlers that need the previous value read the notification values the collection
// anchors for the publication (Core::getNotifyValues), the old value as a delete and the new
// one as an add.
//
// Delivery is synchronous: the writer's insert or delete calls every subscribed handler before
// it returns, one at a time, on the writer's thread. Nothing is queued or coalesced.
//
// Re-entrancy: a handler that writes a collection publishes at once, so it may re-enter other
// handlers (also its own reactor's) before it returns. Handlers must therefore be idempotent and
// must not keep references to collection members across their own writes. A slot keeps its
// reactor alive while its handler runs; a slot unsubscribed during a publication is not called
// again, one subscribed during it first hears the next publication.
//
// Activation: a reactor's notifications are on from construction unless switched off.
// hasNotificationActiveIs(false) unsubscribes every slot, and a handler whose reactor is inactive
// is not called; hasNotificationActiveIs(true) subscribes them again and replays nothing. A
// reactor reconciles with its inputs once, in handleInitialized(), which its constructor calls
// after storing its inputs and subscribing its slots.
//
// Nested reactors: a reactor may own one nested reactor (NestedSm_<attribute>) per member of a
// watched collection of child entities. The nested reactor holds an uncounted back pointer to its
// owner, watches its child through its own slot (re-pointed with notifierIs) and forwards the
// child's changes to the owner. An owner that has nested reactors overrides
// hasNotificationActiveIs to switch them too.
//
// Clean-up order: the owner of a reactor calls its doCleanup(), which withdraws everything the
// reactor wrote outside itself, and then drops its last reference. The destructor first
// unsubscribes, then releases: a reactor with nested reactors switches its notifications off and
// drops them in its destructor's body; the slots, declared as the last members, are destroyed
// before the other members, which go in reverse order of declaration. A constructor that throws
// unwinds the same way (slots first).

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

// The handler of a Slot: a member function of the owner that takes the changed key, by const
// reference or by value. Typed, so that naming an overloaded handler (handleConfig(key) next to
// handleConfig()) picks the per-key overload without a cast.
template <class Owner, class Key>
struct KeyHandler {
  using ByRef = void (Owner::*)(const Key&);
  using ByValue = void (Owner::*)(Key);
  constexpr KeyHandler(ByRef handler) : byRef(handler), takesRef(true) {}
  constexpr KeyHandler(ByValue handler) : byValue(handler) {}

  // Public: a template argument's type must be structural.
  ByRef byRef = nullptr;
  ByValue byValue = nullptr;
  // Which of the two is set. A flag rather than a comparison of the member pointer with null,
  // which GCC does not take as a constant expression under -fsanitize=undefined.
  bool takesRef = false;
};

// A slot whose handler is a member function of the owner taking the changed key.
// Example: Slot<Root, NexthopNhIndexResolverKey, &Root::handleConfig>.
template <class Owner, class Key, KeyHandler<Owner, Key> Handler>
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
    const Key& changed = *static_cast<const Key*>(key);
    if constexpr (Handler.takesRef) {
      (owner->*Handler.byRef)(changed);
    } else {
      (owner->*Handler.byValue)(changed);
    }
  }
};

}  // namespace Core

#include "framework/CoreReactor.h"

namespace Core {

SlotBase::SlotBase(Reactor* owner, AttrId attr, const Node* notifier, Dispatch dispatch)
    : Subscriber(dispatch), owner_(owner), attr_(attr), notifier_(notifier) {
  owner_->slots_.push_back(this);
  activeIs(owner_->active_);
}

SlotBase::~SlotBase() {
  unsubscribe();
  auto& slots = owner_->slots_;
  slots.erase(std::find(slots.begin(), slots.end(), this));
}

void SlotBase::notifierIs(const Node* notifier) {
  if (notifier == notifier_) return;
  unsubscribe();
  notifier_ = notifier;
  activeIs(owner_->active_);
}

void SlotBase::activeIs(bool active) {
  if (active && notifier_) {
    subscribe(notifier_->publisher());
  } else {
    unsubscribe();
  }
}

void Reactor::hasNotificationActiveIs(bool active) {
  active_ = active;
  for (SlotBase* slot : slots_) slot->activeIs(active);
}

}  // namespace Core

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/CoreCollection.h"
#include "framework/CoreReactor.h"

namespace {

using Core::AttrId;
using Core::Ptr;

struct Box : Core::Node {
  static constexpr AttrId keysAttr = 1;
  static constexpr AttrId otherAttr = 2;
  Core::KeySet<uint32_t> keys{this, keysAttr};
  Core::KeySet<uint32_t> other{this, otherAttr};
};

std::vector<std::string>& journal() {
  static std::vector<std::string> entries;
  return entries;
}

// An attribute that records its own release in the journal.
struct Tracked : Core::Node {
  explicit Tracked(std::string name) : name_(std::move(name)) {}
  ~Tracked() override { journal().push_back("release " + name_); }
  std::string name_;
};

struct Watcher : Core::Reactor {
  explicit Watcher(Ptr<Box> box, bool throwInInit = false)
      : first_(Core::makePtr<Tracked>("first")),
        box_(std::move(box)),
        second_(Core::makePtr<Tracked>("second")),
        slot_(this, Box::keysAttr, box_.get()) {
    handleInitialized(throwInInit);
  }
  void handleInitialized(bool throwInInit) {
    // The slot is live already: a write here reaches handleKey.
    box_->keys.set(1000);
    if (throwInInit) throw std::runtime_error("init failed");
  }
  void handleKey(const uint32_t& key) {
    seen.push_back(key);
    if (onKey) onKey(key);
  }
  std::vector<uint32_t> seen;
  std::function<void(uint32_t)> onKey;

  Ptr<Tracked> first_;
  Ptr<Box> box_;
  Ptr<Tracked> second_;
  Core::Slot<Watcher, uint32_t, &Watcher::handleKey> slot_;
};

TEST(Reactor, HandlersRunDuringInitialization) {
  auto box = Core::makePtr<Box>();
  auto w = Core::makePtr<Watcher>(box);
  EXPECT_EQ(w->seen, std::vector<uint32_t>{1000});
}

TEST(Reactor, OtherAttributesAreIgnored) {
  auto box = Core::makePtr<Box>();
  auto w = Core::makePtr<Watcher>(box);
  box->other.set(1);
  box->keys.set(2);
  EXPECT_EQ(w->seen, (std::vector<uint32_t>{1000, 2}));
}

// Overloaded handlers named without a cast: the slot picks the per-key overload, taken by
// const reference or by value.
struct OverloadWatcher : Core::Reactor {
  explicit OverloadWatcher(Ptr<Box> box) : box_(std::move(box)) {}
  void handleKeys() { wholeCalls += 1; }
  void handleKeys(const uint32_t& key) { byRef.push_back(key); }
  void handleOther() { wholeCalls += 1; }
  void handleOther(uint32_t key) { byValue.push_back(key); }

  int wholeCalls = 0;
  std::vector<uint32_t> byRef;
  std::vector<uint32_t> byValue;
  Ptr<Box> box_;
  Core::Slot<OverloadWatcher, uint32_t, &OverloadWatcher::handleKeys> keysSlot_{this, Box::keysAttr,
                                                                                box_.get()};
  Core::Slot<OverloadWatcher, uint32_t, &OverloadWatcher::handleOther> otherSlot_{
      this, Box::otherAttr, box_.get()};
};

TEST(Reactor, SlotPicksThePerKeyOverloadOfAHandler) {
  auto box = Core::makePtr<Box>();
  auto w = Core::makePtr<OverloadWatcher>(box);
  box->keys.set(1);
  box->other.set(2);
  EXPECT_EQ(w->byRef, std::vector<uint32_t>{1});
  EXPECT_EQ(w->byValue, std::vector<uint32_t>{2});
  EXPECT_EQ(w->wholeCalls, 0);
}

TEST(Reactor, SwitchedOffReactorHearsNothingAndSwitchingOnReplaysNothing) {
  auto box = Core::makePtr<Box>();
  auto w = Core::makePtr<Watcher>(box);
  w->hasNotificationActiveIs(false);
  box->keys.set(1);
  EXPECT_FALSE(box->hasSubscribers());
  w->hasNotificationActiveIs(true);
  EXPECT_TRUE(w->hasNotificationActive());
  box->keys.set(2);
  EXPECT_EQ(w->seen, (std::vector<uint32_t>{1000, 2}));
}

TEST(Reactor, ReactorSwitchedOffDuringAPublicationIsNotCalled) {
  auto box = Core::makePtr<Box>();
  auto first = Core::makePtr<Watcher>(box);
  auto second = Core::makePtr<Watcher>(box);
  first->onKey = [&](uint32_t) { second->hasNotificationActiveIs(false); };
  second->seen.clear();
  box->keys.set(5);
  EXPECT_TRUE(second->seen.empty());
}

TEST(Reactor, ReactorDestroyedDuringAPublicationIsNotCalled) {
  auto box = Core::makePtr<Box>();
  auto first = Core::makePtr<Watcher>(box);
  auto second = Core::makePtr<Watcher>(box);
  int secondCalls = 0;
  second->onKey = [&](uint32_t) { ++secondCalls; };
  first->onKey = [&](uint32_t) { second = nullptr; };
  box->keys.set(5);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(secondCalls, 0);
}

TEST(Reactor, ReactorReleasingItselfInItsHandlerSurvivesUntilTheHandlerReturns) {
  auto box = Core::makePtr<Box>();
  auto w = Core::makePtr<Watcher>(box);
  bool stillUsable = false;
  w->onKey = [&](uint32_t) {
    Watcher* self = w.get();
    w = nullptr;
    stillUsable = self->seen.size() == 2;
  };
  box->keys.set(5);
  EXPECT_TRUE(stillUsable);
}

TEST(Reactor, DestructionRemovesSlotsThenReleasesAttributesInReverseOrder) {
  auto box = Core::makePtr<Box>();
  journal().clear();
  auto w = Core::makePtr<Watcher>(box);
  w = nullptr;
  EXPECT_FALSE(box->hasSubscribers());
  EXPECT_EQ(journal(), (std::vector<std::string>{"release second", "release first"}));
}

TEST(Reactor, ConstructorThrowUnwindsSlotsThenAttributes) {
  const int64_t before = Core::Node::liveCount();
  auto box = Core::makePtr<Box>();
  journal().clear();
  EXPECT_THROW(Core::makePtr<Watcher>(box, true), std::runtime_error);
  EXPECT_FALSE(box->hasSubscribers());
  EXPECT_EQ(journal(), (std::vector<std::string>{"release second", "release first"}));
  box = nullptr;
  EXPECT_EQ(Core::Node::liveCount(), before);
}

// An owner with nested reactors, one per watched child box.
struct Owner;
struct NestedSm_Box : Core::Reactor {
  NestedSm_Box(Ptr<Box> box, Owner* owner) : box_(std::move(box)), owner_(owner) {
    slot_.notifierIs(box_.get());
  }
  void notifierIs(Ptr<Box> box) {
    box_ = std::move(box);
    slot_.notifierIs(box_.get());
  }
  void handleKey(const uint32_t& key);
  Ptr<Box> box_;
  Owner* owner_;
  Core::Slot<NestedSm_Box, uint32_t, &NestedSm_Box::handleKey> slot_{this, Box::keysAttr};
};
struct Owner : Core::Reactor {
  void hasNotificationActiveIs(bool active) override {
    Core::Reactor::hasNotificationActiveIs(active);
    if (nested) nested->hasNotificationActiveIs(active);
  }
  std::vector<uint32_t> forwarded;
  Ptr<NestedSm_Box> nested;
};
void NestedSm_Box::handleKey(const uint32_t& key) { owner_->forwarded.push_back(key); }

TEST(Reactor, NestedReactorFollowsItsNotifierWhenRepointed) {
  auto a = Core::makePtr<Box>();
  auto b = Core::makePtr<Box>();
  auto owner = Core::makePtr<Owner>();
  owner->nested = Core::makePtr<NestedSm_Box>(a, owner.get());
  a->keys.set(1);
  owner->nested->notifierIs(b);
  a->keys.set(2);
  b->keys.set(3);
  EXPECT_FALSE(a->hasSubscribers());
  EXPECT_EQ(owner->forwarded, (std::vector<uint32_t>{1, 3}));
}

TEST(Reactor, SwitchingTheOwnerOffReachesNestedReactors) {
  auto a = Core::makePtr<Box>();
  auto owner = Core::makePtr<Owner>();
  owner->nested = Core::makePtr<NestedSm_Box>(a, owner.get());
  owner->hasNotificationActiveIs(false);
  a->keys.set(1);
  EXPECT_TRUE(owner->forwarded.empty());
  owner->hasNotificationActiveIs(true);
  a->keys.set(2);
  EXPECT_EQ(owner->forwarded, std::vector<uint32_t>{2});
}

}  // namespace

namespace {

TEST(Reactor, HandlerThrowingLeavesThePublisherUsable) {
  auto box = Core::makePtr<Box>();
  auto first = Core::makePtr<Watcher>(box);
  auto second = Core::makePtr<Watcher>(box);
  first->onKey = [&](uint32_t) {
    second = nullptr;
    throw std::runtime_error("handler failed");
  };
  EXPECT_THROW(box->keys.set(5), std::runtime_error);
  first->onKey = nullptr;
  // The vacated entry of the destroyed reactor is gone and later publications reach the rest.
  EXPECT_EQ(box->publisher().subscriberCount(), 1u);
  box->keys.set(6);
  EXPECT_EQ(first->seen.back(), 6u);
}

}  // namespace

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "framework/Assert.h"

// The object runtime: reference-counted entities (Node, Ptr), their change publishers, and the
// notification values that a publication anchors for its handlers.
namespace Core {

class DumpContext;
class Publisher;

// Exceptions raised by the framework's mutators.
struct NullArgumentError : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};
struct ReinstantiationError : std::logic_error {
  using std::logic_error::logic_error;
};

// Identifies one attribute of an entity type in a publication.
using AttrId = uint32_t;

namespace detail {
inline std::atomic<bool> threadSafeFlag{false};
}  // namespace detail

// Process-wide flag: use counts are updated atomically only while it is set.
inline void threadSafeIs(bool threadSafe) {
  detail::threadSafeFlag.store(threadSafe, std::memory_order_relaxed);
}
inline bool threadSafe() { return detail::threadSafeFlag.load(std::memory_order_relaxed); }

class Subscriber;

// The change channel of one entity. Subscribers may subscribe and unsubscribe at any time, also
// while a publication is under way: a subscriber removed during a publication is not called
// again; one added during a publication first hears the next one.
class Publisher {
 public:
  Publisher() = default;
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;
  ~Publisher();

  void subscribe(Subscriber& subscriber);
  void unsubscribe(Subscriber& subscriber);
  bool hasSubscribers() const { return list_ && list_->subscribers.size() > list_->vacant; }
  size_t subscriberCount() const { return list_ ? list_->subscribers.size() - list_->vacant : 0; }

  // Calls every subscriber with the attribute and a pointer to the changed key.
  void publish(AttrId attr, const void* key);

 private:
  void compact();

  // Allocated with the first subscription: most entities are never watched, and an entity
  // costs one pointer for its publisher until they are.
  struct List {
    std::vector<Subscriber*> subscribers;
    uint32_t depth = 0;   // publications under way on this publisher
    uint32_t vacant = 0;  // entries vacated during a publication, removed afterwards
  };
  std::unique_ptr<List> list_;
};

// One registration on a publisher, with its dispatch function.
class Subscriber {
 public:
  using Dispatch = void (*)(Subscriber& self, AttrId attr, const void* key);
  explicit Subscriber(Dispatch dispatch) : dispatch_(dispatch) {}
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;
  ~Subscriber() { unsubscribe(); }

  void subscribe(Publisher& publisher);
  void unsubscribe();
  bool subscribed() const { return publisher_ != nullptr; }
  Publisher* publisher() const { return publisher_; }

 private:
  friend class Publisher;
  Dispatch dispatch_;
  Publisher* publisher_ = nullptr;
  size_t index_ = 0;
};

// Base of every entity: an intrusive use count, a publisher and a live-instance counter.
// Construct entities through their factories and hold them in Ptr; never delete one directly.
// A constructor must not make a counted reference to the object under construction.
class Node {
 public:
  Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  virtual ~Node();

  // Entities come from the global operator new; these add memory accounting (CoreMemory.h).
  static void* operator new(size_t bytes);
  static void* operator new(size_t bytes, std::align_val_t align);
  static void operator delete(void* block, size_t bytes) noexcept;
  static void operator delete(void* block, size_t bytes, std::align_val_t align) noexcept;

  void ref() const {
    if (threadSafe()) {
      std::atomic_ref<uint32_t>(refs_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++refs_;
    }
  }
  void unref() const {
    uint32_t left =
        threadSafe() ? std::atomic_ref<uint32_t>(refs_).fetch_sub(1, std::memory_order_acq_rel) - 1
                     : --refs_;
    if (left == 0) destroy();
  }
  uint32_t useCount() const { return refs_; }

  Publisher& publisher() const { return publisher_; }
  bool hasSubscribers() const { return publisher_.hasSubscribers(); }

  // Publishes one change of `attr`; the node stays alive until every subscriber has returned.
  void notify(AttrId attr, const void* key) const;

  virtual std::string_view typeName() const { return "Core::Node"; }
  // Prints the node's state. The default is the generic dump: the type name alone.
  virtual void dumpState(DumpContext& ctx, uint32_t indent) const;

  // Number of entities alive in the process.
  static int64_t liveCount();

 private:
  friend class KeepAlive;
  // Set while the destructor runs so that references taken inside it never destroy twice.
  static constexpr uint32_t kDestroying = 0x40000000u;
  void destroy() const;

  // The count last: an entity's own members may then fill the padding after it.
  mutable Publisher publisher_;
  mutable uint32_t refs_ = 0;
};

// Holds a node alive for a scope if somebody already holds it (not during its constructor or
// destructor).
class KeepAlive {
 public:
  explicit KeepAlive(const Node* node) : node_(node && node->refs_ != 0 ? node : nullptr) {
    if (node_) node_->ref();
  }
  KeepAlive(const KeepAlive&) = delete;
  KeepAlive& operator=(const KeepAlive&) = delete;
  ~KeepAlive() {
    if (node_) node_->unref();
  }

 private:
  const Node* node_;
};

// Counted reference to an entity. Ptr<T const> is the read-only view.
template <class T>
class Ptr {
 public:
  using element_type = T;
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  explicit Ptr(T* p) : p_(p) {
    if (p_) p_->ref();
  }
  Ptr(const Ptr& o) : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& o) : Ptr(o.get()) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& o)
  noexcept : p_(o.release()) {}
  ~Ptr() {
    if (p_) p_->unref();
  }
  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  // Gives up the reference without releasing it.
  T* release() { return std::exchange(p_, nullptr); }

  friend bool operator==(const Ptr& a, const Ptr& b) { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

// Notification values: while a collection publishes a change it anchors the member's old value
// (null for an insertion) and new value (null for a deletion) under (entity, attribute, type).
// Handlers running inside that publication read them; outside a publication there are none.
template <class V>
struct NotifyValues {
  const V* oldValue = nullptr;
  const V* newValue = nullptr;
  bool present = false;  // true inside a publication of that (entity, attribute)
};

namespace detail {
struct NotifyFrame {
  const Node* entity;
  AttrId attr;
  const void* type;
  const void* oldValue;
  const void* newValue;
};
// The anchored pairs of the publications under way on this thread, innermost last. Handlers
// nest publications only as deep as the module's pipeline chains writes, far below the bound.
inline constexpr uint32_t kMaxNotifyDepth = 256;
struct NotifyStack {
  NotifyFrame frames[kMaxNotifyDepth];
  uint32_t depth;
};
inline constinit thread_local NotifyStack notifyStack{};
template <class V>
const void* typeTag() {
  static const char tag = 0;
  return &tag;
}
const NotifyFrame* findNotifyFrame(const Node* entity, AttrId attr);
}  // namespace detail

// Anchors a value pair for the duration of one publication.
class NotifyScope {
 public:
  template <class V>
  NotifyScope(const Node* entity, AttrId attr, const V* oldValue, const V* newValue) {
    detail::NotifyStack& stack = detail::notifyStack;
    CORE_ASSERT(stack.depth < detail::kMaxNotifyDepth);
    stack.frames[stack.depth++] = {entity, attr, detail::typeTag<V>(), oldValue, newValue};
  }
  NotifyScope(const NotifyScope&) = delete;
  NotifyScope& operator=(const NotifyScope&) = delete;
  ~NotifyScope() { --detail::notifyStack.depth; }
};

template <class V>
NotifyValues<V> getNotifyValues(const Node* entity, AttrId attr) {
  const detail::NotifyFrame* frame = detail::findNotifyFrame(entity, attr);
  if (!frame) return {};
  CORE_ASSERT(frame->type == detail::typeTag<V>());
  return {static_cast<const V*>(frame->oldValue), static_cast<const V*>(frame->newValue), true};
}

}  // namespace Core

#include "framework/Core.h"

#include "framework/CoreDump.h"
#include "framework/CoreMemory.h"

namespace Core {

namespace {
std::atomic<int64_t> liveNodes{0};
}  // namespace

Publisher::~Publisher() {
  if (!list_) return;
  for (Subscriber* s : list_->subscribers) {
    if (s) s->publisher_ = nullptr;
  }
}

void Publisher::subscribe(Subscriber& subscriber) {
  if (!list_) list_ = std::make_unique<List>();
  subscriber.publisher_ = this;
  subscriber.index_ = list_->subscribers.size();
  list_->subscribers.push_back(&subscriber);
}

void Publisher::unsubscribe(Subscriber& subscriber) {
  CORE_ASSERT(subscriber.publisher_ == this &&
              list_->subscribers[subscriber.index_] == &subscriber);
  subscriber.publisher_ = nullptr;
  list_->subscribers[subscriber.index_] = nullptr;
  ++list_->vacant;
  if (list_->depth == 0) compact();
}

void Publisher::compact() {
  auto& subscribers = list_->subscribers;
  size_t out = 0;
  for (Subscriber* s : subscribers) {
    if (!s) continue;
    s->index_ = out;
    subscribers[out++] = s;
  }
  subscribers.resize(out);
  list_->vacant = 0;
}

void Publisher::publish(AttrId attr, const void* key) {
  if (!list_) return;
  List& list = *list_;
  // Leaves the publication also when a handler throws, so that vacated entries are compacted.
  struct Depth {
    Publisher& publisher;
    List& list;
    Depth(Publisher& p, List& l) : publisher(p), list(l) { ++list.depth; }
    ~Depth() {
      if (--list.depth == 0 && list.vacant != 0) publisher.compact();
    }
  } depth(*this, list);
  // Subscribers added by a handler sit beyond `count` and first hear the next publication.
  const size_t count = list.subscribers.size();
  for (size_t i = 0; i < count; ++i) {
    Subscriber* s = list.subscribers[i];
    if (s) s->dispatch_(*s, attr, key);
  }
}

void Subscriber::subscribe(Publisher& publisher) {
  if (publisher_ == &publisher) return;
  unsubscribe();
  publisher.subscribe(*this);
}

void Subscriber::unsubscribe() {
  if (publisher_) publisher_->unsubscribe(*this);
}

namespace {
// As use counts: a locked update only while the process runs threads that share entities.
void liveNodesAdd(int64_t delta) {
  if (threadSafe()) {
    liveNodes.fetch_add(delta, std::memory_order_relaxed);
  } else {
    liveNodes.store(liveNodes.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
  }
}
}  // namespace

Node::Node() {
  liveNodesAdd(1);
  if (detail::memoryAccounting()) detail::entityConstructed(this);
}

void* Node::operator new(size_t bytes) {
  void* block = ::operator new(bytes);
  if (detail::memoryAccounting()) detail::entityAllocated(block, bytes);
  return block;
}

void* Node::operator new(size_t bytes, std::align_val_t align) {
  void* block = ::operator new(bytes, align);
  if (detail::memoryAccounting()) detail::entityAllocated(block, bytes);
  return block;
}

// Clang declares the sized global forms only with -fsized-deallocation; the unsized ones free
// the same block.
void Node::operator delete(void* block, [[maybe_unused]] size_t bytes) noexcept {
  if (detail::memoryAccounting()) detail::entityFreed(block);
#if defined(__cpp_sized_deallocation)
  ::operator delete(block, bytes);
#else
  ::operator delete(block);
#endif
}

void Node::operator delete(void* block, [[maybe_unused]] size_t bytes,
                           std::align_val_t align) noexcept {
  if (detail::memoryAccounting()) detail::entityFreed(block);
#if defined(__cpp_sized_deallocation)
  ::operator delete(block, bytes, align);
#else
  ::operator delete(block, align);
#endif
}

Node::~Node() { liveNodesAdd(-1); }

int64_t Node::liveCount() { return liveNodes.load(std::memory_order_relaxed); }

void Node::destroy() const {
  refs_ = kDestroying;
  delete this;
}

void Node::notify(AttrId attr, const void* key) const {
  if (!publisher_.hasSubscribers()) return;
  KeepAlive keep(this);
  publisher_.publish(attr, key);
}

void Node::dumpState(DumpContext& ctx, uint32_t indent) const { ctx.genericDump(*this, indent); }

namespace detail {

const NotifyFrame* findNotifyFrame(const Node* entity, AttrId attr) {
  const NotifyStack& stack = notifyStack;
  for (uint32_t i = stack.depth; i-- > 0;) {
    const NotifyFrame& frame = stack.frames[i];
    if (frame.entity == entity && frame.attr == attr) return &frame;
  }
  return nullptr;
}

}  // namespace detail

}  // namespace Core

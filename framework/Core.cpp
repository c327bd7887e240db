#include "framework/Core.h"

#include "framework/CoreDump.h"

namespace Core {

namespace {
std::atomic<bool> threadSafeFlag{false};
std::atomic<int64_t> liveNodes{0};
}  // namespace

void threadSafeIs(bool threadSafe) { threadSafeFlag.store(threadSafe, std::memory_order_relaxed); }
bool threadSafe() { return threadSafeFlag.load(std::memory_order_relaxed); }

Publisher::~Publisher() {
  for (Subscriber* s : subscribers_) {
    if (s) s->publisher_ = nullptr;
  }
}

void Publisher::subscribe(Subscriber& subscriber) {
  subscriber.publisher_ = this;
  subscriber.index_ = subscribers_.size();
  subscribers_.push_back(&subscriber);
}

void Publisher::unsubscribe(Subscriber& subscriber) {
  CORE_ASSERT(subscriber.publisher_ == this && subscribers_[subscriber.index_] == &subscriber);
  subscriber.publisher_ = nullptr;
  subscribers_[subscriber.index_] = nullptr;
  ++vacant_;
  if (depth_ == 0) compact();
}

void Publisher::compact() {
  size_t out = 0;
  for (Subscriber* s : subscribers_) {
    if (!s) continue;
    s->index_ = out;
    subscribers_[out++] = s;
  }
  subscribers_.resize(out);
  vacant_ = 0;
}

void Publisher::publish(AttrId attr, const void* key) {
  // Leaves the publication also when a handler throws, so that vacated entries are compacted.
  struct Depth {
    Publisher& publisher;
    explicit Depth(Publisher& p) : publisher(p) { ++publisher.depth_; }
    ~Depth() {
      if (--publisher.depth_ == 0 && publisher.vacant_ != 0) publisher.compact();
    }
  } depth(*this);
  // Subscribers added by a handler sit beyond `count` and first hear the next publication.
  const size_t count = subscribers_.size();
  for (size_t i = 0; i < count; ++i) {
    Subscriber* s = subscribers_[i];
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

Node::Node() { liveNodes.fetch_add(1, std::memory_order_relaxed); }

Node::~Node() { liveNodes.fetch_sub(1, std::memory_order_relaxed); }

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

std::vector<NotifyFrame>& notifyFrames() {
  thread_local std::vector<NotifyFrame> frames = [] {
    std::vector<NotifyFrame> v;
    v.reserve(64);
    return v;
  }();
  return frames;
}

const NotifyFrame* findNotifyFrame(const Node* entity, AttrId attr) {
  auto& frames = notifyFrames();
  for (auto it = frames.rbegin(); it != frames.rend(); ++it) {
    if (it->entity == entity && it->attr == attr) return &*it;
  }
  return nullptr;
}

}  // namespace detail

}  // namespace Core

#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

#include "framework/Assert.h"
#include "framework/CoreHash.h"
#include "framework/CoreMemory.h"
#include "framework/CoreSignature.h"
#include "framework/detail/CoreControlGroup.h"

namespace Core {

// A fixed seed per key type, taken from the type's name as GCC spells it whichever compiler
// builds, so that table layouts (and so iteration orders, dumps and traces) are the same in every
// run and with every compiler.
template <class Key>
consteval uint32_t keySeed() {
  return keySeedOf(__PRETTY_FUNCTION__);
}

namespace detail {
// The compiler's name of this function names a table's key and member types: memory accounting
// files table blocks under it.
template <class Key, class Slot>
constexpr std::string_view tableTypes() {
  return __PRETTY_FUNCTION__;
}
}  // namespace detail

// Open-addressing hash table with linear probing over a separate byte of control data per slot
// (empty, deleted, or seven bits of the key's hash), read a group at a time where the table is
// that large. Erasing never moves another member, so a position stays valid while members are
// erased around it.
// Inserting may grow or rebuild the table: it invalidates pointers to members and the positions
// of iterations under way (such an iteration stays memory-safe but may skip or repeat members).
template <class Key, class Slot, class KeyOf>
class HashTable {
 public:
  HashTable() = default;
  HashTable(const HashTable&) = delete;
  HashTable& operator=(const HashTable&) = delete;
  ~HashTable() { release(); }

  size_t size() const { return size_; }
  size_t capacity() const { return capacity_; }
  bool empty() const { return size_ == 0; }

  // The hash a key has in this table; find() and insertNew() take it so that a look-up followed
  // by an insert hashes the key once.
  static uint32_t hashKey(const Key& key) { return hashOf(key, kSeed); }

  Slot* find(const Key& key) const { return size_ == 0 ? nullptr : find(key, hashKey(key)); }
  Slot* find(const Key& key, uint32_t h) const {
    if (size_ == 0) return nullptr;
    const uint8_t tag = tagOf(h);
    const uint8_t* ctrl = this->ctrl();
    size_t i = home(h);
    // Most hits are at the home position. Its member is compared first, on its own: the
    // processor predicts the test and fetches the member while the control byte is still on its
    // way, where a search of the group would wait for the control bytes to know what to fetch.
    if (ctrl[i] == tag && KeyOf()(slots_[i]) == key) return &slots_[i];
    for (;;) {
      if (i + ProbeGroup::kPositions > capacity_) {
        // A small table, or the last positions of a large one: byte by byte.
        const uint8_t c = ctrl[i];
        if (c == tag && KeyOf()(slots_[i]) == key) return &slots_[i];
        if (c == kEmpty) return nullptr;
        i = next(i);
        continue;
      }
      // A group of positions at a time, so that whether the probe goes on is one predictable
      // test rather than one per position. The home member may be compared again, when its tag
      // matched another key: rare enough not to be worth a test.
      const detail::ProbeMarks marks = ProbeGroup::probe(ctrl, i, tag);
      for (uint64_t tags = marks.tags; tags != 0; tags &= tags - 1) {
        Slot& slot = slots_[i + ProbeGroup::position(tags)];
        if (KeyOf()(slot) == key) return &slot;
      }
      if (marks.empties != 0) return nullptr;
      i = after<ProbeGroup>(i);
    }
  }

  // Inserts a member whose key is not present (checked by the caller).
  template <class... Args>
  Slot* emplaceNew(Args&&... args) {
    // Build first: the key is read from the member itself.
    Slot value(std::forward<Args>(args)...);
    return insertNew(hashKey(KeyOf()(value)), std::move(value));
  }

  // As emplaceNew, for a member whose key hashes to `h` (from hashKey).
  Slot* insertNew(uint32_t h, Slot&& value) {
    if ((size_t{size_} + tombstones_ + 1) * 4 > size_t{capacity_} * 3) rebuild();
    uint8_t* ctrl = this->ctrl();
    prefetchHome(h);
    const size_t i = firstFree(home(h));
    if (ctrl[i] == kTombstone) --tombstones_;
    ctrl[i] = tagOf(h);
    ++size_;
    return new (&slots_[i]) Slot(std::move(value));
  }

  // Destroys the member. Its position becomes a tombstone, or empty when the next position is
  // empty (no probe runs on through it), and then so do the tombstones right before it: a table
  // that members pass through one at a time (a queue) never fills up with tombstones and rebuilds.
  void erase(Slot* slot) {
    const size_t i = static_cast<size_t>(slot - slots_);
    uint8_t* ctrl = this->ctrl();
    CORE_ASSERT(i < capacity_ && ctrl[i] < kTombstone);
    --size_;
    if (ctrl[next(i)] != kEmpty) {
      ctrl[i] = kTombstone;
      ++tombstones_;
    } else {
      ctrl[i] = kEmpty;
      for (size_t j = previous(i); ctrl[j] == kTombstone; j = previous(j)) {
        ctrl[j] = kEmpty;
        --tombstones_;
      }
    }
    slot->~Slot();
  }

  // Destroys every member and frees the storage.
  void clear() { release(); }

  // Position of the first member at or after `from`, or capacity() when there is none.
  size_t nextOccupied(size_t from) const {
    const uint8_t* ctrl = this->ctrl();
    while (from + kGroup <= capacity_) {
      const uint64_t members = Group::memberMarks(Group::at(ctrl, from));
      if (members != 0) return from + Group::position(members);
      from += kGroup;
    }
    while (from < capacity_ && ctrl[from] >= kTombstone) ++from;
    return from < capacity_ ? from : capacity_;
  }
  Slot& at(size_t position) const { return slots_[position]; }

 private:
  static constexpr uint8_t kEmpty = detail::kCtrlEmpty;
  static constexpr uint8_t kTombstone = detail::kCtrlDeleted;
  static constexpr uint32_t kSeed = keySeed<Key>();
  // Small: most tables of the module hold one or a few members (a next hop's interfaces).
  static constexpr size_t kMinCapacity = 2;

  static constexpr unsigned kTagShift = 25;
  static constexpr uint32_t kBelowTag = (uint32_t{1} << kTagShift) - 1;
  static uint8_t tagOf(uint32_t h) { return static_cast<uint8_t>(h >> kTagShift); }

  // Look-ups read the control bytes in groups as wide as the machine compares at once; the
  // searches for a free position or a member read them eight at a time in portable code.
  using ProbeGroup = detail::ProbeGroup;
  using Group = detail::WordGroup;
  static constexpr size_t kGroup = Group::kPositions;

  // The first position at or after `i` that holds no member (empty or deleted).
  size_t firstFree(size_t i) const {
    const uint8_t* ctrl = this->ctrl();
    for (;;) {
      if (i + kGroup > capacity_) {
        if (ctrl[i] >= kTombstone) return i;
        i = next(i);
        continue;
      }
      const uint64_t free = Group::freeMarks(Group::at(ctrl, i));
      if (free != 0) return i + Group::position(free);
      i = after<Group>(i);
    }
  }
  // Capacities are powers of two, and above kDenseFrom also three halves of one, so that a large
  // table is filled to between a half and three quarters rather than to between three eighths and
  // three quarters: large tables are most of the memory. A power of two places a key by the low
  // bits of its hash, as it always has (small tables, and so dumps and traces, keep their
  // layout); the other sizes scale the bits below the tag's to the capacity.
  static constexpr size_t kDenseFrom = 4096;
  static bool isPowerOfTwo(size_t capacity) { return (capacity & (capacity - 1)) == 0; }
  size_t home(uint32_t h) const {
    if (isPowerOfTwo(capacity_)) return h & (capacity_ - 1);
    return static_cast<size_t>((uint64_t{h & kBelowTag} * capacity_) >> kTagShift);
  }
  size_t next(size_t i) const { return i + 1 == capacity_ ? 0 : i + 1; }
  // The position after the group read at `i` (which ended inside the table).
  template <class G>
  size_t after(size_t i) const {
    return i + G::kPositions == capacity_ ? 0 : i + G::kPositions;
  }
  size_t previous(size_t i) const { return (i == 0 ? capacity_ : i) - 1; }
  // The capacity a rebuild gives a table of `members` members.
  static size_t capacityFor(size_t members) {
    size_t capacity = kMinCapacity;
    while (members * 2 > capacity) capacity *= 2;
    if (capacity <= kDenseFrom) return capacity;
    // A sixteenth more for the deleted positions that churn leaves before the next rebuild.
    const size_t room = members + members / 16;
    capacity = kDenseFrom;
    while (room * 3 > capacity * 2) {
      capacity = isPowerOfTwo(capacity) ? capacity + capacity / 2 : capacity / 3 * 4;
    }
    return capacity;
  }
  // The control bytes follow the members in the same block.
  uint8_t* ctrl() const { return reinterpret_cast<uint8_t*>(slots_ + capacity_); }

  // An insert writes its member at or just after the home position: in a large table that is a
  // miss, so the member's line is requested before the control bytes are searched. A look-up
  // does not ask for it: a miss never reads a member, and the request slowed misses by more than
  // it sped up hits.
  void prefetchHome(uint32_t h) const {
#if defined(__GNUC__)
    __builtin_prefetch(&slots_[home(h)]);
#endif
  }

  // Grows, or drops tombstones at the same size, so that members fill at most half the table
  // (two thirds of a large one).
  void rebuild() {
    const size_t capacity = capacityFor(size_t{size_} + 1);
    CORE_ASSERT(capacity <= UINT32_MAX);
    if (isInline(slots_) && capacity == kMinCapacity) {
      // Only tombstones to drop (the smallest capacity holds no member when rebuilt): the block
      // stays where it is.
      CORE_ASSERT(size_ == 0);
      std::memset(ctrl(), kEmpty, capacity_);
      tombstones_ = 0;
      return;
    }
    const uint8_t* oldCtrl = ctrl();
    Slot* oldSlots = slots_;
    const size_t oldCapacity = capacity_;
    allocate(capacity);
    for (size_t i = 0; i < oldCapacity; ++i) {
      if (oldCtrl[i] >= kTombstone) continue;
      moveIn(std::move(oldSlots[i]));
      oldSlots[i].~Slot();
    }
    deallocate(oldSlots, oldCapacity);
  }

  void moveIn(Slot&& value) {
    const uint32_t h = hashOf(KeyOf()(value), kSeed);
    uint8_t* ctrl = this->ctrl();
    // A table being rebuilt has no deleted positions: its first free position is empty.
    const size_t i = firstFree(home(h));
    ctrl[i] = tagOf(h);
    ++size_;
    new (&slots_[i]) Slot(std::move(value));
  }

  // One block per table: the members first, then one control byte per member.
  static constexpr size_t blockSize(size_t capacity) { return capacity * sizeof(Slot) + capacity; }

  // A table of small members keeps its smallest block inside itself: the many tables that never
  // hold more than a member (a next hop's interfaces) then cost no allocation of their own.
  static constexpr bool kInlineBlock = blockSize(kMinCapacity) <= 24;
  struct InlineBlock {
    alignas(Slot) std::byte bytes[blockSize(kMinCapacity)];
  };
  struct NoInlineBlock {};

  bool isInline(const Slot* slots) const {
    if constexpr (kInlineBlock) {
      return static_cast<const void*>(slots) == static_cast<const void*>(inline_.bytes);
    } else {
      return false;
    }
  }

  void* blockFor(size_t capacity) {
    if constexpr (kInlineBlock) {
      if (capacity == kMinCapacity) return inline_.bytes;
    }
    void* block = blockAlloc(blockSize(capacity), alignof(Slot));
    if (detail::memoryAccounting()) {
      detail::tableBlockAccount(detail::tableTypes<Key, Slot>(), blockSize(capacity), true);
    }
    return block;
  }

  void allocate(size_t capacity) {
    void* block = blockFor(capacity);
    slots_ = static_cast<Slot*>(block);
    capacity_ = static_cast<uint32_t>(capacity);
    std::memset(ctrl(), kEmpty, capacity);
    size_ = 0;
    tombstones_ = 0;
  }

  void deallocate(Slot* slots, size_t capacity) {
    if (isInline(slots)) return;
    if (slots && detail::memoryAccounting()) {
      detail::tableBlockAccount(detail::tableTypes<Key, Slot>(), blockSize(capacity), false);
    }
    blockFree(slots, blockSize(capacity), alignof(Slot));
  }

  void release() {
    const uint8_t* ctrl = this->ctrl();
    Slot* slots = std::exchange(slots_, nullptr);
    const size_t capacity = std::exchange(capacity_, 0);
    size_ = 0;
    tombstones_ = 0;
    // Members are destroyed after the table is already empty: a destructor that reaches back
    // into the table sees it cleared.
    for (size_t i = 0; i < capacity; ++i) {
      if (ctrl[i] < kTombstone) slots[i].~Slot();
    }
    deallocate(slots, capacity);
  }

  // 32-bit counts keep an empty table (and so every entity's collection) small. The counts come
  // last, so that the padding after them is at the end: a collection holding the table as a
  // potentially-overlapping member puts its own small fields there.
  [[no_unique_address]] std::conditional_t<kInlineBlock, InlineBlock, NoInlineBlock> inline_;
  Slot* slots_ = nullptr;
  uint32_t capacity_ = 0;
  uint32_t size_ = 0;
  uint32_t tombstones_ = 0;
};

}  // namespace Core

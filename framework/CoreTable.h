#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "framework/Assert.h"
#include "framework/CoreHash.h"

namespace Core {

// A fixed seed per key type, taken from the compiler's name of the type, so that table layouts
// (and so iteration orders, dumps and traces) are the same in every run.
template <class Key>
consteval uint32_t keySeed() {
  return seedOf(__PRETTY_FUNCTION__);
}

// Open-addressing hash table with linear probing over a separate byte of control data per slot
// (empty, deleted, or seven bits of the key's hash). Erasing leaves a tombstone and never moves
// another member, so a position stays valid while members are erased around it.
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

  Slot* find(const Key& key) const {
    if (size_ == 0) return nullptr;
    const uint32_t h = hashOf(key, kSeed);
    const uint8_t tag = tagOf(h);
    for (size_t i = h & mask();; i = (i + 1) & mask()) {
      const uint8_t c = ctrl_[i];
      if (c == kEmpty) return nullptr;
      if (c == tag && KeyOf()(slots_[i]) == key) return &slots_[i];
    }
  }

  // Inserts a member whose key is not present (checked by the caller).
  template <class... Args>
  Slot* emplaceNew(Args&&... args) {
    if ((size_ + tombstones_ + 1) * 4 > capacity_ * 3) rebuild();
    // Build first: the key is read from the member itself.
    Slot value(std::forward<Args>(args)...);
    const uint32_t h = hashOf(KeyOf()(value), kSeed);
    size_t i = h & mask();
    while (ctrl_[i] < kTombstone) i = (i + 1) & mask();
    if (ctrl_[i] == kTombstone) --tombstones_;
    ctrl_[i] = tagOf(h);
    ++size_;
    return new (&slots_[i]) Slot(std::move(value));
  }

  // Destroys the member; its position becomes a tombstone.
  void erase(Slot* slot) {
    const size_t i = static_cast<size_t>(slot - slots_);
    CORE_ASSERT(i < capacity_ && ctrl_[i] < kTombstone);
    ctrl_[i] = kTombstone;
    ++tombstones_;
    --size_;
    slot->~Slot();
  }

  // Destroys every member and frees the storage.
  void clear() { release(); }

  // Position of the first member at or after `from`, or capacity() when there is none.
  size_t nextOccupied(size_t from) const {
    while (from < capacity_ && ctrl_[from] >= kTombstone) ++from;
    return from < capacity_ ? from : capacity_;
  }
  Slot& at(size_t position) const { return slots_[position]; }

 private:
  static constexpr uint8_t kEmpty = 0xff;
  static constexpr uint8_t kTombstone = 0xfe;
  static constexpr uint32_t kSeed = keySeed<Key>();
  // Small: most tables of the module hold one or a few members (a next hop's interfaces).
  static constexpr size_t kMinCapacity = 2;

  static uint8_t tagOf(uint32_t h) { return static_cast<uint8_t>(h >> 25); }
  size_t mask() const { return capacity_ - 1; }

  // Grows, or drops tombstones at the same size, so that members fill at most half the table.
  void rebuild() {
    size_t capacity = kMinCapacity;
    while ((size_ + 1) * 2 > capacity) capacity *= 2;
    uint8_t* oldCtrl = ctrl_;
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
    size_t i = h & mask();
    while (ctrl_[i] != kEmpty) i = (i + 1) & mask();
    ctrl_[i] = tagOf(h);
    ++size_;
    new (&slots_[i]) Slot(std::move(value));
  }

  // One block per table: the members first, then one control byte per member.
  static size_t blockSize(size_t capacity) { return capacity * sizeof(Slot) + capacity; }

  void allocate(size_t capacity) {
    void* block = ::operator new(blockSize(capacity), std::align_val_t(alignof(Slot)));
    slots_ = static_cast<Slot*>(block);
    ctrl_ = reinterpret_cast<uint8_t*>(slots_ + capacity);
    std::memset(ctrl_, kEmpty, capacity);
    capacity_ = capacity;
    size_ = 0;
    tombstones_ = 0;
  }

  static void deallocate(Slot* slots, size_t capacity) {
    if (slots) ::operator delete(slots, blockSize(capacity), std::align_val_t(alignof(Slot)));
  }

  void release() {
    uint8_t* ctrl = std::exchange(ctrl_, nullptr);
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

  uint8_t* ctrl_ = nullptr;
  Slot* slots_ = nullptr;
  size_t capacity_ = 0;
  size_t size_ = 0;
  size_t tombstones_ = 0;
};

}  // namespace Core

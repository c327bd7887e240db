#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "framework/Core.h"
#include "framework/CoreTable.h"

namespace Core {

// Key functors. A collection reads each member's key through one of these.
struct KeyIdentity {
  template <class K>
  const K& operator()(const K& k) const {
    return k;
  }
};

// The key is what a const member function of the value (or of the entity a Ptr points to)
// returns, e.g. KeyBy<&NexthopNhIndexResolverStatus::key>.
template <auto Getter>
struct KeyBy {
  template <class M>
  decltype(auto) operator()(const M& member) const {
    if constexpr (requires { member.get(); }) {
      return (member.get()->*Getter)();
    } else {
      return (member.*Getter)();
    }
  }
};

namespace detail {
template <class M>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {};
}  // namespace detail

// The one keyed collection behind every collection attribute of every entity: a set of keys
// (Member = Key, KeyIdentity), values stored under a key that a functor extracts, or counted
// references to child entities (Member = Ptr<T>).
//
// Change notification: an insert-or-replace that inserts or changes a member, a get-or-insert
// that inserts one, and a delete that removes one, each publishes one change of `attr` on the
// owner, carrying a pointer to the key. An insert-or-replace of an equal member publishes nothing.
// While the change is published, the old member (null for an insertion) and the new one (null for a
// deletion) are anchored as the notification values of (owner, attr, Member).
//
// Iteration: a loop may delete the current member or any other, also through handlers that its
// deletions trigger; it visits every member that stays present exactly once. A reference to a
// member is invalidated by deleting that member: copy what the loop still needs first. An insert
// may rebuild the table and invalidates every reference and the order of a loop under way.
template <class Key, class Member, class KeyOf = KeyIdentity>
class Collection {
 public:
  using key_type = Key;
  using member_type = Member;

  Collection(const Node* owner, AttrId attr) : owner_(owner), attr_(attr) {}
  Collection(const Collection&) = delete;
  Collection& operator=(const Collection&) = delete;

  size_t size() const { return table_.size(); }
  bool empty() const { return table_.empty(); }
  bool has(const Key& key) const { return table_.find(key) != nullptr; }
  const Member* find(const Key& key) const { return table_.find(key); }
  // The member stored under `key`, or a default-constructed member (null Ptr) when absent.
  Member get(const Key& key) const {
    const Member* present = table_.find(key);
    return present ? *present : Member();
  }

  // Inserts the member or replaces the one stored under its key. Returns true when the
  // collection changed (and a change was published).
  bool set(Member member) {
    const uint32_t h = Table::hashKey(KeyOf()(member));
    if (Member* present = table_.find(KeyOf()(member), h)) {
      if (equal(*present, member)) return false;
      Member old = std::exchange(*present, std::move(member));
      publish(&old, present);
      return true;
    }
    publish(nullptr, table_.insertNew(h, std::move(member)));
    return true;
  }

  // The member stored under `key`, or else the member `create(key)` returns (whose key is
  // `key`), inserted and published first. The key is hashed once; `create` must not change the
  // collection.
  template <class Create>
  Member getOrInsert(const Key& key, Create&& create) {
    const uint32_t h = Table::hashKey(key);
    if (const Member* present = table_.find(key, h)) return *present;
    const size_t sizeBefore = table_.size();
    Member created = create(key);
    CORE_ASSERT(table_.size() == sizeBefore && KeyOf()(created) == key);
    publish(nullptr, table_.insertNew(h, Member(created)));
    return created;
  }

  // Removes the member stored under `key`. Returns false (publishing nothing) when absent.
  bool del(const Key& key) {
    Member* present = table_.find(key);
    if (!present) return false;
    erase(present);
    return true;
  }

  // Empties the collection: in one silent sweep while nobody subscribes to the owner, otherwise
  // member by member so that every subscriber sees one change per key. A handler may drop the
  // last reference to the owner: it stays alive until the collection is empty.
  void delAll() {
    const KeepAlive keep(owner_->hasSubscribers() ? owner_ : nullptr);
    while (!table_.empty()) {
      if (!owner_->hasSubscribers()) {
        table_.clear();
        return;
      }
      // Each member is removed where the walk found it: nothing runs between the step and the
      // removal, and a handler that rebuilds the table leaves the walk memory-safe.
      for (auto it = begin(); it != end(); ++it) erase(&table_.at(it.position()));
    }
  }

  // Position-based iterator: tolerates deletions during the loop (see above).
  class Iterator {
   public:
    using value_type = Member;
    using difference_type = std::ptrdiff_t;
    Iterator() = default;
    Iterator(const HashTable<Key, Member, KeyOf>* table, size_t position)
        : table_(table), position_(table->nextOccupied(position)) {}
    const Member& operator*() const { return table_->at(position_); }
    const Member* operator->() const { return &table_->at(position_); }
    const Key& key() const { return KeyOf()(table_->at(position_)); }
    Iterator& operator++() {
      position_ = table_->nextOccupied(position_ + 1);
      return *this;
    }
    bool operator==(std::default_sentinel_t) const { return position_ >= table_->capacity(); }
    size_t position() const { return position_; }

   private:
    const HashTable<Key, Member, KeyOf>* table_ = nullptr;
    size_t position_ = 0;
  };
  Iterator begin() const { return Iterator(&table_, 0); }
  std::default_sentinel_t end() const { return {}; }

 private:
  using Table = HashTable<Key, Member, KeyOf>;

  void erase(Member* present) {
    Member old = std::move(*present);
    table_.erase(present);
    publish(&old, nullptr);
  }

  static bool equal(const Member& a, const Member& b) {
    if constexpr (detail::IsPtr<Member>::value) {
      return a.get() == b.get();
    } else {
      return a == b;
    }
  }

  void publish(const Member* oldMember, const Member* newMember) {
    if (!owner_->hasSubscribers()) return;
    // Handlers may rebuild the table: publish copies that stay put for the whole publication.
    if (newMember) {
      const Member anchored = *newMember;
      NotifyScope scope(owner_, attr_, oldMember, &anchored);
      decltype(auto) key = KeyOf()(anchored);
      owner_->notify(attr_, &key);
    } else {
      NotifyScope scope(owner_, attr_, oldMember, static_cast<const Member*>(nullptr));
      decltype(auto) key = KeyOf()(*oldMember);
      owner_->notify(attr_, &key);
    }
  }

  const Node* owner_;
  // The attribute id fills the padding at the end of the table.
  [[no_unique_address]] HashTable<Key, Member, KeyOf> table_;
  AttrId attr_;
};

// A member of a map-like collection: a value stored under a key that is not part of it.
template <class K, class V>
struct MapEntry {
  K key;
  V value;
  friend bool operator==(const MapEntry&, const MapEntry&) = default;
};

struct KeyOfEntry {
  template <class K, class V>
  const K& operator()(const MapEntry<K, V>& entry) const {
    return entry.key;
  }
};

// A set of keys.
template <class Key>
using KeySet = Collection<Key, Key, KeyIdentity>;
// Values under separate keys; notification values are MapEntry<Key, Value>.
template <class Key, class Value>
using Map = Collection<Key, MapEntry<Key, Value>, KeyOfEntry>;
// Counted references to child entities, keyed by what the child's `Getter` returns.
template <class Key, class Child, auto Getter>
using ChildMap = Collection<Key, Ptr<Child>, KeyBy<Getter>>;

}  // namespace Core

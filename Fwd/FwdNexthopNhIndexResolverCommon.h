#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/CoreDump.h"
#include "framework/Kiln.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"

// The resolver's shared data model: request keys and statuses, the per-VRF request form, the
// records the three stages hand to one another, the collections that hold them, and the request
// records of stages 2 and 3.
namespace FwdL3Unicast {

class NexthopNhIndexResolverKey;

// One request inside one VRF (the VRF is implied by whatever holds it). Orders by nexthop, then
// by the interface's numeric id.
class NexthopIntfId : public Kiln::Value<NexthopIntfId> {
 public:
  static constexpr std::string_view kilnTypeName = "FwdL3Unicast::NexthopIntfId";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("nexthop", &NexthopIntfId::nexthop_),
                           Kiln::attr("intfId", &NexthopIntfId::intfId_));
  }

  NexthopIntfId() = default;
  NexthopIntfId(const Netval::IpGenAddr& nexthop, Netval::IntfId intfId)
      : nexthop_(nexthop), intfId_(intfId) {}
  // Implicit on purpose: a request key names its per-VRF request wherever one is expected.
  NexthopIntfId(const NexthopNhIndexResolverKey& key);
  NexthopIntfId(const char* begin, const char* end)
      : NexthopIntfId(parse(std::string_view(begin, end - begin))) {}

  const Netval::IpGenAddr& nexthop() const { return nexthop_; }
  Netval::IntfId intfId() const { return intfId_; }

 private:
  Netval::IpGenAddr nexthop_;
  Netval::IntfId intfId_;
};

// The key of a resolution request and of its status. Orders by VRF name, nexthop, then the
// interface's numeric id. A VRF name over 100 bytes throws Kiln::RangeError.
class NexthopNhIndexResolverKey : public Kiln::Value<NexthopNhIndexResolverKey> {
 public:
  static constexpr std::string_view kilnTypeName = "FwdL3Unicast::NexthopNhIndexResolverKey";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("vrfName", &NexthopNhIndexResolverKey::vrfName_),
                           Kiln::attr("nexthop", &NexthopNhIndexResolverKey::nexthop_),
                           Kiln::attr("intfId", &NexthopNhIndexResolverKey::intfId_));
  }

  NexthopNhIndexResolverKey() = default;
  NexthopNhIndexResolverKey(const L3::VrfName& vrfName, const Netval::IpGenAddr& nexthop,
                            Netval::IntfId intfId)
      : vrfName_(vrfName), nexthop_(nexthop), intfId_(intfId) {}
  NexthopNhIndexResolverKey(const L3::VrfName& vrfName, const NexthopIntfId& nexthopIntfId)
      : NexthopNhIndexResolverKey(vrfName, nexthopIntfId.nexthop(), nexthopIntfId.intfId()) {}
  NexthopNhIndexResolverKey(const char* begin, const char* end)
      : NexthopNhIndexResolverKey(parse(std::string_view(begin, end - begin))) {}

  const L3::VrfName& vrfName() const { return vrfName_; }
  const Netval::IpGenAddr& nexthop() const { return nexthop_; }
  Netval::IntfId intfId() const { return intfId_; }

 private:
  L3::VrfName vrfName_;
  Netval::IpGenAddr nexthop_;
  Netval::IntfId intfId_;
};

inline NexthopIntfId::NexthopIntfId(const NexthopNhIndexResolverKey& key)
    : nexthop_(key.nexthop()), intfId_(key.intfId()) {}

// The answer to one request: its key and the forwarding engine's next-hop index. Stored under
// its key in NexthopNhIndexResolverStatusDir.
class NexthopNhIndexResolverStatus : public Kiln::Value<NexthopNhIndexResolverStatus> {
 public:
  static constexpr std::string_view kilnTypeName = "FwdL3Unicast::NexthopNhIndexResolverStatus";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("key", &NexthopNhIndexResolverStatus::key_),
                           Kiln::attr("nhIndex", &NexthopNhIndexResolverStatus::nhIndex_));
  }

  NexthopNhIndexResolverStatus() = default;
  NexthopNhIndexResolverStatus(const NexthopNhIndexResolverKey& key, uint32_t nhIndex)
      : key_(key), nhIndex_(nhIndex) {}
  NexthopNhIndexResolverStatus(const char* begin, const char* end)
      : NexthopNhIndexResolverStatus(parse(std::string_view(begin, end - begin))) {}

  const NexthopNhIndexResolverKey& key() const { return key_; }
  uint32_t nhIndex() const { return nhIndex_; }

  // The index is the cheaper test and the one that usually differs: compare it first.
  bool isEq(const NexthopNhIndexResolverStatus& other) const {
    return this == &other || (nhIndex_ == other.nhIndex_ && key_ == other.key_);
  }

 private:
  NexthopNhIndexResolverKey key_;
  uint32_t nhIndex_ = 0;
};

// Carries the index that no programmed next hop has; never published in a status.
class NexthopNhIndexResolverConstants : public Kiln::Value<NexthopNhIndexResolverConstants> {
 public:
  static constexpr std::string_view kilnTypeName = "FwdL3Unicast::NexthopNhIndexResolverConstants";
  static constexpr auto kilnAttrs() { return std::make_tuple(); }

  NexthopNhIndexResolverConstants() = default;
  NexthopNhIndexResolverConstants(const char* begin, const char* end)
      : NexthopNhIndexResolverConstants(parse(std::string_view(begin, end - begin))) {}

  static constexpr uint32_t invalidNhIndex() { return 0xFFFFFFFFu; }
};

// Stage 1's result for one request: the directly connected via that reaches its nexthop.
class NexthopToViaNexthopMapEntry : public Kiln::Value<NexthopToViaNexthopMapEntry> {
 public:
  static constexpr std::string_view kilnTypeName = "FwdL3Unicast::NexthopToViaNexthopMapEntry";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(
        Kiln::attr("nexthopIntfId", &NexthopToViaNexthopMapEntry::nexthopIntfId_),
        Kiln::attr("viaNexthop", &NexthopToViaNexthopMapEntry::viaNexthop_));
  }

  NexthopToViaNexthopMapEntry() = default;
  NexthopToViaNexthopMapEntry(const NexthopIntfId& nexthopIntfId,
                              const Netval::IpGenAddr& viaNexthop)
      : nexthopIntfId_(nexthopIntfId), viaNexthop_(viaNexthop) {}
  NexthopToViaNexthopMapEntry(const char* begin, const char* end)
      : NexthopToViaNexthopMapEntry(parse(std::string_view(begin, end - begin))) {}

  const NexthopIntfId& nexthopIntfId() const { return nexthopIntfId_; }
  const Netval::IpGenAddr& viaNexthop() const { return viaNexthop_; }

 private:
  NexthopIntfId nexthopIntfId_;
  Netval::IpGenAddr viaNexthop_;
};

// Stage 2's result for one request: its via and the MAC address learnt for the via.
class NexthopToViaNexthopMacMapEntry : public Kiln::Value<NexthopToViaNexthopMacMapEntry> {
 public:
  static constexpr std::string_view kilnTypeName = "FwdL3Unicast::NexthopToViaNexthopMacMapEntry";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(
        Kiln::attr("nexthopIntfId", &NexthopToViaNexthopMacMapEntry::nexthopIntfId_),
        Kiln::attr("viaNexthop", &NexthopToViaNexthopMacMapEntry::viaNexthop_),
        Kiln::attr("macAddr", &NexthopToViaNexthopMacMapEntry::macAddr_));
  }

  NexthopToViaNexthopMacMapEntry() = default;
  NexthopToViaNexthopMacMapEntry(const NexthopIntfId& nexthopIntfId,
                                 const Netval::IpGenAddr& viaNexthop, Netval::EthAddr macAddr)
      : nexthopIntfId_(nexthopIntfId), viaNexthop_(viaNexthop), macAddr_(macAddr) {}
  NexthopToViaNexthopMacMapEntry(const char* begin, const char* end)
      : NexthopToViaNexthopMacMapEntry(parse(std::string_view(begin, end - begin))) {}

  const NexthopIntfId& nexthopIntfId() const { return nexthopIntfId_; }
  const Netval::IpGenAddr& viaNexthop() const { return viaNexthop_; }
  Netval::EthAddr macAddr() const { return macAddr_; }

 private:
  NexthopIntfId nexthopIntfId_;
  Netval::IpGenAddr viaNexthop_;
  Netval::EthAddr macAddr_;
};

// Stage 3's result for one request: the next-hop index (never invalidNhIndex).
class ViaNexthopMacToNhIndexMapEntry : public Kiln::Value<ViaNexthopMacToNhIndexMapEntry> {
 public:
  static constexpr std::string_view kilnTypeName = "FwdL3Unicast::ViaNexthopMacToNhIndexMapEntry";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(
        Kiln::attr("nexthopIntfId", &ViaNexthopMacToNhIndexMapEntry::nexthopIntfId_),
        Kiln::attr("nhIndex", &ViaNexthopMacToNhIndexMapEntry::nhIndex_));
  }

  ViaNexthopMacToNhIndexMapEntry() = default;
  ViaNexthopMacToNhIndexMapEntry(const NexthopIntfId& nexthopIntfId, uint32_t nhIndex)
      : nexthopIntfId_(nexthopIntfId), nhIndex_(nhIndex) {}
  ViaNexthopMacToNhIndexMapEntry(const char* begin, const char* end)
      : ViaNexthopMacToNhIndexMapEntry(parse(std::string_view(begin, end - begin))) {}

  const NexthopIntfId& nexthopIntfId() const { return nexthopIntfId_; }
  uint32_t nhIndex() const { return nhIndex_; }

  // The index is the cheaper test: compare it first.
  bool isEq(const ViaNexthopMacToNhIndexMapEntry& other) const {
    return this == &other || (nhIndex_ == other.nhIndex_ && nexthopIntfId_ == other.nexthopIntfId_);
  }

 private:
  NexthopIntfId nexthopIntfId_;
  uint32_t nhIndex_ = 0;
};

// The `config` attribute of the request collections: a set of request keys. Every insertion
// and removal notifies configAttr with the key; inserting a present key notifies nothing.
template <class Key>
class ConfigSet : public Core::Node {
 public:
  static constexpr Core::AttrId configAttr = 1;

  bool configIs(const Key& key) { return config_.set(key); }
  bool configDel(const Key& key) { return config_.del(key); }
  void configDelAll() { config_.delAll(); }
  bool configHas(const Key& key) const { return config_.has(key); }
  size_t configCount() const { return config_.size(); }
  // Iteration; deleting members during a loop is safe, inserting may reorder it.
  const Core::KeySet<Key>& config() const { return config_; }

 protected:
  ConfigSet() = default;

 private:
  Core::KeySet<Key> config_{this, configAttr};
};

// The `map` attribute of the three stage maps: entries stored under their nexthopIntfId. An
// insert, change or removal notifies mapAttr with the key and anchors the old and new entries.
template <class Entry>
class StageMap : public Core::Node {
 public:
  static constexpr Core::AttrId mapAttr = 1;
  using Coll = Core::Collection<NexthopIntfId, Entry, Core::KeyBy<&Entry::nexthopIntfId>>;

  // Returns true when the map changed; an equal entry notifies nothing.
  bool mapIs(const Entry& entry) {
    return counted([&] { return map_.set(entry); });
  }
  bool mapDel(const NexthopIntfId& key) {
    return counted([&] { return map_.del(key); });
  }
  void mapDelAll() {
    if (map_.empty()) return;
    ++changeCount_;
    map_.delAll();
  }
  // The stored entry, or the default entry when absent.
  Entry map(const NexthopIntfId& key) const { return map_.get(key); }
  bool mapHas(const NexthopIntfId& key) const { return map_.has(key); }
  size_t mapCount() const { return map_.size(); }
  const Coll& map() const { return map_; }
  // Moves on with every change of the map, by the time the call that made it returns: a reader
  // that sees the same count before and after a call knows the map did not change meanwhile.
  uint64_t changeCount() const { return changeCount_; }

 protected:
  StageMap() = default;

 private:
  // Counts the change before it is published: a handler may drop the last reference to the map,
  // which then goes away as the publication ends, so nothing of it is touched after a change.
  // A call that changes nothing published nothing and takes its count back.
  template <class Change>
  bool counted(Change change) {
    ++changeCount_;
    if (change()) return true;
    --changeCount_;
    return false;
  }

  Coll map_{this, mapAttr};
  uint64_t changeCount_ = 0;
};

// Keeps `frame` innermost in a stack of frames that live on their callers' stacks, linked through
// their `outer` member, from its construction to its destruction, also when the call unwinds.
// Calls nest, so the frame it unlinks is always the innermost.
template <class Frame>
class FrameLink {
 public:
  FrameLink(Frame*& innermost, Frame& frame) : innermost_(innermost), frame_(frame) {
    frame.outer = innermost;
    innermost = &frame;
  }
  FrameLink(const FrameLink&) = delete;
  FrameLink& operator=(const FrameLink&) = delete;
  ~FrameLink() { innermost_ = frame_.outer; }

 private:
  Frame*& innermost_;
  const Frame& frame_;
};

// How a stage takes in the changes of the stage map it reads. A change of a key is applied as the
// removal of the entry the stage applied (the notification's old entry) followed by the addition
// of the entry the map holds. Handlers run inside the publications they cause, so the key may
// change again while its change is being applied; that nested notification would carry an old
// entry the stage has not applied yet. It is skipped instead, and the change under way goes on
// until the stage holds what the map holds once its removal and addition have returned.
template <class Entry>
class StageMapFollower {
 public:
  // The change notification of `key` on `input`.
  template <class Del, class Add>
  void changed(const StageMap<Entry>& input, const NexthopIntfId& key, Del&& del, Add&& add) {
    if (busy(key)) return;
    const auto values = Core::getNotifyValues<Entry>(&input, StageMap<Entry>::mapAttr);
    std::optional<Entry> applied;
    if (values.oldValue) applied = *values.oldValue;
    follow(input, key, std::move(applied), del, add);
  }

  // Adds every entry of `input`, in its iteration order as it was on entry. A key that a nested
  // handler changes before the replay reaches it is applied when the replay gets there.
  template <class Del, class Add>
  void replay(const StageMap<Entry>& input, Del&& del, Add&& add) {
    std::vector<NexthopIntfId> keys;
    keys.reserve(input.mapCount());
    for (const Entry& entry : input.map()) {
      keys.push_back(entry.nexthopIntfId());
      pending_.emplaceNew(entry.nexthopIntfId());
    }
    for (const NexthopIntfId& key : keys) {
      pending_.erase(pending_.find(key));
      follow(input, key, std::nullopt, del, add);
    }
  }

 private:
  // A key whose change is being applied, on the stack of the call applying it.
  struct Running {
    const NexthopIntfId& key;
    Running* outer = nullptr;
  };

  bool busy(const NexthopIntfId& key) const {
    if (pending_.find(key)) return true;
    for (const Running* running = running_; running; running = running->outer) {
      if (running->key == key) return true;
    }
    return false;
  }

  template <class Del, class Add>
  void follow(const StageMap<Entry>& input, const NexthopIntfId& key, std::optional<Entry> applied,
              Del& del, Add& add) {
    // `key` outlives the call: it is the caller's.
    Running running{key};
    const FrameLink<Running> link(running_, running);
    const Entry* current = input.map().find(key);
    for (;;) {
      if (applied ? current && *current == *applied : !current) return;
      const uint64_t changeCount = input.changeCount();
      if (applied) {
        const Entry old = *std::exchange(applied, std::nullopt);
        del(old);
      } else {
        applied = *current;
        add(*applied);
      }
      // A map that did not change still holds `current` where it was.
      if (input.changeCount() != changeCount) current = input.map().find(key);
    }
  }

  // Keys of a replay under way that it has not reached yet.
  Core::HashTable<NexthopIntfId, NexthopIntfId, Core::KeyIdentity> pending_;
  // The innermost key whose change is being applied (a handful are ever linked), or null.
  Running* running_ = nullptr;
};

// The `requesterColl` attribute of the stage 2 and stage 3 request records: the requested
// nexthop addresses that wait on one via or one MAC. Counted, so the last-requester test is O(1).
//
// Handlers run inside the publications they cause, so a loop that writes one status per
// requester can be re-entered: a nested handler may change the record's state and rewrite every
// requester, or add and remove requesters (an insert may reorder the loop under way).
// statusGeneration counts both: it moves on with every change of the set and every StatusPass
// started, and whoever changes the state a pass writes from moves it on too.
class RequesterSet : public Core::Node {
 public:
  static constexpr Core::AttrId requesterCollAttr = 1;

  bool requesterCollIs(const Netval::IpGenAddr& nexthop) {
    statusGenerationIs(statusGeneration_ + 1);
    return requesterColl_.set(nexthop);
  }
  bool requesterCollDel(const Netval::IpGenAddr& nexthop) {
    statusGenerationIs(statusGeneration_ + 1);
    lossIs();
    return requesterColl_.del(nexthop);
  }
  void requesterCollDelAll() {
    lossIs();
    requesterColl_.delAll();
  }
  bool requesterCollHas(const Netval::IpGenAddr& nexthop) const {
    return requesterColl_.has(nexthop);
  }
  size_t requesterCollCount() const { return requesterColl_.size(); }
  const Core::KeySet<Netval::IpGenAddr>& requesterColl() const { return requesterColl_; }

  uint64_t statusGeneration() const { return statusGeneration_; }
  void statusGenerationIs(uint64_t statusGeneration) { statusGeneration_ = statusGeneration; }

  // Moves on, in this thread, before a requester leaves any set, a stage 3 group loses its
  // index, or a group leaves its interface's request or is replaced there: every change after
  // which a status written from a group may have no group with an index that holds its nexthop.
  // A reader that finds it where it was knows that none of these happened meanwhile.
  static uint64_t losses() { return lossCount(); }
  static void lossIs() { ++lossCount(); }

  // A walk over the requesters that writes one status each, written as
  //   for (RequesterSet::StatusPass pass(*set); pass.next();) write(pass.nexthop());
  // When a handler that a write triggers moves statusGeneration on, the walk starts over with
  // again() true, until a pass finishes undisturbed: the last writes then reflect the set and the
  // state as they are. A write must read the state it writes from afresh when again() is true.
  class StatusPass {
   public:
    explicit StatusPass(RequesterSet& set) : set_(set) { start(); }
    StatusPass(const StatusPass&) = delete;
    StatusPass& operator=(const StatusPass&) = delete;

    // Moves to the next requester (the first on the first call); false once a pass is done.
    bool next() {
      if (!first_) {
        if (set_.statusGeneration_ != pass_) {
          again_ = true;
          start();
        } else {
          ++it_;
        }
      }
      first_ = false;
      if (it_ == set_.requesterColl_.end()) return false;
      nexthop_ = *it_;
      return true;
    }
    // A copy: the write may remove the requester.
    const Netval::IpGenAddr& nexthop() const { return nexthop_; }
    bool again() const { return again_; }

   private:
    void start() {
      set_.statusGenerationIs(set_.statusGeneration_ + 1);
      pass_ = set_.statusGeneration_;
      it_ = set_.requesterColl_.begin();
      first_ = true;
    }

    RequesterSet& set_;
    Core::KeySet<Netval::IpGenAddr>::Iterator it_;
    Netval::IpGenAddr nexthop_;
    uint64_t pass_ = 0;
    bool first_ = true;
    bool again_ = false;
  };

 protected:
  RequesterSet() = default;

 private:
  static uint64_t& lossCount() {
    static thread_local uint64_t count = 0;
    return count;
  }

  Core::KeySet<Netval::IpGenAddr> requesterColl_{this, requesterCollAttr};
  uint64_t statusGeneration_ = 0;
};

// The resolution requests of all VRFs. Written by other agents; the root watches `config`.
class NexthopNhIndexResolverConfigDir : public ConfigSet<NexthopNhIndexResolverKey> {
 public:
  using Ptr = Core::Ptr<NexthopNhIndexResolverConfigDir>;
  static Ptr NexthopNhIndexResolverConfigDirIs() {
    return Ptr(new NexthopNhIndexResolverConfigDir);
  }

  std::string_view typeName() const override {
    return "FwdL3Unicast::NexthopNhIndexResolverConfigDir";
  }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopNhIndexResolverConfigDir() = default;
};

// The published answers, one status per resolved request, stored under its key. Written by the
// root's status reactors; read by other agents. Notifies statusAttr per changed key.
class NexthopNhIndexResolverStatusDir : public Core::Node {
 public:
  using Ptr = Core::Ptr<NexthopNhIndexResolverStatusDir>;
  using Coll = Core::Collection<NexthopNhIndexResolverKey, NexthopNhIndexResolverStatus,
                                Core::KeyBy<&NexthopNhIndexResolverStatus::key>>;
  static constexpr Core::AttrId statusAttr = 1;
  static Ptr NexthopNhIndexResolverStatusDirIs() {
    return Ptr(new NexthopNhIndexResolverStatusDir);
  }

  // Returns true when the collection changed; an equal status notifies nothing.
  bool statusIs(const NexthopNhIndexResolverStatus& status) { return status_.set(status); }
  bool statusDel(const NexthopNhIndexResolverKey& key) { return status_.del(key); }
  void statusDelAll() { status_.delAll(); }
  // The stored status, or the default status when absent.
  NexthopNhIndexResolverStatus status(const NexthopNhIndexResolverKey& key) const {
    return status_.get(key);
  }
  bool statusHas(const NexthopNhIndexResolverKey& key) const { return status_.has(key); }
  size_t statusCount() const { return status_.size(); }
  const Coll& status() const { return status_; }

  std::string_view typeName() const override {
    return "FwdL3Unicast::NexthopNhIndexResolverStatusDir";
  }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopNhIndexResolverStatusDir() = default;

  Coll status_{this, statusAttr};
};

// The requests of one VRF, in per-VRF form. Written by the root (never left empty); stage 1
// watches `config`.
class NexthopIntfIdColl : public ConfigSet<NexthopIntfId> {
 public:
  using Ptr = Core::Ptr<NexthopIntfIdColl>;
  static Ptr NexthopIntfIdCollIs(const L3::VrfName& vrfName) {
    return Ptr(new NexthopIntfIdColl(vrfName));
  }

  const L3::VrfName& vrfName() const { return vrfName_; }

  std::string_view typeName() const override { return "FwdL3Unicast::NexthopIntfIdColl"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit NexthopIntfIdColl(const L3::VrfName& vrfName) : vrfName_(vrfName) {}

  L3::VrfName vrfName_;
};

// Stage 1 -> stage 2 hand-over of one VRF: the via of each resolved request.
class NexthopToViaNexthopMap : public StageMap<NexthopToViaNexthopMapEntry> {
 public:
  using Ptr = Core::Ptr<NexthopToViaNexthopMap>;
  static Ptr NexthopToViaNexthopMapIs() { return Ptr(new NexthopToViaNexthopMap); }

  std::string_view typeName() const override { return "FwdL3Unicast::NexthopToViaNexthopMap"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopToViaNexthopMap() = default;
};

// Stage 2 -> stage 3 hand-over of one VRF: the via and its MAC for each request.
class NexthopToViaNexthopMacMap : public StageMap<NexthopToViaNexthopMacMapEntry> {
 public:
  using Ptr = Core::Ptr<NexthopToViaNexthopMacMap>;
  static Ptr NexthopToViaNexthopMacMapIs() { return Ptr(new NexthopToViaNexthopMacMap); }

  std::string_view typeName() const override { return "FwdL3Unicast::NexthopToViaNexthopMacMap"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NexthopToViaNexthopMacMap() = default;
};

// Stage 3's output for one VRF: the next-hop index of each request. The root mirrors it into
// the status collection.
class ViaNexthopMacToNhIndexMap : public StageMap<ViaNexthopMacToNhIndexMapEntry> {
 public:
  using Ptr = Core::Ptr<ViaNexthopMacToNhIndexMap>;
  static Ptr ViaNexthopMacToNhIndexMapIs(const L3::VrfName& vrfName) {
    return Ptr(new ViaNexthopMacToNhIndexMap(vrfName));
  }

  const L3::VrfName& vrfName() const { return vrfName_; }

  std::string_view typeName() const override { return "FwdL3Unicast::ViaNexthopMacToNhIndexMap"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit ViaNexthopMacToNhIndexMap(const L3::VrfName& vrfName) : vrfName_(vrfName) {}

  L3::VrfName vrfName_;
};

inline NexthopNhIndexResolverConfigDir::Ptr nexthopNhIndexResolverConfigDirFactory() {
  return NexthopNhIndexResolverConfigDir::NexthopNhIndexResolverConfigDirIs();
}
inline NexthopNhIndexResolverStatusDir::Ptr nexthopNhIndexResolverStatusDirFactory() {
  return NexthopNhIndexResolverStatusDir::NexthopNhIndexResolverStatusDirIs();
}
inline NexthopIntfIdColl::Ptr nexthopIntfIdCollFactory(const L3::VrfName& vrfName) {
  return NexthopIntfIdColl::NexthopIntfIdCollIs(vrfName);
}
inline NexthopToViaNexthopMap::Ptr nexthopToViaNexthopMapFactory() {
  return NexthopToViaNexthopMap::NexthopToViaNexthopMapIs();
}
inline NexthopToViaNexthopMacMap::Ptr nexthopToViaNexthopMacMapFactory() {
  return NexthopToViaNexthopMacMap::NexthopToViaNexthopMacMapIs();
}
inline ViaNexthopMacToNhIndexMap::Ptr viaNexthopMacToNhIndexMapFactory(const L3::VrfName& vrfName) {
  return ViaNexthopMacToNhIndexMap::ViaNexthopMacToNhIndexMapIs(vrfName);
}

// Stage 2's record of one via (address and egress interface): the requested nexthops that
// resolve through it and the MAC learnt for it (zero while unresolved). Written by stage 2;
// notifies requesterCollAttr per requester and macAddrAttr when the MAC changes.
class ViaNexthopRequest : public RequesterSet {
 public:
  using Ptr = Core::Ptr<ViaNexthopRequest>;
  static constexpr Core::AttrId macAddrAttr = 2;
  static Ptr ViaNexthopRequestIs(const NexthopIntfId& viaNexthopInfo) {
    return Ptr(new ViaNexthopRequest(viaNexthopInfo));
  }

  const NexthopIntfId& viaNexthopInfo() const { return viaNexthopInfo_; }
  Netval::EthAddr macAddr() const { return macAddr_; }
  void macAddrIs(Netval::EthAddr macAddr);

  // Precondition: `nexthop` is not a requester yet.
  void addRequester(const Netval::IpGenAddr& nexthop);
  // Precondition: `nexthop` is a requester.
  void delRequester(const Netval::IpGenAddr& nexthop);

  std::string_view typeName() const override { return "FwdL3Unicast::ViaNexthopRequest"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit ViaNexthopRequest(const NexthopIntfId& viaNexthopInfo)
      : viaNexthopInfo_(viaNexthopInfo) {}

  NexthopIntfId viaNexthopInfo_;
  Netval::EthAddr macAddr_;
};

// Stage 2's tracked vias, one record per via. Creating or deleting a record notifies
// viaNexthopRequestAttr with the via and anchors the old and new records; stage 2 starts and
// stops proactive ARP on those changes. Owns its records; a removed record lives on while held.
class AllViaNexthopRequests : public Core::Node {
 public:
  using Ptr = Core::Ptr<AllViaNexthopRequests>;
  using Coll = Core::ChildMap<NexthopIntfId, ViaNexthopRequest, &ViaNexthopRequest::viaNexthopInfo>;
  static constexpr Core::AttrId viaNexthopRequestAttr = 1;
  static Ptr AllViaNexthopRequestsIs() { return Ptr(new AllViaNexthopRequests); }
  // Deletes the records one by one so that every watcher hears each deletion.
  ~AllViaNexthopRequests() override;

  // Get-or-create: only a creation notifies.
  ViaNexthopRequest::Ptr viaNexthopRequestIs(const NexthopIntfId& key);
  // The record of `key`, or null.
  ViaNexthopRequest::Ptr viaNexthopRequest(const NexthopIntfId& key) const {
    return viaNexthopRequest_.get(key);
  }
  bool viaNexthopRequestDel(const NexthopIntfId& key) { return viaNexthopRequest_.del(key); }
  void viaNexthopRequestDelAll() { viaNexthopRequest_.delAll(); }
  bool viaNexthopRequestHas(const NexthopIntfId& key) const { return viaNexthopRequest_.has(key); }
  size_t viaNexthopRequestCount() const { return viaNexthopRequest_.size(); }
  const Coll& viaNexthopRequest() const { return viaNexthopRequest_; }

  std::string_view typeName() const override { return "FwdL3Unicast::AllViaNexthopRequests"; }

 private:
  AllViaNexthopRequests() = default;

  Coll viaNexthopRequest_{this, viaNexthopRequestAttr};
};

// Stage 3's group of the requests that wait for one MAC on one interface, with the index found
// for that MAC (invalidNhIndex and not found until then). Stage 3's request side writes the
// nexthops, its per-interface machine the index; each setter notifies its attribute on change.
class RequesterColl : public RequesterSet {
 public:
  using Ptr = Core::Ptr<RequesterColl>;
  static constexpr Core::AttrId nhIndexFoundAttr = 2;
  static constexpr Core::AttrId nhIndexAttr = 3;
  static Ptr RequesterCollIs(Netval::EthAddr macAddr) { return Ptr(new RequesterColl(macAddr)); }

  const Netval::EthAddr& macAddr() const { return macAddr_; }
  bool nhIndexFound() const { return nhIndexFound_; }
  uint32_t nhIndex() const { return nhIndex_; }
  // Both publish a pointer to the new value, and nothing when the value is unchanged.
  void nhIndexFoundIs(bool nhIndexFound);
  void nhIndexIs(uint32_t nhIndex);

  std::string_view typeName() const override { return "FwdL3Unicast::RequesterColl"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit RequesterColl(Netval::EthAddr macAddr) : macAddr_(macAddr) {}

  Netval::EthAddr macAddr_;
  bool nhIndexFound_ = false;
  uint32_t nhIndex_ = NexthopNhIndexResolverConstants::invalidNhIndex();
};

// Stage 3's requests on one interface: one non-empty group per requested MAC. Written by stage
// 3's request side; the interface's machine watches requesterCollAttr (groups in and out).
class IntfViaNexthopMacToNhIndexRequest : public Core::Node {
 public:
  using Ptr = Core::Ptr<IntfViaNexthopMacToNhIndexRequest>;
  using Coll = Core::ChildMap<Netval::EthAddr, RequesterColl, &RequesterColl::macAddr>;
  static constexpr Core::AttrId requesterCollAttr = 1;
  static Ptr IntfViaNexthopMacToNhIndexRequestIs(Netval::IntfId intfId) {
    return Ptr(new IntfViaNexthopMacToNhIndexRequest(intfId));
  }

  const Netval::IntfId& intfId() const { return intfId_; }

  // Inserts the group under its own MAC (replacing another object there); null throws
  // Core::NullArgumentError.
  bool requesterCollIs(const RequesterColl::Ptr& group);
  bool requesterCollDel(Netval::EthAddr macAddr) {
    RequesterSet::lossIs();
    return requesterColl_.del(macAddr);
  }
  void requesterCollDelAll() {
    RequesterSet::lossIs();
    requesterColl_.delAll();
  }
  // The group of `macAddr`, or null.
  RequesterColl::Ptr requesterColl(Netval::EthAddr macAddr) const {
    return requesterColl_.get(macAddr);
  }
  bool requesterCollHas(Netval::EthAddr macAddr) const { return requesterColl_.has(macAddr); }
  size_t requesterCollCount() const { return requesterColl_.size(); }
  const Coll& requesterColl() const { return requesterColl_; }

  // Files `nexthop` under `macAddr`. A new group is announced empty before the nexthop enters
  // it. Precondition: `nexthop` is not in the group yet.
  void addRequester(Netval::EthAddr macAddr, const Netval::IpGenAddr& nexthop);
  // Takes `nexthop` out of the group of `macAddr` and drops the group with its last nexthop.
  // Precondition: the group exists and holds `nexthop`.
  void delRequester(Netval::EthAddr macAddr, const Netval::IpGenAddr& nexthop);

  std::string_view typeName() const override {
    return "FwdL3Unicast::IntfViaNexthopMacToNhIndexRequest";
  }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit IntfViaNexthopMacToNhIndexRequest(Netval::IntfId intfId) : intfId_(intfId) {}

  Netval::IntfId intfId_;
  Coll requesterColl_{this, requesterCollAttr};
};

// Stage 3's requests of one VRF, one record per interface that has requests. Written by stage
// 3's request side; notifies requestAttr when a record comes or goes (old/new anchored).
class AllIntfViaNexthopMacToNhIndexRequest : public Core::Node {
 public:
  using Ptr = Core::Ptr<AllIntfViaNexthopMacToNhIndexRequest>;
  using Coll = Core::ChildMap<Netval::IntfId, IntfViaNexthopMacToNhIndexRequest,
                              &IntfViaNexthopMacToNhIndexRequest::intfId>;
  static constexpr Core::AttrId requestAttr = 1;
  static Ptr AllIntfViaNexthopMacToNhIndexRequestIs() {
    return Ptr(new AllIntfViaNexthopMacToNhIndexRequest);
  }

  // Get-or-create of an empty record: only a creation notifies.
  IntfViaNexthopMacToNhIndexRequest::Ptr requestIs(Netval::IntfId intfId);
  // The record of `intfId`, or null.
  IntfViaNexthopMacToNhIndexRequest::Ptr request(Netval::IntfId intfId) const {
    return request_.get(intfId);
  }
  bool requestDel(Netval::IntfId intfId) { return request_.del(intfId); }
  void requestDelAll() { request_.delAll(); }
  bool requestHas(Netval::IntfId intfId) const { return request_.has(intfId); }
  size_t requestCount() const { return request_.size(); }
  const Coll& request() const { return request_; }

  std::string_view typeName() const override {
    return "FwdL3Unicast::AllIntfViaNexthopMacToNhIndexRequest";
  }

 private:
  AllIntfViaNexthopMacToNhIndexRequest() = default;

  Coll request_{this, requestAttr};
};

inline AllViaNexthopRequests::Ptr allViaNexthopRequestsFactory() {
  return AllViaNexthopRequests::AllViaNexthopRequestsIs();
}
inline AllIntfViaNexthopMacToNhIndexRequest::Ptr allIntfViaNexthopMacToNhIndexRequestFactory() {
  return AllIntfViaNexthopMacToNhIndexRequest::AllIntfViaNexthopMacToNhIndexRequestIs();
}

}  // namespace FwdL3Unicast

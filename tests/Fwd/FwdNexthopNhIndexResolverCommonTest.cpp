#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "support/ChangeRecorder.h"
#include "support/DumpText.h"
#include "support/FwdTestValues.h"

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using TestSupport::dump;
using TestSupport::recordChanges;

TEST(NexthopNhIndexResolverConfigDir, NewKeyPublishesOnceAndPresentKeyNothing) {
  auto dir = nexthopNhIndexResolverConfigDirFactory();
  auto recorder = recordChanges<NexthopNhIndexResolverKey>(
      dir.get(), NexthopNhIndexResolverConfigDir::configAttr);
  const NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");

  EXPECT_TRUE(dir->configIs(k));
  EXPECT_FALSE(dir->configIs(k));
  EXPECT_TRUE(dir->configHas(k));
  EXPECT_EQ(dir->configCount(), 1u);
  EXPECT_EQ(recorder->keys, std::vector{k});
}

TEST(NexthopNhIndexResolverConfigDir, DelOfAbsentKeyPublishesNothing) {
  auto dir = nexthopNhIndexResolverConfigDirFactory();
  const NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  dir->configIs(k);
  auto recorder = recordChanges<NexthopNhIndexResolverKey>(
      dir.get(), NexthopNhIndexResolverConfigDir::configAttr);

  EXPECT_FALSE(dir->configDel(key("red", "10.0.0.2", "Ethernet1")));
  EXPECT_TRUE(recorder->keys.empty());
  EXPECT_TRUE(dir->configDel(k));
  EXPECT_FALSE(dir->configHas(k));
  EXPECT_EQ(recorder->keys, std::vector{k});
}

TEST(NexthopNhIndexResolverConfigDir, IterationVisitsEveryKeyOnce) {
  auto dir = nexthopNhIndexResolverConfigDirFactory();
  const std::set<NexthopNhIndexResolverKey> keys = {key("red", "10.0.0.1", "Ethernet1"),
                                                    key("red", "10.0.0.1", "Ethernet2"),
                                                    key("blue", "10.0.0.1", "Ethernet1")};
  for (const auto& k : keys) dir->configIs(k);
  std::set<NexthopNhIndexResolverKey> seen;
  for (NexthopNhIndexResolverKey k : dir->config()) EXPECT_TRUE(seen.insert(k).second);
  EXPECT_EQ(seen, keys);
}

TEST(NexthopNhIndexResolverConfigDir, DeletingDuringIterationVisitsEachMemberOnce) {
  auto dir = nexthopNhIndexResolverConfigDirFactory();
  for (int i = 1; i <= 20; ++i)
    dir->configIs(key("red", "10.0.0." + std::to_string(i), "Ethernet1"));
  size_t visited = 0;
  for (NexthopNhIndexResolverKey k : dir->config()) {
    ++visited;
    dir->configDel(k);
  }
  EXPECT_EQ(visited, 20u);
  EXPECT_EQ(dir->configCount(), 0u);
}

TEST(NexthopNhIndexResolverConfigDir, WatchedDelAllPublishesOncePerMember) {
  auto dir = nexthopNhIndexResolverConfigDirFactory();
  const std::set<NexthopNhIndexResolverKey> keys = {key("red", "10.0.0.1", "Ethernet1"),
                                                    key("red", "10.0.0.2", "Ethernet1"),
                                                    key("blue", "10.0.0.3", "Ethernet1")};
  for (const auto& k : keys) dir->configIs(k);
  auto recorder = recordChanges<NexthopNhIndexResolverKey>(
      dir.get(), NexthopNhIndexResolverConfigDir::configAttr);

  dir->configDelAll();
  EXPECT_EQ(dir->configCount(), 0u);
  EXPECT_EQ(recorder->keys.size(), 3u);
  EXPECT_EQ(std::set(recorder->keys.begin(), recorder->keys.end()), keys);
}

TEST(NexthopNhIndexResolverConfigDir, UnwatchedDelAllEmpties) {
  auto dir = nexthopNhIndexResolverConfigDirFactory();
  dir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  dir->configIs(key("red", "10.0.0.2", "Ethernet1"));
  dir->configDelAll();
  EXPECT_EQ(dir->configCount(), 0u);
  EXPECT_FALSE(dir->configHas(key("red", "10.0.0.1", "Ethernet1")));
}

TEST(NexthopNhIndexResolverConfigDir, DumpsAtIndentZeroAndFour) {
  auto dir = nexthopNhIndexResolverConfigDirFactory();
  EXPECT_EQ(dump(*dir, 0), "NexthopNhIndexResolverConfigDir\n  config: #0\n");
  dir->configIs(key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_EQ(dump(*dir, 0),
            "NexthopNhIndexResolverConfigDir\n"
            "  config: #1\n"
            "    interface Ethernet1, nexthop 10.0.0.1, vrfName red\n");
  EXPECT_EQ(dump(*dir, 4),
            "    NexthopNhIndexResolverConfigDir\n"
            "      config: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1, vrfName red\n");
  EXPECT_EQ(dir->typeName(), "FwdL3Unicast::NexthopNhIndexResolverConfigDir");
}

TEST(NexthopNhIndexResolverStatusDir, EqualStatusPublishesNothing) {
  auto dir = nexthopNhIndexResolverStatusDirFactory();
  const NexthopNhIndexResolverStatus s(key("red", "10.0.0.1", "Ethernet1"), 5);
  dir->statusIs(s);
  auto recorder = recordChanges<NexthopNhIndexResolverKey>(
      dir.get(), NexthopNhIndexResolverStatusDir::statusAttr);

  EXPECT_FALSE(dir->statusIs(s));
  EXPECT_TRUE(recorder->keys.empty());
}

TEST(NexthopNhIndexResolverStatusDir, OtherIndexReplacesWithOneNotification) {
  auto dir = nexthopNhIndexResolverStatusDirFactory();
  const NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  dir->statusIs(NexthopNhIndexResolverStatus(k, 5));
  auto recorder = recordChanges<NexthopNhIndexResolverKey>(
      dir.get(), NexthopNhIndexResolverStatusDir::statusAttr);

  EXPECT_TRUE(dir->statusIs(NexthopNhIndexResolverStatus(k, 6)));
  EXPECT_EQ(recorder->keys, std::vector{k});
  EXPECT_EQ(dir->statusCount(), 1u);
  EXPECT_EQ(dir->status(k).nhIndex(), 6u);
}

TEST(NexthopNhIndexResolverStatusDir, AbsentKeyLooksUpDefaultStatus) {
  auto dir = nexthopNhIndexResolverStatusDirFactory();
  const NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  EXPECT_FALSE(dir->statusHas(k));
  EXPECT_EQ(dir->status(k), NexthopNhIndexResolverStatus());
  dir->statusIs(NexthopNhIndexResolverStatus(k, 9));
  EXPECT_TRUE(dir->statusHas(k));
  EXPECT_EQ(dir->status(k), NexthopNhIndexResolverStatus(k, 9));
  EXPECT_TRUE(dir->statusDel(k));
  EXPECT_FALSE(dir->statusDel(k));
  EXPECT_FALSE(dir->statusHas(k));
}

TEST(NexthopNhIndexResolverStatusDir, WatchedDelAllPublishesOncePerMember) {
  auto dir = nexthopNhIndexResolverStatusDirFactory();
  dir->statusIs(NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet1"), 1));
  dir->statusIs(NexthopNhIndexResolverStatus(key("red", "10.0.0.2", "Ethernet1"), 2));
  auto recorder = recordChanges<NexthopNhIndexResolverKey>(
      dir.get(), NexthopNhIndexResolverStatusDir::statusAttr);
  dir->statusDelAll();
  EXPECT_EQ(recorder->keys.size(), 2u);
  EXPECT_EQ(dir->statusCount(), 0u);
}

TEST(NexthopNhIndexResolverStatusDir, DumpsIndexSigned) {
  auto dir = nexthopNhIndexResolverStatusDirFactory();
  dir->statusIs(NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet1"), 4294967295u));
  EXPECT_EQ(dump(*dir, 0),
            "NexthopNhIndexResolverStatusDir\n"
            "  status: #1\n"
            "    interface Ethernet1, nexthop 10.0.0.1, vrfName red, nhIndex -1\n");
  dir->statusIs(NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet1"), 17));
  EXPECT_EQ(dump(*dir, 4),
            "    NexthopNhIndexResolverStatusDir\n"
            "      status: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1, vrfName red, nhIndex 17\n");
}

TEST(NexthopIntfIdColl, KeepsItsVrfAndMembers) {
  auto coll = nexthopIntfIdCollFactory(vrf("red"));
  EXPECT_EQ(coll->vrfName(), vrf("red"));
  auto recorder = recordChanges<NexthopIntfId>(coll.get(), NexthopIntfIdColl::configAttr);
  const NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  EXPECT_TRUE(coll->configIs(n));
  EXPECT_FALSE(coll->configIs(n));
  EXPECT_TRUE(coll->configHas(n));
  EXPECT_EQ(coll->configCount(), 1u);
  EXPECT_FALSE(coll->configDel(nhIntf("10.0.0.1", "Ethernet2")));
  EXPECT_TRUE(coll->configDel(n));
  EXPECT_EQ(recorder->keys, (std::vector{n, n}));
}

TEST(NexthopIntfIdColl, DumpsAtIndentZeroAndFour) {
  auto coll = NexthopIntfIdColl::NexthopIntfIdCollIs(vrf("red"));
  coll->configIs(nhIntf("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(dump(*coll, 0),
            "NexthopIntfIdColl - red\n"
            "  config: #1\n"
            "    interface Ethernet1, nexthop 10.0.0.1\n");
  EXPECT_EQ(dump(*coll, 4),
            "    NexthopIntfIdColl - red\n"
            "      config: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1\n");
}

TEST(NexthopToViaNexthopMap, MapDelOfAbsentKeyPublishesNothing) {
  auto map = nexthopToViaNexthopMapFactory();
  auto recorder = recordChanges<NexthopIntfId>(map.get(), NexthopToViaNexthopMap::mapAttr);
  EXPECT_FALSE(map->mapDel(nhIntf("10.0.0.1", "Ethernet1")));
  EXPECT_TRUE(recorder->keys.empty());
}

TEST(NexthopToViaNexthopMap, ChangeCountMovesWithEachChangeAndOnlyThen) {
  auto map = nexthopToViaNexthopMapFactory();
  const NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  const NexthopIntfId other = nhIntf("10.0.0.2", "Ethernet1");
  uint64_t count = map->changeCount();
  const auto movedBy = [&](uint64_t steps) {
    const bool moved = map->changeCount() == count + steps;
    count = map->changeCount();
    return moved;
  };
  map->mapDelAll();
  EXPECT_TRUE(movedBy(0));
  map->mapIs(NexthopToViaNexthopMapEntry(n, ip("10.0.0.254")));
  EXPECT_TRUE(movedBy(1));
  map->mapIs(NexthopToViaNexthopMapEntry(n, ip("10.0.0.254")));
  EXPECT_TRUE(movedBy(0));
  map->mapIs(NexthopToViaNexthopMapEntry(n, ip("10.0.0.253")));
  EXPECT_TRUE(movedBy(1));
  map->mapDel(other);
  EXPECT_TRUE(movedBy(0));
  map->mapIs(NexthopToViaNexthopMapEntry(other, ip("10.0.0.254")));
  map->mapDel(n);
  EXPECT_TRUE(movedBy(2));
  map->mapDelAll();
  EXPECT_NE(count, map->changeCount());
  EXPECT_EQ(map->mapCount(), 0u);
}

TEST(NexthopToViaNexthopMap, ChangeMadeInsideANotificationIsCountedWhenTheOuterCallReturns) {
  auto map = nexthopToViaNexthopMapFactory();
  const NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  const NexthopIntfId nested = nhIntf("10.0.0.2", "Ethernet1");
  auto recorder = recordChanges<NexthopIntfId>(map.get(), NexthopToViaNexthopMap::mapAttr);
  recorder->onChange = [&](const NexthopIntfId& key) {
    if (key == n) map->mapIs(NexthopToViaNexthopMapEntry(nested, ip("10.0.0.254")));
  };
  const uint64_t before = map->changeCount();
  map->mapIs(NexthopToViaNexthopMapEntry(n, ip("10.0.0.254")));
  EXPECT_EQ(map->changeCount(), before + 2);
  EXPECT_EQ(map->mapCount(), 2u);
}

// A handler may drop the last reference to the map that notifies it: the map then goes away as
// the publication ends, and the call that made the change must not touch it afterwards (the
// sanitizer builds report any such access).
TEST(NexthopToViaNexthopMap, HandlerMayDropTheLastReferenceToTheMapItIsNotifiedBy) {
  const NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  const NexthopToViaNexthopMapEntry entry(n, ip("10.0.0.254"));
  const std::vector<std::function<bool(NexthopToViaNexthopMap&)>> changes = {
      [&](NexthopToViaNexthopMap& map) { return map.mapIs(entry); },
      [&](NexthopToViaNexthopMap& map) {
        return map.mapIs(NexthopToViaNexthopMapEntry(n, ip("10.0.0.253")));
      },
      [&](NexthopToViaNexthopMap& map) { return map.mapDel(n); },
      [&](NexthopToViaNexthopMap& map) {
        map.mapDelAll();
        return true;
      },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    SCOPED_TRACE(i);
    auto map = nexthopToViaNexthopMapFactory();
    if (i > 0) map->mapIs(entry);
    auto recorder = recordChanges<NexthopIntfId>(map.get(), NexthopToViaNexthopMap::mapAttr);
    recorder->onChange = [&](const NexthopIntfId&) { map = nullptr; };
    NexthopToViaNexthopMap* const raw = map.get();
    const int64_t live = Core::Node::liveCount();
    EXPECT_TRUE(changes[i](*raw));
    EXPECT_EQ(map, nullptr);
    EXPECT_EQ(Core::Node::liveCount(), live - 1);
    EXPECT_EQ(recorder->keys, std::vector{n});
  }
}

TEST(NexthopToViaNexthopMap, AbsentKeyLooksUpDefaultEntry) {
  auto map = nexthopToViaNexthopMapFactory();
  const NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  EXPECT_EQ(map->map(n), NexthopToViaNexthopMapEntry());
  EXPECT_FALSE(map->mapHas(n));
  map->mapIs(NexthopToViaNexthopMapEntry(n, ip("10.0.0.254")));
  EXPECT_EQ(map->map(n).viaNexthop(), ip("10.0.0.254"));
  EXPECT_TRUE(map->mapHas(n));
  EXPECT_EQ(map->mapCount(), 1u);
}

TEST(NexthopToViaNexthopMap, NotificationValuesPresentOnlyInsideThePublication) {
  auto map = nexthopToViaNexthopMapFactory();
  const NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  const NexthopToViaNexthopMapEntry first(n, ip("10.0.0.254"));
  const NexthopToViaNexthopMapEntry second(n, ip("10.0.0.253"));
  auto recorder = recordChanges<NexthopIntfId>(map.get(), NexthopToViaNexthopMap::mapAttr);
  std::vector<std::pair<std::string, std::string>> seen;  // (old, new), "-" when absent
  recorder->onChange = [&](const NexthopIntfId&) {
    auto values = Core::getNotifyValues<NexthopToViaNexthopMapEntry>(
        map.get(), NexthopToViaNexthopMap::mapAttr);
    ASSERT_TRUE(values.present);
    seen.emplace_back(values.oldValue ? values.oldValue->toString() : "-",
                      values.newValue ? values.newValue->toString() : "-");
  };

  map->mapIs(first);
  map->mapIs(first);
  map->mapIs(second);
  map->mapDel(n);

  EXPECT_EQ(seen, (std::vector<std::pair<std::string, std::string>>{
                      {"-", first.toString()},
                      {first.toString(), second.toString()},
                      {second.toString(), "-"},
                  }));
  EXPECT_FALSE(
      Core::getNotifyValues<NexthopToViaNexthopMapEntry>(map.get(), NexthopToViaNexthopMap::mapAttr)
          .present);
}

TEST(NexthopToViaNexthopMap, DumpsAtIndentZeroAndFour) {
  auto map = NexthopToViaNexthopMap::NexthopToViaNexthopMapIs();
  map->mapIs(NexthopToViaNexthopMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254")));
  EXPECT_EQ(dump(*map, 0),
            "NexthopToViaNexthopMap\n"
            "  map: #1\n"
            "    interface Ethernet1, nexthop 10.0.0.1, viaNexthop 10.0.0.254\n");
  EXPECT_EQ(dump(*map, 4),
            "    NexthopToViaNexthopMap\n"
            "      map: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1, viaNexthop 10.0.0.254\n");
}

TEST(NexthopToViaNexthopMacMap, ChangedMacReplacesWithOneNotification) {
  auto map = nexthopToViaNexthopMacMapFactory();
  const NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  map->mapIs(NexthopToViaNexthopMacMapEntry(n, ip("10.0.0.254"), mac("00:00:00:00:00:01")));
  auto recorder = recordChanges<NexthopIntfId>(map.get(), NexthopToViaNexthopMacMap::mapAttr);
  EXPECT_FALSE(
      map->mapIs(NexthopToViaNexthopMacMapEntry(n, ip("10.0.0.254"), mac("00:00:00:00:00:01"))));
  EXPECT_TRUE(
      map->mapIs(NexthopToViaNexthopMacMapEntry(n, ip("10.0.0.254"), mac("00:00:00:00:00:02"))));
  EXPECT_EQ(recorder->keys, std::vector{n});
  EXPECT_EQ(map->map(n).macAddr(), mac("00:00:00:00:00:02"));
  EXPECT_FALSE(map->mapDel(nhIntf("10.0.0.1", "Ethernet2")));
  EXPECT_EQ(recorder->keys.size(), 1u);
}

TEST(NexthopToViaNexthopMacMap, DumpsAtIndentZeroAndFour) {
  auto map = NexthopToViaNexthopMacMap::NexthopToViaNexthopMacMapIs();
  map->mapIs(NexthopToViaNexthopMacMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"),
                                            mac("00:1c:73:aa:bb:cc")));
  EXPECT_EQ(dump(*map, 0),
            "NexthopToViaNexthopMacMap\n"
            "  map: #1\n"
            "    interface Ethernet1, nexthop 10.0.0.1, viaNexthop 10.0.0.254, "
            "macAddr 00:1c:73:aa:bb:cc\n");
  EXPECT_EQ(dump(*map, 4),
            "    NexthopToViaNexthopMacMap\n"
            "      map: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1, viaNexthop 10.0.0.254, "
            "macAddr 00:1c:73:aa:bb:cc\n");
}

TEST(ViaNexthopMacToNhIndexMap, WatchedDelAllPublishesOncePerMemberWithOldValues) {
  auto map = viaNexthopMacToNhIndexMapFactory(vrf("red"));
  EXPECT_EQ(map->vrfName(), vrf("red"));
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 1));
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.2", "Ethernet1"), 2));
  auto recorder = recordChanges<NexthopIntfId>(map.get(), ViaNexthopMacToNhIndexMap::mapAttr);
  std::set<uint32_t> oldIndexes;
  recorder->onChange = [&](const NexthopIntfId&) {
    auto values = Core::getNotifyValues<ViaNexthopMacToNhIndexMapEntry>(
        map.get(), ViaNexthopMacToNhIndexMap::mapAttr);
    ASSERT_NE(values.oldValue, nullptr);
    EXPECT_EQ(values.newValue, nullptr);
    oldIndexes.insert(values.oldValue->nhIndex());
  };

  map->mapDelAll();
  EXPECT_EQ(recorder->keys.size(), 2u);
  EXPECT_EQ(oldIndexes, (std::set<uint32_t>{1, 2}));
  EXPECT_EQ(map->mapCount(), 0u);
}

TEST(ViaNexthopMacToNhIndexMap, DumpsIndexSignedAtIndentZeroAndFour) {
  auto map = ViaNexthopMacToNhIndexMap::ViaNexthopMacToNhIndexMapIs(vrf("red"));
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 3000000000u));
  EXPECT_EQ(dump(*map, 0),
            "ViaNexthopMacToNhIndexMap - red\n"
            "  map: #1\n"
            "    interface Ethernet1, nexthop 10.0.0.1, nhIndex -1294967296\n");
  map->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 12));
  EXPECT_EQ(dump(*map, 4),
            "    ViaNexthopMacToNhIndexMap - red\n"
            "      map: #1\n"
            "        interface Ethernet1, nexthop 10.0.0.1, nhIndex 12\n");
}

TEST(ResolverCollections, TypeNamesAreQualified) {
  EXPECT_EQ(nexthopNhIndexResolverStatusDirFactory()->typeName(),
            "FwdL3Unicast::NexthopNhIndexResolverStatusDir");
  EXPECT_EQ(nexthopIntfIdCollFactory(vrf("red"))->typeName(), "FwdL3Unicast::NexthopIntfIdColl");
  EXPECT_EQ(nexthopToViaNexthopMapFactory()->typeName(), "FwdL3Unicast::NexthopToViaNexthopMap");
  EXPECT_EQ(nexthopToViaNexthopMacMapFactory()->typeName(),
            "FwdL3Unicast::NexthopToViaNexthopMacMap");
  EXPECT_EQ(viaNexthopMacToNhIndexMapFactory(vrf("red"))->typeName(),
            "FwdL3Unicast::ViaNexthopMacToNhIndexMap");
}

TEST(ResolverCollections, ReleasingEverythingFreesEverything) {
  const int64_t before = Core::Node::liveCount();
  {
    auto config = nexthopNhIndexResolverConfigDirFactory();
    auto status = nexthopNhIndexResolverStatusDirFactory();
    auto coll = nexthopIntfIdCollFactory(vrf("red"));
    auto viaMap = nexthopToViaNexthopMapFactory();
    auto macMap = nexthopToViaNexthopMacMapFactory();
    auto indexMap = viaNexthopMacToNhIndexMapFactory(vrf("red"));
    auto recorder =
        recordChanges<NexthopIntfId>(indexMap.get(), ViaNexthopMacToNhIndexMap::mapAttr);
    config->configIs(key("red", "10.0.0.1", "Ethernet1"));
    status->statusIs(NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet1"), 1));
    coll->configIs(nhIntf("10.0.0.1", "Ethernet1"));
    viaMap->mapIs(NexthopToViaNexthopMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254")));
    macMap->mapIs(NexthopToViaNexthopMacMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"),
                                                 mac("00:00:00:00:00:01")));
    indexMap->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 1));
    // The six collections (the watcher is no entity).
    EXPECT_EQ(Core::Node::liveCount(), before + 6);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

// A frame of a test stack: its name and the frame it was linked inside.
struct NamedFrame {
  std::string name;
  NamedFrame* outer = nullptr;
};

std::vector<std::string> namesFromInnermost(const NamedFrame* innermost) {
  std::vector<std::string> names;
  for (const NamedFrame* frame = innermost; frame; frame = frame->outer)
    names.push_back(frame->name);
  return names;
}

TEST(FrameLink, NestedLinksStackUpAndEachLeavesItsOuterInnermost) {
  NamedFrame* innermost = nullptr;
  NamedFrame a{"a"};
  {
    const FrameLink<NamedFrame> linkA(innermost, a);
    NamedFrame b{"b"};
    {
      const FrameLink<NamedFrame> linkB(innermost, b);
      EXPECT_EQ(namesFromInnermost(innermost), (std::vector<std::string>{"b", "a"}));
    }
    EXPECT_EQ(innermost, &a);
    EXPECT_EQ(namesFromInnermost(innermost), (std::vector<std::string>{"a"}));
  }
  EXPECT_EQ(innermost, nullptr);
}

TEST(FrameLink, UnwindingUnlinksTheFrame) {
  NamedFrame* innermost = nullptr;
  NamedFrame a{"a"};
  const FrameLink<NamedFrame> linkA(innermost, a);
  try {
    NamedFrame b{"b"};
    const FrameLink<NamedFrame> linkB(innermost, b);
    throw std::runtime_error("unwind");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(innermost, &a);
  EXPECT_EQ(a.outer, nullptr);
}

}  // namespace

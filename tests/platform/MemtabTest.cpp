#include "platform/Memtab.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "framework/CoreDump.h"
#include "support/ChangeRecorder.h"

namespace {

using Memtab::Fib::FecId;
using Memtab::Fib::FecModeStatus;
using Memtab::Fib::ViaIndex;
using Memtab::FibGen::CorruptionError;
using Memtab::FibGen::Fec;
using Memtab::FibGen::ForwardingStatus;
using Memtab::FibGen::Via;
using Netval::IntfId;
using Netval::IpGenAddr;

using FecRecorder = TestSupport::ChangeRecorder<FecId, Fec>;
using FecModeRecorder = TestSupport::ChangeRecorder<Memtab::Fib::FecMode, Memtab::Fib::FecMode>;

Via via(const char* intf, const char* hop) { return Via(IntfId(intf), IpGenAddr(hop)); }

// The message Kiln::Array gives for a count past its bound.
std::string arrayCountMessage() {
  Kiln::Array<int, 1> array;
  try {
    array.countIs(2);
  } catch (const Kiln::RangeError& e) {
    return e.what();
  }
  return "no error";
}

TEST(ViaIndex, HoldsPositionsUpToTheArrayBound) {
  EXPECT_EQ(ViaIndex(0).value(), 0u);
  EXPECT_EQ(ViaIndex(599).value(), 599u);
  EXPECT_EQ(ViaIndex::min, 0u);
  EXPECT_EQ(ViaIndex::max, 599u);
}

TEST(ViaIndex, PositionPastTheBoundThrowsRangeErrorWithItsText) {
  try {
    ViaIndex index(600);
    FAIL() << "built an index of " << index.value();
  } catch (const Kiln::RangeError& e) {
    EXPECT_STREQ(e.what(),
                 "Memtab::Fib::ViaIndex::value < Memtab::Fib::ViaIndex::min or > "
                 "Memtab::Fib::ViaIndex::max not allowed");
  }
}

TEST(FecModeStatus, StartsGlobalUnlessToldOtherwise) {
  EXPECT_EQ(Memtab::Fib::fecModePerVrf(), 1u);
  EXPECT_EQ(Memtab::Fib::fecModeGlobal(), 2u);
  EXPECT_EQ(FecModeStatus::FecModeStatusIs()->fecMode(), Memtab::Fib::fecModeGlobal());
  EXPECT_EQ(FecModeStatus::FecModeStatusIs(Memtab::Fib::fecModePerVrf())->fecMode(),
            Memtab::Fib::fecModePerVrf());
  EXPECT_EQ(FecModeStatus::FecModeStatusIs()->typeName(), "Memtab::Fib::FecModeStatus");
}

TEST(FecModeStatus, ChangePublishesNewModeWithOldAndNewValues) {
  auto status = FecModeStatus::FecModeStatusIs();
  FecModeRecorder recorder(*status, FecModeStatus::fecModeAttr);

  EXPECT_TRUE(status->fecModeIs(Memtab::Fib::fecModePerVrf()));

  EXPECT_EQ(status->fecMode(), Memtab::Fib::fecModePerVrf());
  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].key, Memtab::Fib::fecModePerVrf());
  EXPECT_EQ(recorder.changes[0].oldValue, Memtab::Fib::fecModeGlobal());
  EXPECT_EQ(recorder.changes[0].newValue, Memtab::Fib::fecModePerVrf());
}

TEST(FecModeStatus, SameModePublishesNothing) {
  auto status = FecModeStatus::FecModeStatusIs();
  FecModeRecorder recorder(*status, FecModeStatus::fecModeAttr);

  EXPECT_FALSE(status->fecModeIs(Memtab::Fib::fecModeGlobal()));

  EXPECT_TRUE(recorder.changes.empty());
}

TEST(Fec, DefaultHasNoVias) {
  const Fec fec;
  EXPECT_EQ(fec.key(), 0u);
  EXPECT_EQ(fec.viaCount(), 0u);
  EXPECT_EQ(fec.backupViaCount(), 0u);
}

TEST(Fec, ViaCountUpToTheBoundGrowsWithDefaultVias) {
  Fec fec(7);
  fec.viaCountIs(Fec::maxVia);
  EXPECT_EQ(fec.viaCount(), 600u);
  EXPECT_EQ(fec.via(ViaIndex(599)), Via());
  fec.backupViaCountIs(Fec::maxBackupVia);
  EXPECT_EQ(fec.backupViaCount(), 128u);
}

TEST(Fec, ViaCountPastTheBoundThrowsArrayRangeError) {
  Fec fec(7);
  try {
    fec.viaCountIs(601);
    FAIL() << "accepted 601 vias";
  } catch (const Kiln::RangeError& e) {
    EXPECT_EQ(e.what(), arrayCountMessage());
  }
  EXPECT_EQ(fec.viaCount(), 0u);
}

TEST(Fec, BackupViaCountPastTheBoundThrowsArrayRangeError) {
  Fec fec(7);
  try {
    fec.backupViaCountIs(129);
    FAIL() << "accepted 129 backup vias";
  } catch (const Kiln::RangeError& e) {
    EXPECT_EQ(e.what(), arrayCountMessage());
  }
  EXPECT_THROW(fec.backupViaIs(128, via("Ethernet1", "10.0.0.1")), Kiln::RangeError);
  EXPECT_EQ(fec.backupViaCount(), 0u);
}

TEST(Fec, BuildingFromMoreThanMaxViasThrows) {
  EXPECT_THROW(Fec(7, std::vector<Via>(601)), Kiln::RangeError);
  EXPECT_EQ(Fec(7, std::vector<Via>(600)).viaCount(), 600u);
}

TEST(Fec, ReadingPastTheCountThrows) {
  const Fec fec(7, {via("Ethernet1", "10.0.0.1")});
  EXPECT_EQ(fec.via(ViaIndex(0)), via("Ethernet1", "10.0.0.1"));
  EXPECT_THROW(fec.via(ViaIndex(1)), Kiln::RangeError);
  EXPECT_THROW(fec.backupVia(0), Kiln::RangeError);
}

TEST(Fec, SettingAViaPastTheCountGrowsTheCount) {
  Fec fec(7);
  fec.viaIs(ViaIndex(2), via("Ethernet2", "10.0.0.2"));
  fec.backupViaIs(1, via("Ethernet3", "10.0.0.3"));

  EXPECT_EQ(fec.viaCount(), 3u);
  EXPECT_EQ(fec.via(ViaIndex(0)), Via());
  EXPECT_EQ(fec.via(ViaIndex(2)), via("Ethernet2", "10.0.0.2"));
  EXPECT_EQ(fec.backupViaCount(), 2u);
  EXPECT_EQ(fec.backupVia(1), via("Ethernet3", "10.0.0.3"));
}

TEST(Fec, ShrinkingDropsTheLastVias) {
  Fec fec(7, {via("Ethernet1", "10.0.0.1"), via("Ethernet2", "10.0.0.2")});
  fec.viaCountIs(1);
  fec.viaCountIs(2);
  EXPECT_EQ(fec.via(ViaIndex(0)), via("Ethernet1", "10.0.0.1"));
  EXPECT_EQ(fec.via(ViaIndex(1)), Via());
}

TEST(Fec, EqualityCoversKeyCountsAndVias) {
  const Fec base(7, {via("Ethernet1", "10.0.0.1")});
  Fec otherVia(7, {via("Ethernet1", "10.0.0.2")});
  Fec otherKey(8, {via("Ethernet1", "10.0.0.1")});
  Fec moreVias(7, {via("Ethernet1", "10.0.0.1"), Via()});
  Fec withBackup = base;
  withBackup.backupViaCountIs(1);

  EXPECT_EQ(base, Fec(7, {via("Ethernet1", "10.0.0.1")}));
  EXPECT_NE(base, otherVia);
  EXPECT_NE(base, otherKey);
  EXPECT_NE(base, moreVias);
  EXPECT_NE(base, withBackup);
}

TEST(Fec, StoresOnlyTheViasInUse) {
  // A FEC with the arrays in place would hold 728 vias; readers copy one per review.
  EXPECT_LT(sizeof(Fec), Fec::maxBackupVia * sizeof(Via));
  const Fec fec(7, {via("Ethernet1", "10.0.0.1")});
  const Fec copy = fec;
  EXPECT_EQ(copy.vias().size(), 1u);
  EXPECT_EQ(copy, fec);
}

TEST(Fec, TextFormListsViasAndBackupVias) {
  Fec fec(7, {via("Ethernet1", "10.0.0.1")});
  fec.backupViaIs(0, via("Ethernet2", "0.0.0.0"));
  EXPECT_EQ(Kiln::toText(fec),
            "{key=7, via=[{intfId=Ethernet1, hop=10.0.0.1}], "
            "backupVia=[{intfId=Ethernet2, hop=0.0.0.0}]}");
  EXPECT_EQ(Kiln::toText(Fec()), "{key=0, via=[], backupVia=[]}");
}

TEST(ForwardingStatus, InsertPublishesOnceWithTheNewFec) {
  auto table = ForwardingStatus::ForwardingStatusIs();
  FecRecorder recorder(*table, ForwardingStatus::fecAttr);
  const Fec fec(1, {via("Ethernet1", "10.0.0.1")});

  EXPECT_TRUE(table->fecIs(fec));

  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].key, 1u);
  EXPECT_FALSE(recorder.changes[0].oldValue);
  EXPECT_EQ(recorder.changes[0].newValue, fec);
  EXPECT_TRUE(table->fecHas(1));
  EXPECT_EQ(table->fecCount(), 1u);
  ASSERT_NE(table->fecFind(1), nullptr);
  EXPECT_EQ(*table->fecFind(1), fec);
}

TEST(ForwardingStatus, EqualInsertPublishesNothing) {
  auto table = ForwardingStatus::ForwardingStatusIs();
  table->fecIs(Fec(1, {via("Ethernet1", "10.0.0.1")}));
  FecRecorder recorder(*table, ForwardingStatus::fecAttr);

  EXPECT_FALSE(table->fecIs(Fec(1, {via("Ethernet1", "10.0.0.1")})));

  EXPECT_TRUE(recorder.changes.empty());
}

TEST(ForwardingStatus, ChangePublishesOldAndNewFec) {
  auto table = ForwardingStatus::ForwardingStatusIs();
  const Fec before(1, {via("Ethernet1", "10.0.0.1")});
  const Fec after(1, {via("Ethernet1", "10.0.0.1"), via("Ethernet2", "10.0.0.2")});
  table->fecIs(before);
  FecRecorder recorder(*table, ForwardingStatus::fecAttr);

  EXPECT_TRUE(table->fecIs(after));

  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].oldValue, before);
  EXPECT_EQ(recorder.changes[0].newValue, after);
}

TEST(ForwardingStatus, DeletePublishesOnceAndDeleteOfAbsentPublishesNothing) {
  auto table = ForwardingStatus::ForwardingStatusIs();
  const Fec fec(1, {via("Ethernet1", "10.0.0.1")});
  table->fecIs(fec);
  FecRecorder recorder(*table, ForwardingStatus::fecAttr);

  EXPECT_FALSE(table->fecDel(2));
  EXPECT_TRUE(recorder.changes.empty());

  EXPECT_TRUE(table->fecDel(1));
  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].key, 1u);
  EXPECT_EQ(recorder.changes[0].oldValue, fec);
  EXPECT_FALSE(recorder.changes[0].newValue);
  EXPECT_FALSE(table->fecHas(1));
}

TEST(ForwardingStatus, DeleteAllPublishesOncePerFec) {
  auto table = ForwardingStatus::ForwardingStatusIs();
  for (FecId id : {1u, 2u, 3u}) table->fecIs(Fec(id));
  FecRecorder recorder(*table, ForwardingStatus::fecAttr);

  table->fecDelAll();

  EXPECT_EQ(table->fecCount(), 0u);
  std::vector<FecId> keys;
  for (const auto& change : recorder.changes) keys.push_back(change.key);
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<FecId>{1, 2, 3}));
}

TEST(ForwardingStatus, ReadCopiesTheFecOrGivesTheDefaultViaLessFec) {
  auto table = ForwardingStatus::ForwardingStatusIs();
  const Fec fec(1, {via("Ethernet1", "10.0.0.1")});
  table->fecIs(fec);

  const Fec copy = table->fec(1);
  table->fecIs(Fec(1));

  EXPECT_EQ(copy, fec);
  EXPECT_EQ(table->fec(9), Fec());
  EXPECT_EQ(table->fec(9).viaCount(), 0u);
  EXPECT_EQ(table->fecFind(9), nullptr);
}

TEST(ForwardingStatus, CorruptReadThrowsAndReportedCorruptionIsRecorded) {
  auto table = ForwardingStatus::ForwardingStatusIs();
  table->fecIs(Fec(1, {via("Ethernet1", "10.0.0.1")}));
  Core::Ptr<const ForwardingStatus> reader = table;
  table->corruptReadsIs(true);

  std::string message;
  try {
    reader->fec(1);
    FAIL() << "corrupt read returned a FEC";
  } catch (const CorruptionError& e) {
    message = e.what();
  }
  EXPECT_FALSE(message.empty());
  reader->doCorruptionDetected(message);

  EXPECT_EQ(reader->corruptionCount(), 1u);
  EXPECT_EQ(reader->lastCorruption(), message);
  table->corruptReadsIs(false);
  EXPECT_EQ(reader->fec(1).viaCount(), 1u);
}

TEST(ForwardingStatus, DumpListsEveryFec) {
  auto table = ForwardingStatus::ForwardingStatusIs();
  table->fecIs(Fec(1, {via("Ethernet1", "10.0.0.1")}));
  Core::DumpContext ctx;

  table->dumpState(ctx, 0);

  EXPECT_EQ(ctx.text(),
            "ForwardingStatus\n"
            "  fec: #1\n"
            "    {key=1, via=[{intfId=Ethernet1, hop=10.0.0.1}], backupVia=[]}\n");
  EXPECT_EQ(table->typeName(), "Memtab::FibGen::ForwardingStatus");
}

TEST(ForwardingStatus, EverythingIsFreed) {
  const int64_t before = Core::Node::liveCount();
  {
    auto table = ForwardingStatus::ForwardingStatusIs();
    auto mode = FecModeStatus::FecModeStatusIs();
    FecRecorder recorder(*table, ForwardingStatus::fecAttr);
    table->fecIs(Fec(1, {via("Ethernet1", "10.0.0.1")}));
    mode->fecModeIs(Memtab::Fib::fecModePerVrf());
    EXPECT_EQ(Core::Node::liveCount(), before + 2);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace

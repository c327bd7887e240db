#include "framework/CollectionOps.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

#include "framework/CoreCollection.h"
#include "framework/CoreDump.h"
#include "framework/Netval.h"
#include "support/ChangeRecorder.h"

namespace {

// An owned child with its own dump.
struct Leaf : Core::Node {
  explicit Leaf(uint32_t id) : id_(id) {}
  static Core::Ptr<Leaf> LeafIs(uint32_t id) { return Core::makePtr<Leaf>(id); }
  const uint32_t& id() const { return id_; }
  std::string_view typeName() const override { return "Test::Leaf"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override {
    ctx.line(indent, "Leaf - %u\n", id_);
  }
  uint32_t id_;
};

// One collection attribute of each kind the helpers serve.
struct Holder : Core::Node {
  static constexpr Core::AttrId leafAttr = 1;
  static constexpr Core::AttrId addrAttr = 2;
  static constexpr Core::AttrId macAttr = 3;
  Core::ChildMap<uint32_t, Leaf, &Leaf::id> leaf{this, leafAttr};
  Core::KeySet<Netval::IpGenAddr> addr{this, addrAttr};
  Core::Map<uint32_t, Netval::EthAddr> mac{this, macAttr};
};

TEST(CollectionOpsChildIs, CreatesOnceAndThenReturnsTheStoredChild) {
  auto holder = Core::makePtr<Holder>();
  TestSupport::ChangeRecorder<uint32_t> recorder(*holder, Holder::leafAttr);
  int creations = 0;
  auto create = [&creations](uint32_t id) {
    ++creations;
    return Leaf::LeafIs(id);
  };

  const Core::Ptr<Leaf> created = Core::childIs(holder->leaf, 7u, create);
  ASSERT_TRUE(created);
  EXPECT_EQ(created->id(), 7u);
  EXPECT_EQ(holder->leaf.get(7), created);
  const Core::Ptr<Leaf> again = Core::childIs(holder->leaf, 7u, create);

  EXPECT_EQ(again, created);
  EXPECT_EQ(creations, 1);
  EXPECT_EQ(recorder.keys.size(), 1u);
  EXPECT_EQ(holder->leaf.size(), 1u);
}

TEST(CollectionOpsChildIs, TakesAFactoryFunction) {
  auto holder = Core::makePtr<Holder>();
  const Core::Ptr<Leaf> created = Core::childIs(holder->leaf, 3u, &Leaf::LeafIs);
  EXPECT_EQ(created->id(), 3u);
  EXPECT_EQ(Core::childIs(holder->leaf, 3u, &Leaf::LeafIs), created);
}

// A holder with members in every collection, and the context its dumps are written into.
class CollectionOpsDump : public ::testing::Test {
 protected:
  CollectionOpsDump() {
    holder->leaf.set(Leaf::LeafIs(1));
    holder->leaf.set(Leaf::LeafIs(2));
    holder->addr.set(Netval::IpGenAddr("10.0.0.1"));
    holder->mac.set({5, Netval::EthAddr("00:1c:73:00:00:0a")});
  }

  Core::Ptr<Holder> holder = Core::makePtr<Holder>();
  Core::DumpContext ctx;
};

TEST_F(CollectionOpsDump, CountLineSitsTwoBlanksIn) {
  Core::dumpCount(ctx, 0, "leaf", 0);
  Core::dumpCount(ctx, 4, "leaf", 12);
  EXPECT_EQ(ctx.text(), "  leaf: #0\n      leaf: #12\n");
}

TEST_F(CollectionOpsDump, ChildrenFollowTheCountLineWithTheirOwnDumps) {
  Core::dumpChildren(ctx, 2, "leaf", holder->leaf);
  EXPECT_EQ(ctx.text(), "    leaf: #2\n      Leaf - 1\n      Leaf - 2\n");
}

TEST_F(CollectionOpsDump, ValuesAndMapEntriesPrintTheirTextForms) {
  Core::dumpValues(ctx, 0, "addr", holder->addr);
  Core::dumpMapEntries(ctx, 0, "mac", holder->mac);
  EXPECT_EQ(ctx.text(), "  addr: #1\n    10.0.0.1\n  mac: #1\n    5 -> 00:1c:73:00:00:0a\n");
}

TEST_F(CollectionOpsDump, MembersGetTheirLineAtIndentPlusFour) {
  Core::dumpMembers(ctx, 1, "addr", holder->addr,
                    [this](const Netval::IpGenAddr& addr, uint32_t at) {
                      ctx.line(at, "nexthop %s\n", addr.toString().c_str());
                    });
  EXPECT_EQ(ctx.text(), "   addr: #1\n     nexthop 10.0.0.1\n");
}

}  // namespace

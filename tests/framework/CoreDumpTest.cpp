#include <gtest/gtest.h>

#include "framework/CoreCollection.h"
#include "framework/CoreDump.h"

namespace {

struct Leaf : Core::Node {
  explicit Leaf(uint32_t id) : id_(id) {}
  std::string_view typeName() const override { return "Test::Leaf"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override {
    ctx.line(indent, "Leaf - %u\n", id_);
    ctx.line(indent + 2, "value - %d", -static_cast<int>(id_));  // no newline on purpose
  }
  uint32_t id() const { return id_; }
  uint32_t id_;
};

struct Tree : Core::Node {
  static constexpr Core::AttrId leafAttr = 1;
  std::string_view typeName() const override { return "Test::Tree"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override {
    ctx.line(indent, "Tree\n");
    ctx.line(indent + 2, "leaf: #%u\n", static_cast<unsigned>(leaf.size()));
    ctx.dumpChild(first.get(), indent + 4);
    ctx.dumpChild(first.get(), indent + 4);
    ctx.dumpChild(nullptr, indent + 4);
    ctx.line(indent + 2, "peer\n");
    ctx.dumpChildPointer(first.get(), indent + 4);
  }
  Core::Ptr<Leaf> first = Core::makePtr<Leaf>(7);
  Core::ChildMap<uint32_t, Leaf, &Leaf::id> leaf{this, leafAttr};
};

TEST(DumpContext, IndentZeroDropsThePrefix) {
  auto tree = Core::makePtr<Tree>();
  Core::DumpContext ctx;
  tree->dumpState(ctx, 0);
  EXPECT_EQ(ctx.text(),
            "Tree\n"
            "  leaf: #0\n"
            "    Leaf - 7\n"
            "      value - -7\n"
            "    (already dumped) Test::Leaf\n"
            "    (null)\n"
            "  peer\n"
            "    -> Test::Leaf\n");
}

TEST(DumpContext, IndentFourShiftsEveryLine) {
  auto tree = Core::makePtr<Tree>();
  Core::DumpContext ctx;
  tree->dumpState(ctx, 4);
  EXPECT_EQ(ctx.text(),
            "    Tree\n"
            "      leaf: #0\n"
            "        Leaf - 7\n"
            "          value - -7\n"
            "        (already dumped) Test::Leaf\n"
            "        (null)\n"
            "      peer\n"
            "        -> Test::Leaf\n");
}

TEST(DumpContext, GenericContextPrintsTypeNamesOfOwnedChildren) {
  auto tree = Core::makePtr<Tree>();
  Core::DumpContext ctx(true);
  ctx.dumpChild(tree.get(), 0);
  EXPECT_EQ(ctx.text(), "Test::Tree\n");
}

TEST(DumpContext, LongLinesAreNotTruncated) {
  Core::DumpContext ctx;
  std::string word(2000, 'x');
  ctx.line(2, "%s\n", word.c_str());
  EXPECT_EQ(ctx.text(), "  " + word + "\n");
}

}  // namespace

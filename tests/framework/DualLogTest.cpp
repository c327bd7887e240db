#include "framework/DualLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/Kiln.h"
#include "framework/Netval.h"
#include "framework/RingLog.h"

namespace {

DualLog::Handle& traceHandle() {
  static DualLog::Handle h("DualLogTest", false);
  return h;
}

// A text record copied out of the sink.
struct Captured {
  std::string file;
  uint32_t line;
  std::string shortFunction;
  uint32_t level;
  std::string handle;
  std::string text;
};

int evaluations = 0;
int counted(int value) {
  ++evaluations;
  return value;
}

struct Throwing {};
std::ostream& operator<<(std::ostream& os, const Throwing&) {
  throw std::runtime_error("cannot print");
  return os;
}

}  // namespace

// Trace statements inside named classes and functions, so that the signatures are known.
namespace DualLogTestUnit {

// Whether __LINE__ in a macro call written over several lines is the call's last line (clang)
// rather than its first (GCC).
#ifdef __clang__
constexpr bool kMacroLineIsLast = true;
#else
constexpr bool kMacroLineIsLast = false;
#endif

struct Resolver {
  uint32_t lastLine = 0;

  void handleConfig(const Netval::IpGenAddr& nexthop, int& count) {
    lastLine = __LINE__ + 1;
    DUALLOG_TRACE(8, "Resolve request added - nexthop: ", nexthop, " count: ", count);
  }
  void announce() const { DUALLOG_TRACE(8, ""); }
  void atLevels() {
    DUALLOG_TRACE(7, "level seven");
    DUALLOG_TRACE(8, "level eight");
  }
  void withCustomSignature(int value) {
    lastLine = __LINE__ + 1;
    DUALLOG_TRACE_FN(8, "void DualLogTestUnit::Custom::name()", "value ", value);
  }
  void everyKind(const std::string& s, const Kiln::String<100>& vrf, Netval::IntfId intf,
                 Netval::EthAddr mac, bool flag, char c, unsigned u, double d) {
    // The statement below spans two lines: GCC gives it the line it starts on, clang the line it
    // ends on.
    lastLine = __LINE__ + (kMacroLineIsLast ? 2 : 1);
    DUALLOG_TRACE(8, "s=", s, " vrf=", vrf, " intf=", intf, " mac=", mac, " flag=", flag, " c=", c,
                  " u=", u, " d=", d, " ip=", Netval::IpGenAddr::fromText("::1"));
  }
  void sideEffect() { DUALLOG_TRACE(8, "value ", counted(5)); }
  void throwing() { DUALLOG_TRACE(8, "value ", Throwing{}); }
};

}  // namespace DualLogTestUnit

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string parseError(std::string_view filter) {
  try {
    DualLog::TextFilter::parse(filter);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "no error";
}

TEST(TextFilter, StarMatchesEveryHandle) {
  DualLog::TextFilter f = DualLog::TextFilter::parse("*/8");
  EXPECT_EQ(f.levelMask("FwdNexthopToViaNexthopSm"), 0x1ffu);
  EXPECT_EQ(f.levelMask("Other"), 0x1ffu);
  EXPECT_EQ(f.text(), "*/8");
}

TEST(TextFilter, ItemEnablesLevelsUpToItsLevel) {
  DualLog::TextFilter f = DualLog::TextFilter::parse("FwdViaNexthopMacToNhIndexSm/7");
  EXPECT_EQ(f.levelMask("FwdViaNexthopMacToNhIndexSm"), 0xffu);
  EXPECT_EQ(f.levelMask("FwdViaNexthopMacToNhIndexSmX"), 0u);
  EXPECT_EQ(f.levelMask("Other"), 0u);
  EXPECT_EQ(DualLog::TextFilter::parse("A/0").levelMask("A"), 0x1u);
  EXPECT_EQ(DualLog::TextFilter::parse("A/9").levelMask("A"), 0x3ffu);
}

TEST(TextFilter, ItemsAddUp) {
  DualLog::TextFilter f = DualLog::TextFilter::parse(" A/2 , B/5,*/1,A/4");
  EXPECT_EQ(f.levelMask("A"), 0x1fu);
  EXPECT_EQ(f.levelMask("B"), 0x3fu);
  EXPECT_EQ(f.levelMask("C"), 0x3u);
}

TEST(TextFilter, EmptyFilterTurnsEverythingOff) {
  EXPECT_EQ(DualLog::TextFilter::parse("").levelMask("A"), 0u);
  EXPECT_EQ(DualLog::TextFilter::parse("  ").levelMask("A"), 0u);
  EXPECT_EQ(DualLog::TextFilter().levelMask("A"), 0u);
}

TEST(TextFilter, MalformedItemsAreNamed) {
  EXPECT_EQ(parseError("x"), "bad trace filter item 'x': expected HANDLE/LEVEL");
  EXPECT_EQ(parseError("A/3,,B/2"), "bad trace filter item '': expected HANDLE/LEVEL");
  EXPECT_EQ(parseError("A/3,"), "bad trace filter item '': expected HANDLE/LEVEL");
  EXPECT_EQ(parseError("/3"), "bad trace filter item '/3': expected HANDLE/LEVEL, HANDLE is empty");
  for (const char* bad : {"A/", "A/10", "A/-1", "A/3x", "A/ x"}) {
    EXPECT_EQ(parseError(bad), "bad trace filter item '" + std::string(bad) +
                                   "': LEVEL must be a number from 0 to 9")
        << bad;
  }
}

TEST(ShortFunctionName, TakesTheUnqualifiedName) {
  using DualLog::shortFunctionName;
  EXPECT_EQ(shortFunctionName("void FwdL3Unicast::NexthopNhIndexResolverSm::handleConfig(const "
                              "FwdL3Unicast::NexthopNhIndexResolverKey&)"),
            "handleConfig");
  EXPECT_EQ(shortFunctionName("void handleConfig()"), "handleConfig");
  EXPECT_EQ(shortFunctionName("Foo::Sm::Sm(int)"), "Sm");
  EXPECT_EQ(shortFunctionName("virtual Foo::Sm::~Sm()"), "~Sm");
  EXPECT_EQ(shortFunctionName("uint32_t Foo::Sm::count() const"), "count");
  EXPECT_EQ(shortFunctionName("std::vector<int> Foo::get(std::pair<int, int>) [with T = int]"),
            "get");
  EXPECT_EQ(shortFunctionName("T* Foo::make<T>(int) [with T = Bar]"), "make");
  EXPECT_EQ(shortFunctionName("bool Foo::Less::operator()(int, int) const"), "operator()");
  EXPECT_EQ(shortFunctionName("std::ostream& Foo::operator<<(std::ostream&, const Foo::X&)"),
            "operator<<");
  EXPECT_EQ(shortFunctionName("Foo::X::operator bool() const"), "operator bool");
  EXPECT_EQ(shortFunctionName("void {anonymous}::helper(int*, char&)"), "helper");
  EXPECT_EQ(shortFunctionName("Foo::handleConfig"), "handleConfig");
}

// Captures text lines through the sink; each test starts with both back-ends off.
class DualLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DualLog::textFilterIs("");
    DualLog::textSinkIs([this](const DualLog::TextRecord& r) {
      lines_.push_back({std::string(r.file), r.line, std::string(r.shortFunction), r.level,
                        std::string(r.handle), std::string(r.text)});
    });
  }
  void TearDown() override {
    DualLog::textSinkIs(nullptr);
    DualLog::textFilterIs("");
    RingLog::close();
  }

  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (const Captured& c : lines_) out.push_back(c.text);
    return out;
  }

  std::vector<Captured> lines_;
  DualLogTestUnit::Resolver resolver_;
};

TEST_F(DualLogTest, TextCarriesTheSignatureThenPiecesAndValues) {
  DualLog::textFilterIs("DualLogTest/8");
  int count = 3;
  resolver_.handleConfig(Netval::IpGenAddr::fromText("10.0.0.1"), count);
  ASSERT_EQ(lines_.size(), 1u);
  const Captured& c = lines_[0];
  EXPECT_EQ(c.text,
            "void DualLogTestUnit::Resolver::handleConfig(const Netval::IpGenAddr&, int&): "
            "Resolve request added - nexthop: 10.0.0.1 count: 3");
  EXPECT_EQ(c.file, "DualLogTest.cpp");
  EXPECT_EQ(c.line, resolver_.lastLine);
  EXPECT_EQ(c.shortFunction, "handleConfig");
  EXPECT_EQ(c.level, 8u);
  EXPECT_EQ(c.handle, "DualLogTest");
}

TEST_F(DualLogTest, AnnouncementIsTheSignatureAlone) {
  DualLog::textFilterIs("*/8");
  resolver_.announce();
  EXPECT_THAT(texts(), ElementsAre("void DualLogTestUnit::Resolver::announce() const: "));
}

TEST_F(DualLogTest, GivenFunctionTextReplacesTheSignature) {
  DualLog::textFilterIs("*/8");
  resolver_.withCustomSignature(4);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_EQ(lines_[0].text, "void DualLogTestUnit::Custom::name(): value 4");
  EXPECT_EQ(lines_[0].shortFunction, "name");
}

TEST_F(DualLogTest, LevelSevenPassesAFilterThatStopsLevelEight) {
  DualLog::textFilterIs("DualLogTest/7");
  resolver_.atLevels();
  EXPECT_THAT(texts(), ElementsAre("void DualLogTestUnit::Resolver::atLevels(): level seven"));
  lines_.clear();
  DualLog::textFilterIs("DualLogTest/8");
  resolver_.atLevels();
  EXPECT_THAT(texts(), ElementsAre("void DualLogTestUnit::Resolver::atLevels(): level seven",
                                   "void DualLogTestUnit::Resolver::atLevels(): level eight"));
}

TEST_F(DualLogTest, OtherHandlesFilterNothingIn) {
  DualLog::textFilterIs("FwdNexthopToViaNexthopSm/9");
  resolver_.atLevels();
  EXPECT_TRUE(lines_.empty());
}

TEST_F(DualLogTest, NothingHappensWhenBothBackEndsAreOff) {
  evaluations = 0;
  resolver_.sideEffect();
  resolver_.atLevels();
  EXPECT_TRUE(lines_.empty());
  EXPECT_EQ(evaluations, 0);
  DualLog::textFilterIs("*/8");
  resolver_.sideEffect();
  EXPECT_EQ(evaluations, 1);
  EXPECT_THAT(texts(), ElementsAre("void DualLogTestUnit::Resolver::sideEffect(): value 5"));
}

TEST_F(DualLogTest, FilterChangesReachExistingAndNewHandles) {
  DualLog::Handle existing("Existing", false);
  EXPECT_FALSE(existing.textOn(0));
  DualLog::textFilterIs("Existing/3,Later/1");
  EXPECT_EQ(DualLog::textFilter(), "Existing/3,Later/1");
  EXPECT_TRUE(existing.textOn(3));
  EXPECT_FALSE(existing.textOn(4));
  DualLog::Handle later("Later", false);
  EXPECT_TRUE(later.textOn(1));
  EXPECT_FALSE(later.textOn(2));
  EXPECT_EQ(later.name(), "Later");
}

TEST_F(DualLogTest, MalformedFilterChangesNothing) {
  DualLog::textFilterIs("DualLogTest/8");
  EXPECT_THROW(DualLog::textFilterIs("DualLogTest/8,oops"), std::invalid_argument);
  EXPECT_EQ(DualLog::textFilter(), "DualLogTest/8");
  resolver_.announce();
  EXPECT_EQ(lines_.size(), 1u);
}

TEST_F(DualLogTest, RingAndTextGiveTheSameText) {
  std::filesystem::path path = std::filesystem::temp_directory_path() /
                               ("DualLogTest-" + std::to_string(getpid()) + ".ring");
  ASSERT_TRUE(RingLog::open(path.string(), 2 << 20));
  DualLog::textFilterIs("*/8");
  int count = 7;
  resolver_.handleConfig(Netval::IpGenAddr::fromText("10.1.2.3"), count);
  uint32_t configLine = resolver_.lastLine;
  resolver_.everyKind("abc", Kiln::String<100>("red"), Netval::IntfId::fromText("Ethernet1"),
                      Netval::EthAddr::fromText("00:1c:73:00:00:01"), true, 'q', 12u, 0.5);
  uint32_t kindsLine = resolver_.lastLine;
  RingLog::close();
  std::vector<std::string> ring = RingLog::decodeFile(path.string());
  std::filesystem::remove(path);

  ASSERT_EQ(lines_.size(), 2u);
  EXPECT_EQ(lines_[1].text,
            "void DualLogTestUnit::Resolver::everyKind(const std::string&, const "
            "Kiln::String<100>&, Netval::IntfId, Netval::EthAddr, bool, char, unsigned int, "
            "double): s=abc vrf=red intf=Ethernet1 mac=00:1c:73:00:00:01 flag=1 c=q u=12 d=0.5 "
            "ip=::1");
  EXPECT_THAT(ring, ElementsAre("1 DualLogTest.cpp:" + std::to_string(configLine) +
                                    " [DualLogTest/8] " + lines_[0].text,
                                "2 DualLogTest.cpp:" + std::to_string(kindsLine) +
                                    " [DualLogTest/8] " + lines_[1].text));
}

TEST_F(DualLogTest, RingAloneRecordsWithoutText) {
  std::filesystem::path path = std::filesystem::temp_directory_path() /
                               ("DualLogTest-" + std::to_string(getpid()) + "-ring.ring");
  ASSERT_TRUE(RingLog::open(path.string(), 2 << 20));
  resolver_.announce();
  RingLog::close();
  std::vector<std::string> ring = RingLog::decodeFile(path.string());
  std::filesystem::remove(path);
  EXPECT_TRUE(lines_.empty());
  ASSERT_EQ(ring.size(), 1u);
  EXPECT_THAT(ring[0], HasSubstr("[DualLogTest/8] void DualLogTestUnit::Resolver::announce() "
                                 "const: "));
}

TEST_F(DualLogTest, AnExceptionInsideAStatementTerminates) {
  DualLog::textFilterIs("*/8");
  EXPECT_DEATH(resolver_.throwing(), "");
}

// The default sink and the environment are read once per process, so these run in a fresh one.
TEST(DualLogDefaultSink, WritesOneLineToStderr) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        unsetenv("FWD_TRACE_FILE");
        setenv("FWD_TRACE", "DualLogTest/8", 1);
        DualLogTestUnit::Resolver().announce();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0),
      "DualLogTest\\.cpp:[0-9]+ announce \\[DualLogTest/8\\] void "
      "DualLogTestUnit::Resolver::announce\\(\\) const: \n");
}

TEST(DualLogDefaultSink, AppendsToTheTraceFile) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The child process runs this body again, so the path must not depend on the process.
  std::filesystem::path path =
      std::filesystem::read_symlink("/proc/self/exe").parent_path() / "DualLogTest-trace.txt";
  { std::ofstream(path) << "earlier line\n"; }
  EXPECT_EXIT(
      {
        setenv("FWD_TRACE_FILE", path.c_str(), 1);
        setenv("FWD_TRACE", "*/8", 1);
        DualLogTestUnit::Resolver().withCustomSignature(9);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  std::filesystem::remove(path);
  EXPECT_THAT(text.str(),
              ::testing::MatchesRegex("earlier line\nDualLogTest\\.cpp:[0-9]+ name "
                                      "\\[DualLogTest/8\\] void "
                                      "DualLogTestUnit::Custom::name\\(\\): value 9\n"));
}

TEST(DualLogDefaultSink, MalformedEnvironmentFilterIsReported) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("FWD_TRACE", "DualLogTest", 1);
        DualLogTestUnit::Resolver().announce();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0),
      "FWD_TRACE: bad trace filter item 'DualLogTest': expected HANDLE/LEVEL; the text trace "
      "stays off\n$");
}

}  // namespace

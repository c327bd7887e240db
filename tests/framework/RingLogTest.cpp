#include "framework/RingLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Kiln.h"
#include "framework/Netval.h"
#include "framework/detail/RingLogFormat.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A value without a binary codec: the ring records its operator<< text.
struct Point {
  int x;
  int y;
};
std::ostream& operator<<(std::ostream& os, const Point& p) {
  return os << '(' << p.x << ", " << p.y << ')';
}

enum Colour { red = 3 };

// Large enough that the descriptors every test registers in this process always fit.
constexpr size_t kFileBytes = 2 << 20;

class RingLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("RingLogTest-" + std::to_string(getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_);
    path_ = (dir_ / "trace.ring").string();
  }
  void TearDown() override {
    RingLog::close();
    fs::remove_all(dir_);
  }

  // Registers a message of function "void f()" in handle "Test" at level 8, as a trace statement
  // does on its first occurrence.
  template <class... A>
  static const RingLog::MessageInfo& messageOf(uint32_t line, A&&... args) {
    RingLog::MessageInfo info;
    info.file = "RingLogTest.cpp";
    info.line = line;
    info.function = "void f()";
    info.level = 8;
    info.handle = "Test";
    info.items = RingLog::itemsOf(args...);
    return RingLog::messageIs(std::move(info));
  }

  // Registers and writes one occurrence.
  template <class... A>
  static void trace(uint32_t line, A&&... args) {
    RingLog::write(messageOf(line, args...), args...);
  }

  void writeFile(const std::string& bytes) {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    out << bytes;
  }
  std::string readFile() {
    std::ifstream in(path_, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::string decodeError() {
    try {
      RingLog::decodeFile(path_);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "no error";
  }

  fs::path dir_;
  std::string path_;
};

TEST_F(RingLogTest, OffUntilOpened) {
  EXPECT_FALSE(RingLog::on());
  EXPECT_TRUE(RingLog::open(path_, kFileBytes));
  EXPECT_TRUE(RingLog::on());
  RingLog::close();
  EXPECT_FALSE(RingLog::on());
}

TEST_F(RingLogTest, DecodesEveryArgumentKind) {
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  const char* cstr = "c-string";
  std::string str = "std-string";
  std::string_view view = "view";
  Kiln::String<100> vrf("red");
  char buffer[8] = "buf";
  trace(10, "int ", -42, " long ", int64_t{-1099511627776}, " unsigned ", 7u, " u64 ",
        uint64_t{18446744073709551615u});
  trace(11, "bool ", true, " ", false, " char ", 'x', " double ", 2.5, " float ", 0.25f);
  trace(12, "cstr ", cstr, " string ", str, " view ", view, " kiln ", vrf, " buffer ", buffer);
  trace(13, "v4 ", Netval::IpGenAddr::fromText("10.0.0.1"), " v6 ",
        Netval::IpGenAddr::fromText("2001:db8::1"), " none ", Netval::IpGenAddr());
  trace(14, "mac ", Netval::EthAddr::fromText("00:1c:73:aa:bb:cc"), " intf ",
        Netval::IntfId::fromText("Ethernet3/1"), " empty intf '", Netval::IntfId(), "'");
  trace(15, "point ", Point{1, -2}, " colour ", red, " null ", static_cast<const char*>(nullptr));
  trace(16, "");
  RingLog::close();

  EXPECT_THAT(RingLog::decodeFile(path_),
              ::testing::ElementsAre(
                  "1 RingLogTest.cpp:10 [Test/8] void f(): int -42 long -1099511627776 "
                  "unsigned 7 u64 18446744073709551615",
                  "2 RingLogTest.cpp:11 [Test/8] void f(): bool 1 0 char x double 2.5 float 0.25",
                  "3 RingLogTest.cpp:12 [Test/8] void f(): cstr c-string string std-string view "
                  "view kiln red buffer buf",
                  "4 RingLogTest.cpp:13 [Test/8] void f(): v4 10.0.0.1 v6 2001:db8::1 none unset",
                  "5 RingLogTest.cpp:14 [Test/8] void f(): mac 00:1c:73:aa:bb:cc intf Ethernet3/1 "
                  "empty intf ''",
                  "6 RingLogTest.cpp:15 [Test/8] void f(): point (1, -2) colour 3 null (null)",
                  "7 RingLogTest.cpp:16 [Test/8] void f(): "));
}

TEST_F(RingLogTest, KernelInterfaceNameTravelsWithItsText) {
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  trace(17, "intf ", Netval::IntfId::fromKernelName("veth-ring0"), " then ",
        Netval::IntfId::fromText("Ethernet2"), " max ",
        Netval::IntfId::fromKernelName("abcdefghijklmno"));
  RingLog::close();
  EXPECT_THAT(RingLog::decodeFile(path_),
              ::testing::ElementsAre("1 RingLogTest.cpp:17 [Test/8] void f(): intf veth-ring0 "
                                     "then Ethernet2 max abcdefghijklmno"));
}

TEST_F(RingLogTest, InterfaceShortNameIsNamedWhenRead) {
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  trace(18, "short ", Netval::IntfShortName(Netval::IntfId::fromText("Ethernet3/1")), " long ",
        Netval::IntfId::fromText("Port-Channel5"), " short ",
        Netval::IntfShortName(Netval::IntfId::fromText("Port-Channel5")), " kernel ",
        Netval::IntfShortName(Netval::IntfId::fromKernelName("veth-short0")), " empty '",
        Netval::IntfShortName(Netval::IntfId()), "'");
  RingLog::close();
  EXPECT_THAT(RingLog::decodeFile(path_),
              ::testing::ElementsAre("1 RingLogTest.cpp:18 [Test/8] void f(): short Et3/1 long "
                                     "Port-Channel5 short Po5 kernel veth-short0 empty ''"));
}

TEST_F(RingLogTest, KindsOfItemsFollowTheArguments) {
  std::string s;
  const auto& m =
      messageOf(20, "a", 1, s, Netval::IpGenAddr(), Point{0, 0}, 'c', true, 1.0, Netval::EthAddr(),
                Netval::IntfId(), 2u, Netval::IntfShortName(Netval::IntfId()));
  using K = RingLog::Kind;
  std::vector<K> kinds;
  for (const RingLog::Item& item : m.items) kinds.push_back(item.kind);
  EXPECT_THAT(kinds,
              ::testing::ElementsAre(K::piece, K::signedInt, K::string, K::ipGenAddr, K::text,
                                     K::character, K::boolean, K::floating, K::ethAddr, K::intfId,
                                     K::unsignedInt, K::intfShortName));
  EXPECT_EQ(m.items[0].piece, "a");
  EXPECT_EQ(RingLog::message(m.id), &m);
  EXPECT_EQ(RingLog::message(0), nullptr);
}

TEST_F(RingLogTest, MessagesRegisteredBeforeOpenAreDecodable) {
  const auto& early = messageOf(30, "early ", 1);
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  RingLog::write(early, "early ", 1);
  trace(31, "late ", 2);
  RingLog::close();
  EXPECT_THAT(RingLog::decodeFile(path_),
              ::testing::ElementsAre("1 RingLogTest.cpp:30 [Test/8] void f(): early 1",
                                     "2 RingLogTest.cpp:31 [Test/8] void f(): late 2"));
}

TEST_F(RingLogTest, NothingIsWrittenWhileClosed) {
  const auto& m = messageOf(40, "n ", 0);
  RingLog::write(m, "n ", 1);
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  RingLog::write(m, "n ", 2);
  RingLog::close();
  RingLog::write(m, "n ", 3);
  EXPECT_THAT(RingLog::decodeFile(path_),
              ::testing::ElementsAre("1 RingLogTest.cpp:40 [Test/8] void f(): n 2"));
}

TEST_F(RingLogTest, ReopeningStartsAnEmptyRing) {
  const auto& m = messageOf(50, "n ", 0);
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  RingLog::write(m, "n ", 1);
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  RingLog::write(m, "n ", 2);
  RingLog::close();
  EXPECT_THAT(RingLog::decodeFile(path_),
              ::testing::ElementsAre("1 RingLogTest.cpp:50 [Test/8] void f(): n 2"));
}

TEST_F(RingLogTest, WrappingKeepsTheNewestRecordsOldestFirst) {
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  const auto& m = messageOf(60, "record ", uint64_t{0}, " of ", std::string());
  const std::string padding(40, 'p');
  // A record: header, 8-byte integer, 4-byte length and the padding, rounded up to 8 bytes.
  const uint64_t recordBytes =
      (sizeof(RingLog::detail::RecordHeader) + 8 + 4 + padding.size() + 7) / 8 * 8;
  const uint64_t recordsPerBlock =
      (RingLog::detail::kBlockBytes - sizeof(RingLog::detail::BlockHeader)) / recordBytes;
  // Four times what the ring holds.
  const uint64_t total = 4 * kFileBytes / recordBytes;
  for (uint64_t i = 1; i <= total; ++i) RingLog::write(m, "record ", i, " of ", padding);
  RingLog::close();

  std::vector<std::string> lines = RingLog::decodeFile(path_);
  ASSERT_FALSE(lines.empty());
  ASSERT_LT(lines.size(), total);
  uint64_t first = total - lines.size() + 1;
  for (size_t i = 0; i < lines.size(); ++i) {
    uint64_t seq = first + i;
    ASSERT_EQ(lines[i], std::to_string(seq) + " RingLogTest.cpp:60 [Test/8] void f(): record " +
                            std::to_string(seq) + " of " + padding)
        << "at line " << i;
  }
  // Only the block being refilled is lost: every other block is full.
  RingLog::detail::FileHeader header;
  std::memcpy(&header, readFile().data(), sizeof header);
  EXPECT_GE(lines.size(), (header.blockCount - 1) * recordsPerBlock);
}

TEST_F(RingLogTest, AddressesTakeTheBytesOfTheirFamily) {
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  trace(75, "v4 ", Netval::IpGenAddr::fromText("10.1.2.3"));
  trace(76, "v6 ", Netval::IpGenAddr::fromText("2001:db8::7"));
  trace(77, "none ", Netval::IpGenAddr());
  RingLog::close();
  RingLog::detail::FileHeader header;
  const std::string bytes = readFile();
  std::memcpy(&header, bytes.data(), sizeof header);
  RingLog::detail::BlockHeader block;
  std::memcpy(&block, bytes.data() + header.ringOffset, sizeof block);
  // Each record: an 8-byte header, the family byte and the address, rounded up to 8 bytes.
  EXPECT_EQ(block.used, (8 + 1 + 4 + 7) / 8 * 8 + (8 + 1 + 16 + 7) / 8 * 8 + (8 + 1 + 7) / 8 * 8);
  const std::vector<std::string> lines = RingLog::decodeFile(path_);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(lines[0], HasSubstr("v4 10.1.2.3"));
  EXPECT_THAT(lines[1], HasSubstr("v6 2001:db8::7"));
}

TEST_F(RingLogTest, LongStringsAreCut) {
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  std::string longText(RingLog::kMaxStringBytes + 100, 'z');
  trace(70, "s=", longText);
  RingLog::close();
  std::vector<std::string> lines = RingLog::decodeFile(path_);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "1 RingLogTest.cpp:70 [Test/8] void f(): s=" +
                          std::string(RingLog::kMaxStringBytes, 'z') + "...");
}

TEST_F(RingLogTest, MessagesBeyondAFullDescriptorAreaAreDropped) {
  ASSERT_TRUE(RingLog::open(path_, RingLog::minFileBytes()));
  const auto& first = messageOf(80, "first");
  RingLog::write(first, "first");
  // Each descriptor carries a 4 KiB piece; the smallest file has 64 KiB of descriptors.
  std::vector<const RingLog::MessageInfo*> big;
  for (int i = 0; i < 20; ++i) {
    RingLog::MessageInfo info = first;
    info.items = {{RingLog::Kind::piece, std::string(4096, 'd')}};
    big.push_back(&RingLog::messageIs(std::move(info)));
    RingLog::write(*big.back(), "x");
  }
  RingLog::write(first, "first");
  RingLog::close();
  std::vector<std::string> lines = RingLog::decodeFile(path_);
  ASSERT_GE(lines.size(), 3u);
  ASSERT_LT(lines.size(), 22u);
  EXPECT_EQ(lines.front(), "1 RingLogTest.cpp:80 [Test/8] void f(): first");
  EXPECT_EQ(lines.back(),
            std::to_string(lines.size()) + " RingLogTest.cpp:80 [Test/8] void f(): first");
  RingLog::detail::FileHeader header;
  std::string bytes = readFile();
  std::memcpy(&header, bytes.data(), sizeof header);
  EXPECT_EQ(header.droppedRecords, 22u - lines.size());
}

TEST_F(RingLogTest, OpenRejectsATooSmallSize) {
  try {
    RingLog::open(path_, RingLog::minFileBytes() - 1);
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr(path_));
    EXPECT_THAT(e.what(), HasSubstr("below the minimum"));
  }
  EXPECT_FALSE(RingLog::on());
}

TEST_F(RingLogTest, OpenRejectsAPathThatCannotBeCreated) {
  std::string bad = (dir_ / "missing" / "trace.ring").string();
  try {
    RingLog::open(bad);
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr(bad));
    EXPECT_THAT(e.what(), HasSubstr("cannot create"));
  }
  EXPECT_FALSE(RingLog::on());
}

TEST_F(RingLogTest, DecodeRejectsAMissingFile) {
  EXPECT_THAT(decodeError(), ::testing::AllOf(StartsWith(path_), HasSubstr("cannot open")));
}

TEST_F(RingLogTest, DecodeRejectsADirectory) {
  path_ = dir_.string();
  EXPECT_EQ(decodeError(), path_ + ": not a regular file");
}

TEST_F(RingLogTest, DecodeRejectsAFileThatIsNotARingTrace) {
  writeFile("this is a text file, not a trace\n");
  EXPECT_THAT(decodeError(), HasSubstr("not a ring trace file (shorter than a header)"));
  writeFile(std::string(8192, 'g'));
  EXPECT_THAT(decodeError(), HasSubstr("not a ring trace file (bad magic)"));
}

TEST_F(RingLogTest, DecodeRejectsAnotherVersionOrACutFile) {
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  trace(90, "x");
  RingLog::close();
  std::string good = readFile();

  std::string cut = good.substr(0, good.size() - 100);
  writeFile(cut);
  EXPECT_THAT(decodeError(), HasSubstr("header says " + std::to_string(good.size()) + " bytes"));

  std::string otherVersion = good;
  uint32_t version = RingLog::detail::kVersion + 1;
  std::memcpy(otherVersion.data() + offsetof(RingLog::detail::FileHeader, version), &version, 4);
  writeFile(otherVersion);
  EXPECT_THAT(decodeError(), HasSubstr("unsupported version " + std::to_string(version)));
}

TEST_F(RingLogTest, DecodeRejectsACorruptRecord) {
  ASSERT_TRUE(RingLog::open(path_, kFileBytes));
  trace(100, "x");
  RingLog::close();
  std::string bytes = readFile();
  RingLog::detail::FileHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  size_t record = header.ringOffset + sizeof(RingLog::detail::BlockHeader);
  uint32_t badId = 999999;
  std::memcpy(bytes.data() + record + offsetof(RingLog::detail::RecordHeader, id), &badId, 4);
  writeFile(bytes);
  EXPECT_THAT(decodeError(), HasSubstr("unknown message id 999999"));
}

}  // namespace

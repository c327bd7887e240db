#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "framework/DualLog.h"
#include "framework/Netval.h"
#include "framework/RingLog.h"
#include "framework/detail/RingLogFormat.h"
#include "support/ToolRun.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

DualLog::Handle& traceHandle() {
  static DualLog::Handle h("RingLogCatTest", false);
  return h;
}

int resolveLine = 0;

void resolve(const Netval::IpGenAddr& nexthop, Netval::IntfId intf) {
  resolveLine = __LINE__ + 1;
  DUALLOG_TRACE(8, "Resolve request added - nexthop: ", nexthop, " intfId: ", intf);
}

}  // namespace

// A second trace unit, at another level.
namespace other {
namespace {
DualLog::Handle& traceHandle() {
  static DualLog::Handle h("OtherUnit", false);
  return h;
}
}  // namespace
void note(int value) { DUALLOG_TRACE(3, "note ", value); }
}  // namespace other

namespace {

struct Result {
  int status;
  std::string out;
  std::string err;
};

std::string slurp(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs the ringlog-cat of this build tree: tools are built in <build>/tools, tests in
// <build>/tests.
class RingLogCatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tool_ =
        fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / "ringlog-cat";
    ASSERT_TRUE(fs::exists(tool_)) << "ringlog-cat is not built at " << tool_;
    dir_ = fs::temp_directory_path() / ("RingLogCatTest-" + std::to_string(getpid()));
    fs::create_directories(dir_);
  }
  void TearDown() override {
    RingLog::close();
    fs::remove_all(dir_);
  }

  Result run(const std::vector<std::string>& args) {
    std::string command = "'" + tool_.string() + "'";
    for (const std::string& a : args) command += " '" + a + "'";
    fs::path err = dir_ / "stderr.txt";
    command += " 2>'" + err.string() + "'";
    Result result{};
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr) << command;
    if (!pipe) return result;
    char buffer[4096];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) result.out.append(buffer, n);
    int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.err = slurp(err);
    return result;
  }

  fs::path tool_;
  fs::path dir_;
};

TEST_F(RingLogCatTest, PrintsTheRecordsOldestFirst) {
  std::string path = (dir_ / "trace.ring").string();
  ASSERT_TRUE(RingLog::open(path, 2 << 20));
  resolve(Netval::IpGenAddr::fromText("10.0.0.1"), Netval::IntfId::fromText("Ethernet1"));
  resolve(Netval::IpGenAddr::fromText("10.0.0.2"), Netval::IntfId::fromText("Ethernet2/1"));
  RingLog::close();

  Result r = run({path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::string where = "RingLogCatTest.cpp:" + std::to_string(resolveLine) +
                      " [RingLogCatTest/8] void {anonymous}::resolve(const Netval::IpGenAddr&, "
                      "Netval::IntfId): Resolve request added - nexthop: ";
  EXPECT_EQ(r.out, "1 " + where + "10.0.0.1 intfId: Ethernet1\n2 " + where +
                       "10.0.0.2 intfId: Ethernet2/1\n");
  std::string library;
  for (const std::string& line : RingLog::decodeFile(path)) library += line + "\n";
  EXPECT_EQ(r.out, library);
}

TEST_F(RingLogCatTest, RejectsAFileThatIsNotARingTrace) {
  fs::path path = dir_ / "notes.txt";
  std::ofstream(path) << "just some text\n";
  Result r = run({path.string()});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "ringlog-cat: " + path.string() + ": not a ring trace file (shorter than a header)\n");
}

TEST_F(RingLogCatTest, RejectsAMissingFile) {
  fs::path path = dir_ / "missing.ring";
  Result r = run({path.string()});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, HasSubstr(path.string() + ": cannot open"));
}

TEST_F(RingLogCatTest, UsageErrorsExitWithTwo) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{}, {"a", "b"}, {"--bogus"}}) {
    Result r = run(args);
    EXPECT_EQ(r.status, 2) << ::testing::PrintToString(args);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, HasSubstr("Usage: ringlog-cat [OPTIONS] [FILE]"));
  }
  EXPECT_THAT(run({"--bogus"}).err, HasSubstr("The following argument was not expected: --bogus"));
  EXPECT_THAT(run({}).err, HasSubstr("ringlog-cat: missing FILE"));
}

TEST_F(RingLogCatTest, HelpGoesToStdout) {
  Result r = run({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("Usage: ringlog-cat [OPTIONS] [FILE]"));
  EXPECT_EQ(r.err, "");
}

TEST_F(RingLogCatTest, VersionIsTheProjectsVersion) {
  Result r = run({"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("ringlog-cat ") + FWD_PROJECT_VERSION + "\n");
}

// Writes a ring of `records` resolve records (then one note of OtherUnit) and returns its path.
std::string writeRing(const fs::path& dir, int records) {
  const std::string path = (dir / "trace.ring").string();
  EXPECT_TRUE(RingLog::open(path, 2 << 20));
  for (int i = 0; i < records; ++i) {
    resolve(Netval::IpGenAddr::ipv4(0x0a000001u + static_cast<uint32_t>(i)),
            Netval::IntfId::fromText("Ethernet1"));
  }
  other::note(42);
  RingLog::close();
  return path;
}

RingLog::detail::FileHeader headerOf(const std::string& path) {
  RingLog::detail::FileHeader h{};
  std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&h), sizeof h);
  return h;
}

// Overwrites the bytes at `offset` of the file with `value`.
template <class T>
void patch(const std::string& path, uint64_t offset, const T& value) {
  std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
  f.seekp(static_cast<std::streamoff>(offset));
  f.write(reinterpret_cast<const char*>(&value), sizeof value);
}

size_t lineCount(const std::string& text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST_F(RingLogCatTest, ReadsStandardInputFromAFileOrAPipe) {
  const std::string path = writeRing(dir_, 3);
  const Result direct = run({path});
  const ToolRun::Result redirected = ToolRun::run(tool_, {"-"}, ToolRun::Input::path(path));
  EXPECT_EQ(redirected.status, 0) << redirected.err;
  EXPECT_EQ(redirected.out, direct.out);
  // A pipe, through the shell.
  const std::string command = "cat '" + path + "' | '" + tool_.string() + "' -";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string out;
  char buffer[4096];
  while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, n);
  EXPECT_EQ(WEXITSTATUS(pclose(pipe)), 0);
  EXPECT_EQ(out, direct.out);
  EXPECT_EQ(lineCount(direct.out), 4u);
}

TEST_F(RingLogCatTest, RefusesFifosDevicesAndDirectoriesWithoutBlocking) {
  const fs::path fifo = dir_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo.string(), std::string("/dev/null"), dir_.string()}) {
    const Result r = run({path});
    EXPECT_EQ(r.status, 1) << path;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ringlog-cat: " + path + ": not a regular file\n");
  }
}

TEST_F(RingLogCatTest, ChecksTheHeaderBeforeReadingOn) {
  const std::string path = writeRing(dir_, 3);
  patch(path, offsetof(RingLog::detail::FileHeader, version), uint32_t{7});
  const Result r = run({path});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "ringlog-cat: " + path +
                       ": not a ring trace file (unsupported version 7, expected " +
                       std::to_string(RingLog::detail::kVersion) + ")\n");
}

TEST_F(RingLogCatTest, SkipsADamagedRecordAndPrintsTheRest) {
  const std::string path = writeRing(dir_, 3);
  const RingLog::detail::FileHeader h = headerOf(path);
  const uint64_t first = h.ringOffset + sizeof(RingLog::detail::BlockHeader);
  RingLog::detail::RecordHeader record{};
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(first));
  in.read(reinterpret_cast<char*>(&record), sizeof record);
  // The second record names a message that does not exist.
  patch(path, first + record.bytes, uint32_t{999999});
  const Result r = run({path});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(lineCount(r.out), 3u);
  EXPECT_THAT(r.out, HasSubstr("\n3 RingLogCatTest.cpp"));
  EXPECT_THAT(r.out, Not(HasSubstr("\n2 ")));
  EXPECT_THAT(r.err, HasSubstr("unknown message id 999999 (record 2); skipped\n"));
}

TEST_F(RingLogCatTest, SkipsADamagedBlockAndPrintsTheOthers) {
  // Enough records for two blocks.
  const std::string path = writeRing(dir_, 3000);
  const size_t all = lineCount(run({path}).out);
  ASSERT_EQ(all, 3001u);
  const RingLog::detail::FileHeader h = headerOf(path);
  patch(path, h.ringOffset + offsetof(RingLog::detail::BlockHeader, magic), uint32_t{0});
  const Result r = run({path});
  EXPECT_EQ(r.status, 1);
  EXPECT_GT(lineCount(r.out), 0u);
  EXPECT_LT(lineCount(r.out), all);
  EXPECT_THAT(r.err, HasSubstr(": block 0 has a bad block magic; skipped\n"));
}

TEST_F(RingLogCatTest, PrintsTheDroppedRecordCount) {
  const std::string path = writeRing(dir_, 1);
  patch(path, offsetof(RingLog::detail::FileHeader, droppedRecords), uint64_t{5});
  const Result r = run({path});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err,
            "ringlog-cat: 5 records dropped by the writer (their descriptors did not fit)\n");
  EXPECT_EQ(nlohmann::json::parse(run({"--json", path}).out)["droppedRecords"], 5);
}

TEST_F(RingLogCatTest, FiltersByUnitAndLevel) {
  const std::string path = writeRing(dir_, 2);
  Result r = run({"--unit", "OtherUnit", path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(lineCount(r.out), 1u);
  EXPECT_THAT(r.out, HasSubstr("[OtherUnit/3]"));
  r = run({"--level=5", path});
  EXPECT_EQ(r.out, run({"--unit=OtherUnit", path}).out);
  r = run({"--unit", "RingLogCatTest", "--unit", "OtherUnit", path});
  EXPECT_EQ(lineCount(r.out), 3u);
  EXPECT_EQ(run({"--level", "10", path}).status, 2);
}

TEST_F(RingLogCatTest, JsonHoldsEveryRecord) {
  const std::string path = writeRing(dir_, 2);
  const Result r = run({"-j", path});
  ASSERT_EQ(r.status, 0) << r.err;
  const nlohmann::json doc = nlohmann::json::parse(r.out);
  EXPECT_EQ(doc["droppedRecords"], 0);
  ASSERT_EQ(doc["records"].size(), 3u);
  const nlohmann::json& first = doc["records"][0];
  EXPECT_EQ(first["seq"], 1);
  EXPECT_EQ(first["file"], "RingLogCatTest.cpp");
  EXPECT_EQ(first["line"], resolveLine);
  EXPECT_EQ(first["unit"], "RingLogCatTest");
  EXPECT_EQ(first["level"], 8);
  EXPECT_EQ(first["text"], "Resolve request added - nexthop: 10.0.0.1 intfId: Ethernet1");
  EXPECT_EQ(doc["records"][2]["unit"], "OtherUnit");
  EXPECT_EQ(doc["records"][2]["text"], "note 42");
  // The text form says the same.
  const std::string text = run({path}).out;
  EXPECT_THAT(text, HasSubstr(first["function"].get<std::string>() + ": " +
                              first["text"].get<std::string>()));
}

TEST_F(RingLogCatTest, AFailedWriteToStandardOutputExitsWithOne) {
  const std::string path = writeRing(dir_, 3);
  const ToolRun::Result r =
      ToolRun::run(tool_, {path}, ToolRun::Input::text(""), {}, std::string("/dev/full"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ringlog-cat: cannot write standard output: No space left on device\n");
}

}  // namespace

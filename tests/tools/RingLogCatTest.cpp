#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "framework/DualLog.h"
#include "framework/Netval.h"
#include "framework/RingLog.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

DualLog::Handle& traceHandle() {
  static DualLog::Handle h("RingLogCatTest", false);
  return h;
}

int resolveLine = 0;

void resolve(const Netval::IpGenAddr& nexthop, Netval::IntfId intf) {
  resolveLine = __LINE__ + 1;
  DUALLOG_TRACE(8, "Resolve request added - nexthop: ", nexthop, " intfId: ", intf);
}

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

}  // namespace

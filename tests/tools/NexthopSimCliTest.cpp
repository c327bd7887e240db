#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/SimScenarios.h"
#include "support/ToolRun.h"

// The command line of nexthop-sim, driven through the built program.
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using ToolRun::Input;
using ToolRun::Result;

const std::string& kScenario = SimScenarios::kResolved;
const std::string kStatusLine = "[0ms] status add red 10.1.0.1 Ethernet1 nhIndex 17\n";

class NexthopSimCli : public ::testing::Test {
 protected:
  Result sim(const std::vector<std::string>& args, const Input& input = Input::text("")) {
    return ToolRun::run(ToolRun::tool("nexthop-sim"), args, input);
  }
  // The run was refused as a usage error naming `cause`, with the usage line.
  void expectUsageError(const std::vector<std::string>& args, const std::string& cause) {
    const Result r = sim(args);
    EXPECT_EQ(r.status, 2) << ::testing::PrintToString(args);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, StartsWith("nexthop-sim: "));
    EXPECT_THAT(r.err, HasSubstr(cause));
    EXPECT_THAT(r.err, HasSubstr("Usage: nexthop-sim [OPTIONS] [SCENARIO_FILE]"));
  }

  ToolRun::ScratchDir dir_{"NexthopSimCli"};
};

TEST_F(NexthopSimCli, HelpPrintsTheOptionsAndEveryCommandOnStandardOutput) {
  for (const char* flag : {"--help", "-h"}) {
    const Result r = sim({flag});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_THAT(r.out, HasSubstr("Usage: nexthop-sim [OPTIONS] [SCENARIO_FILE]"));
    EXPECT_THAT(r.out, HasSubstr("--ring-size BYTES"));
    EXPECT_THAT(r.out, HasSubstr("  request add VRF ADDR INTF\n"));
  }
}

TEST_F(NexthopSimCli, VersionIsTheProjectsVersion) {
  const Result r = sim({"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("nexthop-sim ") + FWD_PROJECT_VERSION + "\n");
}

TEST_F(NexthopSimCli, TakesOptionValuesAfterAnEqualsSignOrAsTheNextWord) {
  const std::string file = dir_.file("s.scn", kScenario);
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--trace=*/8", file}, {"--trace", "*/8", file}}) {
    const Result r = sim(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, kStatusLine);
    EXPECT_THAT(r.err, HasSubstr("[FwdNexthopNhIndexResolverSm/"));
  }
}

TEST_F(NexthopSimCli, DoubleDashEndsTheOptions) {
  const Result r = sim({"--", "-"}, Input::text(kScenario));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, kStatusLine);
}

TEST_F(NexthopSimCli, RefusesAnUnknownOptionOrAMissingValueWithTheUsage) {
  expectUsageError({"--bogus"}, "The following argument was not expected: --bogus");
  expectUsageError({"--trace"}, "--trace: 1 required FILTER missing");
  expectUsageError({"--ring-size", "lots"}, "Could not convert: --ring-size = lots");
  expectUsageError({"a.scn", "b.scn"}, "The following argument was not expected: b.scn");
}

TEST_F(NexthopSimCli, RefusesAScenarioFileItCannotReadNamingTheCause) {
  const std::string missing = (dir_ / "missing.scn").string();
  Result r = sim({missing});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err,
            "nexthop-sim: cannot open scenario file " + missing + ": No such file or directory\n");
  r = sim({dir_.path().string()});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "nexthop-sim: cannot open scenario file " + dir_.path().string() +
                       ": Is a directory\n");
}

TEST_F(NexthopSimCli, RefusesAnUnreadableScenarioFile) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
  const std::string file = dir_.file("secret.scn", kScenario);
  ASSERT_EQ(chmod(file.c_str(), 0), 0);
  const Result r = sim({file});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "nexthop-sim: cannot open scenario file " + file + ": Permission denied\n");
}

TEST_F(NexthopSimCli, RefusesAClosedOrDirectoryStandardInput) {
  for (const char* arg : {"-", "-i"}) {
    const Result closed = sim({arg}, Input::closed());
    EXPECT_EQ(closed.status, 2) << arg;
    EXPECT_EQ(closed.err, "nexthop-sim: cannot read standard input: Bad file descriptor\n") << arg;
  }
  const Result r = sim({"-"}, Input::path(dir_.path().string()));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "nexthop-sim: cannot read standard input: Is a directory\n");
}

TEST_F(NexthopSimCli, AFailedWriteToStandardOutputExitsWithOne) {
  // The demo prints more than a buffer holds; the scenario less.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {dir_.file("s.scn", kScenario)}}) {
    const Result r =
        ToolRun::run(ToolRun::tool("nexthop-sim"), args, Input::text(""), {}, "/dev/full");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err,
                HasSubstr("failed\nnexthop-sim: cannot write standard output: No space left on "
                          "device\n"));
  }
}

TEST_F(NexthopSimCli, RingNeverOverwritesTheScenarioOrAFileThatIsNotARing) {
  const std::string file = dir_.file("s.scn", kScenario);
  expectUsageError({"--ring", file, file}, "ring file " + file + " is the input " + file);
  expectUsageError({"--force", "--ring", file, file},
                   "ring file " + file + " is the input " + file);
  const std::string notes = dir_.file("notes.txt", "keep me\n");
  expectUsageError({"--ring", notes, file}, "ring file " + notes +
                                                " exists and is not a ring trace (use --force "
                                                "to overwrite it)");
  EXPECT_EQ(ToolRun::slurp(notes), "keep me\n");
  expectUsageError({"--ring", dir_.path().string(), file},
                   "ring file " + dir_.path().string() + " is not a regular file");
}

TEST_F(NexthopSimCli, RingOverwritesAnOldRingOrAnyFileWithForce) {
  const std::string file = dir_.file("s.scn", kScenario);
  const std::string ring = (dir_ / "t.ring").string();
  ASSERT_EQ(sim({"--ring", ring, file}).status, 0);
  ASSERT_EQ(sim({"--ring", ring, file}).status, 0);
  const std::string notes = dir_.file("notes.txt", "overwrite me\n");
  const Result r = sim({"--force", "--ring", notes, file});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ToolRun::slurp(notes).substr(0, 8), "RNGTRACE");
}

TEST_F(NexthopSimCli, RingSizeSetsTheRingFilesSize) {
  const std::string file = dir_.file("s.scn", kScenario);
  const std::string ring = (dir_ / "t.ring").string();
  // The file holds whole blocks: at most the size asked for, and nearly all of it.
  const auto expectSize = [&](size_t bytes) {
    EXPECT_LE(fs::file_size(ring), bytes);
    EXPECT_GT(fs::file_size(ring), bytes - bytes / 8);
  };
  ASSERT_EQ(sim({"--ring", ring, file}).status, 0);
  expectSize(size_t{8} << 20);
  ASSERT_EQ(sim({"--ring", ring, "--ring-size=1048576", file}).status, 0);
  expectSize(size_t{1} << 20);
  expectUsageError({"--ring", ring, "--ring-size", "4096", file},
                   "size 4096 is below the minimum of");
}

TEST_F(NexthopSimCli, TraceLinesCarryTheVirtualTime) {
  const Result r = sim({"--trace", "*/8", "-"},
                       Input::text("vrf add red\nadvance 5\nrequest add red 10.0.0.1 Ethernet1\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream lines(r.err);
  size_t stamped = 0, late = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line == "0 expectations held, 0 failed") continue;
    EXPECT_THAT(line, ::testing::MatchesRegex("\\[[0-9]+ms\\] .*")) << line;
    ++stamped;
    late += line.starts_with("[5ms] ");
  }
  EXPECT_GT(stamped, 0u);
  EXPECT_GT(late, 0u);
}

TEST_F(NexthopSimCli, AFileRunEndsWithTheExpectationSummaryOnStderr) {
  const Result r = sim({dir_.file("s.scn", kScenario + "expect statuses 1\nexpect statuses 2\n")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, (dir_ / "s.scn").string() +
                       ":8: expected 2 statuses, found 1\n1 expectation held, 1 failed\n");
}

TEST_F(NexthopSimCli, TraceRefusesAnUnknownUnitListingTheKnownOnes) {
  expectUsageError({"--trace", "Bogus/8"},
                   "unknown trace unit 'Bogus' (known units: *, FwdNexthopNhIndexResolverSm, ");
  expectUsageError({"--trace", "FwdNexthopToViaNexthopSm/x"}, "bad --trace filter");
}

TEST_F(NexthopSimCli, TraceListPrintsTheUnits) {
  const Result r = sim({"--trace", "list"});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, StartsWith("FwdNexthopNhIndexResolverSm\n"));
  EXPECT_THAT(r.out, HasSubstr("\nFwdViaNexthopMacToNhIndexSm\n"));
  // Every listed unit is accepted.
  std::istringstream units(r.out);
  for (std::string unit; std::getline(units, unit);) {
    const Result traced = sim({"--trace", unit + "/8", dir_.file("s.scn", kScenario)});
    EXPECT_EQ(traced.status, 0) << unit << ": " << traced.err;
    EXPECT_THAT(traced.err, HasSubstr("[" + unit + "/")) << unit;
  }
}

}  // namespace

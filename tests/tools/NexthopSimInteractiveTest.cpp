#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/PtyRun.h"
#include "support/ToolRun.h"

// nexthop-sim -i at a terminal (a pseudo-terminal) and away from one.
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kPrompt = "nexthop-sim> ";

class NexthopSimInteractive : public ::testing::Test {
 protected:
  std::vector<std::string> env() const { return {"HOME=" + home_.path().string(), "TERM=vt100"}; }
  std::string historyFile() const { return (home_ / ".nexthop_sim_history").string(); }

  ToolRun::ScratchDir home_{"NexthopSimInteractive"};
};

// Types each line after the prompt, then ends the input; returns the exit status.
int typeLines(PtyRun::Terminal& s, const std::vector<std::string>& lines) {
  EXPECT_TRUE(s.started());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(s.waitFor(kPrompt, i + 1)) << s.output();
    s.type(lines[i] + "\r");
  }
  EXPECT_TRUE(s.waitFor(kPrompt, lines.size() + 1)) << s.output();
  s.type("\x04");  // end of input
  return s.finish();
}

TEST_F(NexthopSimInteractive, ReportsARefusedLineGoesOnAndEndsWithTwo) {
  PtyRun::Terminal s(ToolRun::tool("nexthop-sim").string(), {"-i"}, env());
  EXPECT_EQ(typeLines(s, {"vrf add red", "vrf add red", "echo still here"}), 2);
  EXPECT_THAT(s.output(), HasSubstr("<stdin>:2: VRF red exists"));
  EXPECT_THAT(s.output(), HasSubstr("still here"));
}

TEST_F(NexthopSimInteractive, EndsWithZeroWithoutRefusedLinesAndQuitEndsTheSession) {
  for (const char* word : {"quit", "exit"}) {
    PtyRun::Terminal s(ToolRun::tool("nexthop-sim").string(), {"-i"}, env());
    ASSERT_TRUE(s.waitFor(kPrompt)) << s.output();
    s.type("vrf add red\r");
    ASSERT_TRUE(s.waitFor(kPrompt, 2)) << s.output();
    s.type(std::string(word) + "\r");
    EXPECT_EQ(s.finish(), 0) << word;
  }
}

TEST_F(NexthopSimInteractive, KeepsTheHistoryInTheHomeDirectory) {
  {
    PtyRun::Terminal s(ToolRun::tool("nexthop-sim").string(), {"-i"}, env());
    EXPECT_EQ(typeLines(s, {"echo marker-one"}), 0);
  }
  // libedit's history file encodes blanks.
  EXPECT_THAT(ToolRun::slurp(historyFile()), HasSubstr("marker-one"));
  // The next run recalls it with the up arrow.
  PtyRun::Terminal s(ToolRun::tool("nexthop-sim").string(), {"-i"}, env());
  ASSERT_TRUE(s.waitFor(kPrompt)) << s.output();
  s.type("\x1b[A\r");
  EXPECT_TRUE(s.waitFor("marker-one", 2)) << s.output();
  ASSERT_TRUE(s.waitFor(kPrompt, 2)) << s.output();
  s.type("\x04");
  EXPECT_EQ(s.finish(), 0);
}

TEST_F(NexthopSimInteractive, CompletesCommandWords) {
  PtyRun::Terminal s(ToolRun::tool("nexthop-sim").string(), {"-i"}, env());
  ASSERT_TRUE(s.waitFor(kPrompt)) << s.output();
  s.type("sh\tvrf\t\r");  // "show vrfs"
  EXPECT_TRUE(s.waitFor("no VRFs")) << s.output();
  ASSERT_TRUE(s.waitFor(kPrompt, 2)) << s.output();
  s.type("\x04");
  EXPECT_EQ(s.finish(), 0);
}

TEST_F(NexthopSimInteractive, HelpNamesTheCommand) {
  PtyRun::Terminal s(ToolRun::tool("nexthop-sim").string(), {"-i"}, env());
  EXPECT_EQ(typeLines(s, {"help vrf"}), 0);
  EXPECT_THAT(s.output(), HasSubstr("vrf add NAME [id N]"));
}

TEST_F(NexthopSimInteractive, ShowsNoPromptAwayFromATerminal) {
  const ToolRun::Result r =
      ToolRun::run(ToolRun::tool("nexthop-sim"), {"-i"},
                   ToolRun::Input::text("vrf add red\nvrf add red\necho after\n"), env());
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "after\n");
  EXPECT_THAT(r.out, Not(HasSubstr(kPrompt)));
  EXPECT_EQ(r.err, "<stdin>:2: VRF red exists\n");
}

}  // namespace

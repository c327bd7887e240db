#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <optional>

#include "hosts/HostOutput.h"
#include "hosts/sim/SimHost.h"

namespace Sim {

namespace detail {
class ScenarioArgs;
}

// The simulator's scenario language (commands in help()): runs each line's command on a
// SimHost, then every task due now. Status lines and command output go to `out`; refused input
// ("FILE:LINE: message") and failed expectations ("FILE:LINE: expected ..., found ...") to `err`.
class Scenario {
 public:
  // What a run ends with, also the simulator's exit status.
  enum ExitStatus : int { kPassed = 0, kExpectFailed = 1, kInputError = 2 };
  enum class LineResult { ok, expectFailed, error };

  // Takes over the host's status lines (they go to `out`) for the scenario's life. Status lines
  // and command output are printed in `format`; messages on `err` are always text.
  Scenario(SimHost& host, std::ostream& out, std::ostream& err,
           Hosts::OutputFormat format = Hosts::OutputFormat::text);
  ~Scenario();
  Scenario(const Scenario&) = delete;
  Scenario& operator=(const Scenario&) = delete;

  // Runs one line; `file` and `lineNo` name it in messages.
  LineResult runLine(std::string_view line, std::string_view file, size_t lineNo);
  // Runs every line; stops at the first refused line (kInputError). kExpectFailed when an
  // expectation failed, kPassed otherwise.
  ExitStatus runText(std::string_view text, std::string_view file);
  // Runs lines read from `in` until its end (or quit). Interactive: as runInteractive; otherwise
  // as runText.
  ExitStatus runStream(std::istream& in, std::string_view file, bool interactive);
  // The next line of an interactive run; nothing at its end.
  using LineReader = std::function<std::optional<std::string>()>;
  // Runs the lines `next` gives until it has none or one is quit or exit: a refused line is
  // reported and the run goes on. kInputError when a line was refused, else as runText.
  ExitStatus runInteractive(const LineReader& next, std::string_view file);

  // The command words that complete `word`, the word being typed at the end of `line`: a
  // command's first word, its second, or a command's first word after help.
  static std::vector<std::string> completions(std::string_view line, std::string_view word);

  // The command summary that `nexthop-sim --help` prints: one line per command, made from the
  // same table that runs them.
  static std::string help();

  // "3 expectations held, 1 failed": the expectations run so far.
  std::string summary() const;
  // Prints the root's dump in the scenario's format.
  void dumpOut();

 private:
  using Args = detail::ScenarioArgs;
  struct Command;
  static const Command* commands(size_t& count);
  // "  usage  (note)\n", as help prints a command.
  static std::string helpLine(const Command& command);
  // The command the line's first words name, null when none does.
  static const Command* command(const std::vector<std::string_view>& words);
  static std::string unknownCommand(const std::vector<std::string_view>& words);

  void cmdVrfAdd(Args& args);
  void cmdVrfDel(Args& args);
  void cmdFecMode(Args& args);
  void cmdRouteAdd(Args& args);
  void cmdRouteReplace(Args& args);
  void cmdRouteDel(Args& args);
  void cmdNeighAdd(Args& args);
  void cmdNeighReplace(Args& args);
  void cmdNeighDel(Args& args);
  void cmdHostAdd(Args& args);
  void cmdHostReplace(Args& args);
  void cmdHostDel(Args& args);
  void cmdArpDelay(Args& args);
  void cmdNhTableAdd(Args& args);
  void cmdNhTableDel(Args& args);
  void cmdNhIndexAdd(Args& args);
  void cmdNhIndexReplace(Args& args);
  void cmdNhIndexDel(Args& args);
  void cmdEngineAutoNhIndex(Args& args);
  void cmdRequestAdd(Args& args);
  void cmdRequestDel(Args& args);
  void cmdAdvance(Args& args);
  void cmdRestart(Args& args);
  void cmdShowStatus(Args& args);
  void cmdShowRequests(Args& args);
  void cmdShowVrfs(Args& args);
  void cmdShowArp(Args& args);
  void cmdShowRoutes(Args& args);
  void cmdShowNeigh(Args& args);
  void cmdShowNhTable(Args& args);
  void cmdShowDump(Args& args);
  void cmdExplain(Args& args);
  void cmdExpectStatus(Args& args);
  void cmdExpectStatuses(Args& args);
  void cmdExpectArp(Args& args);
  void cmdEcho(Args& args);
  void cmdHelp(Args& args);
  void cmdQuit(Args& args);

  // An optional VRF name, then the end of the line.
  static std::optional<L3::VrfName> optionalVrf(Args& args);
  void show(const Hosts::Json& doc, std::string (*text)(const Hosts::Json&));
  void expect(bool holds, const std::string& expected, const std::string& found);

  SimHost& host_;
  std::ostream& out_;
  std::ostream& err_;
  Hosts::OutputFormat format_;
  bool expectFailed_ = false;
  // Set by quit or exit: the run ends after the line.
  bool quit_ = false;
  size_t expectationsHeld_ = 0;
  size_t expectationsFailed_ = 0;
  // Set by a failed expectation of the line being run.
  std::string failure_;
};

}  // namespace Sim

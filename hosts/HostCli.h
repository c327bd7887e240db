#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// What every command-line program of the hosts shares: the option conventions (--help,
// --version, usage errors with exit status 2), the checks of --trace, --ring and input files,
// and the final check that standard output was written.
namespace Hosts::Cli {

// Exit statuses every program uses.
inline constexpr int kFailed = 1;
inline constexpr int kUsageError = 2;

// A command line or input a program refuses: printed as "PROGRAM: MESSAGE", exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// "nexthop-sim 1.0.0": the program's name and the project's version.
std::string versionText(std::string_view program);

// Sets up `app` the way every program's is: -h/--help, --version, options before or after the
// operands, `--opt=value` and `--`.
void conventionsIs(CLI::App& app, std::string_view program);

// Parses the command line. Returns the exit status when the program ends here: 0 after --help,
// --version or `--trace list` (traceOptionIs's option; the known units one per line, or one JSON
// array with jsonOptionIs's -j/--json), printed to standard output; kUsageError after "PROGRAM:
// CAUSE" and the usage line on standard error. Nothing when the program goes on.
std::optional<int> parse(CLI::App& app, int argc, char** argv);

// Prints "PROGRAM: MESSAGE" and the usage line on standard error; returns kUsageError.
int usageError(const CLI::App& app, const std::string& message);

// The trace units (handle names) of the module, as --trace and FWD_TRACE name them.
const std::vector<std::string>& traceUnits();
// Throws UsageError for a malformed filter or a unit that is neither '*' nor a known unit,
// listing the known units.
void traceFilterCheck(std::string_view filter);
// One known unit per line, as `--trace list` prints them.
std::string traceUnitList();
// Text trace lines start with "[STAMP] ", `stamp` being the host's time ("12ms" in the
// simulator), so that they line up with the status lines; they go where the default sink sends
// them (FWD_TRACE_FILE, else standard error).
void traceStampIs(std::function<std::string()> stamp);

// -j/--json, as every program spells it.
CLI::Option* jsonOptionIs(CLI::App& app, bool& json, const std::string& description);

// --trace FILTER: checked by traceStart().
CLI::Option* traceOptionIs(CLI::App& app, std::string& filter);
// Turns the text trace on for `filter` (nothing for an empty one) after traceFilterCheck();
// throws UsageError.
void traceStart(const std::string& filter);

// The ring trace's default size.
inline constexpr size_t kDefaultRingBytes = size_t{8} << 20;

// --ring FILE, --ring-size BYTES and --force, as ringOptionsIs() adds them.
struct RingOptions {
  std::string path;
  size_t bytes = kDefaultRingBytes;
  bool force = false;
};
void ringOptionsIs(CLI::App& app, RingOptions& ring);
// Opens the ring after ringTargetCheck() against `inputs` (nothing when no --ring); throws
// UsageError.
void ringStart(const RingOptions& ring, const std::vector<std::string>& inputs);

// The traces of one run: the constructor starts the text trace (traceStart) stamped by `stamp`
// (traceStampIs) and the ring (ringStart against `inputs`), throwing UsageError before anything
// is on when one is refused; the destructor closes the ring and drops the stamped sink.
class Tracing {
 public:
  Tracing(const std::string& filter, const RingOptions& ring,
          const std::vector<std::string>& inputs, std::function<std::string()> stamp);
  ~Tracing();
  Tracing(const Tracing&) = delete;
  Tracing& operator=(const Tracing&) = delete;

 private:
  bool ringOpen_ = false;
};

// Throws UsageError unless `ring` may be (re)written: it must not be one of `inputs` (compared
// as files, so another spelling of the same path counts), and when it exists it must be a ring
// trace file, unless `force`. A directory or device is never a ring.
void ringTargetCheck(const std::string& ring, const std::vector<std::string>& inputs, bool force);

// Why `path` cannot be read as the program's input of kind `what` ("scenario file"): missing,
// unreadable, a directory. Nothing when it can be opened for reading. "-" is standard input,
// refused when it is closed or a directory.
std::optional<std::string> inputProblem(const std::string& path, std::string_view what);

// Flushes standard output and returns `status`, or kFailed after "PROGRAM: cannot write standard
// output: CAUSE" on standard error when a write to it failed (a full disk, /dev/full).
int finishOutput(std::string_view program, int status);

}  // namespace Hosts::Cli

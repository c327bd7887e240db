// ringlog-cat: prints the records of a ring trace file as text, oldest first.

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "framework/RingLog.h"
#include "hosts/HostCli.h"

namespace {

constexpr const char* kProgram = "ringlog-cat";
constexpr int kDecodeError = Hosts::Cli::kFailed;

int decode(const std::string& path) {
  try {
    for (const std::string& line : RingLog::decodeFile(path)) {
      std::fwrite(line.data(), 1, line.size(), stdout);
      std::fputc('\n', stdout);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
    return kDecodeError;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app;
  Hosts::Cli::conventionsIs(app, kProgram);
  app.description(
      "Prints every record still in the ring trace FILE, oldest first, one line each:\n"
      "  <seq> <file>:<line> [<handle>/<level>] <function>: <text>");
  std::string path;
  // Checked after parsing, so that an unknown option is what a bad command line reports first.
  app.add_option("FILE", path, "the ring trace file");
  app.footer("Exit status: 0 every record printed, 1 a damaged or unreadable file, 2 bad usage.");
  if (auto done = Hosts::Cli::parse(app, argc, argv)) return *done;
  if (path.empty()) return Hosts::Cli::usageError(app, "missing FILE");
  return Hosts::Cli::finishOutput(kProgram, decode(path));
}

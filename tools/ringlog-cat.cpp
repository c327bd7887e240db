// ringlog-cat: prints the records of a ring trace file as text or JSON, oldest first.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/RingLog.h"
#include "framework/RingLogReader.h"
#include "hosts/HostCli.h"

namespace {

constexpr const char* kProgram = "ringlog-cat";
constexpr int kDamaged = Hosts::Cli::kFailed;

struct Options {
  std::string path;
  std::vector<std::string> units;
  std::optional<uint32_t> level;
  bool json = false;
};

// Standard input as a file the reader can seek in: itself when it is a regular file, else (a
// pipe) a copy in an unnamed temporary file, so that memory stays bounded.
int standardInput() {
  struct stat st {};
  if (fstat(STDIN_FILENO, &st) != 0) {
    throw std::runtime_error(std::string("<stdin>: cannot read: ") + std::strerror(errno));
  }
  if (S_ISREG(st.st_mode)) return dup(STDIN_FILENO);
  if (!S_ISFIFO(st.st_mode) && !S_ISSOCK(st.st_mode)) {
    throw std::runtime_error("<stdin>: not a regular file or a pipe");
  }
  std::FILE* copy = std::tmpfile();
  if (!copy) throw std::runtime_error(std::string("cannot copy <stdin>: ") + std::strerror(errno));
  char buffer[64 * 1024];
  for (ssize_t n; (n = read(STDIN_FILENO, buffer, sizeof buffer)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || std::fwrite(buffer, 1, static_cast<size_t>(n), copy) != static_cast<size_t>(n)) {
      std::fclose(copy);
      throw std::runtime_error(std::string("cannot copy <stdin>: ") + std::strerror(errno));
    }
  }
  std::fflush(copy);
  const int fd = dup(fileno(copy));
  std::fclose(copy);
  return fd;
}

bool selected(const Options& options, const RingLog::Record& r) {
  if (options.level && r.message->level > *options.level) return false;
  if (options.units.empty()) return true;
  for (const std::string& unit : options.units) {
    if (r.message->handle == unit) return true;
  }
  return false;
}

nlohmann::ordered_json recordJson(const RingLog::Record& r) {
  const RingLog::MessageInfo& m = *r.message;
  return {{"seq", r.seq},     {"file", m.file},         {"line", m.line}, {"unit", m.handle},
          {"level", m.level}, {"function", m.function}, {"text", r.text}};
}

int decode(const Options& options) {
  bool damaged = false;
  try {
    RingLog::Reader reader = options.path == "-" ? RingLog::Reader(standardInput(), "<stdin>")
                                                 : RingLog::Reader(options.path);
    const uint64_t dropped = reader.header().droppedRecords;
    if (options.json) std::cout << "{\"droppedRecords\":" << dropped << ",\"records\":[";
    bool first = true;
    reader.forEach(
        [&](const RingLog::Record& r) {
          if (!selected(options, r)) return;
          if (options.json) {
            std::cout << (first ? "\n" : ",\n") << recordJson(r).dump();
          } else {
            std::cout << RingLog::recordLine(r) << '\n';
          }
          first = false;
        },
        [&](const std::string& what) {
          std::cout.flush();
          std::cerr << kProgram << ": " << what << "; skipped\n";
          damaged = true;
        });
    if (options.json) std::cout << "\n]}\n";
    if (dropped > 0 && !options.json) {
      std::cout.flush();
      std::cerr << kProgram << ": " << dropped
                << " records dropped by the writer (their descriptors did not fit)\n";
    }
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << kProgram << ": " << e.what() << '\n';
    return kDamaged;
  }
  return damaged ? kDamaged : 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app;
  Hosts::Cli::conventionsIs(app, kProgram);
  app.description(
      "Prints every record still in the ring trace FILE ('-': standard input), oldest first, one "
      "line each:\n"
      "  <seq> <file>:<line> [<unit>/<level>] <function>: <text>");
  Options options;
  // Checked after parsing, so that an unknown option is what a bad command line reports first.
  app.add_option("FILE", options.path, "the ring trace file, or '-' for standard input");
  app.add_option("--unit", options.units, "only the records of this trace unit (repeatable)")
      ->type_name("UNIT")
      ->allow_extra_args(false);
  app.add_option("--level", options.level, "only the records of this level or a lower one")
      ->type_name("LEVEL")
      ->check(CLI::Range(0u, 9u));
  Hosts::Cli::jsonOptionIs(
      app, options.json,
      "one JSON document: {\"droppedRecords\": N, \"records\": [{\"seq\", \"file\", "
      "\"line\", \"unit\", \"level\", \"function\", \"text\"}]}");
  app.footer(
      "A damaged block or record is reported on stderr and skipped; the other records are still "
      "printed. The count of records the writer dropped is reported on stderr.\n"
      "Exit status: 0 every record printed, 1 a damaged or unreadable file, 2 bad usage.");
  if (auto done = Hosts::Cli::parse(app, argc, argv)) return *done;
  if (options.path.empty()) return Hosts::Cli::usageError(app, "missing FILE");
  return Hosts::Cli::finishOutput(kProgram, decode(options));
}

#include "hosts/HostCli.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <utility>

#include "framework/DualLog.h"
#include "framework/RingLog.h"
#include "framework/detail/RingLogFormat.h"
#include "hosts/HostVersion.h"

namespace Hosts::Cli {

namespace {

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Whether the file starts as a ring trace does; a short or unreadable one does not.
bool looksLikeRing(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  char magic[sizeof RingLog::detail::kMagic] = {};
  const ssize_t n = ::read(fd, magic, sizeof magic);
  ::close(fd);
  return n == static_cast<ssize_t>(sizeof magic) &&
         std::memcmp(magic, RingLog::detail::kMagic, sizeof magic) == 0;
}

}  // namespace

std::string versionText(std::string_view program) { return std::string(program) + " " + kVersion; }

void conventionsIs(CLI::App& app, std::string_view program) {
  app.name(std::string(program));
  app.set_version_flag("--version", versionText(program), "print the version and exit");
  app.set_help_flag("-h,--help", "print this help and exit");
  app.get_formatter()->column_width(26);
}

int usageError(const CLI::App& app, const std::string& message) {
  std::cerr << app.get_name() << ": " << message << '\n'
            << CLI::Formatter().make_usage(&app, app.get_name())
            << "Run with --help for more information.\n";
  return kUsageError;
}

std::optional<int> parse(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    const std::string help = app.help();
    std::cout << help << (help.ends_with('\n') ? "" : "\n");
    return finishOutput(app.get_name(), 0);
  } catch (const CLI::CallForVersion& e) {
    std::cout << e.what() << '\n';
    return finishOutput(app.get_name(), 0);
  } catch (const CLI::ParseError& e) {
    return usageError(app, e.what());
  }
  const CLI::Option* trace = app.get_option_no_throw("--trace");
  if (!trace || trace->count() == 0 || trace->as<std::string>() != "list") return std::nullopt;
  const CLI::Option* json = app.get_option_no_throw("--json");
  if (json && json->count() > 0 && json->as<bool>()) {
    std::cout << nlohmann::json(traceUnits()).dump() << '\n';
  } else {
    std::cout << traceUnitList();
  }
  return finishOutput(app.get_name(), 0);
}

const std::vector<std::string>& traceUnits() {
  static const std::vector<std::string> units = {
      "FwdNexthopNhIndexResolverSm", "FwdVrfNexthopNhIndexResolverSm",
      "FwdNexthopToViaNexthopSm",    "FwdViaNexthopToViaNexthopMacSm",
      "FwdViaNexthopMacToNhIndexSm",
  };
  return units;
}

void traceFilterCheck(std::string_view filter) {
  try {
    DualLog::TextFilter::parse(filter);
  } catch (const std::invalid_argument& e) {
    throw UsageError(std::string("bad --trace filter: ") + e.what());
  }
  const auto& units = traceUnits();
  std::string_view rest = filter;
  while (!rest.empty()) {
    const size_t comma = std::min(rest.find(','), rest.size());
    const std::string_view item = trimmed(rest.substr(0, comma));
    rest.remove_prefix(std::min(comma + 1, rest.size()));
    const std::string_view unit = trimmed(item.substr(0, item.find('/')));
    if (item.empty() || unit == "*") continue;
    if (std::find(units.begin(), units.end(), unit) == units.end()) {
      std::string known;
      for (const std::string& u : units) known += (known.empty() ? "" : ", ") + u;
      throw UsageError("unknown trace unit " + quoted(unit) + " (known units: *, " + known + ")");
    }
  }
}

std::string traceUnitList() {
  std::string text;
  for (const std::string& unit : traceUnits()) text += unit + '\n';
  return text;
}

CLI::Option* jsonOptionIs(CLI::App& app, bool& json, const std::string& description) {
  return app.add_flag("-j,--json", json, description);
}

CLI::Option* traceOptionIs(CLI::App& app, std::string& filter) {
  return app
      .add_option("--trace", filter,
                  "text trace to stderr, e.g. '*/8' (same syntax as FWD_TRACE); 'list' prints "
                  "the trace units")
      ->type_name("FILTER");
}

void traceStart(const std::string& filter) {
  if (filter.empty()) return;
  traceFilterCheck(filter);
  DualLog::textFilterIs(filter);
}

void ringOptionsIs(CLI::App& app, RingOptions& ring) {
  app.add_option("--ring", ring.path, "binary ring trace to FILE (read it with ringlog-cat)")
      ->type_name("FILE");
  app.add_option("--ring-size", ring.bytes, "size of the ring trace file (default 8 MiB)")
      ->type_name("BYTES");
  app.add_flag("--force", ring.force, "let --ring overwrite a file that is not a ring trace");
}

void ringStart(const RingOptions& ring, const std::vector<std::string>& inputs) {
  if (ring.path.empty()) return;
  ringTargetCheck(ring.path, inputs, ring.force);
  try {
    RingLog::open(ring.path, ring.bytes);
  } catch (const std::runtime_error& e) {
    throw UsageError(e.what());
  }
}

void traceStampIs(std::function<std::string()> stamp) {
  DualLog::textSinkIs([stamp = std::move(stamp)](const DualLog::TextRecord& r) {
    static std::FILE* const file = [] {
      const char* path = std::getenv("FWD_TRACE_FILE");
      std::FILE* f = path && *path ? std::fopen(path, "a") : nullptr;
      return f ? f : stderr;
    }();
    std::string line = "[" + stamp() + "] ";
    line.append(r.file).append(":").append(std::to_string(r.line)).append(" ");
    line.append(r.shortFunction).append(" [").append(r.handle).append("/");
    line.append(std::to_string(r.level)).append("] ").append(r.text).append("\n");
    std::fwrite(line.data(), 1, line.size(), file);
    std::fflush(file);
  });
}

Tracing::Tracing(const std::string& filter, const RingOptions& ring,
                 const std::vector<std::string>& inputs, std::function<std::string()> stamp) {
  if (!filter.empty()) traceFilterCheck(filter);
  ringStart(ring, inputs);
  ringOpen_ = !ring.path.empty();
  traceStampIs(std::move(stamp));
  traceStart(filter);
}

Tracing::~Tracing() {
  DualLog::textSinkIs(nullptr);
  if (ringOpen_) RingLog::close();
}

void ringTargetCheck(const std::string& ring, const std::vector<std::string>& inputs, bool force) {
  struct stat target {};
  if (::stat(ring.c_str(), &target) != 0) {
    if (errno == ENOENT) return;
    throw UsageError("cannot use ring file " + ring + ": " + std::strerror(errno));
  }
  if (!S_ISREG(target.st_mode)) {
    throw UsageError("ring file " + ring + " is not a regular file");
  }
  for (const std::string& input : inputs) {
    struct stat in {};
    if (input != "-" && ::stat(input.c_str(), &in) == 0 && in.st_dev == target.st_dev &&
        in.st_ino == target.st_ino) {
      throw UsageError("ring file " + ring + " is the input " + input + " itself");
    }
  }
  if (!force && target.st_size > 0 && !looksLikeRing(ring)) {
    throw UsageError("ring file " + ring +
                     " exists and is not a ring trace (use --force to overwrite it)");
  }
}

std::optional<std::string> inputProblem(const std::string& path, std::string_view what) {
  struct stat st {};
  if (path == "-") {
    if (::fstat(STDIN_FILENO, &st) != 0) {
      return "cannot read standard input: " + std::string(std::strerror(errno));
    }
    if (S_ISDIR(st.st_mode)) return std::string("cannot read standard input: Is a directory");
    return std::nullopt;
  }
  const std::string name = "cannot open " + std::string(what) + " " + path + ": ";
  if (::stat(path.c_str(), &st) != 0) return name + std::strerror(errno);
  if (S_ISDIR(st.st_mode)) return name + std::strerror(EISDIR);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return name + std::strerror(errno);
  ::close(fd);
  return std::nullopt;
}

int finishOutput(std::string_view program, int status) {
  // The cause is the flush's, or else that of the write that failed earlier, left in errno.
  const int earlier = errno;
  errno = 0;
  std::cout.flush();
  std::fflush(stdout);
  const int cause = errno != 0 ? errno : earlier;
  if (!std::ferror(stdout) && !std::cout.bad()) return status;
  std::cerr << program << ": cannot write standard output: "
            << (cause != 0 ? std::strerror(cause) : "write error") << '\n';
  return kFailed;
}

}  // namespace Hosts::Cli

// ringlog-cat: prints the records of a ring trace file as text, oldest first.

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "framework/RingLog.h"

namespace {

constexpr int kDecodeError = 1;
constexpr int kUsageError = 2;

constexpr const char* kUsage =
    "usage: ringlog-cat FILE\n"
    "Prints every record still in the ring trace FILE, oldest first, one line each:\n"
    "  <seq> <file>:<line> [<handle>/<level>] <function>: <text>\n";

int usageError(std::string_view why) {
  std::fprintf(stderr, "ringlog-cat: %.*s\n%s", static_cast<int>(why.size()), why.data(), kUsage);
  return kUsageError;
}

int decode(const std::string& path) {
  try {
    for (const std::string& line : RingLog::decodeFile(path)) {
      std::fwrite(line.data(), 1, line.size(), stdout);
      std::fputc('\n', stdout);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ringlog-cat: %s\n", e.what());
    return kDecodeError;
  }
  return std::fflush(stdout) == 0 ? 0 : kDecodeError;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc != 2) return usageError(argc < 2 ? "missing FILE" : "too many arguments");
  std::string_view arg = argv[1];
  if (arg.size() > 1 && arg[0] == '-')
    return usageError("unknown option '" + std::string(arg) + "'");
  return decode(argv[1]);
}

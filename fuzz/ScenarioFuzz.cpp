// Fuzz target: arbitrary bytes as a scenario, run on a fresh simulated host. Every input either
// runs (its expectations may fail) or is refused with "FILE:LINE: message"; nothing else may
// happen, and the host leaves no entity alive behind it.

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>

#include "framework/Core.h"
#include "fuzz/FuzzCheck.h"
#include "hosts/sim/Scenario.h"
#include "hosts/sim/SimHost.h"

namespace {

// Bounds that keep one input fast. They are the target's, not the language's: an input beyond
// them is skipped, not refused.
constexpr size_t kMaxBytes = 8192;
constexpr size_t kMaxLines = 256;
constexpr uint64_t kMaxAdvanceMs = 100000;
constexpr size_t kMaxVrfAdds = 32;

// Takes the next blank-separated word off the front of `line`; empty at its end.
std::string_view nextWord(std::string_view& line) {
  const size_t begin = std::min(line.find_first_not_of(" \t\r"), line.size());
  line.remove_prefix(begin);
  const size_t end = std::min(line.find_first_of(" \t\r"), line.size());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(end);
  return word;
}

// Whether the scenario stays within the bounds above: few lines, short clock moves, few VRFs.
// A number that does not parse passes: the scenario refuses it itself.
bool withinBounds(std::string_view text) {
  size_t lines = 0;
  size_t vrfAdds = 0;
  while (!text.empty()) {
    if (++lines > kMaxLines) return false;
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, std::min(text.find('#'), end));
    text.remove_prefix(std::min(end + 1, text.size()));
    const std::string_view command = nextWord(line);
    if (command == "advance") {
      const std::string_view ms = nextWord(line);
      uint64_t value = 0;
      const auto [last, ec] = std::from_chars(ms.data(), ms.data() + ms.size(), value);
      if (ec == std::errc() && last == ms.data() + ms.size() && value > kMaxAdvanceMs) return false;
    } else if (command == "vrf" && nextWord(line) == "add" && ++vrfAdds > kMaxVrfAdds) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxBytes) return -1;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!withinBounds(text)) return -1;

  const int64_t entitiesBefore = Core::Node::liveCount();
  {
    Sim::SimHost host;
    std::ostringstream out;
    std::ostringstream err;
    Sim::Scenario scenario(host, out, err);
    const Sim::Scenario::ExitStatus status = scenario.runText(text, "fuzz");
    const std::string errText = err.str();
    switch (status) {
      case Sim::Scenario::kPassed:
        FUZZ_CHECK(errText.empty());
        break;
      case Sim::Scenario::kExpectFailed:
      case Sim::Scenario::kInputError:
        // Every complaint names its line.
        FUZZ_CHECK(errText.starts_with("fuzz:"));
        FUZZ_CHECK(errText.find("expected") != std::string::npos ||
                   status == Sim::Scenario::kInputError);
        break;
      default:
        FUZZ_CHECK(!"unknown exit status");
    }
  }
  FUZZ_CHECK(Core::Node::liveCount() == entitiesBefore);
  return 0;
}

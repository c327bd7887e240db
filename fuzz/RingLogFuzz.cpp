// Fuzz target: arbitrary bytes as a ring trace file. The decoder either decodes them or refuses
// them with std::runtime_error naming the file; nothing else may happen.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "framework/RingLog.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  try {
    const std::vector<std::string> lines = RingLog::decode(bytes, "fuzz.ring");
    // A record takes at least its 8-byte header, so the lines cannot outnumber the file's bytes.
    FUZZ_CHECK(lines.size() <= size / 8);
  } catch (const std::runtime_error& e) {
    FUZZ_CHECK(std::string_view(e.what()).starts_with("fuzz.ring: "));
  }
  return 0;
}

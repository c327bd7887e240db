// Fuzz target: arbitrary bytes as a ring trace file. The reader either decodes them, reporting
// each damaged block or record with the file's name, or refuses them with std::runtime_error
// naming the file; nothing else may happen.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "framework/RingLogReader.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The reader reads a file by offsets: an anonymous in-memory file holds the bytes.
  const int fd = ::memfd_create("fuzz.ring", MFD_CLOEXEC);
  FUZZ_CHECK(fd >= 0);
  for (size_t done = 0; done < size;) {
    const ssize_t n = ::write(fd, data + done, size - done);
    FUZZ_CHECK(n > 0);
    done += static_cast<size_t>(n);
  }
  try {
    const RingLog::Reader reader(fd, "fuzz.ring");
    size_t records = 0;
    reader.forEach([&](const RingLog::Record&) { ++records; },
                   [](const std::string& damage) {
                     FUZZ_CHECK(std::string_view(damage).starts_with("fuzz.ring: "));
                   });
    // A record takes at least its 8-byte header, so the records cannot outnumber the file's bytes.
    FUZZ_CHECK(records <= size / 8);
  } catch (const std::runtime_error& e) {
    FUZZ_CHECK(std::string_view(e.what()).starts_with("fuzz.ring: "));
  }
  return 0;
}

// The main of a fuzz target built without libFuzzer: feeds each file named on the command line,
// and each regular file in each directory named there (in name order, skipping dot files), to the
// target's LLVMFuzzerTestOneInput once, as libFuzzer does with a corpus. The target checks its
// own properties and aborts on a broken one; this main fails only on a path it cannot read.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

// The inputs a path names, or false when it names nothing readable.
bool collect(const fs::path& path, std::vector<fs::path>& inputs) {
  std::error_code ec;
  if (fs::is_regular_file(path, ec)) {
    inputs.push_back(path);
    return true;
  }
  if (!fs::is_directory(path, ec)) return false;
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(path, ec)) {
    if (entry.is_regular_file() && !entry.path().filename().string().starts_with(".")) {
      files.push_back(entry.path());
    }
  }
  if (ec) return false;
  std::sort(files.begin(), files.end());
  inputs.insert(inputs.end(), files.begin(), files.end());
  return true;
}

bool readAll(const fs::path& path, std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad() && in.is_open();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE|DIR...\n", argv[0]);
    return 2;
  }
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (!collect(argv[i], inputs)) {
      std::fprintf(stderr, "%s: cannot read '%s'\n", argv[0], argv[i]);
      return 2;
    }
  }
  size_t skipped = 0;
  std::string bytes;
  for (const fs::path& input : inputs) {
    if (!readAll(input, bytes)) {
      std::fprintf(stderr, "%s: cannot read '%s'\n", argv[0], input.c_str());
      return 2;
    }
    std::fprintf(stderr, "replaying %s\n", input.c_str());
    // A target returns -1 for an input beyond its own bounds, which it does not run.
    if (LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()) != 0) {
      ++skipped;
    }
  }
  std::printf("replayed %zu inputs, %zu beyond the target's bounds\n", inputs.size() - skipped,
              skipped);
  return 0;
}

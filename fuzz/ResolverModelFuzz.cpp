// Differential fuzz target: the input bytes choose the host changes of the resolver model
// (support/ResolverModel.h) one after another; after every step the module's statuses and
// proactive ARP entries must equal what the model's from-scratch oracle computes, and after the
// final cleanup nothing of the module may be left alive.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/Core.h"
#include "fuzz/FuzzCheck.h"
#include "platform/Memtab.h"
#include "support/ResolverModel.h"

namespace {

// One input stays fast: at most this many bytes, about one step per two bytes (libFuzzer is
// given a smaller -max_len still, so that most runs are short).
constexpr size_t kMaxBytes = 4096;

[[noreturn]] void modelFailed(const std::string& log, const std::string& failure) {
  std::fprintf(stderr, "resolver model: operations:\n%s%s", log.c_str(), failure.c_str());
  std::abort();
}

}  // namespace

// The first byte seeds the host's starting state and picks the FEC mode and the mode of delivery
// (plain or re-entrant); the others choose the operations.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > kMaxBytes) return -1;
  const int64_t entitiesBefore = Core::Node::liveCount();
  {
    Model::Rng setup(data[0]);
    Model::ByteChoices steps(data + 1, size - 1);
    std::string log;
    Model::Run run(setup, steps,
                   data[0] % 2 ? Memtab::Fib::fecModePerVrf() : Memtab::Fib::fecModeGlobal(),
                   (data[0] & 2) != 0, [&log](const std::string& line) { (log += line) += '\n'; });
    while (!steps.exhausted()) {
      const std::string failure = run.step();
      if (!failure.empty()) modelFailed(log, failure);
    }
    const std::string failure = run.finish();
    if (!failure.empty()) modelFailed(log, failure);
  }
  FUZZ_CHECK(Core::Node::liveCount() == entitiesBefore);
  return 0;
}

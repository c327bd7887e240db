#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Memtab.h"
#include "support/ResolverModel.h"

// Randomized model-based test of the whole resolver (support/ResolverModel.h): random host
// changes, with the oracle checking the statuses and the proactive ARP entries after every step,
// plainly and in the re-entrant mode, where some changes (any but a restart) are made from inside
// the module's notifications.
//
//   FWD_MODEL_SEEDS=N  number of seeds (1..N), default 3
//   FWD_MODEL_STEPS=N  steps per seed, default 3000
//   FWD_MODEL_SEED=N   run only seed N (replays a failure exactly)
namespace {

constexpr size_t kDefaultSeeds = 3;
constexpr size_t kDefaultSteps = 3000;

// The operation log, kept where a signal handler can print it: the last kTail lines of the run
// under way, and the seed and step. A module assertion or a sanitizer report ends the process,
// and the handler then prints what is needed to replay it.
struct FailureContext {
  static constexpr size_t kTail = 24;
  static constexpr size_t kLine = 160;
  uint64_t seed = 0;
  size_t step = 0;
  size_t lines = 0;
  std::array<std::array<char, kLine>, kTail> tail{};

  void log(const std::string& text) {
    auto& line = tail[lines++ % kTail];
    std::snprintf(line.data(), kLine, "  step %zu: %s", step, text.c_str());
  }
  // Calls `f` with each line of the tail, oldest first.
  template <class F>
  void forEachLine(F f) const {
    for (size_t i = lines > kTail ? lines - kTail : 0; i < lines; ++i) f(tail[i % kTail].data());
  }
  std::string tailText() const {
    std::string out;
    forEachLine([&out](const char* line) { (out += line) += '\n'; });
    return out;
  }
  std::string replay() const {
    return "FWD_MODEL_SEED=" + std::to_string(seed) + " FWD_MODEL_STEPS=" + std::to_string(step);
  }
};

FailureContext context;

void writeText(const char* text) {
  ssize_t ignored = ::write(STDERR_FILENO, text, std::strlen(text));
  (void)ignored;
}

// Async-signal-safe enough for a dying process: formats into a stack buffer and writes.
void printContext() {
  char head[160];
  std::snprintf(head, sizeof head,
                "\nresolver model: seed %llu step %zu (replay: FWD_MODEL_SEED=%llu "
                "FWD_MODEL_STEPS=%zu)\noperation log tail:\n",
                static_cast<unsigned long long>(context.seed), context.step,
                static_cast<unsigned long long>(context.seed), context.step);
  writeText(head);
  context.forEachLine([](const char* line) {
    writeText(line);
    writeText("\n");
  });
}

extern "C" void onAbort(int) {
  printContext();
  std::signal(SIGABRT, SIG_DFL);
  std::raise(SIGABRT);
}

extern "C" void onSanitizerDeath() { printContext(); }

// Present only when the test runs under a sanitizer.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

// One seed's run (the seed also picks the FEC mode); returns the first failure, empty when every
// step held.
std::string runSeed(uint64_t seed, size_t steps, bool reentrant) {
  Model::Rng rng(seed);
  Model::Run run(rng, rng, seed % 2 ? Memtab::Fib::fecModePerVrf() : Memtab::Fib::fecModeGlobal(),
                 reentrant, [](const std::string& line) { context.log(line); });
  for (size_t i = 1; i <= steps; ++i) {
    context.step = i;
    std::string failure;
    try {
      failure = run.step();
    } catch (const std::exception& e) {
      failure = std::string("exception: ") + e.what() + "\n";
    }
    if (!failure.empty()) return failure;
  }
  context.log("final doCleanup and release");
  return run.finish();
}

// Reads a positive count from the environment; a malformed value is reported, not guessed.
std::optional<uint64_t> envCount(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) return std::nullopt;
  uint64_t out = 0;
  const char* end = value + std::strlen(value);
  auto [ptr, ec] = std::from_chars(value, end, out);
  if (ec != std::errc() || ptr != end) {
    throw std::invalid_argument(std::string(name) + ": not a number: '" + value + "'");
  }
  return out;
}

void runSeeds(const std::vector<uint64_t>& seeds, size_t steps, bool reentrant);

// Runs every seed the environment asks for.
void runSeeds(bool reentrant) {
  std::vector<uint64_t> seeds;
  size_t steps = kDefaultSteps;
  try {
    steps = envCount("FWD_MODEL_STEPS").value_or(kDefaultSteps);
    if (auto only = envCount("FWD_MODEL_SEED")) {
      seeds.push_back(*only);
    } else {
      const uint64_t count = envCount("FWD_MODEL_SEEDS").value_or(kDefaultSeeds);
      for (uint64_t s = 1; s <= count; ++s) seeds.push_back(s);
    }
  } catch (const std::invalid_argument& e) {
    FAIL() << e.what();
  }

  runSeeds(seeds, steps, reentrant);
}

// Runs each of `seeds` for `steps` steps; FAILs with the seed, the step and the log tail.
void runSeeds(const std::vector<uint64_t>& seeds, size_t steps, bool reentrant) {
  std::signal(SIGABRT, onAbort);
  if (__sanitizer_set_death_callback) __sanitizer_set_death_callback(onSanitizerDeath);

  for (uint64_t seed : seeds) {
    context = FailureContext();
    context.seed = seed;
    const std::string failure = runSeed(seed, steps, reentrant);
    ASSERT_TRUE(failure.empty()) << (reentrant ? "re-entrant run, " : "") << "seed " << seed
                                 << " step " << context.step << " (replay: " << context.replay()
                                 << ")\n"
                                 << failure << "operation log tail:\n"
                                 << context.tailText();
  }
  std::signal(SIGABRT, SIG_DFL);
}

TEST(ResolverModel, RandomHostChangesKeepStatusesAndProactiveArpConsistent) { runSeeds(false); }

TEST(ResolverModel, ChangesMadeFromInsideModuleNotificationsKeepStatusesAndArpConsistent) {
  runSeeds(true);
}

// Re-entrant sequences that once broke the statuses: a VRF bounced while an interface machine
// wrote its first statuses (seed 41), a nexthop leaving its group while its machine started
// (61), a VRF bounced while a neighbour change went round the pipelines (409), a VRF's last
// request deleted from inside the publication of its via's MAC (936), a VRF bounced while a
// removed module's machine withdrew its statuses (811), a table entry added while a new
// module's machine scanned the table (2553), a VRF's last request deleted while its rebuilt
// pipeline was still publishing it (3367).
TEST(ResolverModel, ReentrantSequencesThatOnceFailedStayConsistent) {
  runSeeds({41, 61, 409, 811, 936, 2553, 3367}, 3500, true);
}

}  // namespace

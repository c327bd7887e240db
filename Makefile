# Thin wrapper over the CMake presets: one word per command of the README.
JOBS := 2
DEMO := build/default/tools/nexthop-sim

# LeakSanitizer works here (it needs ptrace-like thread suspension, which this environment
# allows), so leaks fail the run like any other sanitizer report.
SANITIZER_ENV := ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:check_initialization_order=1:strict_init_order=1 \
                 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

FUZZ_SECONDS ?= 60

.PHONY: all test asan fuzz soak bench demo clean

all: test

test:
	cmake --preset default
	cmake --build --preset default -j $(JOBS)
	ctest --preset default

# The environment applies to the build too: test discovery runs the instrumented binaries.
asan:
	$(SANITIZER_ENV) cmake --preset asan-ubsan
	$(SANITIZER_ENV) cmake --build --preset asan-ubsan -j $(JOBS)
	$(SANITIZER_ENV) ctest --preset asan-ubsan

# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS; a crash fails and
# leaves its input in build/fuzz/crashes/.
fuzz:
	$(SANITIZER_ENV) cmake --preset fuzz
	$(SANITIZER_ENV) cmake --build --preset fuzz -j $(JOBS)
	$(SANITIZER_ENV) FUZZ_SECONDS=$(FUZZ_SECONDS) ctest --preset fuzz

# The randomized model test at 200 seeds x 20,000 steps and the simulator on generated scale
# scenarios, in Release; prints steps per second. Long: not part of CI.
soak:
	cmake --preset soak
	cmake --build --preset soak -j $(JOBS) --target FwdResolverModelTest nexthop-sim scale-scenario
	tools/soak.sh

# Every benchmark program, then the simulator timed on generated scale scenarios.
bench:
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	@set -e; found=0; \
	for b in build/bench/bench/*; do \
	  [ -f "$$b" ] && [ -x "$$b" ] || continue; \
	  found=1; echo "== $$b"; "$$b"; \
	done; \
	[ $$found -eq 1 ] || echo "no benchmarks in build/bench/bench/"
	tools/sim-bench.sh

demo:
	cmake --preset default
	cmake --build --preset default -j $(JOBS)
	@[ -x $(DEMO) ] || { echo "demo: $(DEMO) was not built (tools/nexthop-sim.cpp missing?)" >&2; exit 1; }
	$(DEMO)

clean:
	rm -rf build

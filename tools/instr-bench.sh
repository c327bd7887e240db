#!/usr/bin/env bash
# Instructions per unit of a benchmark's timed work, counted by callgrind: the same for the same
# binary and inputs whatever else the machine is doing, so two builds compare exactly where their
# times are too noisy to. Only the calls of the benchmark's measured() (bench/BenchMeasured.h)
# are counted, not the set-up or the untimed part of an iteration; the count is divided by the
# units those calls covered, trial runs included (counter "measured_units"). A unit is a request
# in E2EBench and an iteration in the stage benchmarks.
#
#   tools/instr-bench.sh [BENCH [FILTER]]
#
# BENCH defaults to build/bench/bench/E2EBench (make bench builds it). FILTER, a
# --benchmark_filter, defaults to E2EBench's 262,144-request add, the two deletes and the
# baseline, ring on. Each E2EBench benchmark takes a minute or two under callgrind.
set -euo pipefail

bench=${1:-build/bench/bench/E2EBench}
filter=${2:-'^BM_E2E_(AddRequests|DeleteRequests|DeleteRequestsHashOrder|Baseline)/'}
[ -x "$bench" ] || { echo "instr-bench: $bench is not built (make bench)" >&2; exit 1; }
command -v valgrind >/dev/null || { echo "instr-bench: valgrind is missing (apt-get install valgrind)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mapfile -t names < <("$bench" --benchmark_list_tests --benchmark_filter="$filter")
[ ${#names[@]} -gt 0 ] || { echo "instr-bench: no benchmark matches $filter" >&2; exit 1; }

printf '%-48s %14s\n' "benchmark" "instr/unit"
for name in "${names[@]}"; do
  if ! BENCH_MEASURED_UNITS=1 valgrind --tool=callgrind --callgrind-out-file="$work/out" --toggle-collect='*measured*' \
      "$bench" --benchmark_filter="^${name}\$" --benchmark_format=csv >"$work/csv" 2>"$work/log"; then
    echo "instr-bench: $name failed under callgrind:" >&2
    tail -n 20 "$work/log" >&2
    exit 1
  fi
  # valgrind: "==PID== Collected : N"; the CSV: a header naming the columns, then the run (a
  # benchmark may print text of its own before them).
  collected=$(sed -nE 's/^==[0-9]+== Collected : ([0-9]+)$/\1/p' "$work/log")
  units=$(awk -F, '
    /^name,/ { for (i = 1; i <= NF; i++) { gsub(/"/, "", $i); col[$i] = i }; next }
    /^"BM_/ && col["measured_units"] { print $col["measured_units"]; exit }' "$work/csv")
  if ! [[ "$collected" =~ ^[0-9]+$ && "${units:-}" =~ ^[0-9.e+]+$ ]] ||
      ! awk -v u="$units" 'BEGIN { exit !(u > 0) }'; then
    echo "instr-bench: $name reported no count (is it a benchmark with measured()?)" >&2
    exit 1
  fi
  awk -v n="$name" -v c="$collected" -v u="$units" 'BEGIN { printf "%-48s %14.0f\n", n, c / u }'
done

#!/usr/bin/env bash
# Instructions per request of E2EBench's timed work, counted by callgrind: the same for the same
# binary and inputs whatever else the machine is doing, so two builds compare exactly where their
# times are too noisy to. Only the calls of the benchmark's measured() are counted (the timed
# work), not the set-up, the cold add or the untimed part of an iteration.
#
#   tools/instr-bench.sh [E2EBENCH [FILTER]]
#
# E2EBENCH defaults to build/bench/bench/E2EBench (make bench builds it). FILTER, a
# --benchmark_filter, defaults to the 262,144-request add, the two deletes and the baseline,
# ring on; it may name only benchmarks with a fixed iteration count, whose one run is the counted
# one. Each benchmark takes a minute or two under callgrind.
set -euo pipefail

bench=${1:-build/bench/bench/E2EBench}
filter=${2:-'^BM_E2E_(AddRequests|DeleteRequests|DeleteRequestsHashOrder|Baseline)/'}
[ -x "$bench" ] || { echo "instr-bench: $bench is not built (make bench)" >&2; exit 1; }
command -v valgrind >/dev/null || { echo "instr-bench: valgrind is missing (apt-get install valgrind)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mapfile -t names < <("$bench" --benchmark_list_tests --benchmark_filter="$filter")
[ ${#names[@]} -gt 0 ] || { echo "instr-bench: no benchmark matches $filter" >&2; exit 1; }

printf '%-48s %14s\n' "benchmark" "instr/request"
for name in "${names[@]}"; do
  if ! valgrind --tool=callgrind --callgrind-out-file="$work/out" --toggle-collect='*measured*' \
      "$bench" --benchmark_filter="^${name}\$" --benchmark_format=csv >"$work/csv" 2>"$work/log"; then
    echo "instr-bench: $name failed under callgrind:" >&2
    tail -n 20 "$work/log" >&2
    exit 1
  fi
  # valgrind: "==PID== Collected : N"; the CSV: a header naming the columns, then the run (a
  # benchmark may print text of its own before them).
  collected=$(sed -nE 's/^==[0-9]+== Collected : ([0-9]+)$/\1/p' "$work/log")
  counts=$(awk -F, '
    /^name,/ { for (i = 1; i <= NF; i++) { gsub(/"/, "", $i); col[$i] = i }; next }
    /^"BM_/ && col["iterations"] && col["measured_requests"] {
      print $col["iterations"], $col["measured_requests"]; exit
    }' "$work/csv")
  read -r iterations requests <<<"$counts" || true
  if ! [[ "$collected" =~ ^[0-9]+$ && "${iterations:-}" =~ ^[1-9][0-9]*$ &&
      "${requests:-}" =~ ^[1-9][0-9]*$ ]]; then
    echo "instr-bench: $name reported no count (is it a benchmark with measured()?)" >&2
    exit 1
  fi
  awk -v n="$name" -v c="$collected" -v i="$iterations" -v r="$requests" \
    'BEGIN { printf "%-48s %14.0f\n", n, c / (i * r) }'
done

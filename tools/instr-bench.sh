#!/usr/bin/env bash
# Instructions per unit of a benchmark's timed work, counted by callgrind: the same for the same
# binary and inputs whatever else the machine is doing, so two builds compare exactly where their
# times are too noisy to. Only the calls of the benchmark's measured() (bench/BenchMeasured.h)
# are counted, not the set-up or the untimed part of an iteration; the count is divided by the
# units those calls covered, trial runs included (counter "measured_units"). A unit is a request
# in E2EBench and an iteration in the stage benchmarks.
#
#   tools/instr-bench.sh [--parts] [BENCH [FILTER]]
#
# BENCH defaults to build/bench/bench/E2EBench (make bench builds it). FILTER, a
# --benchmark_filter, defaults to E2EBench's 262,144-request add, the two deletes and the
# baseline, ring on. Each E2EBench benchmark takes a minute or two under callgrind.
#
# --parts also simulates the caches (the last level as this machine has it, from sysfs)
# and splits each count by part of the system: the framework, the trace, each stage of the
# module, the root, the host's state types, allocation and the benchmark's own driver. A
# function's count is its own (exclusive), so code inlined into a function counts for it: a
# table look-up inlined into a stage's handler counts for the stage. About three times slower.
set -euo pipefail

parts=0
if [ "${1:-}" = --parts ]; then
  parts=1
  shift
fi
bench=${1:-build/bench/bench/E2EBench}
filter=${2:-'^BM_E2E_(AddRequests|DeleteRequests|DeleteRequestsHashOrder|Baseline)/'}
[ -x "$bench" ] || { echo "instr-bench: $bench is not built (make bench)" >&2; exit 1; }
command -v valgrind >/dev/null || { echo "instr-bench: valgrind is missing (apt-get install valgrind)" >&2; exit 1; }

# "BYTES,WAYS,LINE" of cpu0's highest unified cache, from sysfs; nothing when there is none or
# its sets are not a power of two.
last_level_cache() {
  local dir best="" best_level=0 level size ways line sets
  for dir in /sys/devices/system/cpu/cpu0/cache/index*; do
    if ! [ -r "$dir/level" ] || [ "$(cat "$dir/type" 2>/dev/null)" != Unified ]; then continue; fi
    level=$(cat "$dir/level")
    [ "$level" -gt "$best_level" ] || continue
    size=$(cat "$dir/size" 2>/dev/null) ways=$(cat "$dir/ways_of_associativity" 2>/dev/null)
    line=$(cat "$dir/coherency_line_size" 2>/dev/null)
    [[ "$size" =~ ^[1-9][0-9]*K$ && "$ways" =~ ^[1-9][0-9]*$ && "$line" =~ ^[1-9][0-9]*$ ]] || continue
    size=$((${size%K} * 1024))
    sets=$((size / (ways * line)))
    if [ $((sets * ways * line)) -ne "$size" ] || [ $((sets & (sets - 1))) -ne 0 ]; then continue; fi
    best="$size,$ways,$line" best_level=$level
  done
  echo "$best"
}

callgrind=(--tool=callgrind --toggle-collect='*measured*')
if [ "$parts" = 1 ]; then
  callgrind+=(--cache-sim=yes)
  # callgrind guesses the last level from the processor's identity, and may guess wrong (a
  # virtual machine's processor); the kernel's description of cpu0's caches says what this
  # machine has. callgrind takes only a power of two of sets.
  ll=$(last_level_cache)
  if [ -n "$ll" ]; then
    callgrind+=(--LL="$ll")
    echo "last level cache simulated: $ll (bytes,ways,line)"
  else
    echo "last level cache simulated: callgrind's guess (the kernel describes none it can take)"
  fi
fi

# Splits callgrind_annotate's exclusive counts per function (Ir D1mr D1mw DLmr DLmw, then the
# function) into parts, per unit.
print_parts() {
  awk -v u="$1" '
    function part(f,    q) {
      if (f ~ /(^|[^A-Za-z_])(_int_malloc|malloc|_int_free|free|cfree|calloc|realloc|malloc_consolidate|unlink_chunk[.a-z0-9]*|operator new|operator delete|__mem(set|cpy|move)[_a-z0-9]*)( |\(|$)/)
        return "allocation, memset, memcpy"
      q = f
      # The qualified name: the object, clone and recursion marks, template arguments,
      # parameters and the return type dropped.
      gsub(/\(anonymous namespace\)/, "anonymous", q)
      while (sub(/ *(\[[^]]*\]|\x27[0-9]+|const)$/, "", q)) {}
      while (gsub(/<[^<>]*>/, "", q)) {}
      while (gsub(/\([^()]*\)/, "", q)) {}
      sub(/ *const$/, "", q)
      sub(/^.* /, "", q)
      if (q ~ /^(RingLog|DualLog)::/) return "framework: trace"
      if (q ~ /^(Core|Kiln|Hub|Netval|L3)::/) return "framework: tables, values, publication"
      if (q ~ /^FwdL3Unicast::(ViaNexthopToViaNexthopMacSm|ViaNexthopRequest|AllViaNexthopRequests)/) return "module: stage 2"
      if (q ~ /^FwdL3Unicast::([A-Za-z]*MacToNhIndex|RequesterColl|RequesterSet|getNextHopMac)/) return "module: stage 3"
      if (q ~ /^FwdL3Unicast::(NexthopToViaNexthopSm|NexthopRequest|AllNexthopRequests|IntfViaInfo)/) return "module: stage 1"
      if (q ~ /^FwdL3Unicast::/) return "module: root, VRF, shared maps"
      if (q ~ /^(Routing|Memtab|Plane|Arp|Vrf|L3Modules|NextHopMod)::/) return "host state (platform types)"
      if (q ~ /^(anonymous|benchmark|Bench)::/) return "benchmark driver"
      return "standard library, other"
    }
    # The rows lie between the two rules after the "file:function" heading.
    /file:function/ { heading = 1; next }
    /^-+$/ { if (heading) rows++; next }
    rows != 1 || NF < 6 { next }
    {
      line = $0
      gsub(/\([ 0-9.]+%\)/, "", line)
      n = split(line, f, " ")
      if (n < 6) next
      name = line
      for (i = 1; i <= 5; i++) sub(/^ *[0-9,.]+/, "", name)
      sub(/^ */, "", name)
      sub(/^[^:]*:/, "", name)
      p = part(name)
      for (i = 1; i <= 5; i++) { v = f[i]; gsub(/,/, "", v); if (v == ".") v = 0; sum[p, i] += v; total[i] += v }
      seen[p] = 1
    }
    END {
      printf "  %-40s %10s %8s %8s %8s %8s\n", "part", "instr", "D1 rd", "D1 wr", "LL rd", "LL wr"
      for (p in seen) order[p] = sum[p, 1]
      while (length(order) > 0) {
        best = ""
        for (p in order) if (best == "" || order[p] > order[best]) best = p
        printf "  %-40s %10.0f %8.1f %8.1f %8.2f %8.2f\n", best, sum[best, 1] / u, sum[best, 2] / u, sum[best, 3] / u, sum[best, 4] / u, sum[best, 5] / u
        delete order[best]
      }
      printf "  %-40s %10.0f %8.1f %8.1f %8.2f %8.2f\n", "total", total[1] / u, total[2] / u, total[3] / u, total[4] / u, total[5] / u
    }'
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mapfile -t names < <("$bench" --benchmark_list_tests --benchmark_filter="$filter")
[ ${#names[@]} -gt 0 ] || { echo "instr-bench: no benchmark matches $filter" >&2; exit 1; }

printf '%-48s %14s\n' "benchmark" "instr/unit"
for name in "${names[@]}"; do
  if ! BENCH_MEASURED_UNITS=1 valgrind "${callgrind[@]}" --callgrind-out-file="$work/out" \
      "$bench" --benchmark_filter="^${name}\$" --benchmark_format=csv >"$work/csv" 2>"$work/log"; then
    echo "instr-bench: $name failed under callgrind:" >&2
    tail -n 20 "$work/log" >&2
    exit 1
  fi
  # valgrind: "==PID== Collected : N"; the CSV: a header naming the columns, then the run (a
  # benchmark may print text of its own before them).
  collected=$(sed -nE 's/^==[0-9]+== Collected : ([0-9]+)( [0-9]+)*$/\1/p' "$work/log")
  units=$(awk -F, '
    /^name,/ { for (i = 1; i <= NF; i++) { gsub(/"/, "", $i); col[$i] = i }; next }
    /^"BM_/ && col["measured_units"] { print $col["measured_units"]; exit }' "$work/csv")
  if ! [[ "$collected" =~ ^[0-9]+$ && "${units:-}" =~ ^[0-9.e+]+$ ]] ||
      ! awk -v u="$units" 'BEGIN { exit !(u > 0) }'; then
    echo "instr-bench: $name reported no count (is it a benchmark with measured()?)" >&2
    exit 1
  fi
  awk -v n="$name" -v c="$collected" -v u="$units" 'BEGIN { printf "%-48s %14.0f\n", n, c / u }'
  if [ "$parts" = 1 ]; then
    callgrind_annotate --inclusive=no --threshold=100 --show=Ir,D1mr,D1mw,DLmr,DLmw "$work/out" |
      print_parts "$units"
  fi
done

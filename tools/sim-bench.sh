#!/usr/bin/env bash
# Times nexthop-sim on scenarios that scale-scenario generates (no churn: every request added
# once and resolved): microseconds per request and peak resident memory per request, the latter
# over that of an empty scenario's run. SIM_BENCH_SCALE lists the shapes as "VRFS REQUESTS;..."
# (default "16 1024;64 4096"); each runs SIM_BENCH_REPEAT times (default 3) and the fastest run
# counts. Run from the top of the tree after building (SIM_BENCH_BUILD, default build/bench).
set -euo pipefail

build=${SIM_BENCH_BUILD:-build/bench}
repeat=${SIM_BENCH_REPEAT:-3}
sim=$build/tools/nexthop-sim
gen=$build/tools/scale-scenario
for b in "$sim" "$gen"; do
  [ -x "$b" ] || { echo "sim-bench: $b is not built" >&2; exit 1; }
done
[ -x /usr/bin/time ] || { echo "sim-bench: /usr/bin/time is missing (apt-get install time)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

now() { date +%s%N; }

# run SCENARIO: "NANOSECONDS PEAK_RSS_KIB" of the fastest of $repeat runs; fails when the
# simulator does (an expectation that did not hold).
run() {
  local best_ns=0 rss=0 i start ns
  for ((i = 0; i < repeat; i++)); do
    start=$(now)
    if ! /usr/bin/time -f '%M' -o "$work/rss" "$sim" "$1" >/dev/null 2>"$work/err"; then
      echo "sim-bench: nexthop-sim failed on $1:" >&2
      cat "$work/err" >&2
      exit 1
    fi
    ns=$(($(now) - start))
    if [ "$best_ns" -eq 0 ] || [ "$ns" -lt "$best_ns" ]; then best_ns=$ns; fi
    rss=$(tail -n 1 "$work/rss")
  done
  echo "$best_ns $rss"
}

: >"$work/empty.scn"
read -r empty_ns empty_rss < <(run "$work/empty.scn")
echo "sim-bench: empty scenario: $((empty_ns / 1000)) us, peak RSS $empty_rss KiB"

IFS=';' read -r -a shapes <<<"${SIM_BENCH_SCALE:-16 1024;64 4096}"
for shape in "${shapes[@]}"; do
  read -r vrfs requests <<<"$shape"
  scenario=$work/scale-$vrfs-$requests.scn
  "$gen" --vrfs "$vrfs" --requests "$requests" --churn 0 >"$scenario"
  read -r ns rss < <(run "$scenario")
  total=$((vrfs * requests))
  awk -v v="$vrfs" -v r="$requests" -v n="$total" -v ns="$ns" -v rss="$rss" -v e="$empty_rss" \
    'BEGIN { printf "sim-bench: %d VRFs x %d requests: %.3f s, %.2f us per request, peak RSS %d KiB, %.0f bytes per request\n",
             v, r, ns / 1e9, ns / 1e3 / n, rss, (rss - e) * 1024 / n }'
done

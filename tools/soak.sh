#!/usr/bin/env bash
# The long soak (`make soak`), not part of CI: the randomized model test (plain and re-entrant)
# at SOAK_SEEDS seeds x SOAK_STEPS steps (default 200 x 20,000) in a Release build, then the
# simulator on generated scale scenarios (SOAK_SCALE); reports steps per second for each. Run from the top of the tree after
# `cmake --build --preset soak`.
set -euo pipefail

build=${SOAK_BUILD:-build/soak}
seeds=${SOAK_SEEDS:-200}
steps=${SOAK_STEPS:-20000}
model=$build/tests/FwdResolverModelTest
sim=$build/tools/nexthop-sim
gen=$build/tools/scale-scenario
for b in "$model" "$sim" "$gen"; do
  [ -x "$b" ] || { echo "soak: $b is not built" >&2; exit 1; }
done

now() { date +%s.%N; }
rate() { awk -v n="$1" -v t="$2" 'BEGIN { printf "%.0f", (t > 0 ? n / t : 0) }'; }

echo "== resolver model: $seeds seeds x $steps steps per test"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
FWD_MODEL_SEEDS=$seeds FWD_MODEL_STEPS=$steps "$model" --gtest_filter='ResolverModel*' | tee "$log"
# "[       OK ] ResolverModel.Name (123456 ms)": one line per model test. The two randomized ones
# run seeds x steps; the replay of fixed seeds that once failed runs its own count, so no rate.
grep -E '^\[ +OK \] ResolverModel\.(RandomHostChanges|ChangesMadeFromInside)' "$log" |
while read -r _ _ _ name ms _; do
  ms=${ms#(}
  echo "soak: $name: $((seeds * steps)) steps in $ms ms, $(rate $((seeds * steps * 1000)) "$ms") steps/s"
done

# Scale scenarios: VRFS x REQUESTS requests over 8 interfaces, then CHURN churn steps; SOAK_SCALE
# lists them as "VRFS REQUESTS CHURN;...".
IFS=';' read -r -a shapes <<<"${SOAK_SCALE:-16 1024 20000;64 4096 1000}"
for shape in "${shapes[@]}"; do
  read -r vrfs requests churn <<<"$shape"
  scenario=$build/scale-$vrfs-$requests-$churn.scn
  "$gen" --vrfs "$vrfs" --requests "$requests" --churn "$churn" >"$scenario"
  lines=$(grep -cvE '^[[:space:]]*(#|$)' "$scenario")
  start=$(now)
  "$sim" "$scenario" >/dev/null
  elapsed=$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')
  echo "soak: scale $vrfs VRFs x $requests requests, $churn churn steps: $lines commands in" \
       "${elapsed}s, $(rate "$lines" "$elapsed") commands/s"
done

#!/usr/bin/env bash
# A long fuzzing run, for hunting bugs before a release rather than for CI:
# each target runs until it has executed RUNS inputs or TIME seconds have
# passed, whichever comes first, starting from its seed corpus and keeping
# what it finds in OUT/<target>/corpus. One summary line per target goes to
# OUT/summary.tsv: executions, seconds, coverage (edges), features, corpus
# size, result. Crashes, leaks and sanitizer reports stop the target and
# leave their input and log in OUT/<target>/.
#
#   scripts/fuzz-campaign.sh [-j JOBS] [target ...]   default: every target of fuzz-smoke.sh
#   RUNS=10000000 TIME=1800 UNIT_TIMEOUT=120 OUT=build/fuzz-campaign   (defaults)
#
# Targets run JOBS at a time (default 1), each on one core; run it under
# `nice` on a shared machine. Afterwards, scripts/fuzz-campaign.sh --merge
# TARGET folds a target's findings into its seed corpus (only inputs that add
# coverage).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/fuzz
out=${OUT:-$root/build/fuzz-campaign}
runs=${RUNS:-10000000}
secs=${TIME:-1800}
# Per input, in wall-clock seconds: generous, since a run under `nice` on a busy
# machine can be starved for a while; a real hang still ends the target.
unit_timeout=${UNIT_TIMEOUT:-120}
jobs=1

if [ "${1:-}" = "--merge" ]; then
  target=${2:?--merge needs a target}
  "$build/fuzz/$target" -merge=1 -rss_limit_mb=2048 "$root/fuzz/corpus/$target" \
      "$out/$target/corpus" >"$out/$target/merge.log" 2>&1
  tail -n 1 "$out/$target/merge.log"
  exit 0
fi
if [ "${1:-}" = "-j" ]; then jobs=$2; shift 2; fi

# The target list lives in one place.
mapfile -t all < <(sed -n '/^TARGETS=(/,/)/p' "$root/scripts/fuzz-smoke.sh" |
  tr ' ()' '\n\n\n' | grep -E '^[a-z_]+$' | grep -v '^TARGETS$')
targets=("$@")
[ "${#targets[@]}" -gt 0 ] || targets=("${all[@]}")

cmake --preset fuzz >/dev/null
cmake --build "$build" --target "${targets[@]}" >/dev/null
mkdir -p "$out"
[ -f "$out/summary.tsv" ] ||
  printf 'target\texecutions\tseconds\tcoverage\tfeatures\tcorpus\tresult\n' >"$out/summary.tsv"

one() {
  local target=$1 dir=$out/$1
  mkdir -p "$dir/corpus"
  local start=$SECONDS result=clean
  if ! "$build/fuzz/$target" -runs="$runs" -max_total_time="$secs" -timeout="$unit_timeout" \
      -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$dir/" \
      "$dir/corpus" "$root/fuzz/corpus/$target" >"$dir/log" 2>&1; then
    result=FAILED
  fi
  local execs cov ft
  execs=$(grep -oE 'stat::number_of_executed_units: *[0-9]+' "$dir/log" | grep -oE '[0-9]+$' || echo '?')
  cov=$(grep -oE 'cov: [0-9]+' "$dir/log" | tail -n 1 | grep -oE '[0-9]+' || echo '?')
  ft=$(grep -oE 'ft: [0-9]+' "$dir/log" | tail -n 1 | grep -oE '[0-9]+' || echo '?')
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$target" "$execs" $((SECONDS - start)) "$cov" "$ft" \
    "$(ls "$dir/corpus" | wc -l)" "$result" >>"$out/summary.tsv"
}

running=0
for target in "${targets[@]}"; do
  one "$target" &
  running=$((running + 1))
  if [ "$running" -ge "$jobs" ]; then wait -n || true; running=$((running - 1)); fi
done
wait
column -t -s $'\t' "$out/summary.tsv"

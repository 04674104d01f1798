#!/usr/bin/env bash
# Smoke run of the fuzz targets for CI: configures and builds the fuzz preset,
# then runs each target on its seed corpus (fuzz/corpus/<target>/). New inputs
# go to a scratch directory, so the corpora in the tree stay as they are. The
# corpora themselves replay as ordinary tests in every build; this run only
# looks a little beyond them. Each target's output goes to a log that is shown
# only when the target fails; otherwise one line says how many inputs it ran.
#
# By default every target runs a fixed number of inputs from a fixed seed, so
# two runs on one tree try the same inputs and CI's verdict depends on the
# code alone. Exploring (a time limit, a fresh seed each run) is for people
# hunting bugs: FUZZ_SECONDS=n. A crash found that way goes into the target's
# corpus, where every build replays it from then on.
#
#   scripts/fuzz-smoke.sh [target ...]      default: every target below
#   FUZZ_SECONDS=n                          explore n seconds per target instead
set -euo pipefail

# Every fuzz target of the project and the inputs CI runs on it (about eight
# seconds each on the CI machine); add new ones here.
declare -A RUNS=(
  [patricia_fuzz]=4000
  [itable_fuzz]=4000
  [fuzz_msg_list]=15000
  [fuzz_idl_tlv_envelope]=20000
  [fuzz_idl_idr_envelope]=15000
  [fuzz_idl_records]=20000
  [kernel_emu_fuzz]=1200
  [ifaddrs_walk_fuzz]=60000
  [fuzz_async_dispatch]=2500
  [gencfg_inflate_fuzz]=6000
  [format_fuzz]=5000
  [qpipe_framing_fuzz]=100000
  [tarn_dispatch_fuzz]=100000
  [tarn_emu_fuzz]=100000
  [monitor_json_fuzz]=40000
  [kernel_control_fuzz]=20000
)
TARGETS=(patricia_fuzz itable_fuzz fuzz_msg_list fuzz_idl_tlv_envelope fuzz_idl_idr_envelope
  fuzz_idl_records kernel_emu_fuzz ifaddrs_walk_fuzz fuzz_async_dispatch gencfg_inflate_fuzz
  format_fuzz qpipe_framing_fuzz tarn_dispatch_fuzz tarn_emu_fuzz monitor_json_fuzz
  kernel_control_fuzz)

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/fuzz
if [ "$#" -gt 0 ]; then TARGETS=("$@"); fi

cd "$root"
cmake --preset fuzz >/dev/null
cmake --build "$build" --target "${TARGETS[@]}"

scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarn-fuzz-XXXXXX")
trap 'rm -rf "$scratch"' EXIT

for target in "${TARGETS[@]}"; do
  corpus=$root/fuzz/corpus/$target
  [ -d "$corpus" ] || { echo "fuzz-smoke: no seed corpus $corpus" >&2; exit 1; }
  mkdir -p "$scratch/$target"
  log=$scratch/$target.log
  if [ -n "${FUZZ_SECONDS:-}" ]; then
    limit=(-max_total_time="$FUZZ_SECONDS")
  else
    limit=(-seed=1 -runs="${RUNS[$target]:?no run count for $target in scripts/fuzz-smoke.sh}")
  fi
  if ! "$build/fuzz/$target" "${limit[@]}" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$scratch/$target-" "$scratch/$target" "$corpus" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "fuzz-smoke: $target failed; crash inputs and the log are in $scratch" >&2
    trap - EXIT
    exit 1
  fi
  echo "fuzz-smoke: $target: $(grep -E '^Done [0-9]+ runs' "$log" | tail -n 1)"
done
echo "fuzz-smoke: all targets ran clean"

#!/usr/bin/env bash
# Short libFuzzer smoke run for CI: builds the fuzz preset, then runs every
# target on its seed corpus (fuzz/corpus/<target>/) for a bounded time. New
# inputs go to a scratch directory so the corpus in the tree stays as it is.
# Keep the whole run under about three minutes.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${TARN_FUZZ_BUILD_DIR:-$root/build/fuzz}
seconds=${TARN_FUZZ_SECONDS:-30}

# target name, one per line
targets=(
  fuzz_idl_tlv_envelope
  fuzz_idl_idr_envelope
)

cmake --preset fuzz -S "$root" -B "$build" >/dev/null
cmake --build "$build" --target "${targets[@]}"

scratch=$(mktemp -d /tmp/tarn-fuzz-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
status=0
for t in "${targets[@]}"; do
  exe=$(find "$build" -type f -name "$t" -perm -u+x | head -n1)
  corpus=$root/fuzz/corpus/$t
  mkdir -p "$scratch/$t"
  echo "== $t (${seconds}s)"
  if ! "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
       "$scratch/$t" "$corpus" 2>"$scratch/$t.log"; then
    tail -n 40 "$scratch/$t.log"
    status=1
  else
    grep -E 'stat::number_of_executed_units|Done' "$scratch/$t.log" || true
  fi
done
exit $status

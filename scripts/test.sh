#!/usr/bin/env bash
# Installs what the build needs, then configures, builds and runs every test
# of the host, i386 and asan presets (the `ci` workflow), after a short
# fuzzing smoke run of every fuzz target.
#   scripts/test.sh            (from the top of the source tree, as root)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
if [ -x scripts/fuzz-smoke.sh ]; then
  bash scripts/fuzz-smoke.sh
fi
cmake --workflow --preset ci

#!/usr/bin/env bash
# Installs what the build needs, builds the host preset, and runs the demo:
# the kernel emulator on a temporary socket, the example daemon against it,
# then the emulator is stopped.
#   scripts/demo.sh            (from the top of the source tree, as root)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset host >/dev/null
cmake --build --preset host --target tarn-kernel-emu tarn-demo-daemon

bin=build/host
tmp=$(mktemp -d /tmp/tarn-demo-XXXXXX)
emu_pid=""
cleanup() {
  if [ -n "$emu_pid" ]; then kill -TERM "$emu_pid" 2>/dev/null || true; wait "$emu_pid" 2>/dev/null || true; fi
  rm -rf "$tmp"
}
trap cleanup EXIT

export TARN_KERNEL_SOCKET=$tmp/kernel.sock
"$bin/tools/kernel-emu/tarn-kernel-emu" --socket "$TARN_KERNEL_SOCKET" --log >"$tmp/emu.log" &
emu_pid=$!
for _ in $(seq 1 500); do
  [ -S "$TARN_KERNEL_SOCKET.ctl" ] && break
  sleep 0.01
done

echo
echo "=== kernel emulator running (pid $emu_pid) on $TARN_KERNEL_SOCKET"
echo
"$bin/examples/tarn-demo-daemon"
echo
kill -TERM "$emu_pid"; wait "$emu_pid" || true; emu_pid=""
echo "=== what the kernel emulator saw"
sed 's/^/  /' "$tmp/emu.log"

#!/usr/bin/env bash
# Installs what the build needs, builds the host preset, and runs the demo:
# the kernel emulator and the routing-daemon emulator on temporary sockets,
# the example daemon against them, then the emulators are stopped.
#   scripts/demo.sh            (from the top of the source tree, as root)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset host >/dev/null
cmake --build --preset host --target tarn-kernel-emu tarn-emu tarn-demo-daemon

bin=build/host
tmp=$(mktemp -d /tmp/tarn-demo-XXXXXX)
emu_pid=""
temu_pid=""
cleanup() {
  if [ -n "$temu_pid" ]; then kill -TERM "$temu_pid" 2>/dev/null || true; wait "$temu_pid" 2>/dev/null || true; fi
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

export TARN_EMU_SOCKET=$tmp/tarn.sock
"$bin/tools/tarn-emu/tarn-emu" --listen "$TARN_EMU_SOCKET" --kernel "$TARN_KERNEL_SOCKET" \
  --log "$tmp/tarn-emu.log" &
temu_pid=$!
for _ in $(seq 1 500); do
  [ -S "$TARN_EMU_SOCKET" ] && break
  sleep 0.01
done

echo
echo "=== kernel emulator running (pid $emu_pid) on $TARN_KERNEL_SOCKET"
echo "=== routing-daemon emulator running (pid $temu_pid) on $TARN_EMU_SOCKET"
echo
"$bin/examples/tarn-demo-daemon"
echo
kill -TERM "$temu_pid"; wait "$temu_pid" || true; temu_pid=""
kill -TERM "$emu_pid"; wait "$emu_pid" || true; emu_pid=""
echo "=== what the routing-daemon emulator saw"
sed 's/^/  /' "$tmp/tarn-emu.log"
echo "=== what the kernel emulator saw"
sed 's/^/  /' "$tmp/emu.log"

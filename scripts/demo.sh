#!/usr/bin/env bash
# Installs what the build needs, builds the host preset, and runs the demo:
# the kernel emulator on a temporary socket, tarn-monitor watching it, the
# example daemon against it; then what the monitor saw and the routes left,
# and the emulator is stopped.
#   scripts/demo.sh            (from the top of the source tree, as root)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset host >/dev/null
cmake --build --preset host --target tarn-kernel-emu tarn-demo-daemon tarn-monitor

bin=build/host
tmp=$(mktemp -d /tmp/tarn-demo-XXXXXX)
emu_pid=""
mon_pid=""
cleanup() {
  if [ -n "$mon_pid" ]; then kill -TERM "$mon_pid" 2>/dev/null || true; wait "$mon_pid" 2>/dev/null || true; fi
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

monitor=$bin/tools/monitor/tarn-monitor
"$monitor" watch >"$tmp/monitor.out" 2>"$tmp/monitor.err" &
mon_pid=$!
for _ in $(seq 1 500); do
  grep -q "watching" "$tmp/monitor.err" && break
  sleep 0.01
done

echo
echo "=== kernel emulator running (pid $emu_pid) on $TARN_KERNEL_SOCKET"
echo "=== tarn-monitor watching it (pid $mon_pid)"
echo
"$bin/examples/tarn-demo-daemon"
echo
kill -TERM "$mon_pid"; wait "$mon_pid" || true; mon_pid=""
echo "=== what tarn-monitor watch printed while the demo ran"
sed 's/^/  /' "$tmp/monitor.err" "$tmp/monitor.out"
echo
echo "=== tarn-monitor list routes"
"$monitor" list routes | sed 's/^/  /'
echo
kill -TERM "$emu_pid"; wait "$emu_pid" || true; emu_pid=""
echo "=== what the kernel emulator saw"
sed 's/^/  /' "$tmp/emu.log"

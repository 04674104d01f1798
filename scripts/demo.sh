#!/usr/bin/env bash
# Installs what the build needs, builds the host preset, and runs the demo:
# the kernel emulator and the routing-daemon emulator on temporary sockets,
# tarn-monitor watching the kernel, the example daemon against them; then
# what the monitor saw, the routes left, what each emulator saw, and the
# emulators are stopped.
#   scripts/demo.sh            (from the top of the source tree, as root)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset host >/dev/null
cmake --build --preset host --target tarn-kernel-emu tarn-emu tarn-demo-daemon tarn-monitor

bin=build/host
tmp=$(mktemp -d /tmp/tarn-demo-XXXXXX)
emu_pid=""
temu_pid=""
mon_pid=""
stop() {  # stop PID: SIGTERM and wait, quietly
  kill -TERM "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
cleanup() {
  for pid in "$mon_pid" "$temu_pid" "$emu_pid"; do [ -n "$pid" ] && stop "$pid"; done
  rm -rf "$tmp"
}
trap cleanup EXIT

# Waits up to five seconds for a command to succeed.
wait_for() {
  for _ in $(seq 1 500); do
    "$@" && return 0
    sleep 0.01
  done
  return 1
}

export TARN_KERNEL_SOCKET=$tmp/kernel.sock
"$bin/tools/kernel-emu/tarn-kernel-emu" --socket "$TARN_KERNEL_SOCKET" --log >"$tmp/emu.log" &
emu_pid=$!
wait_for test -S "$TARN_KERNEL_SOCKET.ctl"

export TARN_EMU_SOCKET=$tmp/tarn.sock
"$bin/tools/tarn-emu/tarn-emu" --listen "$TARN_EMU_SOCKET" --kernel "$TARN_KERNEL_SOCKET" \
  --log "$tmp/tarn-emu.log" &
temu_pid=$!
wait_for test -S "$TARN_EMU_SOCKET"

monitor=$bin/tools/monitor/tarn-monitor
"$monitor" watch >"$tmp/monitor.out" 2>"$tmp/monitor.err" &
mon_pid=$!
wait_for grep -q "watching" "$tmp/monitor.err"

echo
echo "=== kernel emulator running (pid $emu_pid) on $TARN_KERNEL_SOCKET"
echo "=== routing-daemon emulator running (pid $temu_pid) on $TARN_EMU_SOCKET"
echo "=== tarn-monitor watching the kernel (pid $mon_pid)"
echo
"$bin/examples/tarn-demo-daemon"
echo
stop "$mon_pid"; mon_pid=""
echo "=== what tarn-monitor watch printed while the demo ran"
sed 's/^/  /' "$tmp/monitor.err" "$tmp/monitor.out"
echo
echo "=== tarn-monitor list routes"
"$monitor" list routes | sed 's/^/  /'
echo
stop "$temu_pid"; temu_pid=""
echo "=== what the routing-daemon emulator saw"
sed 's/^/  /' "$tmp/tarn-emu.log"
echo
stop "$emu_pid"; emu_pid=""
echo "=== what the kernel emulator saw"
sed 's/^/  /' "$tmp/emu.log"

#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the fuzzers and the
# benchmarks need, for both the x86-64 host build and the i386 target build.
# Idempotent; safe to run as root on a fresh Debian 12 machine.
set -euo pipefail

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

PACKAGES=(
  build-essential g++ g++-multilib cmake ninja-build pkg-config git
  clang lld libclang-rt-14-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libev-dev libev-dev:i386 libabsl-dev libabsl-dev:i386 zlib1g-dev libzstd-dev
  libprotobuf-c-dev protobuf-c-compiler
  qemu-user ccache
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if ! dpkg --print-foreign-architectures | grep -qx i386; then
  $SUDO dpkg --add-architecture i386
  missing+=(force-update)
fi

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

export DEBIAN_FRONTEND=noninteractive
# A mirror serving a stale i386 index makes apt-get update exit non-zero even
# though the lists it needs are usable; carry on and let the install decide.
$SUDO apt-get update || echo "install-deps: apt-get update reported a problem; continuing"
$SUDO apt-get install -y --no-install-recommends "${PACKAGES[@]}"

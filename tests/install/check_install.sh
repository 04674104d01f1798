#!/usr/bin/env bash
# check_install.sh BUILD_DIR CONSUMER_SRC CMAKE
set -euo pipefail
build=$1 consumer=$2 cmake=$3
work=$(mktemp -d /tmp/tarn-install-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

"$cmake" --install "$build" --prefix "$prefix" >/dev/null

test -f "$prefix/include/tarn/tarn.h"
test -x "$prefix/bin/tarn-kernel-emu"
soname=$(readelf -d "$prefix/lib/libtarn.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libtarn.so.1" ] || { echo "soname is '$soname'"; exit 1; }

# Only the public families are exported.
bad=$(nm -D --defined-only "$prefix/lib/libtarn.so" | awk '{sub(/@.*/, "", $3); print $3}' \
      | grep -v -E '^(rtslib_|__rtslib_|rtsllib_|rtm_types$|tarn_|tlv_|idr_|patricia_|itable|ifl_|if_|wrl_|iovcpy$|tag_p2mp_pvc_appl_id_is_vpls$|LIBTARN_1$)' \
      | grep -v -E '_strerr$' || true)
[ -z "$bad" ] || { echo "unexpected exports:"; echo "$bad"; exit 1; }

# pkg-config consumer
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
cc -std=c11 -Wall -Werror $(pkg-config --cflags libtarn) "$consumer/main.c" \
   $(pkg-config --libs libtarn) -o "$work/pc-consumer"
[ "$(LD_LIBRARY_PATH=$prefix/lib "$work/pc-consumer")" = "route" ]

# CMake consumer
"$cmake" -S "$consumer" -B "$work/cm" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/cm" >/dev/null
[ "$(LD_LIBRARY_PATH=$prefix/lib "$work/cm/consumer")" = "route" ]
echo "install: headers, soname, exports, pkg-config and find_package consumers ok"

#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds and runs a consumer
# project against it through find_package and through pkg-config.
# Usage: check-install.sh BUILD_DIR PREFIX
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "$1")
prefix=$(realpath -m "$2")
rm -rf "$prefix" "$prefix-consumer"
cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig
cmake -S "$root/tests/install" -B "$prefix-consumer" -G Ninja -Wno-dev \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix-consumer" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libzorv2000.so' | head -n 1)")
for exe in consumer_cmake consumer_pkgconfig; do
  out=$(LD_LIBRARY_PATH=$libdir "$prefix-consumer/$exe")
  case "$out" in
    "<MSG><HDR>"*"<TO>MESSAGEBROKER</TO>"*"<DATA>PING</DATA></MSG>"*) ;;
    *) echo "install: $exe printed: $out" >&2; exit 1 ;;
  esac
done
soname=$(objdump -p "$libdir/libzorv2000.so" | awk '/SONAME/ {print $2}')
echo "install: find_package and pkg-config consumers run; SONAME $soname"

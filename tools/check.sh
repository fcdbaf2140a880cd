#!/usr/bin/env bash
# The whole check behind `make check`: installs what is missing, then builds
# and tests the library natively with g++, with clang++, under
# AddressSanitizer + UndefinedBehaviorSanitizer and for 32-bit x86, checks
# the exported symbols, the installed package and the formatting, and gives
# every fuzz target a short run. Stops at the first failure.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=${ZORV_BUILD_ROOT:-$root/build}
jobs=${JOBS:-$(nproc)}
fuzz_seconds=${FUZZ_SMOKE_SECONDS:-10}
start=$(date +%s)

stage() { printf '\n==== %s (%ds)\n' "$*" $(( $(date +%s) - start )); }

configure() {  # dir, extra cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -G Ninja -Wno-dev "$@" >/dev/null
}

run_ctest() {  # dir
  ctest --test-dir "$1" -j "$jobs" --output-on-failure --timeout 300
}

stage "setup"
"$root/tools/setup.sh"

stage "native build (g++)"
configure "$out/native" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$out/native" -j "$jobs"
stage "native tests"
run_ctest "$out/native"

stage "exported symbols"
"$root/tools/check-exports.sh" "$out/native/libzorv2000.so"

stage "install and use as a package"
"$root/tools/check-install.sh" "$out/native" "$out/install"

stage "formatting"
"$root/tools/format.sh" --check

stage "clang build"
CC=clang CXX=clang++ configure "$out/clang" -DCMAKE_BUILD_TYPE=Debug \
  -DZORV_BUILD_BENCH=OFF
cmake --build "$out/clang" -j "$jobs"

stage "AddressSanitizer + UndefinedBehaviorSanitizer build"
configure "$out/asan" -DCMAKE_BUILD_TYPE=Debug -DZORV_ASAN=ON \
  -DZORV_BUILD_BENCH=OFF
cmake --build "$out/asan" -j "$jobs"
stage "AddressSanitizer + UndefinedBehaviorSanitizer tests"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_ctest "$out/asan"

stage "ThreadSanitizer build (threaded units)"
# The units with threads of their own or shared between threads: the mutex
# table, the pipe layer and its read/write thread, the client's waits.
tsan_targets=$(shopt -s nullglob; cd "$root/tests/global" &&
  for f in primitives_test.cpp pipe-lowlevel*_test.cpp client-*_test.cpp; do
    echo "${f%.cpp}"
  done)
configure "$out/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORV_TSAN=ON \
  -DZORV_BUILD_BENCH=OFF -DZORV_BUILD_EXAMPLES=OFF
# shellcheck disable=SC2086
cmake --build "$out/tsan" -j "$jobs" --target $tsan_targets
stage "ThreadSanitizer tests"
TSAN_OPTIONS="halt_on_error=1 suppressions=$root/tsan.supp" \
  ctest --test-dir "$out/tsan" -j "$jobs" --output-on-failure --timeout 300 \
  -L "^($(echo $tsan_targets | tr ' ' '|'))\$"

stage "32-bit x86 build"
configure "$out/m32" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORV_M32=ON \
  -DZORV_BUILD_BENCH=OFF
cmake --build "$out/m32" -j "$jobs"
stage "32-bit x86 tests"
run_ctest "$out/m32"

stage "SCSI layer on real kernel drivers (VM, when qemu is present)"
"$root/tools/check-vm.sh" --if-available

stage "fuzz smoke (${fuzz_seconds}s per target)"
FUZZ_SECONDS=$fuzz_seconds ZORV_BUILD_ROOT=$out "$root/tools/fuzz.sh"

stage "all checks passed"

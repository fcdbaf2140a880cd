#!/usr/bin/env bash
# The SCSI layer against real kernel drivers: builds tests/vm/scsi_vm_probe
# statically from the library's objects, runs it as root in the emulated-
# device VM (sg, sd, sr, st on virtio-scsi, LSI, scsi_debug and USB storage)
# and checks that every line of tests/vm/expected.txt is in its output.
#
#   check-vm.sh                 run (the harness installs qemu and builds its
#                               kernel cache when they are missing)
#   check-vm.sh --if-available  print a skip line and succeed when qemu, the
#                               harness or its kernel cache is missing
#
# Environment: SCSI_VM_HARNESS (default ../shared/tools/scsi-vm/run-in-vm.sh
# beside the tree), SCSI_VM_CACHE as the harness reads it, ZORV_BUILD_ROOT.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=${ZORV_BUILD_ROOT:-$root/build}/vm
harness=${SCSI_VM_HARNESS:-$root/../shared/tools/scsi-vm/run-in-vm.sh}
expected=$root/tests/vm/expected.txt

skip() {
  echo "check-vm: SKIPPED: $*"
  exit 0
}

if [[ ${1:-} == --if-available ]]; then
  [[ -x $harness ]] || skip "no VM harness at $harness"
  command -v qemu-system-x86_64 >/dev/null ||
    skip "qemu-system-x86_64 is not installed (make check-vm installs it)"
  if [[ -n ${SCSI_VM_CACHE:-} ]]; then
    cache=$SCSI_VM_CACHE
  elif [[ -n ${XDG_CACHE_HOME:-} ]]; then
    cache=$XDG_CACHE_HOME/scsi-vm
  else
    cache=/tmp/scsi-vm-cache-$(id -u)
  fi
  compgen -G "$cache/kernel-*" >/dev/null ||
    skip "no VM kernel cache in $cache (make check-vm builds it)"
fi
[[ -x $harness ]] || { echo "check-vm: no VM harness at $harness" >&2; exit 1; }

echo "check-vm: building the probe"
cmake -S "$root" -B "$out" -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZORV_BUILD_TESTS=OFF -DZORV_BUILD_BENCH=OFF -DZORV_BUILD_EXAMPLES=OFF \
  >/dev/null
cmake --build "$out" --target zorv2000_internal >/dev/null
# glibc warns about glob()'s user lookups in a static program; the probe
# never expands "~".
"${CXX:-g++}" -std=c++17 -O2 -Wall -Wextra -Werror -static \
  -I "$root/include" -I "$root" "$root/tests/vm/scsi_vm_probe.cpp" \
  "$out/libzorv2000_internal.a" -pthread -o "$out/scsi_vm_probe" 2>&1 |
  { grep -v 'statically linked\|in function' || true; }

echo "check-vm: booting the VM"
start=$(date +%s)
status=0
"$harness" -t "${SCSI_VM_TIMEOUT:-300}" "$out/scsi_vm_probe" \
  >"$out/probe.out" 2>"$out/probe.err" || status=$?
seconds=$(( $(date +%s) - start ))
if [[ $status -ne 0 ]]; then
  echo "check-vm: FAILED: the VM run ended with status $status" >&2
  tail -n 30 "$out/probe.err" >&2
  exit 1
fi

missing=0
total=0
while IFS= read -r line; do
  [[ -z $line || $line == \#* ]] && continue
  total=$((total + 1))
  if ! grep -qxF -- "$line" "$out/probe.out"; then
    echo "check-vm: missing: $line" >&2
    missing=$((missing + 1))
  fi
done <"$expected"

devices=$(sed -n 's/^scan: count=//p' "$out/probe.out")
if [[ $missing -ne 0 ]]; then
  echo "check-vm: FAILED: $missing of $total expected lines missing;" \
    "output in $out/probe.out" >&2
  exit 1
fi
echo "check-vm: ${devices:-0} devices scanned, $total expected lines" \
  "found, VM run ${seconds}s; output in $out/probe.out"

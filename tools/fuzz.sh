#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS
# (default 60), seeded from fuzz/corpus/<target>. New inputs go to a scratch
# corpus outside the tree; findings (crash-*, leak-*) to build/fuzz-findings.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=${ZORV_BUILD_ROOT:-$root/build}
seconds=${FUZZ_SECONDS:-60}
jobs=${JOBS:-$(nproc)}

CC=clang CXX=clang++ cmake -S "$root" -B "$out/fuzz" -G Ninja -Wno-dev \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORV_FUZZ=ON -DZORV_BUILD_TESTS=OFF \
  -DZORV_BUILD_EXAMPLES=OFF -DZORV_BUILD_BENCH=OFF >/dev/null
cmake --build "$out/fuzz" -j "$jobs"

findings=$out/fuzz-findings
mkdir -p "$findings"
status=0
ran=0
for bin in "$out"/fuzz/fuzz/*_fuzz; do
  [[ -x "$bin" ]] || continue
  name=$(basename "$bin" _fuzz)
  ran=$((ran + 1))
  scratch=$out/fuzz-corpus/$name
  mkdir -p "$scratch"
  seeds=()
  [[ -d "$root/fuzz/corpus/$name" ]] && seeds+=("$root/fuzz/corpus/$name")
  echo "fuzz: $name for ${seconds}s"
  if ! "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$findings/$name-" -print_final_stats=1 \
      "$scratch" "${seeds[@]}" > "$out/fuzz-$name.log" 2>&1; then
    echo "fuzz: $name FAILED, see $out/fuzz-$name.log" >&2
    tail -n 40 "$out/fuzz-$name.log" >&2
    status=1
  else
    grep -E '^stat::number_of_executed_units' "$out/fuzz-$name.log" |
      sed "s/^/fuzz: $name /"
  fi
done
if [[ $ran -eq 0 ]]; then
  echo "fuzz: no fuzz target was built" >&2
  exit 1
fi
exit $status

#!/usr/bin/env bash
# Compares the functions the shared library exports with tools/exports.txt:
# every listed name must be exported under its exact name, and nothing else
# may be (helpers stay hidden). Usage: check-exports.sh libzorv2000.so
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
lib=$1
expected=$(grep -v '^#' "$root/tools/exports.txt" | sort -u)
actual=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TW]$/ {print $3}' |
         grep -v '^_init$\|^_fini$' | sort -u)
missing=$(comm -23 <(echo "$expected") <(echo "$actual"))
extra=$(comm -13 <(echo "$expected") <(echo "$actual"))
status=0
if [[ -n "$missing" ]]; then
  echo "exports: missing from $lib:"; echo "$missing" | sed 's/^/  /'
  status=1
fi
if [[ -n "$extra" ]]; then
  echo "exports: exported but not listed in tools/exports.txt:"
  echo "$extra" | sed 's/^/  /'
  status=1
fi
[[ $status -eq 0 ]] && echo "exports: $(echo "$expected" | wc -l) functions, all present, nothing extra"
exit $status

#!/usr/bin/env bash
# Formats the project's C and C++ sources with clang-format, or with --check
# reports files that differ and fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
mapfile -t files < <(git ls-files -co --exclude-standard -- \
  '*.c' '*.cpp' '*.h' '*.hpp' | grep -v '^build' || true)
[[ ${#files[@]} -gt 0 ]] || exit 0
if [[ "${1:-}" == "--check" ]]; then
  bad=0
  for f in "${files[@]}"; do
    [[ -f "$f" ]] || continue
    if ! clang-format --style=file "$f" | cmp -s - "$f"; then
      echo "format: $f differs (run tools/format.sh)"
      bad=1
    fi
  done
  exit $bad
fi
clang-format --style=file -i "${files[@]}"

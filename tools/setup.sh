#!/usr/bin/env bash
# Installs what the build and the checks need on Debian 12. As root it runs
# apt-get; otherwise it prints the exact apt-get line and fails.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev clang-format
  g++-multilib
  googletest libgtest-dev libgmock-dev libbenchmark-dev
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi

line="apt-get install -y --no-install-recommends ${missing[*]}"
if [[ $(id -u) -ne 0 ]]; then
  echo "setup: missing packages. Run as root:" >&2
  echo "  apt-get update && $line" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends ${missing[*]}

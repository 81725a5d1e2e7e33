#!/usr/bin/env bash
# Installs the Debian packages this project builds, tests and runs with.
# Idempotent: prints nothing and touches nothing when every package is present.
# Usage: scripts/install-deps.sh [extra-package ...]
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  android-liblog-dev android-libbase-dev
  libkissfft-dev libfftw3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libsndfile1-dev nlohmann-json3-dev libcli11-dev gnuplot-nox libxml2-utils
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -ne 0 ]]; then
  if command -v sudo >/dev/null; then SUDO=sudo; else
    echo "install-deps: missing packages (${missing[*]}); run as root" >&2; exit 1
  fi
else
  SUDO=
fi
echo "install-deps: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

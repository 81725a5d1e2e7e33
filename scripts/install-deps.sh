#!/usr/bin/env bash
# Installs the Debian packages this project builds, tests and runs with, then the npm packages of
# package-lock.json (the studio page's plotting library) into node_modules/ with `npm ci`.
# Idempotent: prints nothing and touches nothing when every package is present.
# Usage: scripts/install-deps.sh [extra-package ...]
set -euo pipefail

packages=(
  build-essential clang cmake ninja-build pkg-config
  android-liblog-dev android-libbase-dev
  libkissfft-dev libfftw3-dev
  chromium chromium-driver python3-selenium
  libgtest-dev libgmock-dev libbenchmark-dev
  libsndfile1-dev libsoxr-dev nlohmann-json3-dev libcli11-dev gnuplot-nox libxml2-utils time
  libcpp-httplib-dev
  "$@"
)
# npm comes with Node.js from some sources; Debian packages it on its own.
command -v npm >/dev/null || packages+=(nodejs npm)

# A package counts as present when it is installed for the architecture asked for: the one in
# its name (name:arm64), else this machine's own or "all". Multiarch packages may be installed
# for several architectures at once, so dpkg-query can answer with several lines.
native=$(dpkg --print-architecture)
installed() {
  local name=${1%%:*} arch=${1#*:} a b c pkg_arch
  [[ "$arch" == "$1" ]] && arch=
  while read -r a b c pkg_arch; do
    [[ "$a $b $c" == "install ok installed" ]] || continue
    if [[ -n "$arch" ]]; then
      [[ "$pkg_arch" == "$arch" ]] && return 0
    elif [[ "$pkg_arch" == "$native" || "$pkg_arch" == all ]]; then
      return 0
    fi
  done < <(dpkg-query -W -f='${Status} ${Architecture}\n' "$name" 2>/dev/null || true)
  return 1
}
missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done

# The npm packages, once for each version of the lockfile.
npm_packages() {
  local root stamp
  root=$(cd "$(dirname "$0")/.." && pwd)
  stamp=$root/node_modules/.package-lock.json
  [[ -f "$stamp" && ! "$root/package-lock.json" -nt "$stamp" ]] && return 0
  echo "install-deps: installing the npm packages of package-lock.json" >&2
  (cd "$root" && npm ci --no-audit --no-fund --loglevel=error >/dev/null)
}

if [[ ${#missing[@]} -eq 0 ]]; then
  npm_packages
  exit
fi

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
npm_packages

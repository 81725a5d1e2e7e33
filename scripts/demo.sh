#!/usr/bin/env bash
# The first command: installs the Debian packages, builds the effect library and the sorn-hp
# tool in build/, then runs the demo (a synthesized program through the real library with the
# built-in tuning) into out/demo and prints its report.
# Usage: scripts/demo.sh [DIR]   (default out/demo; an earlier demo there is replaced)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)" --target sorn-hp >/dev/null

dir="${1:-out/demo}"
build/tools/sorn-hp demo "$dir" -y
echo
echo "Listen to $dir/program.wav and $dir/processed.wav; the response is in $dir/response.png."
echo "Next: build/tools/sorn-hp --help"

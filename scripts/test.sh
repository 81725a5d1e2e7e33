#!/usr/bin/env bash
# Sets up everything and runs the whole test suite: installs the Debian packages, builds the
# library, tests, benchmarks and tools, runs the FFT filter tests and the output checksum on the
# FFTW backend too, then the full suite. CI=true turns warnings into errors.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

werror=OFF
[[ "${CI:-}" == "true" ]] && werror=ON
jobs=$(nproc)

cmake -S . -B build-fftw -G Ninja -DSORN_FFT_BACKEND=fftw -DSORN_WERROR=$werror \
      -DSORN_BUILD_BENCH=OFF -DSORN_BUILD_TOOLS=OFF >/dev/null
fft_tests=$(cd tests && ls test_fir*.cpp test_ne10*.cpp test_output_checksum.cpp 2>/dev/null | sed 's/\.cpp$//' | tr '\n' ' ')
cmake --build build-fftw -j "$jobs" --target sorn_hp_sfx_aw $fft_tests
ctest --test-dir build-fftw -L fft --output-on-failure -j "$jobs"

cmake -S . -B build -G Ninja -DSORN_WERROR=$werror >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

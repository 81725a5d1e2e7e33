#!/usr/bin/env bash
# Cross-builds the library and the whole test suite for arm64 Linux (Debian's
# g++-aarch64-linux-gnu with the arm64 versions of the dependencies through multiarch) and runs
# the suite under qemu-user, then the FFT filter tests and the output checksum on the FFTW
# backend too (only the library and those tests are built there). Float-to-int conversion, NaN
# handling and char signedness differ between x86-64 and arm64; this run is what catches code
# that depends on either.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "test-arm64: enabling the arm64 architecture for multiarch packages" >&2
  ${SUDO:-} dpkg --add-architecture arm64
  ${SUDO:-} apt-get update -qq >/dev/null
fi
scripts/install-deps.sh g++-aarch64-linux-gnu qemu-user \
  libc6:arm64 libstdc++6:arm64 android-liblog-dev:arm64 android-libbase-dev:arm64 \
  libkissfft-dev:arm64 libfftw3-dev:arm64 libgtest-dev:arm64 libsndfile1-dev:arm64 libsoxr-dev:arm64 \
  libcpp-httplib-dev:arm64

werror=OFF
[[ "${CI:-}" == "true" ]] && werror=ON
jobs=$(nproc)

cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
      -DSORN_WERROR=$werror -DSORN_BUILD_BENCH=OFF >/dev/null
cmake --build build-arm64 -j "$jobs"
ctest --test-dir build-arm64 --output-on-failure -j "$jobs"

cmake -S . -B build-arm64-fftw -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
      -DSORN_FFT_BACKEND=fftw -DSORN_WERROR=$werror -DSORN_BUILD_BENCH=OFF -DSORN_BUILD_TOOLS=OFF >/dev/null
fft_tests=$(cd tests && ls test_fir*.cpp test_ne10*.cpp test_output_checksum.cpp 2>/dev/null | sed 's/\.cpp$//' | tr '\n' ' ')
cmake --build build-arm64-fftw -j "$jobs" --target sorn_hp_sfx_aw $fft_tests
ctest --test-dir build-arm64-fftw -L fft --output-on-failure -j "$jobs"

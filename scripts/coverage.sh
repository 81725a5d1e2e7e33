#!/usr/bin/env bash
# Measures what the test suite reaches and how large it is against the code:
#   1. line coverage of the library (effect/, wrapper/, design/, dsp/, platform/),
#   2. line coverage of the host tool (tools/),
#   3. the test/code balance: non-blank, non-comment lines of C/C++ in tests/ and fuzz/ against
#      those of everything else less bench/ and generated tables (files tracked by git).
# Coverage comes from a Debug build with --coverage in build-coverage/ (g++ and its gcov) and
# one run of the whole ctest suite; lcov is installed when missing.
# Usage: scripts/coverage.sh            (JOBS=n to change the parallelism, default nproc)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
scripts/install-deps.sh lcov

jobs=${JOBS:-$(nproc)}
build=build-coverage

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
      -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ \
      -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
      -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
      -DSORN_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$jobs"

# Counters of an earlier run would add up with this one.
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j "$jobs" --output-on-failure

info=$build/coverage.info
lcov --quiet --capture --directory "$build" --base-directory "$root" --output-file "$info" \
     --rc lcov_branch_coverage=0 2>"$build/lcov.log" ||
  { cat "$build/lcov.log" >&2; exit 1; }
lcov --quiet --extract "$info" \
     "$root/effect/*" "$root/wrapper/*" "$root/design/*" "$root/dsp/*" "$root/platform/*" \
     --output-file "$build/library.info" >/dev/null
lcov --quiet --extract "$info" "$root/tools/*" --output-file "$build/tool.info" >/dev/null

# Lines found (LF) and hit (LH) summed over the files of a trace.
line_coverage() {
  awk -F: '/^LF:/ { found += $2 } /^LH:/ { hit += $2 }
           END { if (found == 0) { print "no lines"; exit }
                 printf "%.1f %% (%d of %d lines)\n", 100 * hit / found, hit, found }' "$1"
}

count_lines() { xargs cat | grep -cvE '^\s*(//.*)?$'; }
tests=$(git ls-files | grep -E '^(tests?|fuzz)/' | grep -E '\.(c|cc|cpp|h|hpp)$' | count_lines)
code=$(git ls-files | grep -vE '^(tests?|fuzz|bench)/' | grep -E '\.(c|cc|cpp|h|hpp)$' |
       grep -v -i 'generated\|_table\.' | count_lines)

echo
echo "library line coverage: $(line_coverage "$build/library.info")"
echo "tool line coverage:    $(line_coverage "$build/tool.info")"
awk -v t="$tests" -v c="$code" \
  'BEGIN { printf "tests/code balance:    %.1f %% (%d test lines against %d code lines)\n", 100 * t / c, t, c }'
echo "(per-file detail: lcov --list $build/library.info, or genhtml $build/library.info -o <folder>)"

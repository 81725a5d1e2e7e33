#!/usr/bin/env bash
# Hardening run, in five steps:
#   asan      the whole test suite and a short soak under AddressSanitizer +
#             UndefinedBehaviorSanitizer (g++, build-asan), leak checking included
#   tsan      the thread tests under ThreadSanitizer (build-tsan)
#   valgrind  every test executable and the fuzz replays under valgrind memcheck, no errors and
#             no leaks (the ordinary build folder `build`, configured as scripts/test.sh does)
#   fuzz      each libFuzzer target (clang, ASan + UBSan, build-fuzz): first the inputs of past
#             crashes in fuzz/regressions, then FUZZ_SECONDS of fuzzing from the seed corpus
#   soak      SOAK_SECONDS of 48 kHz audio through two instances (build)
# Environment: FUZZ_SECONDS (default 60 per target), SOAK_SECONDS (default 3600),
# HARDENING_STEPS (default "asan tsan valgrind fuzz soak"), JOBS (default nproc), CI=true makes
# warnings errors in the ordinary build as in scripts/test.sh.
# Exits non-zero if any step fails; the last line is a one-line summary.
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh clang libclang-rt-14-dev valgrind || exit 1

FUZZ_SECONDS=${FUZZ_SECONDS:-60}
SOAK_SECONDS=${SOAK_SECONDS:-3600}
STEPS=${HARDENING_STEPS:-asan tsan valgrind fuzz soak}
JOBS=${JOBS:-$(nproc)}
werror=OFF
[[ "${CI:-}" == "true" ]] && werror=ON

summary=()
failed=0
log() { echo "hardening: $*" >&2; }
wants() { [[ " $STEPS " == *" $1 "* ]]; }
# Runs one step, timing it; "$1" is its name for the summary.
step() {
    local name=$1 start=$SECONDS
    shift
    log "--- $name"
    if "$@"; then
        summary+=("$name ok ($((SECONDS - start)) s${note:+, $note})")
    else
        summary+=("$name FAILED")
        failed=1
    fi
    note=
}
note=

export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

run_asan() {
    cmake -S . -B build-asan -G Ninja -DSORN_SANITIZE=address,undefined,float-cast-overflow \
          -DSORN_BUILD_BENCH=OFF \
          >/dev/null || return 1
    cmake --build build-asan -j "$JOBS" || return 1
    local out
    out=$(ctest --test-dir build-asan --output-on-failure -j "$JOBS" 2>&1)
    local rc=$?
    echo "$out" | tail -n 25 >&2
    note=$(echo "$out" | grep -Eo '[0-9]+ tests failed out of [0-9]+' | sed -E 's/^0 tests failed out of ([0-9]+)/\1 tests/')
    [[ $rc -eq 0 ]] || return $rc
    # Ten minutes of audio through the soak's random sessions, under the same sanitizers.
    build-asan/fuzz/sorn_soak --seconds 600 --seed 7 2>&1 | grep '^soak:' >&2
    [[ ${PIPESTATUS[0]} -eq 0 ]] || return 1
    note+=", soak 600 s"
}

run_tsan() {
    cmake -S . -B build-tsan -G Ninja -DSORN_SANITIZE=thread -DSORN_BUILD_BENCH=OFF \
          -DSORN_BUILD_TOOLS=OFF >/dev/null || return 1
    cmake --build build-tsan -j "$JOBS" --target test_threads || return 1
    build-tsan/test_threads
}

ordinary_build() {
    cmake -S . -B build -G Ninja -DSORN_WERROR=$werror >/dev/null && cmake --build build -j "$JOBS"
}

# valgrind over every gtest executable (all its cases in one process) and every fuzz replay
# with its inputs. Nothing is skipped: everything in the suite runs under valgrind.
# nouserintercepts: the tests' own allocation hooks (counting, failure injection) stay in place
# and forward to the C library's allocator, which valgrind still tracks.
run_valgrind() {
    ordinary_build || return 1
    local vg="valgrind -q --error-exitcode=99 --leak-check=full --track-origins=yes"
    vg+=" --errors-for-leak-kinds=definite,indirect,possible"
    vg+=" --show-leak-kinds=definite,indirect,possible --soname-synonyms=somalloc=nouserintercepts"
    # The executables of the current sources (a folder may still hold those of removed ones).
    local cmds=() src name
    for src in tests/test_*.cpp; do
        name=$(basename "$src" .cpp)
        [[ -x build/$name ]] && cmds+=("$vg build/$name --gtest_brief=1")
    done
    for src in fuzz/fuzz_*.cpp; do
        name=$(basename "$src" .cpp)
        name=${name#fuzz_}
        [[ -x build/fuzz/replay_$name ]] || continue
        cmds+=("$vg build/fuzz/replay_$name fuzz/corpus/$name $( [[ -d fuzz/regressions/$name ]] && echo fuzz/regressions/$name)")
    done
    mkdir -p build/valgrind
    rm -f build/valgrind/*.log
    local i=0 c
    for c in "${cmds[@]}"; do
        i=$((i + 1))
        printf '%s\0' "$c > build/valgrind/$i.log 2>&1 || { echo \"valgrind: FAILED: $c\" >&2; tail -n 40 build/valgrind/$i.log >&2; exit 1; }"
    done | xargs -0 -P "$JOBS" -I{} bash -c {}
    local rc=$?
    note="${#cmds[@]} executables"
    return $rc
}

fuzz_runs=()
run_fuzz() {
    CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DSORN_FUZZ=ON \
        -DSORN_SANITIZE=address,undefined >/dev/null || return 1
    cmake --build build-fuzz -j "$JOBS" --target fuzz_framework fuzz_params fuzz_process_float fuzz_studio || return 1
    local rc=0 name exe reg dict out runs
    for name in framework params process_float studio; do
        exe=build-fuzz/fuzz/fuzz_$name
        reg=(fuzz/regressions/$name/*)
        if [[ -e "${reg[0]}" ]]; then
            log "fuzz_$name: replaying ${#reg[@]} past crash inputs"
            "$exe" "${reg[@]}" >/dev/null 2>build-fuzz/fuzz_$name.regressions.log || {
                tail -n 40 build-fuzz/fuzz_$name.regressions.log >&2; rc=1; continue; }
        fi
        [[ "$FUZZ_SECONDS" -gt 0 ]] || continue
        dict=()
        [[ -f fuzz/$name.dict ]] && dict=(-dict=fuzz/$name.dict)
        mkdir -p build-fuzz/corpus/$name build-fuzz/artifacts
        out=build-fuzz/fuzz_$name.log
        if ! "$exe" build-fuzz/corpus/$name fuzz/corpus/$name "${dict[@]}" \
                -max_total_time="$FUZZ_SECONDS" -timeout=30 -close_fd_mask=1 -print_final_stats=1 \
                -artifact_prefix=build-fuzz/artifacts/$name- >"$out" 2>&1; then
            tail -n 60 "$out" >&2
            log "fuzz_$name found a failure: add the input from build-fuzz/artifacts to fuzz/regressions/$name"
            rc=1
        fi
        runs=$(grep -Eo 'stat::number_of_executed_units: [0-9]+' "$out" | grep -Eo '[0-9]+$')
        fuzz_runs+=("$name ${runs:-0} runs")
        log "fuzz_$name: ${runs:-0} runs in $FUZZ_SECONDS s"
    done
    note=$(printf '%s, ' "${fuzz_runs[@]}")
    note=${note%, }
    return $rc
}

run_soak() {
    ordinary_build || return 1
    local out start=$SECONDS
    out=$(build/fuzz/sorn_soak --seconds "$SOAK_SECONDS" 2>&1)
    local rc=$?
    echo "$out" | grep '^soak:' >&2
    note="$SOAK_SECONDS s of audio in $((SECONDS - start)) s"
    return $rc
}

wants asan && step asan+ubsan run_asan
wants tsan && step tsan run_tsan
wants valgrind && step valgrind run_valgrind
wants fuzz && step fuzz run_fuzz
wants soak && step soak run_soak

line=$(printf '%s; ' "${summary[@]}")
line=${line%; }
if [[ $failed -eq 0 ]]; then
    echo "hardening: PASS in $SECONDS s: $line"
else
    echo "hardening: FAIL in $SECONDS s: $line"
fi
exit $failed

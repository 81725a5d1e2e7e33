#!/usr/bin/env bash
# Memory and throughput of `sorn-hp run` on long files: generates stereo 48 kHz float WAVs of
# 2 and 20 minutes (tone plus noise, loud enough that the effect processes), runs the tool on each
# under /usr/bin/time -v and prints the maximum resident set size, the wall and CPU time and the
# throughput (seconds of audio per CPU second). Checks that every peak stays at most 64 MB and that
# the longest file's is within 10 % of the shortest's. With BASELINE=path/to/another/sorn-hp it
# measures that tool on the same files too and prints the throughput ratio (CPU time: the machine
# is shared, and CPU time is the steadier figure). Exit status 1 when a check fails.
#
# Usage: bench/bench_run_memory.sh [BUILD_DIR]   (default: build)
#   MINUTES="2 20"  lengths to measure
#   WORK=/tmp/sorn-hp-bench  where the files go (about 0.5 GB; kept for the next run)
set -euo pipefail

build=${1:-build}
tool=${SORN_HP:-$build/tools/sorn-hp}
lib=${SORN_HP_LIB:-$build/libsorn_hp_sfx_aw.so}
work=${WORK:-/tmp/sorn-hp-bench}
minutes=${MINUTES:-2 20}
[[ -x /usr/bin/time ]] || { echo "bench_run_memory: needs /usr/bin/time (Debian package time)" >&2; exit 1; }
[[ -x $tool ]] || { echo "bench_run_memory: no tool at $tool; build first" >&2; exit 1; }
mkdir -p "$work"
calc() { awk "BEGIN { print $* }"; }

# A 48 kHz stereo float WAV of $1 minutes to $2: 10 s of tones and noise, repeated.
generate() {
  [[ -x $work/generate ]] || c++ -O2 -std=c++17 -x c++ -o "$work/generate" - <<'CPP'
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>
int main(int, char **argv) {
    const uint32_t rate = 48000, period = 10 * rate;
    const uint64_t frames = uint64_t(std::atof(argv[1]) * 60 * rate), data = frames * 8;
    std::vector<float> block(2 * period);
    std::mt19937 rng(7);
    std::normal_distribution<float> noise(0.0f, 0.05f);
    for (uint32_t k = 0; k < period; ++k) {
        block[2 * k] = 0.25f * float(std::sin(2 * M_PI * 110 * k / rate)) + noise(rng);
        block[2 * k + 1] = 0.25f * float(std::sin(2 * M_PI * 331 * k / rate)) + noise(rng);
    }
    FILE *f = std::fopen(argv[2], "wb");
    if (!f) return 1;
    auto u32 = [&](uint32_t v) { std::fwrite(&v, 4, 1, f); };
    auto u16 = [&](uint16_t v) { std::fwrite(&v, 2, 1, f); };
    std::fwrite("RIFF", 1, 4, f), u32(uint32_t(4 + 26 + 12 + 8 + data)), std::fwrite("WAVEfmt ", 1, 8, f);
    u32(18), u16(3), u16(2), u32(rate), u32(rate * 8), u16(8), u16(32), u16(0);
    std::fwrite("fact", 1, 4, f), u32(4), u32(uint32_t(frames)), std::fwrite("data", 1, 4, f), u32(uint32_t(data));
    for (uint64_t left = frames; left > 0;) {
        const uint64_t n = left < period ? left : period;
        std::fwrite(block.data(), 8, n, f);
        left -= n;
    }
    return std::fclose(f) == 0 ? 0 : 1;
}
CPP
  "$work/generate" "$1" "$2"
}

# Runs $1 (a sorn-hp) on $2; prints "rss_kb wall_s cpu_s".
measure() {
  local log=$work/time.log
  /usr/bin/time -v "$1" --lib "$lib" -q -y run "$2" "$work/out.wav" 2>"$log"
  local rss wall user sys
  rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$log")
  wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s}' "$log")
  user=$(awk -F': ' '/User time/ {print $2}' "$log")
  sys=$(awk -F': ' '/System time/ {print $2}' "$log")
  echo "$rss $wall $(calc "$user + $sys")"
}

printf '%-9s %-8s %10s %9s %9s %12s\n' tool minutes "max RSS MB" "wall s" "CPU s" "x real time"
declare -A rss_of cpu_of base_cpu_of
for m in $minutes; do
  file=$work/in-${m}min.wav
  [[ -f $file ]] || generate "$m" "$file"
  for which in tool ${BASELINE:+baseline}; do
    exe=$tool; [[ $which == baseline ]] && exe=$BASELINE
    read -r rss wall cpu < <(measure "$exe" "$file")
    printf '%-9s %-8s %10.1f %9.2f %9.2f %12.1f\n' "$which" "$m" "$(calc "$rss / 1024")" "$wall" "$cpu" \
      "$(calc "$m * 60 / $cpu")"
    if [[ $which == tool ]]; then rss_of[$m]=$rss; cpu_of[$m]=$cpu; else base_cpu_of[$m]=$cpu; fi
  done
done
rm -f "$work/out.wav" "$work/time.log"

status=0
set -- $minutes
lo=${rss_of[$1]} hi=${rss_of[${!#}]}
for m in $minutes; do
  if (( rss_of[$m] > 64 * 1024 )); then echo "FAIL: $m minutes: ${rss_of[$m]} kB is above 64 MB"; status=1; fi
  if [[ -n ${base_cpu_of[$m]:-} ]]; then
    printf 'throughput against the baseline, %s minutes: %.1f %%\n' "$m" "$(calc "100 * ${base_cpu_of[$m]} / ${cpu_of[$m]}")"
  fi
done
spread=$(calc "100 * ($hi - $lo) / $lo")
printf 'peak memory, longest against shortest: %+.1f %%\n' "$spread"
if (( $(calc "(${spread#-} > 10)") )); then echo "FAIL: the peaks differ by more than 10 %"; status=1; fi
exit $status

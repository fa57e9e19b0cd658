#!/usr/bin/env bash
# Runs every benchmark on one build, one after the other, so that their
# figures come from the same machine and the same moment: each shell
# benchmark in bench/ (extraction, the check and verification, upgrades
# from a web server, start-up, and any other *_bench.sh), then the timing
# programs with their default rounds.
# Prints the machine first; every figure after it is a same-run ratio.
#
#   bench/run_all.sh [build-dir] [runs]
#
# The build must be a Release one with the timing programs:
#   cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DTSAPP_BUILD_BENCH=ON
#   cmake --build build-release -j2
set -euo pipefail
build=${1:-build-release}
runs=${2:-7}
here=$(cd "$(dirname "$0")" && pwd)

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')," \
  "$(awk '/MemTotal/ {printf "%d MB", $2 / 1024}' /proc/meminfo); $(uname -sr)"
echo "build: $build;$(uptime | sed 's/.*load/ load/')"
for script in "$here"/*_bench.sh; do
  echo
  rounds=$runs
  # A round of the upgrade benchmark installs four 200 MB apps from a web
  # server; three rounds make its medians.
  [[ $(basename "$script") == ranged_bench.sh ]] && ((rounds > 3)) && rounds=3
  echo "== $(basename "$script") $build $rounds"
  bash "$script" "$build" "$rounds"
done
TZ=UTC
export TZ
for program in bench_isappfile bench_getappinfo bench_serializer; do
  echo
  echo "== $program"
  if [[ ! -x $build/bench/$program ]]; then
    echo "skipped: not built (configure with -DTSAPP_BUILD_BENCH=ON)"
    continue
  fi
  "$build/bench/$program"
done

#!/bin/bash
# Builds the libFuzzer harnesses with clang 14 and runs one of them.
#
#   scripts/fuzz.sh <package|manifest|names> [seconds] [extra libFuzzer flags]
#
# Installs clang-14 and its runtime (libclang-rt-14-dev) with apt when they
# are missing. New inputs go to build-fuzz/corpus-<name>/ (the seeds in
# fuzz/corpus/<name>/ are read, never written); crashes land in
# build-fuzz/crashes-<name>/ and belong in fuzz/regressions/<name>/ once
# fixed. One job only: the build machine has two shared cores.
set -euo pipefail

name=${1:?usage: scripts/fuzz.sh <package|manifest|names> [seconds] [flags...]}
seconds=${2:-600}
shift $(($# >= 2 ? 2 : 1))
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-fuzz

if ! command -v clang++-14 >/dev/null ||
   ! ls /usr/lib/llvm-14/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
    apt-get update
    apt-get install -y --no-install-recommends clang-14 libclang-rt-14-dev
fi

CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$build" -DTSAPP_BUILD_FUZZ=ON \
    -DTSAPP_BUILD_TESTS=OFF -DTSAPP_BUILD_TOOLS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" --target "fuzz_$name" -j2

corpus=$build/corpus-$name
crashes=$build/crashes-$name
mkdir -p "$corpus" "$crashes"
cd "$build"
# Undefined behaviour is reported once and the run goes on unless told to
# stop: a finding must end the run and leave its input behind.
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
exec "$build/fuzz/fuzz_$name" "$corpus" "$root/fuzz/corpus/$name" \
    -dict="$root/fuzz/dict/$name.dict" -max_total_time="$seconds" \
    -artifact_prefix="$crashes/" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 "$@"

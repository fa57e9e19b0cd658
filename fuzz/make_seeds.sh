#!/bin/bash
# Rebuilds the seed corpora in fuzz/corpus/ with the library's own writers.
# Usage: fuzz/make_seeds.sh [build folder]   (default: build)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
cmake --build "$build" --target tsapp_make_seeds -j2
# The manifest's creation time is written in UTC from local time: fix the
# zone so that the seeds come out the same everywhere.
TZ=UTC "$build/fuzz/tsapp_make_seeds" "$root/fuzz/corpus"
du -sh "$root/fuzz/corpus"

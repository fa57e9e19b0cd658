#!/usr/bin/env bash
# Sets up, builds and runs every test: once plain (warnings as errors), then
# the Debian packages (scripts/packaging-test.sh), once under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the concurrency tests
# once more under ThreadSanitizer (with the test that hashes on a second
# thread while extracting).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
jobs=$(nproc)

run_suite() {
  local dir=$1 filter=$2
  shift 2
  cmake -S . -B "$dir" -DTSAPP_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --no-tests=error ${filter:+-R "$filter"}
}

echo "== plain build =="
run_suite build ""
echo "== Debian packages =="
bash scripts/packaging-test.sh
echo "== AddressSanitizer + UndefinedBehaviorSanitizer =="
ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build-asan "" -DTSAPP_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
if [ -n "${TSAPP_TSAN_FILTER:-Concurren|Tampering}" ]; then
  echo "== ThreadSanitizer (concurrency tests) =="
  TSAN_OPTIONS=halt_on_error=1 run_suite build-tsan "${TSAPP_TSAN_FILTER:-Concurren|Tampering}" -DTSAPP_TSAN=ON
fi

#!/usr/bin/env bash
# Times `tsapp check` (every entry decoded, sizes and CRC-32s checked, the
# manifest and the listing checked) against `unzip -tq` (the same decoding
# and CRC test, nothing else) on the same package in the same run.
#
#   bench/check_bench.sh [build-dir] [runs]
#
# Prints the median wall time of each and the ratio; the machine may be
# shared, so the ratio is the figure to compare.
set -euo pipefail
build=${1:-build-release}
runs=${2:-5}
here=$(cd "$(dirname "$0")" && pwd)
tsapp=$build/tools/tsapp
work=$(mktemp -d /dev/shm/tsapp-check-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT

pkg=$work/big.tsappinstall
python3 "$here/make_big_package.py" "$pkg"
echo "package: $(du -m "$pkg" | cut -f1) MB, $(unzip -Z1 "$pkg" | wc -l) entries"
# The package has no manifest, so check's verdict is that fault; it still
# decodes every entry first, which is what is timed here.
"$tsapp" check -j 1 "$pkg" | head -1 || true

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
declare -A med
for tool in tsapp unzip; do
  times=()
  for ((r = 0; r < runs; r++)); do
    if [[ $tool == tsapp ]]; then
      /usr/bin/time -f %e -o "$work/time" "$tsapp" check -j 1 "$pkg" >/dev/null || true
    else
      /usr/bin/time -f %e -o "$work/time" unzip -tq "$pkg" >/dev/null
    fi
    times+=("$(tail -1 "$work/time")")  # after time's note of a non-zero status
  done
  med[$tool]=$(printf '%s\n' "${times[@]}" | median)
done
printf '%-6s %10s\n' tool "median s"
for tool in tsapp unzip; do printf '%-6s %10s\n' "$tool" "${med[$tool]}"; done
awk -v a="${med[tsapp]}" -v b="${med[unzip]}" 'BEGIN {printf "check / unzip -tq: %.2fx\n", a / b}'

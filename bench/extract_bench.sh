#!/usr/bin/env bash
# Times whole-package extraction against the archive tools people use, on
# the same package in the same run, into fresh folders on /dev/shm (or in
# $TSAPP_BENCH_DIR: fsync costs nothing on tmpfs, so `tsapp extract --sync`
# only shows its price on a disk).
#
#   bench/extract_bench.sh [build-dir] [runs]
#
# Prints the median wall time, the ratio to bsdtar and the peak resident
# memory of each tool, and checks that all of them wrote the same files.
set -euo pipefail
build=${1:-build-release}
runs=${2:-5}
here=$(cd "$(dirname "$0")" && pwd)
tsapp=$build/tools/tsapp
work=$(mktemp -d "${TSAPP_BENCH_DIR:-/dev/shm}/tsapp-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

pkg=$work/big.tsappinstall
python3 "$here/make_big_package.py" "$pkg"
echo "package: $(du -m "$pkg" | cut -f1) MB, $(unzip -Z1 "$pkg" | wc -l) entries"

declare -A cmd=(
  [tsapp]="$tsapp extract $pkg OUT"
  [sync]="$tsapp extract --sync $pkg OUT"
  [bsdtar]="bsdtar -xf $pkg -C OUT"
  [unzip]="unzip -q $pkg -d OUT"
  [python]="python3 -m zipfile -e $pkg OUT"
)
order=(tsapp sync bsdtar unzip python)

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

declare -A med mem
for tool in "${order[@]}"; do
  times=()
  peak=0
  for ((r = 0; r < runs; r++)); do
    out=$work/out-$tool
    rm -rf "$out" && mkdir -p "$out"
    line=${cmd[$tool]//OUT/$out}
    /usr/bin/time -f "%e %M" -o "$work/time" $line
    read -r secs kb <"$work/time"
    times+=("$secs")
    ((kb > peak)) && peak=$kb
  done
  med[$tool]=$(printf '%s\n' "${times[@]}" | median)
  mem[$tool]=$peak
done

rm -f "$work/out-"{bsdtar,unzip,python}"/[Content_Types].xml"
for tool in sync bsdtar unzip python; do
  diff -r "$work/out-tsapp" "$work/out-$tool" >/dev/null || { echo "output of $tool differs" >&2; exit 1; }
done
echo "all outputs identical"
printf '%-8s %10s %12s %12s\n' tool "median s" "vs bsdtar" "peak RSS MB"
for tool in "${order[@]}"; do
  printf '%-8s %10s %12s %12s\n' "$tool" "${med[$tool]}" \
    "$(awk -v a="${med[$tool]}" -v b="${med[bsdtar]}" 'BEGIN {printf "%.2fx", a / b}')" \
    "$((mem[$tool] / 1024))"
done

#!/usr/bin/env bash
# Times whole-package extraction against the archive tools people use and
# against the floor (bench_inflate_floor: read, inflate, CRC and write every
# entry, nothing else), on the same packages in the same run, into fresh
# folders on /dev/shm (or $TSAPP_BENCH_DIR). Two packages of 200 MB in
# 2,000 parts: the mixed one, and one where a single text part holds 50 MB.
# Then the peak memory of extracting a package whose one part is 1 GiB.
# tsapp runs plain, with --sync, and with --verify (every part hashed
# against the package's digest list while it is written).
#
#   bench/extract_bench.sh [build-dir] [runs]
#
# Prints the median wall time of each tool, its ratio to bsdtar and to the
# floor, its median CPU time (user + system: steadier than wall time when
# other work shares the machine) and its peak resident memory; checks that
# all tools wrote the same files.
set -euo pipefail
build=${1:-build-release}
runs=${2:-5}
here=$(cd "$(dirname "$0")" && pwd)
tsapp=$build/tools/tsapp
floor=$build/bench/bench_inflate_floor
# fsync costs nothing on tmpfs: set TSAPP_BENCH_DIR to a disk folder to see
# what `tsapp extract --sync` costs.
work=$(mktemp -d "${TSAPP_BENCH_DIR:-/dev/shm}/tsapp-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2fx", a / b}'; }

# time_tool NAME COMMAND...: runs the command (OUT stands for a fresh
# folder) $runs times; sets med[NAME], cpu[NAME] and mem[NAME] (peak KB).
declare -A med cpu mem
time_tool() {
  local tool=$1 times=() cpus=() peak=0 secs kb user sys
  shift
  for ((r = 0; r < runs; r++)); do
    out=$work/out-$tool
    rm -rf "$out" && mkdir -p "$out"
    /usr/bin/time -f "%e %M %U %S" -o "$work/time" "${@//OUT/$out}"
    read -r secs kb user sys <"$work/time"
    times+=("$secs")
    cpus+=("$(awk -v u="$user" -v s="$sys" 'BEGIN {print u + s}')")
    ((kb > peak)) && peak=$kb
  done
  med[$tool]=$(printf '%s\n' "${times[@]}" | median)
  cpu[$tool]=$(printf '%s\n' "${cpus[@]}" | median)
  mem[$tool]=$peak
}

bench_package() {
  local pkg=$1 tool
  echo
  local largest
  largest=$(python3 -c 'import sys, zipfile; print(max(i.file_size for i in zipfile.ZipFile(sys.argv[1]).infolist()) >> 20)' "$pkg")
  echo "package: $(du -m "$pkg" | cut -f1) MB, $(unzip -Z1 "$pkg" | wc -l) entries, largest part $largest MB;$(uptime | sed 's/.*load/ load/')"
  time_tool tsapp "$tsapp" extract "$pkg" OUT
  time_tool sync "$tsapp" extract --sync "$pkg" OUT
  time_tool verify "$tsapp" extract --verify --allow-unsigned "$pkg" OUT
  time_tool floor "$floor" "$pkg" OUT
  time_tool bsdtar bsdtar -xf "$pkg" -C OUT
  time_tool unzip unzip -q "$pkg" -d OUT
  time_tool python python3 -m zipfile -e "$pkg" OUT
  rm -f "$work/out-"{bsdtar,unzip,python}"/[Content_Types].xml"
  for tool in sync verify bsdtar unzip python; do
    diff -r "$work/out-tsapp" "$work/out-$tool" >/dev/null || { echo "output of $tool differs" >&2; exit 1; }
  done
  echo "all outputs identical (the floor writes flat, unnamed files)"
  printf '%-8s %9s %9s %9s %9s %9s %9s %12s\n' tool "median s" "vs bsdtar" "vs floor" \
    "cpu s" "vs bsdtar" "vs floor" "peak RSS MB"
  for tool in tsapp sync verify floor bsdtar unzip python; do
    printf '%-8s %9s %9s %9s %9s %9s %9s %12s\n' "$tool" "${med[$tool]}" \
      "$(ratio "${med[$tool]}" "${med[bsdtar]}")" "$(ratio "${med[$tool]}" "${med[floor]}")" \
      "${cpu[$tool]}" "$(ratio "${cpu[$tool]}" "${cpu[bsdtar]}")" \
      "$(ratio "${cpu[$tool]}" "${cpu[floor]}")" "$((mem[$tool] / 1024))"
  done
  echo "goal: tsapp <= 0.45x bsdtar (2.2 times as fast) and <= 1.25x floor"
  echo "extract --verify against extract: $(ratio "${med[verify]}" "${med[tsapp]}") wall," \
    "$(ratio "${cpu[verify]}" "${cpu[tsapp]}") cpu (goal: <= 1.25x wall)"
  rm -rf "$work/out-"*
}

python3 "$here/make_big_package.py" "$work/mixed.tsappinstall"
bench_package "$work/mixed.tsappinstall"
rm -f "$work/mixed.tsappinstall"
python3 "$here/make_big_package.py" "$work/bigpart.tsappinstall" 200 2000 50
bench_package "$work/bigpart.tsappinstall"
rm -f "$work/bigpart.tsappinstall"

pkg=$work/huge.tsappinstall
python3 "$here/make_big_package.py" "$pkg" --one-part 1024
echo
echo "package: $(du -m "$pkg" | cut -f1) MB, one part of 1024 MB (one run each)"
runs=1
time_tool tsapp "$tsapp" extract "$pkg" OUT
time_tool verify "$tsapp" extract --verify --allow-unsigned "$pkg" OUT
time_tool bsdtar bsdtar -xf "$pkg" -C OUT
cmp "$work/out-tsapp/files/huge.txt" "$work/out-bsdtar/files/huge.txt"
printf '%-8s %10s %12s\n' tool "s" "peak RSS MB"
for tool in tsapp verify bsdtar; do
  printf '%-8s %10s %12s\n' "$tool" "${med[$tool]}" "$((mem[$tool] / 1024))"
done
echo "goal: tsapp peak RSS <= 64 MB"

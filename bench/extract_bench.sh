#!/usr/bin/env bash
# Times whole-package extraction against the archive tools people use and
# against the floor (bench_inflate_floor: read, inflate, CRC and write every
# entry on one thread, nothing else), on the same packages in the same run,
# into fresh folders on /dev/shm (or $TSAPP_BENCH_DIR). Two packages of
# 200 MB in 2,000 parts: the mixed one, and one where a single text part
# holds 50 MB (a quarter of the bytes). Then the peak memory of extracting
# a package whose one part is 1 GiB. tsapp runs as it does by default (on
# every core, every part hashed against the package's digest list while
# it is written), on one core (-j 1), without the digests (--no-verify,
# also on one core), with --sync, and with --verify (the signature too).
#
#   bench/extract_bench.sh [build-dir] [runs]
#
# Prints the median wall time of each tool, its ratio to bsdtar and to the
# floor, its median CPU time (user + system) and its peak resident memory;
# then how much faster every core is than one (scaling); checks that all
# tools wrote the same files.
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
source "$here/bench_lib.sh"

bench_package() {
  local pkg=$1 tool
  echo
  local largest
  largest=$(python3 -c 'import sys, zipfile; print(max(i.file_size for i in zipfile.ZipFile(sys.argv[1]).infolist()) >> 20)' "$pkg")
  echo "package: $(du -m "$pkg" | cut -f1) MB, $(unzip -Z1 "$pkg" | wc -l) entries, largest part $largest MB;$(uptime | sed 's/.*load/ load/')"
  time_tool tsapp "$tsapp" extract "$pkg" OUT
  time_tool j1 "$tsapp" extract -j 1 "$pkg" OUT
  time_tool plain "$tsapp" extract --no-verify "$pkg" OUT
  time_tool plain-j1 "$tsapp" extract --no-verify -j 1 "$pkg" OUT
  time_tool verify "$tsapp" extract --verify --allow-unsigned "$pkg" OUT
  time_tool sync "$tsapp" extract --sync "$pkg" OUT
  time_tool floor "$floor" "$pkg" OUT
  time_tool bsdtar bsdtar -xf "$pkg" -C OUT
  time_tool unzip unzip -q "$pkg" -d OUT
  rm -f "$work/out-"{bsdtar,unzip}"/[Content_Types].xml"
  for tool in j1 plain verify sync bsdtar unzip; do
    diff -r "$work/out-tsapp" "$work/out-$tool" >/dev/null || { echo "output of $tool differs" >&2; exit 1; }
  done
  echo "all outputs identical (the floor writes flat, unnamed files)"
  table bsdtar floor tsapp j1 plain plain-j1 verify sync floor bsdtar unzip
  echo "goal: tsapp >= 2.7x as fast as bsdtar (3x once): $(speedup bsdtar tsapp), --no-verify $(speedup bsdtar plain)"
  echo "goal: tsapp's wall <= 1.10x its CPU time / $(nproc): $(awk -v w="${med[tsapp]}" -v c="${cpu[tsapp]}" \
    -v n="$(nproc)" 'BEGIN {printf "%.2fx", w / (c / n)}')"
  echo "goal: -j $(nproc) >= 1.6x as fast as -j 1: $(speedup j1 tsapp), --no-verify $(speedup plain-j1 plain)"
  echo "digests checked against --no-verify: $(ratio "${med[tsapp]}" "${med[plain]}") wall"
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
time_tool plain "$tsapp" extract --no-verify "$pkg" OUT
time_tool bsdtar bsdtar -xf "$pkg" -C OUT
cmp "$work/out-tsapp/files/huge.txt" "$work/out-bsdtar/files/huge.txt"
table bsdtar "" tsapp plain bsdtar
echo "goal: peak RSS <= 64 MB"

#!/usr/bin/env bash
# Times `tsapp pack` against `zip -qr` (level 6, its default) on the same
# source folder in the same run, on /dev/shm (or $TSAPP_BENCH_DIR): about
# 200 MB in 2,002 files, one in seven incompressible (the parts of
# make_big_package.py's mixed package, with a tsapp.json, an icon and a
# screenshot); then a 195 MB folder whose one text file of 52 MB sits among
# 143 MB of such small files. Each with `pack -j 1` against `pack -j 2`,
# which must write the same bytes. Last, the peak memory of packing a folder
# whose one app file is 1 GiB.
#
#   bench/pack_bench.sh [build-dir] [runs]
#
# Prints the median wall and CPU time (user + system) of each, the ratios
# to zip, the sizes of what they wrote and the peak resident memory.
set -euo pipefail
build=${1:-build-release}
runs=${2:-3}
here=$(cd "$(dirname "$0")" && pwd)
tsapp=$(realpath "$build/tools/tsapp")
work=$(mktemp -d "${TSAPP_BENCH_DIR:-/dev/shm}/tsapp-pack-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
export SOURCE_DATE_EPOCH=1700000000

source "$here/bench_lib.sh"
ratio3() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.4fx", a / b}'; }

# make_source FOLDER PACKAGE: the package's app files, with what pack needs.
make_source() {
  mkdir -p "$1"
  unzip -q "$2" 'files/*' -d "$1"
  cp "$here/../sample/app/icon.png" "$here/../sample/app/screenshot.png" "$1/"
  local entry
  entry=$(cd "$1/files" && find . -type f | sort | sed -n 1p | cut -c3-)
  cat >"$1/tsapp.json" <<EOF
{"entryPoint": "$entry", "name": "bench", "version": "1.0", "icon": "icon.png",
 "screenshot": "screenshot.png", "author": {"name": "bench"}}
EOF
}

# pack_tool NAME COMMAND...: time_tool with OUT standing for the file to
# write; sets size[NAME] (bytes written) too.
declare -A size
pack_tool() {
  local tool=$1
  shift
  time_tool "$tool" "${@//OUT/OUT\/p.tsappinstall}"
  size[$tool]=$(stat -c %s "$work/out-$tool/p.tsappinstall")
}

# bench_folder LABEL MAKE_BIG_PACKAGE_ARGS...: packs the app files of the
# package make_big_package.py writes with those arguments, by each tool.
bench_folder() {
  local label=$1 tool
  shift
  python3 "$here/make_big_package.py" "$work/mixed.tsappinstall" "$@"
  make_source "$work/src" "$work/mixed.tsappinstall"
  rm -f "$work/mixed.tsappinstall"
  echo
  echo "$label: $(du -sm "$work/src" | cut -f1) MB, $(find "$work/src" -type f | wc -l) files," \
    "$(nproc) cores;$(uptime | sed 's/.*load/ load/')"
  pack_tool tsapp "$tsapp" pack --guid 0123abcd-0000-4000-8000-000000000001 "$work/src" -o OUT
  pack_tool j1 "$tsapp" pack -j 1 --guid 0123abcd-0000-4000-8000-000000000001 "$work/src" -o OUT
  pack_tool j2 "$tsapp" pack -j 2 --guid 0123abcd-0000-4000-8000-000000000001 "$work/src" -o OUT
  pack_tool zip bash -c 'cd "$1" && zip -qr "$2" .' zip "$work/src" OUT
  "$tsapp" check "$work/out-tsapp/p.tsappinstall" >/dev/null
  unzip -tq "$work/out-tsapp/p.tsappinstall" >/dev/null
  cmp "$work/out-j1/p.tsappinstall" "$work/out-j2/p.tsappinstall"
  echo "pack -j 1 and -j 2 wrote the same bytes; the package passes tsapp check and unzip -t"
  printf '%-8s %9s %8s %9s %8s %12s %8s %12s\n' tool "median s" "vs zip" "cpu s" "vs zip" \
    "bytes" "vs zip" "peak RSS MB"
  for tool in tsapp j1 j2 zip; do
    printf '%-8s %9s %8s %9s %8s %12s %8s %12s\n' "$tool" "${med[$tool]}" \
      "$(ratio "${med[zip]}" "${med[$tool]}")" "${cpu[$tool]}" \
      "$(ratio "${cpu[zip]}" "${cpu[$tool]}")" "${size[$tool]}" \
      "$(ratio3 "${size[$tool]}" "${size[zip]}")" "$((mem[$tool] / 1024))"
  done
  echo "(time ratios: how many times as fast as zip; size ratio: tsapp's bytes over zip's)"
  echo "goal: tsapp >= 2.5x as fast as zip, size <= 1.005x zip's;" \
    "-j 2 against -j 1: $(ratio "${med[j1]}" "${med[j2]}")"
  rm -rf "$work/src" "$work/out-"*
}

bench_folder "bench folder"
# A big file is cut into pieces deflated on every core; without that this
# folder's one file would leave a core idle for a quarter of the run.
bench_folder "one 52 MB file among small ones" 195 2000 52

# One app file of 1 GiB: streamed in pieces, never held in memory.
mkdir -p "$work/huge/files"
python3 - "$work/huge/files/huge.txt" <<'EOF'
import random, sys
words = "function return const value index the package part name { } ( ) ; 0 1 42".split()
rng = random.Random(20261123)
block = "".join(" ".join(rng.choice(words) for _ in range(9)) + "\n" for _ in range(200000)).encode()
with open(sys.argv[1], "wb") as out:
    written = 0
    while written < 1 << 30:
        piece = block[: (1 << 30) - written]
        out.write(piece)
        written += len(piece)
EOF
cp "$here/../sample/app/icon.png" "$here/../sample/app/screenshot.png" "$work/huge/"
echo '{"entryPoint": "huge.txt", "name": "huge", "version": "1.0", "icon": "icon.png",
 "screenshot": "screenshot.png", "author": {"name": "bench"}}' >"$work/huge/tsapp.json"
runs=1
pack_tool huge "$tsapp" pack "$work/huge" -o OUT
pack_tool hugezip bash -c 'cd "$1" && zip -qr "$2" .' zip "$work/huge" OUT
echo
echo "one app file of 1024 MB (one run each)"
printf '%-8s %9s %12s %12s\n' tool "s" "bytes" "peak RSS MB"
for tool in huge hugezip; do
  printf '%-8s %9s %12s %12s\n' "$tool" "${med[$tool]}" "${size[$tool]}" "$((mem[$tool] / 1024))"
done
echo "goal: tsapp peak RSS <= 64 MB"

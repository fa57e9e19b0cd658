#!/usr/bin/env bash
# Times `tsapp repo index` over 1,000 generated packages, a full run and an
# incremental one (one package added), against reading every manifest with
# `tsapp info --json` one package at a time: what a host without an index
# would do to show a gallery.
#
#   bench/repo_bench.sh [build-dir] [packages] [jobs]
#
# The machine may be shared, so the ratios are the figures to compare.
set -euo pipefail
build=${1:-build}
count=${2:-1000}
jobs=${3:-0}
tsapp=$(cd "$build" && pwd)/tools/tsapp
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /dev/shm/tsapp-repo-bench.XXXXXX 2>/dev/null || mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/repo"
for ((i = 0; i < count + 1; i++)); do
  guid=$(printf '%08x-0000-4000-8000-%012x' "$i" "$i")
  target=$work/repo/app-$i.tsappinstall
  ((i == count)) && target=$work/new-app.tsappinstall  # the one added later
  SOURCE_DATE_EPOCH=1700000000 "$tsapp" pack "$here/../sample/app" --guid "$guid" -o "$target" >/dev/null
done
echo "packages: $count, $(du -sm "$work/repo" | cut -f1) MB"

seconds() {  # the wall time of the command, in seconds
  local start end
  start=$(date +%s.%N)
  "$@" >/dev/null
  end=$(date +%s.%N)
  awk -v a="$start" -v b="$end" 'BEGIN {printf "%.3f", b - a}'
}
info_all() { for f in "$work"/repo/*.tsappinstall; do "$tsapp" info --json "$f"; done; }

full=$(seconds "$tsapp" repo index --id bench -j "$jobs" "$work/repo")
unchanged=$(seconds "$tsapp" repo index -j "$jobs" "$work/repo")
mv "$work/new-app.tsappinstall" "$work/repo/"
added=$(seconds "$tsapp" repo index -j "$jobs" "$work/repo")
info=$(seconds info_all)

printf '%-34s %8s\n' run seconds
printf '%-34s %8s\n' "repo index, full" "$full" "repo index, unchanged" "$unchanged" \
  "repo index, one package added" "$added" "info --json, one by one" "$info"
awk -v f="$full" -v a="$added" -v i="$info" 'BEGIN {
  printf "full index / info one by one: %.2fx\n", f / i
  printf "incremental index / info one by one: %.3fx\n", a / i }'

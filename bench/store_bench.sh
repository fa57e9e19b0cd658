#!/usr/bin/env bash
# Times the app store against the tools it builds on, on the same data in
# the same run, in fresh folders on /dev/shm (or $TSAPP_BENCH_DIR):
#   - tsapp install of a 200 MB app (about 2,000 files, one in seven
#     incompressible) into a fresh root, against tsapp extract of the same
#     package into a fresh folder (install also checks the manifest, hashes
#     the package file, verifies the digests and writes the records);
#   - tsapp installed --json with 1,000 recorded apps;
#   - tsapp audit of the 200 MB app, against sha256sum over its files.
#
#   bench/store_bench.sh [build-dir] [runs]
#
# Prints the median wall time of each and the ratios docs/benchmarks.md quotes.
set -euo pipefail
build=${1:-build-release}
runs=${2:-5}
tsapp=$(cd "$build/tools" && pwd)/tsapp
work=$(mktemp -d "${TSAPP_BENCH_DIR:-/dev/shm}/tsapp-store-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
here=$(cd "$(dirname "$0")" && pwd)
source "$here/bench_lib.sh"

# timed NAME PREPARE COMMAND: runs PREPARE then times COMMAND, $runs times;
# sets med[NAME] in seconds, to the microsecond (the ratios compare runs of
# a quarter second, where /usr/bin/time's hundredths are 4% steps).
declare -A med times
once() {
  local name=$1 prepare=$2 command=$3 start end
  eval "$prepare"
  start=$EPOCHREALTIME
  bash -c "$command" >/dev/null
  end=$EPOCHREALTIME
  times[$name]+="$(awk -v a="$start" -v b="$end" 'BEGIN {printf "%.4f", b - a}') "
}
timed() {
  for ((r = 0; r < runs; r++)); do once "$@"; done
  med[$1]=$(printf '%s\n' ${times[$1]} | median)
}
# timed_pair NAME PREPARE COMMAND NAME PREPARE COMMAND: the two taken in
# turn, so that a neighbour's load on the machine falls on both alike.
timed_pair() {
  for ((r = 0; r < runs; r++)); do
    once "$1" "$2" "$3"
    once "$4" "$5" "$6"
  done
  med[$1]=$(printf '%s\n' ${times[$1]} | median)
  med[$4]=$(printf '%s\n' ${times[$4]} | median)
}

# The app: the sample's manifest and icons, 200 MB of deterministic files.
cp -r "$here/../sample/app" "$work/src"
bench_files "$work/src/files"
pkg=$work/app.tsappinstall
"$tsapp" pack "$work/src" --guid 0123abcd-0000-4000-8000-0000000000be -o "$pkg" >/dev/null
echo "package: $(du -m "$pkg" | cut -f1) MB, $(unzip -Z1 "$pkg" | wc -l) entries;$(uptime | sed 's/.*load/ load/')"
host="--host-release 2026.2 --platform linux-x86_64 --product tessal.core=2026.1"

timed_pair extract "rm -rf $work/out" "'$tsapp' extract '$pkg' '$work/out'" \
  install "rm -rf $work/root" "'$tsapp' install --root '$work/root' $host '$pkg'"
echo "extract ${med[extract]} s, install ${med[install]} s: install costs $(ratio "${med[install]}" "${med[extract]}") extract (goal <= 1.10x)"

folder=$(readlink -f "$work/root/apps/0123abcd-0000-4000-8000-0000000000be/current")
timed sha256sum ":" "cd '$folder' && find . -type f -print0 | xargs -0 sha256sum"
timed audit ":" "'$tsapp' audit --root '$work/root'"
echo "sha256sum ${med[sha256sum]} s, audit ${med[audit]} s: audit costs $(ratio "${med[audit]}" "${med[sha256sum]}") sha256sum"

# 1,000 recorded apps: the one installed, its records copied under new
# GUIDs, each with its folder and link.
python3 - "$work/root" <<'PY'
import os, sqlite3, sys
root = sys.argv[1]
db = sqlite3.connect(os.path.join(root, "store.db"))
(vid, folder) = db.execute("SELECT id, folder FROM versions").fetchone()
columns = "name, version, package, package_sha256, signer_subject, signer_fingerprint, installed_at, host_profile, forced, forced_reasons"
for i in range(1, 1000):
    guid = "0123abcd-0000-4000-8000-%012d" % i
    leaf = folder.split("/")[1]
    cur = db.execute(f"INSERT INTO versions(guid, folder, {columns}) SELECT ?, ?, {columns} FROM versions WHERE id = ?",
                     (guid, guid + "/" + leaf, vid))
    db.execute("INSERT INTO apps(guid, current) VALUES(?, ?)", (guid, cur.lastrowid))
    os.makedirs(os.path.join(root, "apps", guid, leaf))
    os.symlink(leaf, os.path.join(root, "apps", guid, "current"))
db.commit()
PY
timed installed ":" "'$tsapp' installed --json --root '$work/root'"
echo "installed --json with $("$tsapp" installed --root "$work/root" | wc -l) apps: ${med[installed]} s"

#!/usr/bin/env bash
# Times upgrades from a repository served by a real web server (nginx on
# 127.0.0.1, started here in a folder of its own and stopped on exit),
# against full installs of the same versions, and counts the bytes each
# step downloaded from the server's access log.
#
# The app is the store benchmark's: 200 MB in 2,000 files of 100 KB, one in
# seven incompressible. Version 1.0.0; 1.1.0 changes one file; 1.2.0
# changes every file. Two signed repositories: "minor" lists 1.0.0 and
# 1.1.0, "every" lists all three, so that `tsapp upgrade --all` goes to
# 1.1.0 from the one and to 1.2.0 from the other. Each round, in fresh
# roots:
#   - full:    install 1.1.0 into an empty root;
#   - upgrade: install 1.0.0, then `tsapp upgrade --all` to 1.1.0, with
#              the root's disk growth (`du -sb` of the whole root, which
#              counts a hard-linked file once);
#   - every:   install 1.1.0, then upgrade to 1.2.0, against
#   - full12:  install 1.2.0 into an empty root.
# The first round also checks that the upgraded tree is the full install's
# (contents, modes, sizes, links), that `tsapp audit` finds nothing, and that
# `tsapp rollback` returns 1.0.0's exact bytes.
#
#   bench/ranged_bench.sh [build-dir] [runs]
#
# Prints the medians and the ratios docs/benchmarks.md quotes, each with its
# goal beside it. Needs nginx (Debian's nginx-light).
set -euo pipefail
build=${1:-build-release}
runs=${2:-3}
tsapp=$(cd "$build/tools" && pwd)/tsapp
here=$(cd "$(dirname "$0")" && pwd)
nginx=$(command -v nginx || echo /usr/sbin/nginx)
# run_all.sh goes on without this one where there is no web server.
if [[ ! -x $nginx ]]; then
  echo "skipped: nginx is not installed (scripts/setup.sh installs nginx-light)"
  exit 0
fi
work=$(mktemp -d "${TSAPP_BENCH_DIR:-/dev/shm}/tsapp-ranged-bench.XXXXXX")
stop() {
  if [[ -s $work/nginx/nginx.pid ]]; then
    kill "$(cat "$work/nginx/nginx.pid")" 2>/dev/null || true
    # The master removes its pid file once its workers are gone.
    for ((i = 0; i < 50; i++)); do
      [[ -e $work/nginx/nginx.pid ]] || break
      sleep 0.1
    done
  fi
  rm -rf "$work"
}
trap stop EXIT
# nginx's workers drop to an unprivileged user when it runs as root: the
# served folder must be readable to them.
chmod 755 "$work"
source "$here/bench_lib.sh"

guid=0123abcd-0000-4000-8000-0000000000be
host=(--host-release 2026.2 --platform linux-x86_64 --product tessal.core=2026.1)

# The app's three versions, packed from one folder changed in place.
cp -r "$here/../sample/app" "$work/src"
write_files() { bench_files "$work/src/files" "$@"; }  # write_files SEED [ONLY]
pack() {  # pack VERSION
  sed -i "s/\"version\": \"[^\"]*\"/\"version\": \"$1\"/" "$work/src/tsapp.json"
  SOURCE_DATE_EPOCH=1767225600 "$tsapp" pack "$work/src" --guid "$guid" \
    -o "$work/pkg/app-$1.tsappinstall" >/dev/null
}
mkdir -p "$work/pkg"
write_files 0 && pack 1.0.0
write_files 1 1 && pack 1.1.0
write_files 2 && pack 1.2.0
app_bytes=$(du -sb "$work/src/files" | cut -f1)
pkg_bytes=$(stat -c %s "$work/pkg/app-1.1.0.tsappinstall")
echo "package: $((pkg_bytes >> 20)) MB, $(unzip -Z1 "$work/pkg/app-1.1.0.tsappinstall" | wc -l) entries," \
  "app $((app_bytes >> 20)) MB;$(uptime | sed 's/.*load/ load/')"

# Signed repositories, as a publisher makes them.
(cd "$work" && openssl req -x509 -newkey ed25519 -nodes -keyout ca.key -out ca.pem -subj /CN=CA \
  -days 2 && openssl genpkey -algorithm ED25519 -out signer.key &&
  openssl req -x509 -key signer.key -CA ca.pem -CAkey ca.key -days 2 -subj /CN=Publisher \
    -out signer.pem) >/dev/null 2>&1
mkdir -p "$work/www/minor" "$work/www/every"
ln "$work"/pkg/app-1.[01].0.tsappinstall "$work/www/minor/"
ln "$work"/pkg/app-1.[012].0.tsappinstall "$work/www/every/"
for repo in minor every; do
  "$tsapp" repo index --id "$repo" --sign "$work/signer.key" --cert "$work/signer.pem" \
    "$work/www/$repo" >/dev/null 2>&1
done
chmod -R go+rX "$work/www"

# The server: its own prefix, configuration, pid file and logs; each access
# line is the status, the bytes of the body sent, the Range asked for and
# the path.
mkdir -p "$work/nginx/tmp"
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat >"$work/nginx/nginx.conf" <<EOF
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 64; }
http {
  log_format bench '\$status \$body_bytes_sent "\$http_range" \$uri';
  access_log $work/nginx/access.log bench;
  client_body_temp_path $work/nginx/tmp/body;
  proxy_temp_path $work/nginx/tmp/proxy;
  fastcgi_temp_path $work/nginx/tmp/fastcgi;
  uwsgi_temp_path $work/nginx/tmp/uwsgi;
  scgi_temp_path $work/nginx/tmp/scgi;
  types { application/json json; }
  default_type application/octet-stream;
  sendfile on;
  server {
    listen 127.0.0.1:$port;
    root $work/www;
  }
}
EOF
"$nginx" -p "$work/nginx" -e "$work/nginx/error.log" -c "$work/nginx/nginx.conf"
for ((i = 0; i < 50; i++)); do
  python3 -c 'import sys, urllib.request; urllib.request.urlopen(sys.argv[1], timeout=1)' \
    "http://127.0.0.1:$port/minor/index.json" 2>/dev/null && break
  sleep 0.1
done
url=http://127.0.0.1:$port

served() { wc -l <"$work/nginx/access.log"; }
# bytes_since LINE: the body bytes the server sent after that access line.
bytes_since() { tail -n +"$(($1 + 1))" "$work/nginx/access.log" | awk '{s += $2} END {print s + 0}'; }
# fresh ROOT REPO: an empty root that records the repository.
fresh() {
  rm -rf "$1"
  "$tsapp" repo add "$2" "$url/$2/" --trust "$work/ca.pem" --root "$1" >/dev/null
}
# step NAME ROOT ARGS...: runs tsapp ARGS on ROOT; adds its wall seconds to
# times[NAME] and its downloaded bytes to bytes[NAME].
declare -A times bytes growth
step() {
  local name=$1 root=$2 line start end
  shift 2
  line=$(served)
  start=$EPOCHREALTIME
  "$tsapp" "$@" --root "$root" "${host[@]}" >/dev/null
  end=$EPOCHREALTIME
  times[$name]+="$(awk -v a="$start" -v b="$end" 'BEGIN {printf "%.4f", b - a}') "
  bytes[$name]+="$(bytes_since "$line") "
}
current() { readlink -f "$1/apps/$guid/current"; }
# tree FOLDER: every entry's path, type, mode, size and link target.
listing() { (cd "$1" && find . -printf '%P %y %m %s %l\n' | sort); }
same_tree() {
  diff -r --no-dereference "$1" "$2" >/dev/null && diff <(listing "$1") <(listing "$2") >/dev/null
}
check() { # check WHAT COMMAND...: a failed check ends the benchmark
  "${@:2}" || { echo "ranged_bench.sh: $1" >&2; exit 1; }
}

for ((r = 0; r < runs; r++)); do
  fresh "$work/full" minor
  step full "$work/full" install "Hello Tessal@1.1.0"

  fresh "$work/up" minor
  "$tsapp" install "Hello Tessal@1.0.0" --root "$work/up" "${host[@]}" >/dev/null
  ((r == 0)) && cp -a "$(current "$work/up")" "$work/ref-1.0.0"
  before=$(du -sb "$work/up" | cut -f1)
  step upgrade "$work/up" upgrade --all
  growth[upgrade]+="$(($(du -sb "$work/up" | cut -f1) - before)) "
  if ((r == 0)); then
    check "the upgraded 1.1.0 differs from a full install of it" \
      same_tree "$(current "$work/up")" "$(current "$work/full")"
    check "audit found differences after the upgrade" \
      "$tsapp" audit --root "$work/up" >/dev/null
    "$tsapp" rollback "Hello Tessal" --root "$work/up" >/dev/null
    check "rollback did not return 1.0.0's bytes" \
      same_tree "$(current "$work/up")" "$work/ref-1.0.0"
    rm -rf "$work/ref-1.0.0"
  fi
  rm -rf "$work/up" "$work/full"

  fresh "$work/full" every
  step full12 "$work/full" install "Hello Tessal@1.2.0"
  fresh "$work/up" every
  "$tsapp" install "Hello Tessal@1.1.0" --root "$work/up" "${host[@]}" >/dev/null
  before=$(du -sb "$work/up" | cut -f1)
  step every "$work/up" upgrade --all
  growth[every]+="$(($(du -sb "$work/up" | cut -f1) - before)) "
  if ((r == 0)); then
    check "the upgraded 1.2.0 differs from a full install of it" \
      same_tree "$(current "$work/up")" "$(current "$work/full")"
    check "audit found differences after the every-file upgrade" \
      "$tsapp" audit --root "$work/up" >/dev/null
  fi
  rm -rf "$work/up" "$work/full"
done

declare -A m
for name in full upgrade every full12; do
  m[$name]=$(printf '%s\n' ${times[$name]} | median)
  m[$name-bytes]=$(printf '%s\n' ${bytes[$name]} | median)
done
m[upgrade-growth]=$(printf '%s\n' ${growth[upgrade]} | median)
m[every-growth]=$(printf '%s\n' ${growth[every]} | median)

printf '%-34s %9s %13s %13s\n' "step (median of $runs)" "wall s" "downloaded" "disk growth"
printf '%-34s %9s %13s %13s\n' "install 1.1.0, empty root" "${m[full]}" "${m[full-bytes]}" "" \
  "upgrade 1.0.0 -> 1.1.0 (one file)" "${m[upgrade]}" "${m[upgrade-bytes]}" "${m[upgrade-growth]}" \
  "install 1.2.0, empty root" "${m[full12]}" "${m[full12-bytes]}" "" \
  "upgrade 1.1.0 -> 1.2.0 (every file)" "${m[every]}" "${m[every-bytes]}" "${m[every-growth]}"
awk -v ub="${m[upgrade-bytes]}" -v pb="$pkg_bytes" -v uw="${m[upgrade]}" -v fw="${m[full]}" \
  -v ug="${m[upgrade-growth]}" -v ab="$app_bytes" -v ew="${m[every]}" -v f12="${m[full12]}" 'BEGIN {
  printf "upgrade bytes / package bytes: %.2f%% (goal <= 2%%)\n", 100 * ub / pb
  printf "upgrade wall / full install wall: %.1f%% (goal <= 10%%)\n", 100 * uw / fw
  printf "disk growth / app size: %.1f%% (goal <= 5%%)\n", 100 * ug / ab
  printf "every-file upgrade / full install: %.2fx (goal <= 1.05x)\n", ew / f12 }'

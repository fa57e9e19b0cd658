#!/usr/bin/env bash
# Times `tsapp check` (every entry decoded, sizes and CRC-32s checked, every
# item hashed against the digest list, the manifest and the listing
# checked) against `unzip -tq` (the same decoding and CRC test, nothing
# else), and `tsapp verify` of a signed package against `tsapp check` of it
# and against `sha256sum -c` of its extracted files, in the same run. tsapp
# runs on every core (its default) and on one (-j 1). Then the peak memory
# of checking and verifying a package whose one part is 1 GiB.
#
#   bench/check_bench.sh [build-dir] [runs]
#
# Prints the median wall time of each, the same-run ratios, the CPU time
# and the peak resident memory; the machine may be shared, so the ratios
# are the figures to compare.
set -euo pipefail
build=${1:-build-release}
runs=${2:-5}
here=$(cd "$(dirname "$0")" && pwd)
tsapp=$(realpath "$build/tools/tsapp")
work=$(mktemp -d /dev/shm/tsapp-check-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
source "$here/bench_lib.sh"

pkg=$work/big.tsappinstall
python3 "$here/make_big_package.py" "$pkg"

# The same files packed and signed by tsapp, with a manifest, for verify.
src=$work/src
"$tsapp" extract "$pkg" "$src" >/dev/null
rm -rf "$src/_digests" "$src/_rels"
cp "$here/../sample/app/icon.png" "$here/../sample/app/screenshot.png" "$src/"
cat >"$src/tsapp.json" <<'EOF'
{"entryPoint": "d00/s0/text0000.txt", "name": "Bench", "version": "1.0",
 "author": {"name": "Bench"}, "icon": "icon.png", "screenshot": "screenshot.png"}
EOF
(
  cd "$work"
  openssl req -x509 -newkey ed25519 -nodes -keyout ca.key -out ca.pem -subj /CN=CA -days 2
  openssl genpkey -algorithm ED25519 -out signer.key
  openssl req -x509 -key signer.key -CA ca.pem -CAkey ca.key -days 2 -subj /CN=signer -out signer.pem
) 2>/dev/null
signed=$work/signed.tsappinstall
"$tsapp" pack "$src" -o "$signed" --sign "$work/signer.key" --cert "$work/signer.pem" >/dev/null
rm -rf "$src"
"$tsapp" extract "$signed" "$work/tree" >/dev/null

echo "package: $(du -m "$pkg" | cut -f1) MB, $(unzip -Z1 "$pkg" | wc -l) entries, a digest list;" \
  "signed: $(du -m "$signed" | cut -f1) MB;$(uptime | sed 's/.*load/ load/')"
# The unsigned package has no manifest, so check's verdict is that fault;
# it still decodes and hashes every entry, which is what is timed here.
time_tool check "$tsapp" check "$pkg"
time_tool check-j1 "$tsapp" check -j 1 "$pkg"
time_tool unzip unzip -tq "$pkg"
time_tool s-check "$tsapp" check "$signed"
time_tool verify "$tsapp" verify --trust "$work/ca.pem" "$signed"
time_tool verify-j1 "$tsapp" verify -j 1 --trust "$work/ca.pem" "$signed"
time_tool sha256sum sh -c "cd '$work/tree' && sha256sum --quiet -c _digests/sha256sums"
"$tsapp" verify --trust "$work/ca.pem" "$signed" | grep -q ": OK" || { echo "verify failed" >&2; exit 1; }
table unzip "" check check-j1 unzip s-check verify verify-j1 sha256sum
echo "goal: check >= 5x as fast as unzip -tq: $(speedup unzip check)"
echo "goal: verify <= 1.2x check (signed package): $(ratio "${med[verify]}" "${med[s-check]}")"
echo "verify against sha256sum -c of the extracted files: $(speedup sha256sum verify) as fast"
echo "-j $(nproc) against -j 1: $(speedup check-j1 check) check, $(speedup verify-j1 verify) verify"

huge=$work/huge.tsappinstall
python3 "$here/make_big_package.py" "$huge" --one-part 1024
echo
echo "package: $(du -m "$huge" | cut -f1) MB, one part of 1024 MB (one run each)"
runs=1
time_tool check "$tsapp" check "$huge"
time_tool verify "$tsapp" verify --allow-unsigned "$huge"
time_tool unzip unzip -tq "$huge"
table unzip "" check verify unzip
echo "goal: peak RSS <= 64 MB"

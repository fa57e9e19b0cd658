#!/usr/bin/env bash
# Builds the three Debian packages with CPack in build-deb/, checks them
# with lintian (no errors), installs them with dpkg into a scratch root and
# tries what they installed: the tool, the man page, the bash completion
# and a program built against the -dev package.
#
# This machine is left alone: dpkg keeps its records in the scratch root,
# the library's ldconfig call meets a stand-in, and the dependencies are
# checked against this machine with a simulated `apt-get install`.
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD
build=$source/build-deb

# Debian's own compiler and linker flags, hardening included.
flags() { DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get "$1"; }
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTSAPP_BUILD_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr \
    "-DCMAKE_CXX_FLAGS=$(flags CPPFLAGS) $(flags CXXFLAGS)" \
    "-DCMAKE_EXE_LINKER_FLAGS=$(flags LDFLAGS)" "-DCMAKE_SHARED_LINKER_FLAGS=$(flags LDFLAGS)" >/dev/null
cmake --build "$build" -j "$(nproc)"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)

version=$(sed -n 's/^project(tsappinstall VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
arch=$(dpkg --print-architecture)
debs=()
for name in "libtsappinstall${version%%.*}" libtsappinstall-dev tsapp; do
    debs+=("$build/${name}_${version}_$arch.deb")
    [ -f "${debs[-1]}" ] || { echo "packaging-test: ${debs[-1]##*/} was not made" >&2; exit 1; }
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
log=$scratch/log
fail() { cat "$log" >&2; echo "packaging-test: $*" >&2; exit 1; }

# Warnings are shown (docs/install.md says why those left are kept); an error fails.
status=0
lintian --fail-on error "${debs[@]}" >"$log" 2>&1 || status=$?
grep -v '^running with root privileges' "$log" || true
[ "$status" -eq 0 ] || fail "lintian reports errors"

# What `apt install ./*.deb` would do here: it must find every dependency.
apt-get install --simulate --no-install-recommends "${debs[@]}" >"$log" 2>&1 ||
    fail "the packages' dependencies cannot be met"

root=$scratch/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$scratch/bin"
touch "$root/var/lib/dpkg/status"
printf '#!/bin/sh\nexit 0\n' >"$scratch/bin/ldconfig"
chmod +x "$scratch/bin/ldconfig"
# The scratch root has no libc or shell of its own: its dependencies are
# the ones just checked, and maintainer scripts run outside it.
PATH=$scratch/bin:$PATH dpkg --root="$root" --log=/dev/null --force-depends \
    --force-script-chrootless -i "${debs[@]}" >"$log" 2>&1 || fail "dpkg could not install the packages"
for name in "libtsappinstall${version%%.*}" libtsappinstall-dev tsapp; do
    [ "$(dpkg --root="$root" -s "$name" 2>/dev/null | sed -n 's/^Status: //p')" = "install ok installed" ] ||
        fail "$name is not installed"
done

# The installed tool runs on the installed library, which ld.so looks for
# in this machine's folders only.
libdir=$(dirname "$(find "$root/usr/lib" -name libtsappinstall.so.0)")
export LD_LIBRARY_PATH=$libdir
tsapp=$root/usr/bin/tsapp
[ "$(ldd "$tsapp" | sed -n 's/^\s*libtsappinstall\.so\.0 => \(.*\) (.*/\1/p')" = "$libdir/libtsappinstall.so.0" ] ||
    fail "the installed tsapp does not run on the installed library"
[ "$("$tsapp" --version)" = "tsapp $version" ] || fail "the installed tsapp does not run"
SOURCE_DATE_EPOCH=1700000000 "$tsapp" pack sample/app -o "$scratch/hello.tsappinstall" >"$log" 2>&1 ||
    fail "the installed tsapp cannot pack the sample app"

# The man page reads, and has a subsection for every command of --help.
man_page=$root/usr/share/man/man1/tsapp.1.gz
MANWIDTH=100 man -l "$man_page" >"$scratch/man.txt" 2>"$log" || fail "man -l cannot read tsapp.1.gz"
commands=$(source tools/completion/tsapp.bash && _tsapp_read_commands "$tsapp" | awk '{ print $1 }')
for command in $commands; do
    grep -q "^ *tsapp $command\b" "$scratch/man.txt" || fail "the man page misses the command $command"
done

# The completion loads and completes commands, options and arguments.
completion=$root/usr/share/bash-completion/completions/tsapp
mkdir "$scratch/cwd" "$scratch/cwd/folder" && touch "$scratch/cwd/a.tsappinstall" "$scratch/cwd/b.txt"
got=$(cd "$scratch/cwd" && bash -c 'source "$1"; complete -p tsapp
    c() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _tsapp; echo "${COMPREPLY[*]}"; }
    c "$2" ch; c "$2" check --j; c "$2" check ""; c "$2" extract a.tsappinstall ""
    c "$2" extract --max-size 5M a.tsappinstall ""; c "$2" part a.tsappinstall m' _ "$completion" "$tsapp")
expected="complete -F _tsapp tsapp
check
--jobs --json
folder a.tsappinstall
folder
folder
manifest"
[ "$got" = "$expected" ] || { printf 'got:\n%s\n' "$got" >"$log"; fail "bash completion"; }

# A program builds against the -dev package alone, packs the sample app,
# publishes it in a signed folder repository, installs it from there and
# lists it.
# shellcheck disable=SC2046
g++ -std=c++17 tests/consumer/consumer.cpp -o "$scratch/consumer" \
    $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs tsappinstall) 2>"$log" ||
    fail "cannot build against libtsappinstall-dev"
bash tests/consumer/make-keys.sh "$scratch" >"$log" 2>&1 ||
    fail "openssl cannot make the index's signer"
mkdir "$scratch/consumer-work"
[ "$("$scratch/consumer" "$PWD/sample/app" "$scratch/consumer-work" "$scratch/signer.key" \
    "$scratch/signer.pem" "$scratch/ca.pem" 2>"$log")" = "Hello Tessal 1.2.0
published an index of 1 package(s)
installed Hello Tessal 1.2.0 from main" ] ||
    fail "a program built against libtsappinstall-dev cannot pack, publish, install and list"

echo "packaging: ${debs[*]##*/} pass lintian, install with dpkg and work"

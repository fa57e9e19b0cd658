#!/usr/bin/env bash
# Installs the built library into a scratch prefix, builds the consumer
# against it with find_package and with pkg-config, and has each build pack
# the sample app, publish it in a signed folder repository, install it from
# there into an apps root of its own and list it. Nothing of the build tree
# but what `cmake --install` puts in the prefix is used.
#   run.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
libdir=$(dirname "$(find "$scratch/prefix" -name 'libtsappinstall.so' | head -1)")

# The index's signer below a CA of its own, as a publisher would hold them.
keys=$scratch/keys
mkdir "$keys"
bash "$source/tests/consumer/make-keys.sh" "$keys" >/dev/null 2>&1

expected="Hello Tessal 1.2.0
published an index of 1 package(s)
installed Hello Tessal 1.2.0 from main"

# Runs one build of the consumer in a fresh work folder and holds its
# output to the expected lines.
check() {
  local consumer=$1 work
  work=$(mktemp -d "$scratch/work.XXXXXX")
  local output
  output=$(LD_LIBRARY_PATH=$libdir "$consumer" "$source/sample/app" "$work" \
    "$keys/signer.key" "$keys/signer.pem" "$keys/ca.pem")
  if [ "$output" != "$expected" ]; then
    printf '%s printed:\n%s\nexpected:\n%s\n' "$consumer" "$output" "$expected" >&2
    exit 1
  fi
}

cmake -S "$source/tests/consumer" -B "$scratch/with-cmake" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/with-cmake" >/dev/null
check "$scratch/with-cmake/consumer"

flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs tsappinstall)
# shellcheck disable=SC2086
g++ -std=c++17 -Wall -Wextra "$source/tests/consumer/consumer.cpp" -o "$scratch/with-pkg-config" $flags
check "$scratch/with-pkg-config"
echo "consumer built with find_package and pkg-config packs, publishes, installs and lists the sample app"

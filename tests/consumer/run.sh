#!/usr/bin/env bash
# Installs the built library into a scratch prefix, builds the consumer
# against it with find_package and with pkg-config, and reads the sample
# package with both.
#   run.sh BUILD_DIR SOURCE_DIR TSAPP_TOOL
set -euo pipefail
build=$1 source=$2 tool=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
libdir=$(dirname "$(find "$scratch/prefix" -name 'libtsappinstall.so' | head -1)")
SOURCE_DATE_EPOCH=1700000000 "$tool" pack "$source/sample/app" -o "$scratch/hello.tsappinstall"

cmake -S "$source/tests/consumer" -B "$scratch/with-cmake" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/with-cmake" >/dev/null
test "$(LD_LIBRARY_PATH=$libdir "$scratch/with-cmake/consumer" "$scratch/hello.tsappinstall")" = "Hello Tessal 1.2.0"

flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs tsappinstall)
# shellcheck disable=SC2086
g++ -std=c++17 "$source/tests/consumer/consumer.cpp" -o "$scratch/with-pkg-config" $flags
test "$(LD_LIBRARY_PATH=$libdir "$scratch/with-pkg-config" "$scratch/hello.tsappinstall")" = "Hello Tessal 1.2.0"
echo "consumer built with find_package and pkg-config reads the sample package"

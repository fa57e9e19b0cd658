#!/usr/bin/env bash
# Sets up and builds everything that `cmake --install build-release` installs
# (the library, the tool, its man page), packs the sample app in sample/app,
# checks the package, shows its manifest and unpacks it. Everything it makes
# goes to build-release/sample/.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DTSAPP_BUILD_TESTS=OFF >/dev/null
cmake --build build-release -j "$(nproc)"

tsapp=build-release/tools/tsapp
out=build-release/sample
rm -rf "$out" && mkdir -p "$out"
package=$out/hello.tsappinstall

set -x
"$tsapp" pack sample/app -o "$package"
"$tsapp" check "$package"
"$tsapp" info "$package"
"$tsapp" extract "$package" "$out/unpacked"
set +x
echo "Unpacked files:"
(cd "$out/unpacked" && find . -type f | sort)

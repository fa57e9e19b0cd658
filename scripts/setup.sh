#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the tools need.
# Quick when everything is already there: apt runs only for what is missing.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libxerces-c-dev
  libboost-dev libboost-date-time-dev libboost-program-options-dev
  libzip-dev zip unzip
  libssl-dev openssl zlib1g-dev libdeflate-dev libisal-dev
  libgtest-dev googletest
  nlohmann-json3-dev libcli11-dev libsqlite3-dev
  libcurl4-openssl-dev chromium
  python3 locales tzdata
  libarchive-tools time strace nginx-light
  dpkg-dev file lintian help2man man-db
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The message catalog picks its language from LC_MESSAGES; the tests switch
# to German, which needs that locale generated.
if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
  if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
  $SUDO sed -i 's/^# *de_DE.UTF-8 UTF-8/de_DE.UTF-8 UTF-8/' /etc/locale.gen
  grep -q '^de_DE.UTF-8 UTF-8' /etc/locale.gen || echo 'de_DE.UTF-8 UTF-8' | $SUDO tee -a /etc/locale.gen >/dev/null
  $SUDO locale-gen >/dev/null
fi

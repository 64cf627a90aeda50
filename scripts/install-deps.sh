#!/usr/bin/env bash
# Installs the Debian packages orvexd needs to build, run and test, skipping those present.
# Usage: scripts/install-deps.sh [build|test]
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config lld
  libsdbus-c++-dev libasio-dev libspdlog-dev libfmt-dev libsystemd-dev systemtap-sdt-dev
  libplist-dev libexpat1-dev dbus-daemon systemd libcurl4-openssl-dev nlohmann-json3-dev libicu-dev libcld2-dev
  uuid-dev libssl-dev zlib1g-dev libsqlite3-dev libcpp-httplib-dev jq wordnet-base adwaita-icon-theme publicsuffix
  libappstream-dev
)
if [[ "${1:-build}" == test ]]; then
  packages+=(libgtest-dev libgmock-dev clang-14 clang-format-14 libclang-rt-14-dev binutils
                libbenchmark-dev openssl)
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
    missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "installing: ${missing[*]}" >&2
sudo=()
[[ $(id -u) -ne 0 ]] && sudo=(sudo)
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
  "${missing[@]}" >/dev/null

#!/usr/bin/env bash
# Installs what the project needs on Debian 12 (only when missing) and builds
# it. Usage: scripts/setup.sh [build-dir] [extra cmake options...]
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build ccache pkg-config
  libboost-json1.81-dev libboost1.81-dev libboost-filesystem1.81-dev
  libzip-dev libssl-dev libspdlog-dev libplist-dev
  libpango1.0-dev libfontconfig-dev libsdbus-c++-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcairo2-dev libpolyclipping-dev libpng-dev libjpeg62-turbo-dev libdeflate-dev
  dbus-daemon dbus fonts-roboto fonts-open-sans fonts-lato fonts-karla fonts-play fonts-roboto-slab fonts-noto-cjk fonts-noto-cjk-extra
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo=""; [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

build="${1:-build}"; shift || true
export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"
# Relative paths let a fresh clone elsewhere reuse the cache.
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
export CCACHE_SLOPPINESS="${CCACHE_SLOPPINESS:-pch_defines,time_macros,include_file_mtime,include_file_ctime}"
mkdir -p "$build"
# The lock lets this share a build folder with scripts/dev-build.sh.
flock "$build/.dev-build.lock" bash -c '
  build="$1"; shift
  [ -f "$build/build.ninja" ] || cmake -S . -B "$build" -G Ninja "$@" >/dev/null
  cmake --build "$build"
' _ "$build" "$@"

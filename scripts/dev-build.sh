#!/usr/bin/env bash
# Incremental build of chosen targets in the shared ./build folder; the lock
# lets several people (or agents) build from one tree without clashing.
# Usage: scripts/dev-build.sh [target...]
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p build
exec flock build/.dev-build.lock bash -c '
  export CCACHE_BASEDIR="$PWD"
  export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
  [ -f build/build.ninja ] || cmake -S . -B build -G Ninja >/dev/null
  if [ $# -eq 0 ]; then cmake --build build; else cmake --build build --target "$@"; fi
' _ "$@"

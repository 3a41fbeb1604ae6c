#!/usr/bin/env bash
# Builds and runs the whole suite twice: a normal build, then one under
# AddressSanitizer and UndefinedBehaviorSanitizer. Ends with ctest's summary.
set -uo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

scripts/setup.sh build || exit 1
(cd build && ctest --output-on-failure -j "$jobs"); normal=$?

scripts/setup.sh build-asan -DPLEXA_SANITIZE=ON -DPLEXA_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug || exit 1
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=0"
export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
(cd build-asan && ctest --output-on-failure -j "$jobs"); sanitized=$?

[ $normal -eq 0 ] && [ $sanitized -eq 0 ]

#!/usr/bin/env bash
# Builds the library and runs the whole test suite twice: a normal build, and
# a build under AddressSanitizer + UndefinedBehaviorSanitizer (which includes
# LeakSanitizer). Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")"
jobs=${JOBS:-2}

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
(cd build && ctest -j"$jobs" --output-on-failure)

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DORVA_SD_SANITIZE=ON -DORVA_SD_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest -j"$jobs" --output-on-failure)

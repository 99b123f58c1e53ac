#!/usr/bin/env bash
# Sets up a fresh machine, builds the project twice (plain, and with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs the whole test suite in both trees.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs="$(nproc)"

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DSOVA_SANITIZE=address,undefined \
      -DSOVA_BUILD_BENCHMARKS=OFF
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j"$jobs"

# The installed package must be usable by a consumer.
bash scripts/check-install.sh build

#!/usr/bin/env bash
# Builds the project with ThreadSanitizer (build-tsan) and runs the whole test suite there, with
# the false positives of the uninstrumented Qt and system libraries suppressed by
# autotests/tsan.supp. Extra arguments go to ctest (e.g. -R dsp).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSOVA_SANITIZE=thread \
      -DSOVA_BUILD_BENCHMARKS=OFF "${launcher[@]}"
cmake --build build-tsan -j"$jobs"
TSAN_OPTIONS="suppressions=$PWD/autotests/tsan.supp:halt_on_error=1:second_deadlock_stack=1" \
    ctest --test-dir build-tsan --output-on-failure -j"$jobs" "$@"

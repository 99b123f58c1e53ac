#!/usr/bin/env bash
# Sets up a fresh machine, builds the project and runs the sova tool on a built-in example.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DSOVA_BUILD_TESTS=OFF -DSOVA_BUILD_BENCHMARKS=OFF
cmake --build build -j"$(nproc)"
./build/tools/sova/sova version
./build/tools/sova/sova options 'sr=44100,nc=2,name="Take 1, left",gains=[0.5,1]' sr name gains

#!/usr/bin/env bash
# Sets up a fresh machine, builds the project and runs the sova tool on its built-in demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DSOVA_BUILD_TESTS=OFF -DSOVA_BUILD_BENCHMARKS=OFF
cmake --build build -j"$(nproc)"
./build/tools/sova/sova version
# A test signal in every writable format, read back: size and round-trip error of each.
./build/tools/sova/sova demo build/demo
./build/tools/sova/sova info build/demo/demo-17.flac build/demo/demo-27.m4a

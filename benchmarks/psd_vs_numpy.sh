#!/usr/bin/env bash
# Power spectrum per frame: QSovaFft::psd (bench_qsovafft) against numpy.fft.rfft with the same
# window on frames of the same length, in one run. Needs Debian's python3-numpy.
# Usage: benchmarks/psd_vs_numpy.sh [BUILD_DIR]
set -euo pipefail
build="${1:-build}"
bench="$build/benchmarks/bench_qsovafft"
python=/usr/bin/python3
"$python" -c 'import numpy' 2>/dev/null || { echo "python3-numpy is not installed" >&2; exit 1; }

json="$(mktemp)"
trap 'rm -f "$json"' EXIT
"$bench" --benchmark_filter='qsovaFftPsd' --benchmark_format=json --benchmark_out="$json" \
    --benchmark_out_format=json >/dev/null

"$python" - "$json" <<'PY'
import json, sys, timeit
import numpy as np

ours = {int(b["name"].split("/")[1]): b["real_time"] * {"ns": 1, "us": 1e3, "ms": 1e6}[b["time_unit"]]
        for b in json.load(open(sys.argv[1]))["benchmarks"]}
rng = np.random.default_rng(42)
print(f"{'length':>7} {'QSovaFft ns':>12} {'numpy loop ns':>14} {'numpy batch ns':>15} "
      f"{'vs loop':>8} {'vs batch':>9}")
for length in sorted(ours):
    n = np.arange(length)
    x = 2 * np.pi * n / (length - 1)
    window = (0.35875 - 0.48829 * np.cos(x) + 0.14128 * np.cos(2 * x)
              - 0.01168 * np.cos(3 * x)).astype(np.float32)
    frames = rng.normal(0, 0.3, (64, length)).astype(np.float32)

    def loop():
        for frame in frames:
            spectrum = np.fft.rfft(frame * window)
            (spectrum.real ** 2 + spectrum.imag ** 2).astype(np.float32)

    def batch():
        spectrum = np.fft.rfft(frames * window, axis=1)
        (spectrum.real ** 2 + spectrum.imag ** 2).astype(np.float32)

    repeats = max(3, int(2e5 // length))
    per_loop = min(timeit.repeat(loop, number=repeats // 64 + 1, repeat=5)) / ((repeats // 64 + 1) * 64) * 1e9
    per_batch = min(timeit.repeat(batch, number=repeats // 64 + 1, repeat=5)) / ((repeats // 64 + 1) * 64) * 1e9
    print(f"{length:>7} {ours[length]:>12.0f} {per_loop:>14.0f} {per_batch:>15.0f} "
          f"{per_loop / ours[length]:>7.1f}x {per_batch / ours[length]:>8.1f}x")
PY

#!/usr/bin/env bash
# Demultiplexing an 8-channel, 10-minute WAV into eight mono files: one `sova split` against
# eight `sox IN OUT remix N` runs, in one run. The aim: sova faster.
# Usage: benchmarks/split_vs_sox.sh [BUILD_DIR]
set -euo pipefail
build="${1:-build}"
sova="$build/tools/sova/sova"
command -v sox >/dev/null || { echo "sox is not installed" >&2; exit 1; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
sox -n -r 48000 -c 8 -b 16 "$work/in.wav" synth 600 sine 100 sine 200 sine 300 sine 400 \
    sine 500 sine 600 sine 700 sine 800 gain -6

start=$(date +%s.%N)
"$sova" split "$work/in.wav" "$work"/sova{1..8}.wav
mid=$(date +%s.%N)
for n in 1 2 3 4 5 6 7 8; do
    sox "$work/in.wav" "$work/sox$n.wav" remix "$n"
done
end=$(date +%s.%N)
python3 - "$start" "$mid" "$end" <<'PY'
import sys
start, mid, end = map(float, sys.argv[1:])
sova, sox = mid - start, end - mid
print(f"sova split: {sova:.3f} s; 8 x sox remix: {sox:.3f} s; sova is {sox / sova:.2f}x as fast")
PY

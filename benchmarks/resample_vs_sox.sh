#!/usr/bin/env bash
# Resampling a 10-minute stereo WAV from 44.1 kHz to 48 kHz: `sova fx` with a resample effect
# against `sox ... rate -v` (both very high quality), best of three runs each.
# Usage: benchmarks/resample_vs_sox.sh [BUILD_DIR]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
source "$here/lib.sh"
build="${1:-build}"
sova="$build/tools/sova/sova"
command -v sox >/dev/null || { echo "sox is not installed" >&2; exit 1; }
[ -x "$sova" ] || { echo "no $sova: build the sova target first" >&2; exit 1; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
sox -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 600 sine 440 sine 1234.5 gain -6

tsova=$(best "$sova" fx "$work/in.wav" "$work/sova.wav" --chain "resample[sr=48000]")
tsox=$(best sox "$work/in.wav" -r 48000 "$work/sox.wav" rate -v)
"$sova" fx "$work/in.wav" "$work/sova.wav" --chain "resample[sr=48000]" >/dev/null
"$python" - "$tsova" "$tsox" "$(soxi -s "$work/sova.wav")" "$(soxi -s "$work/sox.wav")" <<'PY'
import sys
tsova, tsox = float(sys.argv[1]), float(sys.argv[2])
print(f"sova fx resample: {tsova:.3f} s ({sys.argv[3]} frames); "
      f"sox rate -v: {tsox:.3f} s ({sys.argv[4]} frames); sova is {tsox / tsova:.2f}x as fast")
PY

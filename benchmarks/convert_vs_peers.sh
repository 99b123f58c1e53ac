#!/usr/bin/env bash
# WAV to FLAC conversion of one file: `sova convert` against `sox` and `ffmpeg`, in one run.
# Each tool converts the same 10-minute stereo 16-bit file three times; the best time counts.
# Twice: with each tool's default settings (sox defaults to compression level 8, sova and ffmpeg
# to 5), and with all three at level 8.
# Usage: benchmarks/convert_vs_peers.sh [BUILD_DIR]
set -euo pipefail
source "$(dirname "$0")/lib.sh"
build="${1:-build}"
sova="$build/tools/sova/sova"
for tool in sox ffmpeg; do
    command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
sox -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 600 sine 440 sine 660 gain -6


report() { # label, then the three times
    "$python" - "$@" "$work" <<'PY'
import os, sys
label, sova, sox, ffmpeg, work = sys.argv[1], *map(float, sys.argv[2:5]), sys.argv[5]
size = lambda name: os.path.getsize(os.path.join(work, name)) / 1e6
print(label)
print(f"  {'tool':8} {'seconds':>8} {'MB':>7} {'time / sova':>12}")
for name, t in (("sova", sova), ("sox", sox), ("ffmpeg", ffmpeg)):
    print(f"  {name:8} {t:8.3f} {size(name + '.flac'):7.2f} {t / sova:12.2f}")
PY
}

t_sova=$(best "$sova" convert -q "$work/in.wav" "$work/sova.flac")
t_sox=$(best sox "$work/in.wav" "$work/sox.flac")
t_ffmpeg=$(best ffmpeg -nostdin -y -loglevel error -i "$work/in.wav" "$work/ffmpeg.flac")
report "default settings" "$t_sova" "$t_sox" "$t_ffmpeg"

t_sova=$(best "$sova" convert -q --format 'flac[quality=8]' "$work/in.wav" "$work/sova.flac")
t_sox=$(best sox "$work/in.wav" -C 8 "$work/sox.flac")
t_ffmpeg=$(best ffmpeg -nostdin -y -loglevel error -i "$work/in.wav" -compression_level 8 \
    "$work/ffmpeg.flac")
report "compression level 8" "$t_sova" "$t_sox" "$t_ffmpeg"

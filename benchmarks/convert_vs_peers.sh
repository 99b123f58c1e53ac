#!/usr/bin/env bash
# WAV to FLAC conversion of one file: `sova convert` against `sox` and `ffmpeg`, in one run.
# Each tool converts the same 10-minute stereo 16-bit file three times; the best time counts.
# Usage: benchmarks/convert_vs_peers.sh [BUILD_DIR]
set -euo pipefail
build="${1:-build}"
sova="$build/tools/sova/sova"
for tool in sox ffmpeg; do
    command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
sox -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 600 sine 440 sine 660 gain -6

best() { # best of three wall-clock times in seconds of the command
    local best=""
    for _ in 1 2 3; do
        local start end
        start=$(date +%s.%N)
        "$@" >/dev/null 2>&1
        end=$(date +%s.%N)
        best=$(python3 -c "import sys; t=$end-$start; b='$best'; print(t if not b or t<float(b) else b)")
    done
    echo "$best"
}

t_sova=$(best "$sova" convert -q "$work/in.wav" "$work/sova.flac")
t_sox=$(best sox "$work/in.wav" "$work/sox.flac")
t_ffmpeg=$(best ffmpeg -nostdin -y -loglevel error -i "$work/in.wav" "$work/ffmpeg.flac")
python3 - "$t_sova" "$t_sox" "$t_ffmpeg" "$work" <<'PY'
import os, sys
sova, sox, ffmpeg = map(float, sys.argv[1:4])
work = sys.argv[4]
size = lambda name: os.path.getsize(os.path.join(work, name)) / 1e6
print(f"{'tool':8} {'seconds':>8} {'MB':>7} {'sova speed-up':>14}")
for name, t, f in (("sova", sova, "sova.flac"), ("sox", sox, "sox.flac"), ("ffmpeg", ffmpeg, "ffmpeg.flac")):
    print(f"{name:8} {t:8.3f} {size(f):7.2f} {t / sova:14.2f}")
PY

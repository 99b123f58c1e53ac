#!/usr/bin/env bash
# Decoding MP3 and ADTS AAC: `sova convert` against `ffmpeg`, in one run. Each tool decodes the
# same 10-minute stereo file into a float WAV three times (the same work on both sides: decode,
# convert to interleaved float, write); the best time counts.
# Usage: benchmarks/decode_vs_ffmpeg.sh [BUILD_DIR]
set -euo pipefail
source "$(dirname "$0")/lib.sh"
build="${1:-build}"
sova="$build/tools/sova/sova"
command -v ffmpeg >/dev/null || { echo "ffmpeg is not installed" >&2; exit 1; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
ffmpeg -nostdin -loglevel error -f lavfi -i "sine=frequency=440:duration=600" \
    -f lavfi -i "anoisesrc=duration=600:amplitude=0.1" -filter_complex amerge=inputs=2 \
    -ar 44100 "$work/in.wav"
ffmpeg -nostdin -loglevel error -i "$work/in.wav" -c:a libmp3lame -b:a 192k "$work/in.mp3"
ffmpeg -nostdin -loglevel error -i "$work/in.wav" -c:a aac -b:a 192k "$work/in.aac"

printf '%-10s %10s %10s %16s\n' "stream" "sova s" "ffmpeg s" "sova / ffmpeg"
for stream in mp3 aac; do
    t_sova=$(best "$sova" convert -q --format 'wav[codec=float]' "$work/in.$stream" \
        "$work/sova.wav")
    t_ffmpeg=$(best ffmpeg -nostdin -y -loglevel error -i "$work/in.$stream" -c:a pcm_f32le \
        "$work/ffmpeg.wav")
    "$python" -c "print(f'{\"$stream\":10} {$t_sova:10.3f} {$t_ffmpeg:10.3f} {$t_sova / $t_ffmpeg:16.2f}')"
done

#!/usr/bin/env bash
# Real-world files against ffmpeg, in one run: a corpus made with sox and ffmpeg (VBR MP3
# without a Xing header, concatenated streams, one-byte damage and truncation of each
# compressed container, 5.1 with dialogue in the centre), each decoded by `sova convert` into
# float WAV and by ffmpeg; prints frames and per-channel RMS levels of both, and sova's exit
# status and warnings.
# Usage: scripts/compare_with_ffmpeg.sh [BUILD_DIR]
set -euo pipefail
build="${1:-build}"
sova="$(cd "$build" && pwd)/tools/sova/sova"
python="${python:-/usr/bin/python3}"
for tool in sox ffmpeg; do
    command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"
ff() { ffmpeg -nostdin -y -loglevel error "$@"; }

# Sources: 90 s whose first 15 s are loud; two different 10 s tones; a 5.1 file whose centre
# alone carries a tone.
sox -n -r 44100 -c 2 loud.wav synth 15 sine 440 gain -1
sox -n -r 44100 -c 2 quiet.wav synth 75 sine 440 gain -40
sox loud.wav quiet.wav long.wav
sox -n -r 44100 -c 2 a.wav synth 10 sine 330 gain -6
sox -n -r 44100 -c 2 b.wav synth 10 sine 550 gain -12
sox -n -r 48000 -c 2 tone.wav synth 20 sine 440 gain -6
ff -f lavfi -i "sine=frequency=1000:duration=10:sample_rate=48000" \
    -filter_complex "[0]volume=0.5,pan=5.1|FC=c0[o]" -map "[o]" -c:a pcm_s16le centre51.wav

ff -i long.wav -c:a libmp3lame -q:a 2 -write_xing 0 vbr-no-xing.mp3
for codec in "ac3 ac3" "mp3 libmp3lame" "aac aac"; do
    set -- $codec
    ext=$1
    [ "$ext" = aac ] && fmt=(-f adts) || fmt=()
    ff -i a.wav -c:a "$2" "${fmt[@]}" "a.$ext"
    ff -i b.wav -c:a "$2" "${fmt[@]}" "b.$ext"
    cat "a.$ext" "b.$ext" > "concatenated.$ext"
done
ff -i tone.wav -c:a flac src.flac
ff -i tone.wav -c:a libmp3lame -b:a 128k src.mp3
ff -i tone.wav -c:a libvorbis src.ogg
ff -i tone.wav -c:a libopus src.opus
ff -i tone.wav -c:a aac -movflags +faststart src.m4a
for ext in flac mp3 ogg opus m4a; do
    size=$(stat -c %s "src.$ext")
    cp "src.$ext" "damaged.$ext"
    # One byte flipped in the middle of the file.
    "$python" - "damaged.$ext" "$((size / 2))" <<'PY'
import sys
path, at = sys.argv[1], int(sys.argv[2])
data = bytearray(open(path, 'rb').read())
data[at] ^= 0xFF
open(path, 'wb').write(data)
PY
    head -c "$((size * 6 / 10))" "src.$ext" > "truncated.$ext"
done

levels() { # file: frames and per-channel RMS (dBFS) of ffmpeg's decode as floats
    "$python" - "$1" <<'PY'
import subprocess, sys, json
import numpy as np
path = sys.argv[1]
probe = json.loads(subprocess.run(["ffprobe", "-v", "error", "-select_streams", "a:0",
    "-show_entries", "stream=channels", "-of", "json", path], capture_output=True).stdout or "{}")
streams = probe.get("streams") or [{}]
ch = int(streams[0].get("channels", 0) or 0)
raw = subprocess.run(["ffmpeg", "-nostdin", "-v", "quiet", "-i", path, "-f", "f32le",
    "-acodec", "pcm_f32le", "-"], capture_output=True).stdout
if ch == 0 or not raw:
    print("- -"); sys.exit()
x = np.frombuffer(raw, dtype="<f4").reshape(-1, ch).astype(np.float64)
rms = np.sqrt(np.mean(x * x, axis=0)) if len(x) else np.zeros(ch)
db = ["%.1f" % (20 * np.log10(r)) if r > 0 else "-inf" for r in rms]
print(len(x), "/".join(db))
PY
}

printf '%-26s %-5s %10s %10s  %-28s %-28s %s\n' case exit sova ffmpeg "sova RMS dB" "ffmpeg RMS dB" \
    "sova's warning"
row() { # label, source, sova options, ffmpeg options[, ffmpeg's output codec]
    local label=$1 src=$2 sovaopts=$3 ffopts=$4 ffcodec=${5:-pcm_f32le} status=0
    "$sova" convert -q $sovaopts "$src" sova.wav 2> err.txt || status=$?
    local ours theirs
    if [ "$status" = 0 ]; then ours=$(levels sova.wav); else ours="- -"; fi
    ff -i "$src" $ffopts -c:a "$ffcodec" ffmpeg.wav 2>/dev/null || true
    theirs=$(levels ffmpeg.wav)
    rm -f sova.wav ffmpeg.wav
    set -- $ours $theirs
    printf '%-26s %-5s %10s %10s  %-28s %-28s %s\n' "$label" "$status" "$1" "$3" "$2" "$4" \
        "$(head -n 1 err.txt | cut -c1-90)"
}

row "VBR MP3 without Xing" vbr-no-xing.mp3 "" ""
for ext in ac3 mp3 aac; do
    row "concatenated $ext" "concatenated.$ext" "" ""
done
for ext in flac mp3 ogg opus m4a; do
    row "one byte damaged, $ext" "damaged.$ext" "" ""
    row "truncated, $ext" "truncated.$ext" "" ""
done
# ffmpeg normalises its down-mix matrix only when it writes integers.
row "5.1 centre -> stereo" centre51.wav "--channels 2" "-ac 2" pcm_s16le
row "5.1 centre -> mono" centre51.wav "--channels 1" "-ac 1" pcm_s16le

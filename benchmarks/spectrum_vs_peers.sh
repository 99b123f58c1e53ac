#!/usr/bin/env bash
# Average power spectrum of one 10-minute stereo 16-bit file, in one run:
#   sova    sova spectrum FILE --fft 4096 --csv /dev/null (4096-point frames, step 2048,
#           Blackman-Harris window, each channel averaged, one CSV table)
#   sox     sox FILE -n stat -freq: sox picks its own FFT size (4096 points, taken over the
#           interleaved samples of all channels) and prints the spectrum of every block as
#           text, without averaging; its output goes to /dev/null
#   scipy   scipy.signal.welch(nperseg=4096, window blackmanharris, 50% overlap) on each
#           channel of the file as scipy.io.wavfile reads it, the table written to /dev/null;
#           the time includes starting Python and importing SciPy
# Each command runs three times; the best wall-clock time counts.
# Usage: benchmarks/spectrum_vs_peers.sh [BUILD_DIR]
set -euo pipefail
source "$(dirname "$0")/lib.sh"
build="${1:-build}"
sova="$build/tools/sova/sova"
[ -x "$sova" ] || { echo "no $sova: build the sova target first" >&2; exit 1; }
command -v sox >/dev/null || { echo "sox is not installed" >&2; exit 1; }
"$python" -c "import scipy.signal, scipy.io.wavfile" 2>/dev/null \
    || { echo "SciPy is not installed (apt-get install python3-scipy)" >&2; exit 1; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
# A tone on the left, pink noise on the right.
sox -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 600 sine 440 pinknoise gain -6

cat >"$work/welch.py" <<'PY'
import sys
import numpy as np
from scipy.io import wavfile
from scipy.signal import welch

rate, data = wavfile.read(sys.argv[1])
data = data.astype(np.float32) / 32768.0
columns = []
for channel in range(data.shape[1]):
    freqs, power = welch(data[:, channel], fs=rate, window="blackmanharris", nperseg=4096,
                         noverlap=2048, scaling="spectrum")
    # "spectrum" scaling gives a sine of amplitude A as A^2 / 2: twice that is sova's scale,
    # on which a full-scale sine reads 0 dB.
    columns.append(10.0 * np.log10(np.maximum(2.0 * power, 1e-16)))
np.savetxt(sys.argv[2], np.column_stack([freqs] + columns), delimiter=",", fmt="%.3f")
PY


# Each tool must succeed once before it is timed.
"$sova" spectrum "$work/in.wav" --fft 4096 --csv "$work/sova.csv"
sox "$work/in.wav" -n stat -freq 2>/dev/null
"$python" "$work/welch.py" "$work/in.wav" "$work/scipy.csv"

t_sova=$(best "$sova" spectrum "$work/in.wav" --fft 4096 --csv /dev/null)
t_sox=$(best sox "$work/in.wav" -n stat -freq)
t_scipy=$(best "$python" "$work/welch.py" "$work/in.wav" /dev/null)

"$python" - "$t_sova" "$t_sox" "$t_scipy" "$work" <<'PY'
import sys
import numpy as np
sova, sox, scipy_t, work = *map(float, sys.argv[1:4]), sys.argv[4]
print("Average spectrum of 600 s of 44.1 kHz stereo, 4096-point FFT")
print(f"  {'tool':6} {'seconds':>8} {'time / sova':>12}")
for name, t in (("sova", sova), ("sox", sox), ("scipy", scipy_t)):
    print(f"  {name:6} {t:8.3f} {t / sova:12.2f}")
# The two averaged tables should agree where the signal is: the 440 Hz tone's level.
a = np.loadtxt(f"{work}/sova.csv", delimiter=",", skiprows=1)
b = np.loadtxt(f"{work}/scipy.csv", delimiter=",")
print(f"  440 Hz tone, channel 1: sova {a[:, 1].max():.2f} dB, scipy {b[:, 1].max():.2f} dB")
PY

#!/usr/bin/python3
"""Builds a small labelled corpus for measuring voice activity detectors.

Speech: English sentences from espeak-ng in two voices and two speeds, joined with pauses of
0.4 to 1.2 s after a 1 s lead-in, at 16 kHz. Labels, one per 20 ms frame: speech where the
clean speech frame is within 35 dB of the loud frames (95th percentile of frame energy), with
gaps shorter than 100 ms inside words bridged. The labels come from the clean signal's energy,
not from espeak-ng's phoneme events.

Noise: white, pink (1/f) and "music" (piano-like tones of two or three notes, changing every
0.3 to 0.8 s, with harmonics and decay), mixed at 20, 10, 5 and 0 dB SNR (speech power over
the labelled speech frames against the noise's mean power). Noise alone, 10 s of each kind,
measures false alarms.

Two disjoint sets share the method but nothing else: A (the default, for tuning) and B (for
reporting), with their own sentences, voices, speeds, pitches, pauses, note ranges, tempi and
random seeds.

Usage: vad-corpus.py [--set A|B] OUTDIR   (writes OUTDIR/<noise>_<snr>.wav, noise_<kind>.wav,
labels.txt with one 0/1 character per frame, and clean.wav)
"""
import os
import subprocess
import sys
import tempfile
import wave

import numpy as np

RATE = 16000
HOP = 320
SETS = {}
SETS["A"] = dict(seed=1, pitches=[50, 50, 50], low=110.0, notes=(0.3, 0.8), decay=3.0, sentences=[
    "The quick brown fox jumps over the lazy dog near the river bank.",
    "Please call Stella and ask her to bring these things with her from the store.",
    "Six spoons of fresh snow peas, five thick slabs of blue cheese.",
    "We also need a small plastic snake and a big toy frog for the kids.",
    "She can scoop these things into three red bags, and we will go meet her.",
    "On Wednesday at four o'clock the committee will vote on the new budget.",
], voices=[("en-us", 160), ("en-gb+f3", 190), ("en-us+m3", 140)])
SETS["B"] = dict(seed=7, pitches=[35, 70, 55, 45], low=82.4, notes=(0.2, 1.1), decay=1.5, sentences=[
    "A large yellow kettle whistled loudly while the children were painting outside.",
    "My grandmother kept every letter in a wooden box beneath her bed.",
    "Turn left at the bakery, then walk two blocks until you reach the harbour.",
    "Heavy rain delayed the morning train by almost forty minutes today.",
    "Could you remind Oliver that the meeting moved to Thursday afternoon?",
    "Bright orange lanterns floated slowly across the quiet lake at midnight.",
    "I think the museum opens at nine, but the gardens close much earlier.",
], voices=[("en-gb", 175), ("en-us+f2", 150), ("en-gb+m1", 200), ("en-us+f4", 130)])
SNRS = [20, 10, 5, 0]
KINDS = ["white", "pink", "music"]


def read_wav(path):
    with wave.open(path) as w:
        rate, n = w.getframerate(), w.getnframes()
        data = np.frombuffer(w.readframes(n), dtype=np.int16).astype(np.float64) / 32768.0
        if w.getnchannels() > 1:
            data = data[:: w.getnchannels()]
    return rate, data


def write_wav(path, data):
    pcm = np.clip(np.round(data * 32767.0), -32768, 32767).astype(np.int16)
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(pcm.tobytes())


def resample(data, rate):
    from scipy.signal import resample_poly
    from math import gcd
    g = gcd(RATE, rate)
    return resample_poly(data, RATE // g, rate // g)


def speech(rng, tmp, cfg):
    parts = [np.zeros(RATE)]
    voices, pitches = cfg["voices"], cfg["pitches"]
    for i, text in enumerate(cfg["sentences"]):
        voice, speed = voices[i % len(voices)]
        pitch = pitches[i % len(pitches)]
        path = os.path.join(tmp, f"s{i}.wav")
        subprocess.run(["espeak-ng", "-v", voice, "-s", str(speed), "-p", str(pitch), "-w",
                        path, text], check=True)
        rate, data = read_wav(path)
        data = resample(data, rate)
        parts.append(0.3 * data / np.max(np.abs(data)))
        parts.append(np.zeros(int(RATE * rng.uniform(0.4, 1.2))))
    clean = np.concatenate(parts)
    return clean[: len(clean) // HOP * HOP]


def labels_of(clean):
    frames = clean.reshape(-1, HOP)
    energy = 10 * np.log10(np.mean(frames ** 2, axis=1) + 1e-12)
    loud = np.percentile(energy, 95)
    label = energy > loud - 35
    # Bridge short gaps (stops and closures inside words): fewer than 5 frames.
    on = np.flatnonzero(label)
    for a, b in zip(on[:-1], on[1:]):
        if 1 < b - a <= 5:
            label[a:b] = True
    return label


def noise(kind, n, rng, cfg):
    if kind == "white":
        return rng.standard_normal(n)
    if kind == "pink":
        spectrum = np.fft.rfft(rng.standard_normal(n))
        f = np.arange(len(spectrum))
        spectrum[1:] /= np.sqrt(f[1:])
        spectrum[0] = 0
        return np.fft.irfft(spectrum, n)
    out = np.zeros(n)
    at = 0
    while at < n:
        length = int(RATE * rng.uniform(*cfg["notes"]))
        t = np.arange(length) / RATE
        for _ in range(rng.integers(2, 4)):
            f0 = cfg["low"] * 2 ** (rng.integers(0, 36) / 12)
            tone = sum(np.sin(2 * np.pi * h * f0 * t) / h ** 1.5 for h in range(1, 7)
                       if h * f0 < RATE / 2)
            out[at : at + length] += (tone * np.exp(-cfg["decay"] * t))[: n - at]
        at += length
    return out


def main():
    import argparse
    parser = argparse.ArgumentParser(description="Builds a labelled voice activity corpus.")
    parser.add_argument("--set", choices=sorted(SETS), default="A")
    parser.add_argument("out")
    args = parser.parse_args()
    cfg, out = SETS[args.set], args.out
    os.makedirs(out, exist_ok=True)
    rng = np.random.default_rng(cfg["seed"])
    with tempfile.TemporaryDirectory() as tmp:
        clean = speech(rng, tmp, cfg)
    label = labels_of(clean)
    speech_power = np.mean(clean.reshape(-1, HOP)[label] ** 2)
    write_wav(os.path.join(out, "clean.wav"), clean)
    with open(os.path.join(out, "labels.txt"), "w") as f:
        f.write("".join("1" if v else "0" for v in label) + "\n")
    for kind in KINDS:
        n = noise(kind, len(clean), rng, cfg)
        n /= np.sqrt(np.mean(n ** 2))
        for snr in SNRS:
            mix = clean + n * np.sqrt(speech_power / 10 ** (snr / 10))
            mix *= min(1.0, 0.9 / np.max(np.abs(mix)))
            write_wav(os.path.join(out, f"{kind}_{snr}.wav"), mix)
        alone = noise(kind, 10 * RATE, rng, cfg)
        alone *= np.sqrt(speech_power / 10 ** (10 / 10)) / np.sqrt(np.mean(alone ** 2))
        write_wav(os.path.join(out, f"noise_{kind}.wav"), alone)
    print(f"{len(label)} frames, {label.mean():.0%} speech, in {out}")


if __name__ == "__main__":
    main()

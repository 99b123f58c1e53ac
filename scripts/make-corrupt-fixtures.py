#!/usr/bin/env python3
"""Writes the small corrupt and truncated audio files of autotests/data/corrupt/.

Each must fail to open, or read to a clean end, with a message; none may crash the engine,
hang it, or make it allocate what a header field asks for. Run from anywhere; the output is
deterministic, so the files only change when this script does. Inputs the fuzz target found
(fuzz/fuzz_audiofile.cpp) are kept beside them as found, under a name saying what they hold."""
import os
import random
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "..", "autotests", "data", "corrupt")


def fmt_chunk(channels=1, rate=8000, bits=16, tag=1):
    block = channels * bits // 8
    body = struct.pack("<HHIIHH", tag, channels, rate, (rate * block) & 0xFFFFFFFF,
                       block & 0xFFFF, bits)
    return b"fmt " + struct.pack("<I", len(body)) + body


def wav(chunks, riff_size=None):
    body = b"WAVE" + b"".join(chunks)
    size = len(body) if riff_size is None else riff_size
    return b"RIFF" + struct.pack("<I", size) + body


def data_chunk(payload, declared=None):
    size = len(payload) if declared is None else declared
    return b"data" + struct.pack("<I", size) + payload


def main():
    os.makedirs(OUT, exist_ok=True)
    rnd = random.Random(20240601)
    samples = bytes(rnd.randrange(256) for _ in range(200))
    files = {
        "truncated-header.wav": wav([fmt_chunk()])[:22],
        "huge-data-chunk.wav": wav([fmt_chunk(), data_chunk(samples[:10], 0xFFFFFFF0)]),
        "many-channels.wav": wav([fmt_chunk(channels=65535), data_chunk(samples)]),
        "zero-rate.wav": wav([fmt_chunk(rate=0), data_chunk(samples)]),
        "random.bin": bytes(rnd.randrange(256) for _ in range(2048)),
        # "fLaC", then a STREAMINFO block header announcing 34 bytes and only 10 of them.
        "short-header.flac": b"fLaC" + bytes([0x80, 0, 0, 34]) + samples[:10],
        # An MPEG-1 Layer III frame header (128 kbit/s, 44.1 kHz) followed by garbage.
        "garbage-frame.mp3": b"\xff\xfb\x90\x64" + bytes(rnd.randrange(256) for _ in range(600)),
        "empty.wav": b"",
        "riff-only.wav": b"RIFF",
    }
    for name, content in files.items():
        assert len(content) < 4096, name
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(content)


if __name__ == "__main__":
    main()

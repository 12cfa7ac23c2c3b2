#!/usr/bin/env python3
"""Writes hostile audio files that seed the qvdfx fuzzer: truncated headers,
0 and 65535 channels, rate 0, NaN samples, huge chunk sizes."""
import math
import os
import struct
import sys

out = sys.argv[1]
os.makedirs(out, exist_ok=True)


def wav(channels, rate, bits, fmt_code, frames, data=None, data_size=None, riff_size=None):
    block = (channels * bits // 8) & 0xFFFF
    if data is None:
        data = b"".join(
            struct.pack("<h", int(8000 * math.sin(i / 5.0))) if bits == 16 else struct.pack("<f", math.sin(i / 5.0))
            for i in range(frames * max(channels, 1)))
    fmt = struct.pack("<HHIIHH", fmt_code, channels, rate, (rate * block) & 0xFFFFFFFF, block, bits)
    body = b"WAVE" + b"fmt " + struct.pack("<I", len(fmt)) + fmt
    body += b"data" + struct.pack("<I", len(data) if data_size is None else data_size) + data
    return b"RIFF" + struct.pack("<I", len(body) if riff_size is None else riff_size) + body


def write(name, content, mode=0):
    # First byte 0: the rest is an audio file for "process".
    with open(os.path.join(out, name), "wb") as f:
        f.write(bytes([mode]) + content)


good = wav(2, 48000, 16, 1, 64)
write("good.wav", good)
write("truncated-header", good[:30])
write("truncated-data", good[:-17])
write("zero-channels", wav(0, 48000, 16, 1, 8, data=b"\0" * 32))
write("many-channels", wav(65535, 48000, 16, 1, 0, data=b"\0" * 64))
write("rate-zero", wav(2, 0, 16, 1, 16))
nan = struct.pack("<f", float("nan"))
write("nan-samples", wav(2, 44100, 32, 3, 32, data=(nan + struct.pack("<f", 1e30)) * 32))
write("huge-data-chunk", wav(1, 48000, 16, 1, 16, data_size=0xFFFFFFF0))
write("huge-riff", wav(1, 48000, 16, 1, 16, riff_size=0xFFFFFFFF))
write("empty", b"")
# Odd byte: a command line, words split at NUL.
for i, line in enumerate([
        ["list", "--json"], ["params", "Gain", "--json"], ["process", "a.wav", "b.wav", "-p", "Gain", "--set", "GAIN=3"],
        ["process", "a.wav", "b.wav", "-p", "Gain", "--block", "0"], ["list", "--kind", "control"]]):
    write("args-%d" % i, b"\0".join(w.encode() for w in line), mode=1)

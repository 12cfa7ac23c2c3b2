#!/usr/bin/env python3
"""Designs the fixed polyphase tables and writes ResampleTables.cpp.

Every resampling table is a Kaiser-windowed sinc with its cut-off at half the
low rate, so each one is an L-th band filter: the phase holding the centre tap
is an exact delay, and the transition band sits symmetrically around half the
low rate. The prototype has N - 1 non-zero taps centred on tap N / 2 (tap 0 is
zero), which makes every converter's delay a whole number of input frames.
Taps at the same distance either side of the centre are equal to the bit: the
x2 downsampler's fast kernels add each mirrored pair of inputs before the one
multiply, and are only chosen for a table with that shape.

Tables are stored tap-major and time-reversed, with g[L * t + p] as tap t of
phase p. An upsampler's phase p makes output phase p, so only the taps are
reversed: entry L * (K - 1 - t) + p holds tap t of phase p. A downsampler
reads its input straight through the whole prototype: entry j holds
g[N - 1 - j]. Downsampler tables have unit gain, upsampler tables gain L.

Usage: design_tables.py [output.cpp]   (default: ../ResampleTables.cpp)
Standard library only.
"""

import math
import os
import struct
import sys


def f32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def f32_from_bits(bits):
    return struct.unpack("<f", struct.pack("<I", bits))[0]


def bessel_i0(x):
    s, term, k = 1.0, 1.0, 1
    while term > 1e-20 * s:
        term *= (x / (2.0 * k)) ** 2
        s += term
        k += 1
    return s


def kaiser_beta(atten_db):
    if atten_db > 50.0:
        return 0.1102 * (atten_db - 8.7)
    if atten_db >= 21.0:
        return 0.5842 * (atten_db - 21.0) ** 0.4 + 0.07886 * (atten_db - 21.0)
    return 0.0


def prototype(n, factor, atten_db, gain):
    """N taps at the high rate with DC gain `gain`."""
    beta = kaiser_beta(atten_db)
    centre = n // 2
    half = centre - 1  # taps 1 .. n-1 are inside the window
    i0b = bessel_i0(beta)
    g = [0.0] * n
    for j in range(1, n):
        d = j - centre
        if d == 0:
            s = 1.0
        elif d % factor == 0:
            s = 0.0  # exact zeros keep the centre phase a pure delay
        else:
            a = math.pi * d / factor
            s = math.sin(a) / a
        r = d / half if half else 0.0
        w = bessel_i0(beta * math.sqrt(max(0.0, 1.0 - r * r))) / i0b
        g[j] = f32(s * w * gain / factor)
    for d in range(1, centre):
        assert g[centre + d] == g[centre - d], "prototype not symmetric at %d" % d
    return g


def response_db(g, f, gain):
    """|G(f)| / gain in dB, f as a fraction of the high rate."""
    re = im = 0.0
    for j, c in enumerate(g):
        if c:
            a = 2.0 * math.pi * f * j
            re += c * math.cos(a)
            im -= c * math.sin(a)
    m = math.hypot(re, im) / gain
    return 20.0 * math.log10(max(m, 1e-30))


def measure(g, factor, gain, pass_edge, stop_edge, points=1500):
    """Edges as fractions of the low rate; returns (ripple dB, attenuation dB)."""
    ripple = 0.0
    for i in range(points + 1):
        f = pass_edge * i / points / factor
        ripple = max(ripple, abs(response_db(g, f, gain)))
    worst = -1e9
    top = 0.5 * factor  # the high rate's Nyquist, in low-rate units
    for i in range(points * factor + 1):
        f = (stop_edge + (top - stop_edge) * i / (points * factor)) / factor
        worst = max(worst, response_db(g, f, gain))
    return ripple, -worst


def stored(g, factor, down):
    if down:
        return list(reversed(g))
    taps = len(g) // factor
    out = [0.0] * len(g)
    for t in range(taps):
        for p in range(factor):
            out[factor * (taps - 1 - t) + p] = g[factor * t + p]
    return out


# (name, N, L, downsampler, target attenuation dB, passband edge, stopband
# edge) with the edges as fractions of the low rate, symmetric around 0.5.
TABLES = [
    ("kUpsampler_x2", 96, 2, False, 100.0, 0.432, 0.568),
    ("kUpsampler_x2_short", 64, 2, False, 80.0, 0.419, 0.581),
    ("kDownsampler_x2", 192, 2, True, 110.0, 0.4626, 0.5374),
    ("kUpsampler_x4", 192, 4, False, 100.0, 0.432, 0.568),
    ("kDownsampler_x4", 384, 4, True, 110.0, 0.4626, 0.5374),
    ("kUpsampler_x8", 384, 8, False, 100.0, 0.432, 0.568),
]

# ITU-R BS.1770-4 Annex 2, 4x true-peak interpolation: 4 phases of 12 taps.
BS1770_PHASES = [
    [0.0017089843750, 0.0109863281250, -0.0196533203125, 0.0332031250000,
     -0.0594482421875, 0.1373291015625, 0.9721679687500, -0.1022949218750,
     0.0476074218750, -0.0266113281250, 0.0148925781250, -0.0083007812500],
    [-0.0291748046875, 0.0292968750000, -0.0517578125000, 0.0891113281250,
     -0.1665039062500, 0.4650878906250, 0.7797851562500, -0.2003173828125,
     0.1015625000000, -0.0582275390625, 0.0330810546875, -0.0189208984375],
    [-0.0189208984375, 0.0330810546875, -0.0582275390625, 0.1015625000000,
     -0.2003173828125, 0.7797851562500, 0.4650878906250, -0.1665039062500,
     0.0891113281250, -0.0517578125000, 0.0292968750000, -0.0291748046875],
    [-0.0083007812500, 0.0148925781250, -0.0266113281250, 0.0476074218750,
     -0.1022949218750, 0.9721679687500, 0.1373291015625, -0.0594482421875,
     0.0332031250000, -0.0196533203125, 0.0109863281250, 0.0017089843750],
]


def true_peak_table():
    taps, phases = 12, 4
    out = [0.0] * 48
    for p in range(phases):
        for t in range(taps):
            v = BS1770_PHASES[p][t]
            if abs(v) == 0.001708984375:
                # Kept one step below 2^-9 * 0.875 on purpose: meters built on
                # this table must read bit-identically.
                v = math.copysign(f32_from_bits(0x3ADFFFFD), v)
            out[phases * (taps - 1 - t) + p] = f32(v)
    return out


def literal(x):
    if x == 0.0:
        return "0.0f"
    s = "%.9g" % x
    assert f32(float(s)) == x
    if "e" not in s and "." not in s:
        s += ".0"
    return s + "f"


def emit_array(lines, name, values, per_line):
    lines.append("alignas(32) const float %s[%d] = {" % (name, len(values)))
    for i in range(0, len(values), per_line):
        lines.append("    " + ", ".join(literal(v) for v in values[i:i + per_line]) + ",")
    lines.append("};")
    lines.append("")


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "ResampleTables.cpp")
    figures = []
    arrays = []
    for name, n, factor, down, atten, fp, fs in TABLES:
        gain = 1.0 if down else float(factor)
        g = prototype(n, factor, atten, gain)
        ripple, stop = measure(g, factor, gain, fp, fs)
        figures.append("// %-20s N=%3d L=%d K=%2d  passband 0..%.4f fs, ripple +-%.2g dB;"
                       " stopband from %.4f fs, %.1f dB; delay %d frames at fs"
                       % (name, n, factor, n // factor, fp, ripple, fs, stop, n // (2 * factor)))
        arrays.append((name, stored(g, factor, down), factor))
    lines = [
        "// Generated by tools/design_tables.py; edit the generator, not this file.",
        "//",
        "// Kaiser-windowed sinc, L-th band: cut-off at half the low rate, centre",
        "// phase an exact delay. fs is the low rate (input of an upsampler, output",
        "// of a downsampler). Figures measured on the float coefficients:",
    ]
    lines += figures
    lines += [
        "// kUpsamplerTruePeak_x4 ITU-R BS.1770-4 Annex 2 (48 taps, 4 phases), with",
        "//                      +-0.001708984375 stored as bits 0x3ADFFFFD.",
        "//",
        "// Stored time-reversed, tap t of phase p being prototype tap L * t + p:",
        "// upsampler entry L * (K - 1 - t) + p is tap t of phase p (phases keep",
        "// their order, each makes its own output phase); downsampler entry j is",
        "// prototype tap N - 1 - j. Upsamplers have gain L, downsamplers 1.",
        "",
        '#include "Algorithms/Resample/ResampleTables.h"',
        "",
        "namespace twa::numeric::tables {",
        "",
    ]
    for name, values, factor in arrays:
        emit_array(lines, name, values, max(factor, 4))
    emit_array(lines, "kUpsamplerTruePeak_x4", true_peak_table(), 4)
    lines.append("} // namespace twa::numeric::tables")
    with open(path, "w", encoding="utf-8") as f:
        f.write("\n".join(lines) + "\n")
    for line in figures:
        print(line[3:])


if __name__ == "__main__":
    main()

#pragma once
// The SIMD polyphase kernels, written once and built per instruction set.
// The including file defines TWA_ISA and TWA_RESAMPLE_LANES (4 or 8) and
// includes the matching twa_simd_m128.h / twa_simd_m256.h first.
//
// Lanes run across frames (and across the two channels of a stereo frame),
// never across taps: each lane sums its taps in the reference's order, so
// the non-FMA builds match the reference bit for bit (all but the half-band
// kernels at the end, which sum mirrored pairs).

#ifndef TWA_ISA
#error "define TWA_ISA before including a SIMD header"
#endif
#if !defined(TWA_RESAMPLE_LANES) || (TWA_RESAMPLE_LANES != 4 && TWA_RESAMPLE_LANES != 8)
#error "define TWA_RESAMPLE_LANES as 4 or 8"
#endif

#include "System/simd/twa_simd_kernel.h"

#include <cstddef>
#include <type_traits>
#include <utility>

namespace twa::numeric::TWA_ISA::polyphase {

using namespace twa::simd::TWA_ISA;

static_assert(V::W == TWA_RESAMPLE_LANES, "lane count does not match the vector header");

// a * b + c, one rounding only in FMA builds (like madd on vectors).
inline float madd1(float a, float b, float c)
{
#if defined(__FMA__)
    return _mm_cvtss_f32(_mm_fmadd_ss(_mm_set_ss(a), _mm_set_ss(b), _mm_set_ss(c)));
#else
    return a * b + c;
#endif
}

#if TWA_RESAMPLE_LANES == 4
inline void store2(float* out, __m128 a) { _mm_storeu_ps(out, a); }

// acc[p] holds phase p; lanes are frames (C = 1) or frames of channel pairs
// (C = 2). Writes the frames phase after phase.
template <std::size_t L, std::size_t C>
inline void storeFrames(V* acc, float* out)
{
    if constexpr (C == 1 && L == 2) {
        V lo, hi;
        interleave2(acc[0], acc[1], lo, hi);
        store(out, lo);
        store(out + 4, hi);
    } else if constexpr (C == 1 && L == 4) {
        transpose4inLanes(acc[0], acc[1], acc[2], acc[3]);
        for (std::size_t i = 0; i < 4; ++i)
            store(out + 4 * i, acc[i]);
    } else if constexpr (C == 1 && L == 8) {
        transpose4inLanes(acc[0], acc[1], acc[2], acc[3]);
        transpose4inLanes(acc[4], acc[5], acc[6], acc[7]);
        for (std::size_t i = 0; i < 4; ++i) {
            store(out + 8 * i, acc[i]);
            store(out + 8 * i + 4, acc[4 + i]);
        }
    } else if constexpr (C == 2 && L == 2) {
        store2(out, _mm_movelh_ps(acc[0].r, acc[1].r));
        store2(out + 4, _mm_movehl_ps(acc[1].r, acc[0].r));
    } else if constexpr (C == 2 && L == 4) {
        store2(out, _mm_movelh_ps(acc[0].r, acc[1].r));
        store2(out + 4, _mm_movelh_ps(acc[2].r, acc[3].r));
        store2(out + 8, _mm_movehl_ps(acc[1].r, acc[0].r));
        store2(out + 12, _mm_movehl_ps(acc[3].r, acc[2].r));
    } else {
        static_assert(L == 0, "no 128-bit layout for this factor and channel count");
    }
}
#else
inline __m256 pairsLo(V a, V b)
{
    return _mm256_castpd_ps(_mm256_unpacklo_pd(_mm256_castps_pd(a.r), _mm256_castps_pd(b.r)));
}
inline __m256 pairsHi(V a, V b)
{
    return _mm256_castpd_ps(_mm256_unpackhi_pd(_mm256_castps_pd(a.r), _mm256_castps_pd(b.r)));
}

// Four phases of four stereo frames to frame order; frame f goes to out + f * stride.
inline void storeStereoQuad(const V* acc, float* out, std::size_t stride)
{
    const __m256 l01 = pairsLo(acc[0], acc[1]);
    const __m256 l23 = pairsLo(acc[2], acc[3]);
    const __m256 h01 = pairsHi(acc[0], acc[1]);
    const __m256 h23 = pairsHi(acc[2], acc[3]);
    _mm256_storeu_ps(out, _mm256_permute2f128_ps(l01, l23, 0x20));
    _mm256_storeu_ps(out + stride, _mm256_permute2f128_ps(h01, h23, 0x20));
    _mm256_storeu_ps(out + 2 * stride, _mm256_permute2f128_ps(l01, l23, 0x31));
    _mm256_storeu_ps(out + 3 * stride, _mm256_permute2f128_ps(h01, h23, 0x31));
}

template <std::size_t L, std::size_t C>
inline void storeFrames(V* acc, float* out)
{
    if constexpr (C == 1 && L == 2) {
        V lo, hi;
        interleave2(acc[0], acc[1], lo, hi);
        store(out, lo);
        store(out + 8, hi);
    } else if constexpr (C == 1 && L == 4) {
        transpose4inLanes(acc[0], acc[1], acc[2], acc[3]);
        _mm256_storeu_ps(out, _mm256_permute2f128_ps(acc[0].r, acc[1].r, 0x20));
        _mm256_storeu_ps(out + 8, _mm256_permute2f128_ps(acc[2].r, acc[3].r, 0x20));
        _mm256_storeu_ps(out + 16, _mm256_permute2f128_ps(acc[0].r, acc[1].r, 0x31));
        _mm256_storeu_ps(out + 24, _mm256_permute2f128_ps(acc[2].r, acc[3].r, 0x31));
    } else if constexpr (C == 1 && L == 8) {
        transposeSquare(acc);
        for (std::size_t i = 0; i < 8; ++i)
            store(out + 8 * i, acc[i]);
    } else if constexpr (C == 2 && L == 2) {
        const __m256 lo = pairsLo(acc[0], acc[1]);
        const __m256 hi = pairsHi(acc[0], acc[1]);
        _mm256_storeu_ps(out, _mm256_permute2f128_ps(lo, hi, 0x20));
        _mm256_storeu_ps(out + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
    } else if constexpr (C == 2 && L == 4) {
        storeStereoQuad(acc, out, 8);
    } else if constexpr (C == 2 && L == 8) {
        storeStereoQuad(acc, out, 16);
        storeStereoQuad(acc + 4, out + 8, 16);
    } else {
        static_assert(L == 0, "no 256-bit layout for this factor and channel count");
    }
}
#endif

// The one non-zero tap of a phase, or `taps` when there are more or none
// (the rule of ResampleKernels.h, the same as the reference's).
inline std::size_t singleTap(const float* h, std::size_t L, std::size_t phase, std::size_t taps)
{
    std::size_t found = taps;
    for (std::size_t k = 0; k < taps; ++k) {
        const float v = h[L * k + phase];
        if (v == 0.0f)
            continue;
        if (found != taps)
            return taps;
        found = k;
    }
    return found;
}

// Enough accumulators to hide the adder latency without spilling.
template <std::size_t Active>
constexpr std::size_t blocksFor()
{
    return Active >= 8 ? 1 : 8 / Active;
}

// B vectors of frames from x on: F = W / C input frames each, L phases. With
// Skip, phase 0 has tap d alone: one product.
template <std::size_t L, std::size_t C, std::size_t B, bool Skip>
inline void upBlock(const float* h, std::size_t taps, std::size_t d, const float* x, float* out)
{
    constexpr std::size_t F = V::W / C;
    constexpr std::size_t P0 = Skip ? 1 : 0;
    V acc[B][L];
    for (std::size_t b = 0; b < B; ++b)
        for (std::size_t p = 0; p < L; ++p)
            acc[b][p] = zero();
    for (std::size_t k = 0; k < taps; ++k) {
        const float* hk = h + k * L;
        for (std::size_t b = 0; b < B; ++b) {
            const V xv = load(x + (k + b * F) * C);
            for (std::size_t p = P0; p < L; ++p)
                acc[b][p] = madd(xv, set1(hk[p]), acc[b][p]);
        }
    }
    for (std::size_t b = 0; b < B; ++b) {
        if constexpr (Skip)
            acc[b][0] = load(x + (d + b * F) * C) * set1(h[L * d]);
        storeFrames<L, C>(acc[b], out + b * F * L * C);
    }
}

template <std::size_t L, std::size_t C, bool Skip>
inline void upRun(const float* h, std::size_t taps, std::size_t d, const float* in, float* out,
                  std::size_t frames)
{
    constexpr std::size_t B = blocksFor<Skip ? L - 1 : L>();
    constexpr std::size_t F = V::W / C;
    std::size_t n = 0;
    for (; n + B * F <= frames; n += B * F)
        upBlock<L, C, B, Skip>(h, taps, d, in + n * C, out + n * L * C);
    for (; n + F <= frames; n += F)
        upBlock<L, C, 1, Skip>(h, taps, d, in + n * C, out + n * L * C);
    for (; n < frames; ++n) {
        for (std::size_t c = 0; c < C; ++c) {
            const float* x = in + n * C + c;
            for (std::size_t p = 0; p < L; ++p) {
                float acc = 0.0f;
                if (Skip && p == 0) {
                    acc = x[d * C] * h[L * d];
                } else {
                    for (std::size_t k = 0; k < taps; ++k)
                        acc = madd1(x[k * C], h[L * k + p], acc);
                }
                out[(L * n + p) * C + c] = acc;
            }
        }
    }
}

template <std::size_t L, std::size_t C>
inline const float* upsample(const float* h, std::size_t taps, const float* in, float* out,
                             std::size_t frames) noexcept
{
    check_ptr<V>(in);
    check_ptr<V>(out);
    check_ptr<V>(h);
    const std::size_t c_size = taps * L;
    QVD_ASSERT((c_size & 3u) == 0u);
    const std::size_t d = singleTap(h, L, 0, taps);
    if (d < taps)
        upRun<L, C, true>(h, taps, d, in, out, frames);
    else
        upRun<L, C, false>(h, taps, taps, in, out, frames);
    return in + frames * C;
}

// Outputs per staged stretch, and the longest phase the stack planes hold.
constexpr std::size_t kDownChunk = 256;
constexpr std::size_t kDownMaxTaps = 128;

template <std::size_t L, std::size_t C>
inline void downScalar(const float* h, std::size_t taps, std::size_t d, const float* in, float* out,
                       std::size_t outs)
{
    for (std::size_t n = 0; n < outs; ++n) {
        for (std::size_t c = 0; c < C; ++c) {
            float r = 0.0f;
            for (std::size_t p = 0; p < L; ++p) {
                float s = 0.0f;
                if (p == L - 1 && d < taps) {
                    s = in[(L * (n + d) + p) * C + c] * h[L * d + p];
                } else {
                    for (std::size_t k = 0; k < taps; ++k)
                        s = madd1(in[(L * (n + k) + p) * C + c], h[L * k + p], s);
                }
                r = p == 0 ? s : r + s;
            }
            out[n * C + c] = r;
        }
    }
}

// B vectors of outputs (F = W / C each) from the phase planes at unit j.
// With Skip, the last phase has tap d alone: one product.
template <std::size_t L, std::size_t C, std::size_t B, bool Skip>
inline void downBlock(const float* h, std::size_t taps, std::size_t d, const float* planes,
                      std::size_t stride, std::size_t j, float* out)
{
    constexpr std::size_t F = V::W / C;
    constexpr std::size_t PEnd = Skip ? L - 1 : L;
    V acc[B][L];
    for (std::size_t b = 0; b < B; ++b)
        for (std::size_t p = 0; p < L; ++p)
            acc[b][p] = zero();
    if constexpr (Skip)
        for (std::size_t b = 0; b < B; ++b)
            acc[b][L - 1] = load(planes + (L - 1) * stride + (j + b * F + d) * C) * set1(h[L * d + L - 1]);
    for (std::size_t k = 0; k < taps; ++k) {
        for (std::size_t p = 0; p < PEnd; ++p) {
            const V cp = set1(h[L * k + p]);
            const float* plane = planes + p * stride + (j + k) * C;
            for (std::size_t b = 0; b < B; ++b)
                acc[b][p] = madd(load(plane + b * F * C), cp, acc[b][p]);
        }
    }
    for (std::size_t b = 0; b < B; ++b) {
        V r = acc[b][0];
        for (std::size_t p = 1; p < L; ++p)
            r = r + acc[b][p];
        store(out + b * F * C, r);
    }
}

template <std::size_t L, std::size_t C, bool Skip>
inline void downRun(const float* h, std::size_t taps, std::size_t d, const float* in, float* out,
                    std::size_t outs)
{
    constexpr std::size_t B = blocksFor<Skip ? L - 1 : L>();
    constexpr std::size_t F = V::W / C;
    constexpr std::size_t kStride = (kDownChunk + kDownMaxTaps) * C;
    static_assert(kDownChunk % (B * F) == 0, "a chunk holds whole blocks");
    // One plane per phase: the frames that phase's taps read, side by side.
    alignas(32) float planes[L * kStride];
    alignas(32) float tail[B * F * C];
    for (std::size_t n0 = 0; n0 < outs; n0 += kDownChunk) {
        const std::size_t q = outs - n0 < kDownChunk ? outs - n0 : kDownChunk;
        const std::size_t blocks = (q + B * F - 1) / (B * F);
        const std::size_t used = q + taps - 1;
        const std::size_t padded = blocks * B * F + taps - 1;
        const float* src = in + L * n0 * C;
        for (std::size_t m = 0; m < used; ++m)
            for (std::size_t p = 0; p < L; ++p)
                for (std::size_t c = 0; c < C; ++c)
                    planes[p * kStride + m * C + c] = src[(L * m + p) * C + c];
        for (std::size_t p = 0; p < L; ++p)
            for (std::size_t m = used * C; m < padded * C; ++m)
                planes[p * kStride + m] = 0.0f;
        for (std::size_t j = 0; j < q; j += B * F) {
            float* dst = out + (n0 + j) * C;
            if (j + B * F <= q) {
                downBlock<L, C, B, Skip>(h, taps, d, planes, kStride, j, dst);
            } else {
                downBlock<L, C, B, Skip>(h, taps, d, planes, kStride, j, tail);
                for (std::size_t i = 0; i < (q - j) * C; ++i)
                    dst[i] = tail[i];
            }
        }
    }
}

template <std::size_t L, std::size_t C>
inline const float* downsample(const float* h, std::size_t taps, const float* in, float* out,
                               std::size_t frames) noexcept
{
    check_ptr<V>(in);
    check_ptr<V>(out);
    check_ptr<V>(h);
    const std::size_t c_size = taps * L;
    QVD_ASSERT((c_size & 3u) == 0u);
    const std::size_t outs = frames / L;
    const std::size_t d = singleTap(h, L, L - 1, taps);
    if (taps > kDownMaxTaps) {
        downScalar<L, C>(h, taps, d, in, out, outs);
        return in + outs * L * C;
    }
    if (d < taps)
        downRun<L, C, true>(h, taps, d, in, out, outs);
    else
        downRun<L, C, false>(h, taps, taps, in, out, outs);
    return in + outs * L * C;
}

// ---------------------------------------------------------------------------
// The x2 downsampler on a symmetric half-band block (ResampleKernels.h): each
// mirrored pair of even frames is added first, then multiplied once. The
// outputs of a stretch are summed in passes of kSymPassTaps taps, each pass
// streaming over all of them: output vector v reads its forward operand for
// tap k + F where vector v + 1 reads it for tap k, and its mirrored operand
// where v - 1 does (F output frames per vector), so a window of registers
// carries each loaded vector from one output to the next, and no sum waits
// on its own previous step. Taps run in residue order, k = r, r + F,
// r + 2 F ... for each r < F, the same for every output wherever a call
// starts or ends.

// Taps per pass: their coefficients and both operand windows, 3 T + 2
// vectors, stay within 16 registers.
constexpr std::size_t kSymPassTaps = 4;

// The even and the odd frames of the 2 F frames in lo, hi.
template <std::size_t C>
inline void evenOddFrames(V lo, V hi, V& even, V& odd)
{
    if constexpr (C == 1) {
        deinterleave2(lo, hi, even, odd);
    } else {
        static_assert(C == 2, "one or two channels");
#if TWA_RESAMPLE_LANES == 4
        even.r = _mm_movelh_ps(lo.r, hi.r);
        odd.r = _mm_movehl_ps(hi.r, lo.r);
#else
        const __m256d a = _mm256_castps_pd(_mm256_permute2f128_ps(lo.r, hi.r, 0x20));
        const __m256d b = _mm256_castps_pd(_mm256_permute2f128_ps(lo.r, hi.r, 0x31));
        even.r = _mm256_castpd_ps(_mm256_unpacklo_pd(a, b));
        odd.r = _mm256_castpd_ps(_mm256_unpackhi_pd(a, b));
#endif
    }
}

// Frames 0, 2, 4 ... of src to even, 1, 3, 5 ... to odd: `frames` of each.
template <std::size_t C>
inline void splitEvenOdd(const float* src, std::size_t frames, float* even, float* odd)
{
    constexpr std::size_t F = V::W / C;
    std::size_t m = 0;
    for (; m + F <= frames; m += F) {
        V e, o;
        evenOddFrames<C>(load(src + 2 * m * C), load(src + (2 * m + F) * C), e, o);
        store(even + m * C, e);
        store(odd + m * C, o);
    }
    for (; m < frames; ++m) {
        for (std::size_t c = 0; c < C; ++c) {
            even[m * C + c] = src[2 * m * C + c];
            odd[m * C + c] = src[(2 * m + 1) * C + c];
        }
    }
}

template <std::size_t N, class Fn>
inline void unrolled(Fn&& f)
{
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (f(std::integral_constant<std::size_t, I>{}), ...);
    }(std::make_index_sequence<N>{});
}

// Calls f(integral_constant<n>) for the n in 1 .. N equal to count.
template <std::size_t N, class Fn>
inline void withCount(std::size_t count, Fn&& f)
{
    unrolled<N>([&](auto n) {
        if (count == n + 1)
            f(std::integral_constant<std::size_t, n + 1>{});
    });
}

// Adds T taps to the sums in part, vector v of them taking coefficient j
// from h[j * hstep] and its operands at p + (v + j) W and m + (v - j) W.
template <std::size_t T>
inline void symPass(const float* h, std::size_t hstep, const float* p, const float* m, float* part,
                    std::size_t vectors)
{
    constexpr std::size_t W = V::W;
    V c[T];
    unrolled<T>([&](auto j) { c[j] = set1(h[j * hstep]); });
    // For vector v, operand j sits in P[(j + v) % T] and M[(j - v) % T]: each
    // vector loads one new one into each window, the rest move on.
    V P[T], M[T];
    unrolled<T - 1>([&](auto j) {
        P[j] = load(p + j * W);
        M[j + 1] = load(m - (j + 1) * W);
    });
    auto one = [&](auto sc, std::size_t v) {
        constexpr std::size_t s = decltype(sc)::value; // v % T
        P[(T - 1 + s) % T] = load(p + (T - 1 + v) * W);
        M[(T - s) % T] = load(m + v * W);
        V acc = load(part + v * W);
        unrolled<T>([&](auto j) { acc = madd(P[(j + s) % T] + M[(j + T - s) % T], c[j], acc); });
        store(part + v * W, acc);
    };
    std::size_t v = 0;
    for (; v + T <= vectors; v += T)
        unrolled<T>([&](auto s) { one(s, v + s); });
    // The last few as one straight run, so the windows stay in registers.
    withCount<T - 1>(vectors - v, [&](auto n) { unrolled<n>([&](auto s) { one(s, v + s); }); });
}

template <std::size_t C>
inline void symRun(const float* h, std::size_t half, std::size_t d, const float* in, float* out,
                   std::size_t outs)
{
    constexpr std::size_t W = V::W;
    constexpr std::size_t F = W / C;
    constexpr std::size_t T = kSymPassTaps;
    constexpr std::size_t kStride = (kDownChunk + kDownMaxTaps) * C;
    const std::size_t taps = 2 * half;
    alignas(32) float even[kStride];
    alignas(32) float odd[kStride];
    alignas(32) float part[kDownChunk * C];
    for (std::size_t n0 = 0; n0 < outs; n0 += kDownChunk) {
        const std::size_t q = outs - n0 < kDownChunk ? outs - n0 : kDownChunk;
        const std::size_t vectors = (q + F - 1) / F;
        // Even frames read; the odd ones, d to d + q - 1, lie within as well.
        const std::size_t used = q + taps - 1;
        const std::size_t padded = vectors * F + taps - 1;
        splitEvenOdd<C>(in + 2 * n0 * C, used, even, odd);
        for (std::size_t i = used * C; i < padded * C; ++i) {
            even[i] = 0.0f;
            odd[i] = 0.0f;
        }
        for (std::size_t i = 0; i < vectors * W; ++i)
            part[i] = 0.0f;
        for (std::size_t r = 0; r < F && r < half; ++r) {
            const std::size_t steps = (half - r + F - 1) / F; // taps r, r + F ... below half
            for (std::size_t i = 0; i < steps; i += T) {
                const std::size_t k = r + i * F;
                withCount<T>(steps - i < T ? steps - i : T, [&](auto n) {
                    symPass<n>(h + 2 * k, 2 * F, even + k * C, even + (taps - 1 - k) * C, part, vectors);
                });
            }
        }
        const V hd = set1(h[2 * d + 1]);
        float* dst = out + n0 * C;
        std::size_t v = 0;
        for (; (v + 1) * F <= q; ++v)
            store(dst + v * W, load(part + v * W) + load(odd + (d + v * F) * C) * hd);
        if (v < vectors) {
            alignas(32) float tail[W];
            store(tail, load(part + v * W) + load(odd + (d + v * F) * C) * hd);
            for (std::size_t i = 0; i < (q - v * F) * C; ++i)
                dst[v * W + i] = tail[i];
        }
    }
}

template <std::size_t C>
inline const float* downsampleSym(const float* h, std::size_t taps, std::size_t d, const float* in, float* out,
                                  std::size_t frames) noexcept
{
    check_ptr<V>(in);
    check_ptr<V>(out);
    check_ptr<V>(h);
    QVD_ASSERT(taps % 2 == 0 && d < taps);
    const std::size_t outs = frames / 2;
    if (taps > kDownMaxTaps)
        downScalar<2, C>(h, taps, d, in, out, outs);
    else
        symRun<C>(h, taps / 2, d, in, out, outs);
    return in + outs * 2 * C;
}

} // namespace twa::numeric::TWA_ISA::polyphase

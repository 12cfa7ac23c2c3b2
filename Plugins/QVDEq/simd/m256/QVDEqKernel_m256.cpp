// AVX variants, the bands fused and skewed as in the SSE2 variant (each band
// a fixed number of samples behind the one before it):
//   stereo: two bands side by side in one register, [band 2p left, right |
//     band 2p+1 left, right], so six bands take three registers instead of
//     six (an odd count leaves the last register's upper half idle);
//   four channels and more: four channels per register, one band each;
//   whatever is left: the SSE2 variant.
// Compiled with -mavx: no standard-library templates here, so no AVX copy of
// one can stand in for the baseline copy at link time.
#include <immintrin.h>

#include "../../QVDEqKernel.h"

namespace qvd::eq::m256 {
namespace {

struct Coefficients {
    __m256d gain, den2, den1, num2, num1;
};

// One biquad sample in each of four lanes; the states advance where `mask`
// is set (Masked) or everywhere. Returns y rounded to float.
template <bool Masked>
inline __m128 biquad(__m256d x, const Coefficients& c, __m256d& w1, __m256d& w2, __m256d e, __m256d mask) noexcept
{
    const __m256d w =
        _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(c.gain, x), _mm256_mul_pd(c.den2, w2)), _mm256_mul_pd(c.den1, w1));
    const __m256d y = _mm256_add_pd(_mm256_add_pd(w, _mm256_mul_pd(c.num2, w2)), _mm256_mul_pd(c.num1, w1));
    const __m256d next = _mm256_sub_pd(_mm256_add_pd(w, e), e);
    if (Masked) {
        w2 = _mm256_blendv_pd(w2, w1, mask);
        w1 = _mm256_blendv_pd(w1, next, mask);
    } else {
        w2 = w1;
        w1 = next;
    }
    return _mm256_cvtpd_ps(y);
}

inline __m256d laneMask(bool low, bool high) noexcept
{
    const long long lo = low ? -1 : 0;
    const long long hi = high ? -1 : 0;
    return _mm256_castsi256_pd(_mm256_setr_epi64x(lo, lo, hi, hi));
}

// ---- stereo, band pairs ----

// hist[s][p] holds the rounded outputs of bands 2p and 2p+1 from kSkew - s
// iterations ago: [2p left, 2p right, 2p+1 left, 2p+1 right]. Each band reads
// its predecessor's output from kSkew iterations back (band k filters sample
// n - kSkew k): one back would chain a register to itself through the whole
// biquad (about 24 cycles) in every iteration, and that latency rather than
// the recursion's (12) would set the pace.
constexpr int kSkew = 3;

template <int P, bool Masked>
inline void stereoStep(__m128 in, const Coefficients (&c)[P], __m256d (&w1)[P], __m256d (&w2)[P],
                       __m128 (&hist)[kSkew][P], __m256d e, const __m256d* mask) noexcept
{
    __m128 x[P];
    x[0] = _mm_movelh_ps(in, hist[0][0]);
#pragma GCC unroll 4
    for (int p = 1; p < P; ++p)
        x[p] = _mm_shuffle_ps(hist[0][p - 1], hist[0][p], _MM_SHUFFLE(1, 0, 3, 2));
#pragma GCC unroll 4
    for (int p = 0; p < P; ++p) {
#pragma GCC unroll 4
        for (int s = 0; s + 1 < kSkew; ++s)
            hist[s][p] = hist[s + 1][p];
        hist[kSkew - 1][p] = biquad<Masked>(_mm256_cvtps_pd(x[p]), c[p], w1[p], w2[p], e, Masked ? mask[p] : e);
    }
}

template <int NB>
void stereo(const KernelArgs& args, std::int32_t a, std::int32_t firstBand) noexcept
{
    constexpr int P = (NB + 1) / 2;
    // Where the last band sits: the upper half of the last register, or its
    // lower half when the upper one is idle.
    constexpr bool kLastHigh = NB % 2 == 0;
    constexpr int kPick = kLastHigh ? _MM_SHUFFLE(3, 2, 3, 2) : _MM_SHUFFLE(1, 0, 1, 0);
    float* left = args.channels[a];
    float* right = args.channels[a + 1];
    Coefficients c[P];
    __m256d w1[P], w2[P];
    __m128 hist[kSkew][P];
    for (int p = 0; p < P; ++p) {
        const Band& b0 = args.bands[firstBand + 2 * p];
        // An idle upper half filters nothing from a zero state; its output is never used.
        const bool idle = 2 * p + 1 >= NB;
        const Band& b1 = idle ? b0 : args.bands[firstBand + 2 * p + 1];
        const BiQuadCoefficients zero = {0.0, 0.0, 0.0, 0.0, 0.0};
        const BiQuadCoefficients& c1 = idle ? zero : b1.c;
        const double s1w1 = idle ? 0.0 : b1.states[a].w1, s1w1r = idle ? 0.0 : b1.states[a + 1].w1;
        const double s1w2 = idle ? 0.0 : b1.states[a].w2, s1w2r = idle ? 0.0 : b1.states[a + 1].w2;
        c[p] = {_mm256_setr_pd(b0.c.gain, b0.c.gain, c1.gain, c1.gain),
                _mm256_setr_pd(b0.c.den2, b0.c.den2, c1.den2, c1.den2),
                _mm256_setr_pd(b0.c.den1, b0.c.den1, c1.den1, c1.den1),
                _mm256_setr_pd(b0.c.num2, b0.c.num2, c1.num2, c1.num2),
                _mm256_setr_pd(b0.c.num1, b0.c.num1, c1.num1, c1.num1)};
        w1[p] = _mm256_setr_pd(b0.states[a].w1, b0.states[a + 1].w1, s1w1, s1w1r);
        w2[p] = _mm256_setr_pd(b0.states[a].w2, b0.states[a + 1].w2, s1w2, s1w2r);
        for (int s = 0; s < kSkew; ++s)
            hist[s][p] = _mm_setzero_ps();
    }
    const __m256d e = _mm256_set1_pd(kBiQuadFlush);
    const std::int32_t frames = args.frames;
    // The last band's output lags its input by kSkew times its index.
    constexpr int kLag = kSkew * (NB - 1);
    const std::int32_t total = frames + kLag;
    std::int32_t n = 0;
    while (n < total) {
        if (n >= kLag && n + 4 <= frames) {
            const __m128 l = _mm_loadu_ps(left + n);
            const __m128 r = _mm_loadu_ps(right + n);
            const __m128 lr01 = _mm_unpacklo_ps(l, r); // l0 r0 l1 r1
            const __m128 lr23 = _mm_unpackhi_ps(l, r); // l2 r2 l3 r3
            stereoStep<P, false>(lr01, c, w1, w2, hist, e, nullptr);
            const __m128 y0 = hist[kSkew - 1][P - 1];
            stereoStep<P, false>(_mm_movehl_ps(lr01, lr01), c, w1, w2, hist, e, nullptr);
            const __m128 y01 = _mm_shuffle_ps(y0, hist[kSkew - 1][P - 1], kPick);
            stereoStep<P, false>(lr23, c, w1, w2, hist, e, nullptr);
            const __m128 y2 = hist[kSkew - 1][P - 1];
            stereoStep<P, false>(_mm_movehl_ps(lr23, lr23), c, w1, w2, hist, e, nullptr);
            const __m128 y23 = _mm_shuffle_ps(y2, hist[kSkew - 1][P - 1], kPick);
            // Behind the samples just read, so in place is safe.
            _mm_storeu_ps(left + n - kLag, _mm_shuffle_ps(y01, y23, _MM_SHUFFLE(2, 0, 2, 0)));
            _mm_storeu_ps(right + n - kLag, _mm_shuffle_ps(y01, y23, _MM_SHUFFLE(3, 1, 3, 1)));
            n += 4;
            continue;
        }
        const __m128 in = n < frames ? _mm_setr_ps(left[n], right[n], 0.0f, 0.0f) : _mm_setzero_ps();
        if (n >= kLag && n < frames) {
            stereoStep<P, false>(in, c, w1, w2, hist, e, nullptr);
        } else {
            // Filling or draining: band k has a sample only while 0 <= n - kSkew k < frames.
            __m256d mask[P];
            for (int p = 0; p < P; ++p) {
                const int m0 = n - 2 * kSkew * p;
                const int m1 = m0 - kSkew;
                mask[p] = laneMask(m0 >= 0 && m0 < frames, 2 * p + 1 < NB && m1 >= 0 && m1 < frames);
            }
            stereoStep<P, true>(in, c, w1, w2, hist, e, mask);
        }
        if (n >= kLag) {
            alignas(16) float y[4];
            _mm_store_ps(y, hist[kSkew - 1][P - 1]);
            left[n - kLag] = y[kLastHigh ? 2 : 0];
            right[n - kLag] = y[kLastHigh ? 3 : 1];
        }
        ++n;
    }
    for (int p = 0; p < P; ++p) {
        alignas(32) double v1[4], v2[4];
        _mm256_store_pd(v1, w1[p]);
        _mm256_store_pd(v2, w2[p]);
        BiQuadState* s0 = args.bands[firstBand + 2 * p].states + a;
        s0[0] = {v1[0], v2[0]};
        s0[1] = {v1[1], v2[1]};
        if (2 * p + 1 < NB) {
            BiQuadState* s1 = args.bands[firstBand + 2 * p + 1].states + a;
            s1[0] = {v1[2], v2[2]};
            s1[1] = {v1[3], v2[3]};
        }
    }
}

// ---- four channels, one band per register ----

template <int NB, bool Masked>
inline void quadStep(__m128 in, const Coefficients (&c)[NB], __m256d (&w1)[NB], __m256d (&w2)[NB],
                     __m128 (&out)[NB], __m256d e, const __m256d* mask) noexcept
{
    __m128 x[NB];
    x[0] = in;
#pragma GCC unroll 8
    for (int k = 1; k < NB; ++k)
        x[k] = out[k - 1];
#pragma GCC unroll 8
    for (int k = 0; k < NB; ++k)
        out[k] = biquad<Masked>(_mm256_cvtps_pd(x[k]), c[k], w1[k], w2[k], e, Masked ? mask[k] : e);
}

template <int NB>
void quad(const KernelArgs& args, std::int32_t a, std::int32_t firstBand) noexcept
{
    float* ch[4] = {args.channels[a], args.channels[a + 1], args.channels[a + 2], args.channels[a + 3]};
    Coefficients c[NB];
    __m256d w1[NB], w2[NB];
    __m128 out[NB];
    for (int k = 0; k < NB; ++k) {
        const Band& band = args.bands[firstBand + k];
        c[k] = {_mm256_set1_pd(band.c.gain), _mm256_set1_pd(band.c.den2), _mm256_set1_pd(band.c.den1),
                _mm256_set1_pd(band.c.num2), _mm256_set1_pd(band.c.num1)};
        const BiQuadState* s = band.states + a;
        w1[k] = _mm256_setr_pd(s[0].w1, s[1].w1, s[2].w1, s[3].w1);
        w2[k] = _mm256_setr_pd(s[0].w2, s[1].w2, s[2].w2, s[3].w2);
        out[k] = _mm_setzero_ps();
    }
    const __m256d e = _mm256_set1_pd(kBiQuadFlush);
    const std::int32_t frames = args.frames;
    constexpr int kLag = NB - 1;
    const std::int32_t total = frames + kLag;
    std::int32_t n = 0;
    while (n < total) {
        if (n >= kLag && n + 4 <= frames) {
            __m128 f0 = _mm_loadu_ps(ch[0] + n);
            __m128 f1 = _mm_loadu_ps(ch[1] + n);
            __m128 f2 = _mm_loadu_ps(ch[2] + n);
            __m128 f3 = _mm_loadu_ps(ch[3] + n);
            _MM_TRANSPOSE4_PS(f0, f1, f2, f3); // f_i: sample n + i of the four channels
            quadStep<NB, false>(f0, c, w1, w2, out, e, nullptr);
            __m128 y0 = out[NB - 1];
            quadStep<NB, false>(f1, c, w1, w2, out, e, nullptr);
            __m128 y1 = out[NB - 1];
            quadStep<NB, false>(f2, c, w1, w2, out, e, nullptr);
            __m128 y2 = out[NB - 1];
            quadStep<NB, false>(f3, c, w1, w2, out, e, nullptr);
            __m128 y3 = out[NB - 1];
            _MM_TRANSPOSE4_PS(y0, y1, y2, y3);
            _mm_storeu_ps(ch[0] + n - kLag, y0);
            _mm_storeu_ps(ch[1] + n - kLag, y1);
            _mm_storeu_ps(ch[2] + n - kLag, y2);
            _mm_storeu_ps(ch[3] + n - kLag, y3);
            n += 4;
            continue;
        }
        const __m128 in = n < frames ? _mm_setr_ps(ch[0][n], ch[1][n], ch[2][n], ch[3][n]) : _mm_setzero_ps();
        if (n >= kLag && n < frames) {
            quadStep<NB, false>(in, c, w1, w2, out, e, nullptr);
        } else {
            __m256d mask[NB];
            for (int k = 0; k < NB; ++k) {
                const bool live = n - k >= 0 && n - k < frames;
                mask[k] = laneMask(live, live);
            }
            quadStep<NB, true>(in, c, w1, w2, out, e, mask);
        }
        if (n >= kLag) {
            alignas(16) float y[4];
            _mm_store_ps(y, out[NB - 1]);
            for (int i = 0; i < 4; ++i)
                ch[i][n - kLag] = y[i];
        }
        ++n;
    }
    for (int k = 0; k < NB; ++k) {
        alignas(32) double v1[4], v2[4];
        _mm256_store_pd(v1, w1[k]);
        _mm256_store_pd(v2, w2[k]);
        BiQuadState* s = args.bands[firstBand + k].states + a;
        for (int i = 0; i < 4; ++i)
            s[i] = {v1[i], v2[i]};
    }
}

using GroupFn = void (*)(const KernelArgs&, std::int32_t, std::int32_t) noexcept;
constexpr GroupFn kQuads[kMaxFusedBands + 1] = {nullptr, &quad<1>, &quad<2>, &quad<3>, &quad<4>, &quad<5>, &quad<6>};
constexpr GroupFn kStereo[kMaxFusedBands + 1] = {nullptr,    &stereo<1>, &stereo<2>, &stereo<3>,
                                                 &stereo<4>, &stereo<5>, &stereo<6>};

} // namespace

void kernel(const KernelArgs& args) noexcept
{
    if (args.frames <= 0)
        return;
    for (std::int32_t first = 0; first < args.bandCount; first += kMaxFusedBands) {
        const std::int32_t rest = args.bandCount - first;
        const std::int32_t bands = rest < kMaxFusedBands ? rest : kMaxFusedBands;
        std::int32_t ch = 0;
        for (; ch + 4 <= args.channelCount; ch += 4)
            kQuads[bands](args, ch, first);
        for (; ch + 2 <= args.channelCount; ch += 2)
            kStereo[bands](args, ch, first);
        // A last odd channel.
        m128::channelPairs(args, ch, first, bands);
    }
}

} // namespace qvd::eq::m256

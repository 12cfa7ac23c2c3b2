// Two channels per SSE2 register of doubles, the bands fused and skewed: in
// iteration n band k filters sample n - k, whose input band k - 1 produced in
// iteration n - 1. The bands of one iteration are then independent of each
// other, so their recursions overlap in the pipeline instead of waiting for
// one another. The baseline instruction set; no target flags.
#include <emmintrin.h>

#include "../../QVDEqKernel.h"

namespace qvd::eq::m128 {
namespace {

struct Coefficients {
    __m128d gain, den2, den1, num2, num1;
};

inline __m128d select(__m128d mask, __m128d a, __m128d b) noexcept
{
    return _mm_or_pd(_mm_and_pd(mask, a), _mm_andnot_pd(mask, b));
}

// One iteration: band 0 takes `in` (low two floats), band k the rounded output
// band k - 1 left in out[k - 1]. Each band's output is rounded to float, as
// the band-by-band reference does through its float buffer. While the
// pipeline fills and drains, `mask` keeps the states of bands without a
// sample of this block.
template <int NB, bool Masked>
inline void step(__m128 in, const Coefficients (&c)[NB], __m128d (&w1)[NB], __m128d (&w2)[NB], __m128 (&out)[NB],
                 __m128d e, const __m128d* mask) noexcept
{
    __m128d x[NB];
    x[0] = _mm_cvtps_pd(in);
#pragma GCC unroll 8
    for (int k = 1; k < NB; ++k)
        x[k] = _mm_cvtps_pd(out[k - 1]);
#pragma GCC unroll 8
    for (int k = 0; k < NB; ++k) {
        const __m128d w = _mm_add_pd(_mm_add_pd(_mm_mul_pd(c[k].gain, x[k]), _mm_mul_pd(c[k].den2, w2[k])),
                                     _mm_mul_pd(c[k].den1, w1[k]));
        const __m128d y = _mm_add_pd(_mm_add_pd(w, _mm_mul_pd(c[k].num2, w2[k])), _mm_mul_pd(c[k].num1, w1[k]));
        const __m128d next = _mm_sub_pd(_mm_add_pd(w, e), e);
        if (Masked) {
            w2[k] = select(mask[k], w1[k], w2[k]);
            w1[k] = select(mask[k], next, w1[k]);
        } else {
            w2[k] = w1[k];
            w1[k] = next;
        }
        out[k] = _mm_cvtpd_ps(y);
    }
}

template <int NB>
void pair(const KernelArgs& args, std::int32_t a, std::int32_t firstBand) noexcept
{
    float* left = args.channels[a];
    float* right = args.channels[a + 1];
    Coefficients c[NB];
    __m128d w1[NB], w2[NB];
    __m128 out[NB];
    for (int k = 0; k < NB; ++k) {
        const Band& band = args.bands[firstBand + k];
        c[k] = {_mm_set1_pd(band.c.gain), _mm_set1_pd(band.c.den2), _mm_set1_pd(band.c.den1),
                _mm_set1_pd(band.c.num2), _mm_set1_pd(band.c.num1)};
        w1[k] = _mm_setr_pd(band.states[a].w1, band.states[a + 1].w1);
        w2[k] = _mm_setr_pd(band.states[a].w2, band.states[a + 1].w2);
        out[k] = _mm_setzero_ps();
    }
    const __m128d e = _mm_set1_pd(kBiQuadFlush);
    const std::int32_t frames = args.frames;
    // The last band's output lags its input by NB - 1 iterations.
    constexpr int kLag = NB - 1;
    const std::int32_t total = frames + kLag;
    std::int32_t n = 0;
    while (n < total) {
        if (n >= kLag && n + 4 <= frames) {
            const __m128 l = _mm_loadu_ps(left + n);
            const __m128 r = _mm_loadu_ps(right + n);
            const __m128 lr01 = _mm_unpacklo_ps(l, r); // l0 r0 l1 r1
            const __m128 lr23 = _mm_unpackhi_ps(l, r); // l2 r2 l3 r3
            step<NB, false>(lr01, c, w1, w2, out, e, nullptr);
            const __m128 y0 = out[NB - 1];
            step<NB, false>(_mm_movehl_ps(lr01, lr01), c, w1, w2, out, e, nullptr);
            const __m128 y01 = _mm_movelh_ps(y0, out[NB - 1]);
            step<NB, false>(lr23, c, w1, w2, out, e, nullptr);
            const __m128 y2 = out[NB - 1];
            step<NB, false>(_mm_movehl_ps(lr23, lr23), c, w1, w2, out, e, nullptr);
            const __m128 y23 = _mm_movelh_ps(y2, out[NB - 1]);
            // Behind the samples just read, so in place is safe.
            _mm_storeu_ps(left + n - kLag, _mm_shuffle_ps(y01, y23, _MM_SHUFFLE(2, 0, 2, 0)));
            _mm_storeu_ps(right + n - kLag, _mm_shuffle_ps(y01, y23, _MM_SHUFFLE(3, 1, 3, 1)));
            n += 4;
            continue;
        }
        const __m128 in = n < frames ? _mm_setr_ps(left[n], right[n], 0.0f, 0.0f) : _mm_setzero_ps();
        if (n >= kLag && n < frames) {
            step<NB, false>(in, c, w1, w2, out, e, nullptr);
        } else {
            // Filling or draining: band k has a sample only while 0 <= n - k < frames.
            __m128d mask[NB];
            for (int k = 0; k < NB; ++k) {
                const bool live = n - k >= 0 && n - k < frames;
                mask[k] = _mm_castsi128_pd(_mm_set1_epi32(live ? -1 : 0));
            }
            step<NB, true>(in, c, w1, w2, out, e, mask);
        }
        if (n >= kLag) {
            _mm_store_ss(left + n - kLag, out[NB - 1]);
            _mm_store_ss(right + n - kLag, _mm_shuffle_ps(out[NB - 1], out[NB - 1], _MM_SHUFFLE(1, 1, 1, 1)));
        }
        ++n;
    }
    for (int k = 0; k < NB; ++k) {
        BiQuadState* s = args.bands[firstBand + k].states;
        _mm_storel_pd(&s[a].w1, w1[k]);
        _mm_storeh_pd(&s[a + 1].w1, w1[k]);
        _mm_storel_pd(&s[a].w2, w2[k]);
        _mm_storeh_pd(&s[a + 1].w2, w2[k]);
    }
}

using PairFn = void (*)(const KernelArgs&, std::int32_t, std::int32_t) noexcept;
constexpr PairFn kPairs[kMaxFusedBands + 1] = {nullptr, &pair<1>, &pair<2>, &pair<3>, &pair<4>, &pair<5>, &pair<6>};

} // namespace

void channelPairs(const KernelArgs& args, std::int32_t firstChannel, std::int32_t firstBand,
                  std::int32_t bandCount) noexcept
{
    if (bandCount <= 0 || bandCount > kMaxFusedBands)
        return;
    std::int32_t ch = firstChannel;
    for (; ch + 2 <= args.channelCount; ch += 2)
        kPairs[bandCount](args, ch, firstBand);
    if (ch < args.channelCount)
        fusedChannel(args, ch, firstBand, bandCount);
}

void kernel(const KernelArgs& args) noexcept
{
    if (args.frames <= 0)
        return;
    for (std::int32_t first = 0; first < args.bandCount; first += kMaxFusedBands) {
        const std::int32_t rest = args.bandCount - first;
        channelPairs(args, 0, first, rest < kMaxFusedBands ? rest : kMaxFusedBands);
    }
}

} // namespace qvd::eq::m128

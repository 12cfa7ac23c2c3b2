// Two channels per tile in one 128-bit register of doubles (SSE2 baseline).
#include <emmintrin.h>

#include "../../QVDGainKernel.h"

namespace qvd::gain::m128 {
namespace {
constexpr int kLanes = 2;
constexpr int kMaxTiles = 32; // 64 lanes, the size of Lanes

__m128d step(__m128d s, __m128d a, __m128d b)
{
    return _mm_add_pd(_mm_mul_pd(a, s), b);
}

void run(const KernelArgs& args, int first, int channels) noexcept
{
    const int tiles = (channels + kLanes - 1) / kLanes;
    alignas(16) Lanes l;
    gatherLanes(args, first, channels, tiles * kLanes, l);

    __m128d state[kMaxTiles];
    __m128d bt[kMaxTiles];
    __m128 peak[kMaxTiles]; // lanes 0 and 1 carry the two channels
    for (int t = 0; t < tiles; ++t) {
        state[t] = _mm_loadu_pd(l.state + t * kLanes);
        bt[t] = _mm_loadu_pd(l.bt + t * kLanes);
        peak[t] = _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(l.peak + t * kLanes)));
    }
    const __m128d a = _mm_set1_pd(args.a);
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    const int vectorFrames = args.frames & ~3;

    for (int n = 0; n < vectorFrames; n += 4) {
        for (int t = 0; t < tiles; ++t) {
            const __m128 r0 = _mm_loadu_ps(l.in[t * kLanes] + n);
            const __m128 r1 = _mm_loadu_ps(l.in[t * kLanes + 1] + n);
            const __m128 lo = _mm_unpacklo_ps(r0, r1); // c0f0 c1f0 c0f1 c1f1
            const __m128 hi = _mm_unpackhi_ps(r0, r1); // c0f2 c1f2 c0f3 c1f3

            __m128 p = peak[t];
            p = _mm_max_ps(_mm_and_ps(lo, absMask), p);
            p = _mm_max_ps(_mm_and_ps(hi, absMask), p);
            peak[t] = p;

            __m128d s = state[t];
            const __m128d b = bt[t];
            s = step(s, a, b);
            const __m128 y0 = _mm_cvtpd_ps(_mm_mul_pd(_mm_cvtps_pd(lo), s));
            s = step(s, a, b);
            const __m128 y1 = _mm_cvtpd_ps(_mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(lo, lo)), s));
            s = step(s, a, b);
            const __m128 y2 = _mm_cvtpd_ps(_mm_mul_pd(_mm_cvtps_pd(hi), s));
            s = step(s, a, b);
            const __m128 y3 = _mm_cvtpd_ps(_mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(hi, hi)), s));
            state[t] = s;

            const __m128 yl = _mm_movelh_ps(y0, y1); // c0f0 c1f0 c0f1 c1f1
            const __m128 yh = _mm_movelh_ps(y2, y3);
            _mm_storeu_ps(l.out[t * kLanes] + n, _mm_shuffle_ps(yl, yh, _MM_SHUFFLE(2, 0, 2, 0)));
            _mm_storeu_ps(l.out[t * kLanes + 1] + n, _mm_shuffle_ps(yl, yh, _MM_SHUFFLE(3, 1, 3, 1)));
        }
    }

    for (int t = 0; t < tiles; ++t) {
        _mm_storeu_pd(l.state + t * kLanes, state[t]);
        // Lanes 2 and 3 hold the same two channels' other frames.
        const __m128 p = _mm_max_ps(peak[t], _mm_movehl_ps(peak[t], peak[t]));
        _mm_store_sd(reinterpret_cast<double*>(l.peak + t * kLanes), _mm_castps_pd(p));
    }
    scatterLanes(args, first, channels, l, vectorFrames);
}
void glide(const KernelArgs& args) noexcept
{
    forEachGroup(args, kMaxTiles * kLanes, &run);
}

// out = float(double(x) * s), four frames at a time.
void settled(const float* in, float* out, std::int32_t frames, double state, float& peak) noexcept
{
    const __m128d s = _mm_set1_pd(state);
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    __m128 p = _mm_setzero_ps();
    std::int32_t n = 0;
    for (; n + 4 <= frames; n += 4) {
        const __m128 x = _mm_loadu_ps(in + n);
        // max(|x|, peak) keeps the peak when x is NaN.
        p = _mm_max_ps(_mm_and_ps(x, absMask), p);
        const __m128 lo = _mm_cvtpd_ps(_mm_mul_pd(_mm_cvtps_pd(x), s));
        const __m128 hi = _mm_cvtpd_ps(_mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(x, x)), s));
        _mm_storeu_ps(out + n, _mm_movelh_ps(lo, hi));
    }
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, p);
    settledTail(in, out, n, frames, state, lanes, 4, peak);
}
} // namespace

void kernel(const KernelArgs& args) noexcept
{
    splitSettled(args, &settled, &glide);
}


} // namespace qvd::gain::m128

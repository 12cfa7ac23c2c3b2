// Four channels per tile in one 256-bit register of doubles. Compiled with
// -mavx: no standard-library templates here, so no AVX copy of one can stand
// in for the baseline copy at link time.
#include <immintrin.h>

#include "../../QVDGainKernel.h"

namespace qvd::gain::m256 {
namespace {
constexpr int kLanes = 4;
constexpr int kMaxTiles = 16; // 64 lanes, the size of Lanes

// One pass over at most kMaxTiles * kLanes channels starting at `first`.
void run(const KernelArgs& args, int first, int channels) noexcept
{
    const int tiles = (channels + kLanes - 1) / kLanes;
    alignas(32) Lanes l;
    gatherLanes(args, first, channels, tiles * kLanes, l);

    __m256d state[kMaxTiles];
    __m256d bt[kMaxTiles];
    __m128 peak[kMaxTiles];
    for (int t = 0; t < tiles; ++t) {
        state[t] = _mm256_loadu_pd(l.state + t * kLanes);
        bt[t] = _mm256_loadu_pd(l.bt + t * kLanes);
        peak[t] = _mm_loadu_ps(l.peak + t * kLanes);
    }
    const __m256d a = _mm256_set1_pd(args.a);
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    const int vectorFrames = args.frames & ~3;

    // Frames outer, tiles inner: the tiles' recursions are independent, so
    // their latencies overlap.
    for (int n = 0; n < vectorFrames; n += 4) {
        for (int t = 0; t < tiles; ++t) {
            const float* const* src = l.in + t * kLanes;
            __m128 f0 = _mm_loadu_ps(src[0] + n);
            __m128 f1 = _mm_loadu_ps(src[1] + n);
            __m128 f2 = _mm_loadu_ps(src[2] + n);
            __m128 f3 = _mm_loadu_ps(src[3] + n);
            _MM_TRANSPOSE4_PS(f0, f1, f2, f3); // f_k: frame n + k of the four channels

            // max(|x|, peak) keeps the peak when x is NaN.
            __m128 p = peak[t];
            p = _mm_max_ps(_mm_and_ps(f0, absMask), p);
            p = _mm_max_ps(_mm_and_ps(f1, absMask), p);
            p = _mm_max_ps(_mm_and_ps(f2, absMask), p);
            p = _mm_max_ps(_mm_and_ps(f3, absMask), p);
            peak[t] = p;

            __m256d s = state[t];
            const __m256d b = bt[t];
            s = _mm256_add_pd(_mm256_mul_pd(a, s), b);
            __m128 y0 = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(f0), s));
            s = _mm256_add_pd(_mm256_mul_pd(a, s), b);
            __m128 y1 = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(f1), s));
            s = _mm256_add_pd(_mm256_mul_pd(a, s), b);
            __m128 y2 = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(f2), s));
            s = _mm256_add_pd(_mm256_mul_pd(a, s), b);
            __m128 y3 = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(f3), s));
            state[t] = s;

            _MM_TRANSPOSE4_PS(y0, y1, y2, y3);
            float* const* dst = l.out + t * kLanes;
            _mm_storeu_ps(dst[0] + n, y0);
            _mm_storeu_ps(dst[1] + n, y1);
            _mm_storeu_ps(dst[2] + n, y2);
            _mm_storeu_ps(dst[3] + n, y3);
        }
    }

    for (int t = 0; t < tiles; ++t) {
        _mm256_storeu_pd(l.state + t * kLanes, state[t]);
        _mm_storeu_ps(l.peak + t * kLanes, peak[t]);
    }
    scatterLanes(args, first, channels, l, vectorFrames);
}

void glide(const KernelArgs& args) noexcept
{
    forEachGroup(args, kMaxTiles * kLanes, &run);
}

// out = float(double(x) * s), eight frames at a time.
void settled(const float* in, float* out, std::int32_t frames, double state, float& peak) noexcept
{
    const __m256d s = _mm256_set1_pd(state);
    const __m256 absMask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
    __m256 p = _mm256_setzero_ps();
    std::int32_t n = 0;
    for (; n + 8 <= frames; n += 8) {
        const __m256 x = _mm256_loadu_ps(in + n);
        // max(|x|, peak) keeps the peak when x is NaN.
        p = _mm256_max_ps(_mm256_and_ps(x, absMask), p);
        const __m128 lo = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(x)), s));
        const __m128 hi = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(x, 1)), s));
        _mm256_storeu_ps(out + n, _mm256_insertf128_ps(_mm256_castps128_ps256(lo), hi, 1));
    }
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, p);
    settledTail(in, out, n, frames, state, lanes, 8, peak);
}
} // namespace

void kernel(const KernelArgs& args) noexcept
{
    splitSettled(args, &settled, &glide);
}

} // namespace qvd::gain::m256

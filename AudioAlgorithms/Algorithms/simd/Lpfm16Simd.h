#pragma once
// The SIMD Lpfm16 variants, written once and built per instruction set.

#include "Algorithms/Lpfm16.h"
#include "System/simd/twa_simd_kernel.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

// The output taps of two frames share one 128-bit accumulator at any row
// width, lanes (frame 0 tap 0, tap 1, frame 1 tap 0, tap 1); each lane still
// adds in the reference's order.
inline __m128 low128(__m128 v)
{
    return v;
}
#if defined(__AVX__)
inline __m128 low128(__m256 v)
{
    return _mm256_castps256_ps128(v);
}
#endif

inline __m128 tapMadd(__m128 a, __m128 b, __m128 c)
{
#if defined(__FMA__)
    return _mm_fmadd_ps(a, b, c);
#else
    return _mm_add_ps(_mm_mul_ps(a, b), c);
#endif
}

class Lpfm16Simd final : public Lpfm16 {
public:
    // channels is 1 or 2.
    Lpfm16Simd(std::size_t channels, const char* name) noexcept : m_channels(channels), m_name(name) {}
    const char* Name() const noexcept override { return m_name; }
    std::size_t Channels() const noexcept override { return m_channels; }

    void Process(const Lpfm16Coefs& c, Lpfm16State& s, const float* x, float* w, float* out,
                 std::size_t frames) const noexcept override
    {
        if (frames == 0)
            return;
        check_ptr<V>(x);
        check_ptr<V>(w);
        Columns cols;
        cols.fill(c, m_channels);
        if (out)
            run<true>(cols, c, s, x, w, out, frames);
        else
            run<false>(cols, c, s, x, w, out, frames);
    }

private:
    static constexpr std::size_t W = V::W;
    static constexpr std::size_t R = 16 / W; // vectors per row of sixteen
    // Frames taken together; only the low-pass state links them.
    static constexpr std::size_t kPair = 2;

    // The coefficients by input line, so a frame is sixteen broadcast
    // multiply-adds over whole columns.
    struct alignas(32) Columns {
        float m[16][16]; // m[j][r] = matrix[r][j]
        float g[16][4];  // g[j] = (tap 0, tap 1 or 0) twice, for two frames side by side

        void fill(const Lpfm16Coefs& c, std::size_t channels) noexcept
        {
            for (std::size_t bi = 0; bi < 16; bi += 4) {
                for (std::size_t bj = 0; bj < 16; bj += 4) {
                    __m128 a = _mm_loadu_ps(&c.m[bi][bj]);
                    __m128 b = _mm_loadu_ps(&c.m[bi + 1][bj]);
                    __m128 d = _mm_loadu_ps(&c.m[bi + 2][bj]);
                    __m128 e = _mm_loadu_ps(&c.m[bi + 3][bj]);
                    _MM_TRANSPOSE4_PS(a, b, d, e);
                    _mm_storeu_ps(&m[bj][bi], a);
                    _mm_storeu_ps(&m[bj + 1][bi], b);
                    _mm_storeu_ps(&m[bj + 2][bi], d);
                    _mm_storeu_ps(&m[bj + 3][bi], e);
                }
            }
            for (std::size_t j = 0; j < 16; ++j) {
                g[j][0] = g[j][2] = c.g[0][j];
                g[j][1] = g[j][3] = channels == 2 ? c.g[1][j] : 0.0f;
            }
        }
    };

    template <bool kTaps>
    void run(const Columns& cols, const Lpfm16Coefs& c, Lpfm16State& s, const float* x, float* w,
             float* out, std::size_t frames) const noexcept
    {
        V z[R];
        for (std::size_t r = 0; r < R; ++r)
            z[r] = load(s.z + r * W);
        std::size_t n = 0;
        for (; n + kPair <= frames; n += kPair)
            step<kPair, kTaps>(cols, c, z, x + 16 * n, w + 16 * n, kTaps ? out + n * m_channels : nullptr);
        for (; n < frames; ++n)
            step<1, kTaps>(cols, c, z, x + 16 * n, w + 16 * n, kTaps ? out + n * m_channels : nullptr);
        for (std::size_t r = 0; r < R; ++r)
            store(s.z + r * W, z[r]);
    }

    // One frame, or two (F = 2) whose sums interleave to hide the add
    // latency. Every frame is read in full before any w is written, so w may be x.
    template <std::size_t F, bool kTaps>
    void step(const Columns& cols, const Lpfm16Coefs& c, V (&z)[R], const float* xn, float* wn,
              float* outn) const noexcept
    {
        static_assert(F == 1 || F == 2);
        V y[F][R];
        __m128 t;
        // x_j of frame 0 in lanes 0-1 and of the last frame in lanes 2-3.
        auto tapInput = [](const V (&b)[F]) { return _mm_shuffle_ps(low128(b[0].r), low128(b[F - 1].r), 0); };
        // Line 0 starts each sum with a plain product, as the reference does.
        {
            V b[F];
            for (std::size_t f = 0; f < F; ++f) {
                b[f] = set1(xn[16 * f]);
                for (std::size_t r = 0; r < R; ++r)
                    y[f][r] = load(cols.m[0] + r * W) * b[f];
            }
            if constexpr (kTaps)
                t = _mm_mul_ps(_mm_load_ps(cols.g[0]), tapInput(b));
        }
        for (std::size_t j = 1; j < 16; ++j) {
            V b[F];
            for (std::size_t f = 0; f < F; ++f) {
                b[f] = set1(xn[16 * f + j]);
                for (std::size_t r = 0; r < R; ++r)
                    y[f][r] = madd(load(cols.m[j] + r * W), b[f], y[f][r]);
            }
            if constexpr (kTaps)
                t = tapMadd(_mm_load_ps(cols.g[j]), tapInput(b), t);
        }
        for (std::size_t f = 0; f < F; ++f) {
            for (std::size_t r = 0; r < R; ++r) {
                z[r] = madd(load(c.k + r * W), y[f][r], load(c.km + r * W) * z[r]);
                store(wn + 16 * f + r * W, z[r]);
            }
        }
        if constexpr (kTaps) {
            if (m_channels == 2 && F == 2)
                _mm_storeu_ps(outn, t);
            else if (m_channels == 2)
                _mm_storel_pi(reinterpret_cast<__m64*>(outn), t);
            else if (F == 2)
                _mm_storel_pi(reinterpret_cast<__m64*>(outn), _mm_shuffle_ps(t, t, _MM_SHUFFLE(2, 0, 2, 0)));
            else
                _mm_store_ss(outn, t);
        }
    }

    std::size_t m_channels;
    const char* m_name;
};

// The variant for `channels`, named after it; none for other counts.
inline Lpfm16* newLpfm16(std::size_t channels, const char* c1Name, const char* c2Name)
{
    if (channels == 1)
        return new Lpfm16Simd(1, c1Name);
    if (channels == 2)
        return new Lpfm16Simd(2, c2Name);
    return nullptr;
}

} // namespace twa::numeric::TWA_ISA

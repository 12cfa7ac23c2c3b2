// Interleave and Deinterleave built for SSE4.1: the packed 24-bit paths, which
// move three-byte samples with byte shuffles.
#define TWA_ISA m128_sse41
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/InterleaveSimd.h"

namespace twa::numeric {
namespace TWA_ISA {
namespace {

struct CodecI24 {
    static constexpr std::size_t kBytes = 3;
    // A 16-byte load carries four 3-byte samples and four bytes beyond them.
    static constexpr std::size_t kGetSlackFrames = 1;
    static V get(const unsigned char* p)
    {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        // Each sample into the top three bytes of its lane, then sign-extend.
        const __m128i spread = _mm_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11);
        const __m128i w = _mm_srai_epi32(_mm_shuffle_epi8(x, spread), 8);
        return V{_mm_cvtepi32_ps(w)} * set1(codec::kScale24);
    }
    static void put(unsigned char* p, V v)
    {
        const V s = vmin(vmax(v * set1(8388608.0f), set1(-8388608.0f)), set1(8388607.0f));
        const __m128i i = _mm_cvtps_epi32(s.r);
        const __m128i pack = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
        const __m128i y = _mm_shuffle_epi8(i, pack);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), y);
        const int last = _mm_cvtsi128_si32(_mm_srli_si128(y, 8));
        __builtin_memcpy(p + 8, &last, 4);
    }
    static float read(const unsigned char* p) { return codec::readI24(p); }
    static void write(unsigned char* p, float x) { codec::writeI24(p, x); }
};

constexpr const char* kDe[3] = {"Deinterleave_i24_c2_m128_sse41", "Deinterleave_i24_c4_m128_sse41",
                                "Deinterleave_i24_c4m_m128_sse41"};
constexpr const char* kIn[3] = {"Interleave_i24_c2_m128_sse41", "Interleave_i24_c4_m128_sse41",
                                "Interleave_i24_c4m_m128_sse41"};

} // namespace
} // namespace TWA_ISA

Deinterleave* NewDeinterleave_m128_sse41(std::size_t channels, SampleFormat format)
{
    using namespace TWA_ISA;
    return format == SampleFormat::Int24 ? makeDeinterleave<CodecI24>(channels, format, kDe) : nullptr;
}

Interleave* NewInterleave_m128_sse41(std::size_t channels, SampleFormat format)
{
    using namespace TWA_ISA;
    return format == SampleFormat::Int24 ? makeInterleave<CodecI24>(channels, format, kIn) : nullptr;
}

} // namespace twa::numeric

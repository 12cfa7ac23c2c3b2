// Interleave and Deinterleave built for AVX2: the 16-bit paths, which widen
// and narrow eight samples at a time.
#define TWA_ISA m256_avx2
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/InterleaveSimd.h"

namespace twa::numeric {
namespace TWA_ISA {
namespace {

struct CodecI16 {
    static constexpr std::size_t kBytes = 2;
    static constexpr std::size_t kGetSlackFrames = 0;
    static V get(const unsigned char* p)
    {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        return V{_mm256_cvtepi32_ps(_mm256_cvtepi16_epi32(x))} * set1(codec::kScale16);
    }
    static void put(unsigned char* p, V v)
    {
        const V s = vmin(vmax(v * set1(32768.0f), set1(-32768.0f)), set1(32767.0f));
        const __m256i i = _mm256_cvtps_epi32(s.r);
        const __m128i packed = _mm_packs_epi32(_mm256_castsi256_si128(i), _mm256_extracti128_si256(i, 1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), packed);
    }
    static float read(const unsigned char* p) { return codec::readI16(p); }
    static void write(unsigned char* p, float x) { codec::writeI16(p, x); }
};

constexpr const char* kDe[3] = {"Deinterleave_i16_c2_m256_avx2", "Deinterleave_i16_c4_m256_avx2",
                                "Deinterleave_i16_c16m_m256_avx2"};
constexpr const char* kIn[3] = {"Interleave_i16_c2_m256_avx2", "Interleave_i16_c4_m256_avx2",
                                "Interleave_i16_c16m_m256_avx2"};

} // namespace
} // namespace TWA_ISA

Deinterleave* NewDeinterleave_m256_avx2(std::size_t channels, SampleFormat format)
{
    using namespace TWA_ISA;
    return format == SampleFormat::Int16 ? makeDeinterleave<CodecI16>(channels, format, kDe) : nullptr;
}

Interleave* NewInterleave_m256_avx2(std::size_t channels, SampleFormat format)
{
    using namespace TWA_ISA;
    return format == SampleFormat::Int16 ? makeInterleave<CodecI16>(channels, format, kIn) : nullptr;
}

} // namespace twa::numeric

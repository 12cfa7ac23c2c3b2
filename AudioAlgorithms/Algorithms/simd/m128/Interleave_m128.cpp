// Interleave and Deinterleave built for SSE2: 32-bit float and 16-bit paths.
#define TWA_ISA m128
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/simd/InterleaveSimd.h"

namespace twa::numeric {
namespace TWA_ISA {
namespace {

struct CodecI16 {
    static constexpr std::size_t kBytes = 2;
    static constexpr std::size_t kGetSlackFrames = 0;
    static V get(const unsigned char* p)
    {
        const __m128i x = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
        const __m128i w = _mm_srai_epi32(_mm_unpacklo_epi16(x, x), 16);
        return V{_mm_cvtepi32_ps(w)} * set1(codec::kScale16);
    }
    static void put(unsigned char* p, V v)
    {
        const V s = vmin(vmax(v * set1(32768.0f), set1(-32768.0f)), set1(32767.0f));
        const __m128i i = _mm_cvtps_epi32(s.r);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packs_epi32(i, i));
    }
    static float read(const unsigned char* p) { return codec::readI16(p); }
    static void write(unsigned char* p, float x) { codec::writeI16(p, x); }
};

constexpr const char* kDeF32[3] = {"Deinterleave_f32_c2_m128", "Deinterleave_f32_c4_m128", "Deinterleave_f32_c4m_m128"};
constexpr const char* kDeI16[3] = {"Deinterleave_i16_c2_m128", "Deinterleave_i16_c4_m128", "Deinterleave_i16_c4m_m128"};
constexpr const char* kInF32[3] = {"Interleave_f32_c2_m128", "Interleave_f32_c4_m128", "Interleave_f32_c4m_m128"};
constexpr const char* kInI16[3] = {"Interleave_i16_c2_m128", "Interleave_i16_c4_m128", "Interleave_i16_c4m_m128"};

} // namespace
} // namespace TWA_ISA

Deinterleave* NewDeinterleave_m128(std::size_t channels, SampleFormat format)
{
    using namespace TWA_ISA;
    if (format == SampleFormat::Float32)
        return makeDeinterleave<CodecF32>(channels, format, kDeF32);
    if (format == SampleFormat::Int16)
        return makeDeinterleave<CodecI16>(channels, format, kDeI16);
    return nullptr;
}

Interleave* NewInterleave_m128(std::size_t channels, SampleFormat format)
{
    using namespace TWA_ISA;
    if (format == SampleFormat::Float32)
        return makeInterleave<CodecF32>(channels, format, kInF32);
    if (format == SampleFormat::Int16)
        return makeInterleave<CodecI16>(channels, format, kInI16);
    return nullptr;
}

} // namespace twa::numeric

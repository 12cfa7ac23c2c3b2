// Interleave and Deinterleave built for AVX: the 32-bit float paths.
#define TWA_ISA m256
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/simd/InterleaveSimd.h"

namespace twa::numeric {
namespace TWA_ISA {
namespace {
constexpr const char* kDe[3] = {"Deinterleave_f32_c2_m256", "Deinterleave_f32_c4_m256", "Deinterleave_f32_c16m_m256"};
constexpr const char* kIn[3] = {"Interleave_f32_c2_m256", "Interleave_f32_c4_m256", "Interleave_f32_c16m_m256"};
} // namespace
} // namespace TWA_ISA

Deinterleave* NewDeinterleave_m256(std::size_t channels, SampleFormat format)
{
    using namespace TWA_ISA;
    return format == SampleFormat::Float32 ? makeDeinterleave<CodecF32>(channels, format, kDe) : nullptr;
}

Interleave* NewInterleave_m256(std::size_t channels, SampleFormat format)
{
    using namespace TWA_ISA;
    return format == SampleFormat::Float32 ? makeInterleave<CodecF32>(channels, format, kIn) : nullptr;
}

} // namespace twa::numeric

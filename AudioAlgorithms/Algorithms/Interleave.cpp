#include "Algorithms/Interleave.h"

#include "System/twa_cpuinfo_x86.h"

namespace twa::numeric {

std::size_t BytesPerSample(SampleFormat f) noexcept
{
    switch (f) {
    case SampleFormat::Int16:
        return 2;
    case SampleFormat::Int24:
        return 3;
    case SampleFormat::Float32:
        return 4;
    }
    return 0;
}

Deinterleave::Deinterleave() noexcept = default;
Deinterleave::~Deinterleave() = default;
Interleave::Interleave() noexcept = default;
Interleave::~Interleave() = default;

namespace {
// By channel count: 2, 4, multiples of 16, multiples of 4, then the reference;
// wider vectors first. The 24-bit paths need SSE4.1 (and its byte shuffles).
constexpr DeinterleaveVariant kDeinterleave[] = {
    {"Deinterleave_f32_c2_m256", IsaNeed::AVX,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c == 2 && HasAVX(); },
     &NewDeinterleave_m256},
    {"Deinterleave_f32_c4_m256", IsaNeed::AVX,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c == 4 && HasAVX(); },
     &NewDeinterleave_m256},
    {"Deinterleave_f32_c16m_m256", IsaNeed::AVX,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c % 16 == 0 && HasAVX(); },
     &NewDeinterleave_m256},
    {"Deinterleave_f32_c2_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c == 2 && HasSSE2(); },
     &NewDeinterleave_m128},
    {"Deinterleave_f32_c4_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c == 4 && HasSSE2(); },
     &NewDeinterleave_m128},
    {"Deinterleave_f32_c4m_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c != 4 && c % 4 == 0 && HasSSE2(); },
     &NewDeinterleave_m128},
    {"Deinterleave_i16_c2_m256_avx2", IsaNeed::AVX2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c == 2 && HasAVX2(); },
     &NewDeinterleave_m256_avx2},
    {"Deinterleave_i16_c4_m256_avx2", IsaNeed::AVX2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c == 4 && HasAVX2(); },
     &NewDeinterleave_m256_avx2},
    {"Deinterleave_i16_c16m_m256_avx2", IsaNeed::AVX2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c % 16 == 0 && HasAVX2(); },
     &NewDeinterleave_m256_avx2},
    {"Deinterleave_i16_c2_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c == 2 && HasSSE2(); },
     &NewDeinterleave_m128},
    {"Deinterleave_i16_c4_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c == 4 && HasSSE2(); },
     &NewDeinterleave_m128},
    {"Deinterleave_i16_c4m_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c != 4 && c % 4 == 0 && HasSSE2(); },
     &NewDeinterleave_m128},
    {"Deinterleave_i24_c2_m128_sse41", IsaNeed::SSE41,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int24 && c != 0 && c == 2 && HasSSE41(); },
     &NewDeinterleave_m128_sse41},
    {"Deinterleave_i24_c4_m128_sse41", IsaNeed::SSE41,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int24 && c != 0 && c == 4 && HasSSE41(); },
     &NewDeinterleave_m128_sse41},
    {"Deinterleave_i24_c4m_m128_sse41", IsaNeed::SSE41,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int24 && c != 0 && c != 4 && c % 4 == 0 && HasSSE41(); },
     &NewDeinterleave_m128_sse41},
    {"Deinterleave_ref", IsaNeed::None, [](std::size_t c, SampleFormat) { return c != 0; }, &NewDeinterleave_ref},
};

constexpr InterleaveVariant kInterleave[] = {
    {"Interleave_f32_c2_m256", IsaNeed::AVX,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c == 2 && HasAVX(); },
     &NewInterleave_m256},
    {"Interleave_f32_c4_m256", IsaNeed::AVX,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c == 4 && HasAVX(); },
     &NewInterleave_m256},
    {"Interleave_f32_c16m_m256", IsaNeed::AVX,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c % 16 == 0 && HasAVX(); },
     &NewInterleave_m256},
    {"Interleave_f32_c2_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c == 2 && HasSSE2(); },
     &NewInterleave_m128},
    {"Interleave_f32_c4_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c == 4 && HasSSE2(); },
     &NewInterleave_m128},
    {"Interleave_f32_c4m_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Float32 && c != 0 && c != 4 && c % 4 == 0 && HasSSE2(); },
     &NewInterleave_m128},
    {"Interleave_i16_c2_m256_avx2", IsaNeed::AVX2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c == 2 && HasAVX2(); },
     &NewInterleave_m256_avx2},
    {"Interleave_i16_c4_m256_avx2", IsaNeed::AVX2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c == 4 && HasAVX2(); },
     &NewInterleave_m256_avx2},
    {"Interleave_i16_c16m_m256_avx2", IsaNeed::AVX2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c % 16 == 0 && HasAVX2(); },
     &NewInterleave_m256_avx2},
    {"Interleave_i16_c2_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c == 2 && HasSSE2(); },
     &NewInterleave_m128},
    {"Interleave_i16_c4_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c == 4 && HasSSE2(); },
     &NewInterleave_m128},
    {"Interleave_i16_c4m_m128", IsaNeed::SSE2,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int16 && c != 0 && c != 4 && c % 4 == 0 && HasSSE2(); },
     &NewInterleave_m128},
    {"Interleave_i24_c2_m128_sse41", IsaNeed::SSE41,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int24 && c != 0 && c == 2 && HasSSE41(); },
     &NewInterleave_m128_sse41},
    {"Interleave_i24_c4_m128_sse41", IsaNeed::SSE41,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int24 && c != 0 && c == 4 && HasSSE41(); },
     &NewInterleave_m128_sse41},
    {"Interleave_i24_c4m_m128_sse41", IsaNeed::SSE41,
     [](std::size_t c, SampleFormat f) { return f == SampleFormat::Int24 && c != 0 && c != 4 && c % 4 == 0 && HasSSE41(); },
     &NewInterleave_m128_sse41},
    {"Interleave_ref", IsaNeed::None, [](std::size_t c, SampleFormat) { return c != 0; }, &NewInterleave_ref},
};
} // namespace

std::span<const DeinterleaveVariant> DeinterleaveVariants()
{
    return kDeinterleave;
}

std::span<const InterleaveVariant> InterleaveVariants()
{
    return kInterleave;
}

void CreateDeinterleave(std::unique_ptr<Deinterleave>& out, std::size_t channels, SampleFormat format)
{
    InstallFirstChosen<Deinterleave, std::size_t, SampleFormat>(out, DeinterleaveVariants(), channels, format);
}

void CreateInterleave(std::unique_ptr<Interleave>& out, std::size_t channels, SampleFormat format)
{
    InstallFirstChosen<Interleave, std::size_t, SampleFormat>(out, InterleaveVariants(), channels, format);
}

} // namespace twa::numeric

#pragma once
// Scalar sample conversions shared by the reference and the SIMD tails, so
// both round the same way. Built in the including file's ISA namespace (or
// `ref`), like every header whose inline code meets different target flags.

#include <cstdint>
#include <cstring>

#ifdef TWA_ISA
#define TWA_CODEC_NS TWA_ISA
#else
#define TWA_CODEC_NS ref
#endif

namespace twa::numeric::TWA_CODEC_NS::codec {

constexpr float kScale16 = 1.0f / 32768.0f;
constexpr float kScale24 = 1.0f / 8388608.0f;

// Scales, clamps (NaN goes to lo, as maxps does) and rounds to nearest even.
inline std::int32_t toInt(float x, float scale, float lo, float hi)
{
    float v = x * scale;
    v = v > lo ? v : lo;
    v = v < hi ? v : hi;
    return static_cast<std::int32_t>(__builtin_lrintf(v));
}

inline float readI16(const unsigned char* p)
{
    std::int16_t v;
    std::memcpy(&v, p, 2);
    return static_cast<float>(v) * kScale16;
}

inline void writeI16(unsigned char* p, float x)
{
    const std::int16_t v = static_cast<std::int16_t>(toInt(x, 32768.0f, -32768.0f, 32767.0f));
    std::memcpy(p, &v, 2);
}

inline float readI24(const unsigned char* p)
{
    const std::uint32_t u = static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
                            (static_cast<std::uint32_t>(p[2]) << 16);
    const std::int32_t v = static_cast<std::int32_t>(u << 8) >> 8;
    return static_cast<float>(v) * kScale24;
}

inline void writeI24(unsigned char* p, float x)
{
    const std::uint32_t v = static_cast<std::uint32_t>(toInt(x, 8388608.0f, -8388608.0f, 8388607.0f));
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
}

inline float readF32(const unsigned char* p)
{
    float v;
    std::memcpy(&v, p, 4);
    return v;
}

inline void writeF32(unsigned char* p, float x)
{
    std::memcpy(p, &x, 4);
}

} // namespace twa::numeric::TWA_CODEC_NS::codec

#undef TWA_CODEC_NS

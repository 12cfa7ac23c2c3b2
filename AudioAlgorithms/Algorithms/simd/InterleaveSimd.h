#pragma once
// The SIMD Interleave and Deinterleave variants: the channel layouts are
// written once over a codec that moves W consecutive samples between memory
// and a float vector. The per-ISA files add the integer codecs.

#include "Algorithms/Interleave.h"
#include "Algorithms/InterleaveCodec.h"
#include "System/simd/twa_simd_kernel.h"

namespace twa::numeric::TWA_ISA {

using namespace twa::simd::TWA_ISA;

struct CodecF32 {
    static constexpr std::size_t kBytes = 4;
    static constexpr std::size_t kGetSlackFrames = 0; // frames a vector read may run past its samples
    static V get(const unsigned char* p) { return load(reinterpret_cast<const float*>(p)); }
    static void put(unsigned char* p, V v) { store(reinterpret_cast<float*>(p), v); }
    static float read(const unsigned char* p) { return codec::readF32(p); }
    static void write(unsigned char* p, float x) { codec::writeF32(p, x); }
};

// Vector path for frames in blocks of W: two or four channels side by side,
// or groups of W channels transposed as square blocks.
template <class Codec>
class DeinterleaveSimd final : public Deinterleave {
public:
    DeinterleaveSimd(std::size_t channels, SampleFormat format, const char* name) noexcept
        : m_channels(channels), m_format(format), m_name(name)
    {
    }
    const char* Name() const noexcept override { return m_name; }
    std::size_t ChannelCount() const noexcept override { return m_channels; }
    SampleFormat Format() const noexcept override { return m_format; }

    void Process(const void* in, float* const* out, std::size_t frames) const noexcept override
    {
        check_ptr<V>(in);
        for (std::size_t c = 0; c < m_channels; ++c)
            check_ptr<V>(out[c]);
        constexpr std::size_t W = V::W;
        constexpr std::size_t B = Codec::kBytes;
        const std::size_t C = m_channels;
        const auto* p = static_cast<const unsigned char*>(in);
        std::size_t k = 0;
        if (C == 2) {
            for (; k + W + Codec::kGetSlackFrames <= frames; k += W) {
                V e;
                V o;
                deinterleave2(Codec::get(p + 2 * k * B), Codec::get(p + (2 * k + W) * B), e, o);
                store(out[0] + k, e);
                store(out[1] + k, o);
            }
        } else if (C == 4) {
            for (; k + W + Codec::kGetSlackFrames <= frames; k += W) {
                V r[4];
                for (std::size_t j = 0; j < 4; ++j)
                    r[j] = Codec::get(p + (4 * k + j * W) * B);
                deinterleave4(r);
                for (std::size_t j = 0; j < 4; ++j)
                    store(out[j] + k, r[j]);
            }
        } else {
            for (; k + W + Codec::kGetSlackFrames <= frames; k += W) {
                for (std::size_t g = 0; g < C; g += W) {
                    V r[W];
                    for (std::size_t j = 0; j < W; ++j)
                        r[j] = Codec::get(p + ((k + j) * C + g) * B);
                    transposeSquare(r);
                    for (std::size_t j = 0; j < W; ++j)
                        store(out[g + j] + k, r[j]);
                }
            }
        }
        for (; k < frames; ++k)
            for (std::size_t c = 0; c < C; ++c)
                out[c][k] = Codec::read(p + (k * C + c) * B);
    }

private:
    std::size_t m_channels;
    SampleFormat m_format;
    const char* m_name;
};

template <class Codec>
class InterleaveSimd final : public Interleave {
public:
    InterleaveSimd(std::size_t channels, SampleFormat format, const char* name) noexcept
        : m_channels(channels), m_format(format), m_name(name)
    {
    }
    const char* Name() const noexcept override { return m_name; }
    std::size_t ChannelCount() const noexcept override { return m_channels; }
    SampleFormat Format() const noexcept override { return m_format; }

    void Process(const float* const* in, void* out, std::size_t frames) const noexcept override
    {
        check_ptr<V>(out);
        for (std::size_t c = 0; c < m_channels; ++c)
            check_ptr<V>(in[c]);
        constexpr std::size_t W = V::W;
        constexpr std::size_t B = Codec::kBytes;
        const std::size_t C = m_channels;
        auto* p = static_cast<unsigned char*>(out);
        std::size_t k = 0;
        if (C == 2) {
            for (; k + W <= frames; k += W) {
                V lo;
                V hi;
                interleave2(load(in[0] + k), load(in[1] + k), lo, hi);
                Codec::put(p + 2 * k * B, lo);
                Codec::put(p + (2 * k + W) * B, hi);
            }
        } else if (C == 4) {
            for (; k + W <= frames; k += W) {
                V r[4];
                for (std::size_t j = 0; j < 4; ++j)
                    r[j] = load(in[j] + k);
                interleave4(r);
                for (std::size_t j = 0; j < 4; ++j)
                    Codec::put(p + (4 * k + j * W) * B, r[j]);
            }
        } else {
            for (; k + W <= frames; k += W) {
                for (std::size_t g = 0; g < C; g += W) {
                    V r[W];
                    for (std::size_t j = 0; j < W; ++j)
                        r[j] = load(in[g + j] + k);
                    transposeSquare(r);
                    for (std::size_t j = 0; j < W; ++j)
                        Codec::put(p + ((k + j) * C + g) * B, r[j]);
                }
            }
        }
        for (; k < frames; ++k)
            for (std::size_t c = 0; c < C; ++c)
                Codec::write(p + (k * C + c) * B, in[c][k]);
    }

private:
    std::size_t m_channels;
    SampleFormat m_format;
    const char* m_name;
};

// Name of the layout a channel count takes with this vector width, or null.
// `wide` names the grouped layout for multiples of 16 rather than of 4.
inline const char* layoutName(std::size_t c, const char* const names[3])
{
    if (c == 2)
        return names[0];
    if (c == 4)
        return names[1];
    if (c != 0 && c % (V::W == 8 ? 16 : 4) == 0)
        return names[2];
    return nullptr;
}

template <class Codec>
Deinterleave* makeDeinterleave(std::size_t c, SampleFormat f, const char* const names[3])
{
    const char* name = layoutName(c, names);
    return name ? new DeinterleaveSimd<Codec>(c, f, name) : nullptr;
}

template <class Codec>
Interleave* makeInterleave(std::size_t c, SampleFormat f, const char* const names[3])
{
    const char* name = layoutName(c, names);
    return name ? new InterleaveSimd<Codec>(c, f, name) : nullptr;
}

} // namespace twa::numeric::TWA_ISA

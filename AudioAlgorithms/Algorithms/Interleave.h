#pragma once
// Conversion between interleaved sample frames and one float array per channel.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

// Interleaved sample formats, little-endian. Integers map to floats by
// v / 2^(bits-1); the other way floats are scaled, clamped to the integer
// range (NaN to its minimum) and rounded to nearest, ties to even.
enum class SampleFormat : unsigned char {
    Int16,
    Int24, // packed, three bytes per sample
    Float32,
};

std::size_t BytesPerSample(SampleFormat f) noexcept;

// Every variant gives bit-identical results. SIMD variants expect every
// pointer (interleaved and per channel) aligned to their vector width.
class Deinterleave {
public:
    virtual ~Deinterleave();
    Deinterleave(const Deinterleave&) = delete;
    Deinterleave& operator=(const Deinterleave&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;
    virtual std::size_t ChannelCount() const noexcept = 0;
    virtual SampleFormat Format() const noexcept = 0;
    // [audio-thread] out[c][k] = sample c of frame k of `in`.
    virtual void Process(const void* in, float* const* out, std::size_t frames) const noexcept = 0;

protected:
    Deinterleave() noexcept;
};

class Interleave {
public:
    virtual ~Interleave();
    Interleave(const Interleave&) = delete;
    Interleave& operator=(const Interleave&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;
    virtual std::size_t ChannelCount() const noexcept = 0;
    virtual SampleFormat Format() const noexcept = 0;
    // [audio-thread] Sample c of frame k of `out` = in[c][k].
    virtual void Process(const float* const* in, void* out, std::size_t frames) const noexcept = 0;

protected:
    Interleave() noexcept;
};

using DeinterleaveVariant = KernelVariant<Deinterleave, std::size_t, SampleFormat>;
using InterleaveVariant = KernelVariant<Interleave, std::size_t, SampleFormat>;

// [not while processing] Install the preferred variant for the channel count
// (at least 1) and format; leave `out` empty only for 0 channels.
void CreateDeinterleave(std::unique_ptr<Deinterleave>& out, std::size_t channels, SampleFormat format);
void CreateInterleave(std::unique_ptr<Interleave>& out, std::size_t channels, SampleFormat format);
std::span<const DeinterleaveVariant> DeinterleaveVariants();
std::span<const InterleaveVariant> InterleaveVariants();

// Each returns null for a channel count or format the variant does not serve.
Deinterleave* NewDeinterleave_ref(std::size_t channels, SampleFormat format);
Deinterleave* NewDeinterleave_m128(std::size_t channels, SampleFormat format);
Deinterleave* NewDeinterleave_m128_sse41(std::size_t channels, SampleFormat format);
Deinterleave* NewDeinterleave_m256(std::size_t channels, SampleFormat format);
Deinterleave* NewDeinterleave_m256_avx2(std::size_t channels, SampleFormat format);
Interleave* NewInterleave_ref(std::size_t channels, SampleFormat format);
Interleave* NewInterleave_m128(std::size_t channels, SampleFormat format);
Interleave* NewInterleave_m128_sse41(std::size_t channels, SampleFormat format);
Interleave* NewInterleave_m256(std::size_t channels, SampleFormat format);
Interleave* NewInterleave_m256_avx2(std::size_t channels, SampleFormat format);

} // namespace twa::numeric

#pragma once
// The feedback step of a sixteen-line delay network: mix the sixteen line
// outputs through a 16 x 16 matrix, low-pass each row with a one-pole filter,
// and tap one or two output channels off the same line outputs.
//
// Per frame, with x the sixteen line outputs:
//   y_r    = sum_j m[r][j] * x_j            (j = 0..15, in that order)
//   w_r    = k_r * y_r + (1 - k_r) * z_r    (then z_r = w_r)
//   out_c  = sum_j g[c][j] * x_j            (c < Channels(), j in order)
// k_r = 1 leaves the row unfiltered; smaller k_r darkens it.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

struct alignas(32) Lpfm16Coefs {
    float m[16][16] = {};   // row-major: row r makes line r's new input
    float k[16] = {};       // low-pass weight of each row, in [0, 1]
    float km[16] = {};      // 1 - k, kept beside k so every variant uses the same value
    float g[2][16] = {};    // output taps; row 1 is unused by one-channel kernels
};

struct alignas(32) Lpfm16State {
    float z[16] = {};
};

// The reference and the plain SSE and AVX variants add in the same order and
// agree exactly; _fma variants round once per multiply-add and differ in the
// last bits.
class Lpfm16 {
public:
    virtual ~Lpfm16();
    Lpfm16(const Lpfm16&) = delete;
    Lpfm16& operator=(const Lpfm16&) = delete;

    // [any-thread] E.g. "Lpfm16_c2_m256_fma".
    virtual const char* Name() const noexcept = 0;
    // [any-thread] Output channels tapped: 1 or 2.
    virtual std::size_t Channels() const noexcept = 0;

    // [audio-thread] x and w hold `frames` rows of 16 floats, 32-byte aligned;
    // w may equal x. out receives Channels() interleaved floats per frame (any
    // alignment); a null out skips the taps. State z carries across calls.
    virtual void Process(const Lpfm16Coefs& c, Lpfm16State& s, const float* x, float* w, float* out,
                         std::size_t frames) const noexcept = 0;

protected:
    Lpfm16() noexcept;
};

using Lpfm16Variant = KernelVariant<Lpfm16, std::size_t>;

// [not while processing] Installs the preferred variant for 1 or 2 channels;
// any other count leaves `out` empty.
void CreateLpfm16(std::unique_ptr<Lpfm16>& out, std::size_t channels);
std::span<const Lpfm16Variant> Lpfm16Variants();

Lpfm16* NewLpfm16_ref(std::size_t channels);
Lpfm16* NewLpfm16_m128(std::size_t channels);
Lpfm16* NewLpfm16_m128_fma(std::size_t channels);
Lpfm16* NewLpfm16_m256(std::size_t channels);
Lpfm16* NewLpfm16_m256_fma(std::size_t channels);

} // namespace twa::numeric

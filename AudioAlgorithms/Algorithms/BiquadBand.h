#pragma once
// Banks of 2, 4 or 8 independent biquad sections run side by side on
// interleaved lanes: sample k of lane b is at index k * bands + b.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric::eq {

enum class BiquadForm : unsigned char {
    DF2,  // direct form II: one delay line shared by both sides
    DF2T, // transposed direct form II
};

// Normalised so that a0 = 1: y = b0 x + b1 x[-1] + b2 x[-2] - a1 y[-1] - a2 y[-2].
struct BiquadCoeffs {
    float b0 = 1.0f;
    float b1 = 0.0f;
    float b2 = 0.0f;
    float a1 = 0.0f;
    float a2 = 0.0f;
};

// Reference and SIMD variants compute the same operations in the same order
// and agree exactly. State is single precision; after every block values below
// about 1e-25 are flushed to zero and a non-finite state restarts from silence.
class BiquadBand {
public:
    virtual ~BiquadBand();
    BiquadBand(const BiquadBand&) = delete;
    BiquadBand& operator=(const BiquadBand&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;
    virtual std::size_t BandCount() const noexcept = 0;
    virtual BiquadForm Form() const noexcept = 0;

    // [audio-thread] Between blocks; band >= BandCount() is ignored. New
    // sections pass their input through unchanged.
    virtual void SetCoefficients(std::size_t band, const BiquadCoeffs& c) noexcept = 0;
    // [audio-thread] Clears the filter state of every band.
    virtual void Reset() noexcept = 0;
    // [audio-thread] Filters `frames` frames of BandCount() lanes; in == out is
    // allowed. The SIMD variants expect 16-byte aligned pointers.
    virtual void Process(const float* in, float* out, std::size_t frames) noexcept = 0;

protected:
    BiquadBand() noexcept;
};

using BiquadBandVariant = KernelVariant<BiquadBand, std::size_t, BiquadForm>;

// [not while processing] Installs the preferred variant for 2, 4 or 8 bands;
// any other count leaves `out` empty.
void CreateBiquadBand(std::unique_ptr<BiquadBand>& out, std::size_t bands, BiquadForm form);
std::span<const BiquadBandVariant> BiquadBandVariants();

BiquadBand* NewBiquadBand_ref(std::size_t bands, BiquadForm form);
BiquadBand* NewBiquadBand4_m128(std::size_t bands, BiquadForm form);
BiquadBand* NewBiquadBand8_m128(std::size_t bands, BiquadForm form);

} // namespace twa::numeric::eq

#pragma once
// Linkwitz-Riley crossover of up to five bands whose bands add up to an
// all-pass, so a multiband processor at rest only shifts phase.
//
// Each split is a Butterworth low-pass squared (24 dB/oct: one second-order
// section twice; 48 dB/oct: two sections twice). Its high band is taken as
// all-pass minus low band, with the all-pass whose poles are the Butterworth's:
// that difference is exactly the Linkwitz-Riley high-pass, and each split then
// sums to its all-pass by construction, not by cancelling two responses.
//
// Splits run from low to high on what lies above the previous one. A band
// below split k never passes through it, so it goes through split k's
// all-pass instead; every band then leaves with the phase of the whole cascade
// and the sum of all bands is the product of the splits' all-passes.
//
// Sections run in transposed direct form II, whose states stay near the
// signal's size, so coefficients may glide while audio runs. Filter states
// are double precision. Channels run in pairs, two lanes of one
// vector, so the recursions of a stereo pair cost one channel's latency.
// States that decayed below 1e-30 are cleared at the end of each block rather
// than flushed every sample, and band samples that small leave as 0.

#include <array>
#include <cstdint>
#include <vector>

#include "BiQuadTypes.h"

class Crossover {
public:
    static constexpr int kMaxBands = 5;
    static constexpr int kMaxSplits = kMaxBands - 1;
    // Second-order sections of one Butterworth low-pass (48 dB/oct).
    static constexpr int kMaxSections = 2;

    enum Slope : int { k24dB = 0, k48dB = 1 };

    // One split's coefficient sets: the Butterworth sections (each run twice
    // for the low band) and the all-pass sections with the same poles.
    struct Split {
        std::array<BiQuadCoefficients, kMaxSections> lowPass{};
        std::array<BiQuadCoefficients, kMaxSections> allPass{};
        int sections = 1;
    };

    // [any-thread] The split at `hz` for a rate of `sampleRate`; `hz` is kept
    // below 0.49 of the rate.
    static Split design(double sampleRate, double hz, Slope slope);
    // [any-thread] The second-order all-pass with the poles of `lowPass`.
    static BiQuadCoefficients allPassOf(const BiQuadCoefficients& lowPass);

    // [not while processing] Sizes the states for `channels` channels and clears them.
    void setChannelCount(std::int32_t channels);
    std::int32_t channelCount() const { return m_channels; }
    // [audio-thread] Band count 1..kMaxBands and the splits in force. A change
    // of the band count or slope clears the states of splits that come and go.
    void setBands(int bands, Slope slope) noexcept;
    int bands() const { return m_bands; }
    Slope slope() const { return m_slope; }
    // [audio-thread] New coefficients for split `k` (0 = lowest) with the
    // states kept, as a gliding frequency needs.
    void setSplit(int k, const Split& split) noexcept { m_splits[static_cast<std::size_t>(k)] = split; }
    const Split& split(int k) const { return m_splits[static_cast<std::size_t>(k)]; }
    // [audio-thread] Clears every state.
    void reset() noexcept;

    // [audio-thread] Channels [first, first + count) of `in` into bands:
    // `bands[b][c]` receives band b of channel first + c, `frames` long
    // (b = 0 lowest). `count` is 1 or 2. Input and band buffers must not overlap,
    // except that `in` may be the top band's buffer.
    void process(std::int32_t first, std::int32_t count, const float* const* in, float* const* const* bands,
                 std::int32_t frames) noexcept;

private:
    // Per channel: for each split, the low-pass states (sections x 2 runs)
    // and the all-pass states; for each band below a split, that split's
    // compensating all-pass states.
    struct ChannelState {
        std::array<std::array<BiQuadState, 2 * kMaxSections>, kMaxSplits> low{};
        std::array<std::array<BiQuadState, kMaxSections>, kMaxSplits> allPass{};
        std::array<std::array<std::array<BiQuadState, kMaxSections>, kMaxSplits>, kMaxBands> compensation{};
    };
    template <int Lanes>
    void run(ChannelState* const* states, const float* const* in, float* const* const* bands,
             std::int32_t frames) noexcept;

    std::array<Split, kMaxSplits> m_splits{};
    int m_bands = 1;
    Slope m_slope = k24dB;
    std::int32_t m_channels = 0;
    std::vector<ChannelState> m_states;
};

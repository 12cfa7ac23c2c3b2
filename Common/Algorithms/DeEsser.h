#pragma once
// De-esser: a band-pass detector (frequency, Q) drives a peak follower
// (LevelTracker, one per channel); the gain brings the detected level down to
// the threshold, by at most the range:
//   reduction = clamp(envelope - threshold, 0, range)   (dB), g = 10^(-reduction/20)
//
//   wide band:   y = x' * g
//   split band:  y = x' + high * (g - 1),  high = x' - lowpass(x)
// x' is the input delayed by latency() frames and the low-pass a linear-phase
// FIR centred on that delay, so low + high is x' exactly and the split is
// clean on both sides: no IIR complement can be, since its phase keeps the
// high band out of step with the input near the split (a notch or a bump of
// several dB an octave around it). Below the threshold g is exactly 1 and the
// output is the delayed input bit for bit in either mode. The gain comes from
// the undelayed detector, so it also looks ahead by the latency.
// Listen outputs the detector's band-passed signal instead, delayed the same.
//
// Linked, every channel takes the gain of the loudest detector.
//
// Smoothing (the process-wide 200 ms record, off in tests): threshold and
// range glide per sample; the filter frequencies and Q glide per 32-frame
// chunk with the coefficients redesigned on the way; mode, listen and link
// crossfade, so no switch clicks. With the range at 0 dB (settled) and Listen
// off, the block only delays.
//
// Non-finite input: filter states that went non-finite restart from rest at
// the end of the block; the followers recover by themselves.

#include <QVDAudioAlgorithm.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "BiQuadTypes.h"
#include "DynamicsKernels.h"

class LevelTracker;

class DeEsser : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t { FREQ = 0, Q, THRES, RANGE, ATTACK, RELEASE, MODE, SPLIT, LISTEN, LINK };
    enum Mode : int { kWideBand = 0, kSplitBand = 1 };
    enum ReadOut : std::uint32_t {
        // Largest reduction of the last block, dB (positive while reducing).
        kGainReduction = 0,
    };
    static constexpr float kMinFrequency = 2000.0f, kMaxFrequency = 16000.0f;
    // Per-channel state is built by initialise for this many channels, so a
    // change of channel count never allocates.
    static constexpr std::int32_t kMaxChannels = 8;

    DeEsser();
    ~DeEsser() override;
    static const std::vector<QVDParameterDefinition>& parameterTable();

    // [not while processing] Rate and channel count (up to kMaxChannels); clears the state.
    bool initialise(float sampleRate, std::int32_t channelCount) override;
    bool setChannelCount(std::int32_t channelCount) override;
    void update() override {}
    // [audio-thread] channelCount() planar buffers in place; false (untouched)
    // for more than kMaxChannels.
    bool processChannels(float* const* channels, std::uint32_t frames) noexcept override;
    // [control-thread] Values are clamped to the table's ranges; NaN is ignored.
    bool setParameter(std::uint32_t index, float value) override;
    // [not while processing] Filters and followers at rest, glides at their targets.
    void reset() override;
    // [any-thread]
    float readOut(std::uint32_t index) const override;
    // [any-thread] Delay of the audio in frames, fixed by initialise: 1.2 ms.
    std::int32_t latency() const { return m_latency; }

private:
    struct Glides {
        double logFreq, logQ, logSplit, thres, range, split, listen, link;
    };
    struct Lane {
        BiQuadState detect;
        // Input and detector band, each written twice (at p and p + taps) so
        // the last `taps` frames are always contiguous.
        std::vector<float> input, band;
    };
    Glides targets() const noexcept;
    void design() noexcept;
    void designLowPass() noexcept;

    static constexpr std::int32_t kChunk = 32;

    // Targets, written by the setter (log10 units for levels).
    std::atomic<float> m_freq{6000.0f}, m_q{1.5f}, m_split{4000.0f};
    std::atomic<float> m_thres{-1.5f}, m_range{0.3f};
    std::atomic<bool> m_splitMode{true}, m_listen{false}, m_link{true};

    // Audio-thread state.
    Glides m_now{};
    bool m_jump = true; // glides land on their targets at the next block
    BiQuadCoefficients m_detectCoefs;
    std::int32_t m_latency = 1, m_taps = 3;
    std::size_t m_pos = 0;        // ring position, shared by every lane
    bool m_delayOnly = false;     // the followers missed frames and restart
    std::vector<float> m_window;  // Kaiser, sized at initialise
    std::vector<float> m_lowPass; // FIR taps, symmetric
    std::array<Lane, kMaxChannels> m_lanes{};
    std::array<std::unique_ptr<LevelTracker>, kMaxChannels> m_trackers;
    using Chunk = std::array<float, kChunk>;
    std::array<Chunk, kMaxChannels> m_band{}, m_env{}, m_gain{};
    Chunk m_scratch{}, m_thresNow{}, m_rangeNow{}, m_splitNow{}, m_listenNow{}, m_linkNow{}, m_loudest{};
    std::atomic<float> m_reductionDb{0.0f};
    qvd::dynamics::Variant m_variant;
};

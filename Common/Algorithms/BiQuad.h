#pragma once
// Second-order filter block: one coefficient set shared by every channel, a
// double-precision state pair per channel, float samples in and out.
//
// Threads: setParameter runs on the control thread and publishes a whole
// coefficient set under a sequence counter; the audio thread picks the newest
// complete set up at the start of each process call and never waits for one.

#include <atomic>
#include <cstdint>
#include <vector>

#include <QVDAudioAlgorithm.h>

#include "BiQuadTypes.h"

class BiQuad : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t { IN = 0, SHAPE = 1, GAIN = 2, FREQ = 3, Q = 4 };
    // Response kinds; SHAPE reaches all but the cascade and the band-pass.
    enum Kind : std::uint32_t {
        kNeutral = 0,
        kCascade = 1,
        kBell = 2,
        kLowPass = 3,
        kBandPass = 4,
        kHighPass = 5,
        kLowShelf = 6,
        kHighShelf = 7,
        kNotch = 10,
    };

    static constexpr double kFlush = kBiQuadFlush;

    BiQuad();
    ~BiQuad() override;

    static const std::vector<QVDParameterDefinition>& parameterTable();

    // [any-thread] The coefficient set of `kind` at rate `sampleRate` for a
    // frequency in Hz, a Q and a linear gain, straight from the formulas (no
    // check of the result). Unknown kinds, and the cascade, give the neutral set.
    static BiQuadCoefficients design(std::uint32_t kind, double sampleRate, double frequency, double q,
                                     double linearGain);
    // [any-thread] SHAPE value to response kind: truncation, 0..5 to
    // LPF, HPF, LShelf, HShelf, Bell, Notch; anything else neutral.
    static std::uint32_t kindOfShape(float shape);

    // [audio-thread] One channel over `frames` samples; `out` may equal `in`,
    // and a null `out` only advances the state.
    static void run(const BiQuadCoefficients& c, BiQuadState& s, const float* in, float* out,
                    std::uint32_t frames) noexcept;

    // QVDAudioAlgorithm
    bool initialise(float sampleRate, std::int32_t channelCount) override;
    void update() override {}
    bool setChannelCount(std::int32_t channelCount) override;
    bool processChannel(std::uint32_t channel, float* samples, std::uint32_t frames) noexcept override;
    bool processChannels(float* const* channels, std::uint32_t frames) noexcept override;
    bool setParameter(std::uint32_t index, float value) override;
    void reset() override;

    // [audio-thread] `count` channels in place.
    bool processChannels(float* const* channels, std::uint32_t count, std::uint32_t frames) noexcept;
    // [audio-thread] Out of place: equal pointers run in place, a null output
    // (or a null output array) only advances that channel's state.
    bool process(const float* const* inputs, float* const* outputs, std::uint32_t count,
                 std::uint32_t frames) noexcept;

    // For callers that run the recursion themselves (the equaliser's fused
    // kernels): acquire at the start of a block, run over states(), then
    // recoverStates() at its end.
    // [audio-thread] Picks up the newest published set (clearing the states
    // when the in flag toggled) and returns the set in force.
    const BiQuadCoefficients& acquire() noexcept;
    // [audio-thread] Zeroes states that went non-finite (a NaN or infinite
    // input), so the filter recovers at the next block.
    void recoverStates(std::uint32_t count) noexcept;
    BiQuadState* states() { return m_states.data(); }
    std::uint32_t stateCount() const { return static_cast<std::uint32_t>(m_states.size()); }

    // [control-thread] The set most recently designed: what acquire() will
    // return from the next block on.
    const BiQuadCoefficients& designed() const { return m_designed; }
    std::uint32_t kind() const { return m_kind; }
    bool isIn() const { return m_in; }
    double frequency() const { return m_frequency; }
    double q() const { return m_q; }
    double linearGain() const { return m_gain; }

private:
    void redesign();
    void publish();

    // Filter settings, control thread only.
    std::uint32_t m_kind = kBell;
    double m_frequency = 1000.0; // Hz
    double m_q = 1.5;
    double m_gain = 1.0; // linear
    bool m_in = false;
    BiQuadCoefficients m_designed;
    // Bumped whenever the in flag toggles; travels with the published set.
    std::uint32_t m_clearGeneration = 0;

    // The published set: even sequence when complete, odd while being written.
    std::atomic<std::uint32_t> m_sequence{0};
    std::atomic<double> m_published[5];
    std::atomic<std::uint32_t> m_publishedClear{0};

    // Audio-thread copies of the last set picked up.
    BiQuadCoefficients m_active;
    std::uint32_t m_activeSequence = 0;
    std::uint32_t m_activeClear = 0;

    std::vector<BiQuadState> m_states;
};

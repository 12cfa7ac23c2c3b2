#pragma once
// Click suppressor for the places where a plugin's audio would otherwise step:
//
// - Switching: ON fades every channel in or out along a straight line of TIME
//   ms (a mute, a bypassed path, a solo). Off and settled, the output is
//   exactly 0; on and settled, exactly the input.
// - Jumps: when a channel's input moves by more than JUMP (dB re full scale)
//   from one sample to the next (a splice after a seek, an upstream block's
//   reset, a latency change), the channel adds the offset that makes its
//   output continue from the previous output sample and takes that offset
//   back to 0 along a straight line of TIME ms. Ordinary audio moves less
//   than the default 0 dB (1.0) per sample except for full-scale content
//   near 8 kHz and above; lower JUMP catches smaller steps at that cost.
// - markDiscontinuity() makes the next sample of every channel count as a
//   jump whatever its size.
//
// Starting state: on, gain 1, every channel's previous input and output 0 (so
// a stream that starts away from 0 glides in from 0). reset() restores it.
// Non-finite samples pass through without touching the state; the first
// finite sample after them is compared with the last finite one.

#include <QVDAudioAlgorithm.h>

#include <atomic>
#include <cstdint>
#include <vector>

class DePop : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t { TIME = 0, JUMP, ON };
    enum ReadOut : std::uint32_t {
        // Switch gain after the last frame, 0 to 1.
        kGain = 0,
    };

    DePop();
    static const std::vector<QVDParameterDefinition>& parameterTable();

    // [not while processing] Sizes the per-channel state.
    bool initialise(float sampleRate, std::int32_t channelCount) override;
    bool setChannelCount(std::int32_t channelCount) override;
    void update() override {}
    // [audio-thread] Every channel in place; false without channels.
    bool processChannels(float* const* channels, std::uint32_t frames) noexcept override;
    // [control-thread] NaN leaves derived values alone.
    bool setParameter(std::uint32_t index, float value) override;
    // [any-thread] The next sample of every channel glides from the last output.
    void markDiscontinuity() { m_discontinuity.store(true, std::memory_order_relaxed); }
    // [not while processing]
    void reset() override;
    // [any-thread]
    float readOut(std::uint32_t index) const override;
    // [any-thread] Switched off and faded out: the output is silence.
    bool isSilent() const { return m_gainOut.load(std::memory_order_relaxed) == 0.0f; }

private:
    struct Channel {
        float lastIn = 0.0f;  // previous finite input
        float lastOut = 0.0f; // previous finite output before the switch gain
        float offset = 0.0f;  // added to the input while gliding
        float offsetStep = 0.0f;
        std::int32_t offsetLeft = 0; // samples left in the glide
    };

    std::atomic<std::int32_t> m_rampSamples{240};
    std::atomic<float> m_jump{1.0f}; // linear
    std::atomic<bool> m_on{true};
    std::atomic<bool> m_discontinuity{false};

    std::vector<Channel> m_channels;
    float m_gain = 1.0f; // switch gain, 0..1
    float m_gainTarget = 1.0f;
    float m_gainStep = 0.0f;
    std::int32_t m_gainLeft = 0;
    std::atomic<float> m_gainOut{1.0f};
};

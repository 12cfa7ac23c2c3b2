#pragma once
// All-pass delay section, one per channel: y = buf[i] - g*x, buf[i] = y*g + x,
// i.e. (z^-D - g) / (1 - g z^-D). It colours and diffuses without changing the
// long-term spectrum; with feedback 0 it is a pure delay of D samples.
//
// Every channel owns a fixed 96000-sample buffer (384 kB, allocated when the
// channel count is set), so time changes never allocate. D = truncate(fs *
// TIME / 1000) is capped at 95999: 1999.98 ms at 48 kHz, about 1000 ms at
// 96 kHz, 500 ms at 192 kHz, although TIME reaches 2000.
//
// Feedback (TIME in ms, FEEDBACK in %) is smoothed per sample with the shared
// 200 ms coefficient. Feedback is kept within +-99.9 % so the section stays
// stable whatever is set. A block that produces a non-finite sample clears
// the non-finite entries of that channel's buffer when it ends, so a NaN or
// infinite input burst never circulates for ever.

#include <QVDAudioAlgorithm.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

class Delay : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t { TIME = 0, FEEDBACK = 1 };
    static constexpr std::int32_t kBufferSize = 96000;
    static constexpr std::int32_t kMaxLength = kBufferSize - 1;

    Delay();
    static const std::vector<QVDParameterDefinition>& parameterTable();

    // [not while processing] Sizes the channels, applies the defaults, clears state.
    bool initialise(float sampleRate, std::int32_t channelCount) override;
    // [not while processing] Resizes to n channels (new ones zeroed, existing
    // ones kept) and applies the current TIME and FEEDBACK to all of them.
    bool setChannelCount(std::int32_t channelCount) override;
    void update() override {}
    // [audio-thread] In place; false for a channel without a record.
    bool processChannel(std::uint32_t channel, float* samples, std::uint32_t frames) noexcept override;
    // [audio-thread] From `input` to `output` (they may be the same buffer).
    bool processChannel(std::uint32_t channel, const float* input, float* output, std::uint32_t frames) noexcept;
    // [audio-thread] Every channel in place.
    bool processChannels(float* const* channels, std::uint32_t frames) noexcept override;
    // [audio-thread] Runs the recursion on every channel without writing any
    // output: the delay memory follows the input.
    bool feedChannels(const float* const* channels, std::uint32_t frames) noexcept;
    // [control-thread] TIME sets D in every channel, FEEDBACK the target
    // feedback (and, while smoothing is off, the smoothed one). NaN changes
    // nothing but the stored value.
    bool setParameter(std::uint32_t index, float value) override;
    // [not while processing] Buffers to zero, write index to 0, smoothed
    // feedback onto its target.
    void reset() override;

    // [audio-thread] Buffer sample at the truncated position; 0.0 for a
    // position outside [0, 96000) or a channel without a record.
    float read(std::uint32_t channel, float position) const noexcept;
    // [any-thread] D and the smoothed feedback of a channel (0 without a record).
    std::int32_t length(std::uint32_t channel) const;
    double smoothedFeedback(std::uint32_t channel) const;

protected:
    explicit Delay(const std::vector<QVDParameterDefinition>& table);
    // Builds the table with identifiers "<className>::TIME" and "<className>::FEEDBACK".
    static std::vector<QVDParameterDefinition> makeTable(const char* className);

private:
    struct Channel {
        std::vector<float> buffer = std::vector<float>(kBufferSize, 0.0f);
        std::int32_t write = 0;
        std::atomic<std::int32_t> length{0};
        std::atomic<float> target{0.0f};
        // Written by the setter while smoothing is off.
        std::atomic<double> smoothed{0.0};
    };
    template <bool WriteOutput>
    static void run(Channel& ch, const float* input, float* output, std::uint32_t frames) noexcept;
    std::size_t activeChannels() const noexcept;
    void applyTime(float ms);
    void applyFeedback(float percent);

    std::vector<std::unique_ptr<Channel>> m_channels;
};

// The same block under its own identifiers ("Delay2::TIME", "Delay2::FEEDBACK").
class Delay2 : public Delay {
public:
    Delay2();
    static const std::vector<QVDParameterDefinition>& parameterTable();
};

#pragma once
// Low-frequency oscillator of the modulation effects: a 256-step wavetable
// read with linear interpolation, one value per call.
//
//   nextValue()         main output: depth * table(phase) + offset; advances the phase
//   alternativeValue()  the same at phase + a slewed offset (a stereo partner);
//                       does not advance the phase
//   advance()           moves the phase without producing a value
//   rawValue(offset)    the bare table value at phase + offset
//
// Depth follows its target through the shared 200 ms smoothing coefficient;
// both outputs step the same smoother, so a caller using both per sample
// smooths twice as fast. "Random" is further low-passed per output.
//
// Tables (257 entries, the last equal to the first): sine sin(2 pi i/256);
// triangle 0, 1, 0, -1, 0 at 0, 64, 128, 192, 256; saw 1 from -1 up to 1 at 192
// and back to -1; saw 2 from -1 up by 1.99558/235 per step to 0.99558 at 235
// and back to -1; a rounded square through 0.0526, 0.2588, 0.9514 and 1 at 1,
// 5, 28 and 64, mirrored about 64 and negated for the second half; a fixed
// pseudo-random table in [-1, 1] starting at 0.0181.
//
// Parameters are addressed by their index, which is not their row: the table
// lists WIDTH (3) and OFFSET (4) before ANGLE (2).
//
// Out-of-range settings: the increment is kept within [0, 128] steps per call
// (a negative or NaN frequency freezes the phase, anything beyond half the
// sample rate runs at half the sample rate); depth, offset and angle offset
// are clamped to +-1e6 and NaN leaves them as they were. Any phase, however
// far off, is wrapped into the table before it is read.

#include <QVDAudioAlgorithm.h>
#include <SmoothingCoefficient.h>

#include <atomic>
#include <cstdint>
#include <vector>

class LFO : public QVDAudioAlgorithm {
public:
    enum Parameter : std::uint32_t { WAVEFORM = 0, FREQ = 1, ANGLE = 2, WIDTH = 3, OFFSET = 4, ALT_OUTPUT_OFFSET = 5 };
    enum Waveform : std::int32_t { kSine = 0, kTri, kSaw1, kSaw2, kSquare, kRandom, kWaveformCount };
    static constexpr std::int32_t kSteps = 256;
    // 256 steps and a guard entry equal to the first.
    static constexpr std::int32_t kTableSize = kSteps + 1;

    LFO();
    // Rows in table order; each row's index field is its parameter index.
    static const std::vector<QVDParameterDefinition>& parameterTable();
    // [any-thread] The 257-entry table of a waveform, nullptr outside 0..5.
    static const float* table(std::int32_t waveform);

    // [not while processing] Stores rate and channels, then applies every
    // row's default through setParameter(row index, default), in row order.
    bool initialise(float sampleRate, std::int32_t channelCount) override;
    void update() override {}
    // [control-thread] By parameter index. WAVEFORM values that round outside
    // 0..5 return false (the value is stored, the table kept); ANGLE is stored
    // only and returns false; indices beyond 5 return false.
    bool setParameter(std::uint32_t index, float value) override;
    // [any-thread] By parameter index; 0.0 beyond 5.
    float getParameter(std::uint32_t index) const override;
    // [not while processing] Phase and angle offset to 0; depth and the random
    // smoothers are kept.
    void reset() override;

    // [audio-thread]
    float nextValue() noexcept;
    float alternativeValue() noexcept;
    void advance() noexcept;
    float rawValue(float offset) const noexcept;

    // [any-thread] State, for editors and tests.
    float phase() const { return m_phase.load(std::memory_order_relaxed); }
    float increment() const { return m_increment.load(std::memory_order_relaxed); }
    float alternativeOffset() const { return m_altOffset.load(std::memory_order_relaxed); }
    double smoothedDepth() const { return m_depth.load(std::memory_order_relaxed); }
    std::int32_t waveform() const { return m_waveform.load(std::memory_order_relaxed); }

private:
    void recomputeIncrement();
    float read(float p) const noexcept;
    double stepDepth() noexcept;

    const SmoothingCoefficient& m_smoothing;
    std::atomic<float> m_frequency{1.0f};      // Hz
    std::atomic<float> m_increment{0.00533f};  // table steps per call
    std::atomic<std::int32_t> m_waveform{kSine};
    std::atomic<const float*> m_table{nullptr}; // table of m_waveform
    std::atomic<float> m_targetDepth{0.0f};
    std::atomic<double> m_depth{0.0};          // written by the setter while smoothing is off
    std::atomic<float> m_offset{0.0f};
    std::atomic<float> m_altTarget{0.0f};      // table steps
    // Audio-thread state; atomics only so editors may read them.
    std::atomic<float> m_phase{0.0f};          // [0, 256)
    std::atomic<float> m_altOffset{0.0f};      // table steps
    float m_random1 = 0.0f;
    float m_random2 = 0.0f;
};

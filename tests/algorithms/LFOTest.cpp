// LFO: the table points, the parameter indices, the outputs, depth smoothing,
// the slew of the angle offset and reset.
#include <gtest/gtest.h>

#include <cmath>

#include <Algorithms/LFO.h>

#include "AlgorithmTestSupport.h"

using namespace algtest;

TEST(LFO, TablesMeetTheirPoints)
{
    for (std::int32_t w = 0; w < LFO::kWaveformCount; ++w) {
        const float* t = LFO::table(w);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t[256], t[0]) << w; // guard entry
        for (int i = 0; i < LFO::kTableSize; ++i)
            ASSERT_TRUE(t[i] >= -1.0f && t[i] <= 1.0f) << w << " " << i;
    }
    EXPECT_EQ(LFO::table(6), nullptr);
    EXPECT_EQ(LFO::table(-1), nullptr);

    const float* sine = LFO::table(LFO::kSine);
    for (int i = 0; i < 256; ++i)
        ASSERT_FLOAT_EQ(sine[i], static_cast<float>(std::sin(2.0 * M_PI * i / 256.0))) << i;
    const float* tri = LFO::table(LFO::kTri);
    EXPECT_EQ(tri[0], 0.0f);
    EXPECT_EQ(tri[64], 1.0f);
    EXPECT_EQ(tri[128], 0.0f);
    EXPECT_EQ(tri[192], -1.0f);
    EXPECT_EQ(tri[10], 10.0f / 64.0f);
    const float* saw1 = LFO::table(LFO::kSaw1);
    EXPECT_EQ(saw1[0], -1.0f);
    EXPECT_EQ(saw1[192], 1.0f);
    EXPECT_FLOAT_EQ(saw1[96], 0.0f);
    EXPECT_FLOAT_EQ(saw1[224], 0.0f);
    const float* saw2 = LFO::table(LFO::kSaw2);
    EXPECT_EQ(saw2[0], -1.0f);
    EXPECT_EQ(saw2[235], 0.99558f);
    for (int i = 1; i <= 235; ++i)
        ASSERT_NEAR(saw2[i] - saw2[i - 1], 0.0085f, 0.0001f) << i;
    for (int i = 236; i <= 256; ++i)
        ASSERT_LT(saw2[i], saw2[i - 1]) << i;
    const float* sq = LFO::table(LFO::kSquare);
    EXPECT_EQ(sq[0], 0.0f);
    EXPECT_EQ(sq[1], 0.0526f);
    EXPECT_EQ(sq[5], 0.2588f);
    EXPECT_EQ(sq[28], 0.9514f);
    EXPECT_EQ(sq[64], 1.0f);
    EXPECT_EQ(sq[128], 0.0f);
    for (int i = 1; i <= 64; ++i) {
        ASSERT_GT(sq[i], sq[i - 1]) << i;
        ASSERT_EQ(sq[128 - i], sq[i]) << i;
    }
    for (int i = 0; i <= 128; ++i)
        ASSERT_EQ(sq[128 + i], -sq[i]) << i;
    const float* rnd = LFO::table(LFO::kRandom);
    EXPECT_EQ(rnd[0], 0.0181f);
    float lo = 1.0f, hi = -1.0f;
    for (int i = 0; i < 256; ++i) {
        lo = std::min(lo, rnd[i]);
        hi = std::max(hi, rnd[i]);
    }
    EXPECT_LT(lo, -0.8f);
    EXPECT_GT(hi, 0.8f);
}

TEST(LFO, ParametersAreAddressedByIndexNotRow)
{
    LFO lfo;
    const auto& rows = lfo.parameters();
    ASSERT_EQ(rows.size(), 6u);
    const std::int32_t order[] = {0, 1, 3, 4, 2, 5};
    for (std::size_t r = 0; r < 6; ++r)
        EXPECT_EQ(rows[r].definition().index, order[r]);
    EXPECT_EQ(rows[0].definition().options.size(), 6);
    EXPECT_EQ(rows[0].definition().options.last(), "Random");

    lfo.initialise(kRate, 1);
    EXPECT_EQ(lfo.getParameter(LFO::WIDTH), 4.0f);
    EXPECT_EQ(lfo.getParameter(LFO::OFFSET), 4.0f);
    EXPECT_EQ(lfo.getParameter(LFO::ANGLE), 0.0f);
    EXPECT_EQ(lfo.getParameter(LFO::FREQ), 1.0f);
    EXPECT_FALSE(lfo.setParameter(LFO::ANGLE, 0.5f)); // stored only
    EXPECT_EQ(lfo.getParameter(LFO::ANGLE), 0.5f);
    EXPECT_EQ(lfo.getParameter(LFO::WIDTH), 4.0f);
    EXPECT_TRUE(lfo.setParameter(LFO::WIDTH, 2.0f));
    EXPECT_EQ(lfo.getParameter(LFO::WIDTH), 2.0f);
    EXPECT_FALSE(lfo.setParameter(6, 1.0f));
    EXPECT_EQ(lfo.getParameter(6), 0.0f);

    // 5.6 rounds to 6: refused, stored, and the table stays.
    lfo.setParameter(LFO::WAVEFORM, LFO::kTri);
    EXPECT_FALSE(lfo.setParameter(LFO::WAVEFORM, 5.6f));
    EXPECT_EQ(lfo.getParameter(LFO::WAVEFORM), 5.6f);
    EXPECT_EQ(lfo.waveform(), LFO::kTri);
    EXPECT_TRUE(lfo.setParameter(LFO::WAVEFORM, -0.4f)); // rounds to 0
    EXPECT_EQ(lfo.waveform(), LFO::kSine);
}

TEST(LFO, MainOutputFollowsFrequencyDepthAndOffset)
{
    SmoothingOff off;
    LFO lfo;
    lfo.initialise(kRate, 1);
    lfo.setParameter(LFO::FREQ, 100.0f);
    EXPECT_FLOAT_EQ(lfo.increment(), 100.0f * 256.0f / 48000.0f);
    lfo.setParameter(LFO::WIDTH, 0.5f);
    lfo.setParameter(LFO::OFFSET, 1.0f);
    // 100 Hz: one period in 480 calls; width 0.5 around offset 1.
    float lo = 10.0f, hi = -10.0f;
    int upCrossings = 0;
    float previous = lfo.nextValue();
    for (int i = 1; i < 4800; ++i) {
        const float v = lfo.nextValue();
        lo = std::min(lo, v);
        hi = std::max(hi, v);
        upCrossings += previous < 1.0f && v >= 1.0f;
        previous = v;
    }
    EXPECT_NEAR(hi, 1.5f, 1e-3f);
    EXPECT_NEAR(lo, 0.5f, 1e-3f);
    EXPECT_EQ(upCrossings, 9); // the first period starts on the first call
    // advance() moves the phase as nextValue() does; rawValue ignores depth and offset.
    LFO a, b;
    a.initialise(kRate, 1);
    b.initialise(kRate, 1);
    for (int i = 0; i < 1000; ++i) {
        a.nextValue();
        b.advance();
    }
    EXPECT_EQ(a.phase(), b.phase());
    // Linear interpolation between table steps: within 1e-4 of the sine.
    EXPECT_NEAR(b.rawValue(0.0f), std::sin(2.0 * M_PI * 1000.0 / 48000.0), 1e-4);
    EXPECT_NEAR(b.rawValue(64.0f), std::cos(2.0 * M_PI * 1000.0 / 48000.0), 1e-4);
}

TEST(LFO, RandomRunsThirtyTwoTimesSlowerAndSmoothed)
{
    SmoothingOff off;
    LFO lfo;
    lfo.initialise(kRate, 1);
    lfo.setParameter(LFO::FREQ, 3.0f);
    const float normal = lfo.increment();
    lfo.setParameter(LFO::WAVEFORM, LFO::kRandom);
    EXPECT_EQ(lfo.increment(), 3.0f * 0.03125f * 256.0f / 48000.0f);
    EXPECT_FLOAT_EQ(lfo.increment() * 32.0f, normal);
    lfo.setParameter(LFO::WAVEFORM, LFO::kSquare);
    EXPECT_EQ(lfo.increment(), normal);

    // Each output low-passes the raw table value with 0.98 / 0.02.
    lfo.setParameter(LFO::WAVEFORM, LFO::kRandom);
    lfo.setParameter(LFO::WIDTH, 1.0f);
    lfo.setParameter(LFO::OFFSET, 0.0f);
    float s = 0.0f;
    for (int i = 0; i < 2000; ++i) {
        s = 0.98f * s + 0.02f * lfo.rawValue(0.0f);
        ASSERT_EQ(lfo.nextValue(), s) << i;
    }
}

TEST(LFO, DepthSmoothingUsesTheShared200msCoefficient)
{
    SmoothingOff off;
    LFO lfo;
    lfo.initialise(kRate, 1);
    lfo.setParameter(LFO::OFFSET, 0.0f);
    lfo.setParameter(LFO::WIDTH, 1.0f);
    lfo.setParameter(LFO::WAVEFORM, LFO::kSquare);
    lfo.reset();
    for (int i = 0; i < 64 * 48000 / 256; ++i)
        lfo.advance(); // to the top of the square, where the table reads 1
    // Off: the next call has the new width.
    lfo.setParameter(LFO::FREQ, 0.0f);
    lfo.setParameter(LFO::WIDTH, 3.0f);
    EXPECT_FLOAT_EQ(lfo.nextValue(), 3.0f);

    SmoothingCoefficient::enableAll(true);
    lfo.setParameter(LFO::WIDTH, 1.0f);
    // 200 ms of calls cover 1 - e^(-2 pi) of the step.
    float v = 0.0f;
    for (int i = 0; i < 9600; ++i)
        v = lfo.nextValue();
    EXPECT_NEAR((3.0f - v) / 2.0f, 1.0 - std::exp(-2.0 * M_PI), 1e-4);
    // Both outputs step the same smoother: half the calls each get as far.
    lfo.setParameter(LFO::WIDTH, 3.0f);
    for (int i = 0; i < 4800; ++i) {
        lfo.nextValue();
        v = lfo.alternativeValue();
    }
    EXPECT_NEAR((v - 1.0f) / 2.0f, 1.0 - std::exp(-2.0 * M_PI), 1e-3);
}

TEST(LFO, AlternativeOffsetSlewsAndResetClearsPhase)
{
    SmoothingOff off;
    LFO lfo;
    lfo.initialise(kRate, 1);
    lfo.setParameter(LFO::WIDTH, 1.0f);
    lfo.setParameter(LFO::OFFSET, 0.0f);
    lfo.setParameter(LFO::FREQ, 0.0f); // hold the phase still
    lfo.setParameter(LFO::ALT_OUTPUT_OFFSET, 0.25f);
    // 64 steps at 0.03 per call: 2133 calls, then it stays.
    int calls = 0;
    while (lfo.alternativeOffset() < 64.0f - 0.03f && calls < 10000) {
        lfo.alternativeValue();
        ++calls;
    }
    EXPECT_NEAR(calls, 2133, 2);
    EXPECT_NEAR(lfo.alternativeValue(), 1.0f, 1e-4f); // a quarter turn of the sine
    lfo.reset();
    EXPECT_EQ(lfo.alternativeOffset(), 0.0f);
    // A whole turn (1.0 = 256 steps) takes about 8534 calls.
    lfo.setParameter(LFO::ALT_OUTPUT_OFFSET, 1.0f);
    calls = 0;
    float before = -1.0f;
    while (lfo.alternativeOffset() != before && calls < 20000) {
        before = lfo.alternativeOffset();
        lfo.alternativeValue();
        ++calls;
    }
    EXPECT_NEAR(calls - 1, 8534, 3);
    EXPECT_NEAR(lfo.alternativeOffset(), 256.0f, 0.03f);
    EXPECT_NEAR(lfo.alternativeValue(), lfo.rawValue(0.0f), 1e-3f);

    lfo.setParameter(LFO::FREQ, 10.0f);
    for (int i = 0; i < 1234; ++i)
        lfo.nextValue();
    const double depth = lfo.smoothedDepth();
    lfo.reset();
    EXPECT_EQ(lfo.phase(), 0.0f);
    EXPECT_EQ(lfo.alternativeOffset(), 0.0f);
    EXPECT_EQ(lfo.smoothedDepth(), depth);
}

TEST(LFO, HostileSettingsKeepItFinite)
{
    SmoothingOff off;
    LFO lfo;
    lfo.initialise(kRate, 1);
    for (std::uint32_t p = 0; p < 6; ++p) {
        for (float v : hostileValues()) {
            lfo.setParameter(p, v);
            for (int i = 0; i < 100; ++i) {
                ASSERT_TRUE(std::isfinite(lfo.nextValue())) << p << " " << v;
                ASSERT_TRUE(std::isfinite(lfo.alternativeValue())) << p << " " << v;
                ASSERT_TRUE(std::isfinite(lfo.rawValue(v))) << p << " " << v;
            }
            ASSERT_TRUE(lfo.phase() >= 0.0f && lfo.phase() < 256.0f);
        }
    }
    lfo.initialise(0.0f, 1); // no rate: no NaN increment either
    EXPECT_TRUE(std::isfinite(lfo.nextValue()));
}

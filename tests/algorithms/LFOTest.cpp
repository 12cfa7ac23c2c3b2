// LFO: waveform shapes, period, depth and offset, parameter indices, depth
// smoothing, the slew of the angle offset and reset.
#include <gtest/gtest.h>

#include <cmath>

#include <Algorithms/LFO.h>

#include "AlgorithmTestSupport.h"

using namespace algtest;

namespace {
void setUp(LFO& lfo, float width, float offset, float hz, float waveform = LFO::kSine)
{
    lfo.initialise(kRate, 1);
    lfo.setParameter(LFO::WIDTH, width);
    lfo.setParameter(LFO::OFFSET, offset);
    lfo.setParameter(LFO::FREQ, hz);
    lfo.setParameter(LFO::WAVEFORM, waveform);
}
} // namespace

TEST(LFO, TablesAreBoundedWrapAroundAndHaveTheirShapes)
{
    for (std::int32_t w = 0; w < LFO::kWaveformCount; ++w) {
        const float* t = LFO::table(w);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t[256], t[0]) << w; // guard entry for the interpolation
        for (int i = 0; i < LFO::kTableSize; ++i)
            ASSERT_TRUE(t[i] >= -1.0f && t[i] <= 1.0f) << w << " " << i;
    }
    EXPECT_EQ(LFO::table(LFO::kWaveformCount), nullptr);
    EXPECT_EQ(LFO::table(-1), nullptr);

    const float* sine = LFO::table(LFO::kSine);
    const float* tri = LFO::table(LFO::kTri);
    const float* sq = LFO::table(LFO::kSquare);
    for (int i = 0; i < 256; ++i) {
        ASSERT_FLOAT_EQ(sine[i], static_cast<float>(std::sin(2.0 * M_PI * i / 256.0))) << i;
        // A triangle peaking at a quarter turn; a rounded square, odd and symmetric.
        ASSERT_NEAR(tri[i], i < 64 ? i / 64.0 : i < 192 ? 2.0 - i / 64.0 : i / 64.0 - 4.0, 1e-6) << i;
        ASSERT_EQ(sq[(256 - i) % 256], -sq[i]) << i;
    }
    for (int i = 1; i <= 64; ++i) {
        ASSERT_GT(sq[i], sq[i - 1]) << i;
        ASSERT_EQ(sq[128 - i], sq[i]) << i;
    }
    EXPECT_EQ(sq[64], 1.0f);
    // Both saws rise from -1 to a peak, then fall back; the second falls faster.
    for (const auto& [w, top] : {std::pair{LFO::kSaw1, 192}, std::pair{LFO::kSaw2, 235}}) {
        const float* t = LFO::table(w);
        EXPECT_EQ(t[0], -1.0f);
        EXPECT_GT(t[top], 0.99f);
        for (int i = 1; i <= 256; ++i)
            ASSERT_TRUE(i <= top ? t[i] > t[i - 1] : t[i] < t[i - 1]) << w << " " << i;
    }
    const float* rnd = LFO::table(LFO::kRandom);
    EXPECT_LT(*std::min_element(rnd, rnd + 256), -0.8f);
    EXPECT_GT(*std::max_element(rnd, rnd + 256), 0.8f);
}

TEST(LFO, PeriodDepthAndOffset)
{
    SmoothingOff off;
    for (const float hz : {1.0f, 100.0f, 1000.0f}) {
        for (const bool random : {false, true}) {
            SCOPED_TRACE(testing::Message() << hz << " Hz, random " << random);
            LFO lfo;
            setUp(lfo, 0.5f, 1.0f, hz, random ? LFO::kRandom : LFO::kSaw1);
            // The random waveform runs 32 times slower than the others.
            const double period = kRate / hz * (random ? 32.0 : 1.0);
            // Ten wraps of the phase in ten and a half periods.
            int wraps = 0;
            for (long i = 0; i < std::lround(10.5 * period); ++i) {
                const float before = lfo.phase();
                lfo.advance();
                wraps += lfo.phase() < before;
            }
            EXPECT_EQ(wraps, 10);
            // Width 0.5 around offset 1 on the saw; the random one moves in small steps.
            float lo = 10.0f, hi = -10.0f, previous = lfo.nextValue(), step = 0.0f;
            for (int i = 0; i < std::min(48000, static_cast<int>(period)); ++i) {
                const float v = lfo.nextValue();
                lo = std::min(lo, v);
                hi = std::max(hi, v);
                step = std::max(step, std::fabs(v - previous));
                previous = v;
            }
            if (!random) {
                EXPECT_NEAR(hi, 1.5f, 0.02f);
                EXPECT_NEAR(lo, 0.5f, 0.02f);
            } else {
                EXPECT_LE(step, 0.02f);
                EXPECT_TRUE(lo >= 0.5f - 1e-6f && hi <= 1.5f + 1e-6f);
            }
        }
    }
    // Linear interpolation between table steps: within 1e-4 of the sine.
    LFO lfo;
    lfo.initialise(kRate, 1);
    for (int i = 0; i < 1000; ++i)
        lfo.advance();
    EXPECT_NEAR(lfo.rawValue(0.0f), std::sin(2.0 * M_PI * 1000.0 / 48000.0), 1e-4);
    EXPECT_NEAR(lfo.rawValue(64.0f), std::cos(2.0 * M_PI * 1000.0 / 48000.0), 1e-4);
}

TEST(LFO, ParametersAreAddressedByIndexAndWaveformsRound)
{
    LFO lfo;
    lfo.initialise(kRate, 1);
    EXPECT_EQ(lfo.getParameter(LFO::FREQ), 1.0f);
    EXPECT_FALSE(lfo.setParameter(LFO::ANGLE, 0.5f)); // stored only
    EXPECT_EQ(lfo.getParameter(LFO::ANGLE), 0.5f);
    EXPECT_TRUE(lfo.setParameter(LFO::WIDTH, 2.0f));
    EXPECT_EQ(lfo.getParameter(LFO::WIDTH), 2.0f);
    EXPECT_EQ(lfo.getParameter(LFO::OFFSET), 4.0f);
    // 5.6 rounds to 6: refused, stored, and the table stays.
    lfo.setParameter(LFO::WAVEFORM, LFO::kTri);
    EXPECT_FALSE(lfo.setParameter(LFO::WAVEFORM, 5.6f));
    EXPECT_EQ(lfo.waveform(), LFO::kTri);
    EXPECT_TRUE(lfo.setParameter(LFO::WAVEFORM, -0.4f)); // rounds to 0
    EXPECT_EQ(lfo.waveform(), LFO::kSine);
}

TEST(LFO, DepthSmoothingTakes200ms)
{
    SmoothingOff off;
    LFO lfo;
    setUp(lfo, 1.0f, 0.0f, 1.0f, LFO::kSquare);
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
    setUp(lfo, 1.0f, 0.0f, 0.0f); // frequency 0 holds the phase still
    // A quarter turn (64 steps at 0.03 per call) takes 2133 calls, a whole turn 8534.
    for (const auto& [turn, calls] : {std::pair{0.25f, 2133}, std::pair{1.0f, 8534}}) {
        lfo.reset();
        lfo.setParameter(LFO::ALT_OUTPUT_OFFSET, turn);
        int n = 0;
        while (lfo.alternativeOffset() < 256.0f * turn - 0.03f && n < 20000) {
            lfo.alternativeValue();
            ++n;
        }
        EXPECT_NEAR(n, calls, 3) << turn;
        lfo.alternativeValue();
        EXPECT_NEAR(lfo.alternativeOffset(), 256.0f * turn, 0.03f);
        EXPECT_NEAR(lfo.alternativeValue(), lfo.rawValue(256.0f * turn), 1e-3f);
    }
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

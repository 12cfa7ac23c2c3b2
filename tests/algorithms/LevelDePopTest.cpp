// LevelTracker (floor, attack, hold, release; audio untouched) and DePop
// (switch fades, glides over input jumps).
#include <gtest/gtest.h>

#include <cmath>

#include <Algorithms/DePop.h>
#include <Algorithms/LevelTracker.h>

#include "AlgorithmTestSupport.h"

using namespace algtest;


TEST(LevelTracker, FollowsThePeakLevelWithItsTimesAndFloor)
{
    LevelTracker t;
    t.initialise(kRate, 2);
    EXPECT_FLOAT_EQ(t.readOut(LevelTracker::kLevelDb), -60.0f);
    t.setParameter(LevelTracker::ATTACK, 10.0f);
    t.setParameter(LevelTracker::HOLD, 20.0f);
    t.setParameter(LevelTracker::RELEASE, 100.0f);
    // The louder of two channels counts; the audio is left alone.
    std::vector<float> quiet(48000, dbToAmp(-40.0)), loud(48000, dbToAmp(-40.0));
    std::fill(loud.begin() + 4800, loud.begin() + 24000, -dbToAmp(-10.0));
    const auto q0 = quiet, l0 = loud;
    std::vector<float> levels(48000);
    const float* chans[] = {quiet.data(), loud.data()};
    ASSERT_TRUE(t.track(chans, 48000, levels.data()));
    EXPECT_EQ(quiet, q0);
    EXPECT_EQ(loud, l0);
    EXPECT_NEAR(levels[4799] * 20.0f, -40.0f, 0.01f);
    EXPECT_NEAR(levels[23999] * 20.0f, -10.0f, 0.01f);
    // Attack: 1 - 1/e of the 30 dB step after 480 samples.
    const float step = (levels[4800 + 479] - levels[4799]) / (-0.5f - levels[4799]);
    EXPECT_NEAR(step, 1.0 - std::exp(-1.0), 2e-3);
    // Hold for 960 samples, then release: 1 - 1/e of the way down 4800 samples later.
    EXPECT_EQ(levels[24000 + 959], levels[23999]);
    EXPECT_LT(levels[24000 + 960], levels[23999]);
    const float down = (levels[24000 + 960 + 4799] - levels[23999]) / (-2.0f - levels[23999]);
    EXPECT_NEAR(down, 1.0 - std::exp(-1.0), 2e-3);
    // 30 dB * e^-4.8 of the release is still to go.
    EXPECT_NEAR(t.readOut(LevelTracker::kLevelDb), -40.0f + 30.0f * std::exp(-4.8f), 0.01f);

    // Silence rests on the floor, NaN is ignored, infinity restarts at the floor.
    std::vector<float> silence(48000, 0.0f);
    silence[100] = std::nanf("");
    const float* mono[] = {silence.data(), silence.data()};
    t.setParameter(LevelTracker::FLOOR, -80.0f);
    ASSERT_TRUE(t.track(mono, 48000, nullptr));
    EXPECT_NEAR(t.readOut(LevelTracker::kLevelDb), -80.0f, 0.01f);
    silence[200] = INFINITY;
    ASSERT_TRUE(t.track(mono, 512, nullptr));
    EXPECT_FLOAT_EQ(t.readOut(LevelTracker::kLevelDb), -80.0f);
    for (std::uint32_t p = 0; p < t.parameterCount(); ++p)
        for (float v : hostileValues())
            EXPECT_TRUE(t.setParameter(p, v));
    ASSERT_TRUE(t.track(chans, 48000, levels.data()));
    EXPECT_TRUE(allFinite(levels));
}

TEST(DePop, SwitchFadesAlongAStraightLine)
{
    DePop d;
    d.initialise(kRate, 1); // 5 ms = 240 samples
    EXPECT_EQ(runMono(d, std::vector<float>(2000, 0.5f)).back(), 0.5f);
    d.setParameter(DePop::ON, 0.0f);
    const auto y = runMono(d, std::vector<float>(1000, 0.5f), 100);
    for (std::size_t n = 0; n < 240; ++n)
        ASSERT_NEAR(y[n], 0.5f * (1.0f - static_cast<float>(n + 1) / 240.0f), 1e-6f) << n;
    for (std::size_t n = 239; n < y.size(); ++n)
        ASSERT_EQ(y[n], 0.0f) << n;
    EXPECT_TRUE(d.isSilent());
    d.setParameter(DePop::ON, 1.0f);
    const auto z = runMono(d, std::vector<float>(1000, 0.5f), 77);
    EXPECT_NEAR(z[119], 0.25f, 1e-6f);
    for (std::size_t n = 239; n < z.size(); ++n)
        ASSERT_EQ(z[n], 0.5f) << n;
    EXPECT_EQ(d.readOut(DePop::kGain), 1.0f);
}

TEST(DePop, GlidesOverJumpsAndPassesOrdinaryAudio)
{
    DePop d;
    d.initialise(kRate, 2);
    // A -6 dB, 1 kHz sine moves far less than 1.0 per sample: bit-exact.
    std::vector<std::vector<float>> sig(2, sine(0.5f, 1000.0f, 4800));
    ASSERT_TRUE(d.processChannels(pointers(sig).data(), 4800));
    EXPECT_EQ(sig[0], sine(0.5f, 1000.0f, 4800));

    // A step from 0 to 0.9 becomes a 240-sample straight line.
    DePop g;
    g.initialise(kRate, 1);
    g.setParameter(DePop::JUMP, -6.0f);
    std::vector<float> step(1000, 0.0f);
    std::fill(step.begin() + 300, step.end(), 0.9f);
    step = runMono(g, step);
    for (std::size_t k = 0; k < 240; ++k)
        ASSERT_NEAR(step[300 + k], 0.9f * static_cast<float>(k + 1) / 240.0f, 4e-6f) << k;
    for (std::size_t k = 539; k < step.size(); ++k)
        ASSERT_EQ(step[k], 0.9f);

    // A marked discontinuity glides even for a small step.
    g.markDiscontinuity();
    const auto small = runMono(g, std::vector<float>(480, 0.8f));
    EXPECT_NEAR(small[0], 0.9f - 0.1f / 240.0f, 1e-6f);
    EXPECT_EQ(small[300], 0.8f);

    // NaN passes without poisoning the channel.
    std::vector<float> bad(2000, 0.3f);
    for (std::size_t n = 10; n < 20; ++n)
        bad[n] = std::nanf("");
    bad = runMono(g, bad);
    EXPECT_TRUE(allFinite(bad, 20));
    EXPECT_EQ(bad.back(), 0.3f);
    for (std::uint32_t p = 0; p < g.parameterCount(); ++p)
        for (float v : hostileValues()) {
            EXPECT_TRUE(g.setParameter(p, v));
            EXPECT_TRUE(allFinite(runMono(g, noise(512, 1.0f, p))));
        }
}

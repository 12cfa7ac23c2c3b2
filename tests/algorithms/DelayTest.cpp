// Delay: the TIME taper and cap, impulse responses, the processing
// forms, read, feedback smoothing and recovery from non-finite input.
#include <gtest/gtest.h>

#include <cmath>

#include <Algorithms/Delay.h>

#include "AlgorithmTestSupport.h"

using namespace algtest;

namespace {
std::vector<float> impulse(std::size_t frames)
{
    std::vector<float> v(frames, 0.0f);
    v[0] = 1.0f;
    return v;
}
} // namespace

// The TIME control: linear in ms up to 100, then exponential to 2 s; the line
// holds at most 95999 samples whatever the rate.
TEST(Delay, TimeTaperAndLengthInSamples)
{
    Delay d;
    const auto& time = d.parameters()[Delay::TIME].definition();
    ASSERT_EQ(time.valueTable.size(), 201u);
    for (const auto& [at, ms] : {std::pair{0, 0.0f}, {37, 37.0f}, {100, 100.0f}, {150, 447.21f}, {200, 2000.0f}})
        EXPECT_NEAR(time.valueTable[static_cast<std::size_t>(at)], ms, 0.01f) << at;
    d.initialise(kRate, 2);
    EXPECT_EQ(d.length(0), 4800); // default 100 ms
    for (const auto& [ms, samples] : {std::pair{10.51f, 504}, {2000.0f, 95999}}) {
        d.setParameter(Delay::TIME, ms);
        EXPECT_EQ(d.length(0), samples);
        EXPECT_EQ(d.length(1), samples);
    }
    for (float v : hostileValues()) {
        EXPECT_TRUE(d.setParameter(Delay::TIME, v));
        EXPECT_TRUE(d.length(0) >= 0 && d.length(0) <= 95999);
    }
    d.initialise(96000.0f, 1);
    d.setParameter(Delay::TIME, 1500.0f);
    EXPECT_EQ(d.length(0), 95999); // about 1000 ms at 96 kHz
}

TEST(Delay, ImpulseResponsesAreThoseOfTheAllPass)
{
    SmoothingOff off;
    for (float feedback : {0.0f, 50.0f}) {
        SCOPED_TRACE(feedback);
        Delay d;
        d.initialise(kRate, 1);
        d.setParameter(Delay::TIME, 10.0f); // 480 samples
        d.setParameter(Delay::FEEDBACK, feedback);
        const float g = feedback / 100.0f;
        auto x = impulse(480 * 40);
        ASSERT_TRUE(d.processChannel(0, x.data(), static_cast<std::uint32_t>(x.size())));
        EXPECT_EQ(x[0], -g);
        double energy = 0.0;
        for (std::size_t n = 1; n < x.size(); ++n) {
            const float want = n % 480 ? 0.0f : (1.0f - g * g) * std::pow(g, static_cast<float>(n / 480 - 1));
            ASSERT_NEAR(x[n], want, 1e-6f) << n;
        }
        for (float v : x)
            energy += static_cast<double>(v) * v;
        EXPECT_NEAR(energy, 1.0, 1e-6); // an all-pass keeps the energy
    }
    // TIME 0: the index stays on buf[0], a one-sample delay.
    Delay z;
    z.initialise(kRate, 1);
    z.setParameter(Delay::TIME, 0.0f);
    auto x = impulse(4);
    z.processChannel(0, x.data(), 4);
    EXPECT_EQ(x, (std::vector<float>{0.0f, 1.0f, 0.0f, 0.0f}));
}

TEST(Delay, FormsAgreeAndFeedOnlyLeavesTheSamples)
{
    SmoothingOff off;
    const std::vector<std::vector<float>> in{noise(5000, 1.0f, 1), noise(5000, 1.0f, 2)};
    auto setup = [](Delay& d) {
        d.initialise(kRate, 2);
        d.setParameter(Delay::TIME, 3.3f);
        d.setParameter(Delay::FEEDBACK, 70.0f);
    };
    Delay all, single, split, fed;
    for (Delay* d : {&all, &single, &split, &fed})
        setup(*d);
    auto x = in;
    ASSERT_TRUE(all.processChannels(pointers(x).data(), 5000));
    // Out of place, one channel at a time.
    for (std::uint32_t c = 0; c < 2; ++c) {
        std::vector<float> y(5000);
        ASSERT_TRUE(single.processChannel(c, in[c].data(), y.data(), 5000));
        EXPECT_EQ(y, x[c]);
    }
    std::vector<float> spare(10);
    EXPECT_FALSE(single.processChannel(2, spare.data(), 10));
    // Random splits give the same output.
    auto sa = in[0];
    std::mt19937 rng(3);
    for (std::size_t s = 0; s < sa.size();) {
        const std::size_t n = std::min<std::size_t>(rng() % 300, sa.size() - s);
        ASSERT_TRUE(split.processChannel(0, sa.data() + s, static_cast<std::uint32_t>(n)));
        s += n;
    }
    EXPECT_EQ(sa, x[0]);
    // Feeding the first half leaves it untouched; the second half then matches.
    auto f = in;
    const float* feed[] = {f[0].data(), f[1].data()};
    ASSERT_TRUE(fed.feedChannels(feed, 2500));
    EXPECT_EQ(f, in);
    float* rest[] = {f[0].data() + 2500, f[1].data() + 2500};
    ASSERT_TRUE(fed.processChannels(rest, 2500));
    for (std::size_t c = 0; c < 2; ++c)
        EXPECT_TRUE(std::equal(f[c].begin() + 2500, f[c].end(), x[c].begin() + 2500)) << c;
}

TEST(Delay, ReadResetAndFeedbackSmoothing)
{
    SmoothingOff off;
    Delay d;
    d.initialise(kRate, 1);
    d.setParameter(Delay::FEEDBACK, 0.0f);
    std::vector<float> x{0.1f, 0.2f, 0.3f};
    d.processChannel(0, x.data(), 3);
    EXPECT_EQ(d.read(0, 1.9f), 0.2f);
    EXPECT_EQ(d.read(0, 95999.0f), 0.0f);
    EXPECT_EQ(d.read(0, 96000.0f), 0.0f);
    EXPECT_EQ(d.read(0, -5.0f), 0.0f);
    EXPECT_EQ(d.read(0, std::nanf("")), 0.0f);
    EXPECT_EQ(d.read(1, 0.0f), 0.0f);
    d.reset();
    EXPECT_EQ(d.read(0, 1.0f), 0.0f);
    auto i = impulse(4801);
    d.processChannel(0, i.data(), 4801);
    EXPECT_EQ(i[4800], 1.0f); // the write index started again at 0

    SmoothingCoefficient::enableAll(true);
    d.setParameter(Delay::FEEDBACK, 80.0f);
    EXPECT_EQ(d.smoothedFeedback(0), 0.0);
    std::vector<float> silence(9600, 0.0f);
    d.processChannel(0, silence.data(), 9600);
    EXPECT_NEAR(d.smoothedFeedback(0) / 0.8, 1.0 - std::exp(-2.0 * M_PI), 1e-6);
    d.reset(); // the smoothed feedback lands on its target
    EXPECT_FLOAT_EQ(static_cast<float>(d.smoothedFeedback(0)), 0.8f);
}

TEST(Delay, RecoversFromNonFiniteInputAndHostileFeedback)
{
    SmoothingOff off;
    Delay d;
    d.initialise(kRate, 1);
    d.setParameter(Delay::TIME, 50.0f);
    d.setParameter(Delay::FEEDBACK, 90.0f);
    auto x = noise(48000 * 2, 0.5f, 4);
    for (std::size_t n = 100; n < 200; ++n)
        x[n] = n % 2 ? std::nanf("") : INFINITY;
    EXPECT_TRUE(allFinite(runMono(d, x), 512));
    for (float v : hostileValues()) {
        d.setParameter(Delay::FEEDBACK, v);
        EXPECT_TRUE(allFinite(runMono(d, noise(48000, 1.0f, 5)))) << v;
    }
}

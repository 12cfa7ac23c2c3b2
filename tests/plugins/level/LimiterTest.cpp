#include "PluginFixture.h"

#include <Algorithms/Resample/TruePeak_ref.h>

#include <ebur128.h>

#include <cstring>

using namespace qvd::test;

namespace {

constexpr double kRate = 48000.0;
const std::string kKey = "Limiter:1364610162";

float linear(double db)
{
    return static_cast<float>(std::pow(10.0, db / 20.0));
}

// The signals a brick wall is usually broken by, two channels each.
std::vector<std::pair<const char*, Signal>> hardSignals()
{
    const std::size_t n = 24000;
    std::vector<std::pair<const char*, Signal>> s;
    Signal square = silence(2, n), alt = silence(2, n), dc = silence(2, n), train = silence(2, n);
    for (std::size_t i = 0; i < n; ++i) {
        square[0][i] = square[1][i] = (i / 60) % 2 ? 1.0f : -1.0f;
        alt[0][i] = alt[1][i] = (i / 2) % 2 ? -1.0f : 1.0f;
        dc[0][i] = dc[1][i] = i < n / 3 ? 0.0f : 1.0f;
        train[0][i] = train[1][i] = i % 97 == 0 ? 1.0f : 0.0f;
    }
    Signal pink = noise(2, n, 7, 1.0f); // a leaky integrator tilts white noise down
    for (auto& ch : pink) {
        float y = 0.0f;
        for (float& x : ch)
            x = y = 0.9f * y + 0.3f * x;
    }
    s.emplace_back("square", square);
    s.emplace_back("alternating", alt);
    s.emplace_back("dc step", dc);
    s.emplace_back("impulses", train);
    s.emplace_back("fs/4 at 45 degrees", sine(2, n, kRate / 4, kRate, 1.0, M_PI / 4));
    s.emplace_back("pink noise", pink);
    return s;
}

double truePeak(const std::vector<float>& x)
{
    auto meter = twa::numeric::CreateTruePeak(1);
    const float a = meter->Process(x.size(), x.data());
    return std::max<double>(a, meter->Process(4096, nullptr));
}

// The same reading from libebur128, an independent implementation.
double truePeakByLibebur128(const Signal& x)
{
    ebur128_state* st = ebur128_init(static_cast<unsigned>(x.size()), kRate, EBUR128_MODE_TRUE_PEAK);
    std::vector<float> frames(x[0].size() * x.size());
    for (std::size_t n = 0; n < x[0].size(); ++n)
        for (std::size_t c = 0; c < x.size(); ++c)
            frames[n * x.size() + c] = x[c][n];
    ebur128_add_frames_float(st, frames.data(), x[0].size());
    double peak = 0.0;
    for (unsigned c = 0; c < x.size(); ++c) {
        double p = 0.0;
        ebur128_true_peak(st, c, &p);
        peak = std::max(peak, p);
    }
    ebur128_destroy(&st);
    return peak;
}

} // namespace

TEST(Limiter, SamplePeakNeverExceedsCeiling)
{
    for (const float link : {1.0f, 0.0f}) {
        for (const auto& [name, in] : hardSignals()) {
            PluginFixture f(kKey);
            ASSERT_TRUE(f.prepare(kRate, 512, 2));
            f.set("INPUT", 20.0f);
            f.set("CEILING", -1.0f);
            f.set("RELEASE", 5.0f);
            f.set("LINK", link);
            const Signal out = f.run(in, 3);
            for (const auto& ch : out) {
                EXPECT_LE(peak(ch), linear(-1.0)) << name;
                EXPECT_GT(dB(peak(ch)), -1.5) << name << ": limited far below the ceiling";
            }
        }
    }
}

TEST(Limiter, TruePeakStaysWithinATenthOfADecibel)
{
    for (const auto& [name, in] : hardSignals()) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 2));
        f.set("MODE", 1.0f);
        f.set("INPUT", std::strcmp(name, "pink noise") == 0 ? 20.0f : 0.0f);
        f.set("CEILING", -1.0f);
        // Silence after the signal lets its end pass the limiter: a signal cut
        // off inside the latency would overshoot in the measurement alone.
        Signal padded = in;
        for (auto& ch : padded)
            ch.resize(ch.size() + 4800, 0.0f);
        const Signal out = f.run(padded, 5);
        EXPECT_LE(dB(truePeak(out[0])), -0.9) << name;
        EXPECT_LE(dB(truePeakByLibebur128(out)), -0.9) << name << ", measured by libebur128";
    }
}

TEST(Limiter, GainRampsAcrossTheLookAheadAndReleasesSmoothly)
{
    // Quiet, 6 dB too loud, quiet again: the gain (output over delayed input)
    // must never step, neither on the way down nor on the way up.
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 256, 1));
    f.set("CEILING", -6.0f);
    f.set("LOOKAHEAD", 5.0f);
    f.set("RELEASE", 50.0f);
    const std::size_t n = 48000;
    Signal in = sine(1, n, 997.0, kRate, 1.0);
    for (std::size_t i = 0; i < n; ++i)
        if (i < 9600 || i >= 24000)
            in[0][i] *= 0.25f;
    const Signal out = f.run(in);
    const auto lat = static_cast<std::size_t>(f.audio()->latency());
    double previous = 0.0, steepest = 0.0;
    std::size_t last = 0;
    for (std::size_t i = lat; i < n; ++i) {
        const float x = in[0][i - lat];
        if (std::fabs(x) < 0.1f)
            continue;
        const double g = dB(out[0][i] / x);
        if (last)
            steepest = std::max(steepest, std::fabs(g - previous) / static_cast<double>(i - last));
        previous = g;
        last = i;
    }
    // A linear ramp from 0 to -6 dB over 240 samples is steepest at its end: 0.036 dB per sample.
    EXPECT_LT(steepest, 0.05);
    EXPECT_GT(steepest, 0.01) << "the reduction never happened";
    EXPECT_NEAR(dB(peak(out[0], 14400, 24000)), -6.0, 0.05);
    EXPECT_NEAR(dB(peak(out[0], 40000, 48000)), dB(0.25), 0.05) << "did not release";
}

TEST(Limiter, FullScaleDcDoesNotPump)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    f.set("AUTO_RELEASE", 1.0f);
    Signal in = silence(2, 48000);
    for (auto& ch : in)
        std::fill(ch.begin() + 4800, ch.end(), 1.0f);
    const Signal out = f.run(in);
    const auto [lo, hi] = std::minmax_element(out[0].begin() + 9600, out[0].end());
    EXPECT_LE(*hi - *lo, 1e-6f);
    EXPECT_NEAR(dB(*hi), -1.0, 0.01);
}

TEST(Limiter, LinkSharesTheReductionAndPerChannelKeepsQuietChannelsIntact)
{
    Signal in = sine(2, 9600, 440.0, kRate, 1.0);
    for (float& x : in[1])
        x *= 0.1f;
    for (const bool linked : {true, false}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 2));
        f.set("CEILING", -6.0f);
        f.set("LINK", linked ? 1.0f : 0.0f);
        const Signal out = f.run(in);
        EXPECT_NEAR(dB(peak(out[1], 4800)), linked ? -26.0 : -20.0, 0.1);
    }
}

TEST(Limiter, LatencyFollowsTheLookAheadFromTheNextPrepare)
{
    PluginFixture f(kKey);
    f.set("LOOKAHEAD", 5.0f);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    const auto before = f.audio()->latency();
    f.set("LOOKAHEAD", 10.0f);
    EXPECT_EQ(f.audio()->latency(), before);
    // An impulse under the ceiling comes out untouched, exactly the latency late.
    const Signal out = f.run(impulse(2, 2048, 10, 0.5f));
    EXPECT_EQ(out[0][10 + before], 0.5f);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    EXPECT_EQ(f.audio()->latency(), before + 240);
}

TEST(Limiter, PublishesGainReduction)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    f.set("CEILING", -10.0f);
    f.run(sine(2, 9600, 440.0, kRate, 1.0));
    std::int32_t group = 0;
    while (f.instance()->meterGroupName(group) && std::strcmp(f.instance()->meterGroupName(group), "Gain Reduction"))
        ++group;
    double gainDb = 0.0; // the host reads meters in dB
    ASSERT_EQ(f.instance()->getMeterValues(group, &gainDb, 1), 1);
    EXPECT_NEAR(gainDb, -10.0, 0.1);
}

TEST(Limiter, TruePeakPerChannelOnAnOddChannelCount)
{
    // Three channels: a pair and a single channel in the interpolators.
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 3));
    f.set("MODE", 1.0f);
    f.set("LINK", 0.0f);
    f.set("CEILING", -3.0f);
    Signal in = sine(3, 24000, kRate / 4, kRate, 1.0, M_PI / 4);
    in[1] = noise(1, 24000, 3, 1.0f)[0];
    for (auto& ch : in)
        ch.resize(ch.size() + 4800, 0.0f);
    const Signal out = f.run(in, 7);
    for (std::size_t c = 0; c < 3; ++c)
        EXPECT_LE(dB(truePeak(out[c])), -2.9) << c;
}

TEST(Limiter, AutoReleaseIsSlowerAfterDenseLimiting)
{
    // The time the gain takes to come back within 1 dB after the loud part ends.
    const auto recovery = [](std::size_t loudFrames) {
        PluginFixture f(kKey);
        EXPECT_TRUE(f.prepare(kRate, 512, 1));
        f.set("AUTO_RELEASE", 1.0f);
        f.set("RELEASE", 20.0f);
        f.set("CEILING", -12.0f);
        Signal in = sine(1, loudFrames + 48000, 997.0, kRate, 0.2);
        for (std::size_t n = 0; n < loudFrames; ++n)
            in[0][n] *= 5.0f;
        const Signal out = f.run(in);
        const auto lat = static_cast<std::size_t>(f.audio()->latency());
        std::size_t last = 0;
        for (std::size_t n = loudFrames + lat; n < in[0].size(); ++n)
            if (std::fabs(in[0][n - lat]) > 0.1f && dB(out[0][n] / in[0][n - lat]) < -1.0)
                last = n - loudFrames - lat;
        return 1000.0 * static_cast<double>(last) / kRate;
    };
    const double afterBurst = recovery(480), afterDense = recovery(96000);
    EXPECT_LT(afterBurst, 150.0);
    EXPECT_GT(afterDense, 2.0 * afterBurst);
}

#include "PluginFixture.h"

#include "../meters/MeterReadouts.h"

#include <limits>
#include <tuple>

using namespace qvd::test;

namespace {

constexpr double kRate = 48000.0;
const std::string kKey = "De-Esser:1364608115";

// 300 Hz voice-like tone: harmonics to 2.4 kHz falling 6 dB/oct.
std::vector<float> voice(std::size_t frames, double fundamental = 0.2)
{
    std::vector<float> x(frames);
    for (std::size_t n = 0; n < frames; ++n) {
        double v = 0.0;
        for (int k = 1; k <= 8; ++k)
            v += fundamental / k * std::sin(2.0 * M_PI * 300.0 * k * static_cast<double>(n) / kRate + 0.3 * k);
        x[n] = static_cast<float>(v);
    }
    return x;
}

// Noise from 6 to 8 kHz (40 sines at fixed random phases) of peak `level`,
// in bursts of `on` frames every 2 * `on`, starting at `on`.
std::vector<float> sibilance(std::size_t frames, double level, std::size_t on)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> phase(0.0, 2.0 * M_PI);
    std::vector<double> ph(40);
    for (auto& p : ph)
        p = phase(rng);
    std::vector<double> raw(frames);
    double top = 0.0;
    for (std::size_t n = 0; n < frames; ++n) {
        double v = 0.0;
        for (std::size_t k = 0; k < ph.size(); ++k)
            v += std::sin(2.0 * M_PI * (6000.0 + 50.0 * static_cast<double>(k)) * static_cast<double>(n) / kRate + ph[k]);
        raw[n] = v;
        top = std::max(top, std::fabs(v));
    }
    std::vector<float> x(frames, 0.0f);
    for (std::size_t n = 0; n < frames; ++n)
        if ((n / on) % 2 == 1)
            x[n] = static_cast<float>(raw[n] * level / top);
    return x;
}

std::vector<float> sum(const std::vector<float>& a, const std::vector<float>& b)
{
    std::vector<float> s(a.size());
    for (std::size_t n = 0; n < a.size(); ++n)
        s[n] = a[n] + b[n];
    return s;
}

// `x` as the plugin passes it: `by` frames late.
std::vector<float> late(const std::vector<float>& x, std::uint64_t by)
{
    std::vector<float> d(x.size(), 0.0f);
    std::copy(x.begin(), x.end() - static_cast<std::ptrdiff_t>(by), d.begin() + static_cast<std::ptrdiff_t>(by));
    return d;
}

std::vector<float> difference(const std::vector<float>& a, const std::vector<float>& b)
{
    std::vector<float> d(a.size());
    for (std::size_t n = 0; n < a.size(); ++n)
        d[n] = a[n] - b[n];
    return d;
}

// The sibilant test: bursts 15 dB over the threshold (by peak), range 6 dB.
struct Sibilant {
    static constexpr std::size_t kOn = 9600; // 200 ms bursts
    static constexpr std::size_t kFrames = 6 * kOn;
    static constexpr double kBurstPeakDb = -10.0;
    static constexpr float kThreshold = -25.0f;
    static constexpr float kRange = 6.0f;
    std::vector<float> tone = voice(kFrames);
    std::vector<float> burst = sibilance(kFrames, std::pow(10.0, kBurstPeakDb / 20.0), kOn);
    std::vector<float> mix = sum(tone, burst);
    // Steady part of the second and third bursts: 50 ms in, whole 300 Hz periods.
    static constexpr std::size_t kFrom1 = 1 * kOn + 2400, kFrom2 = 3 * kOn + 2400, kSpan = 6400;
};

void configure(PluginFixture& f, float mode, float threshold = Sibilant::kThreshold, float range = Sibilant::kRange)
{
    f.set("FREQ", 7000.0f);
    f.set("Q", 1.5f);
    f.set("SPLIT", 4000.0f);
    f.set("THRESHOLD", threshold);
    f.set("RANGE", range);
    f.set("MODE", mode);
}

// Level change in dB of `out` against `in` over the steady burst windows.
double changeDb(const std::vector<float>& out, const std::vector<float>& in)
{
    double change = 0.0;
    for (std::size_t from : {Sibilant::kFrom1, Sibilant::kFrom2})
        change += dB(rms(out, from, from + Sibilant::kSpan) / rms(in, from, from + Sibilant::kSpan));
    return change / 2.0;
}

double toneChangeDb(const std::vector<float>& out, const std::vector<float>& in)
{
    double change = 0.0;
    for (std::size_t from : {Sibilant::kFrom1, Sibilant::kFrom2})
        change += toneDb(out, 300.0, kRate, from, from + Sibilant::kSpan) -
                  toneDb(in, 300.0, kRate, from, from + Sibilant::kSpan);
    return change / 2.0;
}

} // namespace

TEST(DeEsser, SplitBandTakesTheRangeOffBurstsAndLeavesTheVoice)
{
    const Sibilant s;
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 1));
    configure(f, 1.0f);
    const std::uint64_t lag = f.audio()->latency();
    EXPECT_NEAR(static_cast<double>(lag), 0.0012 * kRate, 1.0);
    const Signal out = f.run({s.mix}, 3);
    const auto tone = late(s.tone, lag), burst = late(s.burst, lag), mix = late(s.mix, lag);
    // The split is linear-phase and below it nothing is reduced, so what is
    // left over the voice is the bursts as processed.
    const double burstDb = changeDb(difference(out[0], tone), burst);
    EXPECT_NEAR(burstDb, -Sibilant::kRange, 1.0);
    EXPECT_LT(std::fabs(toneChangeDb(out[0], mix)), 0.1);
    // Every harmonic of the voice (up to 2.4 kHz, split at 4 kHz) keeps its level.
    for (int k = 1; k <= 8; ++k)
        for (std::size_t from : {Sibilant::kFrom1, Sibilant::kFrom2})
            EXPECT_NEAR(toneDb(out[0], 300.0 * k, kRate, from, from + Sibilant::kSpan),
                        toneDb(mix, 300.0 * k, kRate, from, from + Sibilant::kSpan), 0.1)
                << 300 * k << " Hz";
    EXPECT_NEAR(readout(f, "Gain Reduction"), Sibilant::kRange, 1e-3);
    // Between bursts, once released, the signal is untouched.
    const std::size_t quiet = 5 * Sibilant::kOn - 2000;
    for (std::size_t n = quiet; n < quiet + 1000; ++n)
        ASSERT_EQ(out[0][n], mix[n]) << n;
}

TEST(DeEsser, WideBandDucksEverythingByOneGain)
{
    const Sibilant s;
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    configure(f, 0.0f);
    const Signal out = f.run({s.mix, s.tone});
    const std::uint64_t lag = f.audio()->latency();
    const auto tone = late(s.tone, lag), mix = late(s.mix, lag);
    // Where the range binds the gain is exactly the range, for the voice and
    // the bursts alike, and linked channels share it.
    EXPECT_NEAR(changeDb(out[0], mix), -Sibilant::kRange, 0.05);
    EXPECT_NEAR(toneChangeDb(out[0], mix), -Sibilant::kRange, 0.05);
    EXPECT_NEAR(toneChangeDb(out[1], tone), -Sibilant::kRange, 0.05);
    for (std::size_t n = Sibilant::kFrom1; n < Sibilant::kFrom1 + Sibilant::kSpan; n += 97)
        if (std::fabs(mix[n]) > 1e-3f && std::fabs(tone[n]) > 1e-3f)
            ASSERT_NEAR(out[0][n] / mix[n], out[1][n] / tone[n], 1e-5) << n;
}

TEST(DeEsser, UnlinkedChannelsKeepTheirOwnGain)
{
    const Sibilant s;
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    configure(f, 0.0f);
    f.set("LINK", 0.0f);
    const Signal out = f.run({s.mix, s.tone});
    const std::uint64_t lag = f.audio()->latency();
    EXPECT_EQ(out[1], late(s.tone, lag));
    EXPECT_NEAR(toneChangeDb(out[0], late(s.mix, lag)), -Sibilant::kRange, 0.05);
}

TEST(DeEsser, BelowTheThresholdTheOutputIsTheInput)
{
    const Sibilant s;
    for (const float mode : {0.0f, 1.0f}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 256, 2));
        // The bursts peak 10 dB under the threshold.
        configure(f, mode, 0.0f, 20.0f);
        const Signal out = f.run({s.mix, s.burst}, 11);
        const std::uint64_t lag = f.audio()->latency();
        EXPECT_EQ(out[0], late(s.mix, lag)) << "mode " << mode;
        EXPECT_EQ(out[1], late(s.burst, lag)) << "mode " << mode;
        EXPECT_EQ(readout(f, "Gain Reduction"), 0.0);
    }
    // A range of 0 dB never reduces, however loud.
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 256, 1));
    configure(f, 0.0f, -60.0f, 0.0f);
    EXPECT_EQ(f.run({s.mix})[0], late(s.mix, f.audio()->latency()));
}

TEST(DeEsser, ListenPlaysTheDetectorBand)
{
    const std::size_t frames = 24000;
    const double centre = 7000.0, q = 2.0;
    // A bilinear band-pass: the analog response at the warped frequency.
    const auto bandDb = [&](double hz) {
        const double w = std::tan(M_PI * hz / kRate) / std::tan(M_PI * centre / kRate);
        return -10.0 * std::log10(1.0 + q * q * (w - 1.0 / w) * (w - 1.0 / w));
    };
    for (const double hz : {centre, 9000.0, 300.0}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 1));
        f.set("FREQ", static_cast<float>(centre));
        f.set("Q", static_cast<float>(q));
        f.set("LISTEN", 1.0f);
        f.set("THRESHOLD", -60.0f); // the band plays unreduced whatever the gain
        const Signal in = sine(1, frames, hz, kRate, 0.5);
        const Signal out = f.run(in);
        EXPECT_NEAR(dB(rms(out[0], frames / 2) / rms(in[0], frames / 2)), bandDb(hz), 0.1) << hz << " Hz";
    }
}

TEST(DeEsser, RecoversFromNonFiniteInput)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 256, 2));
    configure(f, 1.0f);
    Signal in = sine(2, 4096, 7000.0, kRate, 0.5);
    in[0][100] = std::numeric_limits<float>::quiet_NaN();
    in[1][101] = std::numeric_limits<float>::infinity();
    const Signal out = f.run(in);
    for (const auto& ch : out)
        for (std::size_t n = 512; n < ch.size(); ++n)
            ASSERT_TRUE(std::isfinite(ch[n])) << n;
}

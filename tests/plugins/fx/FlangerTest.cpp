#include <gtest/gtest.h>

#include "../../support/PluginFixture.h"
#include "FixedTempo.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Flanger:1364608121";
constexpr double kRate = 48000.0;
constexpr std::size_t kEvery = 1200; // one impulse per 25 ms, longer than any delay

Signal impulseTrain(std::size_t frames)
{
    Signal s = silence(2, frames);
    for (auto& ch : s)
        for (std::size_t n = 0; n < frames; n += kEvery)
            ch[n] = 1.0f;
    return s;
}

// Wet only, no feedback: the delay of each impulse's echo in ms, one per
// impulse of the train, by its centre of mass.
std::vector<double> echoDelaysMs(PluginFixture& fx, double seconds, int channel = 0)
{
    fx.set("MIX", 100.0f);
    fx.set("FEEDBACK", 0.0f);
    const Signal out = fx.run(impulseTrain(static_cast<std::size_t>(seconds * kRate)), 5);
    std::vector<double> delays;
    const auto& y = out[static_cast<std::size_t>(channel)];
    for (std::size_t at = 0; at + kEvery <= y.size(); at += kEvery) {
        double sum = 0.0, moment = 0.0;
        for (std::size_t k = 0; k < kEvery; ++k) {
            sum += y[at + k];
            moment += y[at + k] * static_cast<double>(k);
        }
        delays.push_back(moment / sum / kRate * 1e3);
    }
    return delays;
}

// The LFO's period in seconds from the rising crossings of its mean.
double sweepPeriod(const std::vector<double>& delays)
{
    double mean = 0.0;
    for (double d : delays)
        mean += d / static_cast<double>(delays.size());
    std::vector<double> rising;
    for (std::size_t k = 1; k < delays.size(); ++k)
        if (delays[k - 1] < mean && delays[k] >= mean)
            rising.push_back((static_cast<double>(k - 1) + (mean - delays[k - 1]) / (delays[k] - delays[k - 1])) *
                             static_cast<double>(kEvery) / kRate);
    if (rising.size() < 2)
        return 0.0;
    return (rising.back() - rising.front()) / static_cast<double>(rising.size() - 1);
}

} // namespace

TEST(Flanger, SweepStaysInsideTheSetDelayRange)
{
    PluginFixture fx(kKey);
    ASSERT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("DELAY", 8.0f);
    fx.set("DEPTH", 50.0f);
    fx.set("RATE", 1.3f);
    for (int c = 0; c < 2; ++c) {
        const auto delays = echoDelaysMs(fx, 3.0, c);
        const auto [low, high] = std::minmax_element(delays.begin(), delays.end());
        // 4 to 8 ms; over four cycles the readings come near both ends.
        EXPECT_GE(*low, 4.0 - 0.02) << c;
        EXPECT_LE(*high, 8.0 + 0.02) << c;
        EXPECT_LT(*low, 4.1) << c;
        EXPECT_GT(*high, 7.9) << c;
    }
}

TEST(Flanger, NotchesSitWhereTheDelayPutsThem)
{
    for (const float delayMs : {1.0f, 2.5f}) {
        PluginFixture fx(kKey);
        ASSERT_TRUE(fx.prepare(kRate, 256, 2));
        fx.set("DELAY", delayMs);
        fx.set("DEPTH", 0.0f);
        fx.set("FEEDBACK", 0.0f);
        fx.set("MIX", 50.0f);
        const double notch = 1.0 / (2.0 * delayMs * 1e-3);
        // Notches at odd multiples of 1 / 2d, peaks at the even ones.
        for (const double hz : {notch, 3.0 * notch}) {
            const Signal out = fx.run(sine(2, 24000, hz, kRate));
            EXPECT_LT(toneDb(out[0], hz, kRate, 4800, 24000), dB(0.5) - 40.0) << delayMs << " ms " << hz << " Hz";
        }
        const Signal peak = fx.run(sine(2, 24000, 2.0 * notch, kRate));
        EXPECT_NEAR(toneDb(peak[1], 2.0 * notch, kRate, 4800, 24000), dB(0.5), 0.05) << delayMs;
    }
}

TEST(Flanger, MixZeroIsTheInputBitForBit)
{
    PluginFixture fx(kKey);
    ASSERT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("FEEDBACK", 90.0f);
    fx.set("RATE", 4.0f);
    fx.set("MIX", 0.0f);
    const Signal in = noise(2, 48000, 9);
    EXPECT_EQ(fx.run(in, 3), in);
}

TEST(Flanger, QuarterNoteSyncAtTheHostsTempoSweepsEveryHalfSecond)
{
    // 1/4 sync (after "Free" and three values each of 1/1 and 1/2) over a 0.5 Hz free rate.
    const auto sweeping = [](PluginFixture& fx) {
        ASSERT_TRUE(fx.prepare(kRate, 256, 2));
        fx.set("DELAY", 6.0f);
        fx.set("DEPTH", 80.0f);
        fx.set("RATE", 0.5f);
        fx.set("SYNC", 1.0f + 6.0f);
    };
    FixedTempo tempo(120.0);
    PluginFixture synced(kKey);
    tempo.detach();
    sweeping(synced);
    EXPECT_NEAR(sweepPeriod(echoDelaysMs(synced, 4.0)), 0.5, 0.005);

    // Without a tempo from the host the free rate runs.
    PluginFixture free(kKey);
    sweeping(free);
    EXPECT_NEAR(sweepPeriod(echoDelaysMs(free, 8.0)), 2.0, 0.02);
}

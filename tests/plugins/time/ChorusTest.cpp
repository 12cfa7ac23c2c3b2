#include <gtest/gtest.h>

#include "../../support/PluginFixture.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Chorus:1364608121";
constexpr double kRate = 48000.0;
constexpr std::size_t kEvery = 4800; // one impulse per 100 ms, longer than any delay

// Wet only, no feedback; the wet path's delay set to [delay, delay + depth] ms.
void wetOnly(PluginFixture& fx, float voices, float delayMs, float depthMs)
{
    ASSERT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("MIX", 100.0f);
    fx.set("FEEDBACK", 0.0f);
    fx.set("VOICES", voices);
    fx.set("DELAY", delayMs);
    fx.set("DEPTH", depthMs);
    fx.set("RATE", 0.9f);
}

Signal impulseTrain(std::size_t frames)
{
    Signal s = silence(2, frames);
    for (auto& ch : s)
        for (std::size_t n = 0; n < frames; n += kEvery)
            ch[n] = 1.0f;
    return s;
}

} // namespace

TEST(Chorus, OneVoiceSweepsTheWholeSetRangeAndNoFurther)
{
    PluginFixture fx(kKey);
    wetOnly(fx, 0.0f, 5.0f, 8.0f);
    const Signal out = fx.run(impulseTrain(5 * 48000), 7);
    double shortest = 1e9, longest = 0.0;
    for (int c = 0; c < 2; ++c)
        for (std::size_t at = 0; at + kEvery <= out[c].size(); at += kEvery) {
            // The echo's centre of mass: the interpolator's taps straddle the true delay.
            double sum = 0.0, moment = 0.0;
            for (std::size_t k = 0; k < kEvery; ++k) {
                sum += out[c][at + k];
                moment += out[c][at + k] * static_cast<double>(k);
            }
            // A moving read stretches or squeezes the echo by 1 / (1 - speed):
            // 0.9 Hz over 8 ms moves at most 2.3 % of a sample per sample.
            ASSERT_NEAR(sum, 1.0, 0.025) << at;
            const double ms = moment / sum / kRate * 1e3;
            shortest = std::min(shortest, ms);
            longest = std::max(longest, ms);
        }
    EXPECT_GE(shortest, 5.0 - 0.01);
    EXPECT_LE(longest, 13.0 + 0.01);
    // Forty-five looks across four and a half cycles catch both ends of the sine.
    EXPECT_LT(shortest, 5.1);
    EXPECT_GT(longest, 12.9);
}

TEST(Chorus, FourSpreadVoicesStayInsideTheWindow)
{
    PluginFixture fx(kKey);
    wetOnly(fx, 3.0f, 12.0f, 6.0f);
    fx.set("SPREAD", 100.0f);
    const Signal out = fx.run(impulseTrain(3 * 48000), 11);
    // Cubic taps reach one sample before and two after the read position.
    const auto first = static_cast<std::size_t>(12e-3 * kRate) - 1;
    const auto last = static_cast<std::size_t>(18e-3 * kRate) + 2;
    for (int c = 0; c < 2; ++c)
        for (std::size_t at = 0; at + kEvery <= out[c].size(); at += kEvery) {
            EXPECT_EQ(peak(out[c], at, at + first), 0.0) << at;
            EXPECT_EQ(peak(out[c], at + last + 1, at + kEvery), 0.0) << at;
        }
    // Spread apart, the sides do not read the same delays.
    std::vector<float> difference(out[0].size());
    for (std::size_t n = 0; n < difference.size(); ++n)
        difference[n] = out[0][n] - out[1][n];
    EXPECT_GT(rms(difference), 0.1 * rms(out[0]));
}

TEST(Chorus, MixZeroIsTheInputAndHighCutDarkensTheWet)
{
    PluginFixture fx(kKey);
    ASSERT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("FEEDBACK", 50.0f);
    fx.set("MIX", 0.0f);
    const Signal in = noise(2, 48000, 5);
    EXPECT_EQ(fx.run(in, 3), in);

    PluginFixture cut(kKey);
    wetOnly(cut, 0.0f, 10.0f, 0.0f);
    cut.set("HIGH_CUT", 2000.0f);
    const Signal low = cut.run(sine(2, 24000, 250.0, kRate));
    const Signal high = cut.run(sine(2, 24000, 10000.0, kRate));
    // A one-pole at 2 kHz: about -0.1 dB at 250 Hz, about -14 dB at 10 kHz.
    EXPECT_NEAR(toneDb(low[0], 250.0, kRate, 4800, 24000), dB(0.5), 0.2);
    EXPECT_LT(toneDb(high[0], 10000.0, kRate, 4800, 24000), dB(0.5) - 10.0);
}

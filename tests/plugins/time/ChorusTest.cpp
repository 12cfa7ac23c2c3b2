#include <gtest/gtest.h>

#include "../../support/PluginFixture.h"
#include "../fx/FixedTempo.h"

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

// The period in seconds of a series sampled every `spacing` seconds, from
// the rising crossings of its mean, interpolated between samples.
double period(const std::vector<double>& series, double spacing)
{
    double mean = 0.0;
    for (double x : series)
        mean += x / static_cast<double>(series.size());
    std::vector<double> rising;
    for (std::size_t k = 1; k < series.size(); ++k)
        if (series[k - 1] < mean && series[k] >= mean)
            rising.push_back((static_cast<double>(k - 1) + (mean - series[k - 1]) / (series[k] - series[k - 1])) *
                             spacing);
    if (rising.size() < 2)
        return 0.0;
    return (rising.back() - rising.front()) / static_cast<double>(rising.size() - 1);
}

// One voice, wet only: the delay in ms of each echo of an impulse every
// 10 ms (longer than the 5 to 8 ms the voice reads at), by its centre of mass.
std::vector<double> echoDelaysMs(PluginFixture& fx, double seconds)
{
    constexpr std::size_t every = 480;
    fx.set("DELAY", 5.0f);
    fx.set("DEPTH", 3.0f);
    Signal in = silence(2, static_cast<std::size_t>(seconds * kRate));
    for (auto& ch : in)
        for (std::size_t n = 0; n < ch.size(); n += every)
            ch[n] = 1.0f;
    const Signal out = fx.run(in, 13);
    std::vector<double> delays;
    for (std::size_t at = 0; at + every <= out[0].size(); at += every) {
        double sum = 0.0, moment = 0.0;
        for (std::size_t k = 0; k < every; ++k) {
            sum += out[0][at + k];
            moment += out[0][at + k] * static_cast<double>(k);
        }
        delays.push_back(moment / sum / kRate * 1e3);
    }
    return delays;
}

// Wet only on a 100 Hz sine, `name` stepped from `from` to `to` after 1 s
// and back after 2 s. Returns the largest second difference of either
// side's output, after the first second's onset, over the input's own peak second
// difference (which is A w^2).
double worstCurvature(const std::string& name, float from, float to)
{
    constexpr double hz = 100.0, amplitude = 0.5;
    PluginFixture fx(kKey);
    EXPECT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("MIX", 100.0f);
    fx.set(name, from);
    const Signal in = sine(2, static_cast<std::size_t>(3 * kRate), hz, kRate, amplitude);
    Signal out(2);
    for (std::size_t at = 0; at < in[0].size(); at += 480) {
        if (at == 48000)
            fx.set(name, to);
        if (at == 96000)
            fx.set(name, from);
        Signal chunk(2);
        for (int c = 0; c < 2; ++c)
            chunk[c].assign(in[c].begin() + static_cast<std::ptrdiff_t>(at),
                            in[c].begin() + static_cast<std::ptrdiff_t>(at + 480));
        const Signal y = fx.run(chunk);
        for (int c = 0; c < 2; ++c)
            out[c].insert(out[c].end(), y[c].begin(), y[c].end());
    }
    const double w = 2.0 * M_PI * hz / kRate;
    double worst = 0.0;
    for (const auto& y : out)
        for (std::size_t n = 4800; n < y.size(); ++n)
            worst = std::max(worst, std::fabs(static_cast<double>(y[n]) - 2.0 * y[n - 1] + y[n - 2]));
    return worst / (amplitude * w * w);
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

TEST(Chorus, QuarterNoteSyncAtTheHostsTempoSweepsTwiceASecond)
{
    // 1/4 sync (after "Free" and three values each of 1/1 and 1/2) over a 0.5 Hz free rate.
    const auto sweeping = [](PluginFixture& fx) {
        wetOnly(fx, 0.0f, 5.0f, 3.0f);
        fx.set("RATE", 0.5f);
        fx.set("SYNC", 1.0f + 6.0f);
    };
    FixedTempo tempo(120.0);
    PluginFixture synced(kKey);
    tempo.detach();
    sweeping(synced);
    EXPECT_NEAR(period(echoDelaysMs(synced, 8.0), 0.01), 0.5, 0.5 * 0.005);

    // A dotted eighth at 120 BPM: 0.375 s.
    FixedTempo again(120.0);
    PluginFixture dotted(kKey);
    again.detach();
    sweeping(dotted);
    dotted.set("SYNC", 1.0f + 10.0f);
    EXPECT_NEAR(period(echoDelaysMs(dotted, 6.0), 0.01), 0.375, 0.375 * 0.005);

    // Without a tempo from the host the free rate runs.
    PluginFixture free(kKey);
    sweeping(free);
    EXPECT_NEAR(period(echoDelaysMs(free, 12.0), 0.01), 2.0, 2.0 * 0.005);
}

TEST(Chorus, DelayAndDepthStepsGlideWithoutClicks)
{
    // Criterion: y(n) = x(n - d(n)) with the read's speed |d'| <= 4 and a
    // small, continuous acceleration has |y''| <= A (5 w)^2 + A w |d''|, so 26
    // times the input's own peak second difference bounds it. A jump of the
    // read on a 100 Hz sine steps by the order of the amplitude: thousands of
    // times more.
    EXPECT_LT(worstCurvature("DELAY", 1.0f, 30.0f), 26.0);
    EXPECT_LT(worstCurvature("DEPTH", 0.0f, 10.0f), 26.0);
    // The spread moves the right voices' LFO phases.
    EXPECT_LT(worstCurvature("SPREAD", 0.0f, 100.0f), 26.0);
    // A new voice count fades in over the old one's reads, which carry on.
    EXPECT_LT(worstCurvature("VOICES", 0.0f, 3.0f), 26.0);
    EXPECT_LT(worstCurvature("VOICES", 1.0f, 2.0f), 26.0);
}

TEST(Chorus, ReadsRampBetweenControlPointsWithoutZipper)
{
    // Fast and deep: a 5 Hz sweep over 10 ms moves the read up to 0.16
    // samples per sample, so |y''| <= A w^2 (1.16)^2 = 1.34 A w^2; straight
    // segments between control points must keep to that on a bright tone,
    // where a read held for 16 frames would jump by whole samples.
    PluginFixture fx(kKey);
    ASSERT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("MIX", 100.0f);
    fx.set("VOICES", 0.0f);
    fx.set("RATE", 5.0f);
    fx.set("DEPTH", 10.0f);
    constexpr double hz = 3000.0;
    const Signal out = fx.run(sine(2, 48000, hz, kRate, 0.5), 3);
    const double w = 2.0 * M_PI * hz / kRate;
    for (int c = 0; c < 2; ++c)
        for (std::size_t n = 4800; n < out[c].size(); ++n)
            ASSERT_LE(std::fabs(static_cast<double>(out[c][n]) - 2.0 * out[c][n - 1] + out[c][n - 2]),
                      0.5 * w * w * 1.4) << c << " " << n;
}

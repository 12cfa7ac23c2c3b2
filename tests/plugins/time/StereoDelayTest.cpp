#include <gtest/gtest.h>

#include <QVDStereoDelay.h>

#include "../../support/PluginFixture.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Delay:1364608121";

// Wet only at `rate`, both lines at `timeMs`, with `feedback` in %.
void wetOnly(PluginFixture& fx, double rate, float timeMs = 100.0f, float feedback = 0.0f)
{
    ASSERT_TRUE(fx.prepare(rate, 512, 2));
    fx.set("MIX", 100.0f);
    fx.set("FEEDBACK", feedback);
    fx.set("TIME_L", timeMs);
    fx.set("TIME_R", timeMs);
}

} // namespace

TEST(Delay, ImpulseArrivesAtTheSetTimeAsOneEcho)
{
    for (double rate : {44100.0, 48000.0, 96000.0}) {
        PluginFixture fx(kKey);
        wetOnly(fx, rate);
        fx.set("TIME_L", 250.0f);
        fx.set("TIME_R", 1000.0f);
        Signal out = fx.run(impulse(2, static_cast<std::size_t>(2.5 * rate), 100, 0.5f), 5);
        const std::size_t left = 100 + static_cast<std::size_t>(0.25 * rate);
        const std::size_t right = 100 + static_cast<std::size_t>(1.0 * rate);
        EXPECT_EQ(out[0][left], 0.5f) << rate;
        EXPECT_EQ(out[1][right], 0.5f) << rate;
        // Feedback 0: nothing else, before or after.
        out[0][left] = 0.0f;
        out[1][right] = 0.0f;
        EXPECT_EQ(peak(out[0]), 0.0) << rate;
        EXPECT_EQ(peak(out[1]), 0.0) << rate;
    }
}

TEST(Delay, RepeatsDecayByTheFeedbackRatioAndPingPong)
{
    PluginFixture fx(kKey);
    wetOnly(fx, 48000.0, 100.0f, 60.0f);
    Signal in = impulse(2, 48000, 0, 0.4f);
    std::fill(in[1].begin(), in[1].end(), 0.0f);
    Signal out = fx.run(in);
    for (int k = 1; k < 6; ++k)
        EXPECT_NEAR(dB(out[0][4800u * (k + 1)] / out[0][4800u * k]), dB(0.6), 0.01) << "repeat " << k;

    // Full cross-feed: the echoes alternate sides.
    PluginFixture pingPong(kKey);
    wetOnly(pingPong, 48000.0, 100.0f, 60.0f);
    pingPong.set("CROSSFEED", 100.0f);
    out = pingPong.run(in);
    EXPECT_NEAR(out[0][4800], 0.4f, 1e-6);
    EXPECT_NEAR(out[1][9600], 0.4f * 0.6f, 1e-6);
    EXPECT_NEAR(out[0][14400], 0.4f * 0.36f, 1e-6);
    EXPECT_EQ(out[1][4800], 0.0f);
    EXPECT_EQ(out[0][9600], 0.0f);
}

TEST(Delay, HighCutDarkensEachRepeat)
{
    PluginFixture fx(kKey);
    wetOnly(fx, 48000.0, 200.0f, 90.0f);
    fx.set("HIGH_CUT", 2000.0f);
    // Each repeat runs through the one-pole once more: 8 kHz loses far more than 200 Hz.
    auto lossPerRepeat = [&](double hz) {
        Signal in = sine(2, 48000, hz, 48000.0);
        for (auto& ch : in)
            std::fill(ch.begin() + 4800, ch.end(), 0.0f);
        const Signal out = fx.run(in);
        return toneDb(out[0], hz, 48000.0, 19200, 24000) - toneDb(out[0], hz, 48000.0, 9600, 14400);
    };
    EXPECT_NEAR(lossPerRepeat(200.0), dB(0.9), 0.2);
    EXPECT_LT(lossPerRepeat(8000.0), dB(0.9) - 10.0);
}

TEST(Delay, FullFeedbackStaysBoundedAndDuckingLowersTheWet)
{
    PluginFixture fx(kKey);
    ASSERT_TRUE(fx.prepare(48000.0, 512, 2));
    fx.set("FEEDBACK", 100.0f);
    fx.set("TIME_L", 30.0f);
    fx.set("TIME_R", 47.0f);
    fx.set("CROSSFEED", 50.0f);
    for (float mix : {35.0f, 100.0f}) {
        fx.set("MIX", mix);
        const Signal out = fx.run(noise(2, 5 * 48000, 9, 1.0f));
        EXPECT_LE(dB(std::max(peak(out[0]), peak(out[1]))), 6.0) << mix;
    }

    PluginFixture duck(kKey);
    wetOnly(duck, 48000.0, 50.0f);
    duck.set("DUCK", 12.0f);
    // A steady tone at -6 dBFS holds the duck fully down: the echo comes 12 dB lower.
    const Signal out = duck.run(sine(2, 48000, 1000.0, 48000.0));
    EXPECT_NEAR(toneDb(out[0], 1000.0, 48000.0, 24000, 48000), dB(0.5) - 12.0, 0.1);
}

TEST(Delay, SweepingTheTimeGlidesWithoutClicks)
{
    // Criterion: y(n) = x(n - d(n)) with the head's speed |d'| <= 4 and a small,
    // continuous acceleration has |y''| <= A (5 w)^2 + A w |d''|: at most 25
    // times the input's own peak second difference plus the acceleration term,
    // so 26 times bounds it. A jump of the read position on a 100 Hz sine
    // gives a step of the order of the amplitude, thousands of times more.
    constexpr double rate = 48000.0, hz = 100.0, amplitude = 0.5;
    PluginFixture fx(kKey);
    wetOnly(fx, rate, 10.0f);
    const Signal in = sine(2, static_cast<std::size_t>(3.5 * rate), hz, rate, amplitude);
    const double w = 2.0 * M_PI * hz / rate;
    const double bound = 26.0 * amplitude * w * w;

    Signal out = silence(2, in[0].size());
    const std::size_t block = 480;
    for (std::size_t at = 0, step = 0; at < in[0].size(); at += block, ++step) {
        // Once the line holds a second of the tone: 10 ms to 1 s in five 10 ms
        // blocks, then back down in one jump.
        if (step >= 110 && step <= 115)
            fx.set("TIME_L", static_cast<float>(10.0 + 990.0 * static_cast<double>(step - 110) / 5.0));
        if (step == 220)
            fx.set("TIME_L", 10.0f);
        Signal chunk(2);
        for (int c = 0; c < 2; ++c)
            chunk[c].assign(in[c].begin() + static_cast<std::ptrdiff_t>(at),
                            in[c].begin() + static_cast<std::ptrdiff_t>(at + block));
        const Signal y = fx.run(chunk);
        std::copy(y[0].begin(), y[0].end(), out[0].begin() + static_cast<std::ptrdiff_t>(at));
    }
    // From after the first echo's onset, which is a corner of its own.
    for (std::size_t n = 1000; n < out[0].size(); ++n)
        ASSERT_LE(std::fabs(static_cast<double>(out[0][n]) - 2.0 * out[0][n - 1] + out[0][n - 2]), bound) << n;
    // The sweep does arrive: the tail is the 10 ms echo again.
    EXPECT_NEAR(rms(out[0], out[0].size() - 9600), amplitude / std::sqrt(2.0), 1e-3);
}

TEST(Delay, FeedbackAndLoopFilterStepsGlideWithoutClicks)
{
    // A 5 ms loop on a 100 Hz (or 300 Hz) sine: an odd number of half
    // periods, so even full feedback settles (to half the amplitude) and
    // everything in the loop stays that sine. Whatever the loop's gain and colour, the output's second
    // difference then stays near A w^2; a setting that steps changes the
    // loop's content at once and the echo carries that step, of the order of
    // the amplitude. Same bound as the time sweep: 26 A w^2.
    constexpr double rate = 48000.0, amplitude = 0.5;
    struct Step {
        const char* name;
        float from, to, feedback;
        double hz;
    };
    for (const Step s : {Step{"FEEDBACK", 0.0f, 100.0f, 0.0f, 100.0}, Step{"LOW_CUT", 20.0f, 2000.0f, 90.0f, 100.0},
                         Step{"HIGH_CUT", 20000.0f, 1000.0f, 90.0f, 300.0}}) {
        const double hz = s.hz, w = 2.0 * M_PI * hz / rate;
        PluginFixture fx(kKey);
        wetOnly(fx, rate, 5.0f, s.feedback);
        fx.set(s.name, s.from);
        const Signal in = sine(2, static_cast<std::size_t>(3 * rate), hz, rate, amplitude);
        std::vector<float> out;
        for (std::size_t at = 0; at < in[0].size(); at += 480) {
            // Step up after 1 s, back down after 2 s.
            if (at == 48000)
                fx.set(s.name, s.to);
            if (at == 96000)
                fx.set(s.name, s.from);
            Signal chunk(2);
            for (int c = 0; c < 2; ++c)
                chunk[c].assign(in[c].begin() + static_cast<std::ptrdiff_t>(at),
                                in[c].begin() + static_cast<std::ptrdiff_t>(at + 480));
            const Signal y = fx.run(chunk);
            out.insert(out.end(), y[0].begin(), y[0].end());
        }
        double worst = 0.0;
        std::size_t where = 0;
        for (std::size_t n = 4800; n < out.size(); ++n) {
            const double curvature = std::fabs(static_cast<double>(out[n]) - 2.0 * out[n - 1] + out[n - 2]);
            if (curvature > worst) {
                worst = curvature;
                where = n;
            }
        }
        EXPECT_LE(worst, 26.0 * amplitude * w * w) << s.name << " at frame " << where;
        // The step does reach the loop: after it the echo level differs
        // (a 1 kHz high cut takes 0.3 dB off 300 Hz there).
        const double before = rms(out, 24000, 48000), after = rms(out, 72000, 96000);
        EXPECT_GT(std::fabs(dB(after) - dB(before)), 0.15) << s.name;
    }
}

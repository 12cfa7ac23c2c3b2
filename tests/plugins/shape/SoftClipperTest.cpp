#include "ShapeMeasures.h"

using namespace qvd::test;

namespace {

constexpr double kRate = 48000.0;
const std::string kKey = "Soft Clipper:1364611939";
enum Factor { kOff = 0, kX2, kX4, kX8 };
const char* const kCurves[] = {"hard", "cubic", "tanh", "sine", "smooth knee"};

// Driven hard: full-scale noise, a low and a high sine, a square.
std::vector<Signal> loudSignals()
{
    const std::size_t n = 9600;
    Signal square = silence(2, n);
    for (std::size_t i = 0; i < n; ++i)
        square[0][i] = square[1][i] = (i / 37) % 2 ? 1.0f : -1.0f;
    return {noise(2, n, 3, 1.0f), sine(2, n, 100.0, kRate, 1.0), sine(2, n, 7000.0, kRate, 1.0),
            sine(2, n, 15000.0, kRate, 1.0, 0.3), square};
}

// The clipper's output peak in dB over its ceiling.
double overshootDb(int curve, int factor, bool linked, bool safety, double ceilingDb, const Signal& in)
{
    PluginFixture f(kKey);
    EXPECT_TRUE(f.prepare(kRate, 256, 2));
    f.set("DRIVE", 24.0f);
    f.set("CEILING", static_cast<float>(ceilingDb));
    f.set("CURVE", static_cast<float>(curve));
    f.set("OVERSAMPLING", static_cast<float>(factor));
    f.set("LINK", linked ? 1.0f : 0.0f);
    f.set("SAFETY_CLIP", safety ? 1.0f : 0.0f);
    const Signal out = f.run(in, 9);
    return dB(std::max(peak(out[0]), peak(out[1]))) - dB(linear(ceilingDb));
}

// Worst non-harmonic line below the fundamental, dB, for a 7 kHz sine 12 dB over the ceiling.
double aliasingDb(int curve, int factor)
{
    PluginFixture f(kKey);
    EXPECT_TRUE(f.prepare(kRate, 512, 1));
    f.set("CEILING", -12.0f);
    f.set("CURVE", static_cast<float>(curve));
    f.set("OVERSAMPLING", static_cast<float>(factor));
    const Signal out = f.run(sine(1, 19200, 7000.0, kRate, 1.0));
    // 7 kHz and 1 kHz share a period of 48 frames; every alias sits on a kHz.
    const std::vector<double> lines = linesDb(out[0], 1000.0, kRate, 9600, 4800);
    double worst = -400.0;
    for (std::size_t k = 1; k <= lines.size(); ++k)
        if (k % 7 != 0)
            worst = std::max(worst, lines[k - 1]);
    return worst - lines[6];
}

} // namespace

TEST(SoftClipper, WithoutOversamplingNoCurveEverPassesTheCeiling)
{
    for (int curve = 0; curve < 5; ++curve)
        for (const double ceiling : {0.0, -6.0, -20.0})
            for (const bool linked : {false, true})
                for (const Signal& in : loudSignals()) {
                    const double over = overshootDb(curve, kOff, linked, false, ceiling, in);
                    EXPECT_LE(over, 0.0) << kCurves[curve] << " at " << ceiling << " dB";
                    EXPECT_GT(over, -1.0) << kCurves[curve] << ": clipped far below the ceiling";
                }
}

TEST(SoftClipper, OversampledOvershootIsBoundedPerSignalAndTheSafetyClipRemovesIt)
{
    // Band-limiting a clipped wave brings back peaks above the ceiling; the
    // more of its spectrum lies near Nyquist, the higher. Bounds in dB over
    // the ceiling at 24 dB of drive, in the order of loudSignals().
    const double bound[] = {5.5, 0.25, 3.0, 3.5, 3.5};
    const std::vector<Signal> signals = loudSignals();
    for (std::size_t s = 0; s < signals.size(); ++s) {
        double worst = -100.0;
        for (const int factor : {kX2, kX4, kX8})
            for (const int curve : {0, 2, 4}) {
                worst = std::max(worst, overshootDb(curve, factor, false, false, -3.0, signals[s]));
                EXPECT_LE(overshootDb(curve, factor, true, true, -3.0, signals[s]), 0.0) << kCurves[curve];
            }
        EXPECT_LE(worst, bound[s]) << "signal " << s;
        EXPECT_GT(worst, bound[s] - 1.0) << "signal " << s << ": bound no longer tight";
    }
}

TEST(SoftClipper, FourTimesOversamplingKeepsAliasesOfA7kHzSine60DecibelsDown)
{
    for (const int curve : {2, 3}) {
        const double x4 = aliasingDb(curve, kX4), off = aliasingDb(curve, kOff);
        EXPECT_LE(x4, -60.0) << kCurves[curve];
        EXPECT_GT(off, x4 + 30.0) << kCurves[curve] << ": oversampling should remove most of the aliasing";
        EXPECT_LE(aliasingDb(curve, kX8), x4 + 1.0) << kCurves[curve];
    }
}

TEST(SoftClipper, MixZeroIsTheInputDelayedByTheLatencyBitForBit)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 300, 2));
    f.set("DRIVE", 24.0f);
    f.set("OVERSAMPLING", kX8);
    f.set("MIX", 0.0f);
    const Signal in = signedZeroNoise(2, 6000, 5);
    const Signal out = f.run(in, 17);
    const auto latency = static_cast<std::size_t>(f.audio()->latency());
    EXPECT_EQ(latency, 84u); // 1.75 ms at 48 kHz
    for (std::size_t c = 0; c < 2; ++c)
        EXPECT_EQ(firstMismatch(in[c], out[c], latency), -1) << "channel " << c;
}

TEST(SoftClipper, BelowTheCeilingEveryFactorPassesTheSignalAtTheSameLatency)
{
    // 6 dB of drive and -6 dB of trim on a -20 dBFS mix of tones: the hard
    // curve is a straight line there, so only the filters can show.
    Signal in = sine(1, 9600, 1000.0, kRate, 0.05);
    const Signal high = sine(1, 9600, 15000.0, kRate, 0.05);
    for (std::size_t n = 0; n < in[0].size(); ++n)
        in[0][n] += high[0][n];
    for (int factor = kOff; factor <= kX8; ++factor) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 128, 1));
        f.set("CURVE", 0.0f);
        f.set("DRIVE", 6.0f);
        f.set("OUTPUT", -6.0f);
        f.set("OVERSAMPLING", static_cast<float>(factor));
        const Signal out = f.run(in);
        const auto latency = static_cast<std::size_t>(f.audio()->latency());
        std::vector<float> error(out[0].size() - latency);
        for (std::size_t n = 0; n < error.size(); ++n)
            error[n] = out[0][n + latency] - in[0][n];
        EXPECT_LT(dB(rms(error, 1000)) - dB(rms(in[0], 1000)), -50.0) << "factor " << factor;
    }
}

TEST(SoftClipper, LinkedClippingLowersEveryChannelByTheSameGain)
{
    // Left twice over the ceiling, right a quarter of it in phase: linked, the
    // right falls with the left by 6 dB; per channel it passes untouched.
    Signal in = sine(2, 4800, 500.0, kRate, 1.0);
    for (float& x : in[1])
        x *= 0.125f;
    for (const bool linked : {false, true}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 256, 2));
        f.set("CURVE", 0.0f);
        f.set("CEILING", -6.0206f);
        f.set("OVERSAMPLING", kOff);
        f.set("LINK", linked ? 1.0f : 0.0f);
        const Signal out = f.run(in);
        EXPECT_NEAR(dB(peak(out[0], 480)), -6.02, 0.05);
        EXPECT_NEAR(dB(peak(out[1], 480)), linked ? -24.08 : -18.06, 0.05) << (linked ? "linked" : "per channel");
    }
}

TEST(SoftClipper, SmoothKneeIsStraightBelowTheKneeAndBendsAboveIt)
{
    // A 6 dB knee under a 0 dBFS ceiling: -6.5 dBFS passes untouched, -1 dBFS is bent.
    for (const double level : {-6.5, -1.0}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 256, 1));
        f.set("CURVE", 4.0f);
        f.set("KNEE", 6.0f);
        f.set("OVERSAMPLING", kOff);
        const Signal in = sine(1, 4800, 1000.0, kRate, linear(level));
        const Signal out = f.run(in);
        const double outPeak = dB(peak(out[0], 480));
        if (level < -6.0) {
            EXPECT_EQ(firstMismatch(in[0], out[0], static_cast<std::size_t>(f.audio()->latency())), -1);
        } else {
            EXPECT_LT(outPeak, level - 0.5);
            EXPECT_GT(outPeak, -6.0);
        }
    }
}

TEST(SoftClipper, ChangingTheFactorWhilePlayingJoinsSeamlessly)
{
    // Half a second at x2, then x8: from the change on, the output is the
    // one a run at x8 all along gives, bit for bit.
    const Signal in = noise(2, 48000, 21, 1.0f);
    PluginFixture switched(kKey), steady(kKey);
    for (PluginFixture* f : {&switched, &steady}) {
        ASSERT_TRUE(f->prepare(kRate, 256, 2));
        f->set("DRIVE", 12.0f);
        f->set("LINK", 1.0f);
        f->set("OVERSAMPLING", f == &switched ? kX2 : kX8);
        f->run(slice(in, 0, 24000), 3);
        f->set("OVERSAMPLING", kX8);
    }
    const Signal a = switched.run(slice(in, 24000, 24000), 5), b = steady.run(slice(in, 24000, 24000), 5);
    for (std::size_t c = 0; c < 2; ++c)
        EXPECT_EQ(firstMismatch(b[c], a[c], 0), -1) << "channel " << c;
}

TEST(SoftClipper, WithSmoothingMixGlidesToTheDrySignalAndLandsOnItExactly)
{
    const std::size_t before = 4800, after = 96000;
    const Signal in = sine(1, before + after, 1000.0, kRate, 0.5);
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 256, 1, 1, true));
    f.set("DRIVE", 24.0f);
    f.run(slice(in, 0, before));
    f.set("MIX", 0.0f);
    const Signal out = f.run(slice(in, before, after));
    const auto latency = static_cast<std::size_t>(f.audio()->latency());
    const auto dryError = [&](std::size_t from, std::size_t to) {
        std::vector<float> e;
        for (std::size_t n = from; n < to; ++n)
            e.push_back(out[0][n] - in[0][before + n - latency]);
        return dB(rms(e)) - dB(0.5 / std::sqrt(2.0));
    };
    EXPECT_GT(dryError(0, 240), -20.0) << "the mix jumped instead of gliding";
    EXPECT_LT(dryError(0, 240), dryError(0, 24)) << "the first 5 ms should already move towards dry";
    const std::size_t settled = 48000;
    for (std::size_t n = settled; n < after; ++n)
        ASSERT_EQ(std::bit_cast<std::uint32_t>(out[0][n]), std::bit_cast<std::uint32_t>(in[0][before + n - latency]))
            << "frame " << n;
}

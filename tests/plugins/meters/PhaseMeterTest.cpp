// Phase meter: correlation of known channel relations, its integration time
// in ms, the balance in dB and where the goniometer puts its points.
#include "MeterReadouts.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Phase Meter:1364611149";
constexpr double kRate = 48000.0;
// Over 13 default integration times of 300 ms: what came before has gone.
constexpr std::size_t kSettled = 4 * 48000;

// Left is noise; right is `gain` times it, or independent noise of the same level.
Signal pair(std::size_t frames, double gain, bool independent = false, unsigned seed = 1)
{
    Signal s = noise(2, frames, seed);
    if (!independent)
        for (std::size_t n = 0; n < frames; ++n)
            s[1][n] = static_cast<float>(gain * s[0][n]);
    return s;
}

} // namespace

TEST(PhaseMeter, CorrelationOfIdenticalOppositeAndIndependentChannels)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    const Signal same = pair(kSettled, 1.0);
    EXPECT_EQ(f.run(same, 5), same) << "the audio must pass unchanged";
    EXPECT_NEAR(readout(f, "Correlation"), 1.0, 1e-4);
    f.run(pair(kSettled, -1.0));
    EXPECT_NEAR(readout(f, "Correlation"), -1.0, 1e-4);

    for (const float ms : {300.0f, 10000.0f}) {
        f.set("INTEGRATION", ms);
        f.run(pair(static_cast<std::size_t>(10 * kRate), 1.0, true, 7));
        EXPECT_LT(std::fabs(readout(f, "Correlation")), 0.05) << ms << " ms";
    }
}

TEST(PhaseMeter, IntegrationTimeSetsHowFastTheReadingFollows)
{
    for (const float ms : {100.0f, 1000.0f}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 48, 2));
        f.set("INTEGRATION", ms);
        // A tone, so both halves carry the same energy every millisecond.
        const auto frames = static_cast<std::size_t>(kRate * ms / 100);
        Signal tone = sine(2, frames, 997.0, kRate);
        f.run(tone);
        // From +1 to -1: the reading passes zero when the old content has
        // decayed to half, after ln 2 integration times.
        for (float& x : tone[1])
            x = -x;
        double crossed = -1.0;
        for (std::size_t block = 0; block * 48 + 48 <= frames && crossed < 0.0; ++block) {
            Signal slice(2);
            for (int c = 0; c < 2; ++c)
                slice[c].assign(tone[c].begin() + static_cast<std::ptrdiff_t>(block * 48),
                               tone[c].begin() + static_cast<std::ptrdiff_t>(block * 48 + 48));
            f.run(slice);
            if (readout(f, "Correlation") <= 0.0)
                crossed = static_cast<double>(block + 1) * 48 / kRate * 1000.0;
        }
        EXPECT_NEAR(crossed, ms * std::log(2.0), ms * std::log(2.0) * 0.02) << ms << " ms";
    }
}

TEST(PhaseMeter, BalanceInDecibelsAndGoniometerAxes)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 256, 2));
    f.run(pair(kSettled, std::pow(10.0, 6.0 / 20.0)));
    EXPECT_NEAR(readout(f, "Balance"), 6.0, 0.05) << "right 6 dB louder";
    f.run(pair(kSettled, std::pow(10.0, -3.0 / 20.0)));
    EXPECT_NEAR(readout(f, "Balance"), -3.0, 0.05);

    // Mono lies on the vertical axis, opposite polarity on the horizontal one.
    auto spread = [&](double gain) {
        f.run(pair(kSettled, gain));
        const std::vector<double> points = readoutValues(f, "Goniometer");
        double x = 0.0, y = 0.0;
        for (std::size_t i = 0; i + 1 < points.size(); i += 2) {
            x = std::max(x, std::fabs(points[i]));
            y = std::max(y, std::fabs(points[i + 1]));
        }
        return std::make_pair(x, y);
    };
    const auto [monoX, monoY] = spread(1.0);
    EXPECT_LT(monoX, 1e-6);
    EXPECT_GT(monoY, 0.3);
    const auto [oppositeX, oppositeY] = spread(-1.0);
    EXPECT_GT(oppositeX, 0.3);
    EXPECT_LT(oppositeY, 1e-6);
}

// Surround analyser: the energy direction of single loudspeakers and of a
// phantom centre, the spread between them, the LFE against the mains, the
// pair correlations and the loudness of the stereo downmix, all on the
// layout a host names (5.1: L R C LFE Ls Rs; 7.1 adds Lb Rb, sides at 90).
#include "AnalysisReadouts.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Surround Analyzer:1364609638";
constexpr double kRate = 48000.0;
constexpr std::size_t kSecond = 48000;

// Noise on the listed channels only.
Signal on(int channels, std::initializer_list<int> active, std::size_t frames = kSecond, unsigned seed = 4)
{
    Signal s = silence(channels, frames);
    const Signal n = noise(1, frames, seed, 0.3f);
    for (int c : active)
        s[static_cast<std::size_t>(c)] = n[0];
    return s;
}

struct Reading {
    double direction, spread;
};

Reading measure(int channels, std::initializer_list<int> active)
{
    PluginFixture f(kKey);
    EXPECT_TRUE(f.prepare(kRate, 512, channels));
    f.run(on(channels, active));
    return {value(f, "Direction"), value(f, "Spread")};
}

} // namespace

TEST(SurroundAnalyzer, SingleLoudspeakersReadTheirAnglesAsPoints)
{
    // 5.1: L R C LFE Ls Rs; left is positive.
    const std::pair<int, double> fiveOne[] = {{2, 0.0}, {0, 30.0}, {1, -30.0}, {4, 110.0}, {5, -110.0}};
    for (const auto& [channel, degrees] : fiveOne) {
        const Reading r = measure(6, {channel});
        EXPECT_NEAR(r.direction, degrees, 0.01) << "5.1 channel " << channel;
        EXPECT_LT(r.spread, 0.01) << "5.1 channel " << channel;
    }
    // 7.1: the surrounds are the sides; the backs sit at 150.
    const std::pair<int, double> sevenOne[] = {{4, 90.0}, {5, -90.0}, {6, 150.0}, {7, -150.0}};
    for (const auto& [channel, degrees] : sevenOne)
        EXPECT_NEAR(measure(8, {channel}).direction, degrees, 0.01) << "7.1 channel " << channel;
    EXPECT_NEAR(measure(6, {3}).spread, 1.0, 1e-6) << "the LFE alone has no direction";
}

TEST(SurroundAnalyzer, PhantomSourcesLieBetweenTheirLoudspeakersAndSpread)
{
    const Reading centre = measure(6, {0, 1});
    EXPECT_NEAR(centre.direction, 0.0, 0.01);
    EXPECT_NEAR(centre.spread, 0.5, 0.01) << "sin 30: the pair spans 60 degrees";
    const Reading left = measure(6, {0, 4}); // L and Ls: the vector points to 70
    EXPECT_NEAR(left.direction, 70.0, 0.01);
    EXPECT_NEAR(left.spread, std::sin(40.0 * M_PI / 180.0), 0.01);
    const Reading all = measure(6, {0, 1, 2, 4, 5});
    EXPECT_GT(all.spread, 0.9) << "a full ring is nearly diffuse";
}

TEST(SurroundAnalyzer, LfeLevelAgainstTheMeanOfTheMains)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 480, 6));
    f.set("INTEGRATION", 2000.0f);
    // Mains at 0.1, 0.2, 0.1, 0.1, 0.05 peak; the LFE a 40 Hz sine at 0.3 peak.
    const double peaks[] = {0.1, 0.2, 0.1, 0.3, 0.1, 0.05};
    Signal in = silence(6, 10 * kSecond);
    for (int c = 0; c < 6; ++c)
        in[static_cast<std::size_t>(c)] = sine(1, 10 * kSecond, c == 3 ? 40.0 : 500.0 + 100.0 * c, kRate, peaks[c])[0];
    EXPECT_EQ(f.run(in, 9), in);
    double mains = 0.0;
    for (int c : {0, 1, 2, 4, 5})
        mains += peaks[c] * peaks[c] / 5.0;
    EXPECT_NEAR(value(f, "LFE Level"), 10.0 * std::log10(0.3 * 0.3 / mains), 0.1);
    EXPECT_NEAR(value(f, "Channel Levels", 1), dB(0.2 / std::sqrt(2.0)), 0.05) << "R, mean square in dB";
    EXPECT_NEAR(value(f, "Role Levels", qvd::kRoleLFE), dB(0.3 / std::sqrt(2.0)), 0.05);
    EXPECT_EQ(value(f, "Channel Roles", 3), static_cast<double>(qvd::kRoleLFE));
}

TEST(SurroundAnalyzer, FrontAndSurroundPairCorrelations)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 6));
    Signal in = on(6, {0, 1, 4});
    for (auto& x : in[5])
        x = 0.0f;
    for (std::size_t n = 0; n < kSecond; ++n)
        in[5][n] = -in[4][n];
    f.run(in);
    EXPECT_NEAR(value(f, "Front Correlation"), 1.0, 1e-4);
    EXPECT_NEAR(value(f, "Surround Correlation"), -1.0, 1e-4);
    Signal independent = noise(6, 4 * kSecond, 21);
    f.run(independent);
    EXPECT_LT(std::fabs(value(f, "Front Correlation")), 0.1);
}

TEST(SurroundAnalyzer, DownmixLoudnessAgainstTheProgramme)
{
    // The centre folds in at -3 dB to both sides: the same loudness. A
    // surround folds in at -3 dB to one side, where it counted +1.5 dB in
    // the programme: 4.5 LU quieter.
    const std::pair<int, double> cases[] = {{2, 0.0}, {4, -3.0103 - 10.0 * std::log10(1.41)}, {0, 0.0}};
    for (const auto& [channel, difference] : cases) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 6));
        Signal in = silence(6, 5 * kSecond);
        in[static_cast<std::size_t>(channel)] = sine(1, 5 * kSecond, 1000.0, kRate, 0.1)[0];
        f.run(in);
        EXPECT_NEAR(value(f, "Downmix Difference"), difference, 0.05) << "channel " << channel;
        EXPECT_NEAR(value(f, "Downmix Difference"), value(f, "Downmix Loudness") - value(f, "Surround Loudness"), 1e-3);
    }
}

TEST(SurroundAnalyzer, PassesAudioUnchangedAtAnyChannelCount)
{
    PluginFixture f(kKey);
    for (int channels : {1, 2, 6, 8, 32}) {
        ASSERT_TRUE(f.prepare(kRate, 512, channels));
        expectPassThrough(f, channels, 5);
    }
}

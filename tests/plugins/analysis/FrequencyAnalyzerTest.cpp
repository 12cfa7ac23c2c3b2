// Frequency analyser: a sine reads its level in dB at its frequency through
// every window, pink noise reads flat in third-octave bands, held peaks stay
// after the tone has gone, and the audio passes unchanged.
#include "AnalysisReadouts.h"

#include <array>

using namespace qvd::test;

namespace {

const std::string kKey = "Frequency Analyzer:1364608626";
const double kMinus6 = std::pow(10.0, -6.0 / 20.0);

// Pink noise from white through a sum of first-order low passes whose
// response follows -3 dB per octave within +-0.05 dB above 10 Hz at 44.1 kHz.
std::vector<float> pinkNoise(std::size_t frames, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> white(0.0, 0.05);
    double b0 = 0, b1 = 0, b2 = 0, b3 = 0, b4 = 0, b5 = 0, b6 = 0;
    std::vector<float> out(frames);
    for (auto& y : out) {
        const double w = white(rng);
        b0 = 0.99886 * b0 + w * 0.0555179;
        b1 = 0.99332 * b1 + w * 0.0750759;
        b2 = 0.96900 * b2 + w * 0.1538520;
        b3 = 0.86650 * b3 + w * 0.3104856;
        b4 = 0.55000 * b4 + w * 0.5329522;
        b5 = -0.7616 * b5 - w * 0.0168980;
        y = static_cast<float>(b0 + b1 + b2 + b3 + b4 + b5 + b6 + w * 0.5362);
        b6 = w * 0.115926;
    }
    return out;
}

} // namespace

TEST(FrequencyAnalyzer, SineReadsItsLevelAtItsFrequencyThroughEveryWindow)
{
    // 32 kHz and 4096 points put 1 kHz on bin 128.
    constexpr double kRate = 32000.0;
    for (int window = 0; window < 10; ++window) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 1));
        f.set("SIZE", 3);
        f.set("WINDOW", static_cast<float>(window));
        f.set("AVERAGING", 0);
        f.run(sine(1, 32000, 1000.0, kRate, kMinus6));
        EXPECT_NEAR(value(f, "Bin Width"), 7.8125, 1e-4);
        EXPECT_NEAR(value(f, "Bins", 128), -6.0, 0.1) << "window " << window;
        EXPECT_NEAR(value(f, "Peak Level"), -6.0, 0.1) << "window " << window;
        EXPECT_NEAR(value(f, "Peak Frequency"), 1000.0, 0.5) << "window " << window;
        const auto grid = values(f, "Spectrum");
        const auto top = std::max_element(grid.begin(), grid.end()) - grid.begin();
        EXPECT_NEAR(grid[static_cast<std::size_t>(top)], -6.0, 0.1) << "window " << window;
        EXPECT_NEAR(value(f, "Spectrum Frequencies", static_cast<std::size_t>(top)), 1000.0, 15.0);
        // Far from the tone the smoother windows read far below it.
        if (window == 2 || window == 5) {
            EXPECT_LT(value(f, "Bins", 400), -90.0) << "window " << window;
        }
    }
}

TEST(FrequencyAnalyzer, SineBetweenBinsStillFindsItsFrequencyAndBandLevel)
{
    constexpr double kRate = 48000.0;
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 256, 1));
    f.set("SIZE", 4); // 8192 points, 5.86 Hz bins
    f.run(sine(1, 96000, 997.0, kRate, kMinus6));
    EXPECT_NEAR(value(f, "Peak Frequency"), 997.0, 0.5);
    // Hann scalloping is 1.4 dB at worst; the parabola takes most of it back.
    EXPECT_NEAR(value(f, "Peak Level"), -6.0, 0.3);
    // The 1 kHz third-octave band holds the whole tone.
    const auto centres = values(f, "Band Centres");
    const auto bands = values(f, "Bands");
    const auto at = std::find_if(centres.begin(), centres.end(), [](double c) { return std::fabs(c - 1000.0) < 1.0; });
    ASSERT_NE(at, centres.end());
    EXPECT_NEAR(bands[static_cast<std::size_t>(at - centres.begin())], -6.0, 0.1);
}

TEST(FrequencyAnalyzer, PinkNoiseReadsFlatInThirdOctaves)
{
    constexpr double kRate = 44100.0;
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 1024, 1));
    f.set("SIZE", 6); // 32768 points, 1.35 Hz bins: the 20 Hz band is 3.4 bins wide
    f.set("TIME", 60000.0f);
    Signal in{pinkNoise(static_cast<std::size_t>(kRate * 120), 3)};
    f.run(in);
    const auto count = static_cast<std::size_t>(value(f, "Band Count"));
    ASSERT_EQ(count, 30u) << "20 Hz to 16 kHz; the 20 kHz band reaches past Nyquist";
    const auto centres = values(f, "Band Centres");
    EXPECT_NEAR(centres[0], 19.95, 0.01);
    EXPECT_NEAR(centres[count - 1], 15849, 1);
    const auto bands = values(f, "Bands");
    double mean = 0.0;
    for (std::size_t b = 0; b < count; ++b)
        mean += bands[b] / static_cast<double>(count);
    for (std::size_t b = 0; b < count; ++b)
        EXPECT_NEAR(bands[b], mean, 1.0) << centres[b] << " Hz";
    EXPECT_LE(values(f, "Bands")[count], -199.0) << "bands past the count read the floor";
}

TEST(FrequencyAnalyzer, BandLayoutsFollowTheFractionAndStopBelowNyquist)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(48000.0, 512, 1));
    const std::pair<int, std::size_t> layouts[] = {{0, 10}, {1, 31}, {2, 60}, {3, 121}};
    for (const auto& [choice, count] : layouts) {
        f.set("BANDS", static_cast<float>(choice));
        f.run(silence(1, 512));
        EXPECT_EQ(static_cast<std::size_t>(value(f, "Band Count")), count) << "choice " << choice;
        const auto centres = values(f, "Band Centres");
        // Neighbours a 1/b octave apart on the base-10 series.
        const int perOctave = std::array{1, 3, 6, 12}[static_cast<std::size_t>(choice)];
        EXPECT_NEAR(centres[1] / centres[0], std::pow(10.0, 0.3 / perOctave), 1e-6);
    }
    PluginFixture low(kKey);
    ASSERT_TRUE(low.prepare(32000.0, 512, 1));
    low.run(silence(1, 512));
    EXPECT_EQ(value(low, "Band Count"), 29.0) << "the 16 kHz band ends above 16 kHz";
    EXPECT_NEAR(value(low, "Band Centres", 28), 12589.3, 0.1);
}

TEST(FrequencyAnalyzer, PeakHoldKeepsAVanishedToneUntilReset)
{
    constexpr double kRate = 48000.0;
    Signal tone = sine(1, 48000, 2000.0, kRate, kMinus6);
    const Signal quiet = silence(1, 96000);
    PluginFixture held(kKey), averaged(kKey);
    ASSERT_TRUE(held.prepare(kRate, 512, 1));
    ASSERT_TRUE(averaged.prepare(kRate, 512, 1));
    held.set("AVERAGING", 2);
    averaged.set("TIME", 100.0f);
    for (PluginFixture* f : {&held, &averaged}) {
        f->run(tone);
        f->run(quiet);
    }
    EXPECT_NEAR(value(held, "Peak Frequency"), 2000.0, 1.0);
    EXPECT_NEAR(value(held, "Peak Level"), -6.0, 0.3);
    // 20 time constants of 100 ms take 87 dB off.
    EXPECT_LT(value(averaged, "Peak Level"), -80.0) << "an average of 100 ms forgets in 2 s";

    held.set("RESET", 1);
    held.run(quiet);
    EXPECT_LT(value(held, "Peak Level"), -150.0);
}

TEST(FrequencyAnalyzer, ChannelChoiceOrTheMeanOfAll)
{
    constexpr double kRate = 32000.0;
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    f.set("AVERAGING", 0);
    Signal in = sine(2, 32000, 1000.0, kRate, 0.5);
    in[1] = sine(1, 32000, 3000.0, kRate, 0.25)[0];
    f.set("CHANNEL", 2);
    f.run(in);
    EXPECT_NEAR(value(f, "Peak Frequency"), 3000.0, 0.5);
    EXPECT_NEAR(value(f, "Peak Level"), dB(0.25), 0.1);
    f.set("CHANNEL", 0);
    f.run(in);
    EXPECT_NEAR(value(f, "Peak Frequency"), 1000.0, 0.5);
    EXPECT_NEAR(value(f, "Peak Level"), dB(0.25), 0.1) << "the mean halves each channel";
    EXPECT_NEAR(value(f, "Bins", 384), dB(0.125), 0.1);
}

TEST(FrequencyAnalyzer, PassesAudioUnchangedAndRecoversFromNonFiniteInput)
{
    PluginFixture f(kKey);
    for (int channels : {1, 2, 8}) {
        ASSERT_TRUE(f.prepare(48000.0, 512, channels));
        expectPassThrough(f, channels, 11);
    }
    ASSERT_TRUE(f.prepare(32000.0, 512, 1));
    f.set("AVERAGING", 1);
    Signal burst = silence(1, 512);
    burst[0][100] = std::numeric_limits<float>::quiet_NaN();
    f.run(burst);
    f.run(sine(1, 32000, 1000.0, 32000.0, kMinus6));
    EXPECT_NEAR(value(f, "Peak Level"), -6.0, 0.1);

    // Finite but far over full scale: the average must come back down.
    f.set("TIME", 100.0f);
    Signal huge = silence(1, 4096);
    for (float& x : huge[0])
        x = 1e25f;
    f.run(huge);
    f.run(sine(1, 10 * 32000, 1000.0, 32000.0, kMinus6));
    EXPECT_NEAR(value(f, "Peak Level"), -6.0, 0.1);
}
